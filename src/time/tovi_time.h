/**
 * @file
 * The clock base: nanoseconds and milliseconds from the processor's
 * free-running counter. Where the processor has a cycle counter it can trust
 * as a clock (x86_64: an invariant time stamp counter, under a hypervisor only
 * one that vouches for it), that counter is read, its rate measured against
 * CLOCK_MONOTONIC at set-up and the readings anchored to that clock; else the
 * counter's ticks are multiplied by whole nanoseconds per tick.
 */
#ifndef TOVI_TIME_H
#define TOVI_TIME_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Processor/counter speed in GHz: 2.6 until measured or read. */
TOVI_API extern double currCpuGHz;

/** Sets up the clock base once. 0, or the failing step's result. */
TOVI_API uint32_t tovi_gettime_init(void);

/** Chooses the counter and sets its conversion: for a trusted cycle counter
 * the rate measured against CLOCK_MONOTONIC over 20 ms, otherwise the
 * nanoseconds-per-tick factor 10^9 / frequency (integer division; 0 when the
 * frequency reads 0). Sets currCpuGHz to 2.6. 0. */
TOVI_API uint32_t tovi_CheckCurrCpu(void);

/** Nanoseconds since an arbitrary start (with a cycle counter, CLOCK_MONOTONIC's
 * start): the counter's ticks converted. */
TOVI_API uint64_t tovi_time_getnanosec(void);

/** Ticks of the counter the clock reads to nanoseconds. */
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
