// The logging convention and the shared rate limiter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_log.hpp"

using tovi::log::RateSite;
using tovi::log::ratelimit_allow;
using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

void log_something(int value)
{
    TOVI_LOG(tovi::log::kWarning, "Value %d out of range.", value);
}

}  // namespace

TEST(Log, MessageCarriesModuleLevelFileStemAndFunction)
{
    LogCapture cap;
    log_something(9);
    auto records = cap.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].module, 381u);
    EXPECT_EQ(records[0].level, 4u);
    EXPECT_EQ(records[0].file, "test_log");
    EXPECT_EQ(records[0].func, "log_something");
    EXPECT_EQ(records[0].text, "Value 9 out of range.");
}

TEST(Log, NothingIsFormattedAboveTheThreshold)
{
    LogCapture cap;
    cap.set_threshold(3);
    log_something(1);
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Log, RateLimiterAllowsThreePerWindowAndSumsUpRarely)
{
    LogCapture cap;
    RateSite site;
    auto allow = [&site](uint64_t now) { return ratelimit_allow(site, now, 3, "f", "site_fn", 10); };

    // Three in the first window, then held back.
    EXPECT_TRUE(allow(100));
    EXPECT_TRUE(allow(200));
    EXPECT_TRUE(allow(14000));
    EXPECT_FALSE(allow(28999));
    EXPECT_FALSE(allow(28999));
    EXPECT_TRUE(cap.texts().empty());

    // A new window, 15000 jiffies after the last message printed: the
    // summary comes first, then the message.
    EXPECT_TRUE(allow(29000));
    EXPECT_EQ(cap.texts(), (Texts{"print: 2 messages suppressed.site_fn,line=10."}));
    EXPECT_EQ(cap.records()[0].level, 3u);

    // Held back again, but the next summary waits 150000 jiffies.
    cap.clear();
    EXPECT_TRUE(allow(29001));
    EXPECT_TRUE(allow(29002));
    EXPECT_FALSE(allow(29003));
    EXPECT_TRUE(allow(44002));
    EXPECT_FALSE(allow(44003) && allow(44004) && allow(44005));
    EXPECT_TRUE(cap.texts().empty());

    EXPECT_TRUE(allow(179000));
    EXPECT_EQ(cap.texts(), (Texts{"print: 2 messages suppressed.site_fn,line=10."}));
}

TEST(Log, RateLimitedMacroUsesTheSharedLimiter)
{
    LogCapture cap;
    for (int i = 0; i < 10; ++i)
        TOVI_LOG_RATELIMITED(tovi::log::kError, "Repeated failure %d.", i);
    EXPECT_EQ(cap.texts(), (Texts{"Repeated failure 0.", "Repeated failure 1.", "Repeated failure 2."}));
}
