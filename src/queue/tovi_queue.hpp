// The relaxed-tail core of the ring (rings of tovi_ring_create_rts), shared
// by the exported functions and the tests. Single and in-order sides run the
// inline core of tovi_queue.h; both cores copy with its tovi_ring_inl_move_.
//
// Invariants, all in free-running 32-bit arithmetic (indexes wrap):
//   cons.tail <= cons.head <= prod.tail <= prod.head <= cons.tail + mask
// Slots [cons.tail, prod.tail) hold published objects; [prod.tail, prod.head)
// are being written and [cons.tail, cons.head) being read. A slot is index
// AND mask. One slot stays empty so that a full ring is told from an empty
// one by the tails alone. On a relaxed-tail side read head and tail as the
// positions in its 64-bit words.
//
// Both sides run one routine, transfer(): move the head (reserve), copy,
// publish (move the tail). They differ only in which fields they use: the
// producer counts free slots as mask + cons.tail - prod.head, the consumer
// stored objects as prod.tail - cons.head. A relaxed-tail side keeps its head
// and tail as 64-bit words in the general block, a position and a count each;
// a thread that finishes counts itself into the tail, and the last one out
// moves the tail position to the head, so nobody waits for the thread ahead.
// The other side reads the tail word when it is relaxed-tail too; when it is
// single it runs the single code, which reads the 32-bit tail, so then the
// 32-bit tail is kept as a copy that only grows. The 32-bit head of a
// relaxed-tail side stays unused.
//
// Ordering. The labels pair each atomic or fence with its partner:
//   H1 -> H0   the head a thread claims (release) and the head the next
//              thread of that side reads (acquire): the other side's tail
//              read after H0 is then no older than the one behind that claim,
//              so a free or used count cannot wrap to a huge value.
//   T0 -> T1   a side's tail store (release) and the other side's tail load
//              (acquire): the slots below the tail are written (producer) or
//              read and free again (consumer). T0 is the R0 that moves the
//              position, and for a single other side also the raise of the
//              32-bit copy.
//   F0         after the reservation, before the slot accesses: orders the
//              T1 load and our claim before them.
//   F1         after the slot accesses, before T0: orders them before the
//              publication.
//   R0 <-> R0  each finisher counts itself into the tail word with an
//              acquire-release compare-and-swap, so the last one out has
//              acquired every earlier finisher's slot accesses before its T0.
//   W0 -> W1   in-order sides (tovi_queue.h): the tail stored by the thread
//              ahead and wait_turn's load.
// On x86 F0 and F1 only stop the compiler; on aarch64 they are barriers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tovi_arch.hpp"
#include "tovi_queue.h"

namespace tovi::ring {

// The header's blocks (the layout is in tovi_queue.h, part of the interface).
inline constexpr uint32_t kBlock = 128;
inline constexpr uint32_t kMaxCount = 0x10000000;
// In-order sides: tests of the tail before a waiting producer or consumer yields.
inline constexpr uint32_t kSpinsPerYield = 0x8000000;
// Relaxed-tail sides: tests before a thread whose head ran too far ahead of
// the tail yields. Short, because the thread it waits for has usually lost its
// processor: the point of the mode is to give it back quickly.
inline constexpr uint32_t kRelaxedSpinsPerYield = 64;
// Values of sp_enqueue and sc_dequeue that make a side single-threaded.
inline constexpr uint32_t kSingleProducer = 1;
inline constexpr uint32_t kSingleConsumer = 2;
// Value of sp_enqueue or sc_dequeue for a multi-thread side with relaxed tail
// sync; 0 means the in-order default.
inline constexpr uint32_t kRelaxedTail = 0x10;

// A relaxed-tail side's head and tail (tovi_queue.h).
using RelaxedEnds = tovi_ring_rts_t;

// The slots follow the header in the same heap block.
inline uint64_t *slots(tovi_ring_s *r)
{
    return reinterpret_cast<uint64_t *>(r + 1);
}

}  // namespace tovi::ring

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

TOVI_RING_INLINE uint64_t load_relaxed(const uint64_t *p)
{
    return __atomic_load_n(p, __ATOMIC_RELAXED);
}

TOVI_RING_INLINE uint64_t load_acquire(const uint64_t *p)
{
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}

TOVI_RING_INLINE uint64_t pos_cnt(uint32_t pos, uint32_t cnt)
{
    return static_cast<uint64_t>(cnt) << 32 | pos;
}

