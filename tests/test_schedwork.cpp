// Scheduled work: argument checks, the heal record, the detectors on a private
// root, the idle limits from the settings, and the real pool's whole life.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "log_capture.hpp"
#include "poll.hpp"
#include "tovi_cfg.h"
#include "tovi_schedwork.h"
#include "tovi_schedwork.hpp"

namespace {

using tovi::test::fmt;
using tovi::test::LogCapture;
using tovi::test::wait_for;
using Texts = std::vector<std::string>;

tovi_sched_work_stats_s stats()
{
    tovi_sched_work_stats_s s{};
    EXPECT_EQ(tovi_sched_work_stats(&s), 0);
    return s;
}

bool pool_is(int32_t alive, int32_t idle)
{
    return wait_for([&] { return stats().threadsAlive == alive && stats().threadsIdle == idle; });
}

bool idle_work(const tovi_sched_work &w)  // the list poison of a work that is not queued
{
    return w.entry.next == reinterpret_cast<tovi_list_head_s *>(0x100100) &&
           w.entry.prev == reinterpret_cast<tovi_list_head_s *>(0x200200);
}

bool queue(tovi_sched_work *w, void (*handler)(tovi_sched_work *), void *data = nullptr)
{
    tovi_sched_init_work(w, handler, data);
    return tovi_sched_add_work(w) == 0;
}

std::atomic<bool> g_gate{false};
std::atomic<int> g_ran{0};
void gated(tovi_sched_work *)  // holds its worker until the gate opens
{
    g_ran.fetch_add(1);
    while (!g_gate.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

std::vector<uint32_t> g_dumped;

TEST(SchedWork, ArgumentChecksHealRecordAndIdleLimits)
{
    LogCapture cap;
    ASSERT_EQ(sched_work_init(), 0);
    tovi_sched_work w{};
    EXPECT_EQ(tovi_sched_init_work(&w, gated, nullptr), getpid());
    uint32_t idx = 0, count = 0;
    tovi_heal_task_s *task = nullptr;
    const std::string nullWork = "The v_pstWork is equal NULL.";
    const auto badHeal = [](void *t, void *n) { return fmt("Invalid param, heal_task(%p), task_num(%p).", t, n); };
    const struct { std::function<int()> call; int rc; std::string message; } cases[] = {
        {[&] { return tovi_set_sched_work_timeout(nullptr, 30); }, -1, "param (nil), timeout 30."},
        {[&] { return tovi_set_sched_work_timeout(&w, 14); }, -1, fmt("param %p, timeout 14.", (void *)&w)},
        {[&] { return tovi_set_sched_work_timeout(&w, 15); }, 0, ""},
        {[&] { return tovi_sched_delete_work(nullptr); }, -1, nullWork},
        {[&] { return tovi_sched_delete_work(&w); }, -55, ""},
        {[&] { return tovi_sched_add_work(nullptr); }, static_cast<int>(nullWork.size()), nullWork},
        {[&] { return tovi_add_sched_work_timeout_check(1, nullptr); }, -1, "Invalid index, param null."},
        {[&] { return (tovi_del_sched_work_timeout_check(64), 0); }, 0, "Invalid index (64).\n"},
        {[&] { return (tovi_update_sched_work_timeout_info(64, 1, 1, 1), 0); }, 0, ""},
        {[&] { return tovi_get_sched_work_heal_task_info(nullptr, &idx); }, -1, badHeal(nullptr, &idx)},
        {[&] { return tovi_get_sched_work_heal_task_info(&task, nullptr); }, -1, badHeal(&task, nullptr)},
        {[&] { return (tovi_heal_check_callback(nullptr), 0); }, 0, "Invalid param"},
        {[&] { return tovi_get_sched_work_heal_task_info(&task, &count) | static_cast<int>(count); }, 1, ""},
    };
    for (const auto &c : cases) {
        cap.clear();
        EXPECT_EQ(c.call(), c.rc) << c.message;
        EXPECT_EQ(cap.texts(3), c.message.empty() ? Texts{} : Texts{c.message});
    }
    tovi_sched_work none{};  // a work without handler is taken and dropped with a message
    EXPECT_TRUE(queue(&none, nullptr));
    EXPECT_TRUE(wait_for([&] { return cap.contains(fmt("NULL sched work data handler, PID = (%d).", getpid())); }));
    EXPECT_TRUE(idle_work(none));

    // The heal callback writes the health word at 128 of the framework's record, nothing else.
    std::vector<unsigned char> record(160, 0xEE), want = record;
    const uint32_t healthy = 1;  // an idle pool is healthy
    std::memcpy(&want[128], &healthy, 4);
    task->check(record.data());
    EXPECT_EQ(record, want);

    char path[] = "/tmp/tovi_schedwork_XXXXXX";  // the settings can only lower the idle limits
    ASSERT_EQ(close(mkstemp(path)), 0);
    const struct { const char *items; uint32_t min, max; } limits[] = {
        {"SCHED_THREAD_FREE_NUM_MIN=6\n", 4, 8},  // capped at the defaults
        {"SCHED_THREAD_FREE_NUM_MIN=2\nSCHED_THREAD_FREE_NUM_MAX=3\n", 2, 3},
        {"SCHED_THREAD_FREE_NUM_MIN=3\nSCHED_THREAD_FREE_NUM_MAX=2\n", 2, 3},  // max below min: the previous stay
        {"SCHED_THREAD_FREE_NUM_MAX=5\n", 4, 5},  // a missing item takes its default
        {"SCHED_THREAD_FREE_NUM_MIN=0x2\nSCHED_THREAD_FREE_NUM_MAX=0X6\n", 2, 6},  // hexadecimal text
        {"SCHED_THREAD_FREE_NUM_MIN=12\nSCHED_THREAD_FREE_NUM_MAX=40\n", 4, 8},
    };
    for (const auto &c : limits) {
        std::ofstream(path, std::ios::trunc) << "[TOVI]\n" << c.items;
        ASSERT_EQ(tovi_cfg_init_ex(path), 0);
        sched_work_thread_num_set();
        tovi_cfg_destroy_ex(path);
        EXPECT_EQ(std::pair(stats().freeNumMin, stats().freeNumMax), std::pair(c.min, c.max)) << c.items;
    }
    unlink(path);
    cap.set_threshold(2);
    EXPECT_EQ(tovi_sched_add_work(nullptr), -1) << "a failed add returns the log call's result, never 0";
}

TEST(SchedWork, DetectorsOnAPrivateRoot)
{
    LogCapture cap;
    static tovi::schedwork::SchedWorkRoot root;
    tovi::schedwork::root_setup(root);
    // {index, start, limit}: 3 watched for 15 s from jiffy 1000, 9 not watched; tid, pid: 11, 101 x index.
    const uint32_t claims[][3] = {{3, 1000, 3750}, {7, 900, 100}, {9, 0, 1}, {20, 0, 0}, {30, 0, 0}};
    for (const auto &c : claims) {
        auto &e = root.timeoutTable[c[0]];
        e.inUse = 1;
        e.tid = c[0] * 11;
        e.pid = c[0] * 101;
        e.startJiffies = c[1];
        e.timeoutJiffies = c[2];
    }
    auto prev = tovi::schedwork::set_dump_hook([](uint32_t tid) { g_dumped.push_back(tid); });
    // All stuck: 64 in progress, none started for over 44999 jiffies. {started, finished, now, verdict, lastCheck}
    const uint64_t steps[][5] = {
        {100, 36, 1000, 0, 1000},    // first call: remembers
        {100, 36, 45999, 0, 1000},   // 64 in progress, 44999 jiffies: not yet
        {100, 36, 46000, 1, 1000},   // more than 44999: all stuck, kept
        {101, 37, 46001, 0, 46001},  // a handler started: starts over
        {101, 38, 99999, 0, 99999},  // 63 in progress: never stuck
        {101, 37, 145000, 1, 99999}, // 64 again and 45001 jiffies later
    };
    for (const auto &st : steps) {
        root.startedCount = st[0];
        root.finishedCount = st[1];
        EXPECT_EQ(tovi::schedwork::all_work_timeout(root, st[2]), static_cast<int32_t>(st[3])) << st[2];
        EXPECT_EQ(root.lastCheck, st[4]) << st[2];
    }
    Texts expected;  // each of the two reports logs and dumps the first four workers in use
    for (size_t i = 0; i < 8; ++i)
        expected.push_back(fmt("sched work timeout: tid %u, pid %u. ", claims[i % 4][0] * 11, claims[i % 4][0] * 101));
    EXPECT_EQ(cap.texts(3), expected);
    EXPECT_EQ(g_dumped, (std::vector<uint32_t>{33, 77, 99, 220, 33, 77, 99, 220}));

    g_dumped.clear();  // overrun: only the first worker found past its limit is reported
    const struct { uint64_t now; int32_t verdict; std::string message; } cases[] = {
        {1000, 0, ""},
        {1000 + 3750, 1, "sched work timeout: tid 77, pid 707."},  // entry 7 is past, 3 is exactly at
        {1000 + 3751, 1, "sched work timeout: tid 33, pid 303."},  // both past: the first one found
    };
    for (const auto &c : cases) {
        cap.clear();
        EXPECT_EQ(tovi::schedwork::timeout_check(root, c.now), c.verdict) << c.now;
        EXPECT_EQ(cap.texts(4), c.message.empty() ? Texts{} : Texts{c.message});
    }
    EXPECT_EQ(g_dumped, (std::vector<uint32_t>{77, 33}));
    uint32_t stuck[34] = {}, healthy[34] = {};  // the heal verdict in the framework's word
    tovi::schedwork::heal_check(root, stuck, 200000);
    root.startedCount += 1;
    tovi::schedwork::heal_check(root, healthy, 200001);
    EXPECT_EQ(std::pair(stuck[32], healthy[32]), std::pair(0u, 1u));
    tovi::schedwork::set_dump_hook(prev);
}

// Counts runs per work number (pData; 0 queues itself until it ran 3 times), notes a watched one's limit.
std::atomic<int> g_runs[24], g_total{0};
std::atomic<uint64_t> g_seenLimit{0};
void count_run(tovi_sched_work *w)
{
    for (auto &e : tovi::schedwork::root().timeoutTable)
        if (w->timeout != 0 && __atomic_load_n(&e.startJiffies, __ATOMIC_RELAXED) != 0 &&
            __atomic_load_n(&e.pid, __ATOMIC_RELAXED) == static_cast<uint32_t>(w->pid))
            g_seenLimit.store(__atomic_load_n(&e.timeoutJiffies, __ATOMIC_RELAXED));
    const auto i = reinterpret_cast<uintptr_t>(w->pData);
    if (g_runs[i].fetch_add(1) + 1 < (i == 0 ? 3 : 1)) {
        EXPECT_EQ(tovi_sched_add_work(w), 0) << "a handler may queue its own work again";
    }
    ++g_total;
}

TEST(SchedWork, PoolRunsWorkGrowsShrinksCapsAndSurvivesDestroy)
{
    LogCapture cap;
    ASSERT_EQ(sched_work_destroy(), 0);  // whatever earlier tests left
    ASSERT_EQ(sched_work_init(), 0);
    ASSERT_TRUE(pool_is(4, 4)) << "a fresh pool grows to the idle minimum";

    std::vector<tovi_sched_work> works(21);  // each runs with its data; number 1 is watched for 15 s
    for (uintptr_t i = 0; i < works.size(); ++i)
        tovi_sched_init_work(&works[i], count_run, reinterpret_cast<void *>(i));
    ASSERT_EQ(tovi_set_sched_work_timeout(&works[1], 15), 0);
    for (size_t i = 0; i < 20; ++i)
        ASSERT_EQ(tovi_sched_add_work(&works[i]), 0);
    ASSERT_TRUE(wait_for([] { return g_total.load() == 22; }));
    for (size_t i = 0; i < 20; ++i)
        EXPECT_TRUE(g_runs[i].load() == (i == 0 ? 3 : 1) && idle_work(works[i])) << i;
    EXPECT_EQ(g_seenLimit.load(), 15u * 250u) << "in jiffies";

    // Twelve held handlers: the pool grows to keep four idle, then shrinks to the idle maximum.
    ASSERT_TRUE(wait_for([] { return stats().threadsIdle == stats().threadsAlive; }));
    cap.clear();
    std::vector<tovi_sched_work> held(12);
    for (auto &w : held)
        ASSERT_TRUE(queue(&w, gated));
    ASSERT_TRUE(wait_for([] { return g_ran.load() == 12; }));
    ASSERT_TRUE(pool_is(16, 4));
    g_gate = true;
    ASSERT_TRUE(pool_is(8, 8));
    EXPECT_TRUE(wait_for([&] { return cap.count("Sched work thread exited.") == 8; }));

    g_gate = false;
    g_ran = 0;
    cap.clear();
    std::vector<tovi_sched_work> many(70);  // at most 64 run; the 64th, taken by the last idle one, reports
    for (size_t i = 0; i < many.size(); ++i) {
        ASSERT_TRUE(i != 63 || wait_for([] { return g_ran.load() == 63; }));
        ASSERT_TRUE(queue(&many[i], gated));
    }
    ASSERT_TRUE(wait_for([] { return g_ran.load() == 64; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(g_ran.load(), 64);
    EXPECT_TRUE(stats().threadsAlive == 64 && stats().threadsIdle == 0);
    const size_t allRunning = cap.count("All tovi_sched_work threads is running.");
    EXPECT_TRUE(allRunning >= 1 && allRunning <= 3) << allRunning << " (rate limited)";

    EXPECT_FALSE(idle_work(many[69]));
    EXPECT_EQ(tovi_sched_delete_work(&many[69]), 0);
    EXPECT_TRUE(idle_work(many[69]));
    EXPECT_EQ(tovi_sched_delete_work(&many[69]), -55);
    cap.clear();
    EXPECT_NE(tovi_sched_add_work(&many[68]), 0);
    EXPECT_EQ(cap.texts(3), Texts{fmt("Work in list is not initial, PID = (%d)", getpid())});

    // Destroy while 64 run: the queued rest is dropped, the workers leave uncounted, the pool restarts.
    EXPECT_EQ(sched_work_destroy(), 0);
    EXPECT_EQ(sched_work_destroy(), 0) << "stopped already";
    EXPECT_TRUE(cap.contains("some sched work thread exited abnormally. totalThread = 64"));
    for (size_t i = 64; i < many.size(); ++i)
        EXPECT_TRUE(idle_work(many[i])) << i;
    EXPECT_EQ(stats().threadsAlive, 0);
    EXPECT_EQ(tovi_sched_delete_work(&many[0]), -1);
    EXPECT_TRUE(cap.contains("Deleting work failed, as the sched_work not inited."));
    const uint64_t finishedBefore = stats().finished;
    g_gate = true;
    ASSERT_TRUE(wait_for([&] { return stats().finished == finishedBefore + 64; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(g_ran.load(), 64) << "dropped work never runs";
    EXPECT_TRUE(stats().threadsAlive == 0 && stats().threadsIdle == 0);
    ASSERT_EQ(sched_work_init(), 0);
    ASSERT_EQ(tovi_sched_add_work(&works[20]), 0);
    EXPECT_TRUE(wait_for([&] { return g_runs[20].load() == 1; }));

    std::thread stopper([] { sched_work_destroy(); });
    ASSERT_TRUE(wait_for([] { return stats().threadsAlive >= 1024; }));
    static tovi_sched_work late;  // added during a destroy: logged, queued all the same
    EXPECT_TRUE(queue(&late, gated));
    stopper.join();
    EXPECT_TRUE(cap.contains("In destroying, adding v_pstWork failed."));

    ASSERT_EQ(tovi_sched_add_work(&works[20]), 0);
    EXPECT_TRUE(wait_for([&] { return g_runs[20].load() == 2; })) << "adding after a destroy restarts the pool";
    const int32_t lateRc = tovi_sched_delete_work(&late);
    EXPECT_TRUE(lateRc == 0 || lateRc == -55) << lateRc;
    EXPECT_GT(stats().waitSamples, 100u);
}

}  // namespace
