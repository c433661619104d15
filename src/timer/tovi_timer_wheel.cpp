// The five-level timing wheel: filing, unlinking, cascading and firing.
//
// Invariants (root lock held):
//  - a timer is pending exactly when entry.next is not NULL; it then sits in
//    one slot list, or on the local list of a pass that is firing its slot;
//  - a timer of level L > 0 sits in the slot of its expiry (or, beyond 60
//    days, of timerMs + 60 days) and is moved one level down when the wheel
//    base reaches the start of that slot, so it fires exactly at expirTime;
//  - pendingCount counts the pending timers; when it drops to 0 the base
//    jumps to the current millisecond, so an empty wheel never catches up.
//
// entry.next is read without the lock (tovi_timer_is_pending and the
// unchanged-expiry test of arming), so the wheel's lists are list::Relaxed
// lists (every link store atomic) and those readers load it atomically.
#include <cerrno>
#include <ctime>
#include <cstddef>
#include <cstring>

#include "tovi_init.h"
#include "tovi_jiffies.h"
#include "tovi_list.hpp"
#define TOVI_LOG_SOURCE "tovi_timer_wheel"
#include "tovi_log.hpp"
#include "tovi_symbol.h"
#include "tovi_time.h"
#include "tovi_timer.hpp"

namespace tovi::timer {
namespace {

using Node = tovi_list_head_s;
using log::kError;
using log::kInfo;
using log::kWarning;

thread_local bool t_timer_thread = false;

// Relaxed: pairs with the unlocked relaxed loads of tovi_timer_is_pending
// and of arming; ordering against the rest comes from the root lock.
using Links = list::Relaxed;

inline tovi_timer *timer_of(Node *entry)
{
    return list::entry<tovi_timer>(entry, offsetof(tovi_timer, entry));
}

// The slot of level `level` that holds expiry `e` (milliseconds).
inline uint32_t slot_index(uint64_t e, uint32_t level)
{
    return static_cast<uint32_t>((e / kSlotWidth[level]) % kSlotCount[level]);
}

// A list head with room around it, so that dumping it as a timer record
// (when a neighbour check fails) reads zeroes, not someone else's stack.
struct LocalList {
    tovi_timer holder{};
    Node *head() { return &holder.entry; }
};

inline void wake_if_earlier(TimerRoot &root, uint64_t w)
{
    if (!t_timer_thread && w < __atomic_load_n(&root.nextWake, __ATOMIC_RELAXED)) {
        pthread_mutex_lock(&root.mutex);
        // Relaxed: the timer thread reads nextWake under `mutex`.
        __atomic_store_n(&root.nextWake, w, __ATOMIC_RELAXED);
        pthread_mutex_unlock(&root.mutex);
        pthread_cond_signal(&root.cond);
    }
    __atomic_store_n(&root.nextWake, w, __ATOMIC_RELAXED);
}

inline void set_empty_base(TimerRoot &root, uint64_t now)
{
    root.timerMs = now;
    __atomic_store_n(&root.nextWake, now + kMaxSleepMs, __ATOMIC_RELAXED);
}

}  // namespace

// Moves every node of slot list `head` onto the empty list `local`, after
// checking (and reporting) the head's neighbours.
void splice_slot(Node *head, Node *local)
{
    list::check_links(head, tovi_timer_show);
    Links::splice_init(head, local);
}

bool on_timer_thread()
{
    return t_timer_thread;
}

void mark_timer_thread()
{
    t_timer_thread = true;
}

tovi_list_head_s *level_heads(TimerRoot &root, uint32_t level)
{
    switch (level) {
    case 0:
        return root.tv0;
    case 1:
        return root.tv1;
    case 2:
        return root.tv2;
    case 3:
        return root.tv3;
    default:
        return root.tv4;
    }
}

void root_reset(TimerRoot &root, uint64_t now)
{
    std::memset(static_cast<void *>(&root), 0, sizeof root);
    for (uint32_t level = 0; level < kLevels; ++level) {
        Node *heads = level_heads(root, level);
        for (uint32_t i = 0; i < kSlotCount[level]; ++i)
            Links::init(&heads[i]);
    }
    root.lock.lock = 0;
    root.lock.magic = TOVI_SPINLOCK_MAGIC;
    root.lock.other = 0xFFFFFFFFu;
    root.lock.owner = TOVI_LOCK_NO_OWNER;
    set_empty_base(root, now);
}

int init_timer_root(TimerRoot &root)
{
    int ret = static_cast<int>(tovi_mtx_init(&root.mutex, 0));
    if (ret != 0) {
        TOVI_LOG(kError, "Mutex init failed, error no %d.", ret);
        return -1;
    }
    pthread_condattr_t attr;
    ret = pthread_condattr_init(&attr);
    if (ret == 0) {
        ret = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        if (ret == 0)
            ret = pthread_cond_init(&root.cond, &attr);
        pthread_condattr_destroy(&attr);
    }
    if (ret != 0) {
        TOVI_LOG(kError, "Cond init failed, error no %d", ret);
        pthread_mutex_destroy(&root.mutex);
        return -1;
    }
    return 0;
}

void fini_timer_root(TimerRoot &root)
{
    pthread_cond_destroy(&root.cond);
    pthread_mutex_destroy(&root.mutex);
}

void attachTimerToList(TimerRoot &root, tovi_timer *timer)
{
    const uint64_t base = root.timerMs;
    uint64_t e = timer->expirTime;
    uint64_t d = e - base;
    if (e <= base) {
        // Already due: the slot about to be processed.
        Links::add_tail(&timer->entry, &root.tv0[base % kTv0Slots]);
        return;
    }
    // Beyond the wheel: filed at its far end and filed again from there.
    if (d > kWheelSpan) {
        e = base + kWheelSpan;
        d = kWheelSpan;
    }
    // The lowest level whose slots still cover the distance; each level
    // spans one slot of the next.
    uint32_t level = 0;
    while (level + 1 < kLevels && d >= kSlotWidth[level + 1])
        ++level;
    Node *head = &level_heads(root, level)[slot_index(e, level)];
    Links::add_tail(&timer->entry, head);
}

void detachTimerFromList(TimerRoot &root, tovi_timer *timer, bool clearNext, uint64_t now)
{
    Node *entry = &timer->entry;
    Node *prev = entry->prev;
    Node *next = entry->next;
    list::check_unlink(entry, tovi_timer_show);
    // Broken links are reported, not repaired; only a pointer that leads
    // nowhere is not written through.
    if (!list::bad_link(next))
        Links::store(&next->prev, prev);
    if (!list::bad_link(prev))
        Links::store(&prev->next, next);
    if (clearNext)
        Links::store(&entry->next, nullptr);
    Links::store(&entry->prev, list::kPoisonPrev);
    if (--root.pendingCount == 0)
        set_empty_base(root, now);
}

uint32_t recalculate_timer_slot(TimerRoot &root, uint32_t level, uint32_t index)
{
    LocalList local;
    Node *head = local.head();
    splice_slot(&level_heads(root, level)[index], head);
    Node *last = head;
    Node *cur = head->next;
    while (cur != head) {
        Node *next = cur->next;
        list::check_step(cur, last);
        attachTimerToList(root, timer_of(cur));
        last = cur;
        cur = next;
    }
    return index;
}

uint64_t next_wake(const TimerRoot &root)
{
    const uint64_t b = root.timerMs;
    const uint64_t s = ((b - 1) % kTv0Slots) + 1;  // a whole second gives 1000
    const uint64_t cap = s < 980 ? s : 980;
    if (s >= cap + kMaxSleepMs)
        return b;
    const uint64_t last = cap + kMaxSleepMs - 1;
    for (uint64_t j = s; j <= last && j < kTv0Slots; ++j)
        if (!list::empty(&root.tv0[j]))
            return b + (j - s);
    return b + (last - s);
}

int arm(TimerRoot &root, tovi_timer *timer, uint64_t timeOut, uint64_t now)
{
    timer->timeOut = timeOut;
    // Ticks of a 1000 Hz clock, i.e. milliseconds; huge values wrap.
    const uint64_t e = now + (timeOut * 1000) / 1000;
    // Relaxed loads: an unlocked look that only saves work; a race with a
    // concurrent arm of the same timer is the callers' own.
    if (__atomic_load_n(&timer->entry.next, __ATOMIC_RELAXED) != nullptr &&
        __atomic_load_n(&timer->expirTime, __ATOMIC_RELAXED) == e)
        return 0;
    tovi_spinlock_inl_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
    if (timer->entry.next != nullptr)
        detachTimerFromList(root, timer, false, now);
    if (root.pendingCount == 0)
        set_empty_base(root, now);
    // Relaxed: pairs with the unlocked load above.
    __atomic_store_n(&timer->expirTime, e, __ATOMIC_RELAXED);
    attachTimerToList(root, timer);
    ++root.pendingCount;
    if (e < root.timerMs + 1000)
        wake_if_earlier(root, next_wake(root));
    tovi_spinlock_inl_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
    return 0;
}

int remove(TimerRoot &root, tovi_timer *timer, bool sync, uint64_t now)
{
    tovi_spinlock_inl_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
    if (sync) {
        // Acquire pairs with the release that clears runningTimer after the
        // callback: once it is not this timer, the callback's work is visible.
        while (__atomic_load_n(&root.runningTimer, __ATOMIC_ACQUIRE) == timer) {
            tovi_spinlock_inl_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
            tovi_spinlock_inl_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
        }
    }
    if (timer->entry.next != nullptr)
        detachTimerFromList(root, timer, true, now);
    tovi_spinlock_inl_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
    return 0;
}

void run_timers(TimerRoot &root, uint64_t now)
{
    tovi_spinlock_inl_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
    if (root.pendingCount == 0) {
        set_empty_base(root, now);
        tovi_spinlock_inl_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
        return;
    }
    LocalList local;
    Node *head = local.head();
    while (static_cast<int64_t>(root.timerMs - now) < 1) {
        const uint64_t ms = root.timerMs;
        const uint32_t slot = static_cast<uint32_t>(ms % kTv0Slots);
        // At each whole second the next level down is refilled; a level
        // whose index wrapped to 0 refills from the one above it.
        if (slot == 0)
            for (uint32_t level = 1; level < kLevels; ++level)
                if (recalculate_timer_slot(root, level, slot_index(ms, level)) != 0)
                    break;
        root.timerMs = ms + 1;
        splice_slot(&root.tv0[slot], head);
        // Front first, re-reading the head each time: while the lock is
        // dropped other threads may delete or re-arm timers of this list.
        while (head->next != head) {
            Node *cur = head->next;
            list::check_step(cur, head);
            tovi_timer *timer = timer_of(cur);
            // Relaxed: read by remove() under the lock held here.
            __atomic_store_n(&root.runningTimer, timer, __ATOMIC_RELAXED);
            detachTimerFromList(root, timer, true, now);
            tovi_spinlock_inl_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
            run_timer_func(timer);
            // Release pairs with the acquire load in remove(sync).
            __atomic_store_n(&root.runningTimer, static_cast<tovi_timer *>(nullptr), __ATOMIC_RELEASE);
            tovi_spinlock_inl_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
        }
    }
    wake_if_earlier(root, next_wake(root));
    tovi_spinlock_inl_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
}

void run_timer_func(tovi_timer *timer)
{
    tovi_timer_func func = timer->func;
    if (func == nullptr) {
        tovi_timer_show(&timer->entry);
        func = timer->func;
        if (func == nullptr)
            return;
    }
    const uint64_t t0 = tovi_time_getmillisec();
    func(timer->data);
    const uint64_t cost = tovi_time_getmillisec() - t0;
    if (cost <= kSlowCallbackMs)
        return;
    const char *name = timer->funcName;
    char sym[128];
    if (name == nullptr) {
        tovi_symbol_addr_to_string(reinterpret_cast<uint64_t>(func), sym, sizeof sym);
        name = sym;
    }
    const auto addr = static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(timer));
    const auto faddr = static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(func));
    const auto ms = static_cast<unsigned long long>(cost);
    TOVI_LOG_RATELIMITED_GATED(kInfo, kWarning, "Timer 0x%llx func 0x%llx added by %s cost %llu ms.", addr, faddr,
                               name, ms);
    TOVI_LOG_INFRA(kWarning, "Timer 0x%llx func 0x%llx added by %s cost %llu ms.", addr, faddr, name, ms);
}

