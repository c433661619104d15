/**
 * @file
 * Busy-wait locks for short critical sections shared by the library's and
 * the application's threads.
 *
 *   spin lock             one 64-bit word, 0 free, 1 held; test-and-set,
 *                         spins about 100 us, then sleeps 1 ms between
 *                         further spin periods. Not fair, not recursive.
 *   reader-writer spin    one signed 64-bit word: >= 0 is the number of
 *                         readers, negative means a writer holds it. Not fair.
 *   ticket spin lock      fair; reports self-deadlock ("AA lock"), release by
 *                         a non-holder ("AB lock") and double release
 *                         ("ReUnlock") at level 6 and carries on.
 *   ticket reader-writer  fair: holders enter in ticket order, readers that
 *                         arrive between two writers share the lock.
 *
 * None of them sleeps in the kernel while spinning except the plain spin
 * lock (after 100 us) and the may-block reader-writer variants (1 us after
 * every 10 failed attempts). Callers use the macros at the end, which pass
 * the calling function's name and line. A NULL lock is refused with a
 * level-3 line: nothing is locked, a trylock returns 0.
 */
#ifndef TOVI_LOCK_H
#define TOVI_LOCK_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_SPINLOCK_MAGIC 0xDEAD4EADu     /**< lock prefix of modules' records */
#define TOVI_TSPINLOCK_MAGIC 0xDEAD5EADu    /**< initialised ticket spin lock */
#define TOVI_TSPINLOCK_DESTROYED 0x5EADDEADu /**< ticket spin lock after destroy */
#define TOVI_LOCK_NO_OWNER UINT64_MAX       /**< owner of a free lock */

/** Spin-lock debug flag: report every spin period that runs out (100 us)
 * with the waiter's thread id and a short stack trace. */
#define TOVI_SPINLOCK_DEBUG_LONGWAIT 1ull

/** The lock prefix that modules put in front of their guarded records: only
 * `lock` is used as a (plain spin) lock; the rest is set at init. */
typedef struct tovi_spinlock_s {
    uint64_t lock;   /**< spin lock word, 0 free */
    uint32_t magic;  /**< TOVI_SPINLOCK_MAGIC */
    uint32_t other;  /**< 0xFFFFFFFF */
    uint64_t owner;  /**< kernel thread id of a holder that records itself */
} tovi_spinlock_s;

/** Static initialiser of a tovi_spinlock_s: free, no owner. */
#define TOVI_SPINLOCK_INITIALIZER {0u, TOVI_SPINLOCK_MAGIC, 0xFFFFFFFFu, TOVI_LOCK_NO_OWNER}

/** Ticket spin lock. serving and next, read as one little-endian 64-bit word
 * (next in the upper half), are what the reports print as "lock". */
typedef struct tovi_tspinlock_s {
    uint32_t serving;  /**< the ticket now allowed in */
    uint32_t next;     /**< the next ticket to hand out */
    uint32_t magic;    /**< TOVI_TSPINLOCK_MAGIC while initialised */
    uint32_t other;    /**< 0xFFFFFFFF after init; only printed */
    uint64_t owner;    /**< kernel thread id of the holder, TOVI_LOCK_NO_OWNER when free */
} tovi_tspinlock_s;

/** Ticket reader-writer lock: three 64-bit words, each pair of 32-bit
 * counters changed with one 64-bit compare-and-swap.
 *   serving: bits 0-31 write-serving (the ticket a writer waits for),
 *            bits 32-63 read-serving (the writer count a reader waits for);
 *   tickets: bits 0-31 tickets handed out to readers and writers,
 *            bits 32-63 tickets handed out to writers.
 * All counters wrap modulo 2^32. */
typedef struct tovi_trwlock_s {
    uint64_t serving;   /**< write-serving (low half), read-serving (high half) */
    uint64_t tickets;   /**< all tickets (low half), writer tickets (high half) */
    uint64_t reserved;  /**< zeroed by init, otherwise unused */
} tovi_trwlock_s;

/* ---- Spin lock (the name and line are the caller's; unused here) ---- */

