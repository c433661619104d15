// High-resolution timers: lazy start, argument checks, firing order with ties,
// the listing, delete_sync against a running callback, the POSIX timer wrappers.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <signal.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "log_capture.hpp"
#include "poll.hpp"
#include "tovi_hr_timer.h"
#include "tovi_hr_timer.hpp"
#include "tovi_timer.h"

namespace {

using tovi::test::fmt;
using tovi::test::wait_for;
using Texts = std::vector<std::string>;

uint64_t mono_ns()  // the timers' own clock
{
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1));
}

// Notes when it fired, then runs for `sleep_ms`, or with 0 until the gate opens.
std::atomic<uint64_t> g_firedAt{0};
std::atomic<int> g_phase{0};
std::atomic<bool> g_gate{false};
void slow(uint64_t sleep_ms)
{
    g_firedAt = mono_ns();
    g_phase = 1;
    do
        std::this_thread::sleep_for(std::chrono::milliseconds(sleep_ms == 0 ? 1 : sleep_ms));
    while (sleep_ms == 0 && !g_gate.load());
    g_phase = 2;
}

std::vector<uint64_t> g_order;  // written by the timer thread only, before g_notes counts
std::atomic<size_t> g_notes{0};
void note(uint64_t id)
{
    g_order.push_back(id);
    ++g_notes;
}

