/**
 * @file
 * CPU counts and the platform's processor controls.
 *
 * The controls are private system call operations of the kernel companion:
 * 0x305 reads and 0x306 sets a CPU's idle C-state switch (1: the CPU does not
 * enter deep idle states), 0x307 fills the platform's per-CPU task
 * information record. With the library's user-space companion a stock host
 * keeps the switch per process (it never changes the host's idle states;
 * every CPU starts at 0) and has no task information to give (0x307 fails
 * with ENODATA); a CPU number beyond the configured CPUs fails with EINVAL.
 */
#ifndef TOVI_CPU_H
#define TOVI_CPU_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** CPUs online, set by globalCpuNum_init. */
TOVI_API extern uint32_t g_onlineCpuNum;
/** CPUs configured, set by globalCpuNum_init. */
TOVI_API extern uint32_t g_configCpuNum;

/** Takes both counts once per process (later calls do nothing once both
 * are non-zero). 0, or -1 while a count is still unknown. */
TOVI_API int32_t globalCpuNum_init(void);

/** CPUs online now. */
TOVI_API uint32_t num_online_cpus(void);

/** CPUs configured: g_configCpuNum when set, else the system's count when it
 * is 1 ... 256 (then kept); 0 (logged) otherwise. */
TOVI_API uint32_t num_config_cpus(void);

/** Reads CPU `cpu`'s idle C-state switch into *value. The system call's
 * result (0, or -1 with errno); -1 for NULL. */
TOVI_API int32_t tovi_get_idle_no_cstates(uint32_t cpu, uint32_t *value);

/** Sets CPU `cpu`'s idle C-state switch. The system call's result (0, or -1
 * with errno, logged). */
TOVI_API int32_t tovi_set_idle_no_cstates(uint32_t cpu, uint32_t value);

/** Fills the platform's task information record of CPU `cpu`. 0 or -1. */
TOVI_API int32_t tovi_get_cpu_task_info(uint32_t cpu, void *info);

TOVI_EXTERN_C_END

#endif
