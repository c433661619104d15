// The clock-module simulator: hwclock command lines as the time module
// writes them, the clock advancing with the clock base, its state file, and
// the stand-in hwclock command run through a shell.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_rtcsim.h"

namespace {

constexpr int64_t k20260102 = 1767323045;  // 2026-01-02 03:04:05 UTC

}  // namespace

TEST(RtcSim, CommandLines)
{
    tovi_rtcsim_s rtc{};
    rtc.hctosys = -1;
    const struct { std::vector<const char *> args; int status; const char *out; int64_t utc; } cases[] = {
        {{"--set", "--utc", "--date=01/02/26 03:04:05 -0"}, 0, "", k20260102},
        {{"--set", "--utc", "--date=02/29/24 00:00:00 -0"}, 0, "", 1709164800},
        {{"--set", "--utc", "--date=12/31/69 23:59:59 -0"}, 1, "invalid date", 0},  // 69 is 1969: out of range
        {{"--set", "--utc", "--date=02/29/25 00:00:00 -0"}, 1, "invalid date", 0},
        {{"--set", "--utc", "--date=13/01/26 00:00:00 -0"}, 1, "invalid date", 0},
        {{"--set", "--date=2068-12-31 23:59:59"}, 0, "", 3124223999},
        {{"--set", "--date=2069-01-01 00:00:00"}, 1, "invalid date", 0},
        {{"--show"}, 0, "2068-12-31 23:59:59+00:00", 0},
        {{"--set"}, 2, "one function, and --date with --set only", 0},
        {{"--show", "--hctosys"}, 2, "one function, and --date with --set only", 0},
        {{"--frob"}, 2, "unknown option", 0},
    };
    for (const auto &c : cases) {
        char out[64];
        const std::string line = c.args.back();
        EXPECT_EQ(tovi_rtcsim_command(&rtc, static_cast<int>(c.args.size()), c.args.data(), out, sizeof out), c.status) << line;
        EXPECT_STREQ(out, c.out) << line;
        if (c.utc > 0) {
            EXPECT_EQ(rtc.utc, c.utc) << line;
        }
    }
    EXPECT_EQ(rtc.sets, 3u);
    EXPECT_EQ(rtc.hctosys, -1);

    // The clock runs with the clock base: five seconds since it was set.
    ASSERT_EQ(tovi_rtcsim_set(&rtc, k20260102), 0);
    rtc.stamp_ns -= 5000000000ull;
    EXPECT_EQ(tovi_rtcsim_read(&rtc), k20260102 + 5);
    const char *hctosys[] = {"--utc", "--hctosys"};
    EXPECT_EQ(tovi_rtcsim_command(&rtc, 2, hctosys, nullptr, 0), 0);
    EXPECT_EQ(rtc.hctosys, k20260102 + 5);
}

TEST(RtcSim, StateFileAndStandInCommand)
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
    EXPECT_EQ(b.utc, a.utc);
    EXPECT_EQ(b.stamp_ns, a.stamp_ns);
    ASSERT_TRUE(tovi::test::write_file(state, "utc=0 stamp_ns=1 hctosys=-1 sets=1\n"));
    EXPECT_EQ(tovi_rtcsim_load(&b, state.c_str()), -EIO);
    EXPECT_EQ(log.texts(3), std::vector<std::string>{"rtcsim: " + state + " is not a clock state."});
    unlink(state.c_str());

#ifdef TOVI_HWCLOCK_SIM
    // The command lines exactly as the time module runs them, through a shell.
    std::string tool = TOVI_HWCLOCK_SIM;
    const std::string env = "TOVI_RTCSIM_STATE=" + state + " PATH=" + tool.substr(0, tool.rfind('/')) + ":$PATH ";
    EXPECT_EQ(system((env + "hwclock --set --utc --date=\"01/02/26 03:04:05 -0\"").c_str()), 0);
    EXPECT_EQ(system((env + "hwclock  --utc --hctosys").c_str()), 0);
    ASSERT_EQ(tovi_rtcsim_load(&b, state.c_str()), 0);
    EXPECT_EQ(b.utc, k20260102);
    EXPECT_GE(b.hctosys, k20260102);
    EXPECT_LE(b.hctosys, k20260102 + 60);
    EXPECT_EQ(b.sets, 1u);
    EXPECT_NE(system((env + "hwclock --set --utc --date=\"02/30/26 00:00:00 -0\" 2>/dev/null").c_str()), 0);
    unlink(state.c_str());
#endif
    rmdir(dir);
}
