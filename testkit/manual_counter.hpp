// Forced into the test kit's own build of every library source that reads
// the processor counter: the processor seam's counter becomes the kit's
// manual one, so the production sources stay as they are.
#pragma once

#include "tovi_arch.hpp"

namespace tovi::arch {
uint64_t testkit_counter_read();
uint64_t testkit_counter_frequency();
// The processor's cycle counter runs on its own: the kit's clock never uses it.
inline bool testkit_cycle_counter_trusted()
{
    return false;
}
}  // namespace tovi::arch

#define counter_read testkit_counter_read
#define counter_frequency testkit_counter_frequency
#define cycle_counter_trusted testkit_cycle_counter_trusted
