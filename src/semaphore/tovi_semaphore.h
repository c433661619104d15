/**
 * @file
 * Enhanced semaphores: counting semaphores whose up hands its unit directly
 * to the first waiter (waiters are served first come, first served). A
 * waiter parks on a wait word of its own and is woken by the wake-up signal.
 * A NULL semaphore is refused with a level-3 line: -1 where the call has a
 * result, nothing done where it has none.
 */
#ifndef TOVI_SEMAPHORE_H
#define TOVI_SEMAPHORE_H

#include "tovi_base.h"
#include "tovi_lock.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_SEM_EINTR (-4)  /**< woken without the unit */
#define TOVI_SEM_ETIME (-61)  /**< the time ran out */

/** An enhanced semaphore: a count and its waiters. */
typedef struct tovi_sem_enhance_s {
    tovi_spinlock_s lock;  /**< guards count and waiters */
    int32_t count;  /**< units available */
    tovi_list_head_s waiters; /**< oldest first */
} tovi_sem_enhance_s;

/** Sets the count and empties the waiter list. 0 (a count above INT32_MAX is
 * stored as INT32_MAX, logged). */
TOVI_API int32_t tovi_sem_enhance_init(tovi_sem_enhance_s *sem, uint32_t count);

/** Takes one unit, sleeping as long as it takes. */
TOVI_API void tovi_sem_enhance_down(tovi_sem_enhance_s *sem);

/** Takes one unit: 0, or -4 when woken without getting it. */
TOVI_API int32_t tovi_sem_enhance_down_interruptible(tovi_sem_enhance_s *sem);

/** Takes one unit within `ms` milliseconds (in whole jiffies of 4 ms): 0, -4
 * when woken without it, -61 when the time ran out. */
TOVI_API int32_t tovi_sem_enhance_down_timeout(tovi_sem_enhance_s *sem, int64_t ms);

/** Releases one unit, to the first waiter when there is one. 0, or the errno
 * of a wake-up signal that could not be sent (the waiter keeps its unit). */
TOVI_API int32_t tovi_sem_enhance_up(tovi_sem_enhance_s *sem);

/** 0. */
TOVI_API int32_t tovi_sem_enhance_destroy(tovi_sem_enhance_s *sem);

/** Logs the count and every waiter. */
TOVI_API void tovi_sem_enhance_show(tovi_sem_enhance_s *sem);

TOVI_EXTERN_C_END

#endif
