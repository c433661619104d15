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
#include "tovi_cfg.hpp"
#include "tovi_schedwork.h"
#include "tovi_schedwork.hpp"

namespace {

using tovi::test::fmt;
using tovi::test::LogCapture;
using tovi::test::wait_for;
using Texts = std::vector<std::string>;
using Bytes = std::vector<unsigned char>;

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

void noop(tovi_sched_work *) {}

// Holds its worker until the gate opens.
std::atomic<bool> g_gate{false};
std::atomic<int> g_ran{0};
void gated(tovi_sched_work *)
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
    EXPECT_EQ(tovi_sched_init_work(&w, noop, nullptr), getpid());
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
        // A failed add returns what the logging call returned: the message's length.
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
    cap.set_threshold(2);
    EXPECT_EQ(tovi_sched_add_work(nullptr), -1) << "never 0 when the level is off";
    cap.set_threshold(7);
    tovi_sched_work none{};  // a work without handler is taken and dropped with a message
    EXPECT_TRUE(queue(&none, nullptr));
    EXPECT_TRUE(wait_for([&] { return cap.contains(fmt("NULL sched work data handler, PID = (%d).", getpid())); }));
    EXPECT_TRUE(idle_work(none));

    // The heal record has the framework's layout; its callback writes the
    // health word at 128 of the framework's record and nothing else.
    ASSERT_NE(task, nullptr);
    Bytes want(80, 0);
    const uint64_t callback = reinterpret_cast<uint64_t>(&tovi_heal_check_callback);
    const uint32_t params[] = {1, 5, 5}, healthy = 1;
    std::memcpy(want.data(), "tovi_schedwork_timeout_check", 28);
    std::memcpy(&want[32], &callback, 8);
    std::memcpy(&want[56], params, sizeof params);
    EXPECT_EQ(Bytes(reinterpret_cast<unsigned char *>(task), reinterpret_cast<unsigned char *>(task) + 80), want);
    Bytes record(160, 0xEE);
    want = record;
    std::memcpy(&want[128], &healthy, 4);  // an idle pool is healthy
    task->check(record.data());
    EXPECT_EQ(record, want);

    // The settings can only lower the idle limits.
    char path[] = "/tmp/tovi_schedwork_XXXXXX";
    ASSERT_EQ(close(mkstemp(path)), 0);
    const struct { const char *items; uint32_t min, max; } limits[] = {
        {"SCHED_THREAD_FREE_NUM_MIN=6\n", 4, 8},  // capped at the defaults
        {"SCHED_THREAD_FREE_NUM_MIN=2\nSCHED_THREAD_FREE_NUM_MAX=3\n", 2, 3},
        {"SCHED_THREAD_FREE_NUM_MIN=3\nSCHED_THREAD_FREE_NUM_MAX=2\n", 2, 3},  // max below min: the previous stay
        {"SCHED_THREAD_FREE_NUM_MAX=5\n", 4, 5},  // a missing item takes its default
        {"SCHED_THREAD_FREE_NUM_MIN=0x2\nSCHED_THREAD_FREE_NUM_MAX=0X6\n", 2, 6},  // hexadecimal text
        {"SCHED_THREAD_FREE_NUM_MIN=12\nSCHED_THREAD_FREE_NUM_MAX=40\n", 4, 8},
        {"SCHED_THREAD_FREE_NUM_MIN=5\nSCHED_THREAD_FREE_NUM_MAX=1\n", 4, 8},  // refused again: still the previous
        {"", 4, 8},
    };
    for (const auto &c : limits) {
        std::ofstream(path, std::ios::trunc) << "[TOVI]\n" << c.items;
        ASSERT_EQ(tovi_cfg_init_ex(path), 0);
        sched_work_thread_num_set();
        tovi_cfg_destroy_ex(path);
        EXPECT_EQ(std::pair(stats().freeNumMin, stats().freeNumMax), std::pair(c.min, c.max)) << c.items;
    }
    unlink(path);
}

// The all-stuck and overrun detectors and the heal verdict, driven through jiffies.
TEST(SchedWork, DetectorsOnAPrivateRoot)
{
    LogCapture cap;
    static tovi::schedwork::SchedWorkRoot root;
    tovi::schedwork::SchedWorkRoot *r = &root;
    tovi::schedwork::root_setup(root);
    // {index, tid, pid, start, limit}: entry 3 watched for 15 s from jiffy 1000, 9 not watched.
    const uint32_t claims[][5] = {{3, 33, 303, 1000, 3750}, {7, 77, 707, 900, 100}, {9, 99, 909, 0, 1},
                                  {20, 120, 220, 0, 0}, {30, 130, 230, 0, 0}};
    for (const auto &c : claims) {
        auto &e = r->timeoutTable[c[0]];
        e.inUse = 1;
        e.tid = c[1];
        e.pid = c[2];
        e.startJiffies = c[3];
        e.timeoutJiffies = c[4];
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
        r->startedCount = st[0];
        r->finishedCount = st[1];
        EXPECT_EQ(tovi::schedwork::all_work_timeout(*r, st[2]), static_cast<int32_t>(st[3])) << st[2];
        EXPECT_EQ(r->lastCheck, st[4]) << st[2];
    }
    Texts expected;  // each of the two reports logs and dumps the first four workers in use
    for (size_t i = 0; i < 8; ++i)
        expected.push_back(fmt("sched work timeout: tid %u, pid %u. ", claims[i % 4][1], claims[i % 4][2]));
    EXPECT_EQ(cap.texts(3), expected);
    EXPECT_EQ(g_dumped, (std::vector<uint32_t>{33, 77, 99, 120, 33, 77, 99, 120}));


    g_dumped.clear();  // overrun: only the first worker found past its limit is reported
    const struct { uint64_t now; int32_t verdict; std::string message; } cases[] = {
        {1000, 0, ""},
        {1000 + 3750, 1, "sched work timeout: tid 77, pid 707."},  // entry 7 is past, 3 is exactly at
        {1000 + 3751, 1, "sched work timeout: tid 33, pid 303."},  // both past: the first one found
    };
    for (const auto &c : cases) {
        cap.clear();
        EXPECT_EQ(tovi::schedwork::timeout_check(*r, c.now), c.verdict) << c.now;
        EXPECT_EQ(cap.texts(4), c.message.empty() ? Texts{} : Texts{c.message});
    }
    EXPECT_EQ(g_dumped, (std::vector<uint32_t>{77, 33}));
    // The heal callback reports the same verdict in the framework's word.
    uint32_t record[34] = {};
    tovi::schedwork::heal_check(*r, record, 200000);
    EXPECT_EQ(record[32], 0u) << "stuck";
    r->startedCount += 1;
    tovi::schedwork::heal_check(*r, record, 200001);
    EXPECT_EQ(record[32], 1u);
    tovi::schedwork::set_dump_hook(prev);
}

