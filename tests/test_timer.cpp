// Timer lists: the wheel driven with an explicit clock, and the real thread.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <tuple>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.hpp"
#include "race.hpp"
#include "tovi_time.h"
#include "tovi_timer.h"
#include "tovi_timer.hpp"

namespace {

using namespace std::chrono_literals;
using tovi::test::eventually;
using tovi::test::LogCapture;
using tovi::timer::TimerRoot;
using Texts = std::vector<std::string>;

constexpr uint64_t kDay = 86400000;

template <class... Args>
std::string fmt(const char *f, Args... args)
{
    char buf[512];
    std::snprintf(buf, sizeof buf, f, args...);
    return buf;
}

void noop(uint64_t) {}


// Where a timer is filed: level and slot, or level -1.
std::pair<int, uint64_t> find(TimerRoot &root, tovi_timer *t)
{
    for (uint32_t level = 0; level < tovi::timer::kLevels; ++level) {
        tovi_list_head_s *heads = tovi::timer::level_heads(root, level);
        for (uint32_t i = 0; i < tovi::timer::kSlotCount[level]; ++i)
            for (tovi_list_head_s *n = heads[i].next; n != &heads[i]; n = n->next)
                if (n == &t->entry)
                    return {static_cast<int>(level), i};
    }
    return {-1, 0};
}

// Fired timers of driven roots: (data, the millisecond being processed), unknown
// when the last pending one fires (the base has jumped to the pass's "now").
constexpr uint64_t kUnknownMs = UINT64_MAX;
TimerRoot *g_driven = nullptr;
std::vector<std::pair<uint64_t, uint64_t>> g_fired;

void record_fire(uint64_t data)
{
    g_fired.emplace_back(data, g_driven->pendingCount > 0 ? g_driven->timerMs - 1 : kUnknownMs);
}

// A private root driven with an explicit "now", whose timers record_fire notes.
auto driven(uint64_t now)
{
    auto fini = [](TimerRoot *r) { tovi::timer::fini_timer_root(*r), delete r; };
    std::unique_ptr<TimerRoot, decltype(fini)> root(new TimerRoot(), fini);
    tovi::timer::root_reset(*root, now);
    EXPECT_EQ(tovi::timer::init_timer_root(*root), 0);
    g_driven = root.get();
    g_fired.clear();
    return root;
}

void arm_at(TimerRoot &root, tovi_timer &t, uint64_t data, uint64_t timeout, uint64_t now)
{
    ASSERT_EQ(tovi_timer_set_raw(&t, timeout, data, record_fire, "arm_at", "test_timer.cpp", 1), 0);
    ASSERT_EQ(tovi::timer::arm(root, &t, timeout, now), 0);
}

// ---- callbacks of the real timer thread ----
std::atomic<int> g_stage{0};  // 1 callback running, 2 released, 3 callback done
std::atomic<uint64_t> g_fired_at{0};
void blocking_fire(uint64_t)
{
    g_fired_at = tovi_time_getmillisec();
    g_stage.store(1, std::memory_order_release);  // pairs with the test thread's wait
    while (g_stage.load(std::memory_order_acquire) != 2)  // pairs with the releasing store
        std::this_thread::sleep_for(1ms);
    g_stage.store(3, std::memory_order_release);  // pairs with the check after delete_sync
}

tovi_timer g_slow;
std::atomic<int> g_slow_runs{0};
void slow_fire(uint64_t)
{
    std::this_thread::sleep_for(320ms);
    if (g_slow_runs.fetch_add(1, std::memory_order_release) + 1 < 4)  // publishes the sleep's end
        tovi_timer_modify(&g_slow, 1);  // a callback may re-arm its own timer
}

std::atomic<int> g_count{0};
void count_fire(uint64_t)
{
    g_count.fetch_add(1, std::memory_order_relaxed);  // only counted
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
    EXPECT_EQ(tovi_timer_add(&t) + tovi_timer_delete(&t) + tovi_timer_delete_sync(&t), -3);
    EXPECT_EQ(cap.count("tovi timer is not inited."), 3u);
    EXPECT_EQ(tovi_timer_list_pending(nullptr, 0, nullptr), -1);
    EXPECT_EQ(tovi_timer_module_init() + tovi_timer_module_init(), 0) << "a second start changes nothing";
    EXPECT_EQ(tovi_timer_list_pending(nullptr, 0, nullptr), 0);
}

TEST(TimerWheel, FilesByDistanceAndBeyondSixtyDaysAtTheFarEnd)
{
    const uint64_t base = 7 * kDay + 123456789;  // not aligned to any level
    const uint64_t far = (base + 60 * kDay) / 216000000 % 24, hour = 3600000, top = 216000000;
    auto root = driven(base);
    const std::tuple<uint64_t, int, uint64_t> cases[] = {  // distance, level, slot
        {1, 0, (base + 1) % 1000}, {999, 0, (base + 999) % 1000}, {1000, 1, (base + 1000) / 1000 % 60},
        {59999, 1, (base + 59999) / 1000 % 60}, {60000, 2, (base + 60000) / 60000 % 60},
        {hour - 1, 2, (base + hour - 1) / 60000 % 60}, {hour, 3, (base + hour) / hour % 60},
        {top - 1, 3, (base + top - 1) / hour % 60}, {top, 4, (base + top) / top % 24}, {60 * kDay, 4, far},
        {60 * kDay + 1, 4, far}, {400 * kDay, 4, far},
        {60 * kDay + top - (base + 60 * kDay) % top, 4, far},  // in the next top slot
    };
    std::vector<tovi_timer> timers(std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto [delta, level, slot] = cases[i];
        arm_at(*root, timers[i], i, delta, base);
        EXPECT_EQ(find(*root, &timers[i]), std::make_pair(level, slot)) << delta;
        EXPECT_EQ(timers[i].expirTime, base + delta) << "the record keeps its real expiry";
    }
    EXPECT_EQ(root->pendingCount, std::size(cases));
    tovi_timer late{}, same[2]{};
    tovi_timer_set_raw(&late, 1, 99, record_fire, "f", "x", 1);
    late.expirTime = base - 5;  // already due: filed in the slot about to be processed, fires first
    tovi::timer::attachTimerToList(*root, &late);
    arm_at(*root, same[0], 200, 1, base);  // due with cases[0]: timers of one millisecond fire in attach order
    arm_at(*root, same[1], 100, 1, base);
    tovi::timer::run_timers(*root, base + 1);
    EXPECT_EQ(g_fired, (decltype(g_fired){{99, base}, {0, base + 1}, {200, base + 1}, {100, base + 1}}));
}

TEST(TimerWheel, ModelOfArmModifyDeleteOverHoursOfWheelTime)
{
    const uint64_t start = 5 * kDay + 777;
    auto root = driven(start);
    std::vector<tovi_timer> timers(64);
    std::map<uint64_t, uint64_t> expect;  // data -> expiry of pending timers
    std::mt19937_64 rng(42);
    for (size_t i = 0; i < timers.size(); ++i)
        tovi_timer_set_raw(&timers[i], 1, i, record_fire, "model", "x", 1);
    for (uint64_t now = start; now < start + 90 * 60000;) {
        for (int op = 0; op < 4; ++op) {
            const size_t i = rng() % timers.size();
            // Log-uniform from 1 ms to about 2 hours, so that every level is used.
            const auto to = static_cast<uint64_t>(std::exp2(std::uniform_real_distribution<double>(0, 22.8)(rng))) + 1;
            if (rng() % 5 == 0) {
                ASSERT_EQ(tovi::timer::remove(*root, &timers[i], rng() % 2 == 0, now), 0);
                expect.erase(i);
            } else {
                ASSERT_EQ(tovi::timer::arm(*root, &timers[i], to, now), 0);
                expect[i] = now + to;
            }
        }
        ASSERT_EQ(root->pendingCount, expect.size());
        const uint64_t prev = now;
        now += 1 + rng() % (rng() % 8 == 0 ? 300000 : 2000);
        g_fired.clear();
        tovi::timer::run_timers(*root, now);
        uint64_t last_ms = 0;
        for (auto &[data, ms] : g_fired) {
            auto it = expect.find(data);
            ASSERT_NE(it, expect.end()) << "fired a timer that is not pending: " << data;
            EXPECT_TRUE(it->second > prev && it->second <= now && !tovi_timer_is_pending(&timers[data])) << data;
            EXPECT_TRUE(ms == kUnknownMs || (ms == it->second && ms >= last_ms)) << "late or out of order: " << data;
            last_ms = ms == kUnknownMs ? last_ms : ms;
            expect.erase(it);
        }
        for (auto &[data, e] : expect)
            ASSERT_TRUE(e > now && tovi_timer_is_pending(&timers[data])) << "timer " << data << " due but not fired";
        EXPECT_TRUE(root->timerMs == now + 1 || (expect.empty() && root->timerMs == now)) << "empty: jumps to now";
    }
}

// The unlink reports a neighbour that does not point back, shows its timer
// (both lines, the infrastructure one whatever the level), and goes ahead.
TEST(TimerWheel, BrokenLinksAreReportedAndTheUnlinkGoesAhead)
{
    auto root = driven(1000);
    tovi_timer a{}, b{}, stray{};
    arm_at(*root, a, 1, 10, 1000);
    arm_at(*root, b, 2, 10, 1000);
    tovi_timer_set_raw(&stray, 7, 9, noop, "owner_fn", "owner.c", 42);
    stray.expirTime = 5;
    stray.isp = 17;
    stray.flags = 0x81;
    void *s = &stray.entry;
    stray.entry.next = stray.entry.prev = &stray.entry;
    a.entry.prev = &stray.entry;
    LogCapture cap;
    do_tovi_spinlock_lock(&root->lock.lock, "lockTimerRoot", __LINE__);
    tovi::timer::detachTimerFromList(*root, &a, true, 1000);
    do_tovi_spinlock_unlock(&root->lock.lock, "unlockTimerRoot", __LINE__);
    EXPECT_EQ(cap.texts(3), Texts{fmt("Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)", s, s, s,
                                      static_cast<void *>(&a.entry), static_cast<void *>(&b.entry), s)});
    const std::string body = fmt("Timer entry:%p, expirTime:5, timeOut:7, data:9, func:%p         isp:11 "
                                 "flags:ffffff81 in funcName:owner_fn file:owner.c line:42",
                                 s, reinterpret_cast<void *>(noop));
    EXPECT_EQ(cap.count("[Infra]" + body), 1u);
    EXPECT_EQ(cap.count(body), 1u);
    EXPECT_EQ(a.entry.next, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a.entry.prev), 0x200200u);
    EXPECT_EQ(b.entry.prev, &stray.entry) << "unlinked as the links say, not repaired";
    cap.clear();
    cap.set_threshold(3);
    tovi_timer_show(&stray.entry);
    EXPECT_EQ(cap.texts(), Texts{"[Infra]" + body});
}

