/**
 * @file
 * High-resolution timers: one-shot timers of at most 1 ms (nanosecond
 * time-out), on the same tovi_timer record as the timer lists. Armed timers
 * sit in a red-black tree ordered by absolute CLOCK_MONOTONIC expiry (equal
 * expiries in the order they were armed) and are fired by one thread,
 * "tovi_hr_timer", started by the first tovi_hr_timer_add. Callbacks run on
 * that thread one at a time, with no library lock held.
 *
 * Callers normally arm with tovi_timer_add_ns, which flags the record as a
 * high-resolution timer; from then on every timer-list call on the record
 * (modify, delete, delete_sync, is_pending) comes here.
 *
 * A callback must not call tovi_hr_timer_delete_sync on its own timer: that
 * waits for the callback to end and so spins for ever.
 *
 * Beside them, thin wrappers of the POSIX per-process timers.
 */
#ifndef TOVI_HR_TIMER_H
#define TOVI_HR_TIMER_H

#include <signal.h>
#include <time.h>

#include "tovi_base.h"
#include "tovi_timer.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_HR_TIMER_MAX_NS 1000000u /**< longest time-out of a high-resolution timer */
#define TOVI_HR_TIMER_QUEUED 17u      /**< `isp` of a timer in the tree */

/** Flags the timer as a high-resolution one and arms it with its `timeOut`
 * in nanoseconds (tovi_hr_timer_add). -1 for NULL timer or func. */
TOVI_API int tovi_timer_add_ns(tovi_timer *timer);

/** Arms the timer `timeOut` ns (at most 1,000,000) from now, starting the
 * module on first use. 0, or -1 when the module could not start, for NULL,
 * a timer already queued, a time-out above 1 ms or a clock failure. */
TOVI_API int tovi_hr_timer_add(tovi_timer *timer);

/** Re-arms the timer `ns` nanoseconds (at most 1,000,000) from now, queued
 * or not. Does not start the module. 0 or -1. */
TOVI_API int tovi_hr_timer_modify(tovi_timer *timer, uint64_t ns);

/** Takes the timer out of the tree if queued, without waiting for a running
 * callback. 0, or -1 when the module is not running. */
TOVI_API int tovi_hr_timer_delete(tovi_timer *timer);

/** As tovi_hr_timer_delete, after waiting until the timer's callback is not
 * running. */
TOVI_API int tovi_hr_timer_delete_sync(tovi_timer *timer);

/** 1 when the timer is queued, else 0 (also for NULL). No lock. */
TOVI_API int tovi_hr_timer_is_pending(tovi_timer *timer);

/** Diagnostic command: with exactly 3 arguments and the third starting with
 * "list", logs the queued timers in expiry order (level 6), pausing a
 * second after every 50 lines. 0, or -1 when the module is not running or
 * the command is not understood. */
TOVI_API int tovi_hr_timer_diagnose_func(int argc, char **argv);

/** Lateness of fired timers (expiry to callback start), for operators; read
 * without locks. Values are upper bounds of histogram buckets (within
 * 12.5 %), the maximum exact. */
typedef struct tovi_hr_timer_stats_s {
    uint64_t fired;  /**< timers fired */
    uint64_t lateP50Ns;  /**< median lateness */
    uint64_t lateP99Ns;  /**< 99th percentile lateness */
    uint64_t lateMaxNs;  /**< largest lateness */
} tovi_hr_timer_stats_s;

/** 0, or -1 for NULL. */
TOVI_API int tovi_hr_timer_stats(tovi_hr_timer_stats_s *stats);

/** Copies up to `max` queued high-resolution timers into `out` in expiry
 * order (`expirTime` holds the expiry in CLOCK_MONOTONIC milliseconds) and
 * that clock's reading in ms into `now` (may be NULL). Returns how many are
 * queued (may exceed `max`; 0 before the module started), or -1 when `out`
 * is NULL with `max` > 0. */
TOVI_API int64_t tovi_hr_timer_list_pending(tovi_timer_info_s *out, uint32_t max, uint64_t *now);

/* ---- POSIX per-process timers; otherwise the system call's own result ---- */

/** Strict ISO C (-std=c11) leaves these out of <signal.h> and <time.h>. */
struct sigevent;
struct itimerspec;

/** @{ */
/** -22 for a NULL event or out id, or a clock id of 4 or more. */
TOVI_API int tovi_timer_create_posix(clockid_t clockid, struct sigevent *evp, timer_t *timerid);
TOVI_API int tovi_timer_delete_posix(timer_t timerid);
/** @} */
/** -22 for a NULL new value. */
TOVI_API int tovi_timer_settime_posix(timer_t timerid, int flags, const struct itimerspec *new_value,
                                      struct itimerspec *old_value);
/** @{ */
/** -22 for a NULL value. */
TOVI_API int tovi_timer_gettime_posix(timer_t timerid, struct itimerspec *curr_value);
TOVI_API int tovi_timer_getoverrun_posix(timer_t timerid);
/** @} */

TOVI_EXTERN_C_END

#endif
