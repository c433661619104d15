/**
 * @file
 * A bounded, lock-free FIFO of 64-bit words (pointers or handles) for passing
 * objects between the threads of one process.
 *
 * Each side (producers, consumers) has a head and a tail index. A side first
 * reserves a run of slots by moving its head (compare-and-swap when several
 * threads may use that side, a plain store when only one may), copies the
 * objects and then publishes them by moving its tail, after every earlier
 * reservation of that side has been published.
 *
 * What the ring does not offer: a thread preempted between reservation and
 * publication holds up every later thread of its side, which spins (yielding
 * the processor every 0x8000000 tests) until it resumes. That cost is right
 * for threads pinned one to a processor; where threads outnumber processors
 * use a ring made by tovi_ring_create_rts, whose multi-thread sides do not
 * wait for the thread ahead (see there). A side created single-producer or
 * single-consumer must be used by one thread at a time; the ring does not
 * check it. No lock, allocation or system call other than that yield is
 * made after creation.
 *
 * One slot is always left empty: a ring of `count` slots holds at most
 * `count` - 1 objects. The object arrays given to the calls must not lie
 * inside the ring's own memory.
 *
 * Results: 0 success; -105 no room (ENOBUFS); -122 stored, but the ring is
 * now above its watermark (EDQUOT); -2 nothing to take (ENOENT); -1 a NULL
 * ring where one is tested. Burst results are counts, with bit 31 set when
 * the enqueue left the ring above its watermark. Every ring is created with
 * its watermark at its size, so -122 and bit 31 do not occur with rings made
 * by tovi_ring_create.
 */
#ifndef TOVI_QUEUE_H
#define TOVI_QUEUE_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Flags of tovi_ring_create and tovi_ring_create_rts. The value 4 alone is
 * taken as 3 (both single); other bits are stored and ignored. */
#define TOVI_RING_F_SP_ENQ 0x1u /**< one producer thread at a time */
#define TOVI_RING_F_SC_DEQ 0x2u /**< one consumer thread at a time */

/** Set in a burst enqueue's result when the ring is above its watermark. */
#define TOVI_RING_QUOT_EXCEED 0x80000000u

#define TOVI_RING_ENOBUFS (-105) /**< no room: nothing stored */
#define TOVI_RING_EDQUOT (-122)  /**< stored, but the ring is above its watermark */
#define TOVI_RING_ENOENT (-2)    /**< nothing to take */

/* ---- Layout ----
 *
 * The single-object, bulk and burst calls are inlined into the caller (see
 * the end of this header), so the ring's layout is part of the interface: a
 * change to it is an incompatible change of the library (new SONAME). Four
 * 128-byte blocks, so that the producer's and the consumer's fields never
 * share a cache line (128 bytes covers adjacent-line prefetch pairs), then
 * the slots, one 64-bit word each. Indexes run free in 32 bits; a slot is
 * index AND mask. The static assertions below pin every offset. */

/** Head and tail of a relaxed-tail side: position in the low half, count of
 * reservations (head) or finished ones (tail) in the high half. */
typedef struct tovi_ring_rts_s {
    uint64_t head; /**< reservations: count (high half), position (low half) */
    uint64_t tail; /**< finished ones: count (high half), position (low half) */
} tovi_ring_rts_t;

/** Block 0: the creation flags; the relaxed-tail words, each side's on a
 * 64-byte line of its own (untouched by a default ring). */
struct tovi_ring_general_s {
    uint32_t flags;           /**< creation flags (4 alone stored as 3) */
    uint32_t pad0_;           /**< padding */
    tovi_ring_rts_t rts_prod; /**< relaxed-tail producer head and tail */
    uint8_t pad1_[40];        /**< padding to the next 64-byte line */
    tovi_ring_rts_t rts_cons; /**< relaxed-tail consumer head and tail */
    uint8_t pad2_[48];        /**< padding to the end of the block */
};

/** Block 1: the producer side. sp_enqueue is its mode: 1 single, 0 in-order
 * multi, 0x10 relaxed-tail multi. */
