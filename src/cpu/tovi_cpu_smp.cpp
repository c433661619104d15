// CPU counts.
#include <atomic>
#include <cerrno>
#include <mutex>
#include <unistd.h>

#include "tovi_cpu.h"
#include "tovi_cpumask.h"
#include "tovi_sysinfo.h"
#define TOVI_LOG_SOURCE "tovi_smp"
#include "tovi_log.hpp"

namespace {

using tovi::log::kError;

std::mutex g_mutex;
std::atomic<uint32_t> g_counted{0};

// The online count is the CPU-usage sampler's (it caches the system's count).
uint32_t online_now()
{
    return tovi_sysinfo_cpu_num();
}

}  // namespace

extern "C" {

uint32_t g_onlineCpuNum = 0;
uint32_t g_configCpuNum = 0;

int32_t globalCpuNum_init(void)
{
    if (g_counted.load(std::memory_order_acquire) != 0)  // pairs with the release below
        return 0;
    std::lock_guard<std::mutex> guard(g_mutex);
    if (g_counted.load(std::memory_order_relaxed) != 0)
        return 0;
    __atomic_store_n(&g_onlineCpuNum, online_now(), __ATOMIC_RELAXED);
    long n = sysconf(_SC_NPROCESSORS_CONF);
    if (n < 0)
        TOVI_LOG(kError, "Tovi_smp getting cpu num failed errno=%d.", errno);
    else
        __atomic_store_n(&g_configCpuNum, static_cast<uint32_t>(n), __ATOMIC_RELAXED);
    if (g_onlineCpuNum == 0 || g_configCpuNum == 0)
        return -1;
    g_counted.store(1, std::memory_order_release);
    return 0;
}

uint32_t num_online_cpus(void)
{
    return online_now();
}

uint32_t num_config_cpus(void)
{
    uint32_t count = __atomic_load_n(&g_configCpuNum, __ATOMIC_RELAXED);
    if (count != 0)
        return count;
    long n = sysconf(_SC_NPROCESSORS_CONF);
    if (n >= 1 && n <= static_cast<long>(TOVI_CPUMASK_BITS)) {
        // Concurrent first callers store the same count.
        __atomic_store_n(&g_configCpuNum, static_cast<uint32_t>(n), __ATOMIC_RELAXED);
        return static_cast<uint32_t>(n);
    }
    TOVI_LOG(kError, "Tovi_smp getting cpu num failed ret %ld errno=%d.", n, errno);
    return 0;
}

}  // extern "C"
