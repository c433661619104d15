// The exception chain and the watchdog hook. The chain runs on the dying
// thread from the fault handler, so its walk never waits for the chain lock:
// a second fault while it runs (in a callback, or on another thread) gets
// -1 and the process goes on dying.
#include "tovi_exception.h"

#include "tovi_notifier.hpp"
#include "tovi_thread.h"
#define TOVI_LOG_SOURCE "tovi_exception"
#include "tovi_log.hpp"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

ToviAtomicNotifierHead g_exception_chain = TOVI_ATOMIC_NOTIFIER_HEAD_INIT("tovi_exception_chain");
ToviExceptionWatchdogFn g_watchdog = nullptr;  // atomic

}  // namespace

extern "C" {

int32_t tovi_exception_chain_register__(ToviNotifierBlock *block, const char *file, int32_t line)
{
    return tovi_atomic_notifier_chain_register__(&g_exception_chain, block, file, line);
}

int32_t tovi_exception_chain_unregister__(ToviNotifierBlock *block, const char *file, int32_t line)
{
    return tovi_atomic_notifier_chain_unregister__(&g_exception_chain, block, file, line);
}

int32_t tovi_exception_call_chain(uint64_t action, void *siginfo, ToviExceptionRegs *regs, uint64_t arg64,
                                  uint32_t arg32, int32_t sig)
{
    ToviExceptionData data{regs, siginfo, arg64, arg32, sig};
    const char *name = g_exception_chain.name;
    TOVI_LOG(kInfo, "Exception notifier %s call start: action=%d, siginfo=%p regs=%p.", name,
             static_cast<int>(action), siginfo, static_cast<void *>(regs));
    if (!tovi::notifier::try_lock(&g_exception_chain)) {
        TOVI_LOG(kError, "Exception notifier %s call end: trylock fail, owner=%lu.", name,
                 static_cast<unsigned long>(tovi::notifier::owner(&g_exception_chain)));
        return -1;
    }
    int32_t ret = tovi::notifier::call_chain_locked(&g_exception_chain, action, &data, -1, nullptr);
    tovi::notifier::unlock(&g_exception_chain);
    TOVI_LOG(kInfo, "Exception notifier %s call end: ret %d.", name, ret);
    return ret;
}

int32_t tovi_exception_init(void)
{
    tovi_thread_signal_init();
    return 0;
}

int32_t tovi_exception_init_with_list(void *ignored, const uint32_t *sigList, uint32_t sigNum)
{
    if (sigList == nullptr || sigNum == 0) {
        TOVI_LOG(kError, "parm is invaild, sigList is null or sigNum is not bigger than 0(%u).", sigNum);
        return -1;
    }
    tovi_thread_signal_init_with_list(ignored, sigList, sigNum);
    return 0;
}

int32_t tovi_exception_watchdog_timer_func_register(ToviExceptionWatchdogFn fn)
{
    // Release pairs with the acquiring load in the reset.
    __atomic_store_n(&g_watchdog, fn, __ATOMIC_RELEASE);
    TOVI_LOG(kInfo, "Tovi_exception_watchdog_timer_func_register=%p", reinterpret_cast<void *>(fn));
    return 0;
}

int32_t tovi_exception_watchdog_timer_reset(uint32_t value)
{
    ToviExceptionWatchdogFn fn = __atomic_load_n(&g_watchdog, __ATOMIC_ACQUIRE);
    if (fn == nullptr)
        return 0;
    TOVI_LOG(kInfo, "Tovi_exception_watchdog_timer_reset=%d", static_cast<int>(value));
    return fn(value);
}

}  // extern "C"