struct tovi_ring_prod_s {
    uint32_t watermark;  /**< level above which an enqueue reports -122; the size */
    uint32_t sp_enqueue; /**< producer mode: 1, 0 or 0x10 */
    uint32_t size;       /**< slot count */
    uint32_t mask;       /**< size - 1 */
    uint32_t head;       /**< next slot index to reserve */
    uint32_t tail;       /**< slots below it are published to consumers */
    uint8_t pad_[104];   /**< padding to the end of the block */
};

/** Block 2: the consumer side. sc_dequeue is its mode: 2 single, 0 in-order
 * multi, 0x10 relaxed-tail multi. */
struct tovi_ring_cons_s {
    uint32_t sc_dequeue; /**< consumer mode: 2, 0 or 0x10 */
    uint32_t size;       /**< slot count */
    uint32_t mask;       /**< size - 1 */
    uint32_t head;       /**< next slot index to reserve */
    uint32_t tail;       /**< slots below it are free again for producers */
    uint8_t pad_[108];   /**< padding to the end of the block */
};

/** Block 3: a copy of the geometry for debuggers and dumps, read by no call;
 * it also keeps the first slot off the consumer's line. */
struct tovi_ring_spare_s {
    uint32_t size;      /**< slot count */
    uint32_t mask;      /**< size - 1 */
    uint32_t zero[2];   /**< always 0 */
    uint8_t pad_[112];  /**< padding to the end of the block */
};

/** A ring: the four blocks, followed in the same allocation by the slots. */
typedef struct tovi_ring_s {
    struct tovi_ring_general_s gen; /**< block 0: flags, relaxed-tail words */
    struct tovi_ring_prod_s prod;   /**< block 1: producer side */
    struct tovi_ring_cons_s cons;   /**< block 2: consumer side */
    struct tovi_ring_spare_s spare; /**< block 3: geometry copy */
} __attribute__((aligned(128))) tovi_ring_t;

/** @cond INTERNAL */
/* Compile-time checks of the layout above. */
#ifdef __cplusplus
#define TOVI_RING_ASSERT(c, m) static_assert(c, m)
#else
#define TOVI_RING_ASSERT(c, m) _Static_assert(c, m)
#endif
TOVI_RING_ASSERT(sizeof(struct tovi_ring_s) == 512, "ring header: four 128-byte blocks");
TOVI_RING_ASSERT(__builtin_offsetof(struct tovi_ring_s, prod) == 128, "producer block");
TOVI_RING_ASSERT(__builtin_offsetof(struct tovi_ring_s, cons) == 256, "consumer block");
TOVI_RING_ASSERT(__builtin_offsetof(struct tovi_ring_s, spare) == 384, "spare block");
TOVI_RING_ASSERT(__builtin_offsetof(struct tovi_ring_general_s, rts_prod) == 8, "relaxed-tail producer");
TOVI_RING_ASSERT(__builtin_offsetof(struct tovi_ring_general_s, rts_cons) == 64, "relaxed-tail consumer");
TOVI_RING_ASSERT(__builtin_offsetof(struct tovi_ring_prod_s, head) == 16 &&
                     __builtin_offsetof(struct tovi_ring_prod_s, tail) == 20,
                 "producer indexes");
TOVI_RING_ASSERT(__builtin_offsetof(struct tovi_ring_cons_s, head) == 12 &&
                     __builtin_offsetof(struct tovi_ring_cons_s, tail) == 16,
                 "consumer indexes");
#undef TOVI_RING_ASSERT
/** @endcond */

/** A ring of `count` slots; count must be a power of two, non-zero and below
 * 0x10000000. NULL for a bad count (logged) or no memory. */
TOVI_API tovi_ring_t *tovi_ring_create(uint32_t count, uint32_t flags);

