// The lock-free ring under several producers and consumers: nothing lost,
// nothing duplicated, and each producer's objects reach every consumer in the
// order they were stored. The indexes start just short of the 32-bit wrap.
// Relaxed-tail rings also run with twice as many threads per side as there
// are processors, so that threads are preempted inside the ring.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "tovi_queue.h"
#include "tovi_queue.hpp"
#include "tovi_sched.h"

namespace {

// Under the thread checker every access is a call, the window between
// reserving and publishing grows with it, and a thread preempted there holds
// up the rest of its side until the scheduler runs it again: fewer objects.
#if defined(__SANITIZE_THREAD__)
constexpr uint32_t kPerProducer = 10000;
#else
constexpr uint32_t kPerProducer = 40000;
#endif
constexpr uint32_t kMaxBatch = 8;

struct Config {
    const char *name;
    uint32_t flags;
    int producers;
    int consumers;
    uint32_t size;
    tovi_ring_t *(*create)(uint32_t, uint32_t) = tovi_ring_create;
};

// What one consumer saw: for each producer, the sequence numbers in order.
using Seen = std::vector<std::vector<uint32_t>>;

uint64_t object(int producer, uint32_t seq)
{
    return (static_cast<uint64_t>(producer + 1) << 32) | seq;
}

// Retries at once a few times, so that threads meet inside the ring often,
// then gives the processor away, and after a long run of failures sleeps a
// little: there are more threads than processors, and on a loaded machine a
// crowd of yielding threads can starve the one that would make room.
void backoff(bool failed, unsigned &idle)
{
    if (!failed) {
        idle = 0;
    } else if (++idle % 1024 == 0) {
        tovi_usleep(100);
    } else if (idle % 64 == 0) {
        tovi_yield();
    }
}

// Holds every thread until all have started, so that they overlap.
void start_together(std::atomic<int> &waiting)
{
    waiting.fetch_sub(1);
    while (waiting.load() > 0)
        tovi_yield();
}

void produce(tovi_ring_t *r, int id, std::atomic<int> &gate, std::atomic<int> &bad_results)
{
    start_together(gate);
    std::minstd_rand rng(static_cast<unsigned>(id) * 7919u + 1u);
    uint64_t batch[kMaxBatch];
    uint32_t seq = 0;
    unsigned idle = 0;
    while (seq < kPerProducer) {
        const uint32_t n = std::min<uint32_t>(1 + rng() % kMaxBatch, kPerProducer - seq);
        for (uint32_t i = 0; i < n; ++i)
            batch[i] = object(id, seq + i);
        uint32_t stored = 0;
        switch (rng() % 3) {
        case 0: {
            int32_t rc = tovi_ring_enqueue(r, batch[0]);
            stored = rc == 0 ? 1 : 0;
            bad_results += rc != 0 && rc != -105;
            break;
        }
        case 1: {
            int32_t rc = tovi_ring_enqueue_bulk(r, batch, n);
            stored = rc == 0 ? n : 0;
            bad_results += rc != 0 && rc != -105;
            break;
        }
        default:
            stored = tovi_ring_enqueue_burst(r, batch, n);
            bad_results += stored > n;  // bit 31 never: the watermark is the size
            break;
        }
        seq += stored;
        backoff(stored == 0, idle);
    }
}

void consume(tovi_ring_t *r, int producers, std::atomic<uint32_t> &taken, uint32_t total, Seen &seen,
             std::atomic<int> &gate, std::atomic<int> &bad_results, unsigned seed)
{
    start_together(gate);
    std::minstd_rand rng(seed);
    seen.assign(producers, {});
    uint64_t batch[kMaxBatch];
    unsigned idle = 0;
    while (taken.load(std::memory_order_relaxed) < total) {
        const uint32_t n = 1 + rng() % kMaxBatch;
        uint32_t got = 0;
        switch (rng() % 3) {
        case 0: {
            int32_t rc = tovi_ring_dequeue(r, batch);
            got = rc == 0 ? 1 : 0;
            bad_results += rc != 0 && rc != -2;
            break;
        }
        case 1: {
            int32_t rc = tovi_ring_dequeue_bulk(r, batch, n);
            got = rc == 0 ? n : 0;
            bad_results += rc != 0 && rc != -2;
            break;
        }
        default:
            got = tovi_ring_dequeue_burst(r, batch, n);
            bad_results += got > n;
            break;
        }
        for (uint32_t i = 0; i < got; ++i) {
            const uint64_t producer = (batch[i] >> 32) - 1;
            if (producer >= static_cast<uint64_t>(producers)) {
                ++bad_results;
                continue;
            }
            seen[producer].push_back(static_cast<uint32_t>(batch[i]));
        }
        taken.fetch_add(got, std::memory_order_relaxed);
        backoff(got == 0, idle);
    }
}

void run(const Config &c)
{
    SCOPED_TRACE(c.name);
    tovi_ring_t *r = c.create(c.size, c.flags);
    ASSERT_NE(r, nullptr);
    constexpr uint32_t kStart = 0xFFFFFFFFu - 3000;
    r->prod.head = r->prod.tail = r->cons.head = r->cons.tail = kStart;
    for (auto *ends : {&r->gen.rts_prod, &r->gen.rts_cons})
        ends->head = ends->tail = tovi::ring::pos_cnt(kStart, 0);

    const uint32_t total = kPerProducer * static_cast<uint32_t>(c.producers);
    std::atomic<uint32_t> taken{0};
    std::atomic<int> bad_results{0};
    std::vector<Seen> seen(c.consumers);
    std::atomic<int> gate{c.producers + c.consumers};
    std::vector<std::thread> threads;
    for (int p = 0; p < c.producers; ++p)
        threads.emplace_back(produce, r, p, std::ref(gate), std::ref(bad_results));
    for (int k = 0; k < c.consumers; ++k)
        threads.emplace_back(consume, r, c.producers, std::ref(taken), total, std::ref(seen[k]), std::ref(gate),
                             std::ref(bad_results), 1000u + static_cast<unsigned>(k));
    // A reservation that is never published stops every thread of its side
    // for good: fail with the ring's state rather than hang.
    std::atomic<bool> finished{false};
    std::thread watchdog([&] {
        uint32_t last = taken.load();
        for (int quiet = 0; !finished.load(); tovi_msleep(20)) {
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
    for (auto &t : threads)
        t.join();
    finished = true;
    watchdog.join();

    EXPECT_EQ(bad_results.load(), 0);
    EXPECT_EQ(taken.load(), total);
    EXPECT_EQ(tovi_ring_empty(r), 1u);
    EXPECT_EQ(tovi::ring::published_tail(r, true), kStart + total);

    // Per consumer, each producer's objects come in increasing order; over all
    // consumers, each object exactly once.
    std::vector<std::vector<int>> copies(c.producers, std::vector<int>(kPerProducer, 0));
    for (int k = 0; k < c.consumers; ++k) {
        for (int p = 0; p < c.producers; ++p) {
            const auto &s = seen[k][p];
            for (size_t i = 0; i < s.size(); ++i) {
                ASSERT_LT(s[i], kPerProducer);
                if (i > 0) {
                    ASSERT_LT(s[i - 1], s[i]) << "consumer " << k << " producer " << p;
                }
                ++copies[p][s[i]];
            }
        }
    }
    for (int p = 0; p < c.producers; ++p)
        for (uint32_t i = 0; i < kPerProducer; ++i)
            ASSERT_EQ(copies[p][i], 1) << "producer " << p << " object " << i;
    tovi_ring_delete(&r);
}

}  // namespace

TEST(QueueStress, SingleProducerSingleConsumerKeepsExactOrder)
{
    run({"sp/sc", 3, 1, 1, 8});
}

TEST(QueueStress, ManyProducersManyConsumers)
{
    run({"mp/mc", 0, 2, 2, 16});
}

TEST(QueueStress, ManyProducersOneConsumer)
{
    run({"mp/sc", 2, 2, 1, 32});
}

TEST(QueueStress, OneProducerManyConsumers)
{
    run({"sp/mc", 1, 1, 2, 32});
}

// Twice the processors (at least 4, at most 8) per multi-thread side.
TEST(QueueStress, RelaxedTailWithMoreThreadsThanProcessors)
{
    const int n = static_cast<int>(std::clamp(2 * std::thread::hardware_concurrency(), 4u, 8u));
    run({"rts mp/mc", 0, n, n, 64, tovi_ring_create_rts});
    run({"rts mp/mc small", 0, n, n, 8, tovi_ring_create_rts});
    run({"rts mp/sc", 2, n, 1, 32, tovi_ring_create_rts});
    run({"rts sp/mc", 1, 1, n, 32, tovi_ring_create_rts});
}
