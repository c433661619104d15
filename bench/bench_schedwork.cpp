// Work dispatch: latency from queueing a work to its handler's start (p50
// and p99 as counters) and throughput with one and two producers, for the
// library's work pool, libuv's thread pool (uv_queue_work, a round trip
// through its loop) and GLib's GThreadPool. Also the lateness of the
// high-resolution timers at 100 us and 1 ms.
// bench-pkg: libuv
// bench-pkg: glib-2.0
#include <benchmark/benchmark.h>
#include <glib.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <thread>
#include <vector>

#include "tovi_hr_timer.h"
#include "tovi_schedwork.h"

namespace {

uint64_t now_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

void report(benchmark::State &state, std::vector<uint64_t> &lat)
{
    if (lat.empty())
        return;
    std::sort(lat.begin(), lat.end());
    state.counters["p50_us"] = static_cast<double>(lat[lat.size() / 2]) / 1000.0;
    state.counters["p99_us"] = static_cast<double>(lat[lat.size() * 99 / 100]) / 1000.0;
}

// ---- Latency: one work at a time ----

std::atomic<uint64_t> g_started{0};

void tovi_stamp(tovi_sched_work *)
{
    g_started.store(now_ns(), std::memory_order_release);
}

void BM_Latency_ToviSchedWork(benchmark::State &state)
{
    sched_work_init();
    tovi_sched_work w{};
    tovi_sched_init_work(&w, tovi_stamp, nullptr);
    std::vector<uint64_t> lat;
    for (auto _ : state) {
        g_started.store(0);
        const uint64_t t0 = now_ns();
        tovi_sched_add_work(&w);
        uint64_t t1;
        while ((t1 = g_started.load(std::memory_order_acquire)) == 0) {
        }
        lat.push_back(t1 - t0);
        while (w.entry.next != reinterpret_cast<tovi_list_head_s *>(0x100100)) {
        }
    }
    report(state, lat);
}
BENCHMARK(BM_Latency_ToviSchedWork)->Iterations(3000)->UseRealTime();

void uv_stamp(uv_work_t *)
{
    g_started.store(now_ns(), std::memory_order_release);
}
void uv_after(uv_work_t *, int) {}

void BM_Latency_LibuvQueueWork(benchmark::State &state)
{
    uv_loop_t loop;
    uv_loop_init(&loop);
    uv_work_t req{};
    std::vector<uint64_t> lat;
    for (auto _ : state) {
        g_started.store(0);
        const uint64_t t0 = now_ns();
        uv_queue_work(&loop, &req, uv_stamp, uv_after);
        uv_run(&loop, UV_RUN_DEFAULT);  // returns after the round trip
        lat.push_back(g_started.load() - t0);
    }
    uv_loop_close(&loop);
    report(state, lat);
}
BENCHMARK(BM_Latency_LibuvQueueWork)->Iterations(3000)->UseRealTime();

void glib_stamp(gpointer, gpointer)
{
    g_started.store(now_ns(), std::memory_order_release);
}

void BM_Latency_GThreadPool(benchmark::State &state)
{
    GThreadPool *pool = g_thread_pool_new(glib_stamp, nullptr, 4, FALSE, nullptr);
    std::vector<uint64_t> lat;
    for (auto _ : state) {
        g_started.store(0);
        const uint64_t t0 = now_ns();
        g_thread_pool_push(pool, GINT_TO_POINTER(1), nullptr);
        uint64_t t1;
        while ((t1 = g_started.load(std::memory_order_acquire)) == 0) {
        }
        lat.push_back(t1 - t0);
    }
    g_thread_pool_free(pool, FALSE, TRUE);
    report(state, lat);
}
BENCHMARK(BM_Latency_GThreadPool)->Iterations(3000)->UseRealTime();

// ---- Throughput: producers queue a batch, the handlers count ----

constexpr unsigned kBatch = 2000;
std::atomic<unsigned> g_done{0};

void tovi_count(tovi_sched_work *w)
{
    static_cast<std::atomic<bool> *>(w->pData)->store(false, std::memory_order_release);
    g_done.fetch_add(1, std::memory_order_relaxed);
}

void BM_Throughput_ToviSchedWork(benchmark::State &state)
{
    sched_work_init();
    const unsigned producers = static_cast<unsigned>(state.range(0));
    struct Slot {
        tovi_sched_work work;
        std::atomic<bool> queued{false};
    };
    std::vector<std::vector<Slot>> slots(producers);
    for (auto &v : slots) {
        v = std::vector<Slot>(256);
        for (auto &s : v)
            tovi_sched_init_work(&s.work, tovi_count, &s.queued);
    }
    for (auto _ : state) {
        g_done.store(0);
        std::vector<std::thread> threads;
        for (unsigned p = 0; p < producers; ++p)
            threads.emplace_back([&, p] {
                for (unsigned i = 0; i < kBatch / producers; ++i) {
                    auto &s = slots[p][i % 256];
                    while (s.queued.load(std::memory_order_acquire))
                        std::this_thread::yield();
                    s.queued.store(true, std::memory_order_relaxed);
                    tovi_sched_add_work(&s.work);
                }
            });
        for (auto &t : threads)
            t.join();
        while (g_done.load() < kBatch)
            std::this_thread::yield();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}
BENCHMARK(BM_Throughput_ToviSchedWork)->Arg(1)->Arg(2)->Iterations(20)->UseRealTime();

void glib_count(gpointer, gpointer)
{
    g_done.fetch_add(1, std::memory_order_relaxed);
}

void BM_Throughput_GThreadPool(benchmark::State &state)
{
    const unsigned producers = static_cast<unsigned>(state.range(0));
    GThreadPool *pool = g_thread_pool_new(glib_count, nullptr, 8, FALSE, nullptr);
    for (auto _ : state) {
        g_done.store(0);
        std::vector<std::thread> threads;
        for (unsigned p = 0; p < producers; ++p)
            threads.emplace_back([&] {
                for (unsigned i = 0; i < kBatch / producers; ++i)
                    g_thread_pool_push(pool, GINT_TO_POINTER(1), nullptr);
            });
        for (auto &t : threads)
            t.join();
        while (g_done.load() < kBatch)
            std::this_thread::yield();
    }
    g_thread_pool_free(pool, FALSE, TRUE);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}
BENCHMARK(BM_Throughput_GThreadPool)->Arg(1)->Arg(2)->Iterations(20)->UseRealTime();

void uv_count(uv_work_t *)
{
    g_done.fetch_add(1, std::memory_order_relaxed);
}

// libuv queues only from its loop's thread: one producer.
void BM_Throughput_LibuvQueueWork(benchmark::State &state)
{
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<uv_work_t> reqs(kBatch);
    for (auto _ : state) {
        g_done.store(0);
        for (auto &r : reqs)
            uv_queue_work(&loop, &r, uv_count, uv_after);
        uv_run(&loop, UV_RUN_DEFAULT);
    }
    uv_loop_close(&loop);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}
BENCHMARK(BM_Throughput_LibuvQueueWork)->Arg(1)->Iterations(20)->UseRealTime();

// ---- High-resolution timer lateness (expiry to callback) ----

std::atomic<uint64_t> g_fired{0};
void hr_fired(uint64_t)
{
    g_fired.store(now_ns(), std::memory_order_release);
}

void BM_HrTimerLateness(benchmark::State &state)
{
    const uint64_t delay = static_cast<uint64_t>(state.range(0));
    tovi_timer t{};
    tovi_timer_set(&t, delay, 0, hr_fired);
    std::vector<uint64_t> late;
    for (auto _ : state) {
        g_fired.store(0);
        const uint64_t t0 = now_ns();
        tovi_timer_add_ns(&t);
        uint64_t t1;
        while ((t1 = g_fired.load(std::memory_order_acquire)) == 0) {
        }
        late.push_back(t1 - t0 > delay ? t1 - t0 - delay : 0);
        tovi_timer_delete_sync(&t);
    }
    report(state, late);
}
BENCHMARK(BM_HrTimerLateness)->Arg(100000)->Arg(1000000)->Iterations(1000)->UseRealTime();

}  // namespace