/** A ring for threads that may lose their processor while they hold a
 * reservation (more threads than processors, no pinning). Same count rules,
 * message and flags as tovi_ring_create; NULL for a bad count (logged) or no
 * memory. A side flagged single behaves as on any ring. A multi-thread side
 * uses relaxed tail sync: a thread that has copied its objects counts itself
 * done and returns without waiting for the threads ahead of it; the last of
 * the unfinished threads to finish publishes the objects of all. So a
 * preempted thread delays only the visibility of objects stored (or the
 * reuse of slots freed) after its own reservation, and the new reservations
 * of its side once they run an eighth of the ring ahead of the published
 * ones; those waiting threads yield every 64 tests. Objects still come out in
 * the order their reservations were made. Every other call works on such a
 * ring with the same results, and tovi_ring_delete frees it. */
TOVI_API tovi_ring_t *tovi_ring_create_rts(uint32_t count, uint32_t flags);

/** Frees *ring when neither ring nor *ring is NULL, and sets *ring to NULL. */
TOVI_API void tovi_ring_delete(tovi_ring_t **ring);

/* Snapshots from the two tails, read without barriers. Each returns
 * 0xFFFFFFFF (logged) for a NULL ring. */

/** 1 when no object fits, else 0. */
TOVI_API uint32_t tovi_ring_full(const tovi_ring_t *ring);
/** 1 when no object is stored, else 0. */
TOVI_API uint32_t tovi_ring_empty(const tovi_ring_t *ring);
/** Objects stored. */
TOVI_API uint32_t tovi_ring_count(const tovi_ring_t *ring);
/** Objects that still fit. */
TOVI_API uint32_t tovi_ring_free_count(const tovi_ring_t *ring);
/** The slot count, one more than the capacity. */
TOVI_API uint32_t tovi_ring_size(const tovi_ring_t *ring);

/** Stores one object: 0, -105 (full), -122 (stored, above watermark), -1 for
 * a NULL ring (logged). */
TOVI_API int32_t tovi_ring_enqueue(tovi_ring_t *ring, uint64_t obj);

/** Takes the oldest object into *obj: 0, -2 (empty), -1 for a NULL ring or
 * a NULL obj (logged as a NULL ring; nothing is taken). */
TOVI_API int32_t tovi_ring_dequeue(tovi_ring_t *ring, uint64_t *obj);

/* The bulk and burst calls are the hot path and test nothing: a NULL ring,
 * or a NULL objs with n > 0, is the caller's fault and crashes. */

/** Stores all n objects or none: 0, -105 (none stored), -122 (all stored,
 * above watermark). */
TOVI_API int32_t tovi_ring_enqueue_bulk(tovi_ring_t *ring, const uint64_t *objs, uint32_t n);

/** Takes exactly n objects or none: 0 or -2 (none taken). */
TOVI_API int32_t tovi_ring_dequeue_bulk(tovi_ring_t *ring, uint64_t *objs, uint32_t n);

/** Stores as many of the n objects as fit: the count stored (possibly 0),
 * with TOVI_RING_QUOT_EXCEED set when above the watermark. */
TOVI_API uint32_t tovi_ring_enqueue_burst(tovi_ring_t *ring, const uint64_t *objs, uint32_t n);

/** Takes up to n objects: the count taken, possibly 0. */
TOVI_API uint32_t tovi_ring_dequeue_burst(tovi_ring_t *ring, uint64_t *objs, uint32_t n);

/** Waits until *tail equals `expected`: the in-order wait of the inline
 * multi-thread calls for the threads of their side ahead of them, spinning
 * and yielding the processor every 0x8000000 tests. The acquire load that
 * ends it pairs with the releasing tail store of the thread ahead. */
TOVI_API void tovi_ring_wait_turn(const uint32_t *tail, uint32_t expected);

