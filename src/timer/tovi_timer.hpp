// The timing wheel behind the timer lists. Every wheel operation works on a
// root and takes the current millisecond as an argument: the timer thread
// and the public functions pass the library's clock, tests drive a root of
// their own through days of wheel time without waiting.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <ctime>

#include "tovi_lock.h"
#include "tovi_timer.h"

namespace tovi::timer {

inline constexpr uint32_t kLevels = 5;
inline constexpr uint32_t kTv0Slots = 1000;
inline constexpr uint32_t kTvSlots = 60;
inline constexpr uint32_t kTv4Slots = 24;
// Width in milliseconds of one slot of each level, and the slot count.
inline constexpr uint64_t kSlotWidth[kLevels] = {1, 1000, 60000, 3600000, 216000000};
inline constexpr uint32_t kSlotCount[kLevels] = {kTv0Slots, kTvSlots, kTvSlots, kTvSlots, kTv4Slots};
// What the whole wheel spans: 60 days.
inline constexpr uint64_t kWheelSpan = 216000000ull * kTv4Slots;
// The thread never sleeps longer than this, and looks this many tv0 slots ahead.
inline constexpr uint64_t kMaxSleepMs = 20;

// `now` plus `ms` (at most a second) as a normalised time: the kernel
// refuses a tv_nsec of 1e9 or more.
inline timespec deadline_after(timespec now, uint64_t ms)
{
    now.tv_nsec += static_cast<long>(ms * 1000000);
    if (now.tv_nsec >= 1000000000L) {
        now.tv_sec += 1;
        now.tv_nsec -= 1000000000L;
    }
    return now;
}
inline constexpr uint64_t kSlowCallbackMs = 300;

// The timer root. `lock` guards everything but `mutex`/`cond`, which carry
// only the sleep of the timer thread; `nextWake` is written under `lock`,
// and also under `mutex` (then signalled) when another thread moves the
// wake-up earlier. Order: `lock` before `mutex`.
struct TimerRoot {
    tovi_spinlock_s lock;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    uint64_t timerMs;       // the next millisecond the wheel processes
    uint64_t pendingCount;  // timers linked into the wheel (or being fired)
    uint64_t nextWake;      // atomic: read by the thread under `mutex` only
    pthread_t threadId;
    tovi_timer *runningTimer;  // atomic: the timer whose callback runs now
    tovi_list_head_s tv0[kTv0Slots];
    tovi_list_head_s tv1[kTvSlots];
    tovi_list_head_s tv2[kTvSlots];
    tovi_list_head_s tv3[kTvSlots];
    tovi_list_head_s tv4[kTv4Slots];
    // Room after the last slot: a slot head dumped as a timer record (after
    // a failed link check) is read within the root.
    unsigned char tail[sizeof(tovi_timer)];
};

// Slot heads of level 0 to 4.
tovi_list_head_s *level_heads(TimerRoot &root, uint32_t level);

// Zeroes the root, empties every slot, sets up the lock prefix and sets
// `timerMs` = now, `nextWake` = now + 20. Mutex and condition are not set up.
void root_reset(TimerRoot &root, uint64_t now);

// Creates the root's mutex and monotonic condition variable. 0, or -1 after
// logging the failure.
int init_timer_root(TimerRoot &root);
void fini_timer_root(TimerRoot &root);

// Files the timer by its `expirTime` relative to `timerMs` (root lock held).
void attachTimerToList(TimerRoot &root, tovi_timer *timer);

// Unlinks a pending timer, reporting broken links (root lock held). When
// the wheel becomes empty its base jumps to `now`.
void detachTimerFromList(TimerRoot &root, tovi_timer *timer, bool clearNext, uint64_t now);

// Re-files every timer of one slot of a level (root lock held). Returns index.
uint32_t recalculate_timer_slot(TimerRoot &root, uint32_t level, uint32_t index);

// The millisecond at which the thread next has to run, from the 20-slot
// look-ahead in tv0 (root lock held).
uint64_t next_wake(const TimerRoot &root);

// (Re)arms a wheel timer to expire at now + timeOut ms (takes the root lock).
int arm(TimerRoot &root, tovi_timer *timer, uint64_t timeOut, uint64_t now);

// Unlinks the timer if pending; with `sync`, first waits until its callback
// is not running (takes the root lock). Always 0.
int remove(TimerRoot &root, tovi_timer *timer, bool sync, uint64_t now);

// One processing pass: fires every timer due up to and including `now`,
// cascading on the way, then computes the next wake time (takes the root
// lock, releases it around each callback).
void run_timers(TimerRoot &root, uint64_t now);

// Calls the timer's callback and reports it when slow (no lock held).
void run_timer_func(tovi_timer *timer);

// Whether the caller is the timer thread (arming from a callback needs no
// wake-up); the thread marks itself once.
bool on_timer_thread();
void mark_timer_thread();

// Copies the timers waiting in the slots (see tovi_timer_list_pending).
int64_t list_pending(TimerRoot &root, tovi_timer_info_s *out, uint32_t max);

// The process's root, and its start-up without the timer thread, for a
// driver that runs due timers itself with run_timers (the test kit, on a
// test's own thread). 0, or -1 as tovi_timer_module_init.
TimerRoot &process_root();
int start_without_thread();

}  // namespace tovi::timer