// Counts its runs and queues itself again until it has run `requeue` times;
// a watched one notes the time-out limit in its worker's entry.
struct Counted {
    tovi_sched_work work;
    int requeue = 1;
    std::atomic<int> runs{0};
};
std::atomic<int> g_runs{0};
std::atomic<uint64_t> g_seenLimit{0};
void count_run(tovi_sched_work *w)
{
    for (auto &e : tovi::schedwork::root().timeoutTable)
        if (w->timeout != 0 && __atomic_load_n(&e.startJiffies, __ATOMIC_RELAXED) != 0 &&
            __atomic_load_n(&e.pid, __ATOMIC_RELAXED) == static_cast<uint32_t>(w->pid))
            g_seenLimit.store(__atomic_load_n(&e.timeoutJiffies, __ATOMIC_RELAXED));
    auto *c = static_cast<Counted *>(w->pData);
    const int want = c->requeue;  // the record may be gone once `runs` says done
    g_runs.fetch_add(1);
    if (c->runs.fetch_add(1) + 1 < want) {
        EXPECT_EQ(tovi_sched_add_work(w), 0) << "a handler may queue its own work again";
    }
}

TEST(SchedWork, PoolRunsWorkGrowsShrinksCapsAndSurvivesDestroy)
{
    LogCapture cap;
    ASSERT_EQ(sched_work_destroy(), 0);  // whatever earlier tests left
    ASSERT_EQ(sched_work_init(), 0);
    ASSERT_TRUE(pool_is(4, 4)) << "a fresh pool grows to the idle minimum";

    // Works run once each with their data; one requeues itself, one is watched (15 s in jiffies).
    std::vector<Counted> recs(20);
    recs[0].requeue = 3;
    for (auto &r : recs)
        tovi_sched_init_work(&r.work, count_run, &r);
    ASSERT_EQ(tovi_set_sched_work_timeout(&recs[1].work, 15), 0);
    for (auto &r : recs)
        ASSERT_EQ(tovi_sched_add_work(&r.work), 0);
    ASSERT_TRUE(wait_for([] { return g_runs.load() == 22; }));
    for (auto &r : recs)
        EXPECT_TRUE(r.runs.load() == r.requeue && idle_work(r.work)) << r.runs.load();
    EXPECT_EQ(g_seenLimit.load(), 15u * 250u);

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

    // Seventy: at most 64 workers, the rest queued; the 64th, taken by the last idle worker, reports.
    g_gate = false;
    g_ran = 0;
    cap.clear();
    std::vector<tovi_sched_work> many(70);
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

    // Queued work: deleted once (-55 after), and not queued twice.
    tovi_sched_work &last = many.back();
    EXPECT_FALSE(idle_work(last));
    EXPECT_EQ(tovi_sched_delete_work(&last), 0);
    EXPECT_TRUE(idle_work(last));
    EXPECT_EQ(tovi_sched_delete_work(&last), -55);
    cap.clear();
    EXPECT_NE(tovi_sched_add_work(&many[68]), 0);
    EXPECT_EQ(cap.texts(3), Texts{fmt("Work in list is not initial, PID = (%d)", getpid())});

    // Destroy while 64 handlers run: the queued rest is dropped, the counters reset, and the
    // workers leave uncounted when their handlers end; then the pool starts again.
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
    ASSERT_TRUE(pool_is(4, 4));
    Counted again;
    ASSERT_TRUE(queue(&again.work, count_run, &again));
    EXPECT_TRUE(wait_for([&] { return again.runs.load() == 1; }));

    // Work added during a destroy is logged and queued all the same (dropped or left for the next pool).
    std::thread stopper([] { sched_work_destroy(); });
    ASSERT_TRUE(wait_for([] { return stats().threadsAlive >= 1024; }));
    static tovi_sched_work late;
    EXPECT_TRUE(queue(&late, noop));
    stopper.join();
    EXPECT_TRUE(cap.contains("In destroying, adding v_pstWork failed."));

    // Adding after a destroy starts the pool by itself.
    ASSERT_EQ(tovi_sched_add_work(&again.work), 0);
    EXPECT_TRUE(wait_for([&] { return again.runs.load() == 2; }));
    const int32_t lateRc = tovi_sched_delete_work(&late);
    EXPECT_TRUE(lateRc == 0 || lateRc == -55) << lateRc;
    const auto s = stats();
    EXPECT_TRUE(s.waitSamples > 100 && s.waitP50Ns <= s.waitP99Ns && s.waitP99Ns <= s.waitMaxNs) << s.waitSamples;
}

}  // namespace
