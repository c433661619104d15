// High-resolution timers: lazy start, argument checks, firing order with
// ties, the listing, delete_sync against a running callback, the dispatch
// from the timer-list calls, and the POSIX timer wrappers.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <signal.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.hpp"
#include "poll.hpp"
#include "tovi_hr_timer.h"
#include "tovi_hr_timer.hpp"
#include "tovi_time.h"
#include "tovi_timer.h"

namespace {

using tovi::test::fmt;
using tovi::test::LogCapture;
using tovi::test::wait_for;

uint64_t mono_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

void noop(uint64_t) {}

// A callback that holds the timer thread until the gate opens, so that
// other timers stay queued meanwhile.
std::atomic<bool> g_gate{true};
std::atomic<bool> g_holding{false};
void hold(uint64_t)
{
    g_holding = true;
    while (!g_gate.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    g_holding = false;
}

struct Holder {
    tovi_timer t{};
    Holder()
    {
        g_gate = false;
        tovi_timer_set(&t, 1000, 0, hold);
        EXPECT_EQ(tovi_timer_add_ns(&t), 0);
        EXPECT_TRUE(wait_for([] { return g_holding.load(); }));
    }
    ~Holder()
    {
        g_gate = true;
        tovi_timer_delete_sync(&t);
    }
};

std::mutex g_order_mutex;
std::vector<uint64_t> g_order;
void note(uint64_t id)
{
    std::lock_guard<std::mutex> g(g_order_mutex);
    g_order.push_back(id);
}

TEST(HrTimer, ModifyAndListingDoNotStartTheModuleAddDoes)
{
    LogCapture cap;
    tovi_timer t{};
    tovi_timer_set(&t, 1000, 0, noop);
    char a0[] = "hr", a1[] = "timer", a2[] = "list";
    char *argv[] = {a0, a1, a2};
    EXPECT_EQ(tovi_hr_timer_modify(&t, 1000), -1);
    EXPECT_EQ(tovi_hr_timer_delete(&t), -1);
    EXPECT_EQ(tovi_hr_timer_diagnose_func(3, argv), -1);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>(3, "tovi hr timer is not inited."));

    cap.clear();
    EXPECT_EQ(tovi_timer_add_ns(&t), 0);
    EXPECT_EQ(t.flags & TOVI_TIMER_FLAG_HR, TOVI_TIMER_FLAG_HR);
    EXPECT_TRUE(cap.contains("tovi hr timer inited OK."));
    EXPECT_TRUE(wait_for([&] { return tovi_timer_is_pending(&t) == 0; }));
    EXPECT_EQ(tovi_timer_delete_sync(&t), 0);  // the thread is done with the record
}

TEST(HrTimer, ArgumentChecksWordForWord)
{
    LogCapture cap;
    Holder holder;
    tovi_timer t{};
    tovi_timer_set(&t, 1000000, 0, noop);
    tovi_timer over{};
    tovi_timer_set(&over, 1000001, 0, noop);
    tovi_timer nofunc{};
    timer_t id{};
    sigevent ev{};
    ev.sigev_notify = SIGEV_NONE;
    itimerspec its{{0, 0}, {5, 0}};
    struct Case {
        const char *what;
        std::function<int()> call;
        int rc;
        std::string message;
    };
    const Case cases[] = {
        {"1 ms exactly", [&] { return tovi_timer_add_ns(&t); }, 0, ""},
        {"queued", [&] { return tovi_timer_add_ns(&t); }, -1, "the hr timer is pending."},
        {"dispatched pending", [&] { return tovi_timer_is_pending(&t); }, 1, ""},
        {"re-armed", [&] { return tovi_timer_modify(&t, 500000); }, 0, ""},
        {"modify over 1 ms", [&] { return tovi_timer_modify(&t, 1000001); }, -1, "expire must less than 1 ms."},
        {"add over 1 ms", [&] { return tovi_timer_add_ns(&over); }, -1, "expire must less than 1 ms."},
        {"no func", [&] { return tovi_timer_add_ns(&nofunc); }, -1, "Input timer is null or not initiated."},
        {"null", [&] { return tovi_timer_add_ns(nullptr); }, -1, "Input timer is null or not initiated."},
        {"deleted", [&] { return tovi_timer_delete(&t); }, 0, ""},
        {"not pending", [&] { return tovi_timer_is_pending(&t); }, 0, ""},
        {"delete idle", [&] { return tovi_hr_timer_delete(&t); }, 0, ""},
        {"create no event", [&] { return tovi_timer_create_posix(CLOCK_MONOTONIC, nullptr, &id); }, -22,
         fmt("Argument NULL in tovi_timer_create_posix, evp: %p, timerid: %p!\n", (void *)nullptr, (void *)&id)},
        {"create no id", [&] { return tovi_timer_create_posix(CLOCK_MONOTONIC, &ev, nullptr); }, -22,
         fmt("Argument NULL in tovi_timer_create_posix, evp: %p, timerid: %p!\n", (void *)&ev, (void *)nullptr)},
        {"clock 4", [&] { return tovi_timer_create_posix(4, &ev, &id); }, -22,
         "Argument clockid: 4 is out of range in tovi_timer_create_posix!\n"},
        {"settime null", [&] { return tovi_timer_settime_posix(id, 0, nullptr, nullptr); }, -22,
         fmt("Argument NULL in tovi_timer_settime_posix, timerid: %p, new_value: %p!\n", (void *)id, (void *)nullptr)},
        {"gettime null", [&] { return tovi_timer_gettime_posix(id, nullptr); }, -22,
         fmt("Argument NULL in tovi_timer_gettime_posix, timerid: %p, curr_value: %p!\n", (void *)id, (void *)nullptr)},
        {"create", [&] { return tovi_timer_create_posix(CLOCK_MONOTONIC, &ev, &id); }, 0, ""},
        {"settime 5 s", [&] { return tovi_timer_settime_posix(id, 0, &its, nullptr); }, 0, ""},
        {"gettime", [&] { return tovi_timer_gettime_posix(id, &its) == 0 && its.it_value.tv_sec >= 4 ? 0 : -1; }, 0, ""},
        {"overrun", [&] { return tovi_timer_getoverrun_posix(id); }, 0, ""},
        {"delete", [&] { return tovi_timer_delete_posix(id); }, 0, ""},
    };
    for (const Case &c : cases) {
        cap.clear();
        EXPECT_EQ(c.call(), c.rc) << c.what;
        EXPECT_EQ(cap.texts(3), c.message.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.message})
            << c.what;
    }
}

