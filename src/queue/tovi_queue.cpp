// The lock-free ring: creation and the exported enqueue/dequeue calls, each
// dispatching once on the side's mode: single and in-order sides run the
// header's inline core (the one callers inline), relaxed-tail sides the
// core of tovi_queue.hpp.

// The copy loops are a few instructions each; where they straddle a 32-byte
// boundary (depending on where the functions happen to land) the uncontended
// bulk calls take up to a fifth longer. Aligning loops and functions keeps
// the cost from changing with unrelated edits.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("align-loops=32", "align-functions=64")
#endif
#include <cstdlib>
#include <safe_mem_lib.h>

// The exported functions themselves are defined here: no macros for them.
#define TOVI_RING_NO_INLINE

#define TOVI_LOG_SOURCE "tovi_ring"
#include "tovi_log.hpp"
#include "tovi_queue.h"
#include "tovi_queue.hpp"
#include "tovi_sched.h"

namespace {

using tovi::ring::kRelaxedTail;
using tovi::ring::kSingleConsumer;
using tovi::ring::kSingleProducer;

struct Yield {
    void operator()() const { tovi_yield(); }
};

constexpr int32_t kNullRing = -1;
// Creation flags of exactly this value mean both sides single.
constexpr uint32_t kBothSingleAlias = 4;

// The NULL-ring report, out of line so that the callers' fast paths stay
// leaf code; the callers tail-call it.
[[gnu::cold, gnu::noinline]] int32_t null_ring()
{
    TOVI_LOG(tovi::log::kError, "Tovi ring id is NULL.");
    return kNullRing;
}

// The relaxed-tail cores, out of line so that the inline cores of the
// exported calls stay small.
[[gnu::noinline]] int32_t rts_enqueue_bulk(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    return tovi_ring_inl_fixed_result_(tovi::ring::enqueue<true>(r, objs, n, Yield{}), n);
}

[[gnu::noinline]] int32_t rts_dequeue_bulk(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    return tovi::ring::dequeue<true>(r, objs, n, Yield{}) == n ? 0 : TOVI_RING_ENOENT;
}

[[gnu::noinline]] uint32_t rts_enqueue_burst(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    return tovi::ring::enqueue<false>(r, objs, n, Yield{});
}

[[gnu::noinline]] uint32_t rts_dequeue_burst(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    return tovi::ring::dequeue<false>(r, objs, n, Yield{});
}

// The queries read the tails without barriers: a snapshot, possibly stale.
uint32_t prod_tail(const tovi_ring_t *r)
{
    return tovi::ring::published_tail(r, true);
}

uint32_t cons_tail(const tovi_ring_t *r)
{
    return tovi::ring::published_tail(r, false);
}

// `multi` is what a side not flagged single stores as its mode.
tovi_ring_t *create(uint32_t count, uint32_t flags, uint32_t multi)
{
    using tovi::ring::kBlock;
    if (count == 0 || (count & (count - 1)) != 0 || count >= tovi::ring::kMaxCount) {
        TOVI_LOG(tovi::log::kError, "tovi_ring_create:uiCount must be a power of 2 or great than MAX");
        return nullptr;
    }
    size_t bytes = sizeof(tovi_ring_s) + static_cast<size_t>(count) * sizeof(uint64_t);
    bytes = (bytes + kBlock - 1) / kBlock * kBlock;
    auto *r = static_cast<tovi_ring_s *>(aligned_alloc(kBlock, bytes));
    if (r == nullptr)
        return nullptr;
    // Only the header: the slots are written before they are ever read.
    memset_s(r, sizeof *r, 0, sizeof *r);
    if (flags == kBothSingleAlias)
        flags = TOVI_RING_F_SP_ENQ | TOVI_RING_F_SC_DEQ;
    const uint32_t mask = count - 1;
    r->gen.flags = flags;
    r->prod.watermark = count;
    r->prod.sp_enqueue = flags & TOVI_RING_F_SP_ENQ ? kSingleProducer : multi;
    r->prod.size = count;
    r->prod.mask = mask;
    r->cons.sc_dequeue = flags & TOVI_RING_F_SC_DEQ ? kSingleConsumer : multi;
    r->cons.size = count;
    r->cons.mask = mask;
    r->spare.size = count;
    r->spare.mask = mask;
    return r;
}

}  // namespace

