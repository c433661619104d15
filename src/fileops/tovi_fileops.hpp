// Internal file helpers shared with the other modules that write files.
#pragma once

#include <cstddef>

namespace tovi::fileops {

// Writes all n bytes at p to fd, retrying interrupted and short writes;
// false on the first write error (errno tells which).
bool write_all(int fd, const char *p, size_t n);

}  // namespace tovi::fileops
