// The default logging library itself.
#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <string>
#include <tuple>
#include <unistd.h>

#include "vrlog.h"

namespace {

// Collects what vrlog writes to standard error while in scope.
class StderrCapture {
public:
    StderrCapture()
    {
        std::fflush(stderr);
        char path[] = "/tmp/vrlog_check_XXXXXX";
        fd_ = mkstemp(path);
        unlink(path);
        saved_ = dup(STDERR_FILENO);
        dup2(fd_, STDERR_FILENO);
    }
    ~StderrCapture()
    {
        restore();
        close(fd_);
    }
    std::string text()
    {
        restore();
        std::string out;
        char buf[4096];
        ssize_t n;
        lseek(fd_, 0, SEEK_SET);
        while ((n = read(fd_, buf, sizeof buf)) > 0)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

private:
    void restore()
    {
        if (saved_ >= 0) {
            dup2(saved_, STDERR_FILENO);
            close(saved_);
            saved_ = -1;
        }
    }
    int fd_ = -1;
    int saved_ = -1;
};

// A zone with a half-hour offset, set before the first line is logged.
const bool g_zone_set = setenv("TZ", "IST-5:30", 1) == 0;

std::string local_minute(time_t t)
{
    tm local{};
    localtime_r(&t, &local);
    char buf[32];
    return std::string(buf, std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M", &local));
}

}  // namespace

TEST(Vrlog, DefaultThresholdIsSixPerModule)
{
    EXPECT_EQ(vrlog_loglevel_get(5), 6);
    EXPECT_EQ(vrlog_level_check(5, 6), 0);
    EXPECT_EQ(vrlog_level_check(5, 7), 1);
    EXPECT_EQ(vrlog_loglevel_get(1024), -1);

    EXPECT_EQ(vrlog_loglevel_set(5, 7), 0);
    EXPECT_EQ(vrlog_level_check(5, 7), 0);
    EXPECT_EQ(vrlog_level_check(6, 7), 1);
    EXPECT_EQ(vrlog_loglevel_set(5, 8), -1);
    EXPECT_EQ(vrlog_loglevel_set(1024, 3), -1);
    EXPECT_EQ(vrlog_loglevel_set(5, 6), 0);
}

TEST(Vrlog, LineCarriesTimeLevelModuleSourceAndFunction)
{
    ASSERT_EQ(vrlog_init(381, "KOMI"), 0);
    ASSERT_TRUE(g_zone_set);
    StderrCapture cap;
    const time_t before = time(nullptr);
    EXPECT_GT(vrlog(381, 3, "tovi_init", 42, "tovi_Init", 0, "Get jiffies usr addr failed."), 0);
    EXPECT_EQ(vrlog(381, 7, "tovi_init", 43, "tovi_Init", 0, "hidden"), 0);
    vrlog_original("<%d>raw line", 77);
    std::string out = cap.text();
    // "YYYY-MM-DD HH:MM:SS.uuuuuu" then the fixed part.
    const std::string stamp = "dddd-dd-dd dd:dd:dd.dddddd";
    ASSERT_GT(out.size(), stamp.size()) << out;
    for (size_t i = 0; i < stamp.size(); ++i) {
        if (stamp[i] == 'd')
            EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(out[i]))) << out;
        else
            EXPECT_EQ(out[i], stamp[i]) << out;
    }
    const std::string minute = out.substr(0, 16);
    EXPECT_TRUE(minute == local_minute(before) || minute == local_minute(time(nullptr))) << out;
    EXPECT_EQ(out.substr(stamp.size()), " ERROR 381/KOMI tovi_init:42 tovi_Init: Get jiffies usr addr failed.\n"
                                        "<77>raw line\n");
}

TEST(Vrlog, RateLimitHoldsBackAModuleGroup)
{
    ASSERT_EQ(vrlog_init(200, "NVME"), 0);
    EXPECT_EQ(vrlog_get_group_id("NVME"), 200);
    EXPECT_EQ(vrlog_get_group_id("201"), 201);
    EXPECT_EQ(vrlog_get_group_id("nobody"), -1);
    EXPECT_EQ(vrlog_get_group_id("1023"), 1023);  // the last module; one more is none
    EXPECT_EQ(vrlog_get_group_id("1024"), -1);
    EXPECT_EQ(std::make_tuple(vrlog_ratelimit_set(-1, 1000, 1), vrlog_ratelimit_set(0, 0, 0), vrlog_ratelimit_set(1024, 0, 0)), std::make_tuple(-1, 0, -1));
    ASSERT_EQ(vrlog_ratelimit_set(200, 60000, 2), 0);
    StderrCapture cap;
    for (int i = 0; i < 5; ++i)
        vrlog(200, 3, "f", 1, "fn", 0, "message %d", i);
    vrlog(201, 3, "f", 1, "fn", 0, "other module");
    std::string out = cap.text();
    EXPECT_NE(out.find("message 0\n"), std::string::npos);
    EXPECT_NE(out.find("message 1\n"), std::string::npos);
    EXPECT_EQ(out.find("message 2\n"), std::string::npos);
    EXPECT_NE(out.find("other module\n"), std::string::npos);
    ASSERT_EQ(vrlog_ratelimit_set(200, 0, 0), 0);
}

TEST(Vrlog, DestroyForgetsNames)
{
    ASSERT_EQ(vrlog_init(300, "GONE"), 0);
    EXPECT_EQ(vrlog_get_group_id("GONE"), 300);
    EXPECT_EQ(vrlog_destroy(), 0);
    EXPECT_EQ(vrlog_get_group_id("GONE"), -1);
    EXPECT_EQ(vrlog_init(1024, "X"), -1);
    EXPECT_EQ(vrlog_init(1, nullptr), -1);
}
