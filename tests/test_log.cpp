// The logging convention and the shared rate limiter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_capture.hpp"
#define TOVI_LOG_SOURCE "tovi_log_test"
#include "tovi_log.hpp"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

static void log_something(int value)
{
    TOVI_LOG(tovi::log::kWarning, "Value %d out of range.", value);
}

TEST(Log, MessageCarriesModuleLevelAndFunctionAndNothingIsFormattedAboveTheThreshold)
{
    LogCapture cap;
    log_something(9);
    cap.set_threshold(3);
    log_something(1);
    auto records = cap.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ((std::pair{records[0].module, records[0].level}), (std::pair{381u, 4u}));
    EXPECT_EQ(records[0].func, "log_something");
    EXPECT_EQ(records[0].text, "Value 9 out of range.");
}

TEST(Log, RateLimiterAllowsThreePerWindowAndSumsUpRarely)
{
    LogCapture cap;
    tovi::log::RateSite site;
    auto allow = [&site](uint64_t now) { return tovi::log::ratelimit_allow(site, now, 3, "f", "site_fn", 10); };
    // Three in the first window, then held back.
    EXPECT_TRUE(allow(100) && allow(200) && allow(14000));
    EXPECT_FALSE(allow(28999) || allow(28999));
    EXPECT_TRUE(cap.texts().empty());
    // A new window, 15000 jiffies after the last message printed: the
    // summary comes first, then the message.
    EXPECT_TRUE(allow(29000));
    EXPECT_EQ(cap.texts(), (Texts{"print: 2 messages suppressed.site_fn,line=10."}));
    EXPECT_EQ(cap.records()[0].level, 3u);
    // Held back again, but the next summary waits 150000 jiffies.
    cap.clear();
    EXPECT_TRUE(allow(29001) && allow(29002));
    EXPECT_FALSE(allow(29003));
    EXPECT_TRUE(allow(44002) && allow(44003) && allow(44004));
    EXPECT_FALSE(allow(44005));
    EXPECT_TRUE(cap.texts().empty());
    EXPECT_TRUE(allow(179000));
    EXPECT_EQ(cap.texts(), (Texts{"print: 2 messages suppressed.site_fn,line=10."}));
}

// The paired, infrastructure, raw and rate-limited forms, through one threshold change.
TEST(Log, EachFormReachesItsTargets)
{
    LogCapture cap;
    cap.set_threshold(4);
    TOVI_LOG_WITH_INFRA(tovi::log::kInfo, "Pair %d.", 1);  // the 381 half is above the threshold
    TOVI_LOG_INFRA(tovi::log::kWarning, "Alone %d.", 2);
    TOVI_LOG_RAW("<%d>raw line", 3);
    TOVI_LOG_RATELIMITED_GATED(tovi::log::kInfo, tovi::log::kWarning, "Gated %d.", 4);  // gate closed
    cap.set_threshold(7);
    TOVI_LOG_WITH_INFRA(tovi::log::kInfo, "Pair %d.", 5);
    for (int i = 0; i < 5; ++i) {
        TOVI_LOG_RATELIMITED_GATED(tovi::log::kInfo, tovi::log::kWarning, "Gated %d.", i);
        TOVI_LOG_RATELIMITED(tovi::log::kError, "Repeated %d.", i);  // its own site, its own three
    }
    const struct {
        unsigned module, level;  // module ~0u: a raw line
        const char *text;
    } want[] = {{0, 6, "[Infra]Pair 1."}, {0, 4, "[Infra]Alone 2."}, {~0u, 0, "<3>raw line"}, {0, 6, "[Infra]Pair 5."},
                {381, 6, "Pair 5."},      {381, 4, "Gated 0."},       {381, 3, "Repeated 0."},  {381, 4, "Gated 1."},
                {381, 3, "Repeated 1."},  {381, 4, "Gated 2."},       {381, 3, "Repeated 2."}};
    auto records = cap.records();
    ASSERT_EQ(records.size(), std::size(want));
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].text, want[i].text) << i;
        const auto &r = records[i];
        EXPECT_EQ((std::pair{r.raw ? ~0u : r.module, r.raw ? 0u : r.level}), (std::pair{want[i].module, want[i].level}))
            << i;
    }
}
