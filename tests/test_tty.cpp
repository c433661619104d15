// Console output switching onto a pseudo-terminal made by the test, and back.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_tty.h"

static std::string drain(int master)
{
    std::string text;
    char c;
    for (pollfd p{master, POLLIN, 0}; poll(&p, 1, 200) > 0 && read(master, &c, 1) == 1;)
        text += c;
    return text;
}

TEST(Tty, SwitchToATerminalAndBack)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
    const std::string pts = ptsname(master);
    char file[] = "/tmp/tovi_tty_XXXXXX";
    ASSERT_EQ(close(mkstemp(file)), 0);
    const std::string fifo = file + std::string(".fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

    tovi::test::LogCapture log;
    const int out_before = fcntl(STDOUT_FILENO, F_GETFD);
    tovi_tty_saved_s saved{};
    EXPECT_EQ(tovi_tty_restore(&saved), -EINVAL);
    EXPECT_EQ(tovi_tty_redirect(file, &saved), -ENOTTY);
    EXPECT_EQ(tovi_tty_redirect("/nonexistent/tty", &saved), -ENOENT);
    EXPECT_EQ(tovi_tty_redirect(fifo.c_str(), &saved), -ENXIO);  // no reader: refused, not waited for
    std::printf("before ");  // buffered: must land on the original output, not the terminal
    ASSERT_EQ(tovi_tty_redirect(pts.c_str(), &saved), 0);
    const int busy = tovi_tty_redirect(pts.c_str(), &saved);
    const int nonblock = fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK;
    std::printf("to out\n");
    std::fprintf(stderr, "to err\n");
    const tovi_tty_saved_s held = saved;
    const int cloexec = fcntl(held.out, F_GETFD) & fcntl(held.err, F_GETFD) & FD_CLOEXEC;
    ASSERT_EQ(tovi_tty_restore(&saved), 0);
    EXPECT_TRUE(busy == -EBUSY && cloexec != 0 && nonblock == 0 && saved.active == 0);
    EXPECT_EQ(fcntl(held.out, F_GETFD), -1);  // the duplicate is closed
    EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFD), out_before);
    // Standard output stays fully buffered (it was not a terminal at its first
    // use): its line reaches the terminal at the restore's flush, after stderr's.
    EXPECT_EQ(drain(master), "to err\r\nto out\r\n");
    EXPECT_EQ(log.texts(), (std::vector<std::string>{std::string("tty: ") + file + " is not a terminal.",
                                                      "tty: cannot open /nonexistent/tty (No such file or directory).",
                                                      "tty: cannot open " + fifo + " (No such device or address).",
                                                      "tty: output sent to " + pts + ".", "tty: output restored."}));
    const int keep_out = dup(STDOUT_FILENO);  // a closed standard output: switched, then closed again
    close(STDOUT_FILENO);
    const int sent = tovi_tty_redirect(pts.c_str(), &saved);
    const bool on_tty = isatty(STDOUT_FILENO) == 1;
    const int back = tovi_tty_restore(&saved), gone = fcntl(STDOUT_FILENO, F_GETFD);
    dup2(keep_out, STDOUT_FILENO);
    close(keep_out);
    EXPECT_TRUE(sent == 0 && on_tty && back == 0 && gone == -1);
    close(master);
    unlink(file);
    unlink(fifo.c_str());
}
