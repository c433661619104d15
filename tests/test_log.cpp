// The logging convention and the shared rate limiter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_capture.hpp"
#define TOVI_LOG_SOURCE "tovi_log_test"
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

TEST(Log, MessageCarriesModuleLevelSourceAndFunction)
{
    LogCapture cap;
    log_something(9);
    auto records = cap.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].module, 381u);
    EXPECT_EQ(records[0].level, 4u);
    EXPECT_EQ(records[0].file, "tovi_log_test");
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

// ---- the seam's other forms ----

TEST(Log, InfraRawAndGatedFormsReachTheirTargets)
{
    LogCapture cap;
    cap.set_threshold(4);
    TOVI_LOG_WITH_INFRA(tovi::log::kInfo, "Pair %d.", 1);  // the 381 half is above the threshold
    TOVI_LOG_INFRA(tovi::log::kWarning, "Alone %d.", 2);
    TOVI_LOG_RAW("<%d>raw line", 3);
    TOVI_LOG_RATELIMITED_GATED(tovi::log::kInfo, tovi::log::kWarning, "Gated %d.", 4);  // gate closed
    cap.set_threshold(7);
    TOVI_LOG_WITH_INFRA(tovi::log::kInfo, "Pair %d.", 5);
    for (int i = 0; i < 5; ++i)
        TOVI_LOG_RATELIMITED_GATED(tovi::log::kInfo, tovi::log::kWarning, "Gated %d.", i);
    struct Want {
        unsigned module, level;
        bool raw;
        const char *text;
    };
    const Want want[] = {{0, 6, false, "[Infra]Pair 1."},  {0, 4, false, "[Infra]Alone 2."},
                         {0, 0, true, "<3>raw line"},       {0, 6, false, "[Infra]Pair 5."},
                         {381, 6, false, "Pair 5."},        {381, 4, false, "Gated 0."},
                         {381, 4, false, "Gated 1."},       {381, 4, false, "Gated 2."}};
    auto records = cap.records();
    ASSERT_EQ(records.size(), std::size(want));
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].text, want[i].text) << i;
        EXPECT_EQ(records[i].raw, want[i].raw) << i;
        if (!want[i].raw) {
            EXPECT_EQ(records[i].module, want[i].module) << i;
            EXPECT_EQ(records[i].level, want[i].level) << i;
            EXPECT_EQ(records[i].file, "tovi_log_test") << i;
        }
    }
}