// ---- The real timer thread ----

class TimerThread : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(tovi_timer_module_init(), 0); }
};

// Each row is one call, its result and the error it logs (none for nullptr).
TEST_F(TimerThread, ArgumentChecksWordForWord)
{
    LogCapture cap;
    tovi_timer t, zero{}, hr{};
    std::memset(&t, 0x5a, sizeof t);
    t.entry.next = nullptr;
    tovi_timer_init(&zero);
    tovi_timer_set(&hr, 1000, 0, noop);
    hr.flags = TOVI_TIMER_FLAG_HR;  // goes to the high-resolution timers, which nothing has started
    const char *null = "Input timer is null.", *para = "Input para is invalid.", *pending = "The timer is pending.",
               *uninit = "Input timer is null or not initiated.", *no_hr = "tovi hr timer is not inited.";
    const std::tuple<std::function<int()>, int, const char *> rows[] = {
        {[] { return tovi_timer_init(nullptr); }, -1, null},
        {[&] { return tovi_timer_set_raw(&t, 5, 6, nullptr, "f", "x", 1); }, -1, para},
        {[] { return tovi_timer_set_raw(nullptr, 5, 6, noop, "f", "x", 1); }, -1, para},
        {[&] { return tovi_timer_set_raw(&t, 5, 6, noop, "f", "x", 1) + t.flags + int(t.expirTime); }, 0, nullptr},
        {[] { return tovi_timer_add(nullptr); }, -1, uninit},
        {[&] { return tovi_timer_add(&zero); }, -1, uninit},
        {[&] { return tovi_timer_set(&t, 0, 0, noop), tovi_timer_add(&t); }, -1, para},  // a zero time-out
        {[&] { return tovi_timer_modify(&t, 0); }, -1, para},
        {[] { return tovi_timer_modify(nullptr, 5); }, -1, para},
        {[] { return tovi_timer_delete(nullptr); }, -1, null},
        {[] { return tovi_timer_delete_sync(nullptr); }, -1, null},
        {[] { return tovi_timer_is_pending(nullptr); }, 0, null},
        {[&] { return tovi_timer_delete(&t); }, 0, nullptr},  // an idle timer
        {[&] { return tovi_timer_set(&t, 60000, 0, noop), tovi_timer_add(&t); }, 0, nullptr},
        {[&] { return tovi_timer_is_pending(&t); }, 1, nullptr},
        {[&] { return tovi_timer_add(&t); }, -1, pending},
        {[&] { return tovi_timer_set_raw(&t, 1, 0, noop, "f", "x", 1); }, -1, pending},
        {[&] { return tovi_timer_modify(&t, 70000); }, 0, nullptr},  // re-arms a pending timer
        {[&] { return tovi_timer_destroy(&t) + tovi_timer_is_pending(&t); }, 0, nullptr},
        {[&] { return tovi_timer_modify(&hr, 1000); }, -1, no_hr},
        {[&] { return tovi_timer_delete(&hr); }, -1, no_hr},
        {[&] { return tovi_timer_add(&hr) + hr.flags; }, 0, nullptr},  // add makes it a wheel timer
        {[&] { return tovi_timer_delete(&hr); }, 0, nullptr},
    };
    int row = 0;
    for (const auto &[call, rc, msg] : rows) {
        cap.clear();
        EXPECT_EQ(call(), rc) << "row " << row;
        EXPECT_EQ(cap.texts(3), msg ? Texts{msg} : Texts{}) << "row " << row++;
    }
}

