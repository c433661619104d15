// The lock-free ring against DPDK's rte_ring and Concurrency Kit's ck_ring,
// single object and bulk 8/32, single-producer/consumer and multi.
//
//   pair/<mode>/<n>/<ring>     one thread enqueues n objects and dequeues them
//                              again: the uncontended cost of both sides
//   threads/<mode>/<n>/<ring>  one producer thread and one consumer thread
//   oversubscribed/<n>/<ring>  twice as many producers as processors and as
//                              many consumers, multi-thread rings (ours and
//                              rte_ring, each in-order and with relaxed tail
//                              sync): objects taken per second in a fixed
//                              window, while threads lose their processor
//                              inside the ring
//
// rte_ring is set up with rte_ring_init on memory of our own, which needs no
// EAL. It and ck_ring are header-inline and chosen per mode at compile time;
// ours is inlined from its header too and reads the mode from the ring.
// Every adapter is forced inline, so that no ring pays for a wrapper call.
// ck_ring has no bulk calls, so its bulk figures are n single calls.
// bench-pkg: libdpdk
// bench-link: ck
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <sched.h>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

// ck_ring.h is C: one of its paths returns `false` as a null pointer, which
// C++ refuses; 0 means the same in both places it is used.
#define false 0
#include <ck_ring.h>
#undef false
#include <rte_pause.h>
#include <rte_ring.h>

#include "tovi_queue.h"

