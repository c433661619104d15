// Scheduled work: the time-out table of the workers, the overrun check, the
// all-stuck detector, the heal task handed to the health-check framework,
// and the operator counters.
//
// An entry is claimed by one worker for its life (inUse, tid) and carries
// the watched handler's start, limit and pid while it runs. The checks read
// an entry first without its mutex and confirm under it, so a check never
// waits on a worker that is busy updating.
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "tovi_jiffies.h"
#include "tovi_schedwork.hpp"
#include "tovi_symbol.h"
#include "tovi_thread.h"

#define TOVI_LOG_SOURCE "tovi_sched_work"
#include "tovi_log.hpp"

// The framework reads the record by these offsets.
static_assert(offsetof(tovi_heal_task_s, name) == 0);
static_assert(offsetof(tovi_heal_task_s, check) == 32);
static_assert(offsetof(tovi_heal_task_s, reserved40) == 40);
static_assert(offsetof(tovi_heal_task_s, reserved48) == 48);
static_assert(offsetof(tovi_heal_task_s, param56) == 56);
static_assert(offsetof(tovi_heal_task_s, param60) == 60);
static_assert(offsetof(tovi_heal_task_s, param64) == 64);
static_assert(offsetof(tovi_heal_task_s, reserved72) == 72);
static_assert(sizeof(tovi_heal_task_s) == 80);
// Callers' work records are laid out as in C.
static_assert(offsetof(tovi_sched_work, timeout) == 4);
static_assert(offsetof(tovi_sched_work, entry) == 8);
static_assert(offsetof(tovi_sched_work, pData) == 24);
static_assert(offsetof(tovi_sched_work, process) == 32);

namespace tovi::schedwork {

using log::kError;
using log::kInfo;
using log::kWarning;

namespace {

constexpr const char *kHealTaskName = "tovi_schedwork_timeout_check";
constexpr uint32_t kShowBufLen = 256;

DumpFn g_dump_hook = nullptr;  // atomic

template <class T>
T peek(const T &v)
{
    // Relaxed: a first look without the entry mutex, confirmed under it.
    return __atomic_load_n(&v, __ATOMIC_RELAXED);
}

template <class T>
void poke(T &v, T x)
{
    __atomic_store_n(&v, x, __ATOMIC_RELAXED);  // under the entry mutex; read by peek
}

bool overran(const TimeoutEntry &e, uint64_t now)
{
    const uint64_t start = peek(e.startJiffies);
    return peek(e.inUse) != 0 && start != 0 && now - start > peek(e.timeoutJiffies);
}

void dump(uint32_t tid)
{
    DumpFn hook = __atomic_load_n(&g_dump_hook, __ATOMIC_ACQUIRE);
    if (hook != nullptr)
        hook(tid);
    else
        sched_work_dump_thread_stack(tid);
}

// Logs and dumps up to four workers that are inside a handler.
void tovi_dump_partial_sched_work_thread(SchedWorkRoot &r)
{
    uint32_t dumped = 0;
    for (auto &e : r.timeoutTable) {
        if (dumped == kMaxStuckDumps)
            break;
        if (peek(e.inUse) == 0)
            continue;
        const uint32_t tid = peek(e.tid);
        TOVI_LOG(kError, "sched work timeout: tid %u, pid %u. ", tid, peek(e.pid));
        dump(tid);
        ++dumped;
    }
}

}  // namespace

DumpFn set_dump_hook(DumpFn fn)
{
    return __atomic_exchange_n(&g_dump_hook, fn, __ATOMIC_ACQ_REL);
}

int32_t timeout_check(SchedWorkRoot &r, uint64_t now)
{
    for (auto &e : r.timeoutTable) {
        if (!overran(e, now))
            continue;
        pthread_mutex_lock(&e.mutex);
        const bool still = overran(e, now);
        const uint32_t tid = e.tid;
        const uint32_t pid = e.pid;
        pthread_mutex_unlock(&e.mutex);
        if (!still)
            continue;
        TOVI_LOG(kWarning, "sched work timeout: tid %u, pid %u.", tid, pid);
        __atomic_add_fetch(&r.overruns, 1, __ATOMIC_RELAXED);  // operator counter only
        dump(tid);
        return 1;
    }
    return 0;
}

int32_t all_work_timeout(SchedWorkRoot &r, uint64_t now)
{
    const uint64_t started = __atomic_load_n(&r.startedCount, __ATOMIC_RELAXED);
    const uint64_t finished = __atomic_load_n(&r.finishedCount, __ATOMIC_RELAXED);
    if (r.lastCheck == 0) {
        r.lastCheck = now;
        r.lastStarted = started;
        return 0;
    }
    if (started == r.lastStarted && started - finished > static_cast<uint64_t>(kMaxThreads - 1)) {
        if (now - r.lastCheck <= kAllStuckJiffies)
            return 0;
        tovi_dump_partial_sched_work_thread(r);
        return 1;
    }
    r.lastCheck = now;
    r.lastStarted = started;
    return 0;
}

void heal_check(SchedWorkRoot &r, void *record, uint64_t now)
{
    if (record == nullptr) {
        TOVI_LOG(kError, "Invalid param");
        return;
    }
    timeout_check(r, now);
    const uint32_t healthy = all_work_timeout(r, now) == 0 ? 1u : 0u;
    std::memcpy(static_cast<char *>(record) + TOVI_HEAL_RESULT_OFFSET, &healthy, sizeof healthy);
}

}  // namespace tovi::schedwork

using namespace tovi::schedwork;
using tovi::log::kError;
using tovi::log::kInfo;

