// High-resolution timers: a red-black tree of timers ordered by absolute
// CLOCK_MONOTONIC expiry, and the one thread that fires them.
//
// `mutex` guards the tree, every queued timer's `hrExpire` and `isp`, and
// `runningTimer`'s meaning; the thread holds it except while a callback
// runs. `isp` and `runningTimer` are also read without it (is_pending, the
// running test before the thread relocks), so they are stored atomically.
// Equal expiries go to the right of the ones present: they fire in the
// order they were armed.
#include <pthread.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "tovi_affinity.h"
#include "tovi_hr_timer.h"
#include "tovi_hr_timer.hpp"
#include "tovi_histogram.hpp"
#include "tovi_rbtree.h"
#include "tovi_sched.h"
#include "tovi_thread.h"

#define TOVI_LOG_SOURCE "tovi_hr_timer"
#include "tovi_log.hpp"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr const char *kAffinityLevel = "affinity_level_1";
constexpr uint32_t kThreadPrioLevel = 0;
constexpr uint32_t kThreadStrategy = 1;
constexpr int64_t kNsPerSec = 1000000000;
constexpr time_t kIdleWaitSec = 10;
constexpr uint64_t kListPauseLines = 50;
constexpr uint32_t kListPauseTicks = 100;
constexpr unsigned long kTimerSlackNs = 1;

// Initialisation steps, as kept in hrTimerState when one fails.
enum State : int32_t {
    kRunning = 0,
    kMutexFailed = 1,
    kCondattrInitFailed = 2,
    kSetclockFailed = 3,
    kCondFailed = 4,
    kThreadFailed = 5,
    kNotInited = 6,
};

struct HrTimerRoot {
    tovi_rb_root tree;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    tovi_timer *runningTimer;  // atomic
    pthread_t threadId;
    int32_t hrTimerState;      // atomic
};

HrTimerRoot g_hr{TOVI_RB_ROOT_INIT, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, nullptr, 0, kNotInited};
pthread_once_t g_hr_once = PTHREAD_ONCE_INIT;
// The clock timers are filed by: CLOCK_MONOTONIC, unless a caller that
// drives the module from its own thread gave its own (set before the once).
int (*g_clock)(timespec *) = nullptr;
tovi::stats::Histogram g_lateness;

bool inited()
{
    // Acquire pairs with the release store at the end of module start-up.
    return __atomic_load_n(&g_hr.hrTimerState, __ATOMIC_ACQUIRE) == kRunning;
}

uint8_t isp_of(const tovi_timer *t)
{
    return __atomic_load_n(&t->isp, __ATOMIC_RELAXED);  // written under mutex
}

void set_isp(tovi_timer *t, uint8_t v)
{
    __atomic_store_n(&t->isp, v, __ATOMIC_RELAXED);
}

tovi_timer *timer_of(tovi_rb_node *n)
{
    return tovi_rb_entry(n, tovi_timer, node);
}

bool before(const tovi_timer_time_s &a, const tovi_timer_time_s &b)
{
    return a.sec < b.sec || (a.sec == b.sec && a.nsec < b.nsec);
}

bool reached(const timespec &now, const tovi_timer_time_s &t)
{
    return now.tv_sec > t.sec || (now.tv_sec == t.sec && now.tv_nsec >= t.nsec);
}

// Adds nanoseconds, carrying only past a whole second (strictly).
timespec after(const timespec &now, int64_t ns)
{
    timespec t = now;
    t.tv_nsec += ns;
    if (t.tv_nsec > kNsPerSec) {
        t.tv_sec += t.tv_nsec / kNsPerSec;
        t.tv_nsec %= kNsPerSec;
    }
    return t;
}

// Files the timer by its expiry (mutex held); wakes the thread when it
// became the first.
void insert(tovi_timer *timer)
{
    tovi_rb_node **link = &g_hr.tree.node;
    tovi_rb_node *parent = nullptr;
    while (*link != nullptr) {
        parent = *link;
        link = before(timer->hrExpire, timer_of(parent)->hrExpire) ? &parent->left : &parent->right;
    }
    tovi_rb_link_node(&timer->node, parent, link);
    tovi_rb_insert_color(&timer->node, &g_hr.tree);
    set_isp(timer, TOVI_HR_TIMER_QUEUED);
    if (tovi_rb_first(&g_hr.tree) == &timer->node)
        pthread_cond_signal(&g_hr.cond);
}

