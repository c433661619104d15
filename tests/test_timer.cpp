// Timer lists: the wheel driven with an explicit clock (days of wheel time
// without waiting), and the real timer thread for firing, deletion and the
// slow-callback report.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.hpp"
#include "tovi_time.h"
#include "tovi_timer.h"
#include "tovi_timer.hpp"

namespace {

using tovi::test::LogCapture;
using tovi::timer::TimerRoot;

constexpr uint64_t kDay = 86400000;

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

template <class Pred>
bool wait_for(Pred pred, uint64_t timeout_ms)
{
    const uint64_t end = tovi_time_getmillisec() + timeout_ms;
    while (!pred()) {
        if (tovi_time_getmillisec() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void noop(uint64_t) {}

// ---- A private root driven with an explicit "now" ----

struct Driven {
    std::unique_ptr<TimerRoot> root = std::make_unique<TimerRoot>();
    explicit Driven(uint64_t now)
    {
        tovi::timer::root_reset(*root, now);
        EXPECT_EQ(tovi::timer::init_timer_root(*root), 0);
    }
    ~Driven() { tovi::timer::fini_timer_root(*root); }
};

// Where a timer is filed: level and slot, or level -1.
struct Where {
    int level = -1;
    uint32_t slot = 0;
};

Where find(TimerRoot &root, tovi_timer *t)
{
    for (uint32_t level = 0; level < tovi::timer::kLevels; ++level) {
        tovi_list_head_s *heads = tovi::timer::level_heads(root, level);
        for (uint32_t i = 0; i < tovi::timer::kSlotCount[level]; ++i)
            for (tovi_list_head_s *n = heads[i].next; n != &heads[i]; n = n->next)
                if (n == &t->entry)
                    return {static_cast<int>(level), i};
    }
    return {};
}

// Fired timers of driven roots: (data, the millisecond being processed).
// That millisecond is timerMs - 1 while other timers are pending; when the
// firing timer was the last one the base has already jumped to the pass's
// "now", so it is unknown (kUnknownMs).
constexpr uint64_t kUnknownMs = UINT64_MAX;
TimerRoot *g_driven = nullptr;
std::vector<std::pair<uint64_t, uint64_t>> g_fired;

void record_fire(uint64_t data)
{
    g_fired.emplace_back(data, g_driven->pendingCount > 0 ? g_driven->timerMs - 1 : kUnknownMs);
}

void arm_at(TimerRoot &root, tovi_timer &t, uint64_t data, uint64_t timeout, uint64_t now,
            tovi_timer_func f = record_fire)
{
    ASSERT_EQ(tovi_timer_set_raw(&t, timeout, data, f, "arm_at", "test_timer.cpp", 1), 0);
    ASSERT_EQ(tovi::timer::arm(root, &t, timeout, now), 0);
}

}  // namespace

// Runs first: nothing has started the module yet.
TEST(TimerModule, RefusesUseBeforeStartThenStartsOnce)
{
    if (tovi_timer_list_pending(nullptr, 0, nullptr) >= 0)
        GTEST_SKIP() << "the module was started by an earlier run";
    LogCapture cap;
    tovi_timer t{};
    tovi_timer_set(&t, 10, 0, noop);
    EXPECT_EQ(tovi_timer_add(&t), -1);
    EXPECT_EQ(tovi_timer_delete(&t), -1);
    EXPECT_EQ(tovi_timer_delete_sync(&t), -1);
    EXPECT_EQ(cap.count("tovi timer is not inited."), 3u);
    EXPECT_EQ(tovi_timer_list_pending(nullptr, 0, nullptr), -1);
    EXPECT_EQ(tovi_timer_module_init(), 0);
    EXPECT_EQ(tovi_timer_module_init(), 0);
    EXPECT_EQ(tovi_timer_list_pending(nullptr, 0, nullptr), 0);
}

TEST(TimerWheel, FilesByDistanceAndBeyondSixtyDaysAtTheFarEnd)
{
    const uint64_t base = 7 * kDay + 123456789;  // not aligned to any level
    Driven d(base);
    struct Case {
        uint64_t delta;
        int level;
        uint64_t slot;
    } cases[] = {
        {1, 0, (base + 1) % 1000},
        {999, 0, (base + 999) % 1000},
        {1000, 1, (base + 1000) / 1000 % 60},
        {59999, 1, (base + 59999) / 1000 % 60},
        {60000, 2, (base + 60000) / 60000 % 60},
        {3599999, 2, (base + 3599999) / 60000 % 60},
        {3600000, 3, (base + 3600000) / 3600000 % 60},
        {215999999, 3, (base + 215999999) / 3600000 % 60},
        {216000000, 4, (base + 216000000) / 216000000 % 24},
        {60 * kDay, 4, (base + 60 * kDay) / 216000000 % 24},
        {60 * kDay + 1, 4, (base + 60 * kDay) / 216000000 % 24},
        {400 * kDay, 4, (base + 60 * kDay) / 216000000 % 24},
        // Just past 60 days, in the next top slot: still filed at 60 days.
        {60 * kDay + 216000000 - (base + 60 * kDay) % 216000000, 4, (base + 60 * kDay) / 216000000 % 24},
    };
    std::vector<tovi_timer> timers(std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        arm_at(*d.root, timers[i], i, cases[i].delta, base);
        Where w = find(*d.root, &timers[i]);
        EXPECT_EQ(w.level, cases[i].level) << "delta " << cases[i].delta;
        EXPECT_EQ(w.slot, cases[i].slot) << "delta " << cases[i].delta;
        EXPECT_EQ(timers[i].expirTime, base + cases[i].delta) << "the record keeps its real expiry";
    }
    EXPECT_EQ(d.root->pendingCount, std::size(cases));
    // Already due (the base moved past it): the slot about to be processed.
    tovi_timer late{};
    tovi_timer_set_raw(&late, 1, 0, record_fire, "f", "x", 1);
    late.expirTime = base - 5;
    tovi::timer::attachTimerToList(*d.root, &late);
    EXPECT_EQ(find(*d.root, &late).slot, base % 1000);
}

TEST(TimerWheel, ModelOfArmModifyDeleteOverHoursOfWheelTime)
{
    const uint64_t start = 5 * kDay + 777;
    Driven d(start);
    g_driven = d.root.get();
    g_fired.clear();
    constexpr size_t kTimers = 64;
    std::vector<tovi_timer> timers(kTimers);
    std::map<uint64_t, uint64_t> expect;  // data -> expiry of pending timers
    std::mt19937_64 rng(42);
    auto timeout = [&] {
        // Log-uniform from 1 ms to about 2 hours, so every level is used.
        const double e = std::uniform_real_distribution<double>(0.0, 22.8)(rng);
        return static_cast<uint64_t>(std::exp2(e)) + 1;
    };
    for (size_t i = 0; i < kTimers; ++i)
        tovi_timer_set_raw(&timers[i], 1, i, record_fire, "model", "x", 1);
    uint64_t now = start;
    const uint64_t end = start + 90 * 60000;
    while (now < end) {
        for (int op = 0; op < 4; ++op) {
            const size_t i = rng() % kTimers;
            if (rng() % 5 == 0) {
                ASSERT_EQ(tovi::timer::remove(*d.root, &timers[i], rng() % 2 == 0, now), 0);
                expect.erase(i);
            } else {
                const uint64_t to = timeout();
                ASSERT_EQ(tovi::timer::arm(*d.root, &timers[i], to, now), 0);
                expect[i] = now + to;
            }
        }
        ASSERT_EQ(d.root->pendingCount, expect.size());
        const uint64_t prev = now;
        now += 1 + rng() % (rng() % 8 == 0 ? 300000 : 2000);
        g_fired.clear();
        tovi::timer::run_timers(*d.root, now);
        uint64_t last_ms = 0;
        for (auto &[data, ms] : g_fired) {
            auto it = expect.find(data);
            ASSERT_NE(it, expect.end()) << "fired a timer that is not pending: " << data;
            EXPECT_GT(it->second, prev);
            EXPECT_LE(it->second, now);
            if (ms != kUnknownMs) {
                EXPECT_EQ(ms, it->second) << "timer " << data;
                EXPECT_GE(ms, last_ms) << "fired out of order";
                last_ms = ms;
            }
            EXPECT_FALSE(tovi_timer_is_pending(&timers[data]));
            expect.erase(it);
        }
        for (auto &[data, e] : expect) {
            ASSERT_GT(e, now) << "timer " << data << " due but not fired";
            ASSERT_TRUE(tovi_timer_is_pending(&timers[data]));
        }
        if (expect.empty())
            EXPECT_TRUE(d.root->timerMs == now || d.root->timerMs == now + 1) << "an empty wheel jumps to now";
        else
            EXPECT_EQ(d.root->timerMs, now + 1);
    }
}

TEST(TimerWheel, SameMillisecondFiresInAttachOrderAndCallbacksMayRearm)
{
    Driven d(1000000);
    g_driven = d.root.get();
    g_fired.clear();
    tovi_timer t[4]{};
    for (uint64_t i = 0; i < 4; ++i)
        arm_at(*d.root, t[i], 3 - i, 51, 1000000);
    tovi::timer::run_timers(*d.root, 1000050);
    EXPECT_TRUE(g_fired.empty());
    tovi::timer::run_timers(*d.root, 1000051);
    ASSERT_EQ(g_fired.size(), 4u);
    for (uint64_t i = 0; i < 4; ++i)
        EXPECT_EQ(g_fired[i], std::make_pair(3 - i, i < 3 ? uint64_t{1000051} : kUnknownMs));
    EXPECT_EQ(t[0].entry.next, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(t[0].entry.prev), 0x200200u);
}

TEST(TimerWheel, BrokenLinksAreReportedAndTheUnlinkGoesAhead)
{
    Driven d(1000);
    tovi_timer a{}, b{}, c{}, stray{};
    arm_at(*d.root, a, 1, 10, 1000);
    arm_at(*d.root, b, 2, 10, 1000);
    arm_at(*d.root, c, 3, 10, 1000);
    tovi_timer_set_raw(&stray, 1, 0, noop, "f", "x", 1);
    stray.entry.next = &stray.entry;
    stray.entry.prev = &stray.entry;
    LogCapture cap;
    // b claims a predecessor that does not point back at it.
    b.entry.prev = &stray.entry;
    do_tovi_spinlock_lock(&d.root->lock.lock, "lockTimerRoot", __LINE__);
    tovi::timer::detachTimerFromList(*d.root, &b, true, 1000);
    do_tovi_spinlock_unlock(&d.root->lock.lock, "unlockTimerRoot", __LINE__);
    const std::string prev_msg =
        fmt("Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)", static_cast<void *>(&stray.entry),
            static_cast<void *>(&stray.entry), static_cast<void *>(&stray.entry), static_cast<void *>(&b.entry),
            static_cast<void *>(&c.entry), static_cast<void *>(&stray.entry));
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{prev_msg});
    EXPECT_EQ(cap.count(fmt("[Infra]Timer entry:%p, expirTime:0, timeOut:1, data:0, func:%p         isp:0 flags:0 "
                            "in funcName:f file:x line:1",
                            static_cast<void *>(&stray.entry), reinterpret_cast<void *>(noop))),
              1u);
    EXPECT_EQ(b.entry.next, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b.entry.prev), 0x200200u);
    EXPECT_EQ(c.entry.prev, &stray.entry) << "unlinked as the links say, not repaired";

    // A poisoned predecessor is only noted.
    cap.clear();
    a.entry.prev = reinterpret_cast<tovi_list_head_s *>(uintptr_t{0x200200});
    tovi_list_head_s *a_next = a.entry.next;
    a_next->prev = &a.entry;
    do_tovi_spinlock_lock(&d.root->lock.lock, "lockTimerRoot", __LINE__);
    tovi::timer::detachTimerFromList(*d.root, &a, false, 1000);
    do_tovi_spinlock_unlock(&d.root->lock.lock, "unlockTimerRoot", __LINE__);
    EXPECT_EQ(cap.texts(6).front(), fmt("List node prev:(%p), cur:(%p)", reinterpret_cast<void *>(0x200200),
                                         static_cast<void *>(&a.entry)));
    EXPECT_TRUE(cap.texts(3).empty());
    EXPECT_EQ(a.entry.next, a_next) << "clearNext false keeps next";
}

// ---- The real timer thread ----

class TimerThread : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(tovi_timer_module_init(), 0); }
};

