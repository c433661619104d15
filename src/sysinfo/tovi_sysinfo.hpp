// Internals of the CPU-usage sampler, for the tests.
#pragma once

#include <cstdint>

namespace tovi::sysinfo {

inline constexpr const char *kStatFile = "/proc/stat";
inline constexpr const char *kUsageName = "SYSINFO_PUICPUUSAGE_NOROOT";
inline constexpr const char *kIdleName = "SYSINFO_PULLCPULASTIDLE_NOROOT";
inline constexpr const char *kTotalName = "SYSINFO_PULLCPULASTTOTAL_NOROOT";
inline constexpr const char *kSamplerLock = "/dev/shm/SYSINFO_PUICPUUSAGE_NOROOT";

// One sample of /proc/stat into the shared arrays (sysinfo_init first).
void update_all_cpu_usage();

// An exclusive record lock on all of `fd`, waiting for it. False (errno
// set) when it cannot be had.
bool lock_whole(int fd);

// Whether steal time counts as busy (SYSINFO_CPUUSAGE_STEAL_BUSY = 1).
bool steal_is_busy();

}  // namespace tovi::sysinfo
