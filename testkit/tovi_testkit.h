/**
 * @file
 * libtovi-testkit: the library for an application's unit tests, without
 * root, threads or the platform.
 *
 * Link a test program with libtovi-testkit instead of libtovi and libvrlog
 * (`pkg-config --libs libtovi-testkit`, or `tovi::testkit` in CMake). It
 * holds the same library code with three parts swapped at their seams:
 *
 *  - the clock: the processor counter behind tovi_time_getnanosec,
 *    tovi_time_getmillisec and tovi_get_jiffies, and the clock the
 *    high-resolution timers are filed by, is a value the test sets; it
 *    starts at 0 and moves only by tovi_testkit_advance_ms;
 *  - the timer thread, the high-resolution timer thread and the
 *    scheduled-work threads are never started: tovi_testkit_advance_ms runs
 *    the due timers and the queued work on the calling thread, in a fixed
 *    order;
 *  - the logging library: every line the library logs is kept for the test
 *    to read (all levels are on), and nothing is printed.
 *
 * Call tovi_testkit_start first; tovi_Init may follow (it then starts no
 * timer or work thread; its CPU sampler thread starts unless the library's
 * settings file, $TOVI_CFG_LIBRARY_FILE, has SYSINFO_CPUUSAGE_THREAD_FLAG=0
 * in section [TOVI]). The kernel companion is the in-process stand-in
 * (TOVI_COMPANION=user is set when the variable is unset). Functions of the
 * kit are meant for one test thread.
 */
#ifndef TOVI_TESTKIT_H
#define TOVI_TESTKIT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Sets the clock to 0, builds the timer lists, the high-resolution timers
 * and the work queue without their threads and empties the captured log. 0,
 * or -1 when the timers cannot be built (or a high-resolution timer was armed
 * before, which started their thread), or when the test program calls
 * functions of libtovi.so.1 or libvrlog.so.1 instead of the kit's (it was
 * linked with them before the kit; a line on standard error names one). A
 * second call empties the log and,
 * after tovi_destory (which stops scheduled work), takes the work queue
 * back: call it again before queuing work after tovi_destory, or the queue
 * starts the library's own worker threads. */
int tovi_testkit_start(void);

/** The test clock in nanoseconds (what tovi_time_getnanosec returns). */
uint64_t tovi_testkit_now_ns(void);

/** Moves the clock forward by `ms` milliseconds, one millisecond at a time.
 * Within each millisecond it first fires the high-resolution timers due by
 * its end, in expiry order, the clock reading each one's expiry while its
 * callback runs; at the millisecond it fires every timer-list timer due then
 * (the clock reads that millisecond while their callbacks run, so a timer
 * re-armed from its callback fires again within the same advance) and then
 * runs the queued work, oldest first, including work queued by that work.
 * Returns the number of work items run; 0, with a line on standard error,
 * when tovi_testkit_start has not succeeded. */
uint32_t tovi_testkit_advance_ms(uint64_t ms);

/** Runs the queued work now, without moving the clock: the number run (0,
 * with a line on standard error, when tovi_testkit_start has not succeeded). */
uint32_t tovi_testkit_run_work(void);

/** Number of log lines captured since the start (or the last clear). */
uint32_t tovi_testkit_log_count(void);

/** The captured line `index` as "LEVEL source:function: text" (LEVEL 3
 * error, 4 warning, 6 information, 7 debug; source is the library's module
 * name, or the file an application passed to vrlog; raw lines, printk's
 * included, as "raw: text"; trailing newlines dropped), or NULL past the end.
 * Valid until the next clear. */
const char *tovi_testkit_log_line(uint32_t index);

/** Index of the first captured line containing `text`, or -1 (also for NULL). */
int32_t tovi_testkit_log_find(const char *text);

/** Forgets the captured lines. */
void tovi_testkit_log_clear(void);

#ifdef __cplusplus
}
#endif

#endif
