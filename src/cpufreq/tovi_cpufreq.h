/**
 * @file
 * CPU frequency: a per-CPU table of the available frequencies and the
 * governor read from the kernel's cpufreq files, governor and package
 * maximum changes made by shell commands, and whole-machine frequency steps
 * asked of the platform kernel.
 *
 * Files: /sys/devices/system/cpu/cpuN/cpufreq/{scaling_available_frequencies,
 * scaling_governor, scaling_max_freq}. A CPU without them gets the single
 * frequency 1200000 kHz and the governor "ondemand". The logical CPUs of
 * package p are taken to be p x per ... p x per + per - 1, where per =
 * logical CPUs / packages.
 */
#ifndef TOVI_CPUFREQ_H
#define TOVI_CPUFREQ_H

#include <stdint.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Fills the frequency table of every online CPU once per process (a later
 * call returns 0 at once). 0, or -1 when the package or logical CPU count
 * cannot be had. */
TOVI_API int32_t tovi_cpufreq_init(void);

/** Sets the governor of CPU `cpu` with "echo GOVERNOR >
 * /sys/devices/system/cpu/cpuN/cpufreq/scaling_governor". The command's
 * result (tovi_system_s: 0, the shell's status, -29 refused); -22 for a
 * NULL governor; -1 for a governor with shell metacharacters. */
TOVI_API int32_t tovi_cpufreq_set_governor(uint32_t cpu, const char *governor);

/** Sets every online CPU, in ascending order, to "performance" (type 0) or
 * "ondemand" (type 1), stopping at the first failure. 0, that failure's
 * result, or -22 for another type (nothing is run). */
TOVI_API int32_t tovi_set_cpufreq_switch(uint32_t type);

/** The scaling_max_freq of CPU `cpu` in kHz; 0 for a CPU above 255 or when
 * the file cannot be read. */
TOVI_API uint32_t tovi_cpufreq_quick_get_max(uint32_t cpu);

/** The larger scaling_max_freq of two CPUs of package `package`: the first
 * (package x per) and the middle one (that + per / 2). kHz, or -1 when
 * either cannot be read. */
TOVI_API int32_t tovi_get_phycpu_scaling_max_freq(uint32_t package);

/** Writes `freq` (kHz) to scaling_max_freq of the same two CPUs, first
 * then middle. 0, or -1 when a command fails (the rest is not run). */
TOVI_API int32_t tovi_set_phycpu_scaling_max_freq(uint32_t package, uint32_t freq);

/** Whole-machine steps done by the platform kernel: every CPU to its lowest
 * or highest frequency, or one step up or down. The kernel's result, or -1
 * when the call fails (as it always does without the platform kernel). */
TOVI_API int32_t tovi_cpufreq_set_low_all(void);
/** As tovi_cpufreq_set_low_all: every CPU to its highest frequency. */
TOVI_API int32_t tovi_cpufreq_set_high_all(void);
/** As tovi_cpufreq_set_low_all: one frequency step up on every CPU. */
TOVI_API int32_t tovi_cpufreq_up_allcpu_freq_by_step(void);
/** As tovi_cpufreq_set_low_all: one frequency step down on every CPU. */
TOVI_API int32_t tovi_cpufreq_down_allcpu_freq_by_step(void);

/** Asks the platform kernel for its frequency record of this CPU into
 * `out` (the record's layout is the platform's). 0, or -22 for NULL or
 * when the call fails. */
TOVI_API int32_t tovi_get_local_cpufreq(void *out);

TOVI_EXTERN_C_END

#endif
