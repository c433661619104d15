// Running a piece of a test in a child process.
#pragma once

#include <functional>
#include <string>
#include <vector>
#include <sys/types.h>

namespace tovi::test {

// Runs `body` in a forked child and returns its exit status, or 128 + the
// signal that ended it.
int run_in_child(const std::function<int()> &body);

// Runs `body` in a forked child and returns the text it reports ("" for
// success), with the child's status appended when it did not exit with 0.
std::string report_from_child(const std::function<std::string()> &body);

// Runs `body` in a child with its own mount namespace (and the namespaces
// of `flags`) and a fresh tmpfs on each of `tmpfs` ("path" or
// "path:options"). The report is "SKIP" where namespaces are not available.
std::string in_private_mounts(int flags, const std::vector<std::string> &tmpfs, const std::function<std::string()> &body);
// Skips the test on a "SKIP" report, else expects an empty one.
#define EXPECT_CHILD_REPORT(report) \
    if (const std::string report_ = (report); report_ == "SKIP") GTEST_SKIP() << "no private namespaces here"; else EXPECT_EQ(report_, "")

// Whole-file helpers: write_file creates or truncates; read_file gives
// "<none>" for a file that cannot be opened.
bool write_file(const std::string &path, const std::string &text, mode_t mode = 0644);
std::string read_file(const std::string &path);

// In a report_from_child body: reports the failed condition and its line.
#define CHILD_CHECK(cond)                                                        \
    do {                                                                         \
        if (!(cond))                                                             \
            return std::string("line ") + std::to_string(__LINE__) + ": " #cond; \
    } while (0)

}  // namespace tovi::test
