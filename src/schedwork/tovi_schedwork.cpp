// Scheduled work: the queue, the elastic worker pool, start and destroy.
// The time-out table, the heal check and the counters are in
// tovi_schedwork_heal.cpp.
//
// Invariants:
//  - a work record is queued exactly when its entry is not the poison pair;
//    it is set idle under queueLock when it leaves the queue (taken by a
//    worker, deleted, or dropped by destroy);
//  - idleThreads counts workers not inside a handler, a new worker counted
//    before it runs; totalThreads counts workers alive, plus 1024 while a
//    destroy runs so that no worker can be created meanwhile;
//  - a worker belongs to one generation; a destroy bumps it, and a worker
//    that finds it changed after its handler leaves without touching the
//    counters, which the destroy has reset.
// Lock order: initMutex, then stateLock or queueLock (never both at once).
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tovi_cfg.h"
#include "tovi_cfg.hpp"
#include "tovi_jiffies.h"
#include "tovi_list.hpp"
#include "tovi_sched.h"
#include "tovi_str.h"
#include "tovi_schedwork.hpp"
#include "tovi_thread.h"
#include "tovi_time.h"

#define TOVI_LOG_SOURCE "tovi_sched_work"
#include "tovi_log.hpp"

namespace tovi::schedwork {

using log::kDebug;
using log::kError;
using log::kInfo;

namespace {

constexpr uint32_t kWorkerStrategy = 3;
constexpr uint32_t kCfgValueLen = 256;

SchedWorkRoot g_root;  // zero at load apart from the mutex

template <class T>
T load(const T &v)
{
    return __atomic_load_n(&v, __ATOMIC_ACQUIRE);
}

template <class T>
void store(T &v, T x)
{
    __atomic_store_n(&v, x, __ATOMIC_RELEASE);
}

// Counter arithmetic: the counters order nothing beyond themselves (the
// queue and the semaphore carry the hand-off), so relaxed read-modify-write
// suffices; each returns the new value.
int32_t add(int32_t &v, int32_t d)
{
    return __atomic_add_fetch(&v, d, __ATOMIC_RELAXED);
}

bool is_destroying(SchedWorkRoot &r)
{
    tovi_spinlock_lock(&r.stateLock.lock);
    const bool d = r.destroying == 1;
    tovi_spinlock_unlock(&r.stateLock.lock);
    return d;
}

// ---- Queue-wait samples (queueLock held) ----

void sample_add(WaitRing &w, const tovi_sched_work *work)
{
    if (w.count == WaitRing::kSize)
        return;  // not measured
    w.samples[(w.head + w.count) % WaitRing::kSize] = {work, tovi_time_getnanosec()};
    ++w.count;
}

void sample_forget(WaitRing &w, const tovi_sched_work *work)
{
    for (uint32_t i = w.count; i-- > 0;) {
        auto &s = w.samples[(w.head + i) % WaitRing::kSize];
        if (s.work == work) {
            s.work = nullptr;
            return;
        }
    }
}

// The queue wait of `work`, taken off the head of the queue; 0 when it was
// not measured.
uint64_t sample_take(WaitRing &w, const tovi_sched_work *work)
{
    while (w.count > 0 && w.samples[w.head].work == nullptr) {
        w.head = (w.head + 1) % WaitRing::kSize;
        --w.count;
    }
    if (w.count == 0 || w.samples[w.head].work != work)
        return 0;
    const uint64_t ns = tovi_time_getnanosec() - w.samples[w.head].ns;
    w.head = (w.head + 1) % WaitRing::kSize;
    --w.count;
    return ns == 0 ? 1 : ns;
}

// One idle limit from the settings: true and *value when the item exists.
bool setting(const char *item, uint64_t *value)
{
    char buf[kCfgValueLen] = {};
    if (cfg::library_setting(item, buf, sizeof buf) != 0)
        return false;
    *value = tovi_str_tou64(buf);
    return true;
}

tovi_sched_work *sched_work_select_task(SchedWorkRoot &r)
{
    tovi_spinlock_lock(&r.queueLock.lock);
    tovi_list_head_s *head = &r.queue.head;
    if (list::empty(head)) {
        tovi_spinlock_unlock(&r.queueLock.lock);
        return nullptr;
    }
    tovi_list_head_s *first = head->next;
    list::check_unlink(first, ToviSchedWorkShow);
    list::del(first);
    tovi_sched_work *work = list::entry<tovi_sched_work>(first, offsetof(tovi_sched_work, entry));
    const uint64_t waited = sample_take(r.waits, work);
    tovi_spinlock_unlock(&r.queueLock.lock);
    if (waited != 0)
        r.waitNs.add(waited);
    return work;
}

void sched_work_run_task(tovi_sched_work *work, int32_t index)
{
    if (work->process == nullptr) {
        TOVI_LOG(kError, "NULL sched work data handler, PID = (%d).", work->pid);
        return;
    }
    if (work->timeout == 0) {
        work->process(work);
        return;
    }
    const auto slot = static_cast<uint32_t>(index);
    tovi_update_sched_work_timeout_info(slot, tovi_get_jiffies(), work->timeout * TOVI_HZ,
                                        static_cast<uint32_t>(work->pid));
    work->process(work);
    tovi_update_sched_work_timeout_info(slot, 0, 0, 0);
}

void *sched_work_thread(void *);

// Tops the idle workers up to freeNumMin. 0, or -1 when a thread could not
// be created.
int sched_work_create_thread(SchedWorkRoot &r)
{
    for (;;) {
        if (add(r.idleThreads, 1) > static_cast<int32_t>(load(r.freeNumMin))) {
            add(r.idleThreads, -1);
            return 0;
        }
        if (add(r.totalThreads, 1) > kMaxThreads) {
            add(r.totalThreads, -1);
            add(r.idleThreads, -1);
            return 0;
        }
        if (create_thread_nopreempt_raw(sched_work_thread, nullptr, nullptr) != 0) {
            add(r.totalThreads, -1);
            add(r.idleThreads, -1);
            TOVI_LOG(kError, "Create sched work thread fail.");
            return -1;
        }
    }
}

void release_entry(int32_t index)
{
    if (index >= 0)
        tovi_del_sched_work_timeout_check(static_cast<uint32_t>(index));
}

void *sched_work_thread(void *)
{
    SchedWorkRoot &r = g_root;
    TOVI_LOG(kDebug, "Sched work thread running.");
    tovi_thrd_setname("tovi_schedwork");
    tovi_setCurThreadStrategy(kWorkerStrategy);
    int32_t index = -1;
    uint32_t claimed = 0;
    if (tovi_add_sched_work_timeout_check(static_cast<uint32_t>(tovi_thread_get_knl_tid()), &claimed) == 0)
        index = static_cast<int32_t>(claimed);
    for (;;) {
        tovi_sem_enhance_down_timeout(&r.sem, kWaitMs);  // any result: look at the state and the queue
        if (is_destroying(r)) {
            add(r.idleThreads, -1);
            add(r.totalThreads, -1);
            release_entry(index);
            return nullptr;
        }
        tovi_sched_work *work = sched_work_select_task(r);
        if (work == nullptr)
            continue;
        add(r.idleThreads, -1);
        sched_work_create_thread(r);
        if (load(r.totalThreads) == kMaxThreads && load(r.idleThreads) == 0)
            TOVI_LOG_RATELIMITED(kInfo, "All tovi_sched_work threads is running.");
        // Acquire pairs with the destroy's release increment: a worker that
        // sees the old generation here and the new one below was caught by it.
        const uint32_t gen = __atomic_load_n(&r.generation, __ATOMIC_ACQUIRE);
        __atomic_add_fetch(&r.startedCount, 1, __ATOMIC_RELAXED);
        sched_work_run_task(work, index);
        __atomic_add_fetch(&r.finishedCount, 1, __ATOMIC_RELAXED);
        if (__atomic_load_n(&r.generation, __ATOMIC_ACQUIRE) != gen)
            return nullptr;  // destroyed meanwhile: its counters are reset already
        if (add(r.idleThreads, 1) > static_cast<int32_t>(load(r.freeNumMax))) {
            release_entry(index);
            add(r.idleThreads, -1);
            add(r.totalThreads, -1);
            TOVI_LOG(kDebug, "Sched work thread exited.");
            return nullptr;
        }
    }
}

}  // namespace

SchedWorkRoot &root()
{
    return g_root;
}

void root_setup(SchedWorkRoot &r)
{
    store(r.startedCount, uint64_t{0});
    store(r.finishedCount, uint64_t{0});
    store(r.generation, 0u);
    tovi_sem_enhance_init(&r.sem, 0);
    r.stateLock = TOVI_SPINLOCK_INITIALIZER;
    r.queueLock = TOVI_SPINLOCK_INITIALIZER;
    list::init(&r.queue.head);
    r.destroying = 0;
    r.freeNumMin = kDefaultFreeMin;
    r.freeNumMax = kDefaultFreeMax;
    r.waits.head = 0;
    r.waits.count = 0;
    for (auto &e : r.timeoutTable) {
        pthread_mutex_init(&e.mutex, nullptr);
        e.startJiffies = 0;
        e.inUse = 0;
        e.timeoutJiffies = 0;
    }
}

}  // namespace tovi::schedwork

