// The lock-free ring, one thread: creation, limits, result codes, the quota
// rule, wrap-around of slots and of the 32-bit indexes, and a model check of
// random operation sequences. The threaded stress is in test_queue_stress.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_queue.h"
#include "tovi_queue.hpp"

using tovi::test::LogCapture;

namespace {

constexpr const char *kBadCount = "tovi_ring_create:uiCount must be a power of 2 or great than MAX";
constexpr const char *kNullRing = "Tovi ring id is NULL.";

// Owns a ring for the length of a test.
struct Ring {
    tovi_ring_t *r;
    Ring(uint32_t count, uint32_t flags) : r(tovi_ring_create(count, flags)) {}
    ~Ring() { tovi_ring_delete(&r); }
    tovi_ring_t *operator->() const { return r; }
    operator tovi_ring_t *() const { return r; }
};

// Moves all four indexes to `at`, as if that many objects had passed.
void set_indexes(tovi_ring_t *r, uint32_t at)
{
    r->prod.head = r->prod.tail = r->cons.head = r->cons.tail = at;
}

std::vector<uint64_t> seq(uint64_t from, uint32_t n)
{
    std::vector<uint64_t> v(n);
    for (uint32_t i = 0; i < n; ++i)
        v[i] = from + i;
    return v;
}

}  // namespace

