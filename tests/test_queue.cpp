// The lock-free ring, one thread, both kinds (in-order and relaxed-tail
// multi-thread sides): creation, result codes, the quota rule, and random
// operation sequences across the 32-bit wrap checked against a model; then the
// relaxed-tail publication step by step. Threads: test_queue_stress.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.hpp"
#include "tovi_queue.h"
#include "tovi_queue.hpp"

using tovi::test::LogCapture;

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
static void set_indexes(tovi_ring_t *r, uint32_t at)
{
    r->prod.head = r->prod.tail = r->cons.head = r->cons.tail = at;
    for (auto *ends : {&r->gen.rts_prod, &r->gen.rts_cons})
        ends->head = ends->tail = tovi::ring::pos_cnt(at, 0);
}

// Whether every reservation is published, in whichever words each side uses.
static bool settled(const tovi_ring_t *r)
{
    using tovi::ring::kRelaxedTail;
    const auto &g = r->gen;
    return (r->prod.sp_enqueue == kRelaxedTail ? g.rts_prod.head == g.rts_prod.tail : r->prod.head == r->prod.tail) &&
           (r->cons.sc_dequeue == kRelaxedTail ? g.rts_cons.head == g.rts_cons.tail : r->cons.head == r->cons.tail);
}

// The inline call (the header's macro) or the exported function of that name.
#define RING_CALL(exported, fn, ...) ((exported) ? (fn)(__VA_ARGS__) : fn(__VA_ARGS__))

static std::vector<uint64_t> seq(uint64_t from, uint32_t n)
{
    std::vector<uint64_t> v(n);
    std::iota(v.begin(), v.end(), from);
    return v;
}

TEST(Queue, CreateRefusesCountsThatAreNotAPowerOfTwoBelowTheLimitAndDeleteClears)
{
    for (const Kind &k : kKinds) {
        LogCapture cap;
        for (uint32_t count : {0u, 6u, 3u, 0x10000000u, 0x80000000u, 0xFFFFFFFFu})
            EXPECT_EQ(k.create(count, 0), nullptr) << k.name << count;
        EXPECT_EQ(cap.texts(), std::vector<std::string>(6, kBadCount)) << k.name;
        EXPECT_EQ(cap.texts(3).size(), 6u) << k.name;
        cap.clear();
        for (uint32_t count : {1u, 1u << 16}) {
            tovi_ring_t *r = k.create(count, 0);
            EXPECT_NE(r, nullptr) << k.name << count;
            tovi_ring_delete(&r);
            EXPECT_EQ(r, nullptr);
            tovi_ring_delete(&r);  // may be repeated
        }
        tovi_ring_delete(nullptr);
        EXPECT_TRUE(cap.texts().empty()) << k.name;
    }
}

TEST(Queue, CreateLaysOutTheHeaderInFourBlocks)
{
    Ring ring(16, 0x41, tovi_ring_create_rts);  // bit 0 and an unknown bit
    tovi_ring_t *r = ring;
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(r) % 128, 0u);
    EXPECT_EQ(reinterpret_cast<char *>(tovi::ring::slots(r)) - reinterpret_cast<char *>(r), 512);
    EXPECT_EQ(r->gen.flags, 0x41u) << "unknown bits are kept";
    EXPECT_EQ(r->prod.watermark, 16u);
    EXPECT_EQ(r->prod.sp_enqueue, 1u);
    EXPECT_EQ(r->cons.sc_dequeue, tovi::ring::kRelaxedTail);
    EXPECT_EQ((std::vector<uint32_t>{r->prod.size, r->prod.mask, r->cons.size, r->cons.mask, r->spare.size,
                                     r->spare.mask}),
              (std::vector<uint32_t>{16, 15, 16, 15, 16, 15}));
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