TEST_F(TimerThread, ArgumentChecksWordForWord)
{
    LogCapture cap;
    EXPECT_EQ(tovi_timer_init(nullptr), -1);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{"Input timer is null."});
    cap.clear();
    tovi_timer t{};
    std::memset(&t, 0x5a, sizeof t);
    t.entry.next = nullptr;
    EXPECT_EQ(tovi_timer_set_raw(&t, 5, 6, nullptr, "f", "x", 1), -1);
    EXPECT_EQ(tovi_timer_set_raw(nullptr, 5, 6, noop, "f", "x", 1), -1);
    EXPECT_EQ(cap.count("Input para is invalid."), 2u);
    ASSERT_EQ(tovi_timer_set_raw(&t, 5, 6, noop, "f", "x", 1), 0);
    EXPECT_EQ(t.flags, 0u) << "the record is zeroed first";
    EXPECT_EQ(t.expirTime, 0u);
    EXPECT_EQ(t.timeOut, 5u);
    EXPECT_EQ(t.data, 6u);

    cap.clear();
    tovi_timer zero{};
    tovi_timer_init(&zero);
    EXPECT_EQ(tovi_timer_add(nullptr), -1);
    EXPECT_EQ(tovi_timer_add(&zero), -1);
    EXPECT_EQ(cap.count("Input timer is null or not initiated."), 2u);
    cap.clear();
    tovi_timer_set(&t, 0, 0, noop);
    EXPECT_EQ(tovi_timer_add(&t), -1) << "a zero time-out";
    EXPECT_EQ(tovi_timer_modify(&t, 0), -1);
    EXPECT_EQ(tovi_timer_modify(nullptr, 5), -1);
    EXPECT_EQ(cap.count("Input para is invalid."), 3u);
    cap.clear();
    EXPECT_EQ(tovi_timer_delete(nullptr), -1);
    EXPECT_EQ(tovi_timer_delete_sync(nullptr), -1);
    EXPECT_EQ(tovi_timer_is_pending(nullptr), 0);
    EXPECT_EQ(cap.count("Input timer is null."), 3u);
    EXPECT_EQ(tovi_timer_delete(&t), 0) << "an idle timer";

    cap.clear();
    tovi_timer_set(&t, 60000, 0, noop);
    ASSERT_EQ(tovi_timer_add(&t), 0);
    EXPECT_EQ(tovi_timer_is_pending(&t), 1);
    EXPECT_EQ(tovi_timer_add(&t), -1);
    EXPECT_EQ(tovi_timer_set_raw(&t, 1, 0, noop, "f", "x", 1), -1);
    EXPECT_EQ(cap.count("The timer is pending."), 2u);
    EXPECT_EQ(tovi_timer_modify(&t, 70000), 0) << "modify re-arms a pending timer";
    EXPECT_EQ(tovi_timer_destroy(&t), 0);
    EXPECT_EQ(tovi_timer_is_pending(&t), 0);

    cap.clear();
    tovi_timer hr{};
    tovi_timer_set(&hr, 1000, 0, noop);
    hr.flags = TOVI_TIMER_FLAG_HR;
    // A flagged record goes to the high-resolution timers, which no add
    // has started in this process.
    EXPECT_EQ(tovi_timer_modify(&hr, 1000), -1);
    EXPECT_EQ(tovi_timer_delete(&hr), -1);
    EXPECT_EQ(cap.texts(3), (std::vector<std::string>{"tovi hr timer is not inited.", "tovi hr timer is not inited."}));
    EXPECT_EQ(tovi_timer_add(&hr), 0) << "add makes it a wheel timer";
    EXPECT_EQ(hr.flags, 0u);
    EXPECT_EQ(tovi_timer_delete(&hr), 0);
}