extern "C" {

tovi_ring_t *tovi_ring_create(uint32_t count, uint32_t flags)
{
    return create(count, flags, 0);
}

tovi_ring_t *tovi_ring_create_rts(uint32_t count, uint32_t flags)
{
    return create(count, flags, kRelaxedTail);
}

void tovi_ring_delete(tovi_ring_t **ring)
{
    if (ring == nullptr || *ring == nullptr)
        return;
    free(*ring);
    *ring = nullptr;
}

uint32_t tovi_ring_full(const tovi_ring_t *ring)
{
    if (ring == nullptr) [[unlikely]]
        return static_cast<uint32_t>(null_ring());
    return ((cons_tail(ring) - 1 - prod_tail(ring)) & ring->prod.mask) == 0 ? 1 : 0;
}

uint32_t tovi_ring_empty(const tovi_ring_t *ring)
{
    if (ring == nullptr) [[unlikely]]
        return static_cast<uint32_t>(null_ring());
    return prod_tail(ring) == cons_tail(ring) ? 1 : 0;
}

uint32_t tovi_ring_count(const tovi_ring_t *ring)
{
    if (ring == nullptr) [[unlikely]]
        return static_cast<uint32_t>(null_ring());
    return (prod_tail(ring) - cons_tail(ring)) & ring->prod.mask;
}

uint32_t tovi_ring_free_count(const tovi_ring_t *ring)
{
    if (ring == nullptr) [[unlikely]]
        return static_cast<uint32_t>(null_ring());
    return (cons_tail(ring) - 1 - prod_tail(ring)) & ring->prod.mask;
}

uint32_t tovi_ring_size(const tovi_ring_t *ring)
{
    if (ring == nullptr) [[unlikely]]
        return static_cast<uint32_t>(null_ring());
    return ring->prod.mask + 1;
}

int32_t tovi_ring_enqueue(tovi_ring_t *ring, uint64_t obj)
{
    if (ring == nullptr) [[unlikely]]
        return null_ring();
    return tovi_ring_enqueue_bulk(ring, &obj, 1);
}

int32_t tovi_ring_dequeue(tovi_ring_t *ring, uint64_t *obj)
{
    if (ring == nullptr || obj == nullptr) [[unlikely]]
        return null_ring();
    return tovi_ring_dequeue_bulk(ring, obj, 1);
}

int32_t tovi_ring_enqueue_bulk(tovi_ring_t *ring, const uint64_t *objs, uint32_t n)
{
    const uint32_t mode = ring->prod.sp_enqueue;
    if (mode == kRelaxedTail)
        return rts_enqueue_bulk(ring, objs, n);
    return tovi_ring_inl_fixed_result_(tovi_ring_inl_enqueue_(ring, objs, n, mode != kSingleProducer, 1), n);
}

int32_t tovi_ring_dequeue_bulk(tovi_ring_t *ring, uint64_t *objs, uint32_t n)
{
    const uint32_t mode = ring->cons.sc_dequeue;
    if (mode == kRelaxedTail)
        return rts_dequeue_bulk(ring, objs, n);
    return tovi_ring_inl_dequeue_(ring, objs, n, mode != kSingleConsumer, 1) == n ? 0 : TOVI_RING_ENOENT;
}

uint32_t tovi_ring_enqueue_burst(tovi_ring_t *ring, const uint64_t *objs, uint32_t n)
{
    const uint32_t mode = ring->prod.sp_enqueue;
    if (mode == kRelaxedTail)
        return rts_enqueue_burst(ring, objs, n);
    return tovi_ring_inl_enqueue_(ring, objs, n, mode != kSingleProducer, 0);
}

uint32_t tovi_ring_dequeue_burst(tovi_ring_t *ring, uint64_t *objs, uint32_t n)
{
    const uint32_t mode = ring->cons.sc_dequeue;
    if (mode == kRelaxedTail)
        return rts_dequeue_burst(ring, objs, n);
    return tovi_ring_inl_dequeue_(ring, objs, n, mode != kSingleConsumer, 0);
}

void tovi_ring_wait_turn(const uint32_t *tail, uint32_t expected)
{
    tovi::ring::wait_turn(tail, expected, tovi::ring::kSpinsPerYield, Yield{});
}

}  // extern "C"
