// Internals shared by the CPU list parsers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tovi::cpumask {

// Reads "a-b" or "a" like sscanf's "%u-%u" and returns how many numbers it
// read (0, 1 or 2), except that a number beyond 32 bits reads as UINT32_MAX
// (no CPU) rather than as its low 32 bits (a real CPU).
int scan_range(const char *item, uint32_t *first, uint32_t *last);

// Copies a CPU list into `size` bytes. A list that does not fit is cut
// between items: the item the cut would split is left out as well, so that
// "...,1000" does not end as "...,10" (another, real CPU).
void copy_list(char *to, size_t size, const char *from);

}  // namespace tovi::cpumask