TEST_F(TimerThread, ShowLogsTheRecordWordForWord)
{
    LogCapture cap;
    tovi_timer t{};
    tovi_timer_set_raw(&t, 7, 9, noop, "owner_fn", "owner.c", 42);
    t.expirTime = 5;
    t.isp = 17;
    t.flags = 0x81;
    tovi_timer_show(&t.entry);
    const std::string body = fmt("Timer entry:%p, expirTime:5, timeOut:7, data:9, func:%p         isp:11 "
                                 "flags:ffffff81 in funcName:owner_fn file:owner.c line:42",
                                 static_cast<void *>(&t.entry), reinterpret_cast<void *>(noop));
    auto recs = cap.records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].module, 0u);
    EXPECT_EQ(recs[0].level, 6u);
    EXPECT_EQ(recs[0].text, "[Infra]" + body);
    EXPECT_EQ(recs[1].module, 381u);
    EXPECT_EQ(recs[1].level, 6u);
    EXPECT_EQ(recs[1].text, body);
    // The infrastructure line does not ask for the level.
    cap.clear();
    cap.set_threshold(3);
    tovi_timer_show(&t.entry);
    EXPECT_EQ(cap.texts(), std::vector<std::string>{"[Infra]" + body});
}

namespace {

struct FireLog {
    std::atomic<int> fired{0};
    uint64_t at[64] = {};
    int order[64] = {};
};
FireLog g_log;

void log_fire(uint64_t data)
{
    const int n = g_log.fired.load(std::memory_order_relaxed);
    g_log.at[data] = tovi_time_getmillisec();
    g_log.order[n] = static_cast<int>(data);
    g_log.fired.store(n + 1, std::memory_order_release);  // publishes at/order to the test thread
}

}  // namespace