/** Takes the lock, spinning and then sleeping 1 ms between 100 us spin periods. */
TOVI_API void do_tovi_spinlock_lock(uint64_t *lock, const char *func, uint32_t line);
/** One attempt: 1 when taken, 0 when held by someone. */
TOVI_API uint32_t do_tovi_spinlock_trylock(uint64_t *lock, const char *func, uint32_t line);
/** Releases the lock; a word that is not 1 (held) is left as it is. */
TOVI_API void do_tovi_spinlock_unlock(uint64_t *lock, const char *func, uint32_t line);

/** @{ */
/** Debug flags (TOVI_SPINLOCK_DEBUG_LONGWAIT): set bits, clear bits, read
 * into *flags. Setting and clearing are single atomic read-modify-writes, so
 * concurrent calls on different bits do not undo each other. 0; get_flags
 * returns TOVI_ERR (logged) for a NULL flags. */
TOVI_API uint32_t tovi_spinlock_set_flags(uint64_t mask);
TOVI_API uint32_t tovi_spinlock_clear_flags(uint64_t mask);
TOVI_API uint32_t tovi_spinlock_get_flags(uint64_t *flags);
/** @} */

/** Logs (unconditionally) the caller's kernel thread id and three return
 * addresses with their symbols, after skipping `skip` frames. */
TOVI_API void debug_dump_stack(uint32_t skip);

/* ---- Reader-writer spin lock ----
 * There is no unlock function: a reader releases by decrementing the word
 * with a compare-and-swap loop whose store has release ordering, a writer by
 * storing 0 with release ordering. */

/** Spins while a writer holds the lock, then adds a reader. */
TOVI_API void tovi_rwlock_read_lock(int64_t *lock);
/** 1 when a reader was added, 0 when a writer holds the lock (a race with
 * other readers is retried, never failed). */
TOVI_API uint8_t tovi_rwlock_try_read_lock(int64_t *lock);
/** Spins until the lock is free, then stores all ones. */
TOVI_API void tovi_rwlock_write_lock(int64_t *lock);
/** As tovi_rwlock_read_lock, sleeping 1 us after every 10 failed attempts. */
TOVI_API void tovi_rwlock_read_lock_mayblock(int64_t *lock);
/** Takes the lock for writing by storing INT64_MIN (only bit 63 set),
 * sleeping 1 us after every 10 failed attempts. */
TOVI_API void tovi_rwlock_write_lock_mayblock(int64_t *lock);

/* ---- Ticket spin lock (the name and line appear in every report) ---- */

/** Makes the lock free; reports "ReInited lock" when it was initialised. */
TOVI_API void do_tovi_tspinlock_init(tovi_tspinlock_s *lock, const char *func, uint32_t line);
/** Takes a ticket and waits for it without limit; reports "UnInited lock"
 * and "AA lock" (already held by the caller) but goes on. */
TOVI_API void do_tovi_tspinlock_lock(tovi_tspinlock_s *lock, const char *func, uint32_t line);
/** 1 when taken at once, 0 when held or waited for. Reports as lock. */
TOVI_API uint32_t do_tovi_tspinlock_trylock(tovi_tspinlock_s *lock, const char *func, uint32_t line);
/** Lets the next ticket in; reports "UnInited lock", "AB lock" (caller is not
 * the holder) and "ReUnlock" (lock was free), and advances regardless. */
TOVI_API void do_tovi_tspinlock_unlock(tovi_tspinlock_s *lock, const char *func, uint32_t line);
/** Marks the lock destroyed; reports "UnInited lock" when it was not initialised. */
TOVI_API void do_tovi_tspinlock_destroy(tovi_tspinlock_s *lock, const char *func, uint32_t line);

/* ---- Ticket reader-writer lock ---- */

/** Zeroes the record. */
TOVI_API void do_tovi_trwlock_init(tovi_trwlock_s *lock);
/** Waits for every writer that took a ticket earlier. */
TOVI_API void do_tovi_trwlock_read_lock(tovi_trwlock_s *lock);
/** Leaves a read hold: advances write-serving; a waiting writer enters when
 * write-serving reaches its ticket. */