/* ---- Inline calls ----
 *
 * tovi_ring_enqueue ... tovi_ring_dequeue_burst are also macros that run the
 * single-thread and in-order multi-thread sides here, in the caller, with
 * the same results; a NULL ring (single-object calls) and relaxed-tail sides
 * go to the exported functions. (tovi_ring_enqueue)(...) or a function
 * pointer reaches the exported function itself.
 *
 * Ordering (each label's partner has the same letter):
 *   H0 -> H1  a multi-thread side's head claim (compare-and-swap, release)
 *             and the next claim's head load (acquire), so that the other
 *             side's tail read after H0 is no older than the one behind the
 *             claim and a count of free or stored slots never wraps.
 *   T0 -> T1  a side's tail store (release) and the other side's tail load
 *             (acquire): the slots below the tail are written (producer) or
 *             read and free again (consumer).
 *   W0 -> W1  in-order: the tail stored by the thread ahead (its T0) and our
 *             wait for it (acquire). */

/** Slots reserved by tovi_ring_inl_claim_: [head, head + n). */
typedef struct tovi_ring_claim_s {
    uint32_t head;  /**< first reserved index */
    uint32_t n;     /**< count reserved */
    uint32_t avail; /**< what the side could take when the reservation was made */
} tovi_ring_claim_t;

/** Storage class of the inline calls below; undefined at the end of them. */
#define TOVI_RING_INL_ static inline __attribute__((always_inline))

/** Reserves up to `want` slots (all or none when `fixed`); 0 when nothing is
 * reserved (a want of 0 reserves nothing and is not refused). `base` added
 * to other_tail - head counts what the side may take. */