TEST_F(TimerThread, FiresInExpiryOrderAndOnTime)
{
    constexpr int kCount = 24;
    g_log.fired = 0;
    tovi_timer t[kCount]{};
    std::vector<int> ids(kCount);
    for (int i = 0; i < kCount; ++i)
        ids[i] = i;
    std::shuffle(ids.begin(), ids.end(), std::mt19937(7));
    for (int id : ids) {
        tovi_timer_set(&t[id], 20 + 15 * static_cast<uint64_t>(id), static_cast<uint64_t>(id), log_fire);
        ASSERT_EQ(tovi_timer_add(&t[id]), 0);
    }
    ASSERT_TRUE(wait_for([] { return g_log.fired.load(std::memory_order_acquire) == kCount; }, 10000));
    for (int i = 0; i < kCount; ++i) {
        EXPECT_GE(g_log.at[i], t[i].expirTime) << "timer " << i << " fired early";
        EXPECT_LE(g_log.at[i], t[i].expirTime + 500) << "timer " << i << " fired very late";
        EXPECT_EQ(tovi_timer_is_pending(&t[i]), 0);
    }
    for (int i = 1; i < kCount; ++i)
        EXPECT_LE(t[g_log.order[i - 1]].expirTime, t[g_log.order[i]].expirTime) << "position " << i;
}