void erase(tovi_timer *timer)
{
    tovi_rb_erase(&timer->node, &g_hr.tree);
    set_isp(timer, 0);
}

int read_clock(timespec *now)
{
    return g_clock != nullptr ? g_clock(now) : clock_gettime(CLOCK_MONOTONIC, now);
}

// Reads the clock and files the timer timeOut ns from now (mutex held).
// -1 after logging a clock failure.
int arm_locked(tovi_timer *timer)
{
    timespec now{};
    if (read_clock(&now) != 0) {
        TOVI_LOG(kError, "Get clock time failed, errno %d", errno);
        return -1;
    }
    const timespec at = after(now, static_cast<int64_t>(timer->timeOut));
    timer->hrExpire = {at.tv_sec, at.tv_nsec};
    insert(timer);
    return 0;
}

tovi_timer *running()
{
    return __atomic_load_n(&g_hr.runningTimer, __ATOMIC_ACQUIRE);
}

// Fires the first timer (mutex held on entry and on return).
void fire(tovi_timer *f, const timespec &now)
{
    // Release pairs with delete_sync's acquire load: it sees the timer as
    // running before it could see it out of the tree.
    __atomic_store_n(&g_hr.runningTimer, f, __ATOMIC_RELEASE);
    if (isp_of(f) == TOVI_HR_TIMER_QUEUED)
        erase(f);
    const int64_t late = (now.tv_sec - f->hrExpire.sec) * kNsPerSec + (now.tv_nsec - f->hrExpire.nsec);
    tovi_timer_func func = f->func;
    const uint64_t data = f->data;
    pthread_mutex_unlock(&g_hr.mutex);
    g_lateness.add(late > 0 ? static_cast<uint64_t>(late) : 0);
    if (func != nullptr)
        func(data);
    __atomic_store_n(&g_hr.runningTimer, static_cast<tovi_timer *>(nullptr), __ATOMIC_RELEASE);
    pthread_mutex_lock(&g_hr.mutex);
}

void *hr_timer_thread(void *)
{
    tovi_thrd_setname("tovi_hr_timer");
    tovi_thrd_setprio(kThreadPrioLevel);
    tovi_setCurThreadStrategy(kThreadStrategy);
    // The kernel may defer a timed wake-up by the thread's timer slack
    // (50 us by default), half the shortest delay served here.
    prctl(PR_SET_TIMERSLACK, kTimerSlackNs, 0, 0, 0);
    pthread_mutex_lock(&g_hr.mutex);
    for (;;) {
        timespec now{};
        if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
            continue;
        tovi_rb_node *first = tovi_rb_first(&g_hr.tree);
        if (first == nullptr) {
            timespec until = now;
            until.tv_sec += kIdleWaitSec;
            pthread_cond_timedwait(&g_hr.cond, &g_hr.mutex, &until);
            continue;
        }
        tovi_timer *f = timer_of(first);
        if (reached(now, f->hrExpire)) {
            fire(f, now);
            continue;
        }
        const timespec until{static_cast<time_t>(f->hrExpire.sec), static_cast<long>(f->hrExpire.nsec)};
        pthread_cond_timedwait(&g_hr.cond, &g_hr.mutex, &until);
    }
    return nullptr;
}

void fail(int32_t state)
{
    __atomic_store_n(&g_hr.hrTimerState, state, __ATOMIC_RELEASE);
}

// The tree, mutex and condition: false after logging and keeping the failed step.
bool init_sync()
{
    g_hr.tree.node = nullptr;
    g_hr.runningTimer = nullptr;
    int err = pthread_mutex_init(&g_hr.mutex, nullptr);
    if (err != 0) {
        TOVI_LOG(kError, "Mutex init failed, error no %d.", err);
        fail(kMutexFailed);
        return false;
    }
    pthread_condattr_t attr;
    if ((err = pthread_condattr_init(&attr)) != 0) {
        TOVI_LOG(kError, "Condattr init failed, error no %d", err);
        fail(kCondattrInitFailed);
        return false;
    }
    if ((err = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC)) != 0) {
        TOVI_LOG(kError, "Condattr setclock failed, error no %d", err);
        pthread_condattr_destroy(&attr);
        fail(kSetclockFailed);
        return false;
    }
    err = pthread_cond_init(&g_hr.cond, &attr);
    pthread_condattr_destroy(&attr);
    if (err != 0) {
        TOVI_LOG(kError, "Cond init failed, error no %d", err);
        fail(kCondFailed);
        return false;
    }
    return true;
}