TOVI_RING_INLINE uint32_t pos_of(uint64_t word)
{
    return static_cast<uint32_t>(word);
}

TOVI_RING_INLINE uint32_t cnt_of(uint64_t word)
{
    return static_cast<uint32_t>(word >> 32);
}

// The published tail of the producer or consumer side: what the queries read.
TOVI_RING_INLINE uint32_t published_tail(const tovi_ring_s *r, bool producer)
{
    const uint32_t mode = producer ? r->prod.sp_enqueue : r->cons.sc_dequeue;
    if (mode == kRelaxedTail)
        return pos_of(load_relaxed(producer ? &r->gen.rts_prod.tail : &r->gen.rts_cons.tail));
    return load_relaxed(producer ? &r->prod.tail : &r->cons.tail);
}

// Calls `yield` after every `round` failed tests of `done`, and relaxes the
// processor between the others.
template <class Done, class Yield>
TOVI_RING_INLINE void spin_until(Done done, uint32_t round, Yield yield)
{
    uint32_t tests = 0;
    while (!done()) {
        if (++tests == round) {
            yield();
            tests = 0;
        } else {
            arch::cpu_relax();
        }
    }
}

// In-order sides: waits until *tail equals `expected`, that is until every earlier
// reservation of the same side is published: tests it `round` times, then
// calls `yield` and starts another round.
template <class Yield>
TOVI_RING_INLINE void wait_turn(const uint32_t *tail, uint32_t expected, uint32_t round, Yield yield)
{
    // W1 (pairs with W0, the T0 store of the thread ahead).
    spin_until([&] { return load_acquire(tail) == expected; }, round, yield);
}

// The fields one side works with.
struct Ends {
    uint32_t *tail;
    const uint32_t *other_tail;
    RelaxedEnds *relaxed;
    const RelaxedEnds *other_relaxed;
    const uint32_t *other_mode;
    uint32_t mask;
    // Added to other_tail - head to count what this side may take: mask free
    // slots beyond the consumer tail for the producer, none for the consumer.
    uint32_t base;
};

template <bool kProducer>
TOVI_RING_INLINE Ends ends(tovi_ring_s *r)
{
    if constexpr (kProducer)
        return {&r->prod.tail,       &r->cons.tail, &r->gen.rts_prod, &r->gen.rts_cons,
                &r->cons.sc_dequeue, r->prod.mask,  r->prod.mask};
    else
        return {&r->cons.tail,       &r->prod.tail, &r->gen.rts_cons, &r->gen.rts_prod,
                &r->prod.sp_enqueue, r->cons.mask,  0};
}

// A reservation: slots [head, head + n), and what was available when it was
// made.
struct Claim {
    uint32_t head;
    uint32_t n;
    uint32_t avail;
    bool other_relaxed;  // the other side publishes in its tail word
};

// How many of `want` to take from `avail`: all or none when kFixed, as many
// as there are otherwise; false when nothing is to be reserved (want itself
// may be 0: such a call moves nothing but is not refused).
template <bool kFixed>
TOVI_RING_INLINE bool fit(uint32_t want, uint32_t avail, uint32_t &n)
{
    n = want;
    if (avail < n) [[unlikely]] {
        if (kFixed || avail == 0)
            return false;
        n = avail;
    }
    return true;
}

// Waits while the head is more than `max_ahead` beyond the tail, so
// that threads that keep arriving cannot keep the count of unfinished
// reservations above zero for ever (the tail moves only when it reaches zero).
// Returns the head word last read.
template <class Yield>
TOVI_RING_INLINE uint64_t wait_head_near_tail(RelaxedEnds *s, uint64_t head, uint32_t max_ahead, Yield yield)
{
    spin_until(
        [&] {
            if (pos_of(head) - pos_of(load_relaxed(&s->tail)) <= max_ahead)
                return true;
            head = load_acquire(&s->head);  // H0
            return false;
        },
        kRelaxedSpinsPerYield, yield);
    return head;
}

