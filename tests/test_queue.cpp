// The lock-free ring, one thread: creation, limits, result codes, the quota
// rule, wrap-around of slots and of the 32-bit indexes, and a model check of
// random operation sequences, each for both kinds of ring (in-order and
// relaxed-tail multi-thread sides); then the relaxed-tail publication itself,
// step by step. The threaded stress is in test_queue_stress.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.hpp"
#include "tovi_queue.h"
#include "tovi_queue.hpp"

using tovi::test::LogCapture;

namespace {

constexpr const char *kBadCount = "tovi_ring_create:uiCount must be a power of 2 or great than MAX";
constexpr const char *kNullRing = "Tovi ring id is NULL.";

using Create = tovi_ring_t *(*)(uint32_t, uint32_t);

// The two kinds of ring, and what each stores as a multi-thread side's mode.
struct Kind {
    const char *name;
    Create create;
    uint32_t multi;
};
constexpr Kind kKinds[] = {{"in-order", tovi_ring_create, 0},
                           {"relaxed-tail", tovi_ring_create_rts, tovi::ring::kRelaxedTail}};

// Multi-thread sides of each kind, and single sides (the same on both).
constexpr std::pair<Create, uint32_t> kModes[] = {
    {tovi_ring_create, 0}, {tovi_ring_create_rts, 0}, {tovi_ring_create, 3}};

// Owns a ring for the length of a test.
struct Ring {
    tovi_ring_t *r;
    Ring(uint32_t count, uint32_t flags, Create create = tovi_ring_create) : r(create(count, flags)) {}
    ~Ring() { tovi_ring_delete(&r); }
    tovi_ring_t *operator->() const { return r; }
    operator tovi_ring_t *() const { return r; }
};

// Moves all indexes to `at`, as if that many objects had passed.
void set_indexes(tovi_ring_t *r, uint32_t at)
{
    r->prod.head = r->prod.tail = r->cons.head = r->cons.tail = at;
    for (auto *ends : {&r->gen.rts_prod, &r->gen.rts_cons})
        ends->head = ends->tail = tovi::ring::pos_cnt(at, 0);
}

// Whether every reservation is published, in whichever words each side uses.
bool settled(const tovi_ring_t *r)
{
    using tovi::ring::kRelaxedTail;
    const auto &g = r->gen;
    return (r->prod.sp_enqueue == kRelaxedTail ? g.rts_prod.head == g.rts_prod.tail : r->prod.head == r->prod.tail) &&
           (r->cons.sc_dequeue == kRelaxedTail ? g.rts_cons.head == g.rts_cons.tail : r->cons.head == r->cons.tail);
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
    for (const Kind &k : kKinds) {
        SCOPED_TRACE(k.name);
        LogCapture cap;
        for (uint32_t count : {0u, 6u, 3u, 0x10000000u, 0x80000000u, 0xFFFFFFFFu}) {
            EXPECT_EQ(k.create(count, 0), nullptr) << count;
        }
        EXPECT_EQ(cap.texts(3), std::vector<std::string>(6, kBadCount));
        EXPECT_EQ(cap.texts().size(), 6u);

        cap.clear();
        Ring large(1u << 16, 0, k.create);
        Ring one(1, 0, k.create);
        EXPECT_NE(large.r, nullptr);
        EXPECT_NE(one.r, nullptr);
        EXPECT_TRUE(cap.texts().empty());
    }
}

TEST(Queue, CreateLaysOutTheHeaderInFourBlocks)
{
    Ring ring(16, 0x41, tovi_ring_create_rts);  // bit 0 and an unknown bit
    tovi_ring_t *r = ring;
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(r) % 128, 0u);
    EXPECT_EQ(reinterpret_cast<char *>(r->slots()) - reinterpret_cast<char *>(r), 512);
    EXPECT_EQ(r->gen.flags, 0x41u) << "unknown bits are kept";
    EXPECT_EQ(r->prod.watermark, 16u);
    EXPECT_EQ(r->prod.sp_enqueue, 1u);
    EXPECT_EQ(r->cons.sc_dequeue, tovi::ring::kRelaxedTail);
    for (auto [size, mask] : {std::pair{r->prod.size, r->prod.mask}, std::pair{r->cons.size, r->cons.mask},
                              std::pair{r->spare.size, r->spare.mask}}) {
        EXPECT_EQ(size, 16u);
        EXPECT_EQ(mask, 15u);
    }
    EXPECT_EQ(r->spare.zero[0] | r->spare.zero[1], 0u);
    EXPECT_EQ(r->prod.head | r->prod.tail | r->cons.head | r->cons.tail, 0u);
}