void hr_timer_module_init()
{
    if (inited()) {
        TOVI_LOG(kInfo, "tovi hr timer is already inited.");
        return;
    }
    if (!init_sync())
        return;
    pthread_t id{};
    if (create_thread_nopreempt_raw(hr_timer_thread, nullptr, &id) != 0) {
        TOVI_LOG(kError, "Create thread failed.");
        return fail(kThreadFailed);
    }
    g_hr.threadId = id;
    __atomic_store_n(&g_hr.hrTimerState, kRunning, __ATOMIC_RELEASE);  // pairs with inited()
    if (tovi_set_thread_affinity(id, kAffinityLevel) != 0)
        TOVI_LOG(kInfo, "set thread affinity failed, tid(%lu), affinity_level(%s).", static_cast<unsigned long>(id),
                 kAffinityLevel);
    TOVI_LOG(kInfo, "tovi hr timer inited OK.");
}

int not_inited()
{
    TOVI_LOG(kError, "tovi hr timer is not inited.");
    return -1;
}

uint64_t expiry_ms(const tovi_timer *t)
{
    return static_cast<uint64_t>(t->hrExpire.sec) * 1000 + static_cast<uint64_t>(t->hrExpire.nsec) / 1000000;
}

}  // namespace

namespace tovi::timer::hr {

void lock()
{
    pthread_mutex_lock(&g_hr.mutex);
}

void unlock()
{
    pthread_mutex_unlock(&g_hr.mutex);
}

void insert(tovi_timer *timer)
{
    ::insert(timer);
}

int start_without_thread(int (*clock)(timespec *))
{
    static int (*s_clock)(timespec *);
    s_clock = clock;
    pthread_once(&g_hr_once, [] {
        g_clock = s_clock;
        if (init_sync())
            __atomic_store_n(&g_hr.hrTimerState, kRunning, __ATOMIC_RELEASE);  // pairs with inited()
    });
    return inited() && g_clock == clock ? 0 : -1;
}

bool next_expiry(tovi_timer_time_s *at)
{
    if (!inited())
        return false;
    pthread_mutex_lock(&g_hr.mutex);
    tovi_rb_node *first = tovi_rb_first(&g_hr.tree);
    if (first != nullptr)
        *at = timer_of(first)->hrExpire;
    pthread_mutex_unlock(&g_hr.mutex);
    return first != nullptr;
}

bool fire_due(const timespec &now)
{
    if (!inited())
        return false;
    pthread_mutex_lock(&g_hr.mutex);
    tovi_rb_node *first = tovi_rb_first(&g_hr.tree);
    const bool due = first != nullptr && reached(now, timer_of(first)->hrExpire);
    if (due)
        fire(timer_of(first), now);
    pthread_mutex_unlock(&g_hr.mutex);
    return due;
}

}  // namespace tovi::timer::hr

