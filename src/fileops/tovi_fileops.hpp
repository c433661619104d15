// Internal file helpers shared with the other modules that write files.
#pragma once

#include <cstddef>
#include <sys/types.h>

namespace tovi::fileops {

// Writes all n bytes at p to fd, retrying interrupted and short writes;
// false on the first write error (errno tells which).
bool write_all(int fd, const char *p, size_t n);

// Opens path (flags, close-on-exec) without waiting for a FIFO's peer or a
// serial line's carrier, then makes the descriptor blocking again. The
// descriptor, or -1 with errno (nothing left open).
int open_nowait(const char *path, int flags, mode_t mode = 0);

}  // namespace tovi::fileops