TOVI_RING_INL_ int tovi_ring_inl_claim_(uint32_t *headp, const uint32_t *other_tail, uint32_t base, int multi,
                                        int fixed, uint32_t want, tovi_ring_claim_t *c)
{
    /** H0 (pairs with H1) for a multi-thread side; one thread reads its own. */
    uint32_t head = __atomic_load_n(headp, multi ? __ATOMIC_ACQUIRE : __ATOMIC_RELAXED);
    uint32_t avail;
    uint32_t n;
    for (;;) {
        avail = base + __atomic_load_n(other_tail, __ATOMIC_ACQUIRE) - head; /**< T1 (pairs with T0) */
        n = want;
        if (avail < n) {
            if (fixed || avail == 0)
                return 0;
            n = avail;
        }
        if (!multi) {
            __atomic_store_n(headp, head + n, __ATOMIC_RELAXED);
            break;
        }
        /** H1 on success; on failure the head is read again as H0. */
        if (__atomic_compare_exchange_n(headp, &head, head + n, 0, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            break;
    }
    c->head = head;
    c->n = n;
    c->avail = avail;
    return 1;
}

/** Copies n words, four at a time, then two and one (no loop the compiler
 * could turn into a library call). The caller's array never overlaps the
 * slots, which lets the compiler move two words at a time. */
TOVI_RING_INL_ void tovi_ring_inl_copy_(uint64_t *__restrict dst, const uint64_t *__restrict src, uint32_t n)
{
    uint32_t i = 0;
    for (; i + 4 <= n; i += 4) {
        dst[i] = src[i];
        dst[i + 1] = src[i + 1];
        dst[i + 2] = src[i + 2];
        dst[i + 3] = src[i + 3];
    }
    if (n & 2) {
        dst[i] = src[i];
        dst[i + 1] = src[i + 1];
        i += 2;
    }
    if (n & 1)
        dst[i] = src[i];
}

/** Moves n objects between `objs` and the slots from index `head` on,
 * wrapping from the last slot to the first. */
TOVI_RING_INL_ void tovi_ring_inl_move_(tovi_ring_t *r, uint32_t mask, uint32_t head, uint64_t *objs,
                                        uint32_t n, int in)
{
    uint64_t *slots = (uint64_t *)(r + 1);
    const uint32_t idx = head & mask;
    const uint32_t room = mask + 1 - idx;
    const uint32_t run = n <= room ? n : room;
    if (n == 1) { /**< the single-object calls: no run, no wrap */
        if (in)
            slots[idx] = objs[0];
        else
            objs[0] = slots[idx];
        return;
    }
    if (__builtin_expect(n <= room, 1)) {
        /** No wrap: one run of n, unrolled where n is a constant. */
        if (in)
            tovi_ring_inl_copy_(slots + idx, objs, n);
        else
            tovi_ring_inl_copy_(objs, slots + idx, n);
        return;
    }
    if (in) {
        tovi_ring_inl_copy_(slots + idx, objs, run);
        tovi_ring_inl_copy_(slots, objs + run, n - run);
    } else {
        tovi_ring_inl_copy_(objs, slots + idx, run);
        tovi_ring_inl_copy_(objs + run, slots, n - run);
    }
}

/** Publishes [head, head + n): in-order sides first wait for the threads
 * ahead (W1), then T0 (pairs with T1; W0 for the thread behind). */
TOVI_RING_INL_ void tovi_ring_inl_publish_(uint32_t *tail, const tovi_ring_claim_t *c, int multi)
{
    if (multi && __atomic_load_n(tail, __ATOMIC_ACQUIRE) != c->head)
        tovi_ring_wait_turn(tail, c->head);
    __atomic_store_n(tail, c->head + c->n, __ATOMIC_RELEASE);
}

/** Enqueue core: the count stored, TOVI_RING_QUOT_EXCEED set when the ring is
 * then above its watermark; 0 when nothing was reserved. */
TOVI_RING_INL_ uint32_t tovi_ring_inl_enqueue_(tovi_ring_t *r, const uint64_t *objs, uint32_t n, int multi,
                                               int fixed)
{
    const uint32_t mask = r->prod.mask;
    tovi_ring_claim_t c;
    uint32_t result;
    if (!tovi_ring_inl_claim_(&r->prod.head, &r->cons.tail, mask, multi, fixed, n, &c))
        return 0;
    /** They are stored either way; n <= mask < 2^28 leaves bit 31 free. */
    result = c.n;
    if (__builtin_expect((mask + 1) - c.avail + c.n > r->prod.watermark, 0))
        result |= TOVI_RING_QUOT_EXCEED;
    tovi_ring_inl_move_(r, mask, c.head, (uint64_t *)objs, c.n, 1);
    tovi_ring_inl_publish_(&r->prod.tail, &c, multi);
    return result;
}

/** Dequeue core: the count taken, 0 when nothing was reserved. */
TOVI_RING_INL_ uint32_t tovi_ring_inl_dequeue_(tovi_ring_t *r, uint64_t *objs, uint32_t n, int multi, int fixed)
{
    tovi_ring_claim_t c;
    if (!tovi_ring_inl_claim_(&r->cons.head, &r->prod.tail, 0, multi, fixed, n, &c))
        return 0;
    tovi_ring_inl_move_(r, r->cons.mask, c.head, objs, c.n, 0);
    tovi_ring_inl_publish_(&r->cons.tail, &c, multi);
    return c.n;
}

/** Result of an all-or-none enqueue of n objects from the core's result. */
TOVI_RING_INL_ int32_t tovi_ring_inl_fixed_result_(uint32_t result, uint32_t n)
{
    if (result == 0 && n != 0)
        return TOVI_RING_ENOBUFS;
    return (result & TOVI_RING_QUOT_EXCEED) != 0 ? TOVI_RING_EDQUOT : 0;
}

/** @{ */
/** The calls behind the macros of the same name without `inl_`: the
 * single-thread and in-order multi-thread sides run here, the mode tests
 * folding into the caller; the rest go to the exported functions. */
TOVI_RING_INL_ int32_t tovi_ring_inl_enqueue_bulk(tovi_ring_t *r, const uint64_t *objs, uint32_t n)
{
    const uint32_t mode = r->prod.sp_enqueue;
    if (__builtin_expect(mode == 1, 1))
        return tovi_ring_inl_fixed_result_(tovi_ring_inl_enqueue_(r, objs, n, 0, 1), n);
    if (mode == 0)
        return tovi_ring_inl_fixed_result_(tovi_ring_inl_enqueue_(r, objs, n, 1, 1), n);
    return (tovi_ring_enqueue_bulk)(r, objs, n);
}

TOVI_RING_INL_ int32_t tovi_ring_inl_dequeue_bulk(tovi_ring_t *r, uint64_t *objs, uint32_t n)
{
    const uint32_t mode = r->cons.sc_dequeue;
    if (__builtin_expect(mode == 2, 1))
        return tovi_ring_inl_dequeue_(r, objs, n, 0, 1) == n ? 0 : TOVI_RING_ENOENT;
    if (mode == 0)
        return tovi_ring_inl_dequeue_(r, objs, n, 1, 1) == n ? 0 : TOVI_RING_ENOENT;
    return (tovi_ring_dequeue_bulk)(r, objs, n);
}

TOVI_RING_INL_ uint32_t tovi_ring_inl_enqueue_burst(tovi_ring_t *r, const uint64_t *objs, uint32_t n)
{
    const uint32_t mode = r->prod.sp_enqueue;
    if (__builtin_expect(mode == 1, 1))
        return tovi_ring_inl_enqueue_(r, objs, n, 0, 0);
    if (mode == 0)
        return tovi_ring_inl_enqueue_(r, objs, n, 1, 0);
    return (tovi_ring_enqueue_burst)(r, objs, n);
}

TOVI_RING_INL_ uint32_t tovi_ring_inl_dequeue_burst(tovi_ring_t *r, uint64_t *objs, uint32_t n)
{
    const uint32_t mode = r->cons.sc_dequeue;
    if (__builtin_expect(mode == 2, 1))
        return tovi_ring_inl_dequeue_(r, objs, n, 0, 0);
    if (mode == 0)
        return tovi_ring_inl_dequeue_(r, objs, n, 1, 0);
    return (tovi_ring_dequeue_burst)(r, objs, n);
}

TOVI_RING_INL_ int32_t tovi_ring_inl_enqueue(tovi_ring_t *r, uint64_t obj)
{
    if (__builtin_expect(r != 0, 1)) {
        const uint32_t mode = r->prod.sp_enqueue;
        if (__builtin_expect(mode == 1, 1))
            return tovi_ring_inl_fixed_result_(tovi_ring_inl_enqueue_(r, &obj, 1, 0, 1), 1);
        if (mode == 0)
            return tovi_ring_inl_fixed_result_(tovi_ring_inl_enqueue_(r, &obj, 1, 1, 1), 1);
    }
    return (tovi_ring_enqueue)(r, obj);
}

TOVI_RING_INL_ int32_t tovi_ring_inl_dequeue(tovi_ring_t *r, uint64_t *obj)
{
    if (__builtin_expect(r != 0 && obj != 0, 1)) {
        const uint32_t mode = r->cons.sc_dequeue;
        if (__builtin_expect(mode == 2, 1))
            return tovi_ring_inl_dequeue_(r, obj, 1, 0, 1) == 1 ? 0 : TOVI_RING_ENOENT;
        if (mode == 0)
            return tovi_ring_inl_dequeue_(r, obj, 1, 1, 1) == 1 ? 0 : TOVI_RING_ENOENT;
    }
    return (tovi_ring_dequeue)(r, obj);
}
/** @} */

#undef TOVI_RING_INL_

#ifndef TOVI_RING_NO_INLINE
/** @{ */
/** The inline forms of the exported calls of the same name, with the same
 * results. Defining TOVI_RING_NO_INLINE before including this header leaves
 * them out. */
#define tovi_ring_enqueue(ring, obj) tovi_ring_inl_enqueue((ring), (obj))
#define tovi_ring_dequeue(ring, obj) tovi_ring_inl_dequeue((ring), (obj))
#define tovi_ring_enqueue_bulk(ring, objs, n) tovi_ring_inl_enqueue_bulk((ring), (objs), (n))
#define tovi_ring_dequeue_bulk(ring, objs, n) tovi_ring_inl_dequeue_bulk((ring), (objs), (n))
#define tovi_ring_enqueue_burst(ring, objs, n) tovi_ring_inl_enqueue_burst((ring), (objs), (n))
#define tovi_ring_dequeue_burst(ring, objs, n) tovi_ring_inl_dequeue_burst((ring), (objs), (n))
/** @} */
#endif

TOVI_EXTERN_C_END

#endif
