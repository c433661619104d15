// Internals shared by the CPU list parsers.
#pragma once

#include <cstdint>

namespace tovi::cpumask {

// Reads "a-b" or "a" like sscanf's "%u-%u" and returns how many numbers it
// read (0, 1 or 2), except that a number beyond 32 bits reads as UINT32_MAX
// (no CPU) rather than as its low 32 bits (a real CPU).
int scan_range(const char *item, uint32_t *first, uint32_t *last);

}  // namespace tovi::cpumask