// The thread fires on time; delete_sync waits out a running callback, delete does not.
TEST_F(TimerThread, FiresOnTimeAndDeleteSyncWaitsOutARunningCallback)
{
    tovi_timer t{};
    tovi_timer_set(&t, 5, 0, blocking_fire);
    for (bool sync : {false, true}) {
        g_stage = 0;
        ASSERT_EQ(tovi_timer_add(&t), 0);
        ASSERT_TRUE(eventually([] { return g_stage.load() == 1; }));
        EXPECT_TRUE(g_fired_at >= t.expirTime && g_fired_at <= t.expirTime + 500) << g_fired_at << " " << t.expirTime;
        std::thread releaser([] {
            std::this_thread::sleep_for(100ms);
            g_stage.store(2);
        });
        EXPECT_EQ(sync ? tovi_timer_delete_sync(&t) : tovi_timer_delete(&t), 0);
        EXPECT_EQ(g_stage.load(), sync ? 3 : 1) << (sync ? "returned before the callback ended" : "waited");
        releaser.join();
        ASSERT_TRUE(eventually([] { return g_stage.load() == 3; }));
    }
}

// Each slow run is reported to the infrastructure log; the module's own
// warning goes through the rate limiter, which lets three through.
TEST_F(TimerThread, SlowCallbacksAreReportedThreeTimesAndAlwaysToInfra)
{
    LogCapture cap;
    g_slow_runs = 0;
    tovi_timer_set_raw(&g_slow, 1, 0, slow_fire, "slow_owner", "slow.c", 3);
    ASSERT_EQ(tovi_timer_add(&g_slow), 0);
    const std::string head = fmt("Timer 0x%llx func 0x%llx added by slow_owner cost ",
                                 static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(&g_slow)),
                                 static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(slow_fire)));
    int n[2];  // warnings, infrastructure lines
    ASSERT_TRUE(eventually([&] {  // the last report follows the last callback
        n[0] = n[1] = 0;
        for (const auto &r : cap.records()) {
            unsigned long long ms = 0;
            const bool infra = r.module == 0 && r.text.rfind("[Infra]" + head, 0) == 0;
            if (r.level != 4)
                continue;
            EXPECT_TRUE(infra || (r.module == 381 && r.text.rfind(head, 0) == 0 && r.func == "run_timer_func")) << r.text;
            ++n[infra];
            EXPECT_EQ(std::sscanf(r.text.c_str() + head.size() + (infra ? 7 : 0), "%llu ms.", &ms), 1);
            EXPECT_TRUE(ms >= 301u && r.text.substr(r.text.size() - 4) == " ms.") << r.text;
        }
        return g_slow_runs.load() == 4 && n[1] >= 4;
    }));
    static int runs = 0;  // the limiter's window outlives one run (--gtest_repeat)
    EXPECT_TRUE(runs++ == 0 ? n[0] == 3 : n[0] <= 3) << n[0] << " warnings, the rate limiter lets three through";
    EXPECT_EQ(n[1], 4);
}

