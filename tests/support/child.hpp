// Running a piece of a test in a child process.
#pragma once

#include <functional>

namespace tovi::test {

// Runs `body` in a forked child and returns its exit status, or 128 + the
// signal that ended it.
int run_in_child(const std::function<int()> &body);

}  // namespace tovi::test