using tovi::schedwork::g_root;
using tovi::schedwork::SchedWorkRoot;
using namespace tovi::schedwork;
using tovi::log::kDebug;
using tovi::log::kError;
using tovi::log::kInfo;

extern "C" {

int32_t tovi_sched_init_work(tovi_sched_work *work, tovi_sched_work_func process, void *pData)
{
    work->pid = getpid();
    work->timeout = 0;
    tovi::list::poison(&work->entry);
    work->pData = pData;
    work->process = process;
    return work->pid;
}

int32_t tovi_set_sched_work_timeout(tovi_sched_work *work, uint32_t seconds)
{
    if (work == nullptr || seconds < TOVI_SCHED_WORK_MIN_TIMEOUT) {
        TOVI_LOG(kError, "param %p, timeout %u.", static_cast<void *>(work), seconds);
        return -1;
    }
    work->timeout = seconds;
    return 0;
}

// A failure returns what the logging call returned (never 0: -1 when the
// message's level is off).
#define SCHED_FAIL(...)                                        \
    do {                                                       \
        const int32_t logged_ = TOVI_LOG_RESULT(__VA_ARGS__);  \
        return logged_ != 0 ? logged_ : -1;                    \
    } while (0)

int32_t tovi_sched_add_work(tovi_sched_work *work)
{
    SchedWorkRoot &r = g_root;
    if (work == nullptr)
        SCHED_FAIL(kError, "The v_pstWork is equal NULL.");
    if ((load(r.inited) == 0 || load(r.started) == 0) && sched_work_init() != 0)
        SCHED_FAIL(kError, "Adding work failed, as the result of initing sched_work failed");
    if (is_destroying(r))
        TOVI_LOG(kError, "In destroying, adding v_pstWork failed.");  // and queued all the same
    if (!tovi::list::poisoned(&work->entry))
        SCHED_FAIL(kError, "Work in list is not initial, PID = (%d)", work->pid);
    tovi_spinlock_lock(&r.queueLock.lock);
    tovi_list_head_s *head = &r.queue.head;
    tovi::list::check_tail_link(head, ToviSchedWorkShow);
    tovi::list::add_tail(&work->entry, head);
    tovi::schedwork::sample_add(r.waits, work);
    tovi_spinlock_unlock(&r.queueLock.lock);
    __atomic_add_fetch(&r.queuedCount, 1, __ATOMIC_RELAXED);  // operator counter only
    return tovi_sem_enhance_up(&r.sem);
}

int32_t tovi_sched_delete_work(tovi_sched_work *work)
{
    SchedWorkRoot &r = g_root;
    if (work == nullptr) {
        TOVI_LOG(kError, "The v_pstWork is equal NULL.");
        return -1;
    }
    if (load(r.inited) == 0 || load(r.started) == 0) {
        TOVI_LOG(kError, "Deleting work failed, as the sched_work not inited.");
        return -1;
    }
    tovi_spinlock_lock(&r.queueLock.lock);
    if (tovi::list::poisoned(&work->entry)) {
        tovi_spinlock_unlock(&r.queueLock.lock);
        return TOVI_SCHED_WORK_NOT_QUEUED;
    }
    tovi::list::check_unlink(&work->entry, ToviSchedWorkShow);
    tovi::list::del(&work->entry);
    tovi::schedwork::sample_forget(r.waits, work);
    tovi_spinlock_unlock(&r.queueLock.lock);
    return 0;
}

int sched_work_init(void)
{
    SchedWorkRoot &r = g_root;
    pthread_mutex_lock(&r.initMutex);
    if (load(r.inited) == 0) {
        root_setup(r);
        tovi_init_sched_work_heal_task_info();
        store(r.inited, 1u);  // pairs with the acquire loads of tovi_sched_add_work
    }
    if (load(r.started) == 1) {
        pthread_mutex_unlock(&r.initMutex);
        return 0;
    }
    sched_work_thread_num_set();
    int ret = tovi::schedwork::sched_work_create_thread(r);
    if (ret == 0)
        store(r.started, 1u);
    pthread_mutex_unlock(&r.initMutex);
    return ret == 0 ? 0 : -1;
}

int sched_work_destroy(void)
{
    SchedWorkRoot &r = g_root;
    pthread_mutex_lock(&r.initMutex);
    if (load(r.started) == 0 || is_destroying(r)) {
        pthread_mutex_unlock(&r.initMutex);
        return 0;
    }
    tovi_spinlock_lock(&r.stateLock.lock);
    r.destroying = 1;
    tovi_spinlock_unlock(&r.stateLock.lock);
    add(r.totalThreads, kDestroyBias);  // no worker can be created from here on
    tovi_10msleep(1);

    tovi_spinlock_lock(&r.queueLock.lock);
    while (!tovi::list::empty(&r.queue.head))
        tovi::list::del(r.queue.head.next);  // set idle; its handler never runs
    r.waits.head = 0;
    r.waits.count = 0;
    tovi_spinlock_unlock(&r.queueLock.lock);

    const int32_t idle = load(r.idleThreads);
    for (int32_t i = 0; i < idle; ++i) {
        tovi_sem_enhance_up(&r.sem);
        tovi_10msleep(1);
    }
    // On a busy machine a woken worker may need longer than its tick: give
    // the idle ones up to a second more to leave, so that none is still
    // counting when the counters are reset below.
    for (int tick = 0; tick < 100; ++tick) {
        const uint64_t busy = load(r.startedCount) - load(r.finishedCount);
        if (load(r.totalThreads) - kDestroyBias <= static_cast<int64_t>(busy))
            break;
        tovi_10msleep(1);
    }
    __atomic_add_fetch(&r.generation, 1, __ATOMIC_RELEASE);  // pairs with the worker's acquire loads
    const int32_t total = load(r.totalThreads);
    if (total != kDestroyBias)
        TOVI_LOG(kDebug, "some sched work thread exited abnormally. totalThread = %d", total - kDestroyBias);
    store(r.totalThreads, 0);
    store(r.idleThreads, 0);
    tovi_spinlock_lock(&r.stateLock.lock);
    r.destroying = 0;
    tovi_spinlock_unlock(&r.stateLock.lock);
    store(r.started, 0u);
    pthread_mutex_unlock(&r.initMutex);
    return 0;
}

void sched_work_thread_num_set(void)
{
    SchedWorkRoot &r = g_root;
    uint64_t min = kDefaultFreeMin;
    uint64_t max = kDefaultFreeMax;
    const bool hasMin = tovi::schedwork::setting("SCHED_THREAD_FREE_NUM_MIN", &min);
    const bool hasMax = tovi::schedwork::setting("SCHED_THREAD_FREE_NUM_MAX", &max);
    if (hasMin || hasMax) {
        if (max < min)
            return;  // the previous limits stay
        if (min > kDefaultFreeMin)
            min = kDefaultFreeMin;
        if (max > kDefaultFreeMax)
            max = kDefaultFreeMax;
    }
    store(r.freeNumMin, static_cast<uint32_t>(min));
    store(r.freeNumMax, static_cast<uint32_t>(max));
}

}  // extern "C"