TOVI_API void do_tovi_trwlock_read_unlock(tovi_trwlock_s *lock);
/** 1 when entered at once, 0 when a writer holds or waits. */
TOVI_API uint32_t do_tovi_trwlock_read_trylock(tovi_trwlock_s *lock);
/** Waits for every reader and writer that took a ticket earlier. */
TOVI_API void do_tovi_trwlock_write_lock(tovi_trwlock_s *lock);
/** Leaves a write hold: advances write-serving and read-serving, which lets
 * in the readers queued behind this writer, or else the next writer. */
TOVI_API void do_tovi_trwlock_write_unlock(tovi_trwlock_s *lock);
/** 1 when entered at once, 0 when anyone holds or waits. */
TOVI_API uint32_t do_tovi_trwlock_write_trylock(tovi_trwlock_s *lock);
/** Does nothing. */
TOVI_API void do_tovi_trwlock_destroy(tovi_trwlock_s *lock);

/* ---- Caller macros ---- */

/** The spin lock's uncontended paths run in the caller with the results of
 * the exported calls: one compare-and-swap from 0 to 1 takes a free lock
 * (acquire; pairs with the unlock's release), and a held word (1) is freed by
 * a releasing store, as only its holder may change it. A NULL lock, a held
 * lock and a free word on unlock go to the exported functions. */
static inline __attribute__((always_inline)) void tovi_spinlock_inl_lock(uint64_t *lock, const char *func,
                                                                        uint32_t line)
{
    uint64_t expected = 0;
    if (lock != 0 && __atomic_compare_exchange_n(lock, &expected, 1, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
        return;
    do_tovi_spinlock_lock(lock, func, line);
}

/** Releases a held word (1) with one releasing store; anything else goes to
 * do_tovi_spinlock_unlock. */
static inline __attribute__((always_inline)) void tovi_spinlock_inl_unlock(uint64_t *lock, const char *func,
                                                                          uint32_t line)
{
    if (lock != 0 && __atomic_load_n(lock, __ATOMIC_RELAXED) == 1) {
        __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
        return;
    }
    do_tovi_spinlock_unlock(lock, func, line);
}

/** @{ */
/** Spin lock on the word `l` (uint64_t *), with the calling function and
 * line: lock and unlock through the inline fast paths above, trylock
 * through do_tovi_spinlock_trylock. */
#define tovi_spinlock_lock(l) tovi_spinlock_inl_lock((l), __func__, __LINE__)
#define tovi_spinlock_trylock(l) do_tovi_spinlock_trylock((l), __func__, __LINE__)
#define tovi_spinlock_unlock(l) tovi_spinlock_inl_unlock((l), __func__, __LINE__)
/** @} */

/** @{ */
/** Ticket spin lock calls: the do_tovi_tspinlock_ function of the same name
 * with the calling function and line, which its reports print. */
#define tovi_tspinlock_init(l) do_tovi_tspinlock_init((l), __func__, __LINE__)
#define tovi_tspinlock_lock(l) do_tovi_tspinlock_lock((l), __func__, __LINE__)
#define tovi_tspinlock_trylock(l) do_tovi_tspinlock_trylock((l), __func__, __LINE__)
#define tovi_tspinlock_unlock(l) do_tovi_tspinlock_unlock((l), __func__, __LINE__)
#define tovi_tspinlock_destroy(l) do_tovi_tspinlock_destroy((l), __func__, __LINE__)
/** @} */

/** @{ */
/** Ticket reader-writer lock calls: the do_tovi_trwlock_ function of the
 * same name. */
#define tovi_trwlock_init(l) do_tovi_trwlock_init(l)
#define tovi_trwlock_read_lock(l) do_tovi_trwlock_read_lock(l)
#define tovi_trwlock_read_unlock(l) do_tovi_trwlock_read_unlock(l)
#define tovi_trwlock_read_trylock(l) do_tovi_trwlock_read_trylock(l)
#define tovi_trwlock_write_lock(l) do_tovi_trwlock_write_lock(l)
#define tovi_trwlock_write_unlock(l) do_tovi_trwlock_write_unlock(l)
#define tovi_trwlock_write_trylock(l) do_tovi_trwlock_write_trylock(l)
#define tovi_trwlock_destroy(l) do_tovi_trwlock_destroy(l)
/** @} */

TOVI_EXTERN_C_END

#endif