TEST(Queue, FlagFourMeansBothSidesSingle)
{
    struct Case {
        uint32_t flags, stored, sp, sc;
    };
    for (const Kind &k : kKinds) {
        for (auto c : {Case{0, 0, 0, 0}, Case{1, 1, 1, 0}, Case{2, 2, 0, 2}, Case{3, 3, 1, 2}, Case{4, 3, 1, 2},
                       Case{5, 5, 1, 0}, Case{6, 6, 0, 2}}) {
            Ring r(8, c.flags, k.create);
            EXPECT_EQ(r->gen.flags, c.stored) << k.name << c.flags;
            EXPECT_EQ(r->prod.sp_enqueue, c.sp ? c.sp : k.multi) << k.name << c.flags;
            EXPECT_EQ(r->cons.sc_dequeue, c.sc ? c.sc : k.multi) << k.name << c.flags;
        }
    }
}

TEST(Queue, DeleteClearsThePointerAndMayBeRepeated)
{
    tovi_ring_t *r = tovi_ring_create(4, 0);
    ASSERT_NE(r, nullptr);
    tovi_ring_delete(&r);
    EXPECT_EQ(r, nullptr);
    tovi_ring_delete(&r);
    tovi_ring_delete(nullptr);
}

TEST(Queue, NullRingIsReportedByTheQueriesAndSingleObjectCalls)
{
    Ring ring(4, 2, tovi_ring_create_rts);
    ASSERT_EQ(tovi_ring_enqueue(ring, 5), 0);
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
    // A NULL destination is reported the same way, and takes nothing.
    EXPECT_EQ(tovi_ring_dequeue(nullptr, nullptr), -1);
    EXPECT_EQ(tovi_ring_dequeue(ring, nullptr), -1);
    EXPECT_EQ(tovi_ring_count(ring), 1u);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>(9, kNullRing));
    EXPECT_EQ(cap.texts().size(), 9u);
}

TEST(Queue, OneSlotRingIsAlwaysFull)
{
    for (const Kind &k : kKinds) {
        SCOPED_TRACE(k.name);
        Ring r(1, 0, k.create);
        uint64_t objs[2] = {1, 2};
        EXPECT_EQ(tovi_ring_size(r), 1u);
        EXPECT_EQ(tovi_ring_full(r), 1u);
        EXPECT_EQ(tovi_ring_empty(r), 1u);
        EXPECT_EQ(tovi_ring_free_count(r), 0u);
        EXPECT_EQ(tovi_ring_enqueue(r, 1), -105);
        EXPECT_EQ(tovi_ring_enqueue_bulk(r, objs, 1), -105);
        EXPECT_EQ(tovi_ring_enqueue_burst(r, objs, 2), 0u);
        EXPECT_EQ(tovi_ring_dequeue(r, objs), -2);
        EXPECT_EQ(tovi_ring_count(r), 0u);
        EXPECT_TRUE(settled(r)) << "a refused enqueue reserves nothing";
    }
}

