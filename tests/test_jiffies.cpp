// Jiffies with the user-space companion: no device, jiffies from the clock.
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include "log_capture.hpp"
#include "tovi_companion.h"
#include "tovi_jiffies.h"
#include "tovi_sched.h"
#include "tovi_time.h"

TEST(Jiffies, UserCompanionMapsNothingAndSucceeds)
{
    tovi::test::LogCapture cap;
    EXPECT_STREQ(tovi_companion_name(), "user");
    EXPECT_EQ(jiffies_usr_main(), 0u);
    EXPECT_EQ(jiffies_uio_get(), &g_jiffies_uio);
    EXPECT_EQ(g_jiffies_uio.jiffies, nullptr);
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Jiffies, UnmappedJiffiesAreNanosecondsOverFourMillion)
{
    uint64_t ns0 = tovi_time_getnanosec();
    uint64_t j = tovi_get_jiffies();
    uint64_t ns1 = tovi_time_getnanosec();
    EXPECT_GE(j, ns0 / 4000000);
    EXPECT_LE(j, ns1 / 4000000);
}

TEST(Jiffies, AdvanceTwoHundredFiftyPerSecond)
{
    uint64_t j0 = tovi_get_jiffies();
    tovi_msleep(100);
    uint64_t advanced = tovi_get_jiffies() - j0;
    EXPECT_GE(advanced, 24u);
    EXPECT_LE(advanced, 250u) << "generous: the machine may be busy";
}

TEST(Jiffies, FiniReturnsItsArgument)
{
    EXPECT_EQ(jiffies_fini(42), 42u);
}
