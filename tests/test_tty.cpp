// Console output switching onto a pseudo-terminal made by the test, and back.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_tty.h"

namespace {

std::string drain(int master)
{
    std::string text;
    char buf[256];
    pollfd p{master, POLLIN, 0};
    while (poll(&p, 1, 200) > 0) {
        const ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0)
            break;
        text.append(buf, static_cast<size_t>(n));
    }
    return text;
}

}  // namespace

TEST(Tty, SwitchToATerminalAndBack)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const std::string pts = ptsname(master);
    char file[] = "/tmp/tovi_tty_XXXXXX";
    const int plain = mkstemp(file);
    ASSERT_GE(plain, 0);
    close(plain);

    tovi::test::LogCapture log;
    const int out_before = fcntl(STDOUT_FILENO, F_GETFD);
    tovi_tty_saved_s saved{};
    EXPECT_EQ(tovi_tty_restore(&saved), -EINVAL);
    EXPECT_EQ(tovi_tty_redirect(file, &saved), -ENOTTY);
    EXPECT_EQ(tovi_tty_redirect("/nonexistent/tty", &saved), -ENOENT);
    std::printf("before ");  // buffered: must land on the original output, not the terminal
    ASSERT_EQ(tovi_tty_redirect(pts.c_str(), &saved), 0);
    const int busy = tovi_tty_redirect(pts.c_str(), &saved);
    std::printf("to out\n");
    std::fprintf(stderr, "to err\n");
    const bool cloexec = (fcntl(saved.out, F_GETFD) & FD_CLOEXEC) != 0 && (fcntl(saved.err, F_GETFD) & FD_CLOEXEC) != 0;
    const int dup_out = saved.out;
    ASSERT_EQ(tovi_tty_restore(&saved), 0);
    EXPECT_EQ(busy, -EBUSY);
    EXPECT_TRUE(cloexec);
    EXPECT_EQ(saved.active, 0u);
    EXPECT_EQ(fcntl(dup_out, F_GETFD), -1);  // the duplicate is closed
    EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFD), out_before);
    // Standard output stays fully buffered (it was not a terminal at its first
    // use): its line reaches the terminal at the restore's flush, after stderr's.
    EXPECT_EQ(drain(master), "to err\r\nto out\r\n");
    EXPECT_EQ(log.texts(), (std::vector<std::string>{std::string("tty: ") + file + " is not a terminal.",
                                                      "tty: cannot open /nonexistent/tty (No such file or directory).",
                                                      "tty: output sent to " + pts + ".", "tty: output restored."}));
    std::printf("\n");
    close(master);
    unlink(file);
}