TEST(HrTimer, FireInExpiryOrderTiesInArmingOrderAndListInThatOrder)
{
    LogCapture cap;
    Holder holder;
    // Expiries chosen in the past, so that all fire once the holder lets go.
    struct Arm {
        uint64_t id;
        int64_t sec, nsec;
    };
    const Arm arms[] = {{1, 5, 300}, {2, 5, 100}, {3, 7, 0}, {4, 5, 100}, {5, 4, 999999999}, {6, 5, 100}};
    std::vector<tovi_timer> timers(std::size(arms));
    tovi::timer::hr::lock();
    for (size_t i = 0; i < timers.size(); ++i) {
        tovi_timer_set(&timers[i], 1000, arms[i].id, note);
        timers[i].funcName = "handler";
        timers[i].line = static_cast<int32_t>(arms[i].id);
        timers[i].flags = TOVI_TIMER_FLAG_HR;
        timers[i].hrExpire = {arms[i].sec, arms[i].nsec};
        tovi::timer::hr::insert(&timers[i]);
    }
    tovi::timer::hr::unlock();

    cap.clear();
    char a0[] = "hr", a1[] = "timer", a2[] = "listing", bad[] = "show";
    char *argv[] = {a0, a1, a2};
    EXPECT_EQ(tovi_hr_timer_diagnose_func(2, argv), -1);
    char *wrong[] = {a0, a1, bad};
    EXPECT_EQ(tovi_hr_timer_diagnose_func(3, wrong), -1);
    EXPECT_EQ(cap.texts(6), std::vector<std::string>(2, "cmd input wrong.\n"));
    cap.clear();
    EXPECT_EQ(tovi_hr_timer_diagnose_func(3, argv), 0);
    std::vector<std::string> listing{fmt("list of timer\n%-5s %-24s %-12s %s:%-5s\n", "[NO.]", "[Timer Handler]",
                                         "[Expire(ms)]", "[file", "line]")};
    const uint64_t expect[] = {5, 2, 4, 6, 1, 3};
    const char *file = timers[0].file;
    for (size_t i = 0; i < std::size(expect); ++i) {
        const Arm &a = arms[expect[i] - 1];
        listing.push_back(fmt("%-5lu %-24s %-12lu %s:%-5d\n", static_cast<unsigned long>(i + 1), "handler",
                              static_cast<unsigned long>(a.sec * 1000 + a.nsec / 1000000), file,
                              static_cast<int>(a.id)));
    }
    EXPECT_EQ(cap.texts(6), listing);
    tovi_timer_info_s info[4];
    ASSERT_EQ(tovi_hr_timer_list_pending(info, 4, nullptr), 6) << "all counted, four copied";
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(info[i].data, expect[i]);

    {
        std::lock_guard<std::mutex> g(g_order_mutex);
        g_order.clear();
    }
    g_gate = true;
    ASSERT_TRUE(wait_for([] {
        std::lock_guard<std::mutex> g(g_order_mutex);
        return g_order.size() == 6;
    }));
    for (auto &t : timers)
        EXPECT_EQ(tovi_timer_delete_sync(&t), 0);
    std::lock_guard<std::mutex> g(g_order_mutex);
    EXPECT_EQ(g_order, std::vector<uint64_t>(std::begin(expect), std::end(expect)));
}

