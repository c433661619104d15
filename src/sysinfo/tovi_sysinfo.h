/**
 * @file
 * System information: machine-wide CPU usage, CPU counts, memory usage and
 * the CPU topology.
 *
 * CPU usage. One thread on the whole machine ("tovi_sysinfo") samples
 * /proc/stat once a second and publishes the load in three POSIX shared
 * memory arrays of n + 1 elements (n = configured CPUs; element 0 is the
 * whole machine, element i + 1 is CPU i):
 *   "SYSINFO_PUICPUUSAGE_NOROOT"      u32 load in percent over the last second
 *   "SYSINFO_PULLCPULASTIDLE_NOROOT"  u64 idle ticks at the previous sample
 *   "SYSINFO_PULLCPULASTTOTAL_NOROOT" u64 total ticks at the previous sample
 * Every process that starts the library starts a sampler thread, which first
 * waits for an exclusive lock on "/dev/shm/SYSINFO_PUICPUUSAGE_NOROOT": the
 * process holding it samples, the others read, and when the holder ends the
 * next waiter takes over. The lock is a record lock, which the kernel drops
 * when the holder closes any descriptor of that file: a process must not
 * open it itself. Busy = total - idle, where total is the sum of
 * user, nice, system, idle, iowait, irq and softirq and idle is the idle
 * field alone (I/O wait counts as busy); a percentage changes only when the
 * total did.
 *
 * Settings (section "TOVI" of the library's settings file, see tovi_cfg.h):
 *   SYSINFO_CPUUSAGE_THREAD_FLAG   missing or non-zero: start the sampler;
 *                                  0: this process reads but never samples.
 *   SYSINFO_CPUUSAGE_STEAL_BUSY    1: a guest's steal time (the eighth
 *                                  field) counts as busy, so a starved
 *                                  virtual machine shows its lost time as
 *                                  load; missing or 0 (the default) leaves
 *                                  steal out of the total. Only the sampling
 *                                  process's setting matters.
 *
 * Topology. The package count ("lscpu"), the logical CPU count
 * (/proc/cpuinfo), the CPU model ("uname -p") and the NUMA node count
 * (/sys/devices/system/node/online) are gathered once per boot and kept in
 * the shared object "cpuinfo_shm" under a lock on "/dev/shm/cpuinfo_shm";
 * later processes read them from there.
 */
#ifndef TOVI_SYSINFO_H
#define TOVI_SYSINFO_H

#include <stdint.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Bytes a buffer for tovi_get_cpumodel_info must hold. */
#define TOVI_CPUMODEL_LEN 64u

/** Once per process: creates or attaches the three usage arrays and, unless
 * SYSINFO_CPUUSAGE_THREAD_FLAG is 0, starts the sampler thread (one per
 * process, however often this runs). 0, or -1 when an array cannot be had
 * or the thread cannot start (logged). */
TOVI_API int32_t sysinfo_init(void);

/** Clears the initialised mark; the arrays and the sampler stay. */
TOVI_API void sysinfo_exit(void);

/** CPUs online (cached after the first success); 0 when the system cannot
 * say (logged). */
TOVI_API uint32_t tovi_sysinfo_cpu_num(void);

/** CPUs configured (cached). */
TOVI_API uint32_t tovi_sysinfo_present_cpu_num(void);

/** The whole machine's load in percent (0 before sysinfo_init). */
TOVI_API uint32_t tovi_sysinfo_cpu_usage(void);

/** The load of CPU *cpu in percent; 0 for NULL, a CPU not below the
 * configured count, or before sysinfo_init. */
TOVI_API uint32_t tovi_sysinfo_core_usage(const uint32_t *cpu);

/** Copies the loads of CPUs 0 ... min(count, configured CPUs) - 1 into
 * `out`. 0, or -1 for NULL (logged) or before sysinfo_init. */
TOVI_API int32_t tovi_get_cpu_usage_array(uint32_t *out, uint32_t count);

/** Memory in use in percent of the total RAM, from sysinfo(2); 0 when that
 * fails. */
TOVI_API uint32_t tovi_sysinfo_mem_usage(void);

/** Loads the topology once per process, from "cpuinfo_shm" when it holds a
 * valid record, else by running the commands and storing the result. 0, or
 * -1 when the package or logical CPU count cannot be had. */
TOVI_API int32_t cpuinfo_init(void);

/** Physical packages into *num. 0, or -1 for NULL or no topology. */
TOVI_API int32_t tovi_get_phycpu_num(uint32_t *num);

/** Logical CPUs into *num. 0, or -1 for NULL or no topology. */
TOVI_API int32_t tovi_get_logic_cpu_num(uint32_t *num);

/** The CPU model text (as "uname -p" gives it) into buf, which holds
 * TOVI_CPUMODEL_LEN bytes. 0, or -1 for NULL or no topology. */
TOVI_API int32_t tovi_get_cpumodel_info(char *buf);

/** The CPUs of package `package` into a 256-bit mask (four 64-bit words,
 * cleared first): the union of the cpulist files of the package's NUMA
 * nodes (nodes package x k ... package x k + k - 1, k = nodes per package,
 * at least 1). 0, or -1 for NULL, a package not below the count, or an
 * unreadable list (logged). */
TOVI_API int32_t tovi_get_cpumask_by_phycpu(uint32_t package, uint64_t *mask);

TOVI_EXTERN_C_END

#endif
