/**
 * @file
 * Scheduled work: a process-wide FIFO work queue drained by an elastic pool
 * of worker threads ("tovi_schedwork"). A caller owns a work record, fills it
 * with tovi_sched_init_work and queues it with tovi_sched_add_work; one
 * worker calls its handler once, with no library lock held.
 *
 * The pool keeps between a minimum (default 4) and a maximum (default 8) of
 * idle workers, never more than 64 workers in all; section "TOVI" of the
 * library's settings file can lower both (SCHED_THREAD_FREE_NUM_MIN /
 * SCHED_THREAD_FREE_NUM_MAX). Handlers run on up to 64 workers at once, in
 * no guaranteed order across workers; the queue itself is FIFO.
 *
 * Each worker owns one entry of a 64-entry time-out table. A work that
 * carries a time-out (seconds, at least 15) is watched while it runs: the
 * heal check dumps the stack of a worker that overran and reports the pool
 * unhealthy when all 64 workers have been stuck for more than 44999 jiffies.
 *
 * A work record is idle exactly when its `entry` holds the list poison
 * (next 0x100100, prev 0x200200); only an idle record can be queued. A
 * worker sets the record idle before it calls the handler, so the handler
 * may queue its own record again.
 */
#ifndef TOVI_SCHEDWORK_H
#define TOVI_SCHEDWORK_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_SCHED_WORK_MAX_THREADS 64u   /**< workers alive at most */
#define TOVI_SCHED_WORK_TIMEOUT_SLOTS 64u /**< entries of the time-out table */
#define TOVI_SCHED_WORK_MIN_TIMEOUT 15u   /**< smallest accepted time-out, seconds */
#define TOVI_SCHED_WORK_NOT_QUEUED (-55)  /**< tovi_sched_delete_work of an idle work */

struct tovi_sched_work;
/** The handler of a work, called with the work on a worker thread. */
typedef void (*tovi_sched_work_func)(struct tovi_sched_work *work);

/** A work record, owned by the caller; the library never allocates or frees it. */
typedef struct tovi_sched_work {
    int32_t pid;                  /**< process id of the creator */
    uint32_t timeout;             /**< run-time limit in seconds; 0: not watched */
    tovi_list_head_s entry;       /**< queue membership; poisoned while idle */
    void *pData;                  /**< the caller's data */
    tovi_sched_work_func process; /**< the handler */
} tovi_sched_work;

/** Fills the record: pid = getpid(), no time-out, idle, data and handler.
 * Returns the pid. No checks. */
TOVI_API int32_t tovi_sched_init_work(tovi_sched_work *work, tovi_sched_work_func process, void *pData);

/** Watches the work's handler for `seconds` when it runs. 0, or -1 for a
 * NULL work or fewer than 15 seconds. */
TOVI_API int32_t tovi_set_sched_work_timeout(tovi_sched_work *work, uint32_t seconds);

/** Queues an idle work at the tail, starting the pool first when needed.
 * 0, or non-zero (the length of the logged failure message, -1 when that
 * message's level is off) for a NULL work, a pool that could not start or a
 * work that is already queued. Work added while the pool is being
 * destroyed is queued all the same (and logged). */
TOVI_API int32_t tovi_sched_add_work(tovi_sched_work *work);

/** Takes a queued work off the queue and sets it idle. 0; -55 when it was
 * not queued (never waits for a running handler); -1 for NULL or a pool
 * that is not running. */
TOVI_API int32_t tovi_sched_delete_work(tovi_sched_work *work);

/** Starts the pool (once; again after sched_work_destroy). 0 or -1. */
TOVI_API int sched_work_init(void);

/** Stops the pool: queued work is dropped (set idle, never run), idle
 * workers leave, workers inside a handler finish it and then leave. 0. */
TOVI_API int sched_work_destroy(void);

/** Reads the idle limits from the library's settings (section "TOVI").
 * Settings can only lower them; min above max leaves them as they were. */
TOVI_API void sched_work_thread_num_set(void);

/** Logs the work record that holds `entry` (level 6). */
TOVI_API void ToviSchedWorkShow(tovi_list_head_s *entry);

/* ---- The time-out table ---- */

