/**
 * @file
 * Sleeping, yielding, busy delays, binding to a CPU, and the wait/wake-up
 * primitives on which wait queues and semaphores are built.
 *
 * A sleeping thread parks on a 32-bit wait word of its own and is woken by a
 * thread-directed real-time signal (SIGRTMAX - 4, "SIGWAKEUP") whose handler
 * does nothing. The select-based sleeps are not resumed after a signal: the
 * wake-up signal ends them early.
 */
#ifndef TOVI_SCHED_H
#define TOVI_SCHED_H

#include "tovi_base.h"
#include "tovi_lock.h"

TOVI_EXTERN_C_BEGIN

/** @{ */
/** Sleep `count` times 10 ms, `ms` milliseconds or `us` microseconds. */
TOVI_API void tovi_10msleep(uint32_t count);
TOVI_API void tovi_msleep(uint32_t ms);
TOVI_API void tovi_usleep(uint32_t us);
/** @} */

/** Sleeps 1 ms. */
TOVI_API void tovi_schedule(void);

/** sched_yield(). */
TOVI_API int tovi_yield(void);

/** Busy-waits more than `ms` milliseconds without sleeping; returns the
 * nanoseconds elapsed at the last reading. */
TOVI_API uint64_t tovi_mdelay(uint32_t ms);

/** Names the calling thread (a thread the library started). Always 0. */
TOVI_API uint32_t tovi_set_process_name(const char *name);

/** Binds the calling thread to one CPU and records it (tovi_thrd_core_set).
 * 0, or 0xFFFFFFFF for a CPU number not below the count of configured
 * processors or a refused binding. */
TOVI_API uint32_t tovi_sched_setaffinity(uint64_t cpu);

/** Installs the wake-up signal once. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_sched_init(void);

/** Sleeps on *word for at most `timeout` jiffies. 0 when the time ran out
 * (or the time-out is not above 0); non-zero when woken early, by the word
 * becoming 0 or by the wake-up signal; -1 (logged) for a NULL word. */
TOVI_API int64_t tovi_wait_comm(uint32_t *word, int64_t timeout);

/** tovi_wait_comm(word, 250): 0xFFFFFFFF when woken within the second, 0
 * when the second ran out. */
TOVI_API uint32_t tovi_wait_interruptible(uint32_t *word);

/** Sends the wake-up signal to thread `tid` of this process. 0 or errno. */
TOVI_API uint32_t tovi_wake_up_process(int32_t tid);

/* ---- Wait queues ----
 * The caller's pattern: fill the entry's tid, prepare_to_wait, test its own
 * condition, sched_wait or sched_wait_timeout when it is not met, then
 * finish_wait. Every waiter is woken by __wake_up; there are no exclusive
 * waiters. A NULL head or entry is refused with a level-3 line (-1 or
 * 0xFFFFFFFF by the result's type, nothing done where there is none). */

/** A wait queue: a lock and the entries of its waiters. */
typedef struct tovi_wait_queue_head_s {
    tovi_spinlock_s lock;  /**< guards task_list */
    tovi_list_head_s task_list; /**< wait entries, newest first */
} wait_queue_head_t;

/** One waiter's entry on a wait queue. */
typedef struct tovi_wait_queue_entry_s {
    uint32_t tid;            /**< kernel thread id of the waiter, set by the caller */
    uint32_t waiting;        /**< 1 while waiting, 0 once woken or finished: the wait word */
    void *priv;              /**< the caller's; not used here */
    tovi_list_head_s entry;  /**< self-linked while on no queue */
} wait_queue_t;

/** An idle entry for the calling thread (its kernel tid, on no queue). */
TOVI_API void tovi_init_wait_entry(wait_queue_t *wait);

/** An empty wait queue with its lock initialised. */
TOVI_API void __init_waitqueue_head(wait_queue_head_t *head);

/** Marks the entry waiting and queues it at the front unless already queued. 0. */
TOVI_API int prepare_to_wait(wait_queue_head_t *head, wait_queue_t *wait);

/** Sleeps on the entry's flag for at most a second: as tovi_wait_interruptible. */
TOVI_API uint32_t sched_wait(wait_queue_t *wait);

/** Sleeps on the entry's flag for at most `timeout` jiffies: as tovi_wait_comm. */
TOVI_API int64_t sched_wait_timeout(wait_queue_t *wait, int64_t timeout);

/** Wakes and unqueues every waiting entry. */
TOVI_API void __wake_up(wait_queue_head_t *head);

/** Takes the entry off the queue and clears its flag; never blocks on the
 * head's lock (a waker may hold it). */
TOVI_API void finish_wait(wait_queue_head_t *head, wait_queue_t *wait);

/** @{ */
/** Kept for kernel-style callers: 0 and nothing. */
TOVI_API int autoremove_wake_function(wait_queue_t *wait, unsigned mode, int sync, void *key);
TOVI_API void before_wait(void *arg);
/** @} */

TOVI_EXTERN_C_END

#endif
