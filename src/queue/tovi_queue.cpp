// The lock-free ring: creation and the exported enqueue/dequeue calls, each
// dispatching once on the side's mode to a specialised core.

// The copy loops are a few instructions each; where they straddle a 32-byte
// boundary (depending on where the functions happen to land) the uncontended
// bulk calls take up to a fifth longer. Aligning loops and functions keeps
// the cost from changing with unrelated edits.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("align-loops=32", "align-functions=64")
#endif
#include <cstdlib>
#include <safe_mem_lib.h>

#define TOVI_LOG_SOURCE "tovi_ring"
#include "tovi_log.hpp"
#include "tovi_queue.h"
#include "tovi_queue.hpp"
#include "tovi_sched.h"

namespace {

using tovi::ring::kRelaxedTail;
using tovi::ring::kSingleConsumer;
using tovi::ring::kSingleProducer;
using tovi::ring::Sync;

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

// Result of an all-or-none enqueue of n objects from the core's result.
[[gnu::always_inline]] inline int32_t fixed_enqueue_result(uint32_t result, uint32_t n)
{
    if (result == 0 && n != 0)
        return TOVI_RING_ENOBUFS;
    return (result & TOVI_RING_QUOT_EXCEED) != 0 ? TOVI_RING_EDQUOT : 0;
}

// All-or-none results from the cores' results.
template <Sync kSync>
[[gnu::always_inline]] inline int32_t enqueue_bulk(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    return fixed_enqueue_result(tovi::ring::enqueue<kSync, true>(r, objs, n, Yield{}), n);
}

template <Sync kSync>
[[gnu::always_inline]] inline int32_t dequeue_bulk(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    return tovi::ring::dequeue<kSync, true>(r, objs, n, Yield{}) == n ? 0 : TOVI_RING_ENOENT;
}

// The multi-thread paths are kept out of line and tail-called, so that the
// single paths inlined into the exported calls need no saved registers and
// stay as they are: a few loads and stores. The in-order core is inlined into
// each multi_* below; a relaxed-tail side is told there by its mode and
// tail-called to a core of its own.
template <Sync kSync>
[[gnu::noinline]] int32_t enqueue_one(tovi_ring_s *r, uint64_t obj)
{
    return enqueue_bulk<kSync>(r, &obj, 1);
}

template <Sync kSync>
[[gnu::noinline]] int32_t dequeue_one(tovi_ring_s *r, uint64_t *obj)
{
    return dequeue_bulk<kSync>(r, obj, 1);
}

template <Sync kSync>
[[gnu::noinline]] int32_t enqueue_fixed(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    return enqueue_bulk<kSync>(r, objs, n);
}

template <Sync kSync>
[[gnu::noinline]] int32_t dequeue_fixed(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    return dequeue_bulk<kSync>(r, objs, n);
}

template <Sync kSync>
[[gnu::noinline]] uint32_t enqueue_variable(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    return tovi::ring::enqueue<kSync, false>(r, objs, n, Yield{});
}

template <Sync kSync>
[[gnu::noinline]] uint32_t dequeue_variable(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    return tovi::ring::dequeue<kSync, false>(r, objs, n, Yield{});
}

[[gnu::noinline]] int32_t multi_enqueue_one(tovi_ring_s *r, uint64_t obj)
{
    if (r->prod.sp_enqueue == kRelaxedTail)
        return enqueue_one<Sync::kRelaxed>(r, obj);
    return enqueue_bulk<Sync::kInOrder>(r, &obj, 1);
}

[[gnu::noinline]] int32_t multi_dequeue_one(tovi_ring_s *r, uint64_t *obj)
{
    if (r->cons.sc_dequeue == kRelaxedTail)
        return dequeue_one<Sync::kRelaxed>(r, obj);
    return dequeue_bulk<Sync::kInOrder>(r, obj, 1);
}

[[gnu::noinline]] int32_t multi_enqueue_bulk(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    if (r->prod.sp_enqueue == kRelaxedTail)
        return enqueue_fixed<Sync::kRelaxed>(r, objs, n);
    return enqueue_bulk<Sync::kInOrder>(r, objs, n);
}

[[gnu::noinline]] int32_t multi_dequeue_bulk(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    if (r->cons.sc_dequeue == kRelaxedTail)
        return dequeue_fixed<Sync::kRelaxed>(r, objs, n);
    return dequeue_bulk<Sync::kInOrder>(r, objs, n);
}

[[gnu::noinline]] uint32_t multi_enqueue_burst(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    if (r->prod.sp_enqueue == kRelaxedTail)
        return enqueue_variable<Sync::kRelaxed>(r, objs, n);
    return tovi::ring::enqueue<Sync::kInOrder, false>(r, objs, n, Yield{});
}

[[gnu::noinline]] uint32_t multi_dequeue_burst(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    if (r->cons.sc_dequeue == kRelaxedTail)
        return dequeue_variable<Sync::kRelaxed>(r, objs, n);
    return tovi::ring::dequeue<Sync::kInOrder, false>(r, objs, n, Yield{});
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
    if (ring->prod.sp_enqueue != kSingleProducer)
        return multi_enqueue_one(ring, obj);
    return enqueue_bulk<Sync::kSingle>(ring, &obj, 1);
}

int32_t tovi_ring_dequeue(tovi_ring_t *ring, uint64_t *obj)
{
    if (ring == nullptr || obj == nullptr) [[unlikely]]
        return null_ring();
    if (ring->cons.sc_dequeue != kSingleConsumer)
        return multi_dequeue_one(ring, obj);
    return dequeue_bulk<Sync::kSingle>(ring, obj, 1);
}

int32_t tovi_ring_enqueue_bulk(tovi_ring_t *ring, const uint64_t *objs, uint32_t n)
{
    if (ring->prod.sp_enqueue != kSingleProducer)
        return multi_enqueue_bulk(ring, objs, n);
    return enqueue_bulk<Sync::kSingle>(ring, objs, n);
}

int32_t tovi_ring_dequeue_bulk(tovi_ring_t *ring, uint64_t *objs, uint32_t n)
{
    if (ring->cons.sc_dequeue != kSingleConsumer)
        return multi_dequeue_bulk(ring, objs, n);
    return dequeue_bulk<Sync::kSingle>(ring, objs, n);
}

uint32_t tovi_ring_enqueue_burst(tovi_ring_t *ring, const uint64_t *objs, uint32_t n)
{
    if (ring->prod.sp_enqueue != kSingleProducer)
        return multi_enqueue_burst(ring, objs, n);
    return tovi::ring::enqueue<Sync::kSingle, false>(ring, objs, n, Yield{});
}

uint32_t tovi_ring_dequeue_burst(tovi_ring_t *ring, uint64_t *objs, uint32_t n)
{
    if (ring->cons.sc_dequeue != kSingleConsumer)
        return multi_dequeue_burst(ring, objs, n);
    return tovi::ring::dequeue<Sync::kSingle, false>(ring, objs, n, Yield{});
}

}  // extern "C"
