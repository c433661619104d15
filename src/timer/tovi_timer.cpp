// Timer lists: the process-wide timer root, its thread and the exported
// operations. The wheel itself is in tovi_timer_wheel.cpp.
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "tovi_affinity.h"
#include "tovi_hr_timer.h"
#define TOVI_LOG_SOURCE "tovi_timer"
#include "tovi_log.hpp"
#include "tovi_thread.h"
#include "tovi_time.h"
#include "tovi_timer.hpp"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;
using tovi::timer::TimerRoot;

constexpr const char *kAffinityLevel = "affinity_level_1";
constexpr uint32_t kTimerPrioLevel = 1;
constexpr uint32_t kTimerStrategy = 3;

TimerRoot g_root;
// 2 before initialisation, 0 once the thread runs, 1 when it could not be
// started; anything but 0 means "not initialised".
int32_t timerNotInited = 2;
pthread_mutex_t g_init_mutex = PTHREAD_MUTEX_INITIALIZER;

bool inited()
{
    // Acquire pairs with the release store at the end of module start-up:
    // a caller that sees 0 sees the built root.
    return __atomic_load_n(&timerNotInited, __ATOMIC_ACQUIRE) == 0;
}

bool pending(tovi_timer *timer)
{
    // Relaxed: pairs with the relaxed stores of the wheel's links; no lock.
    return __atomic_load_n(&timer->entry.next, __ATOMIC_RELAXED) != nullptr;
}

bool is_hr(const tovi_timer *timer)
{
    return (timer->flags & TOVI_TIMER_FLAG_HR) != 0;
}

uint64_t now_ms()
{
    return tovi_time_getmillisec();
}

// Sleeps on the root's condition until `wake`, at most 20 ms from `now`.
// True when the wait timed out, false when signalled (or failed).
bool sleep_until(TimerRoot &root, uint64_t now, uint64_t wake)
{
    uint64_t wait = wake - now;
    if (wait > tovi::timer::kMaxSleepMs)
        wait = tovi::timer::kMaxSleepMs;
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline = tovi::timer::deadline_after(deadline, wait);
    return pthread_cond_timedwait(&root.cond, &root.mutex, &deadline) == ETIMEDOUT;
}

uint64_t next_wake_of(TimerRoot &root)
{
    // Relaxed: written under the root lock, and under `mutex` (held here)
    // whenever another thread moves it earlier.
    return __atomic_load_n(&root.nextWake, __ATOMIC_RELAXED);
}

// The timer thread: holds `mutex` except while it processes, wakes at least
// every 20 ms and fires what is due.
void *timer_thread(void *arg)
{
    auto &root = *static_cast<TimerRoot *>(arg);
    tovi::timer::mark_timer_thread();
    tovi_thrd_setname("tovi_run_timers");
    tovi_thrd_setprio(kTimerPrioLevel);
    tovi_setCurThreadStrategy(kTimerStrategy);
    pthread_mutex_lock(&root.mutex);
    for (;;) {
        uint64_t now = now_ms();
        uint64_t wake = next_wake_of(root);
        if (now < wake && !sleep_until(root, now, wake))
            continue;  // signalled: the wake-up moved, look again
        do {
            pthread_mutex_unlock(&root.mutex);
            tovi::timer::run_timers(root, now_ms());
            pthread_mutex_lock(&root.mutex);
            now = now_ms();
        } while (next_wake_of(root) <= now);
    }
    return nullptr;
}

// The argument checks of both deletes; `sync` also waits for a running callback.
int delete_checked(tovi_timer *timer, bool sync)
{
    if (timer == nullptr) {
        TOVI_LOG(kError, "Input timer is null.");
        return -1;
    }
    if (is_hr(timer))
        return sync ? tovi_hr_timer_delete_sync(timer) : tovi_hr_timer_delete(timer);
    if (!inited()) {
        TOVI_LOG(kError, "tovi timer is not inited.");
        return -1;
    }
    return tovi::timer::remove(g_root, timer, sync, now_ms());
}

}  // namespace

namespace tovi::timer {

TimerRoot &process_root()
{
    return g_root;
}

int start_without_thread()
{
    pthread_mutex_lock(&g_init_mutex);
    int ret = 0;
    if (!inited()) {
        root_reset(g_root, now_ms());
        ret = init_timer_root(g_root);
        if (ret == 0)
            __atomic_store_n(&timerNotInited, 0, __ATOMIC_RELEASE);  // pairs with inited()
    }
    pthread_mutex_unlock(&g_init_mutex);
    return ret;
}

}  // namespace tovi::timer

