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
// unchanged-expiry test of arming), so every store to a `next` link is a
// relaxed atomic store and those readers load it atomically.
#include <cerrno>
#include <ctime>
#include <cstddef>
#include <cstring>

#include "tovi_init.h"
#include "tovi_jiffies.h"
#include "tovi_list.hpp"
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

// Unconditional messages to the platform's infrastructure log (module 0).
#define TOVI_TIMER_INFRA(level, fmt, ...) \
    vrlog(0, (level), TOVI_LOG_FILE, __LINE__, __func__, 0, fmt __VA_OPT__(, ) __VA_ARGS__)

thread_local bool t_timer_thread = false;

inline void set_next(Node *n, Node *v)
{
    // Relaxed: pairs with the unlocked relaxed loads of tovi_timer_is_pending
    // and of arming; ordering against the rest comes from the root lock.
    __atomic_store_n(&n->next, v, __ATOMIC_RELAXED);
}

inline tovi_timer *timer_of(Node *entry)
{
    return reinterpret_cast<tovi_timer *>(reinterpret_cast<char *>(entry) - offsetof(tovi_timer, entry));
}

inline bool bad_link(const Node *p)
{
    return p == nullptr || p == list::kPoisonPrev || p == list::kPoisonNext;
}

void link_tail(Node *n, Node *head)
{
    Node *prev = head->prev;
    n->prev = prev;
    set_next(n, head);
    set_next(prev, n);
    head->prev = n;
}

// A list head with room around it, so that dumping it as a timer record
// (when a neighbour check fails) reads zeroes, not someone else's stack.
struct LocalList {
    tovi_timer holder{};
    Node *head() { return &holder.entry; }
};

void init_head(Node *head)
{
    set_next(head, head);
    head->prev = head;
}

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
// checking that the head's neighbours point back at it. A macro so that
// the reports carry the calling function's name.
#define TOVI_TIMER_SPLICE(head, local)                                                                         \
    do {                                                                                                       \
        Node *h_ = (head);                                                                                     \
        Node *l_ = (local);                                                                                    \
        if (h_->prev->next != h_) {                                                                            \
            TOVI_LOG(kError, "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)",                \
                     static_cast<void *>(h_->prev), static_cast<void *>(h_->prev->next),                       \
                     static_cast<void *>(h_->prev->prev), static_cast<void *>(h_),                             \
                     static_cast<void *>(h_->next), static_cast<void *>(h_->prev));                            \
            tovi_timer_show(h_->prev);                                                                         \
            tovi_timer_show(h_);                                                                               \
        }                                                                                                      \
        if (h_->next->prev != h_) {                                                                            \
            TOVI_LOG(kError, "Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)",                \
                     static_cast<void *>(h_->next), static_cast<void *>(h_->next->next),                       \
                     static_cast<void *>(h_->next->prev), static_cast<void *>(h_),                             \
                     static_cast<void *>(h_->next), static_cast<void *>(h_->prev));                            \
            tovi_timer_show(h_->next);                                                                         \
            tovi_timer_show(h_);                                                                               \
        }                                                                                                      \
        if (h_->next == h_) {                                                                                  \
            init_head(l_);                                                                                     \
        } else {                                                                                               \
            set_next(l_, h_->next);                                                                            \
            l_->prev = h_->prev;                                                                               \
            l_->next->prev = l_;                                                                               \
            set_next(l_->prev, l_);                                                                            \
            init_head(h_);                                                                                     \
        }                                                                                                      \
    } while (0)