int64_t list_pending(TimerRoot &root, tovi_timer_info_s *out, uint32_t max)
{
    int64_t count = 0;
    tovi_spinlock_inl_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
    for (uint32_t level = 0; level < kLevels; ++level) {
        Node *heads = level_heads(root, level);
        for (uint32_t i = 0; i < kSlotCount[level]; ++i) {
            for (Node *n = heads[i].next; n != &heads[i]; n = n->next, ++count) {
                if (static_cast<uint64_t>(count) >= max)
                    continue;
                const tovi_timer *t = timer_of(n);
                tovi_timer_info_s &o = out[count];
                o.addr = reinterpret_cast<uintptr_t>(t);
                o.expirTime = t->expirTime;
                o.timeOut = t->timeOut;
                o.data = t->data;
                o.func = reinterpret_cast<uintptr_t>(t->func);
                o.funcName = t->funcName;
                o.file = t->file;
                o.line = t->line;
                o.isp = t->isp;
                o.flags = t->flags;
            }
        }
    }
    tovi_spinlock_inl_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
    return count;
}

}  // namespace tovi::timer

extern "C" void tovi_timer_show(tovi_list_head_s *entry)
{
    if (entry == nullptr)
        return;
    const tovi_timer *t = tovi::timer::timer_of(entry);
    const auto func = reinterpret_cast<void *>(t->func);
    const int isp = static_cast<int8_t>(t->isp);
    const int flags = static_cast<int8_t>(t->flags);
    TOVI_LOG_WITH_INFRA(tovi::log::kInfo,
                        "Timer entry:%p, expirTime:%lu, timeOut:%lu, data:%lu, func:%p         isp:%x "
                        "flags:%x in funcName:%s file:%s line:%d",
                        static_cast<void *>(entry), t->expirTime, t->timeOut, t->data, func, isp, flags,
                        t->funcName, t->file, t->line);
}