extern "C" {

int32_t tovi_add_sched_work_timeout_check(uint32_t tid, uint32_t *index)
{
    if (index == nullptr) {
        TOVI_LOG(kError, "Invalid index, param null.");
        return -1;
    }
    SchedWorkRoot &r = root();
    for (uint32_t i = 0; i < kSlots; ++i) {
        TimeoutEntry &e = r.timeoutTable[i];
        if (peek(e.inUse) != 0)
            continue;
        pthread_mutex_lock(&e.mutex);
        if (e.inUse != 0) {
            pthread_mutex_unlock(&e.mutex);
            continue;
        }
        poke(e.tid, tid);
        poke(e.inUse, uint8_t{1});
        pthread_mutex_unlock(&e.mutex);
        *index = i;
        return 0;
    }
    TOVI_LOG(kError, "can not find spare index for tid %u.", tid);
    return -1;
}

void tovi_update_sched_work_timeout_info(uint32_t index, uint64_t startJiffies, uint32_t timeoutJiffies, uint32_t pid)
{
    if (index >= kSlots)
        return;
    TimeoutEntry &e = root().timeoutTable[index];
    pthread_mutex_lock(&e.mutex);
    poke(e.timeoutJiffies, timeoutJiffies);
    poke(e.pid, pid);
    poke(e.startJiffies, startJiffies);
    pthread_mutex_unlock(&e.mutex);
}

void tovi_del_sched_work_timeout_check(uint32_t index)
{
    if (index >= kSlots) {
        TOVI_LOG(kError, "Invalid index (%u).\n", index);
        return;
    }
    TimeoutEntry &e = root().timeoutTable[index];
    pthread_mutex_lock(&e.mutex);
    poke(e.startJiffies, uint64_t{0});
    poke(e.inUse, uint8_t{0});
    poke(e.timeoutJiffies, 0u);
    pthread_mutex_unlock(&e.mutex);
}

int32_t tovi_sched_work_timeout_theck(void)
{
    return timeout_check(root(), tovi_get_jiffies());
}

int32_t tovi_is_all_work_timeout(void)
{
    return all_work_timeout(root(), tovi_get_jiffies());
}

void tovi_heal_check_callback(void *record)
{
    heal_check(root(), record, tovi_get_jiffies());
}

void tovi_init_sched_work_heal_task_info(void)
{
    tovi_heal_task_s &t = root().healTask;
    std::memset(&t, 0, sizeof t);
    std::strncpy(t.name, kHealTaskName, sizeof t.name - 1);
    t.check = tovi_heal_check_callback;
    t.param56 = 1;
    t.param60 = 5;
    t.param64 = 5;
}

int32_t tovi_get_sched_work_heal_task_info(tovi_heal_task_s **task, uint32_t *taskNum)
{
    if (task == nullptr || taskNum == nullptr) {
        TOVI_LOG(kError, "Invalid param, heal_task(%p), task_num(%p).", static_cast<void *>(task),
                 static_cast<void *>(taskNum));
        return -1;
    }
    *task = &root().healTask;
    *taskNum = 1;
    return 0;
}

void sched_work_dump_thread_stack(uint32_t tid)
{
    dump_thread_stack_sig(getpid(), static_cast<int32_t>(tid));
}

// The three addresses are written into one buffer in turn, the handler last,
// and the message is formatted after them: every field shows the handler's
// text, the one that tells whose work this is.
void ToviSchedWorkShow(tovi_list_head_s *entry)
{
    auto *work = reinterpret_cast<tovi_sched_work *>(reinterpret_cast<char *>(entry) -
                                                     offsetof(tovi_sched_work, entry));
    char buf[kShowBufLen];
    tovi_symbol_addr_to_string(reinterpret_cast<uint64_t>(work), buf, sizeof buf);
    tovi_symbol_addr_to_string(reinterpret_cast<uint64_t>(work->pData), buf, sizeof buf);
    tovi_symbol_addr_to_string(reinterpret_cast<uint64_t>(work->process), buf, sizeof buf);
    TOVI_LOG(kInfo, "Sched work entry:%s, schedWork pid:%d, sched work pData:%s, sched work process         function: %s",
             buf, work->pid, buf, buf);
}

int32_t tovi_sched_work_stats(tovi_sched_work_stats_s *stats)
{
    if (stats == nullptr)
        return -1;
    SchedWorkRoot &r = root();
    // Relaxed loads: each counter on its own; the set is not one snapshot.
    stats->queued = __atomic_load_n(&r.queuedCount, __ATOMIC_RELAXED);
    stats->started = __atomic_load_n(&r.startedCount, __ATOMIC_RELAXED);
    stats->finished = __atomic_load_n(&r.finishedCount, __ATOMIC_RELAXED);
    stats->overruns = __atomic_load_n(&r.overruns, __ATOMIC_RELAXED);
    stats->waitSamples = r.waitNs.count();
    stats->waitP50Ns = r.waitNs.percentile(500);
    stats->waitP99Ns = r.waitNs.percentile(990);
    stats->waitMaxNs = r.waitNs.max();
    stats->threadsAlive = __atomic_load_n(&r.totalThreads, __ATOMIC_RELAXED);
    stats->threadsIdle = __atomic_load_n(&r.idleThreads, __ATOMIC_RELAXED);
    stats->freeNumMin = __atomic_load_n(&r.freeNumMin, __ATOMIC_RELAXED);
    stats->freeNumMax = __atomic_load_n(&r.freeNumMax, __ATOMIC_RELAXED);
    return 0;
}

}  // extern "C"
