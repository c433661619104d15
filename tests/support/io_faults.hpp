// Failing system calls on demand: the test program defines read, fsync and
// rename itself (so the library's calls land here first) and passes every
// call on to the C library unless a failure is armed.
#pragma once

#include <string>

namespace tovi::test {

// The n-th next read (1 = the next) of the file at `path` (matched by device
// and inode, whatever descriptor reads it) fails with `err`, once.
void fail_read(const std::string &path, unsigned nth, int err);
// The n-th next fsync / rename of the process fails with `err`, once.
void fail_fsync(unsigned nth, int err);
void fail_rename(unsigned nth, int err);
// Disarms everything.
void clear_faults();
// Calls seen since the last clear_faults.
unsigned fsync_calls();

}  // namespace tovi::test
