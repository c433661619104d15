// The clock base.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>

#include "log_capture.hpp"
#include "tovi_arch.hpp"
#include "tovi_sched.h"
#include "tovi_time.h"
#include "tovi_time.hpp"

using tovi::clock::round_rate;

TEST(Time, RatesRoundToTheNearestTenMegahertzWithTiesUp)
{
    EXPECT_EQ(round_rate(2599999999u), 2600000000u) << "one tick below a multiple";
    EXPECT_EQ(round_rate(2605000000u), 2610000000u) << "exactly halfway";
    EXPECT_EQ(round_rate(2604999999u), 2600000000u);
    EXPECT_EQ(round_rate(2600000000u), 2600000000u) << "already a multiple";
    EXPECT_EQ(round_rate(62500000u), 60000000u);
    EXPECT_EQ(round_rate(0u), 0u);
}

TEST(Time, TicksConvertAtTheRateOfTheCounterTheClockReads)
{
    ASSERT_EQ(tovi_gettime_init(), 0u);
    if (tovi::arch::cycle_counter_trusted()) {
        // Calibrated: the counter's ticks over a sleep scale to the sleep as
        // CLOCK_MONOTONIC measured it, and readings sit on that clock.
        timespec a{}, b{};
        clock_gettime(CLOCK_MONOTONIC, &a);
        const uint64_t t0 = tovi::arch::cycle_counter_read();
        const uint64_t ours = tovi_time_getnanosec();
        tovi_msleep(50);
        const uint64_t t1 = tovi::arch::cycle_counter_read();
        clock_gettime(CLOCK_MONOTONIC, &b);
        const double wall = (b.tv_sec - a.tv_sec) * 1e9 + static_cast<double>(b.tv_nsec - a.tv_nsec);
        EXPECT_NEAR(static_cast<double>(tovi_time_cycles2ns(t1 - t0)), wall, wall * 0.01);
        const double start = a.tv_sec * 1e9 + static_cast<double>(a.tv_nsec);
        EXPECT_NEAR(static_cast<double>(ours), start, 1e6) << "anchored to CLOCK_MONOTONIC";
    } else {
        const uint64_t freq = tovi::arch::counter_frequency();
        ASSERT_NE(freq, 0u);
        EXPECT_EQ(tovi_time_cycles2ns(1), 1000000000u / freq);
        EXPECT_EQ(tovi_time_cycles2ns(1000), 1000 * (1000000000u / freq));
    }
    EXPECT_EQ(tovi_CheckCurrCpu(), 0u);
    EXPECT_DOUBLE_EQ(currCpuGHz, 2.6);
}

TEST(Time, NanosecondsFollowTheMonotonicClock)
{
    timespec a{}, b{};
    clock_gettime(CLOCK_MONOTONIC, &a);
    uint64_t n0 = tovi_time_getnanosec();
    uint64_t m0 = tovi_time_getmillisec();
    tovi_msleep(50);
    uint64_t n1 = tovi_time_getnanosec();
    uint64_t m1 = tovi_time_getmillisec();
    clock_gettime(CLOCK_MONOTONIC, &b);
    double wall = (b.tv_sec - a.tv_sec) * 1e9 + static_cast<double>(b.tv_nsec - a.tv_nsec);
    double ours = static_cast<double>(n1 - n0);
    EXPECT_GE(ours, 45e6);
    EXPECT_NEAR(ours, wall, wall * 0.05 + 1e6);
    EXPECT_GE(m1 - m0, 45u);
    EXPECT_LE(m1 - m0, (n1 - n0) / 1000000 + 1);
}

TEST(Time, EstimateStoresTheRoundedCounterRate)
{
    tovi::test::LogCapture cap;
    tovi_estimate_tsc_freq();
    double expected = static_cast<double>(round_rate(tovi::arch::counter_frequency())) / 1e9;
    EXPECT_DOUBLE_EQ(currCpuGHz, expected);
    char text[64];
    std::snprintf(text, sizeof text, "cpu standard hz is %f.", expected);
    EXPECT_EQ(cap.texts(6), std::vector<std::string>{text});
}