// Reserves slots for up to `want` objects into `c`; false when nothing is
// reserved. The claim is worked out in locals (not in `c`, whose address would
// then escape into the compare-and-swap and keep it in memory).
template <bool kFixed, class Yield>
TOVI_RING_INLINE bool move_head(const Ends &e, uint32_t want, Claim &c, Yield yield)
{
    RelaxedEnds *s = e.relaxed;
    const uint32_t max_ahead = e.mask >> 3;
    const bool other_relaxed = *e.other_mode == kRelaxedTail;
    uint64_t word = load_acquire(&s->head);  // H0 (pairs with H1)
    uint32_t head;
    uint32_t avail;
    uint32_t n;
    for (;;) {
        word = wait_head_near_tail(s, word, max_ahead, yield);
        head = pos_of(word);
        // T1 (pairs with T0).
        const uint32_t other_tail =
            other_relaxed ? pos_of(load_acquire(&e.other_relaxed->tail)) : load_acquire(e.other_tail);
        avail = e.base + other_tail - head;
        if (!fit<kFixed>(want, avail, n))
            return false;
        // H1 on success; on failure the word is read again as H0.
        if (__atomic_compare_exchange_n(&s->head, &word, pos_cnt(head + n, cnt_of(word) + 1), false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            break;
    }
    c = {head, n, avail, other_relaxed};
    return true;
}

// With a single other side: moves the 32-bit tail up to `pos` unless
// a later publication got there first; it never moves back.
TOVI_RING_INLINE void raise_tail(uint32_t *tail, uint32_t pos)
{
    uint32_t seen = load_relaxed(tail);
    // T0 (pairs with T1). Positions are less than 2^28 apart, so the signed
    // difference tells which is later across the wrap.
    while (static_cast<int32_t>(pos - seen) > 0 &&
           !__atomic_compare_exchange_n(tail, &seen, pos, true, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    }
}

TOVI_RING_INLINE void publish(const Ends &e, const Claim &c)
{
    RelaxedEnds *s = e.relaxed;
    uint64_t tail = load_relaxed(&s->tail);
    uint64_t next;
    // R0 (pairs with R0 of the other finishers); when the position moves,
    // also T0 for a relaxed-tail other side.
    do {
        // When every reservation counted in the head has now finished, the
        // tail may move to the head: ours was counted there, so the head read
        // here is at least as new as our claim.
        const uint64_t head = load_relaxed(&s->head);
        const uint32_t done = cnt_of(tail) + 1;
        next = pos_cnt(done == cnt_of(head) ? pos_of(head) : pos_of(tail), done);
    } while (!__atomic_compare_exchange_n(&s->tail, &tail, next, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED));
    if (!c.other_relaxed && pos_of(next) != pos_of(tail))
        raise_tail(e.tail, pos_of(next));
}

// Moves up to `want` objects between `objs` and the ring: all or none when
// kFixed, as many as fit or are present otherwise. Returns the count moved;
// for the producer with TOVI_RING_QUOT_EXCEED set when the ring is then above
// its watermark. 0 when nothing was reserved.
template <bool kProducer, bool kFixed, class Yield>
TOVI_RING_INLINE uint32_t transfer(tovi_ring_s *r, uint64_t *objs, uint32_t want, Yield yield)
{
    const Ends e = ends<kProducer>(r);
    Claim c;
    if (!move_head<kFixed>(e, want, c, yield))
        return 0;
    uint32_t result = c.n;
    if constexpr (kProducer) {
        // Quota: whether the ring, with our n objects in, stands above its
        // watermark; they are stored either way. n <= mask < 2^28 leaves bit
        // 31 free for the verdict.
        result = (e.mask + 1) - c.avail + c.n > r->prod.watermark ? c.n | TOVI_RING_QUOT_EXCEED : c.n;
    }
    arch::fence_acquire();  // F0
    tovi_ring_inl_move_(r, e.mask, c.head, objs, c.n, kProducer);
    arch::fence_release();  // F1
    publish(e, c);
    return result;
}

template <bool kFixed, class Yield>
TOVI_RING_INLINE uint32_t enqueue(tovi_ring_s *r, const uint64_t *objs, uint32_t want, Yield yield)
{
    // The copy only reads the objects of an enqueue.
    return transfer<true, kFixed>(r, const_cast<uint64_t *>(objs), want, yield);
}

template <bool kFixed, class Yield>
TOVI_RING_INLINE uint32_t dequeue(tovi_ring_s *r, uint64_t *objs, uint32_t want, Yield yield)
{
    return transfer<false, kFixed>(r, objs, want, yield);
}

#undef TOVI_RING_INLINE

}  // namespace tovi::ring
