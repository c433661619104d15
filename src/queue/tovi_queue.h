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
 * `count` - 1 objects.
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

#define TOVI_RING_ENOBUFS (-105)  /**< no room for the objects */
#define TOVI_RING_EDQUOT (-122)  /**< stored, but the ring is above its watermark */
#define TOVI_RING_ENOENT (-2)  /**< nothing to take */

/** A ring of 64-bit objects; its layout is private. */
typedef struct tovi_ring_s tovi_ring_t;

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

TOVI_EXTERN_C_END

#endif