// Checks a node of a local list against its predecessor `last` and its
// successor; only reports.
#define TOVI_TIMER_CHECK_NODE(cur, last)                                                                       \
    do {                                                                                                       \
        Node *c_ = (cur);                                                                                      \
        if (c_->prev != (last))                                                                                \
            TOVI_LOG(kError, "Abnormal list node cur:%p(%p,%p), is not point to last:%p",                      \
                     static_cast<void *>(c_), static_cast<void *>(c_->next), static_cast<void *>(c_->prev),    \
                     static_cast<void *>(last));                                                               \
        if (c_->next->prev != c_)                                                                              \
            TOVI_LOG(kError, "Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)",                \
                     static_cast<void *>(c_->next), static_cast<void *>(c_->next->next),                       \
                     static_cast<void *>(c_->next->prev), static_cast<void *>(c_),                             \
                     static_cast<void *>(c_->next), static_cast<void *>(c_->prev));                            \
    } while (0)

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
            init_head(&heads[i]);
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
    const uint64_t d = e - base;
    Node *head;
    if (e <= base)
        head = &root.tv0[base % kTv0Slots];  // already due: the slot about to be processed
    else if (d < 1000)
        head = &root.tv0[e % kTv0Slots];
    else if (d < 60000)
        head = &root.tv1[(e / 1000) % kTvSlots];
    else if (d < 3600000)
        head = &root.tv2[(e / 60000) % kTvSlots];
    else if (d < 216000000)
        head = &root.tv3[(e / 3600000) % kTvSlots];
    else {
        // Beyond the wheel: filed at its far end and filed again from there.
        if (d > kWheelSpan)
            e = base + kWheelSpan;
        head = &root.tv4[(e / 216000000) % kTv4Slots];
    }
    link_tail(&timer->entry, head);
}

void detachTimerFromList(TimerRoot &root, tovi_timer *timer, bool clearNext, uint64_t now)
{
    Node *entry = &timer->entry;
    Node *prev = entry->prev;
    Node *next = entry->next;
    if (prev == nullptr || prev == list::kPoisonPrev) {
        TOVI_LOG(kInfo, "List node prev:(%p), cur:(%p)", static_cast<void *>(prev), static_cast<void *>(entry));
    } else if (prev->next != entry) {
        TOVI_LOG(kError, "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)",
                 static_cast<void *>(prev), static_cast<void *>(prev->next), static_cast<void *>(prev->prev),
                 static_cast<void *>(entry), static_cast<void *>(next), static_cast<void *>(prev));
        tovi_timer_show(prev);
        tovi_timer_show(entry);
    }
    if (!bad_link(next) && next->prev != entry) {
        TOVI_LOG(kError, "Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)",
                 static_cast<void *>(next), static_cast<void *>(next->next), static_cast<void *>(next->prev),
                 static_cast<void *>(entry), static_cast<void *>(next), static_cast<void *>(prev));
        tovi_timer_show(next);
        tovi_timer_show(entry);
    }
    // Broken links are reported, not repaired; only a pointer that leads
    // nowhere is not written through.
    if (!bad_link(next))
        next->prev = prev;
    if (!bad_link(prev))
        set_next(prev, next);
    if (clearNext)
        set_next(entry, nullptr);
    entry->prev = list::kPoisonPrev;
    if (--root.pendingCount == 0)
        set_empty_base(root, now);
}