namespace {

constexpr unsigned kSlots = 1024;

struct Tovi {
    static constexpr const char *kName = "tovi";
    tovi_ring_t *r;
    explicit Tovi(bool single) : r(tovi_ring_create(kSlots, single ? 3u : 0u)) {}
    ~Tovi() { tovi_ring_delete(&r); }
    template <bool kSingle>
    [[gnu::always_inline]] bool enq(const uint64_t *o, unsigned n)
    {
        return n == 1 ? tovi_ring_enqueue(r, o[0]) == 0 : tovi_ring_enqueue_bulk(r, o, n) == 0;
    }
    template <bool kSingle>
    [[gnu::always_inline]] bool deq(uint64_t *o, unsigned n)
    {
        return n == 1 ? tovi_ring_dequeue(r, o) == 0 : tovi_ring_dequeue_bulk(r, o, n) == 0;
    }
};

// Multi-thread sides with relaxed tail sync; the single calls are those of
// every ring.
struct ToviRts : Tovi {
    static constexpr const char *kName = "tovi_rts";
    explicit ToviRts(bool) : Tovi(false)
    {
        tovi_ring_delete(&r);
        r = tovi_ring_create_rts(kSlots, 0);
    }
};

rte_ring *rte_make(unsigned flags)
{
    const ssize_t bytes = rte_ring_get_memsize(kSlots);
    auto *r = static_cast<rte_ring *>(aligned_alloc(128, (static_cast<size_t>(bytes) + 127) / 128 * 128));
    if (r == nullptr || rte_ring_init(r, "bench", kSlots, flags) != 0)
        abort();
    return r;
}

struct Rte {
    static constexpr const char *kName = "rte_ring";
    rte_ring *r;
    explicit Rte(bool single) : r(rte_make(single ? RING_F_SP_ENQ | RING_F_SC_DEQ : 0)) {}
    ~Rte() { free(r); }
    template <bool kSingle>
    [[gnu::always_inline]] bool enq(const uint64_t *o, unsigned n)
    {
        auto objs = reinterpret_cast<void *const *>(o);
        if (n == 1)
            return (kSingle ? rte_ring_sp_enqueue(r, objs[0]) : rte_ring_mp_enqueue(r, objs[0])) == 0;
        return (kSingle ? rte_ring_sp_enqueue_bulk(r, objs, n, nullptr)
                        : rte_ring_mp_enqueue_bulk(r, objs, n, nullptr)) == n;
    }
    template <bool kSingle>
    [[gnu::always_inline]] bool deq(uint64_t *o, unsigned n)
    {
        auto objs = reinterpret_cast<void **>(o);
        if (n == 1)
            return (kSingle ? rte_ring_sc_dequeue(r, objs) : rte_ring_mc_dequeue(r, objs)) == 0;
        return (kSingle ? rte_ring_sc_dequeue_bulk(r, objs, n, nullptr)
                        : rte_ring_mc_dequeue_bulk(r, objs, n, nullptr)) == n;
    }
};

// rte_ring's relaxed tail sync on both sides, through its generic calls,
// which dispatch on the mode the ring was made with.
struct RteRts {
    static constexpr const char *kName = "rte_ring_rts";
    rte_ring *r;
    explicit RteRts(bool) : r(rte_make(RING_F_MP_RTS_ENQ | RING_F_MC_RTS_DEQ)) {}
    ~RteRts() { free(r); }
    template <bool>
    [[gnu::always_inline]] bool enq(const uint64_t *o, unsigned n)
    {
        auto objs = reinterpret_cast<void *const *>(o);
        return n == 1 ? rte_ring_enqueue(r, objs[0]) == 0 : rte_ring_enqueue_bulk(r, objs, n, nullptr) == n;
    }
    template <bool>
    [[gnu::always_inline]] bool deq(uint64_t *o, unsigned n)
    {
        auto objs = reinterpret_cast<void **>(o);
        return n == 1 ? rte_ring_dequeue(r, objs) == 0 : rte_ring_dequeue_bulk(r, objs, n, nullptr) == n;
    }
};

struct Ck {
    static constexpr const char *kName = "ck_ring";
    ck_ring ring;
    ck_ring_buffer_t buf[kSlots];
    explicit Ck(bool) { ck_ring_init(&ring, kSlots); }
    // A batch is n single calls; one that finds the ring full or empty part
    // way waits for the other thread (never the case in the pair test).
    template <bool kSingle>
    [[gnu::always_inline]] bool enq(const uint64_t *o, unsigned n)
    {
        for (unsigned i = 0; i < n; ++i) {
            auto p = reinterpret_cast<const void *>(o[i]);
            while (!(kSingle ? ck_ring_enqueue_spsc(&ring, buf, p) : ck_ring_enqueue_mpmc(&ring, buf, p)))
                if (i == 0)
                    return false;
        }
        return true;
    }
    template <bool kSingle>
    [[gnu::always_inline]] bool deq(uint64_t *o, unsigned n)
    {
        for (unsigned i = 0; i < n; ++i)
            while (!(kSingle ? ck_ring_dequeue_spsc(&ring, buf, &o[i])
                             : ck_ring_dequeue_mpmc(&ring, buf, &o[i])))
                if (i == 0)
                    return false;
        return true;
    }
};

template <class Ring, bool kSingle, unsigned kN>
void pair(benchmark::State &state)
{
    auto *ring = new Ring(kSingle);
    uint64_t in[kN];
    uint64_t out[kN] = {};
    for (unsigned i = 0; i < kN; ++i)
        in[i] = i + 1;
    for (auto _ : state) {
        if (!ring->template enq<kSingle>(in, kN) || !ring->template deq<kSingle>(out, kN))
            state.SkipWithError("ring refused a batch");
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kN);
    delete ring;
}

// Thread 0 produces, thread 1 consumes, the same number of batches each, so
// the shared ring is empty again between runs.
template <class Ring, bool kSingle, unsigned kN>
void threads(benchmark::State &state)
{
    static Ring *ring = new Ring(kSingle);
    uint64_t objs[kN];
    for (unsigned i = 0; i < kN; ++i)
        objs[i] = i + 1;
    // A side that finds nothing to do spins a little, then lets the other
    // thread have the processor (there may be only two, and both shared).
    unsigned idle = 0;
    auto wait = [&idle] {
        if (++idle % 256 == 0)
            sched_yield();
        else
            rte_pause();
    };
    if (state.thread_index() == 0) {
        for (auto _ : state)
            while (!ring->template enq<kSingle>(objs, kN))
                wait();
    } else {
        for (auto _ : state) {
            while (!ring->template deq<kSingle>(objs, kN))
                wait();
            benchmark::DoNotOptimize(objs);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kN);
}

// A side that finds nothing to do spins a little, then lets another thread
// have the processor.
void idle_wait(unsigned &idle)
{
    if (++idle % 256 == 0)
        sched_yield();
    else
        rte_pause();
}

// Twice as many producers as processors and as many consumers, moving kN
// objects a call, for a fixed window; the figure is the objects taken in it
// per second. Afterwards the producers stop and the consumers drain the ring.
// Long enough that some thread is preempted inside the ring most times.
constexpr int kWindowMs = 1000;

template <class Ring, unsigned kN>
void oversubscribed(benchmark::State &state)
{
    using Clock = std::chrono::steady_clock;
    const unsigned per_side = 2 * std::max(1u, std::thread::hardware_concurrency());
    for (auto _ : state) {
        Ring ring(false);
        std::atomic<bool> stop{false};
        std::atomic<uint64_t> stored{0};
        std::atomic<uint64_t> taken{0};
        std::atomic<unsigned> ready{0};
        std::vector<std::thread> producers;
        std::vector<std::thread> consumers;
        for (unsigned i = 0; i < per_side; ++i) {
            producers.emplace_back([&] {
                uint64_t objs[kN];
                for (unsigned k = 0; k < kN; ++k)
                    objs[k] = k + 1;
                unsigned idle = 0;
                ready.fetch_add(1);
                while (!stop.load(std::memory_order_relaxed)) {
                    if (ring.template enq<false>(objs, kN))
                        stored.fetch_add(kN, std::memory_order_relaxed);
                    else
                        idle_wait(idle);
                }
            });
            consumers.emplace_back([&] {
                uint64_t objs[kN];
                unsigned idle = 0;
                ready.fetch_add(1);
                for (;;) {
                    if (ring.template deq<false>(objs, kN)) {
                        taken.fetch_add(kN, std::memory_order_relaxed);
                        benchmark::DoNotOptimize(objs);
                    } else if (stop.load() && taken.load() == stored.load()) {
                        return;
                    } else {
                        idle_wait(idle);
                    }
                }
            });
        }
        while (ready.load() < 2 * per_side)
            sched_yield();
        const auto start = Clock::now();
        const uint64_t taken_before = taken.load();
        std::this_thread::sleep_for(std::chrono::milliseconds(kWindowMs));
        const uint64_t moved = taken.load() - taken_before;
        const std::chrono::duration<double> window = Clock::now() - start;
        stop = true;
        for (auto &t : producers)
            t.join();
        for (auto &t : consumers)
            t.join();
        state.SetIterationTime(window.count());
        state.counters["objects_per_second"] = static_cast<double>(moved) / window.count();
        state.counters["threads"] = 2 * per_side;
    }
}

template <class Ring, unsigned kN>
void register_oversubscribed()
{
    benchmark::RegisterBenchmark(("oversubscribed/" + std::to_string(kN) + "/" + Ring::kName).c_str(),
                                 oversubscribed<Ring, kN>)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

template <bool kSingle, unsigned kN>
void register_mode()
{
    const std::string mode = kSingle ? "spsc" : "mpmc";
    const std::string suffix = mode + "/" + std::to_string(kN) + "/";
    benchmark::RegisterBenchmark(("pair/" + suffix + Tovi::kName).c_str(), pair<Tovi, kSingle, kN>);
    benchmark::RegisterBenchmark(("pair/" + suffix + Rte::kName).c_str(), pair<Rte, kSingle, kN>);
    benchmark::RegisterBenchmark(("pair/" + suffix + Ck::kName).c_str(), pair<Ck, kSingle, kN>);
    if constexpr (!kSingle) {
        benchmark::RegisterBenchmark(("pair/" + suffix + ToviRts::kName).c_str(), pair<ToviRts, false, kN>);
        benchmark::RegisterBenchmark(("pair/" + suffix + RteRts::kName).c_str(), pair<RteRts, false, kN>);
    }
    benchmark::RegisterBenchmark(("threads/" + suffix + Tovi::kName).c_str(), threads<Tovi, kSingle, kN>)
        ->Threads(2)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("threads/" + suffix + Rte::kName).c_str(), threads<Rte, kSingle, kN>)
        ->Threads(2)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("threads/" + suffix + Ck::kName).c_str(), threads<Ck, kSingle, kN>)
        ->Threads(2)
        ->UseRealTime();
}

const int registered = [] {
    register_mode<true, 1>();
    register_mode<true, 8>();
    register_mode<true, 32>();
    register_mode<false, 1>();
    register_mode<false, 8>();
    register_mode<false, 32>();
    register_oversubscribed<Tovi, 1>();
    register_oversubscribed<ToviRts, 1>();
    register_oversubscribed<Rte, 1>();
    register_oversubscribed<RteRts, 1>();
    register_oversubscribed<Tovi, 8>();
    register_oversubscribed<ToviRts, 8>();
    register_oversubscribed<Rte, 8>();
    register_oversubscribed<RteRts, 8>();
    return 0;
}();

}  // namespace
