// High-resolution timers inside the library: the tree's lock and insertion
// by a given expiry, for tests that need equal or chosen expiries; and the
// module driven from the caller's own thread by the caller's clock (the
// test kit).
#pragma once

#include <ctime>

#include "tovi_timer.h"

namespace tovi::timer::hr {

// The module mutex (the tree, `isp`, `hrExpire` of queued timers).
void lock();
void unlock();

// Files the timer by its `hrExpire` as it is (lock held); wakes the thread
// when it became the first.
void insert(tovi_timer *timer);

// Sets the module up without its thread, filing timers by `clock` instead
// of CLOCK_MONOTONIC. Must come before the first timer; 0, or -1 when the
// module was already set up otherwise or its set-up failed.
int start_without_thread(int (*clock)(timespec *));

// The expiry of the first timer, or false when none is queued.
bool next_expiry(tovi_timer_time_s *at);

// Fires the first timer on the calling thread when it is due at `now`;
// false when none is.
bool fire_due(const timespec &now);

}  // namespace tovi::timer::hr