extern "C" {

int tovi_timer_add_ns(tovi_timer *timer)
{
    if (timer == nullptr || timer->func == nullptr) {
        TOVI_LOG(kError, "Input timer is null or not initiated.");
        return -1;
    }
    timer->flags = static_cast<uint8_t>(timer->flags | TOVI_TIMER_FLAG_HR);
    return tovi_hr_timer_add(timer);
}

int tovi_hr_timer_add(tovi_timer *timer)
{
    pthread_once(&g_hr_once, hr_timer_module_init);
    if (!inited())
        return not_inited();
    if (timer == nullptr)
        return -1;
    if (isp_of(timer) == TOVI_HR_TIMER_QUEUED) {
        TOVI_LOG(kError, "the hr timer is pending.");
        return -1;
    }
    if (timer->timeOut > TOVI_HR_TIMER_MAX_NS) {
        TOVI_LOG(kError, "expire must less than 1 ms.");
        return -1;
    }
    pthread_mutex_lock(&g_hr.mutex);
    const int ret = arm_locked(timer);
    pthread_mutex_unlock(&g_hr.mutex);
    return ret;
}

int tovi_hr_timer_modify(tovi_timer *timer, uint64_t ns)
{
    if (!inited())
        return not_inited();
    if (timer == nullptr)
        return -1;
    if (ns > TOVI_HR_TIMER_MAX_NS) {
        TOVI_LOG(kError, "expire must less than 1 ms.");
        return -1;
    }
    pthread_mutex_lock(&g_hr.mutex);
    timer->timeOut = ns;
    if (isp_of(timer) == TOVI_HR_TIMER_QUEUED)
        erase(timer);
    const int ret = arm_locked(timer);
    pthread_mutex_unlock(&g_hr.mutex);
    return ret;
}

int tovi_hr_timer_delete(tovi_timer *timer)
{
    if (!inited())
        return not_inited();
    pthread_mutex_lock(&g_hr.mutex);
    if (timer != nullptr && isp_of(timer) == TOVI_HR_TIMER_QUEUED)
        erase(timer);
    pthread_mutex_unlock(&g_hr.mutex);
    return 0;
}

int tovi_hr_timer_delete_sync(tovi_timer *timer)
{
    if (!inited())
        return not_inited();
    pthread_mutex_lock(&g_hr.mutex);
    while (timer != nullptr && running() == timer) {
        pthread_mutex_unlock(&g_hr.mutex);
        pthread_mutex_lock(&g_hr.mutex);
    }
    if (timer != nullptr && isp_of(timer) == TOVI_HR_TIMER_QUEUED)
        erase(timer);
    pthread_mutex_unlock(&g_hr.mutex);
    return 0;
}

int tovi_hr_timer_is_pending(tovi_timer *timer)
{
    return timer != nullptr && isp_of(timer) == TOVI_HR_TIMER_QUEUED ? 1 : 0;
}

int tovi_hr_timer_diagnose_func(int argc, char **argv)
{
    if (!inited())
        return not_inited();
    if (argc != 3 || argv == nullptr || argv[2] == nullptr || std::strncmp(argv[2], "list", 4) != 0) {
        TOVI_LOG(kInfo, "cmd input wrong.\n");
        return -1;
    }
    TOVI_LOG(kInfo, "list of timer\n%-5s %-24s %-12s %s:%-5s\n", "[NO.]", "[Timer Handler]", "[Expire(ms)]", "[file",
             "line]");
    pthread_mutex_lock(&g_hr.mutex);
    unsigned long n = 0;
    for (tovi_rb_node *node = tovi_rb_first(&g_hr.tree); node != nullptr; node = tovi_rb_next(node)) {
        const tovi_timer *t = timer_of(node);
        TOVI_LOG(kInfo, "%-5lu %-24s %-12lu %s:%-5d\n", ++n, t->funcName != nullptr ? t->funcName : "",
                 static_cast<unsigned long>(expiry_ms(t)), t->file != nullptr ? t->file : "", t->line);
        if (n % kListPauseLines == 0)
            tovi_10msleep(kListPauseTicks);
    }
    pthread_mutex_unlock(&g_hr.mutex);
    return 0;
}

int tovi_hr_timer_stats(tovi_hr_timer_stats_s *stats)
{
    if (stats == nullptr)
        return -1;
    stats->fired = g_lateness.count();
    stats->lateP50Ns = g_lateness.percentile(500);
    stats->lateP99Ns = g_lateness.percentile(990);
    stats->lateMaxNs = g_lateness.max();
    return 0;
}

int64_t tovi_hr_timer_list_pending(tovi_timer_info_s *out, uint32_t max, uint64_t *now)
{
    if (out == nullptr && max > 0)
        return -1;
    if (now != nullptr) {
        timespec ts{};
        read_clock(&ts);
        *now = static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
    }
    if (!inited())
        return 0;  // nothing was ever armed
    pthread_mutex_lock(&g_hr.mutex);
    int64_t n = 0;
    for (tovi_rb_node *node = tovi_rb_first(&g_hr.tree); node != nullptr; node = tovi_rb_next(node), ++n) {
        if (static_cast<uint64_t>(n) >= max)
            continue;
        const tovi_timer *t = timer_of(node);
        out[n] = {reinterpret_cast<uint64_t>(t), expiry_ms(t), t->timeOut, t->data,
                  reinterpret_cast<uint64_t>(t->func), t->funcName, t->file, t->line, isp_of(t), t->flags};
    }
    pthread_mutex_unlock(&g_hr.mutex);
    return n;
}

}  // extern "C"
