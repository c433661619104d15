// The ring's layout and its enqueue/dequeue cores, shared by the exported
// functions and the tests.
//
// Invariants, all in free-running 32-bit arithmetic (indexes wrap):
//   cons.tail <= cons.head <= prod.tail <= prod.head <= cons.tail + mask
// Slots [cons.tail, prod.tail) hold published objects; [prod.tail, prod.head)
// are being written and [cons.tail, cons.head) being read. A slot is index
// AND mask. One slot stays empty so that a full ring is told from an empty
// one by the tails alone.
//
// Ordering: a side publishes with a release store of its tail and the other
// side reads that tail with an acquire load; these carry the slot contents
// across threads. The processor fences sit where the design puts its
// barriers: between reading our head and the other side's tail (a tail read
// older than the head would make the free or used count wrap to a huge
// value), between the reservation and the slot accesses, and between the
// slot accesses and the tail store.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tovi_arch.hpp"
#include "tovi_queue.h"

namespace tovi::ring {

// Producer and consumer fields never share a cache line (128 bytes covers
// adjacent-line prefetch pairs).
inline constexpr uint32_t kBlock = 128;
inline constexpr uint32_t kMaxCount = 0x10000000;
// Tests of the tail before a waiting producer or consumer yields.
inline constexpr uint32_t kSpinsPerYield = 0x8000000;
// Values of sp_enqueue and sc_dequeue that make a side single-threaded.
inline constexpr uint32_t kSingleProducer = 1;
inline constexpr uint32_t kSingleConsumer = 2;

struct alignas(kBlock) General {
    uint32_t flags;
};

struct alignas(kBlock) Producer {
    uint32_t watermark;
    uint32_t sp_enqueue;
    uint32_t size;
    uint32_t mask;
    uint32_t head;
    uint32_t tail;
};

struct alignas(kBlock) Consumer {
    uint32_t sc_dequeue;
    uint32_t size;
    uint32_t mask;
    uint32_t head;
    uint32_t tail;
};

// Read by no operation: a third copy of the geometry for debuggers and dumps.
// It also keeps the first slot off the consumer's line.
struct alignas(kBlock) Spare {
    uint32_t size;
    uint32_t mask;
    uint32_t zero[2];
};

}  // namespace tovi::ring

struct tovi_ring_s {
    tovi::ring::General gen;
    tovi::ring::Producer prod;
    tovi::ring::Consumer cons;
    tovi::ring::Spare spare;

    // The slots follow the header in the same heap block.
    uint64_t *slots() { return reinterpret_cast<uint64_t *>(this + 1); }
};

static_assert(sizeof(tovi_ring_s) == 4 * tovi::ring::kBlock);
static_assert(offsetof(tovi_ring_s, prod) == tovi::ring::kBlock);
static_assert(offsetof(tovi_ring_s, cons) == 2 * tovi::ring::kBlock);

namespace tovi::ring {

#define TOVI_RING_INLINE [[gnu::always_inline]] inline

TOVI_RING_INLINE uint32_t load_relaxed(const uint32_t *p)
{
    return __atomic_load_n(p, __ATOMIC_RELAXED);
}

TOVI_RING_INLINE uint32_t load_acquire(const uint32_t *p)
{
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}

TOVI_RING_INLINE void store_relaxed(uint32_t *p, uint32_t v)
{
    __atomic_store_n(p, v, __ATOMIC_RELAXED);
}

TOVI_RING_INLINE void store_release(uint32_t *p, uint32_t v)
{
    __atomic_store_n(p, v, __ATOMIC_RELEASE);
}

// Waits until *tail equals `expected`, that is until every earlier
// reservation of the same side is published: tests it `round` times, then
// calls `yield` and starts another round. The acquire load pairs with the
// release store of the thread ahead, so what it published is ours to
// republish.
template <class Yield>
TOVI_RING_INLINE void wait_turn(const uint32_t *tail, uint32_t expected, uint32_t round, Yield yield)
{
    uint32_t tests = 0;
    while (load_acquire(tail) != expected) {
        if (++tests == round) {
            yield();
            tests = 0;
        } else {
            arch::cpu_relax();
        }
    }
}

// Copies a run of n objects four at a time, the remainder one by one. The
// remainder is a switch, not a loop, so that the compiler does not turn it
// into a library call and the callers stay leaf code.
TOVI_RING_INLINE void copy_run(uint64_t *__restrict dst, const uint64_t *__restrict src, size_t n)
{
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        dst[i] = src[i];
        dst[i + 1] = src[i + 1];
        dst[i + 2] = src[i + 2];
        dst[i + 3] = src[i + 3];
    }
    switch (n - i) {
    case 3:
        dst[i + 2] = src[i + 2];
        [[fallthrough]];
    case 2:
        dst[i + 1] = src[i + 1];
        [[fallthrough]];
    case 1:
        dst[i] = src[i];
        break;
    default:
        break;
    }
}