TEST_F(TimerThread, ConcurrentArmersAndTheTimerThreadKeepTheWheelConsistent)
{
    LogCapture cap;
    static tovi_timer timers[3][12];
    g_count = 0;
    std::vector<std::thread> threads;
    for (auto &row : timers)
        threads.emplace_back([&row, seed = threads.size()] {
            std::mt19937 rng(static_cast<unsigned>(seed));
            for (auto &t : row)
                tovi_timer_set(&t, 1, 0, count_fire);
            for (int op = 0; op < 400; ++op) {
                tovi_timer &t = row[rng() % std::size(row)];
                const unsigned what = rng() % 4;
                EXPECT_EQ(what > 1 ? tovi_timer_modify(&t, 1 + rng() % 30)
                                   : (what == 0 ? tovi_timer_delete : tovi_timer_delete_sync)(&t),
                          0);
                if (op % 50 == 0)
                    std::this_thread::sleep_for(2ms);
            }
            for (auto &t : row)
                EXPECT_EQ(tovi_timer_delete_sync(&t) + tovi_timer_is_pending(&t), 0);
        });
    for (auto &t : threads)
        t.join();
    EXPECT_TRUE(cap.texts(3).empty()) << cap.texts(3).front();
    for (const auto &text : cap.texts(6))
        EXPECT_NE(text.rfind("List node", 0), 0u) << text;
    EXPECT_GT(g_count.load(), 0);
}