/** Claims the first free entry for worker `tid`. 0 with *index set, or -1
 * for a NULL index or when all 64 are taken. */
TOVI_API int32_t tovi_add_sched_work_timeout_check(uint32_t tid, uint32_t *index);

/** Records the handler being watched on entry `index` (start 0: none);
 * ignored for an index above 63. */
TOVI_API void tovi_update_sched_work_timeout_info(uint32_t index, uint64_t startJiffies, uint32_t timeoutJiffies,
                                                  uint32_t pid);

/** Frees entry `index`. */
TOVI_API void tovi_del_sched_work_timeout_check(uint32_t index);

/** Finds the first worker whose handler overran its time-out, logs it and
 * dumps its stack. 1 when one was found, else 0. */
TOVI_API int32_t tovi_sched_work_timeout_theck(void);

/** 1 when 64 handlers are in progress and none has started for more than
 * 44999 jiffies (and dumps up to 4 of those workers), else 0. */
TOVI_API int32_t tovi_is_all_work_timeout(void);

/** Dumps the stack of thread `tid` of this process. */
TOVI_API void sched_work_dump_thread_stack(uint32_t tid);

/* ---- The heal task, for an outside health-check framework ---- */

#define TOVI_HEAL_TASK_NAME_LEN 32u  /**< bytes of a heal task's name */
/** Byte offset of the health word in the framework's record given to the
 * callback: 1 healthy, 0 all workers stuck. */
#define TOVI_HEAL_RESULT_OFFSET 128u

/** One task of the framework: 80 bytes, laid out as the framework reads it. */
typedef struct tovi_heal_task_s {
    char name[TOVI_HEAL_TASK_NAME_LEN]; /**< 0: "tovi_schedwork_timeout_check" */
    void (*check)(void *record);        /**< 32: tovi_heal_check_callback */
    uint64_t reserved40;                /**< 40: 0 */
    uint64_t reserved48;                /**< 48: 0 */
    uint32_t param56;                   /**< 56: 1, meaning is the framework's */
    uint32_t param60;                   /**< 60: 5, meaning is the framework's */
    uint32_t param64;                   /**< 64: 5, meaning is the framework's */
    uint32_t pad68;  /**< 68: 0 */
    uint64_t reserved72;                /**< 72: 0 */
} tovi_heal_task_s;

/** Runs the overrun check, then writes the health word of `record` (at
 * TOVI_HEAL_RESULT_OFFSET): 1 healthy, 0 when all workers are stuck. */
TOVI_API void tovi_heal_check_callback(void *record);

/** Fills the library's heal task record. */
TOVI_API void tovi_init_sched_work_heal_task_info(void);

/** The heal task record and the number of tasks (1). 0, or -1 for NULL. */
TOVI_API int32_t tovi_get_sched_work_heal_task_info(tovi_heal_task_s **task, uint32_t *taskNum);

/* ---- Counters for operators (read without locks) ---- */

/** Counters of the work pool (tovi_sched_work_stats). */
typedef struct tovi_sched_work_stats_s {
    uint64_t queued;        /**< works queued since the process started */
    uint64_t started;       /**< handlers begun since the pool last started */
    uint64_t finished;      /**< handlers ended since the pool last started */
    uint64_t overruns;      /**< overrunning handlers found by the heal check */
    uint64_t waitSamples;   /**< queue waits measured */
    uint64_t waitP50Ns;     /**< queue wait (add to handler start), upper bound of */
    uint64_t waitP99Ns;     /**<   the histogram bucket holding the percentile */
    uint64_t waitMaxNs;  /**< longest queue wait */
    int32_t threadsAlive;   /**< workers alive (plus 1024 while destroying) */
    int32_t threadsIdle;    /**< workers not running a handler */
    uint32_t freeNumMin;    /**< idle limits in force */
    uint32_t freeNumMax;  /**< (maximum) */
} tovi_sched_work_stats_s;

/** Copies the counters, each read atomically without a lock (the set is
 * not one snapshot). 0, or -1 for NULL. */
TOVI_API int32_t tovi_sched_work_stats(tovi_sched_work_stats_s *stats);

TOVI_EXTERN_C_END

#endif
