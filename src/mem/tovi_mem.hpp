// Internals of the memory module shared with the huge-page module.
#pragma once

#include <cstdint>

namespace tovi::mem {

// The value of one "Key:" line of /proc/meminfo (kB for the sizes, a count
// for the HugePages_ lines). True and *value when the line is there.
bool meminfo(const char *key, uint64_t *value);

}  // namespace tovi::mem
