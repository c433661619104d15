// The lock-free ring under several producers and consumers: nothing lost,
// nothing duplicated, and each producer's objects reach every consumer in the
// order they were stored. The indexes start just short of the 32-bit wrap.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <numeric>
#include <pthread.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "child.hpp"
#include "tovi_queue.h"
#include "tovi_queue.hpp"
#include "tovi_sched.h"

// Under the thread checker the window between reserving and publishing grows,
// and a thread preempted there holds up its whole side: fewer objects.
#if defined(__SANITIZE_THREAD__)
constexpr uint32_t kPerProducer = 10000;
#else
constexpr uint32_t kPerProducer = 40000;
#endif
constexpr uint32_t kMaxBatch = 8;
constexpr uint32_t kStart = 0xFFFFFFFFu - 3000;

struct Config {
    const char *name;
    uint32_t flags;
    int producers, consumers;
    uint32_t size;
    tovi_ring_t *(*create)(uint32_t, uint32_t) = tovi_ring_create;
};

// Retries at once a few times (threads meet inside the ring), then yields, and
// after long failing sleeps: yielding crowds can starve the one making room.
static void backoff(bool failed, unsigned &idle)
{
    idle = failed ? idle + 1 : 0;
    if (idle != 0 && idle % 1024 == 0)
        tovi_usleep(100);
    else if (idle != 0 && idle % 64 == 0)
        tovi_yield();
}

// One call of the three kinds, picked at random: the objects moved; any result
// but success or the side's refusal is bad.
static uint32_t move(tovi_ring_t *r, bool put, uint64_t *batch, uint32_t n, unsigned pick, std::atomic<int> &bad)
{
    if (pick % 3 == 2) {
        const uint32_t moved = put ? tovi_ring_enqueue_burst(r, batch, n) : tovi_ring_dequeue_burst(r, batch, n);
        bad += moved > n;  // bit 31 never: the watermark is the size
        return moved;
    }
    const int32_t rc = pick % 3 == 0 ? (put ? tovi_ring_enqueue(r, batch[0]) : tovi_ring_dequeue(r, batch))
                                     : (put ? tovi_ring_enqueue_bulk(r, batch, n) : tovi_ring_dequeue_bulk(r, batch, n));
    bad += rc != 0 && rc != (put ? -105 : -2);
    return rc != 0 ? 0 : pick % 3 == 0 ? 1 : n;
}

static void run(const Config &c)
{
    SCOPED_TRACE(c.name);
    tovi_ring_t *r = c.create(c.size, c.flags);
    ASSERT_NE(r, nullptr);
    r->prod.head = r->prod.tail = r->cons.head = r->cons.tail = kStart;
    for (auto *ends : {&r->gen.rts_prod, &r->gen.rts_cons})
        ends->head = ends->tail = tovi::ring::pos_cnt(kStart, 0);
    const uint32_t total = kPerProducer * static_cast<uint32_t>(c.producers);
    std::atomic<uint32_t> taken{0};
    std::atomic<int> bad{0};
    std::atomic<int> gate{c.producers + c.consumers};
    // What each consumer saw: for each producer, the sequence numbers in order.
    std::vector<std::vector<std::vector<uint32_t>>> seen(c.consumers, std::vector<std::vector<uint32_t>>(c.producers));
    std::vector<std::jthread> threads;
    for (int p = 0; p < c.producers; ++p)
        threads.emplace_back([&, p] {
            for (gate.fetch_sub(1); gate.load() > 0;)  // start together, to overlap
                tovi_yield();
            std::minstd_rand rng(static_cast<unsigned>(p) * 7919u + 1u);
            uint64_t batch[kMaxBatch];
            for (uint32_t seq = 0, stored = 0, idle = 0; seq < kPerProducer; seq += stored, backoff(stored == 0, idle)) {
                const uint32_t n = std::min<uint32_t>(1 + rng() % kMaxBatch, kPerProducer - seq);
                for (uint32_t i = 0; i < n; ++i)
                    batch[i] = (static_cast<uint64_t>(p + 1) << 32) | (seq + i);
                stored = move(r, true, batch, n, rng(), bad);
            }
        });
    for (int k = 0; k < c.consumers; ++k)
        threads.emplace_back([&, k] {
            for (gate.fetch_sub(1); gate.load() > 0;)
                tovi_yield();
            std::minstd_rand rng(1000u + static_cast<unsigned>(k));
            uint64_t batch[kMaxBatch];
            for (unsigned idle = 0; taken.load(std::memory_order_relaxed) < total;) {
                const uint32_t got = move(r, false, batch, 1 + rng() % kMaxBatch, rng(), bad);
                for (uint32_t i = 0; i < got; ++i) {
                    const uint64_t producer = (batch[i] >> 32) - 1;
                    if (producer < static_cast<uint64_t>(c.producers))
                        seen[k][producer].push_back(static_cast<uint32_t>(batch[i]));
                    else
                        ++bad;
                }
                taken.fetch_add(got, std::memory_order_relaxed);
                backoff(got == 0, idle);
            }
        });
    // A reservation never published stops its side for good: report, not hang.
    std::jthread watchdog([&](std::stop_token stop) {
        for (uint32_t last = ~0u, quiet = 0; !stop.stop_requested(); tovi_msleep(20)) {
            const uint32_t now = taken.load();
            quiet = now == last ? quiet + 1 : 0;
            last = now;
            if (quiet == 1500) {
                fprintf(stderr, "no progress for 30 s at %u of %u: prod %u/%u cons %u/%u\n", now, total,
                        r->prod.head, tovi::ring::published_tail(r, true), r->cons.head,
                        tovi::ring::published_tail(r, false));
                abort();
            }
        }
    });
    threads.clear();
    watchdog.request_stop();
    watchdog.join();
    EXPECT_EQ((std::vector<uint32_t>{uint32_t(bad), taken, tovi_ring_empty(r), tovi::ring::published_tail(r, true)}),
              (std::vector<uint32_t>{0, total, 1, kStart + total}));
    // Per consumer, each producer's objects in increasing order; over all, each object exactly once.
    std::vector<uint32_t> want(kPerProducer);
    std::iota(want.begin(), want.end(), 0u);
    for (int p = 0; p < c.producers; ++p) {
        std::vector<uint32_t> all;
        for (const auto &s : seen) {
            EXPECT_EQ(std::adjacent_find(s[p].begin(), s[p].end(), std::greater_equal<>()), s[p].end()) << p;
            all.insert(all.end(), s[p].begin(), s[p].end());
        }
        std::sort(all.begin(), all.end());
        EXPECT_TRUE(all == want) << "producer " << p;  // too long to print
    }
    tovi_ring_delete(&r);
}