namespace {

std::atomic<int> g_count{0};
void count_fire(uint64_t)
{
    g_count.fetch_add(1, std::memory_order_relaxed);  // only counted
}

tovi_timer g_self;
std::atomic<int> g_self_runs{0};
void self_rearm(uint64_t)
{
    if (g_self_runs.fetch_add(1, std::memory_order_relaxed) + 1 < 5)  // only counted
        tovi_timer_modify(&g_self, 3);
}

}  // namespace

TEST_F(TimerThread, ModifyPostponesDeleteCancelsAndCallbacksRearm)
{
    g_count = 0;
    tovi_timer a{}, b{};
    tovi_timer_set(&a, 40, 0, count_fire);
    tovi_timer_set(&b, 40, 0, count_fire);
    ASSERT_EQ(tovi_timer_add(&a), 0);
    ASSERT_EQ(tovi_timer_add(&b), 0);
    ASSERT_EQ(tovi_timer_modify(&a, 400), 0);
    ASSERT_EQ(tovi_timer_delete(&b), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(g_count.load(), 0) << "postponed and deleted timers stay quiet";
    EXPECT_EQ(tovi_timer_is_pending(&a), 1);
    EXPECT_EQ(tovi_timer_is_pending(&b), 0);
    ASSERT_TRUE(wait_for([] { return g_count.load() == 1; }, 5000));
    EXPECT_EQ(tovi_timer_is_pending(&a), 0);

    g_self_runs = 0;
    tovi_timer_set(&g_self, 3, 0, self_rearm);
    ASSERT_EQ(tovi_timer_add(&g_self), 0);
    ASSERT_TRUE(wait_for([] { return g_self_runs.load() == 5 && tovi_timer_is_pending(&g_self) == 0; }, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(g_self_runs.load(), 5);
}

namespace {

std::atomic<int> g_stage{0};  // 1 callback running, 2 released, 3 callback done

void blocking_fire(uint64_t)
{
    g_stage.store(1, std::memory_order_release);  // pairs with the test thread's wait
    while (g_stage.load(std::memory_order_acquire) != 2)  // pairs with the releasing store
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    g_stage.store(3, std::memory_order_release);  // pairs with the check after delete_sync
}

}  // namespace

TEST_F(TimerThread, DeleteSyncWaitsOutARunningCallbackAndDeleteDoesNot)
{
    tovi_timer t{};
    tovi_timer_set(&t, 5, 0, blocking_fire);
    g_stage = 0;
    ASSERT_EQ(tovi_timer_add(&t), 0);
    ASSERT_TRUE(wait_for([] { return g_stage.load() == 1; }, 5000));
    EXPECT_EQ(tovi_timer_delete(&t), 0) << "returns while the callback is blocked";
    EXPECT_EQ(g_stage.load(), 1);
    g_stage.store(2);
    ASSERT_TRUE(wait_for([] { return g_stage.load() == 3; }, 5000));

    g_stage = 0;
    ASSERT_EQ(tovi_timer_add(&t), 0);
    ASSERT_TRUE(wait_for([] { return g_stage.load() == 1; }, 5000));
    std::thread releaser([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        g_stage.store(2);
    });
    EXPECT_EQ(tovi_timer_delete_sync(&t), 0);
    EXPECT_EQ(g_stage.load(), 3) << "delete_sync returned before the callback ended";
    releaser.join();
}

namespace {

tovi_timer g_slow;
std::atomic<int> g_slow_runs{0};
void slow_fire(uint64_t)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(320));
    if (g_slow_runs.fetch_add(1, std::memory_order_release) + 1 < 4)  // publishes the sleep's end
        tovi_timer_modify(&g_slow, 1);
}

}  // namespace

TEST_F(TimerThread, SlowCallbacksAreReportedThreeTimesAndAlwaysToInfra)
{
    LogCapture cap;
    g_slow_runs = 0;
    tovi_timer_set_raw(&g_slow, 1, 0, slow_fire, "slow_owner", "slow.c", 3);
    ASSERT_EQ(tovi_timer_add(&g_slow), 0);
    ASSERT_TRUE(wait_for([] { return g_slow_runs.load() == 4; }, 10000));
    auto infra_lines = [&] {
        size_t n = 0;
        for (const auto &r : cap.records())
            n += r.module == 0 && r.level == 4;
        return n;
    };
    ASSERT_TRUE(wait_for([&] { return infra_lines() >= 4; }, 2000)) << "the last report follows the callback";
    const std::string head = fmt("Timer 0x%llx func 0x%llx added by slow_owner cost ",
                                 static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(&g_slow)),
                                 static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(slow_fire)));
    int warnings = 0;
    int infra = 0;
    for (const auto &r : cap.records()) {
        if (r.level != 4)
            continue;
        unsigned long long ms = 0;
        const std::string &text = r.text;
        if (r.module == 381 && text.rfind(head, 0) == 0) {
            ++warnings;
            EXPECT_EQ(r.func, "run_timer_func");
            ASSERT_EQ(std::sscanf(text.c_str() + head.size(), "%llu ms.", &ms), 1);
        } else if (r.module == 0 && text.rfind("[Infra]" + head, 0) == 0) {
            ++infra;
            ASSERT_EQ(std::sscanf(text.c_str() + head.size() + 7, "%llu ms.", &ms), 1);
        } else {
            ADD_FAILURE() << "unexpected level-4 message: " << text;
        }
        EXPECT_GE(ms, 301u);
        EXPECT_EQ(text.substr(text.size() - 4), " ms.");
    }
    // The limiter's window outlives one run (--gtest_repeat).
    static int runs = 0;
    if (runs++ == 0)
        EXPECT_EQ(warnings, 3) << "the rate limiter lets three through";
    else
        EXPECT_LE(warnings, 3);
    EXPECT_EQ(infra, 4);
}