TEST(Queue, CreateRefusesCountsThatAreNotAPowerOfTwoBelowTheLimit)
{
    LogCapture cap;
    for (uint32_t count : {0u, 6u, 3u, 0x10000000u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(tovi_ring_create(count, 0), nullptr) << count;
    }
    EXPECT_EQ(cap.texts(3), std::vector<std::string>(6, kBadCount));
    EXPECT_EQ(cap.texts().size(), 6u);

    cap.clear();
    Ring large(1u << 16, 0);
    Ring one(1, 0);
    EXPECT_NE(large.r, nullptr);
    EXPECT_NE(one.r, nullptr);
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Queue, NullRingIsReportedByTheQueriesAndSingleObjectCalls)
{
    LogCapture cap;
    uint64_t obj = 7;
    EXPECT_EQ(tovi_ring_full(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(tovi_ring_empty(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(tovi_ring_count(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(tovi_ring_free_count(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(tovi_ring_size(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(tovi_ring_enqueue(nullptr, obj), -1);
    EXPECT_EQ(tovi_ring_dequeue(nullptr, &obj), -1);
    EXPECT_EQ(obj, 7u);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>(7, kNullRing));
    EXPECT_EQ(cap.texts().size(), 7u);
}

TEST(Queue, EightSlotsHoldSevenAndBulkIsAllOrNothing)
{
    for (uint32_t flags : {0u, 3u}) {
        Ring r(8, flags);
        for (uint64_t i = 0; i < 7; ++i) {
            EXPECT_EQ(tovi_ring_free_count(r), 7 - i);
            EXPECT_EQ(tovi_ring_enqueue(r, 100 + i), 0);
            EXPECT_EQ(tovi_ring_count(r), i + 1);
        }
        EXPECT_EQ(tovi_ring_full(r), 1u);
        EXPECT_EQ(tovi_ring_enqueue(r, 999), -105);

        uint64_t out[8] = {};
        ASSERT_EQ(tovi_ring_dequeue_bulk(r, out, 4), 0);
        EXPECT_EQ(std::vector<uint64_t>(out, out + 4), seq(100, 4));
        EXPECT_EQ(tovi_ring_free_count(r), 4u);
        ASSERT_EQ(tovi_ring_dequeue(r, out), 0);  // 2 stored, 5 free

        auto in = seq(200, 6);
        EXPECT_EQ(tovi_ring_enqueue_bulk(r, in.data(), 6), -105);
        EXPECT_EQ(tovi_ring_count(r), 2u) << "a refused bulk stores nothing";
        EXPECT_EQ(tovi_ring_enqueue_burst(r, in.data(), 6), 5u);
        EXPECT_EQ(tovi_ring_full(r), 1u);
        EXPECT_EQ(tovi_ring_enqueue_burst(r, in.data(), 6), 0u);

        // Out in order, across the end of the slots.
        EXPECT_EQ(tovi_ring_dequeue_bulk(r, out, 8), -2);
        EXPECT_EQ(tovi_ring_dequeue_burst(r, out, 8), 7u);
        std::vector<uint64_t> want = {105, 106, 200, 201, 202, 203, 204};
        EXPECT_EQ(std::vector<uint64_t>(out, out + 7), want);
        EXPECT_EQ(tovi_ring_empty(r), 1u);
    }
}

TEST(Queue, IndexesWrapAround32Bits)
{
    for (uint32_t flags : {0u, 3u}) {
        Ring r(16, flags);
        set_indexes(r, 0xFFFFFFF6u);  // slot 6, ten objects before the wrap
        uint64_t next_in = 0;
        uint64_t next_out = 0;
        uint64_t buf[16];
        for (int round = 0; round < 6; ++round) {
            auto in = seq(next_in, 13);
            ASSERT_EQ(tovi_ring_enqueue_bulk(r, in.data(), 13), 0);
            next_in += 13;
            EXPECT_EQ(tovi_ring_count(r), 13u);
            EXPECT_EQ(tovi_ring_free_count(r), 2u);
            EXPECT_EQ(tovi_ring_enqueue_bulk(r, in.data(), 3), -105);
            ASSERT_EQ(tovi_ring_dequeue_burst(r, buf, 16), 13u);
            for (int i = 0; i < 13; ++i)
                ASSERT_EQ(buf[i], next_out++) << "round " << round;
            EXPECT_EQ(tovi_ring_empty(r), 1u);
        }
        EXPECT_EQ(r->prod.tail, 0xFFFFFFF6u + 78u);
        EXPECT_EQ(r->cons.tail, r->prod.tail);
    }
}

TEST(Queue, AboveTheWatermarkObjectsAreStoredButFlagged)
{
    for (uint32_t flags : {0u, 3u}) {
        Ring r(8, flags);
        r->prod.watermark = 4;  // the rule counts the kept-empty slot: used + 1 > 4
        uint64_t objs[4] = {1, 2, 3, 4};
        EXPECT_EQ(tovi_ring_enqueue(r, 10), 0);
        EXPECT_EQ(tovi_ring_enqueue_bulk(r, objs, 2), 0);  // 3 used
        EXPECT_EQ(tovi_ring_enqueue(r, 11), -122);
        EXPECT_EQ(tovi_ring_count(r), 4u) << "-122 still stores";
        EXPECT_EQ(tovi_ring_enqueue_bulk(r, objs, 1), -122);
        EXPECT_EQ(tovi_ring_enqueue_bulk(r, objs, 3), -105) << "no room beats the quota";
        EXPECT_EQ(tovi_ring_enqueue_burst(r, objs, 4), 2u | 0x80000000u);
        EXPECT_EQ(tovi_ring_count(r), 7u);

        uint64_t out[8];
        ASSERT_EQ(tovi_ring_dequeue_burst(r, out, 8), 7u);
        std::vector<uint64_t> want = {10, 1, 2, 11, 1, 1, 2};
        EXPECT_EQ(std::vector<uint64_t>(out, out + 7), want);
        // Back under the watermark: a burst that stays at it is not flagged.
        EXPECT_EQ(tovi_ring_enqueue_burst(r, objs, 3), 3u);
        EXPECT_EQ(tovi_ring_enqueue_burst(r, objs, 1), 1u | 0x80000000u);
    }
}

TEST(Queue, WaitingForEarlierReservationsYieldsAfterEachRoundOfTests)
{
    uint32_t tail = 5;
    int yields = 0;
    tovi::ring::wait_turn(&tail, 5, 1000, [&] { ++yields; });
    EXPECT_EQ(yields, 0) << "nothing to wait for";

    // The thread ahead publishes during the third yield.
    tovi::ring::wait_turn(&tail, 9, 1000, [&] {
        if (++yields == 3)
            tail = 9;
    });
    EXPECT_EQ(yields, 3);
}

// Random operation sequences against a double-ended queue with the same
// capacity, for every mode, ring size, starting index (some near the 32-bit
// wrap) and watermark.
TEST(Queue, RandomOperationsMatchAReferenceQueue)
{
    std::mt19937 rng(20240611);
    for (int trial = 0; trial < 48; ++trial) {
        const uint32_t size = 1u << (trial % 7);  // 1 .. 64
        const uint32_t flags = static_cast<uint32_t>(trial / 7) % 4;
        Ring r(size, flags);
        ASSERT_NE(r.r, nullptr);
        const uint32_t start = trial % 2 ? 0xFFFFFFFFu - rng() % 200 : rng();
        set_indexes(r, start);
        const uint32_t watermark = trial % 3 ? size : 1 + rng() % size;
        r->prod.watermark = watermark;

        std::deque<uint64_t> model;
        uint64_t next = 1;
        std::vector<uint64_t> buf(size + 3);
        for (int step = 0; step < 400; ++step) {
            const uint32_t used = static_cast<uint32_t>(model.size());
            const uint32_t room = size - 1 - used;
            const uint32_t n = rng() % (size + 3);
            const auto above = [&](uint32_t stored) { return used + 1 + stored > watermark; };
            SCOPED_TRACE("trial " + std::to_string(trial) + " step " + std::to_string(step) + " n " +
                         std::to_string(n));
            switch (rng() % 6) {
            case 0: {
                int32_t want = room == 0 ? -105 : above(1) ? -122 : 0;
                ASSERT_EQ(tovi_ring_enqueue(r, next), want);
                if (room != 0)
                    model.push_back(next);
                ++next;
                break;
            }
            case 1: {
                uint64_t got = 0;
                ASSERT_EQ(tovi_ring_dequeue(r, &got), model.empty() ? -2 : 0);
                if (!model.empty()) {
                    ASSERT_EQ(got, model.front());
                    model.pop_front();
                }
                break;
            }
            case 2: {
                auto in = seq(next, n);
                next += n;
                int32_t want = n > room ? -105 : above(n) ? -122 : 0;
                ASSERT_EQ(tovi_ring_enqueue_bulk(r, in.data(), n), want);
                if (n <= room)
                    model.insert(model.end(), in.begin(), in.end());
                break;
            }
            case 3: {
                auto in = seq(next, n);
                next += n;
                const uint32_t stored = std::min(n, room);
                uint32_t want = stored == 0 ? 0 : above(stored) ? stored | 0x80000000u : stored;
                if (n == 0 && above(0))
                    want = 0x80000000u;  // nothing stored, yet the quota rule still runs
                ASSERT_EQ(tovi_ring_enqueue_burst(r, in.data(), n), want);
                model.insert(model.end(), in.begin(), in.begin() + stored);
                break;
            }
            case 4: {
                ASSERT_EQ(tovi_ring_dequeue_bulk(r, buf.data(), n), n > used ? -2 : 0);
                if (n <= used) {
                    for (uint32_t i = 0; i < n; ++i, model.pop_front())
                        ASSERT_EQ(buf[i], model.front());
                }
                break;
            }
            default: {
                const uint32_t taken = std::min(n, used);
                ASSERT_EQ(tovi_ring_dequeue_burst(r, buf.data(), n), taken);
                for (uint32_t i = 0; i < taken; ++i, model.pop_front())
                    ASSERT_EQ(buf[i], model.front());
                break;
            }
            }
            ASSERT_EQ(tovi_ring_count(r), model.size());
            ASSERT_EQ(tovi_ring_free_count(r), size - 1 - model.size());
            ASSERT_EQ(tovi_ring_empty(r), model.empty() ? 1u : 0u);
            ASSERT_EQ(tovi_ring_full(r), model.size() == size - 1 ? 1u : 0u);
            ASSERT_EQ(r->prod.head, r->prod.tail);
            ASSERT_EQ(r->cons.head, r->cons.tail);
        }
    }
}
