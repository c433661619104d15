// Timer lists against libuv's timers.
//
//   arm_delete/<n>/<impl>  arm one timer and delete it again while n others
//                          (1 k, 100 k, 1 M) are armed with time-outs spread
//                          from a minute to a day. libuv's loop is never run:
//                          uv_timer_start/uv_timer_stop are the heap's cost.
//   lateness               10 k timers spread over 2 s on the timer thread;
//                          how long after its millisecond each one fires
//                          (p50, p99, max in microseconds).
// bench-pkg: libuv
#include <benchmark/benchmark.h>

#include <uv.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "tovi_time.h"
#include "tovi_timer.h"

namespace {

constexpr uint64_t kMinute = 60000;
constexpr uint64_t kDay = 86400000;

// Spread time-outs: the same sequence for both implementations.
uint64_t spread_timeout(uint64_t i)
{
    return kMinute + (i * 2654435761u) % kDay;
}

// Time-outs of the probe timer: from 1 s to about 17 min.
uint64_t probe_timeout(uint64_t i)
{
    return 1000 + (i & 1023) * 997;
}

void noop_tovi(uint64_t) {}
void noop_uv(uv_timer_t *) {}

void BM_arm_delete_tovi(benchmark::State &state)
{
    if (tovi_timer_module_init() != 0) {
        state.SkipWithError("timer module did not start");
        return;
    }
    const auto n = static_cast<size_t>(state.range(0));
    std::vector<tovi_timer> armed(n);
    for (size_t i = 0; i < n; ++i) {
        tovi_timer_set(&armed[i], spread_timeout(i), i, noop_tovi);
        tovi_timer_add(&armed[i]);
    }
    tovi_timer probe{};
    tovi_timer_set(&probe, 1000, 0, noop_tovi);
    uint64_t i = 0;
    for (auto _ : state) {
        tovi_timer_modify(&probe, probe_timeout(i++));
        tovi_timer_delete(&probe);
    }
    for (auto &t : armed)
        tovi_timer_delete(&t);
    state.SetItemsProcessed(state.iterations());
}

void close_handle(uv_handle_t *h)
{
    (void)h;
}

void BM_arm_delete_libuv(benchmark::State &state)
{
    const auto n = static_cast<size_t>(state.range(0));
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<uv_timer_t> armed(n);
    for (size_t i = 0; i < n; ++i) {
        uv_timer_init(&loop, &armed[i]);
        uv_timer_start(&armed[i], noop_uv, spread_timeout(i), 0);
    }
    uv_timer_t probe;
    uv_timer_init(&loop, &probe);
    uint64_t i = 0;
    for (auto _ : state) {
        uv_timer_start(&probe, noop_uv, probe_timeout(i++), 0);
        uv_timer_stop(&probe);
    }
    for (auto &t : armed)
        uv_close(reinterpret_cast<uv_handle_t *>(&t), close_handle);
    uv_close(reinterpret_cast<uv_handle_t *>(&probe), close_handle);
    uv_run(&loop, UV_RUN_DEFAULT);  // only the close callbacks
    uv_loop_close(&loop);
    state.SetItemsProcessed(state.iterations());
}

// ---- Firing lateness ----

constexpr size_t kLateTimers = 10000;
constexpr uint64_t kSpreadMs = 2000;

struct Late {
    tovi_timer timer;
    uint64_t fired_ns;
};
std::vector<Late> g_late(kLateTimers);
std::atomic<size_t> g_late_fired{0};

void late_fire(uint64_t i)
{
    g_late[i].fired_ns = tovi_time_getnanosec();
    g_late_fired.fetch_add(1, std::memory_order_release);  // publishes fired_ns to the bench thread
}

void BM_lateness(benchmark::State &state)
{
    if (tovi_timer_module_init() != 0) {
        state.SkipWithError("timer module did not start");
        return;
    }
    std::vector<double> late_us;
    for (auto _ : state) {
        g_late_fired.store(0);
        for (size_t i = 0; i < kLateTimers; ++i) {
            tovi_timer_set(&g_late[i].timer, 1 + i * kSpreadMs / kLateTimers, i, late_fire);
            tovi_timer_add(&g_late[i].timer);
        }
        while (g_late_fired.load(std::memory_order_acquire) < kLateTimers)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        state.PauseTiming();
        for (const Late &l : g_late) {
            // The target is the start of the expiry millisecond on the
            // same clock the wheel reads.
            const double target_ns = static_cast<double>(l.timer.expirTime) * 1e6;
            late_us.push_back((static_cast<double>(l.fired_ns) - target_ns) / 1e3);
        }
        state.ResumeTiming();
    }
    std::sort(late_us.begin(), late_us.end());
    auto pct = [&](double p) { return late_us[static_cast<size_t>(p * static_cast<double>(late_us.size() - 1))]; };
    state.counters["p50_us"] = pct(0.50);
    state.counters["p99_us"] = pct(0.99);
    state.counters["max_us"] = late_us.back();
    state.counters["min_us"] = late_us.front();
}

}  // namespace

BENCHMARK(BM_arm_delete_tovi)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(BM_arm_delete_libuv)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(BM_lateness)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
