// The lock-free ring against DPDK's rte_ring and Concurrency Kit's ck_ring,
// single object and bulk 8/32, single-producer/consumer and multi.
//
//   pair/<mode>/<n>/<ring>     one thread enqueues n objects and dequeues them
//                              again: the uncontended cost of both sides
//   threads/<mode>/<n>/<ring>  one producer thread and one consumer thread
//
// rte_ring is set up with rte_ring_init on memory of our own, which needs no
// EAL. It and ck_ring are header-inline and chosen per mode at compile time;
// ours is an exported call that reads the mode from the ring. ck_ring has no
// bulk calls, so its bulk figures are n single calls.
// bench-pkg: libdpdk
// bench-link: ck
#include <benchmark/benchmark.h>

#include <cstdint>
#include <sched.h>
#include <cstdlib>
#include <string>

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
    bool enq(const uint64_t *o, unsigned n)
    {
        return n == 1 ? tovi_ring_enqueue(r, o[0]) == 0 : tovi_ring_enqueue_bulk(r, o, n) == 0;
    }
    template <bool kSingle>
    bool deq(uint64_t *o, unsigned n)
    {
        return n == 1 ? tovi_ring_dequeue(r, o) == 0 : tovi_ring_dequeue_bulk(r, o, n) == 0;
    }
};

struct Rte {
    static constexpr const char *kName = "rte_ring";
    rte_ring *r;
    explicit Rte(bool single)
    {
        const ssize_t bytes = rte_ring_get_memsize(kSlots);
        r = static_cast<rte_ring *>(aligned_alloc(128, (static_cast<size_t>(bytes) + 127) / 128 * 128));
        if (r == nullptr ||
            rte_ring_init(r, "bench", kSlots, single ? RING_F_SP_ENQ | RING_F_SC_DEQ : 0) != 0)
            abort();
    }
    ~Rte() { free(r); }
    template <bool kSingle>
    bool enq(const uint64_t *o, unsigned n)
    {
        auto objs = reinterpret_cast<void *const *>(o);
        if (n == 1)
            return (kSingle ? rte_ring_sp_enqueue(r, objs[0]) : rte_ring_mp_enqueue(r, objs[0])) == 0;
        return (kSingle ? rte_ring_sp_enqueue_bulk(r, objs, n, nullptr)
                        : rte_ring_mp_enqueue_bulk(r, objs, n, nullptr)) == n;
    }
    template <bool kSingle>
    bool deq(uint64_t *o, unsigned n)
    {
        auto objs = reinterpret_cast<void **>(o);
        if (n == 1)
            return (kSingle ? rte_ring_sc_dequeue(r, objs) : rte_ring_mc_dequeue(r, objs)) == 0;
        return (kSingle ? rte_ring_sc_dequeue_bulk(r, objs, n, nullptr)
                        : rte_ring_mc_dequeue_bulk(r, objs, n, nullptr)) == n;
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
    bool enq(const uint64_t *o, unsigned n)
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
    bool deq(uint64_t *o, unsigned n)
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

template <bool kSingle, unsigned kN>
void register_mode()
{
    const std::string mode = kSingle ? "spsc" : "mpmc";
    const std::string suffix = mode + "/" + std::to_string(kN) + "/";
    benchmark::RegisterBenchmark(("pair/" + suffix + Tovi::kName).c_str(), pair<Tovi, kSingle, kN>);
    benchmark::RegisterBenchmark(("pair/" + suffix + Rte::kName).c_str(), pair<Rte, kSingle, kN>);
    benchmark::RegisterBenchmark(("pair/" + suffix + Ck::kName).c_str(), pair<Ck, kSingle, kN>);
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
    return 0;
}();

}  // namespace