// Starts the module with a timer that holds the timer thread: the others stay queued.
TEST(HrTimer, ArgumentChecksFiringOrderAndListing)
{
    tovi::test::LogCapture cap;
    tovi_timer holder{}, t{}, over{}, nofunc{};
    tovi_timer_set(&holder, 1000, 0, slow);
    char a0[] = "hr", a1[] = "timer", a2[] = "listing", bad[] = "show";
    char *argv[] = {a0, a1, a2}, *wrong[] = {a0, a1, bad};
    EXPECT_EQ(tovi_hr_timer_modify(&holder, 1000), -1);
    EXPECT_EQ(tovi_hr_timer_delete(&holder), -1);
    EXPECT_EQ(tovi_hr_timer_diagnose_func(3, argv), -1);
    EXPECT_EQ(cap.texts(3), Texts(3, "tovi hr timer is not inited."));
    ASSERT_EQ(tovi_timer_add_ns(&holder), 0);
    EXPECT_TRUE(cap.contains("tovi hr timer inited OK."));
    ASSERT_TRUE(wait_for([] { return g_phase.load() == 1; }));

    tovi_timer_set(&t, 1000000, 99, note);
    tovi_timer_set(&over, 1000001, 0, note);
    timer_t id{};
    sigevent ev{};
    ev.sigev_notify = SIGEV_NONE;
    itimerspec its{{0, 0}, {5, 0}};
    const char *nullArg = "Argument NULL in tovi_timer_%s, %s: %p, %s: %p!\n";
    const struct { std::function<int()> call; int rc; std::string message; } cases[] = {
        {[&] { return tovi_timer_add_ns(&t); }, 0, ""},  // 1 ms exactly
        {[&] { return tovi_timer_add_ns(&t); }, -1, "the hr timer is pending."},
        {[&] { return tovi_timer_is_pending(&t); }, 1, ""},
        {[&] { return tovi_timer_modify(&t, 500000); }, 0, ""},
        {[&] { return tovi_timer_modify(&t, 1000001); }, -1, "expire must less than 1 ms."},
        {[&] { return tovi_timer_add_ns(&over); }, -1, "expire must less than 1 ms."},
        {[&] { return tovi_timer_add_ns(&nofunc); }, -1, "Input timer is null or not initiated."},
        {[&] { return tovi_timer_add_ns(nullptr); }, -1, "Input timer is null or not initiated."},
        {[&] { return tovi_timer_delete(&t); }, 0, ""},  // still queued: it never fires
        {[&] { return tovi_timer_is_pending(&t); }, 0, ""},
        {[&] { return tovi_timer_create_posix(CLOCK_MONOTONIC, nullptr, &id); }, -22,
         fmt(nullArg, "create_posix", "evp", nullptr, "timerid", (void *)&id)},
        {[&] { return tovi_timer_create_posix(CLOCK_MONOTONIC, &ev, nullptr); }, -22,
         fmt(nullArg, "create_posix", "evp", (void *)&ev, "timerid", nullptr)},
        {[&] { return tovi_timer_create_posix(4, &ev, &id); }, -22,
         "Argument clockid: 4 is out of range in tovi_timer_create_posix!\n"},
        {[&] { return tovi_timer_settime_posix(id, 0, nullptr, nullptr); }, -22,
         fmt(nullArg, "settime_posix", "timerid", (void *)id, "new_value", nullptr)},
        {[&] { return tovi_timer_gettime_posix(id, nullptr); }, -22,
         fmt(nullArg, "gettime_posix", "timerid", (void *)id, "curr_value", nullptr)},
        {[&] { return tovi_timer_create_posix(CLOCK_MONOTONIC, &ev, &id); }, 0, ""},
        {[&] { return tovi_timer_settime_posix(id, 0, &its, nullptr); }, 0, ""},  // 5 s
        {[&] { return tovi_timer_gettime_posix(id, &its) == 0 && its.it_value.tv_sec >= 4 ? 0 : -1; }, 0, ""},
        {[&] { return tovi_timer_getoverrun_posix(id); }, 0, ""},
        {[&] { return tovi_timer_delete_posix(id); }, 0, ""},
        {[&] { return tovi_hr_timer_diagnose_func(2, argv); }, -1, "cmd input wrong.\n"},
        {[&] { return tovi_hr_timer_diagnose_func(3, wrong); }, -1, "cmd input wrong.\n"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        cap.clear();
        EXPECT_EQ(cases[i].call(), cases[i].rc) << "case " << i;
        EXPECT_EQ(cap.texts(), cases[i].message.empty() ? Texts{} : Texts{cases[i].message}) << "case " << i;
    }

    // Expiries in the past, so that all fire once the holder lets go: {id, sec, nsec}.
    const int64_t arms[][3] = {{1, 5, 300}, {2, 5, 100}, {3, 7, 0}, {4, 5, 100}, {5, 4, 999999999}, {6, 5, 100}};
    const std::vector<uint64_t> expect{5, 2, 4, 6, 1, 3};
    const int expireMs[] = {4999, 5000, 5000, 5000, 5000, 7000};
    std::vector<tovi_timer> timers(std::size(arms));
    tovi::timer::hr::lock();
    for (size_t i = 0; i < timers.size(); ++i) {
        tovi_timer_set(&timers[i], 1000, static_cast<uint64_t>(arms[i][0]), note);
        timers[i].funcName = "handler";
        timers[i].line = static_cast<int32_t>(arms[i][0]);
        timers[i].flags = TOVI_TIMER_FLAG_HR;
        timers[i].hrExpire = {arms[i][1], arms[i][2]};
        tovi::timer::hr::insert(&timers[i]);
    }
    tovi::timer::hr::unlock();
    cap.clear();
    EXPECT_EQ(tovi_hr_timer_diagnose_func(3, argv), 0);
    Texts listing{"list of timer\n[NO.] [Timer Handler]          [Expire(ms)] [file:line]\n"};
    for (size_t i = 0; i < expect.size(); ++i)
        listing.push_back(fmt("%-5zu %-24s %-12d %s:%-5d\n", i + 1, "handler", expireMs[i], timers[0].file,
                              static_cast<int>(expect[i])));
    EXPECT_EQ(cap.texts(6), listing);
    tovi_timer_info_s info[4];
    ASSERT_EQ(tovi_hr_timer_list_pending(info, 4, nullptr), 6) << "all counted, four copied";
    EXPECT_EQ((std::vector<uint64_t>{info[0].data, info[1].data, info[2].data, info[3].data}),
              std::vector<uint64_t>(expect.begin(), expect.begin() + 4));

    g_gate = true;
    EXPECT_EQ(tovi_timer_delete_sync(&holder), 0);
    ASSERT_TRUE(wait_for([] { return g_notes.load() == 6; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // time for a wrong one to fire
    for (auto &timer : timers)
        EXPECT_EQ(tovi_timer_delete_sync(&timer), 0);
    EXPECT_EQ(g_order, expect);
}

// A timer fires no earlier than its delay and the lateness counters see it;
// delete_sync waits out a running callback, delete does not.
TEST(HrTimer, FiresAfterItsDelayAndDeleteSyncWaitsForTheCallback)
{
    tovi_hr_timer_stats_s before{}, after{};
    ASSERT_EQ(tovi_hr_timer_stats(&before), 0);
    const struct { uint64_t delayNs, sleepMs; bool sync; } cases[] = {
        {100000, 1, true}, {1000000, 1, true}, {1000, 100, true}, {1000, 100, false}};
    for (const auto &c : cases) {
        tovi_timer t{};
        tovi_timer_set(&t, c.delayNs, c.sleepMs, slow);
        g_phase = 0;
        const uint64_t armed = mono_ns();
        ASSERT_EQ(tovi_timer_add_ns(&t), 0);
        ASSERT_TRUE(wait_for([&] { return g_phase.load() >= 1; }, 5000));
        EXPECT_GE(g_firedAt.load() - armed, c.delayNs);
        EXPECT_LT(g_firedAt.load() - armed, 2000000000ull) << "generous: a shared machine";
        EXPECT_EQ(c.sync ? tovi_timer_delete_sync(&t) : tovi_timer_delete(&t), 0);
        EXPECT_EQ(g_phase.load(), c.sync ? 2 : 1) << "delete_sync returns only after the callback";
        EXPECT_TRUE(c.sync || (tovi_timer_destroy(&t) == 0 && g_phase.load() == 2)) << "destroy waits";
    }
    ASSERT_EQ(tovi_hr_timer_stats(&after), 0);
    EXPECT_EQ(after.fired, before.fired + 4);
    EXPECT_TRUE(after.lateP50Ns <= after.lateP99Ns && after.lateP99Ns <= after.lateMaxNs);
    EXPECT_EQ(tovi_hr_timer_stats(nullptr), -1);
}

}  // namespace