extern "C" {

int tovi_timer_module_init(void)
{
    if (inited())
        return 0;
    pthread_mutex_lock(&g_init_mutex);
    if (inited()) {
        pthread_mutex_unlock(&g_init_mutex);
        return 0;
    }
    tovi_gettime_init();
    tovi::timer::root_reset(g_root, now_ms());
    if (tovi::timer::init_timer_root(g_root) != 0) {
        pthread_mutex_unlock(&g_init_mutex);
        return -1;
    }
    g_root.timerMs = now_ms();
    pthread_t id{};
    if (create_thread_nopreempt_raw(timer_thread, &g_root, &id) != 0) {
        TOVI_LOG(kError, "Create thread failed.");
        __atomic_store_n(&timerNotInited, 1, __ATOMIC_RELEASE);  // pairs with inited()
        pthread_mutex_unlock(&g_init_mutex);
        return -1;
    }
    g_root.threadId = id;
    __atomic_store_n(&timerNotInited, 0, __ATOMIC_RELEASE);  // publishes the root; pairs with inited()
    if (tovi_set_thread_affinity(id, kAffinityLevel) != 0)
        TOVI_LOG(kInfo, "set thread affinity failed, tid(%lu), affinity_level(%s).", static_cast<unsigned long>(id),
                 kAffinityLevel);
    pthread_mutex_unlock(&g_init_mutex);
    return 0;
}

int tovi_timer_init(tovi_timer *timer)
{
    if (timer == nullptr) {
        TOVI_LOG(kError, "Input timer is null.");
        return -1;
    }
    std::memset(static_cast<void *>(timer), 0, sizeof *timer);
    return 0;
}

int tovi_timer_set_raw(tovi_timer *timer, uint64_t timeOut, uint64_t data, tovi_timer_func func,
                       const char *funcName, const char *file, int32_t line)
{
    if (timer == nullptr || func == nullptr) {
        TOVI_LOG(kError, "Input para is invalid.");
        return -1;
    }
    if (pending(timer)) {
        TOVI_LOG(kError, "The timer is pending.");
        return -1;
    }
    std::memset(static_cast<void *>(timer), 0, sizeof *timer);
    timer->timeOut = timeOut;
    timer->data = data;
    timer->func = func;
    timer->funcName = funcName;
    timer->file = file;
    timer->line = line;
    return 0;
}

int tovi_timer_add(tovi_timer *timer)
{
    if (!inited()) {
        TOVI_LOG(kError, "tovi timer is not inited.");
        return -1;
    }
    if (timer == nullptr || timer->func == nullptr) {
        TOVI_LOG(kError, "Input timer is null or not initiated.");
        return -1;
    }
    if (pending(timer)) {
        TOVI_LOG(kError, "The timer is pending.");
        return -1;
    }
    timer->flags = static_cast<uint8_t>(timer->flags & ~TOVI_TIMER_FLAG_HR);
    return tovi_timer_modify(timer, timer->timeOut);
}

int tovi_timer_modify(tovi_timer *timer, uint64_t timeOut)
{
    if (timeOut == 0 || timer == nullptr || timer->func == nullptr) {
        TOVI_LOG(kError, "Input para is invalid.");
        return -1;
    }
    if (is_hr(timer))
        return tovi_hr_timer_modify(timer, timeOut);
    return tovi::timer::arm(g_root, timer, timeOut, now_ms());
}

int tovi_timer_delete(tovi_timer *timer)
{
    return delete_checked(timer, false);
}

int tovi_timer_delete_sync(tovi_timer *timer)
{
    return delete_checked(timer, true);
}

int tovi_timer_destroy(tovi_timer *timer)
{
    return tovi_timer_delete_sync(timer);
}

int tovi_timer_is_pending(tovi_timer *timer)
{
    if (timer == nullptr) {
        TOVI_LOG(kError, "Input timer is null.");
        return 0;
    }
    if (is_hr(timer))
        return tovi_hr_timer_is_pending(timer);
    return pending(timer) ? 1 : 0;
}

int64_t tovi_timer_list_pending(tovi_timer_info_s *out, uint32_t max, uint64_t *now)
{
    if (!inited()) {
        TOVI_LOG(kError, "tovi timer is not inited.");
        return -1;
    }
    if (out == nullptr && max > 0) {
        TOVI_LOG(kError, "Input para is invalid.");
        return -1;
    }
    if (now != nullptr)
        *now = now_ms();
    return tovi::timer::list_pending(g_root, out, max);
}

}  // extern "C"