// A timer fires no earlier than its delay; the lateness counters see it.
std::atomic<uint64_t> g_firedAt{0};
void stamp(uint64_t)
{
    g_firedAt = mono_ns();
}

TEST(HrTimer, FiresAfterItsDelayAndCountsLateness)
{
    tovi_hr_timer_stats_s before{};
    ASSERT_EQ(tovi_hr_timer_stats(&before), 0);
    for (uint64_t delay : {100000ull, 1000000ull}) {
        tovi_timer t{};
        tovi_timer_set(&t, delay, 0, stamp);
        g_firedAt = 0;
        const uint64_t armed = mono_ns();
        ASSERT_EQ(tovi_timer_add_ns(&t), 0);
        ASSERT_TRUE(wait_for([] { return g_firedAt.load() != 0; }, 5000));
        EXPECT_GE(g_firedAt.load() - armed, delay);
        EXPECT_LT(g_firedAt.load() - armed, 2000000000ull) << "generous: a shared machine";
        EXPECT_EQ(tovi_timer_delete_sync(&t), 0);
        EXPECT_EQ(tovi_timer_is_pending(&t), 0);
    }
    tovi_hr_timer_stats_s after{};
    ASSERT_EQ(tovi_hr_timer_stats(&after), 0);
    EXPECT_EQ(after.fired, before.fired + 2);
    EXPECT_LE(after.lateP50Ns, after.lateP99Ns);
    EXPECT_LE(after.lateP99Ns, after.lateMaxNs);
    EXPECT_EQ(tovi_hr_timer_stats(nullptr), -1);
}

// delete_sync waits out a running callback; delete does not.
std::atomic<int> g_phase{0};
void slow(uint64_t)
{
    g_phase = 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    g_phase = 2;
}

TEST(HrTimer, DeleteSyncWaitsForTheRunningCallback)
{
    for (bool sync : {true, false}) {
        tovi_timer t{};
        tovi_timer_set(&t, 1000, 0, slow);
        g_phase = 0;
        ASSERT_EQ(tovi_timer_add_ns(&t), 0);
        ASSERT_TRUE(wait_for([] { return g_phase.load() == 1; }));
        if (sync) {
            EXPECT_EQ(tovi_timer_delete_sync(&t), 0);
            EXPECT_EQ(g_phase.load(), 2) << "returned only after the callback";
        } else {
            EXPECT_EQ(tovi_timer_delete(&t), 0);
            EXPECT_EQ(g_phase.load(), 1) << "does not wait";
            EXPECT_EQ(tovi_timer_destroy(&t), 0);
            EXPECT_EQ(g_phase.load(), 2);
        }
    }

    // A queued timer deleted before it is due never fires.
    Holder holder;
    tovi_timer t{};
    tovi_timer_set(&t, 1000, 0, slow);
    g_phase = 0;
    ASSERT_EQ(tovi_timer_add_ns(&t), 0);
    EXPECT_EQ(tovi_timer_delete_sync(&t), 0);
    EXPECT_EQ(tovi_timer_is_pending(&t), 0);
    g_gate = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(g_phase.load(), 0);
}

}  // namespace
