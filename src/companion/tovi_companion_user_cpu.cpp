// User-space backend: the processor controls 0x305-0x307 on a stock host.
//
// The idle C-state switch is kept per process, one word per CPU, starting at
// 0: a stock host's idle states belong to its administrator, and a library
// call must not change them behind the host's back. There is no per-CPU task
// information outside the platform kernel, so 0x307 fails with ENODATA. A CPU
// beyond the configured ones fails with EINVAL, a NULL pointer with EFAULT.
#include <cerrno>
#include <cstdint>
#include <unistd.h>

#include "tovi_companion.hpp"
#include "tovi_cpumask.h"

namespace tovi::companion::user {
namespace {

uint32_t g_no_cstates[TOVI_CPUSET_BITS];

bool known_cpu(long cpu)
{
    long configured = sysconf(_SC_NPROCESSORS_CONF);
    if (cpu >= 0 && cpu < configured && cpu < static_cast<long>(TOVI_CPUSET_BITS))
        return true;
    errno = EINVAL;
    return false;
}

}  // namespace

long cpu_get_idle_no_cstates(long cpu, long value, long)
{
    auto *out = reinterpret_cast<uint32_t *>(value);
    if (out == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (!known_cpu(cpu))
        return -1;
    *out = __atomic_load_n(&g_no_cstates[cpu], __ATOMIC_RELAXED);  // a lone word: nothing to order
    return 0;
}

long cpu_set_idle_no_cstates(long cpu, long value, long)
{
    const auto *in = reinterpret_cast<const uint32_t *>(value);
    if (in == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (!known_cpu(cpu))
        return -1;
    __atomic_store_n(&g_no_cstates[cpu], *in, __ATOMIC_RELAXED);
    return 0;
}

long cpu_task_info(long cpu, long info, long)
{
    if (info == 0) {
        errno = EFAULT;
        return -1;
    }
    if (!known_cpu(cpu))
        return -1;
    errno = ENODATA;
    return -1;
}

}  // namespace tovi::companion::user