TEST(Queue, NullRingIsReportedByTheQueriesAndSingleObjectCalls)
{
    Ring ring(4, 2, tovi_ring_create_rts);
    ASSERT_EQ(tovi_ring_enqueue(ring, 5), 0);
    LogCapture cap;
    uint64_t obj = 7;
    for (auto query : {tovi_ring_full, tovi_ring_empty, tovi_ring_count, tovi_ring_free_count, tovi_ring_size})
        EXPECT_EQ(query(nullptr), 0xFFFFFFFFu);
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

TEST(Queue, EightSlotsHoldSevenAndBulkIsAllOrNothing)
{
    for (auto [create, flags] : kModes) {
        Ring r(8, flags, create);
        uint64_t out[8] = {5, 5, 5, 5, 5, 5, 5, 5};
        EXPECT_EQ(tovi_ring_dequeue(r, out), -2);
        EXPECT_EQ(tovi_ring_dequeue_burst(r, out, 4), 0u);
        EXPECT_EQ(tovi_ring_enqueue_bulk(r, out, 0), 0);  // zero objects: nothing to move, nothing refused
        EXPECT_EQ(tovi_ring_dequeue_bulk(r, out, 0), 0);
        for (uint64_t obj : seq(100, 7))
            EXPECT_EQ(tovi_ring_enqueue(r, obj), 0);
        EXPECT_EQ(tovi_ring_full(r), 1u);
        EXPECT_EQ(tovi_ring_enqueue(r, 999), -105);
        EXPECT_EQ(tovi_ring_dequeue_bulk(r, out, 8), -2);
        EXPECT_EQ(out[0], 5u) << "a refused dequeue writes nothing";
        ASSERT_EQ(tovi_ring_dequeue_bulk(r, out, 4), 0);
        EXPECT_EQ(std::vector<uint64_t>(out, out + 4), seq(100, 4));
        ASSERT_EQ(tovi_ring_dequeue(r, out), 0);  // 2 stored, 5 free
        auto in = seq(200, 6);
        EXPECT_EQ(tovi_ring_enqueue_bulk(r, in.data(), 6), -105);
        EXPECT_EQ(tovi_ring_count(r), 2u) << "a refused bulk stores nothing";
        EXPECT_EQ(tovi_ring_enqueue_burst(r, in.data(), 6), 5u);
        EXPECT_EQ(tovi_ring_enqueue_burst(r, in.data(), 6), 0u);
        EXPECT_TRUE(settled(r)) << "a refused enqueue reserves nothing";
        // Out in order, across the end of the slots.
        EXPECT_EQ(tovi_ring_dequeue_burst(r, out, 8), 7u);
        EXPECT_EQ(std::vector<uint64_t>(out, out + 7), (std::vector<uint64_t>{105, 106, 200, 201, 202, 203, 204}));
        EXPECT_EQ(tovi_ring_empty(r), 1u);
    }
}

TEST(Queue, WaitingForEarlierReservationsYieldsAfterEachRoundOfTests)
{
    uint32_t tail = 5;
    int yields = 0;
    tovi::ring::wait_turn(&tail, 5, 1000, [&] { ++yields; });
    EXPECT_EQ(yields, 0) << "nothing to wait for";
    tovi::ring::wait_turn(&tail, 9, 1000, [&] {
        if (++yields == 3)
            tail = 9;  // the thread ahead publishes during the third yield
    });
    EXPECT_EQ(yields, 3);
}

// Random operation sequences against a double-ended queue with the same
// capacity, for every kind and mode, ring size (1 to 64), starting index (half
// of them just short of the 32-bit wrap) and watermark (the quota rule counts
// the kept-empty slot; no room beats the quota; -122 and bit 31 still store),
// through the inline calls and the exported functions.
TEST(Queue, RandomOperationsMatchAReferenceQueue)
{
    std::mt19937 rng(20240611);
    for (int trial = 0; trial < 96; ++trial) {
        const uint32_t size = 1u << (trial % 7);
        Ring r(size, static_cast<uint32_t>(trial / 7) % 4, kKinds[trial / 48].create);
        ASSERT_NE(r.r, nullptr);
        const uint32_t start = trial % 2 ? 0xFFFFFFFFu - rng() % 200 : rng();
        set_indexes(r, start);
        const uint32_t watermark = trial % 3 ? size : 1 + rng() % size;
        r->prod.watermark = watermark;
        const bool exported = (trial / 3) % 2 != 0;
        std::deque<uint64_t> model;
        uint64_t next = 1;
        uint32_t taken = 0;
        std::vector<uint64_t> buf(size + 3);
        for (int step = 0; step < 400; ++step) {
            const uint32_t used = static_cast<uint32_t>(model.size());
            const uint32_t room = size - 1 - used;
            const uint32_t n = rng() % (size + 3);
            const auto above = [&](uint32_t stored) { return used + 1 + stored > watermark; };
            const auto in = seq(next, std::max(n, 1u));
            const auto put = [&](uint32_t stored) { model.insert(model.end(), in.begin(), in.begin() + stored); };
            const auto take = [&](uint32_t got) {  // whether the objects came in the model's order
                const bool same = std::equal(buf.begin(), buf.begin() + got, model.begin());
                model.erase(model.begin(), model.begin() + got);
                return taken += got, same;
            };
            SCOPED_TRACE("trial " + std::to_string(trial) + " step " + std::to_string(step) + " n " +
                         std::to_string(n));
            switch (rng() % 6) {
            case 0:
                ASSERT_EQ(RING_CALL(exported, tovi_ring_enqueue, r, in[0]), room == 0 ? -105 : above(1) ? -122 : 0);
                put(room == 0 ? 0 : 1);
                break;
            case 1:
                ASSERT_EQ(RING_CALL(exported, tovi_ring_dequeue, r, buf.data()), model.empty() ? -2 : 0);
                ASSERT_TRUE(take(model.empty() ? 0 : 1));
                break;
            case 2:
                ASSERT_EQ(RING_CALL(exported, tovi_ring_enqueue_bulk, r, in.data(), n), n > room ? -105 : above(n) ? -122 : 0);
                put(n > room ? 0 : n);
                break;
            case 3: {
                const uint32_t stored = std::min(n, room);  // with nothing stored the quota rule still runs
                ASSERT_EQ(RING_CALL(exported, tovi_ring_enqueue_burst, r, in.data(), n),
                          (stored == 0 && n != 0) || !above(stored) ? stored : stored | 0x80000000u);
                put(stored);
                break;
            }
            case 4:
                ASSERT_EQ(RING_CALL(exported, tovi_ring_dequeue_bulk, r, buf.data(), n), n > used ? -2 : 0);
                ASSERT_TRUE(take(n > used ? 0 : n));
                break;
            default:
                ASSERT_EQ(RING_CALL(exported, tovi_ring_dequeue_burst, r, buf.data(), n), std::min(n, used));
                ASSERT_TRUE(take(std::min(n, used)));
                break;
            }
            next += in.size();
            ASSERT_EQ(tovi_ring_count(r), model.size());
            ASSERT_EQ(tovi_ring_free_count(r), size - 1 - model.size());
            ASSERT_EQ(tovi_ring_empty(r), model.empty() ? 1u : 0u);
            ASSERT_EQ(tovi_ring_full(r), model.size() == size - 1 ? 1u : 0u);
            ASSERT_EQ(tovi::ring::published_tail(r, false), start + taken);
            ASSERT_EQ(tovi::ring::published_tail(r, true), start + taken + static_cast<uint32_t>(model.size()));
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
    // An eighth of 16: 1 object in flight beyond the tail; the single consumer reads the 32-bit copy.
    Ring r(16, TOVI_RING_F_SC_DEQ, tovi_ring_create_rts);
    set_indexes(r, 0xFFFFFFFEu);
    const Ends e = ends<true>(r);
    auto no_yield = [] { FAIL() << "nothing to wait for"; };
    Claim a{}, b{};
    ASSERT_TRUE((move_head<true>(e, 1, a, no_yield)));
    ASSERT_TRUE((move_head<true>(e, 3, b, no_yield)));
    uint64_t objs[4] = {10, 20, 21, 22};
    tovi_ring_inl_move_(r, e.mask, a.head, objs, 1, 1);
    tovi_ring_inl_move_(r, e.mask, b.head, objs + 1, 3, 1);

    publish(e, b);  // b finishes first
    EXPECT_EQ(tovi_ring_count(r), 0u) << "a's slot is not written as far as anyone knows";

    // A third thread finds the head 4 ahead of the tail: it waits for a.
    int yields = 0;
    Claim c{};
    ASSERT_TRUE((move_head<true>(e, 1, c, [&] {
        if (++yields == 2)
            publish(e, a);
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
