// The processor controls of the kernel companion.
#include "tovi_companion.hpp"
#include "tovi_cpu.h"
#define TOVI_LOG_SOURCE "tovi_cpu"
#include "tovi_log.hpp"

namespace companion = tovi::companion;
using tovi::log::kError;

extern "C" {

int32_t tovi_get_idle_no_cstates(uint32_t cpu, uint32_t *value)
{
    if (value == nullptr) {
        TOVI_LOG(kError, "idle_no_cstates_value is null.");
        return -1;
    }
    return static_cast<int32_t>(
        companion::syscall(companion::kCmdGetIdleNoCstates, static_cast<long>(cpu), reinterpret_cast<long>(value)));
}

int32_t tovi_set_idle_no_cstates(uint32_t cpu, uint32_t value)
{
    long ret =
        companion::syscall(companion::kCmdSetIdleNoCstates, static_cast<long>(cpu), reinterpret_cast<long>(&value));
    if (ret != 0)
        TOVI_LOG(kError, "Syscall for tovi_set_idle_no_cstates failed.");
    return static_cast<int32_t>(ret);
}

int32_t tovi_get_cpu_task_info(uint32_t cpu, void *info)
{
    if (info == nullptr) {
        TOVI_LOG(kError, "pCpuTaskInfo is null.");
        return -1;
    }
    return companion::syscall(companion::kCmdCpuTaskInfo, static_cast<long>(cpu), reinterpret_cast<long>(info)) == 0
               ? 0
               : -1;
}

}  // extern "C"
