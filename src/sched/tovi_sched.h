/*
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

TOVI_EXTERN_C_BEGIN

/* Sleep `count` times 10 ms, `ms` milliseconds or `us` microseconds. */
TOVI_API void tovi_10msleep(uint32_t count);
TOVI_API void tovi_msleep(uint32_t ms);
TOVI_API void tovi_usleep(uint32_t us);

/* Sleeps 1 ms. */
TOVI_API void tovi_schedule(void);

/* sched_yield(). */
TOVI_API int tovi_yield(void);

/* Busy-waits more than `ms` milliseconds without sleeping; returns the
 * nanoseconds elapsed at the last reading. */
TOVI_API uint64_t tovi_mdelay(uint32_t ms);

/* Binds the calling thread to one CPU. 0, or 0xFFFFFFFF for a CPU number not
 * below the count of configured processors or a refused binding. */
TOVI_API uint32_t tovi_sched_setaffinity(uint64_t cpu);

/* Installs the wake-up signal once. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_sched_init(void);

/* Sleeps on *word for at most `timeout` jiffies. 0 when the time ran out
 * (or the time-out is not above 0); non-zero when woken early, by the word
 * becoming 0 or by the wake-up signal. */
TOVI_API int64_t tovi_wait_comm(uint32_t *word, int64_t timeout);

/* tovi_wait_comm(word, 250): 0xFFFFFFFF when woken within the second, 0
 * when the second ran out. */
TOVI_API uint32_t tovi_wait_interruptible(uint32_t *word);

/* Sends the wake-up signal to thread `tid` of this process. 0 or errno. */
TOVI_API uint32_t tovi_wake_up_process(int32_t tid);

/* Names the calling thread (a thread the library started). Always 0. */
TOVI_API uint32_t tovi_set_process_name(const char *name);

TOVI_EXTERN_C_END

#endif