uint32_t recalculate_timer_slot(TimerRoot &root, uint32_t level, uint32_t index)
{
    LocalList local;
    Node *head = local.head();
    TOVI_TIMER_SPLICE(&level_heads(root, level)[index], head);
    Node *last = head;
    Node *cur = head->next;
    while (cur != head) {
        Node *next = cur->next;
        TOVI_TIMER_CHECK_NODE(cur, last);
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
    do_tovi_spinlock_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
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
    do_tovi_spinlock_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
    return 0;
}

int remove(TimerRoot &root, tovi_timer *timer, bool sync, uint64_t now)
{
    do_tovi_spinlock_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
    if (sync) {
        // Acquire pairs with the release that clears runningTimer after the
        // callback: once it is not this timer, the callback's work is visible.
        while (__atomic_load_n(&root.runningTimer, __ATOMIC_ACQUIRE) == timer) {
            do_tovi_spinlock_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
            do_tovi_spinlock_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
        }
    }
    if (timer->entry.next != nullptr)
        detachTimerFromList(root, timer, true, now);
    do_tovi_spinlock_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
    return 0;
}

void run_timers(TimerRoot &root, uint64_t now)
{
    do_tovi_spinlock_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
    if (root.pendingCount == 0) {
        set_empty_base(root, now);
        do_tovi_spinlock_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
        return;
    }
    LocalList local;
    Node *head = local.head();
    while (static_cast<int64_t>(root.timerMs - now) < 1) {
        const uint64_t ms = root.timerMs;
        const uint32_t slot = static_cast<uint32_t>(ms % kTv0Slots);
        // At each whole second the next level down is refilled; a level
        // whose index wrapped to 0 refills from the one above it.
        if (slot == 0 && recalculate_timer_slot(root, 1, static_cast<uint32_t>((ms / 1000) % kTvSlots)) == 0 &&
            recalculate_timer_slot(root, 2, static_cast<uint32_t>((ms / 60000) % kTvSlots)) == 0 &&
            recalculate_timer_slot(root, 3, static_cast<uint32_t>((ms / 3600000) % kTvSlots)) == 0)
            recalculate_timer_slot(root, 4, static_cast<uint32_t>((ms / 216000000) % kTv4Slots));
        root.timerMs = ms + 1;
        TOVI_TIMER_SPLICE(&root.tv0[slot], head);
        // Front first, re-reading the head each time: while the lock is
        // dropped other threads may delete or re-arm timers of this list.
        while (head->next != head) {
            Node *cur = head->next;
            TOVI_TIMER_CHECK_NODE(cur, head);
            tovi_timer *timer = timer_of(cur);
            // Relaxed: read by remove() under the lock held here.
            __atomic_store_n(&root.runningTimer, timer, __ATOMIC_RELAXED);
            detachTimerFromList(root, timer, true, now);
            do_tovi_spinlock_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
            run_timer_func(timer);
            // Release pairs with the acquire load in remove(sync).
            __atomic_store_n(&root.runningTimer, static_cast<tovi_timer *>(nullptr), __ATOMIC_RELEASE);
            do_tovi_spinlock_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
        }
    }
    wake_if_earlier(root, next_wake(root));
    do_tovi_spinlock_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
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
    static log::RateSite site;
    if (vrlog_level_check(TOVI_MODULE_ID, kInfo) == 0 &&
        log::ratelimit_allow(site, tovi_get_jiffies(), kInfo, TOVI_LOG_FILE, __func__, __LINE__))
        TOVI_LOG(kWarning, "Timer 0x%llx func 0x%llx added by %s cost %llu ms.", addr, faddr, name, ms);
    TOVI_TIMER_INFRA(kWarning, "[Infra]Timer 0x%llx func 0x%llx added by %s cost %llu ms.", addr, faddr, name, ms);
}

int64_t list_pending(TimerRoot &root, tovi_timer_info_s *out, uint32_t max)
{
    int64_t count = 0;
    do_tovi_spinlock_lock(&root.lock.lock, "lockTimerRoot", __LINE__);
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
    do_tovi_spinlock_unlock(&root.lock.lock, "unlockTimerRoot", __LINE__);
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
    TOVI_TIMER_INFRA(tovi::log::kInfo,
                     "[Infra]Timer entry:%p, expirTime:%lu, timeOut:%lu, data:%lu, func:%p         isp:%x "
                     "flags:%x in funcName:%s file:%s line:%d",
                     static_cast<void *>(entry), t->expirTime, t->timeOut, t->data, func, isp, flags, t->funcName,
                     t->file, t->line);
    TOVI_LOG(tovi::log::kInfo,
             "Timer entry:%p, expirTime:%lu, timeOut:%lu, data:%lu, func:%p         isp:%x "
             "flags:%x in funcName:%s file:%s line:%d",
             static_cast<void *>(entry), t->expirTime, t->timeOut, t->data, func, isp, flags, t->funcName, t->file,
             t->line);
}
