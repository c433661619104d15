// The clock-module simulator: the time module's hwclock command lines, the
// clock base driving it, its state file (the stand-in command runs in the
// time-zone test, under the time module itself).
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_rtcsim.h"

static constexpr int64_t k20260102 = 1767323045;  // 2026-01-02 03:04:05 UTC

TEST(RtcSim, CommandLines)
{
    tovi_rtcsim_s rtc{0, 0, -1, 0};
    const struct { std::vector<const char *> args; int status; const char *out; int64_t utc; } cases[] = {
        {{"--set", "--utc", "--date=01/02/26 03:04:05 -0"}, 0, "", k20260102},
        {{"--set", "--utc", "--date=02/29/24 00:00:00 -0"}, 0, "", 1709164800},
        {{"--set", "--utc", "--date=12/31/69 23:59:59 -0"}, 1, "invalid date", 0},  // 69 is 1969: out of range
        {{"--set", "--utc", "--date=02/29/25 00:00:00 -0"}, 1, "invalid date", 0},
        {{"--set", "--date=2068-12-31 23:59:59"}, 0, "", 3124223999},
        {{"--show"}, 0, "2068-12-31 23:59:59+00:00", 0},
        {{"--set"}, 2, "one function, and --date with --set only", 0},
        {{"--frob"}, 2, "unknown option", 0},
    };
    for (const auto &c : cases) {
        char out[64];
        const std::string line = c.args.back();
        EXPECT_EQ(tovi_rtcsim_command(&rtc, static_cast<int>(c.args.size()), c.args.data(), out, sizeof out), c.status) << line;
        EXPECT_STREQ(out, c.out) << line;
        EXPECT_TRUE(c.utc == 0 || rtc.utc == c.utc) << line << ": " << rtc.utc;
    }
    EXPECT_TRUE(rtc.sets == 3 && rtc.hctosys == -1);

    // The clock runs with the clock base: five seconds since it was set.
    ASSERT_EQ(tovi_rtcsim_set(&rtc, k20260102), 0);
    rtc.stamp_ns -= 5000000000ull;
    EXPECT_EQ(tovi_rtcsim_read(&rtc), k20260102 + 5);
    const char *hctosys[] = {"--utc", "--hctosys"};
    EXPECT_EQ(tovi_rtcsim_command(&rtc, 2, hctosys, nullptr, 0), 0);
    EXPECT_EQ(rtc.hctosys, k20260102 + 5);
}

TEST(RtcSim, StateFile)
{
    char dir[] = "/tmp/tovi_rtcsim_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string state = std::string(dir) + "/rtc";
    tovi::test::LogCapture log;
    tovi_rtcsim_s a{}, b{};
    EXPECT_EQ(tovi_rtcsim_load(&b, state.c_str()), -ENOENT);
    ASSERT_EQ(tovi_rtcsim_set(&a, k20260102), 0);
    ASSERT_EQ(tovi_rtcsim_save(&a, state.c_str()), 0);
    ASSERT_EQ(tovi_rtcsim_load(&b, state.c_str()), 0);
    EXPECT_TRUE(b.utc == a.utc && b.stamp_ns == a.stamp_ns && b.sets == 1);
    ASSERT_TRUE(tovi::test::write_file(state, "utc=0 stamp_ns=1 hctosys=-1 sets=1\n"));
    EXPECT_EQ(tovi_rtcsim_load(&b, state.c_str()), -EIO);
    EXPECT_EQ(log.texts(3), std::vector<std::string>{"rtcsim: " + state + " is not a clock state."});
    unlink(state.c_str());
    rmdir(dir);
}
