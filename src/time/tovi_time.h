/**
 * @file
 * The clock base: nanoseconds and milliseconds from the processor's
 * free-running counter, converted with one integer multiplication.
 */
#ifndef TOVI_TIME_H
#define TOVI_TIME_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Processor/counter speed in GHz: 2.6 until measured or read. */
TOVI_API extern double currCpuGHz;

/** Sets up the clock base once. 0, or the failing step's result. */
TOVI_API uint32_t tovi_gettime_init(void);

/** Reads the counter frequency and sets the nanoseconds-per-tick factor to
 * 10^9 / frequency (integer division; 0 when the frequency reads 0). 0. */
TOVI_API uint32_t tovi_CheckCurrCpu(void);

/** Nanoseconds since an arbitrary start: counter ticks times the factor. */
TOVI_API uint64_t tovi_time_getnanosec(void);

/** Counter ticks to nanoseconds. */
TOVI_API uint64_t tovi_time_cycles2ns(uint64_t cycles);

/** tovi_time_getnanosec() / 1000000. */
TOVI_API uint64_t tovi_time_getmillisec(void);

/** Measures the counter rate over 50 ms, rounds it to a multiple of 10 MHz
 * and stores it in currCpuGHz. */
TOVI_API void tovi_estimate_tsc_freq(void);

/** Sets currCpuGHz from the processor description: the speed at the end of
 * the model line ("... @ 2.40GHz"), or the estimate above when the model
 * line names none. TOVI_ERR (logged) when the processor has no constant
 * counter ("constant_tsc") or the description cannot be read. Not called
 * by start-up. */
TOVI_API uint32_t tovi_get_tsc_freq(void);

TOVI_EXTERN_C_END

#endif