TEST(Queue, EightSlotsHoldSevenAndBulkIsAllOrNothing)
{
    for (auto [create, flags] : kModes) {
        Ring r(8, flags, create);
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

TEST(Queue, EmptyRingGivesNothing)
{
    for (const Kind &k : kKinds) {
        SCOPED_TRACE(k.name);
        Ring r(8, 0, k.create);
        uint64_t out[4] = {5, 5, 5, 5};
        EXPECT_EQ(tovi_ring_dequeue(r, out), -2);
        EXPECT_EQ(tovi_ring_dequeue_burst(r, out, 4), 0u);
        EXPECT_EQ(tovi_ring_enqueue(r, 1), 0);
        EXPECT_EQ(tovi_ring_dequeue_bulk(r, out, 2), -2);
        EXPECT_EQ(out[0], 5u) << "a refused dequeue writes nothing";
        EXPECT_TRUE(settled(r));
        // Zero objects: nothing to move, nothing refused.
        EXPECT_EQ(tovi_ring_dequeue_bulk(r, out, 0), 0);
        EXPECT_EQ(tovi_ring_enqueue_bulk(r, out, 0), 0);
        EXPECT_EQ(tovi_ring_count(r), 1u);
    }
}

TEST(Queue, IndexesWrapAround32Bits)
{
    for (auto [create, flags] : kModes) {
        Ring r(16, flags, create);
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
        EXPECT_EQ(tovi::ring::published_tail(r, true), 0xFFFFFFF6u + 78u);
        EXPECT_EQ(tovi::ring::published_tail(r, false), 0xFFFFFFF6u + 78u);
    }
}

TEST(Queue, FullAndCountAreRightAcrossTheIndexWrap)
{
    for (auto [create, flags] : kModes) {
        Ring r(8, flags, create);
        set_indexes(r, 0xFFFFFFFCu);
        auto in = seq(1, 7);
        ASSERT_EQ(tovi_ring_enqueue_bulk(r, in.data(), 7), 0);  // producer tail wraps to 3
        EXPECT_EQ(tovi::ring::published_tail(r, true), 3u);
        EXPECT_EQ(tovi_ring_count(r), 7u);
        EXPECT_EQ(tovi_ring_full(r), 1u);
        EXPECT_EQ(tovi_ring_enqueue(r, 8), -105);
        uint64_t out[7];
        ASSERT_EQ(tovi_ring_dequeue_bulk(r, out, 7), 0);
        EXPECT_EQ(std::vector<uint64_t>(out, out + 7), in);
    }
}

TEST(Queue, AboveTheWatermarkObjectsAreStoredButFlagged)
{
    for (auto [create, flags] : kModes) {
        Ring r(8, flags, create);
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
// capacity, for every kind and mode, ring size, starting index (some near the
// 32-bit wrap) and watermark.
TEST(Queue, RandomOperationsMatchAReferenceQueue)
{
    std::mt19937 rng(20240611);
    for (int trial = 0; trial < 96; ++trial) {
        const uint32_t size = 1u << (trial % 7);  // 1 .. 64
        const uint32_t flags = static_cast<uint32_t>(trial / 7) % 4;
        Ring r(size, flags, kKinds[trial / 48].create);
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
            ASSERT_TRUE(settled(r));
        }
    }
}

// Relaxed tail sync, step by step: a finisher ahead of an unfinished thread
// publishes nothing; the last one out publishes both, in reservation order; a
// head too far ahead of the tail waits (yielding) for them.
TEST(Queue, RelaxedTailIsPublishedByTheLastThreadOut)
{
    using namespace tovi::ring;
    // An eighth of 16: 1 object in flight beyond the tail. The single consumer
    // reads the 32-bit copy of the tail.
    Ring r(16, TOVI_RING_F_SC_DEQ, tovi_ring_create_rts);
    set_indexes(r, 0xFFFFFFFEu);
    const Ends e = ends<true>(r);
    auto no_yield = [] { FAIL() << "nothing to wait for"; };
    Claim a{}, b{};
    ASSERT_TRUE((move_head<Sync::kRelaxed, true>(e, 1, a, no_yield)));
    ASSERT_TRUE((move_head<Sync::kRelaxed, true>(e, 3, b, no_yield)));
    const uint64_t objs[4] = {10, 20, 21, 22};
    copy_in(r->slots(), e.mask, a.head, objs, 1);
    copy_in(r->slots(), e.mask, b.head, objs + 1, 3);

    publish<Sync::kRelaxed>(e, b, no_yield);  // b finishes first
    EXPECT_EQ(tovi_ring_count(r), 0u) << "a's slot is not written as far as anyone knows";

    // A third thread finds the head 4 ahead of the tail: it waits for a.
    int yields = 0;
    Claim c{};
    ASSERT_TRUE((move_head<Sync::kRelaxed, true>(e, 1, c, [&] {
        if (++yields == 2)
            publish<Sync::kRelaxed>(e, a, no_yield);
    })));
    EXPECT_EQ(yields, 2);
    EXPECT_EQ(r->prod.tail, 2u) << "a and b published across the wrap";
    uint64_t out[4];
    ASSERT_EQ(tovi_ring_dequeue_burst(r, out, 4), 4u);
    EXPECT_EQ(std::vector<uint64_t>(out, out + 4), std::vector<uint64_t>(objs, objs + 4));

    uint32_t tail = 3;  // the 32-bit copy of the tail never moves back, even across the wrap
    raise_tail(&tail, 0xFFFFFFFFu);
    EXPECT_EQ(tail, 3u);
}