TEST_F(TimerThread, ConcurrentArmersAndTheTimerThreadKeepTheWheelConsistent)
{
    LogCapture cap;
    constexpr int kThreads = 3;
    constexpr int kPer = 12;
    static tovi_timer timers[kThreads][kPer];
    g_count = 0;
    std::vector<std::thread> threads;
    for (int th = 0; th < kThreads; ++th)
        threads.emplace_back([th] {
            std::mt19937 rng(static_cast<unsigned>(th));
            for (auto &t : timers[th])
                tovi_timer_set(&t, 1, 0, count_fire);
            for (int op = 0; op < 400; ++op) {
                tovi_timer &t = timers[th][rng() % kPer];
                switch (rng() % 4) {
                case 0:
                    tovi_timer_delete(&t);
                    break;
                case 1:
                    tovi_timer_delete_sync(&t);
                    break;
                default:
                    tovi_timer_modify(&t, 1 + rng() % 30);
                }
                if (op % 50 == 0)
                    std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            for (auto &t : timers[th])
                tovi_timer_delete_sync(&t);
        });
    for (auto &t : threads)
        t.join();
    for (auto &row : timers)
        for (auto &t : row)
            EXPECT_EQ(tovi_timer_is_pending(&t), 0);
    EXPECT_TRUE(cap.texts(3).empty()) << cap.texts(3).front();
    for (const auto &text : cap.texts(6))
        EXPECT_NE(text.rfind("List node", 0), 0u) << text;
    EXPECT_GT(g_count.load(), 0);
}
