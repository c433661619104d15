// The lock-free ring: creation and the exported enqueue/dequeue calls, each
// dispatching once on the side's single/multi flag to a specialised core.
#include <cstdlib>
#include <safe_mem_lib.h>

#define TOVI_LOG_SOURCE "tovi_ring"
#include "tovi_log.hpp"
#include "tovi_queue.h"
#include "tovi_queue.hpp"
#include "tovi_sched.h"

namespace {

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

// Result of an all-or-none enqueue of n objects from the core's result.
[[gnu::always_inline]] inline int32_t fixed_enqueue_result(uint32_t result, uint32_t n)
{
    if (result == 0 && n != 0)
        return TOVI_RING_ENOBUFS;
    return (result & TOVI_RING_QUOT_EXCEED) != 0 ? TOVI_RING_EDQUOT : 0;
}

// All-or-none results from the cores' results.
template <bool kSingle>
[[gnu::always_inline]] inline int32_t enqueue_bulk(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    return fixed_enqueue_result(tovi::ring::enqueue<kSingle, true>(r, objs, n, Yield{}), n);
}

template <bool kSingle>
[[gnu::always_inline]] inline int32_t dequeue_bulk(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    return tovi::ring::dequeue<kSingle, true>(r, objs, n, Yield{}) == n ? 0 : TOVI_RING_ENOENT;
}

// The multi-producer/consumer paths are kept out of line and tail-called, so
// that the single paths inlined into the exported calls need no saved
// registers: they are a few loads and stores.
[[gnu::noinline]] int32_t mp_enqueue_one(tovi_ring_s *r, uint64_t obj)
{
    return enqueue_bulk<false>(r, &obj, 1);
}

[[gnu::noinline]] int32_t mc_dequeue_one(tovi_ring_s *r, uint64_t *obj)
{
    return dequeue_bulk<false>(r, obj, 1);
}

[[gnu::noinline]] int32_t mp_enqueue_bulk(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    return enqueue_bulk<false>(r, objs, n);
}

[[gnu::noinline]] int32_t mc_dequeue_bulk(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    return dequeue_bulk<false>(r, objs, n);
}

[[gnu::noinline]] uint32_t mp_enqueue_burst(tovi_ring_s *r, const uint64_t *objs, uint32_t n)
{
    return tovi::ring::enqueue<false, false>(r, objs, n, Yield{});
}

[[gnu::noinline]] uint32_t mc_dequeue_burst(tovi_ring_s *r, uint64_t *objs, uint32_t n)
{
    return tovi::ring::dequeue<false, false>(r, objs, n, Yield{});
}

// The queries read the tails without barriers: a snapshot, possibly stale.
uint32_t prod_tail(const tovi_ring_t *r)
{
    return tovi::ring::load_relaxed(&r->prod.tail);
}

uint32_t cons_tail(const tovi_ring_t *r)
{
    return tovi::ring::load_relaxed(&r->cons.tail);
}

}  // namespace

extern "C" {

tovi_ring_t *tovi_ring_create(uint32_t count, uint32_t flags)
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
    r->prod.sp_enqueue = flags & TOVI_RING_F_SP_ENQ ? kSingleProducer : 0;
    r->prod.size = count;
    r->prod.mask = mask;
    r->cons.sc_dequeue = flags & TOVI_RING_F_SC_DEQ ? kSingleConsumer : 0;
    r->cons.size = count;
    r->cons.mask = mask;
    r->spare.size = count;
    r->spare.mask = mask;
    return r;
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
        return mp_enqueue_one(ring, obj);
    return enqueue_bulk<true>(ring, &obj, 1);
}

int32_t tovi_ring_dequeue(tovi_ring_t *ring, uint64_t *obj)
{
    if (ring == nullptr) [[unlikely]]
        return null_ring();
    if (ring->cons.sc_dequeue != kSingleConsumer)
        return mc_dequeue_one(ring, obj);
    return dequeue_bulk<true>(ring, obj, 1);
}

int32_t tovi_ring_enqueue_bulk(tovi_ring_t *ring, const uint64_t *objs, uint32_t n)
{
    if (ring->prod.sp_enqueue != kSingleProducer)
        return mp_enqueue_bulk(ring, objs, n);
    return enqueue_bulk<true>(ring, objs, n);
}

int32_t tovi_ring_dequeue_bulk(tovi_ring_t *ring, uint64_t *objs, uint32_t n)
{
    if (ring->cons.sc_dequeue != kSingleConsumer)
        return mc_dequeue_bulk(ring, objs, n);
    return dequeue_bulk<true>(ring, objs, n);
}

uint32_t tovi_ring_enqueue_burst(tovi_ring_t *ring, const uint64_t *objs, uint32_t n)
{
    if (ring->prod.sp_enqueue != kSingleProducer)
        return mp_enqueue_burst(ring, objs, n);
    return tovi::ring::enqueue<true, false>(ring, objs, n, Yield{});
}

uint32_t tovi_ring_dequeue_burst(tovi_ring_t *ring, uint64_t *objs, uint32_t n)
{
    if (ring->cons.sc_dequeue != kSingleConsumer)
        return mc_dequeue_burst(ring, objs, n);
    return tovi::ring::dequeue<true, false>(ring, objs, n, Yield{});
}

}  // extern "C"
