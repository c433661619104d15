// Internal helpers of the clock base.
#pragma once

#include <cstdint>

namespace tovi::clock {

// Rounds a measured counter rate to the nearest multiple of 10 MHz; a tie
// goes up.
uint64_t round_rate(uint64_t rate);

}  // namespace tovi::clock
