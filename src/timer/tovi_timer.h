/**
 * @file
 * Timer lists: caller-owned timer records armed with a relative time-out in
 * milliseconds and fired once, on the library's one timer thread
 * ("tovi_run_timers"), by calling func(data) outside every library lock.
 *
 * Armed timers sit in a five-level wheel whose slots are 1 ms, 1 s, 1 min,
 * 1 h and 60 h wide (1000/60/60/60/24 slots, 60 days in all); a timer due
 * later than that is filed at 60 days and filed again when that slot comes
 * round. Arming and deleting are O(1) and never allocate. All callbacks run
 * one after another, so a slow callback delays every other timer; one
 * slower than 300 ms is reported.
 *
 * A callback may re-arm its own timer (it is unlinked before it runs). It
 * must not call tovi_timer_delete_sync on its own timer: that waits for the
 * callback to end and so spins for ever.
 */
#ifndef TOVI_TIMER_H
#define TOVI_TIMER_H

#include "tovi_base.h"
#include "tovi_rbtree.h"

TOVI_EXTERN_C_BEGIN

/** Flag bit 0 of `flags`: a high-resolution timer (nanosecond time-out). */
#define TOVI_TIMER_FLAG_HR 0x1u

/** A timer's callback, given the timer's data, on the timer thread. */
typedef void (*tovi_timer_func)(uint64_t data);

/** Absolute monotonic time of a high-resolution timer. */
typedef struct tovi_timer_time_s {
    int64_t sec;  /**< seconds */
    int64_t nsec;  /**< nanoseconds */
} tovi_timer_time_s;

/** The timer record. Owned by the caller; zeroed by tovi_timer_init or
 * tovi_timer_set_raw. `entry.next` not NULL means pending. */
typedef struct tovi_timer {
    tovi_rb_node node;          /**< high-resolution timers only */
    tovi_timer_time_s hrExpire; /**< high-resolution timers only */
    tovi_list_head_s entry;     /**< wheel slot membership */
    uint64_t expirTime;         /**< absolute expiry, tovi_time_getmillisec() milliseconds */
    uint64_t timeOut;           /**< the relative time-out last given */
    uint64_t data;              /**< argument of func */
    tovi_timer_func func;  /**< callback */
    uint8_t isp;                /**< high-resolution queue state */
    uint8_t flags;              /**< TOVI_TIMER_FLAG_HR */
    const char *funcName;       /**< the arming caller, for diagnostics */
    const char *file;  /**< arming caller's file */
    int32_t line;  /**< and line */
} tovi_timer;

/** Builds the timer root and starts the timer thread, once. 0, or -1 when
 * the mutex, condition variable or thread could not be created. */
TOVI_API int tovi_timer_module_init(void);

/** Zeroes the record. 0, or -1 for NULL. */
TOVI_API int tovi_timer_init(tovi_timer *timer);

/** Zeroes an idle record and stores time-out (ms), data, callback and the
 * caller's function, file and line. 0, or -1 for NULL timer or func or a
 * pending timer. */
TOVI_API int tovi_timer_set_raw(tovi_timer *timer, uint64_t timeOut, uint64_t data, tovi_timer_func func,
                                const char *funcName, const char *file, int32_t line);

/** tovi_timer_set_raw with the calling function, file and line. */
#define tovi_timer_set(timer, timeOut, data, func) \
    tovi_timer_set_raw((timer), (timeOut), (data), (func), __func__, __FILE__, __LINE__)

/** Arms an idle timer with its stored `timeOut` (a wheel timer). 0, or -1
 * when the module is not initialised, for NULL timer or func, a pending
 * timer or a zero time-out. */
TOVI_API int tovi_timer_add(tovi_timer *timer);

/** (Re)arms the timer to fire timeOut ms from now, pending or not; a
 * pending timer whose expiry would not change is left in place. Needs the
 * module started (it does not check). 0, or -1 for a zero time-out or NULL
 * timer or func. */
TOVI_API int tovi_timer_modify(tovi_timer *timer, uint64_t timeOut);

/** Unlinks the timer if pending, without waiting for a running callback.
 * 0 (also for an idle timer), or -1 for NULL or when not initialised. */
TOVI_API int tovi_timer_delete(tovi_timer *timer);

/** As tovi_timer_delete, after waiting until the timer's callback is not
 * running. 0, or -1 for NULL or when not initialised. */
TOVI_API int tovi_timer_delete_sync(tovi_timer *timer);

/** Same as tovi_timer_delete_sync. */
TOVI_API int tovi_timer_destroy(tovi_timer *timer);

/** 1 when the timer is pending, 0 when idle or NULL. Takes no lock. */
TOVI_API int tovi_timer_is_pending(tovi_timer *timer);

/** Logs the record that holds `entry` (its `entry` field) at level 6, to
 * the infrastructure log unconditionally and to the library's log. */
TOVI_API void tovi_timer_show(tovi_list_head_s *entry);

/** A copy of one pending timer, for listings. */
typedef struct tovi_timer_info_s {
    uint64_t addr;        /**< address of the record */
    uint64_t expirTime;  /**< absolute expiry, milliseconds */
    uint64_t timeOut;  /**< relative time-out last given */
    uint64_t data;  /**< argument of func */
    uint64_t func;  /**< callback address */
    const char *funcName;  /**< arming function */
    const char *file;  /**< arming file */
    int32_t line;  /**< arming line */
    uint8_t isp;  /**< high-resolution queue state */
    uint8_t flags;  /**< TOVI_TIMER_FLAG_HR */
} tovi_timer_info_s;

/** Copies up to `max` timers that wait in the wheel (not those being fired
 * right now) into `out`, in slot order, and the clock reading into `now`
 * (may be NULL). Returns how many are waiting (may exceed `max`), or -1
 * when not initialised or `out` is NULL with `max` > 0. */
TOVI_API int64_t tovi_timer_list_pending(tovi_timer_info_s *out, uint32_t max, uint64_t *now);

TOVI_EXTERN_C_END

#endif