// Copies n objects into the slots from index `head` on, wrapping from the
// last slot to the first. One copy loop serves both runs of a wrapped copy,
// which keeps the code (and the registers it needs) small.
TOVI_RING_INLINE void copy_in(uint64_t *slots, uint32_t mask, uint32_t head, const uint64_t *objs,
                              uint32_t n)
{
    const uint32_t idx = head & mask;
    if (n == 1) {  // the single-object calls: no run, no wrap
        slots[idx] = objs[0];
        return;
    }
    const uint32_t room = mask + 1 - idx;  // slots up to the last one
    uint32_t run = n <= room ? n : room;
    uint64_t *dst = slots + idx;
    for (;;) {
        copy_run(dst, objs, run);
        n -= run;
        if (n == 0) [[likely]]
            return;
        objs += run;
        dst = slots;
        run = n;
    }
}

// Copies n objects out of the slots from index `head` on, with the same wrap.
TOVI_RING_INLINE void copy_out(const uint64_t *slots, uint32_t mask, uint32_t head, uint64_t *objs,
                               uint32_t n)
{
    const uint32_t idx = head & mask;
    if (n == 1) {
        objs[0] = slots[idx];
        return;
    }
    const uint32_t room = mask + 1 - idx;
    uint32_t run = n <= room ? n : room;
    const uint64_t *src = slots + idx;
    for (;;) {
        copy_run(objs, src, run);
        n -= run;
        if (n == 0) [[likely]]
            return;
        objs += run;
        src = slots;
        run = n;
    }
}

// Stores up to `want` objects: all or none when kFixed, as many as fit
// otherwise. Returns the count stored, with TOVI_RING_QUOT_EXCEED set when
// the ring is then above its watermark; 0 when nothing was reserved.
template <bool kSingle, bool kFixed, class Yield>
TOVI_RING_INLINE uint32_t enqueue(tovi_ring_s *r, const uint64_t *objs, uint32_t want, Yield yield)
{
    const uint32_t mask = r->prod.mask;
    uint32_t head;
    uint32_t free;
    uint32_t n;
    for (;;) {
        n = want;
        head = load_relaxed(&r->prod.head);
        // Our head before the consumer tail (see the top of this file).
        arch::fence_acquire();
        // Pairs with the consumer's release of cons.tail: the slots below it
        // have been read and may be overwritten.
        free = mask + load_acquire(&r->cons.tail) - head;
        if (free < n) [[unlikely]] {
            if (kFixed || free == 0)
                return 0;
            n = free;
        }
        if constexpr (kSingle) {
            store_relaxed(&r->prod.head, head + n);
            break;
        } else {
            // Claims [head, head + n) against the other producers' claims;
            // fails and retries when one of them moved the head first. The
            // slots are ordered by the fences, not by this exchange.
            if (__atomic_compare_exchange_n(&r->prod.head, &head, head + n, false, __ATOMIC_ACQ_REL,
                                            __ATOMIC_RELAXED))
                break;
        }
    }
    // Quota: whether the ring, with our n objects in, stands above its
    // watermark; they are stored either way. n <= mask < 2^28 leaves bit 31
    // free for the verdict. It uses only values already read, so it is
    // worked out before the copy, which then has more registers to itself.
    const uint32_t result = (mask + 1) - free + n > r->prod.watermark ? n | TOVI_RING_QUOT_EXCEED : n;
    // The consumer tail read above before our writes into the slots it freed.
    arch::fence_acquire();
    copy_in(r->slots(), mask, head, objs, n);
    // The slot writes before the tail store that publishes them.
    arch::fence_release();
    if constexpr (!kSingle)
        wait_turn(&r->prod.tail, head, kSpinsPerYield, yield);
    // Pairs with the consumer's acquire load of prod.tail.
    store_release(&r->prod.tail, head + n);
    return result;
}

// Takes up to `want` objects: all or none when kFixed, as many as present
// otherwise. Returns the count taken.
template <bool kSingle, bool kFixed, class Yield>
TOVI_RING_INLINE uint32_t dequeue(tovi_ring_s *r, uint64_t *objs, uint32_t want, Yield yield)
{
    const uint32_t mask = r->cons.mask;
    uint32_t head;
    uint32_t n;
    for (;;) {
        n = want;
        head = load_relaxed(&r->cons.head);
        // Our head before the producer tail (see the top of this file).
        arch::fence_acquire();
        // Pairs with the producer's release of prod.tail: the slots below it
        // are written.
        const uint32_t entries = load_acquire(&r->prod.tail) - head;
        if (entries < n) [[unlikely]] {
            if (kFixed || entries == 0)
                return 0;
            n = entries;
        }
        if constexpr (kSingle) {
            store_relaxed(&r->cons.head, head + n);
            break;
        } else {
            // Claims [head, head + n) against the other consumers' claims.
            if (__atomic_compare_exchange_n(&r->cons.head, &head, head + n, false, __ATOMIC_ACQ_REL,
                                            __ATOMIC_RELAXED))
                break;
        }
    }
    // The producer tail read above before our reads of the slots it published.
    arch::fence_acquire();
    copy_out(r->slots(), mask, head, objs, n);
    // The slot reads before the tail store that hands the slots back.
    arch::fence_release();
    if constexpr (!kSingle)
        wait_turn(&r->cons.tail, head, kSpinsPerYield, yield);
    // Pairs with the producer's acquire load of cons.tail.
    store_release(&r->cons.tail, head + n);
    return n;
}

#undef TOVI_RING_INLINE

}  // namespace tovi::ring