// Relaxed-tail rings also run with twice the processors (at least 4, at most
// 8) per multi-thread side, so that threads are preempted inside the ring.
TEST(QueueStress, EveryObjectOnceAndInOrderForEachMixOfSides)
{
    const int n = static_cast<int>(std::clamp(2 * std::thread::hardware_concurrency(), 4u, 8u));
    const Config configs[] = {
        {"sp/sc", 3, 1, 1, 8}, {"mp/mc", 0, 2, 2, 16}, {"mp/sc", 2, 2, 1, 32}, {"sp/mc", 1, 1, 2, 32},
        {"rts mp/mc", 0, n, n, 64, tovi_ring_create_rts}, {"rts mp/mc small", 0, n, n, 8, tovi_ring_create_rts},
        {"rts mp/sc", 2, n, 1, 32, tovi_ring_create_rts}, {"rts sp/mc", 1, 1, n, 32, tovi_ring_create_rts},
    };
    for (const Config &c : configs)
        run(c);
}

// Processor time of the producers that have not finished, in milliseconds.
static uint64_t busy_ms(std::vector<std::thread> &threads, const std::atomic<bool> *finished)
{
    uint64_t ms = 0;
    for (size_t t = 0; t < threads.size(); ++t) {
        clockid_t id;
        timespec ts{};
        if (!finished[t] && pthread_getcpuclockid(threads[t].native_handle(), &id) == 0 && clock_gettime(id, &ts) == 0)
            ms += static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
    }
    return ms;
}

// Producers that only race for the head, in bursts started together: a claim
// that is not atomic hands two of them the same slot, which loses an object or
// leaves one waiting for a turn that never comes. A producer waits only for one
// that has lost its processor, so producers that run 100 ms on theirs while
// none publishes or finishes are stuck (time spent preempted does not count).
// Two producers: as many as run side by side on two cores; more take turns.
TEST(QueueStress, ProducersRacingForTheHeadNeverShareASlot)
{
    constexpr int kThreads = 2;
    constexpr uint32_t kBurst = 16384;
    std::vector<uint64_t> want;
    for (uint64_t i = 0; i < kThreads * kBurst; ++i)
        want.push_back(i / kBurst << 32 | i % kBurst);
    for (auto create : {tovi_ring_create, tovi_ring_create_rts}) {
        const std::string report = tovi::test::report_from_child([&]() -> std::string {
            tovi_ring_t *r = create(2 * kThreads * kBurst, 0);
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(750);
            for (uint32_t round = 0; std::chrono::steady_clock::now() < end; ++round) {
                std::atomic<int> ready{0};
                std::atomic<bool> finished[kThreads] = {};
                std::vector<std::thread> threads;
                for (int t = 0; t < kThreads; ++t)
                    threads.emplace_back([&, t] {
                        for (ready.fetch_add(1); ready.load() < kThreads;) {
                        }
                        for (uint32_t i = 0; i < kBurst; ++i)
                            tovi_ring_enqueue(r, static_cast<uint64_t>(t) << 32 | i);
                        finished[t] = true;
                    });
                const auto left = [&] { return std::count_if(finished, finished + kThreads, [](const auto &f) { return !f.load(); }); };
                // Until all are done, or stuck: those at work ran 100 ms while none published or finished.
                for (uint64_t seen = ~0ull, now, base = 0; left() != 0; tovi_msleep(1)) {
                    if ((now = uint64_t{tovi::ring::published_tail(r, true)} + kThreads - left()) != seen)
                        seen = now, base = busy_ms(threads, finished);
                    else if (busy_ms(threads, finished) > base + 100)
                        break;
                }
                const bool done = left() == 0;
                for (std::thread &t : threads)
                    done ? t.join() : t.detach();
                std::vector<uint64_t> got(kThreads * kBurst + 1);
                got.resize(done ? tovi_ring_dequeue_burst(r, got.data(), static_cast<uint32_t>(got.size())) : 0);
                if (std::sort(got.begin(), got.end()), got != want)
                    return "round " + std::to_string(round) + (done ? ": objects lost" : ": a producer never finished");
            }
            return "";
        });
        EXPECT_EQ(report, "") << (create == tovi_ring_create ? "in-order" : "relaxed-tail");
    }
}
