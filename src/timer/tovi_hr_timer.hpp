// High-resolution timers inside the library: the tree's lock and insertion
// by a given expiry, for tests that need equal or chosen expiries.
#pragma once

#include "tovi_timer.h"

namespace tovi::timer::hr {

// The module mutex (the tree, `isp`, `hrExpire` of queued timers).
void lock();
void unlock();

// Files the timer by its `hrExpire` as it is (lock held); wakes the thread
// when it became the first.
void insert(tovi_timer *timer);

}  // namespace tovi::timer::hr
