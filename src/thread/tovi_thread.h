/**
 * @file
 * Threads: the registry of per-thread records, thread creation (raw and
 * from a pool), names, cached ids, stack lookups, and the scheduling
 * strategies (nice value and CPU set) that threads adopt.
 *
 * Every thread started here gets a record, tovi_thread_s, kept in one
 * process-wide registry of 1024 slots; a thread that finds no free slot
 * still runs, with a record of its own that is not listed. Records are
 * found by kernel thread id; a record handed out by a lookup carries a
 * reference that the caller gives back with tovi_thrd_putthreadinfo.
 *
 * Threads are identified by kernel thread ids (gettid) in messages, lookups
 * and dumps; pthread ids are only returned to creators.
 */
#ifndef TOVI_THREAD_H
#define TOVI_THREAD_H

#include <pthread.h>
#include <semaphore.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_THREAD_SLOTS 1024u  /**< records in the thread registry */
#define TOVI_THREAD_NAME_LEN 16u          /**< 15 characters and a NUL */
#define TOVI_THREAD_SIGSTACK_SIZE 65536u  /**< alternate signal stack of each record */
#define TOVI_THREAD_STRATEGIES 6u  /**< entries of the strategy table */
#define TOVI_CPUSET_WORDS 16u             /**< a CPU set: 1024 bits, bit n for CPU n */
#define TOVI_PROCESS_EXE_LEN 256u         /**< buffer of tovi_get_process_exe_name */

/** Slot states (a bit set). */
#define TOVI_THREAD_CLAIMED 1u
#define TOVI_THREAD_RUNNING 2u   /**< a thread started directly */
#define TOVI_THREAD_IDLE 4u      /**< a pool thread waiting for work */
#define TOVI_THREAD_BUSY 8u      /**< a pool thread running work */
#define TOVI_THREAD_FINISHED 16u  /**< a thread that has ended */
#define TOVI_THREAD_LIVE 14u     /**< running, idle or busy */

/** A thread's routine. */
typedef void *(*tovi_thread_fn)(void *arg);

struct tovi_thread_slot_s;

/** The record of one thread. */
typedef struct tovi_thread_s {
    struct tovi_thread_slot_s *slot; /**< NULL for a record that got no slot */
    pthread_t pthread_id;  /**< pthread id */
    tovi_thread_fn start_routine;  /**< routine the thread runs */
    void *arg;  /**< its argument */
    int32_t tid;                     /**< kernel thread id, 0 until the thread runs */
    int32_t pid;  /**< process id */
    uint64_t bind_cpu;               /**< CPU the thread was bound to; all ones: unknown */
    uint32_t numa_id;                /**< all ones: unknown */
    uint32_t preempt_flag;           /**< 0 preemptive, 1 non-preemptive */
    uint32_t strategy;               /**< last strategy number adopted */
    char name[TOVI_THREAD_NAME_LEN]; /**< "[NULL]" until named */
    uint64_t os_stack_low;           /**< operating-system stack, guard area included */
    uint64_t os_stack_high;  /**< end of the operating-system stack */
    void *sig_stack;                 /**< TOVI_THREAD_SIGSTACK_SIZE bytes */
    sem_t sem;                       /**< an idle pool thread waits here for work */
    uint32_t flags;  /**< the library's flags */
} tovi_thread_s;

/* ---- Registry and creation ---- */

/** Once-only set-up of the thread module. Always 0. */
TOVI_API uint32_t tovi_thrd_module_init(void);

/** Starts a detached thread that runs fn(arg) with a record. `trampoline`
 * runs first on the new thread with the record as its argument (NULL: the
 * library's own); `id` (may be NULL) receives the pthread id; `attr` (may
 * be NULL) is the caller's attribute, which is set detached. 0, or
 * 0xFFFFFFFF when no record could be had or the thread was not created. */
TOVI_API uint32_t create_thread_raw_base(tovi_thread_fn fn, void *arg, void *(*trampoline)(void *), pthread_t *id,
                                         pthread_attr_t *attr);

/** @{ */
/** create_thread_raw_base with the library's trampoline and no attribute.
 * 0 or 0xFFFFFFFF. */
TOVI_API uint32_t create_thread_raw(tovi_thread_fn fn, void *arg, pthread_t *id);
TOVI_API uint32_t tovi_thread_create_raw(tovi_thread_fn fn, void *arg, pthread_t *id);
TOVI_API uint32_t tovi_thrd_create(tovi_thread_fn fn, void *arg, pthread_t *id);
/** @} */

/** Runs fn(arg) on an idle pool thread, or else on a new raw thread (with a
 * 128 KiB stack mapped at once when the instant-map flag is 1). 0 or
 * 0xFFFFFFFF. */
TOVI_API uint32_t create_thread_nopreempt_raw(tovi_thread_fn fn, void *arg, pthread_t *id);

/** Creates the thread pool of `count` threads (at most 1024), once per
 * process. Returns the number of threads this call started (a quarter of
 * the pool and one that starts the rest); 0 for a count of 0 or when the
 * pool exists already. */
TOVI_API uint32_t tovi_thread_pool_create(uint32_t count);

/** Hands fn(arg) to an idle pool thread; `id` (may be NULL) receives its
 * pthread id. 0, or 0xFFFFFFFF when there is no pool or no idle thread. */
TOVI_API uint32_t create_thread_from_thread_pool(tovi_thread_fn fn, void *arg, pthread_t *id);

/** Asks every pool thread to leave once its current work is done. */
TOVI_API void tovi_thread_pool_destroy(void);

/** The record of the live thread with kernel thread id `tid`, with a
 * reference held, or NULL. */
TOVI_API tovi_thread_s *tovi_thrd_getthreadinfobytid(int32_t tid);

/** Gives back a reference; a record without a slot is freed. */
TOVI_API void tovi_thrd_putthreadinfo(tovi_thread_s *info);

/** The calling thread's record, or NULL for a thread the library did not
 * start or adopt. No reference is taken. */
TOVI_API tovi_thread_s *tovi_thrd_currentthreadinfo(void);

/** Names the calling thread (record and kernel), at most 15 characters. 0,
 * or 0xFFFFFFFF for a NULL format, a thread without record, a name that
 * cannot be formatted, or a refused kernel name. */
TOVI_API uint32_t tovi_thrd_setname(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/** The calling thread's name, or NULL without record. */
TOVI_API const char *tovi_thrd_getname(void);

/** Prints the live threads of the registry to standard output. */
TOVI_API void tovi_thrd_list(void);

/** @{ */
/** The calling thread's NUMA node (all ones until set) and CPU. */
TOVI_API void tovi_thrd_numaId_set(uint32_t numa);
TOVI_API uint32_t tovi_thrd_numaId_get(void);
/** @} */
/** Records the CPU the calling thread is bound to (negative: unknown). */
TOVI_API void tovi_thrd_core_set(int32_t cpu);
/** The recorded CPU of the calling thread, or the one it runs on now. */
TOVI_API int smp_processor_id(void);

/** @{ */
/** Cached process id (refreshed in a forked child); always 0 / the id. */
TOVI_API uint32_t tovi_thrd_setpid_accl(void);
TOVI_API int32_t tovi_thrd_getpid_accl(void);
/** @} */
/** @{ */
/** Cached kernel thread id of the caller. */
TOVI_API void tovi_thrd_settid_accl(void);
TOVI_API int32_t tovi_thrd_gettid_accl(void);
TOVI_API int32_t tovi_thread_get_knl_tid(void);
/** @} */

/** The process name from /proc (at most 15 characters; `buf` holds at least
 * 16 bytes). 0, or 0xFFFFFFFF for NULL or an unreadable status file. */
TOVI_API uint32_t tovi_get_process_name(char *buf);

/** The path of the process's executable, cut to TOVI_PROCESS_EXE_LEN - 1
 * characters. 0, or 0xFFFFFFFF for NULL or an unreadable link. */
TOVI_API uint32_t tovi_get_process_exe_name(char *buf);

/** @{ */
/** The instant-map flag: with 1, threads that create_thread_nopreempt_raw
 * and the pool start have small stacks whose pages are mapped at once. */
TOVI_API void tovi_set_instant_map_flag(int32_t flag);
TOVI_API int32_t tovi_get_instant_map_flag(void);
/** @} */

/** Disables the calling thread's alternate signal stack. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_thrd_unsetsigstack(void);

/* ---- Stacks (usable from signal handlers: no allocation, no lock) ---- */

/** A user-level threading package's stack lookup: fills the bounds of the
 * stack holding `sp` on kernel thread `tid` and returns 0, or non-zero. */
typedef struct tovi_lwt_stack_ops_s {
    int (*get_stack)(int32_t tid, uint64_t sp, uint64_t *start, uint64_t *end);  /**< the lookup */
    const char *desc; /**< description of a stack it finds */
} tovi_lwt_stack_ops_s;

/** @{ */
/** Installs / removes the lookup (one at a time). 0, or 0xFFFFFFFF for NULL
 * or when another one is installed / not this one. */
TOVI_API uint32_t register_lwt_stack_ops(const tovi_lwt_stack_ops_s *ops);
TOVI_API uint32_t unregister_lwt_stack_ops(const tovi_lwt_stack_ops_s *ops);
/** @} */

/** The stack of thread `tid` (0: the caller) that holds `sp`: its bounds and
 * "OS_STACK", "SIG_STACK" or the light-weight lookup's description, and 0.
 * Otherwise 0xFFFFFFFF with *desc "UNKNOWN_STACK" (no record),
 * "INVALID_LWT_STACK" (the light-weight lookup failed) or "INVALID_STACK". */
TOVI_API uint32_t tovi_thrd_getcurrentstack(int32_t tid, uint64_t sp, uint64_t *start, uint64_t *end,
                                            const char **desc);

/** The operating-system stack of thread `tid` (0: the caller) from its
 * record. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_thrd_getosstack(int32_t tid, uint64_t *start, uint64_t *end);

/** As tovi_thrd_getosstack, and for the main thread without record its
 * "[stack]" mapping. 0 or 0xFFFFFFFF. Not for signal handlers. */
TOVI_API uint32_t tovi_thread_get_specific_stack(int32_t tid, uint64_t *start, uint64_t *end);

/* ---- Thread watch: threads that announce a deadline for their work ---- */

#define TOVI_THREAD_WATCH_MAX 64u  /**< entries of the watch table */

/** One entry of the thread watch table. */
typedef struct tovi_thread_watch_s {
    int32_t tid;            /**< kernel thread id; 0 for a free entry */
    uint32_t timeout;       /**< jiffies the work may take */
    uint64_t start_jiffies; /**< when the thread announced it */
    uint32_t overdue;       /**< 1 when more than `timeout` jiffies have passed */
    char name[TOVI_THREAD_NAME_LEN];  /**< thread name */
} tovi_thread_watch_s;

/** Watches the calling thread for `timeout` jiffies from now (renewing its
 * entry if it has one). The entry index, or -1 when the table is full. */
TOVI_API int32_t tovi_thread_watch_add(uint32_t timeout);

/** Ends the calling thread's watch. 0, or 0xFFFFFFFF when it has none. */
TOVI_API uint32_t tovi_thread_watch_del(void);

/** A copy of entry `index`. 0, or 0xFFFFFFFF for NULL, an index out of
 * range or a free entry. */
TOVI_API uint32_t tovi_thread_watch_get(uint32_t index, tovi_thread_watch_s *out);

/* ---- Scheduling strategies, priority and CPU binding ---- */

/** A strategy: a nice value and a CPU list ("0-3,8"). */
typedef struct tovi_thread_strategy_s {
    int32_t prio;  /**< nice value */
    const char *cpus;  /**< CPU list, e.g. "0-3,8" */
} tovi_thread_strategy_s;

/** Fills strategy entry `strategy` (0 to 5). 0, or 0xFFFFFFFF for a bad
 * number, a NULL description or a bad CPU list (the entry is then invalid). */
TOVI_API uint32_t tovi_initThreadStrategy(uint32_t strategy, const tovi_thread_strategy_s *desc);

/** Applies entry `strategy` (or entry 0 when it is invalid; nothing when
 * both are) to the calling thread and records the number. 0, also for a
 * number above 5; 0xFFFFFFFF when the nice value or the binding failed. */
TOVI_API uint32_t tovi_setCurThreadStrategy(uint32_t strategy);

/** Sets the calling thread's nice value. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_setCurThreadPrio(int32_t value);

/** Nice value by level: 0 -20, 1 -15, 2 0, 3 10, 4 15; other levels are
 * ignored. */
TOVI_API void tovi_thrd_setprio(uint32_t level);

/** Binds the calling thread to a CPU list. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_setCurThreadBind(const char *cpus);

/** Binds a thread to a CPU set (TOVI_CPUSET_WORDS words); a set without a
 * configured CPU leaves the thread where it is. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_thrd_setbindcpu(pthread_t thread, const uint64_t *set);

/** @{ */
/** The CPU set of a thread, by pthread id or by kernel thread id, into a
 * cleared set of TOVI_CPUSET_WORDS words. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_thrd_getbindcpu(pthread_t thread, uint64_t *set);
TOVI_API uint32_t tovi_thrd_getbindcpu_bypid(int32_t tid, uint64_t *set);
/** @} */

/** Gives the calling thread a record if it has none (strategy 0 applied);
 * the record is given back when the thread ends. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_thrd_setcurthreadinfo(void);

/** Prints the strategy table to standard output. */
TOVI_API void tovi_showThreadStrategyDbg(void);

/* ---- Signals and stack dumps ----
 * One handler, fault_handler, serves the fault and termination signals on
 * the thread's alternate signal stack: it prints the thread's registers with
 * symbols, a call trace over the frame records and a hex dump of the stack,
 * all through the raw log, one line per call, each starting with "<tid>".
 * Fatal signals then run the exception chain and are re-raised with their
 * default action, so the process ends (and dumps core) as it would have.
 * Dump-only signals: 12, 13, 14, 21, 22, 26, 27, 29 and 61; at most three
 * of them are dumped at a time. Nothing on these paths allocates or locks. */

#define TOVI_SIGNAL_TASKTRACK 61  /**< another thread asks for this thread's dump */
#define TOVI_SIGNAL_BLOCKSTACK 59 /**< append a backtrace to the block-stack file */
#define TOVI_SIGNAL_NAMES 128u    /**< entries of the signal-name table */
#define TOVI_TAG_BUF_LEN 64u      /**< size of g_tag_buf */

/** Text written at the head of every block-stack record: "dump_time:" and
 *  the time stamps dump_thread_stack_sig_roc appended (bounded, never reset). */
TOVI_API extern char g_tag_buf[TOVI_TAG_BUF_LEN];

/** 1 when `sig` is fatal (re-raised after its dump), 0 when it is dump-only
 *  (12, 13, 14, 21, 22, 26, 27, 29, 61). */
TOVI_API int tovi_signal_is_fatal(int sig);

/** Installs fault_handler for the handled signals, once per process; also
 *  loads the symbol table, registers the exit hook, ignores SIGHUP and
 *  installs signal 61. A signal whose sigaction fails stays unhandled. */
TOVI_API void tovi_thread_signal_init(void);

/** As tovi_thread_signal_init for exactly the `count` signals of `sigList`
 *  (the first argument is ignored); each is named "sigList[i]" in the table.
 *  Logs "signal init with list(...)." at info. */
TOVI_API void tovi_thread_signal_init_with_list(void *ignored, const uint32_t *sigList, uint32_t count);

/** Installs fault_handler for signal 61 once and names it "SIGTASKTRACK". */
TOVI_API void auto_install_dump_stack_signal(void);

/** Asks thread `tid` of process `pid` to dump its own stack (signal 61 by
 *  tgkill), logging the request and its result. */
TOVI_API void dump_thread_stack_sig(int32_t pid, int32_t tid);

/** Dumps thread `tid` of this process without running code on it: its
 *  registers come from the companion's register query (command 0x500). */
TOVI_API void tovi_thread_dump_thread_stack(uint64_t tid);

/** Backtrace of the caller (its own frame skipped). */
TOVI_API void tovi_dump_stack(void);

/** Backtrace of the caller skipping max(skip, 0) + 1 frames. */
TOVI_API void tovi_dump_stack_skip(int32_t skip);

/** Captures at most `depth` return addresses into `buffer` and prints those
 *  from index max(skip, 0) + 1 on with their symbols. */
TOVI_API void tovi_dump_stack_ext(void **buffer, int32_t depth, int32_t skip);

/** Prints the caller's program counter, stack and frame pointers, then its
 *  backtrace. */
TOVI_API void tovi_thread_dump_stack(void);

/** The process-exit hook of the signal module: logs "exit_callback!" at
 *  error level and dumps the caller's stack. */
TOVI_API void tovi_thread_exit_callback(void);

/** The register and stack dump of fault_handler for signal `sig` and the
 *  interrupted context `ucontext` (a ucontext_t). */
TOVI_API void tovi_thread_dump_current_stack(int32_t sig, void *ucontext);

/** The stack part of a dump of the calling thread (`tid`) at stack pointer
 *  `sp` and frame pointer `fp`: call trace and, for fatal signals, hex dump. */
TOVI_API void tovi_thread_dump_sync_stack(int32_t tid, int32_t sig, uint64_t sp, uint64_t fp);

/** As tovi_thread_dump_sync_stack for the calling thread at exit, without
 *  any hex dump; the messages say "(exit)". */
TOVI_API void tovi_thread_dump_exit_stack(uint64_t sp, uint64_t fp);

/** Hex dump, four words a line with runs of zero lines collapsed, of the
 *  stack from sp - 1024 (not below `start`) for at most 16 KiB (not beyond
 *  `end`). Only for fatal signals. */
TOVI_API void tovi_thread_dump_full_stack(int32_t sig, uint64_t sp, int32_t tid, uint64_t start, uint64_t end);

/** Hex dump of the whole operating-system stack of thread `tid`, each code
 *  address announced with its symbol; for when the registry does not know
 *  the stack in use. Only for fatal signals. */
TOVI_API void tovi_thread_dump_broken_stack(int32_t sig, int32_t tid);

/** Prints `label` and `addr` with its function, offset and object file
 *  ("NULL" when it resolves to none); with `with_value` 1 also the word
 *  stored at `addr`. */
TOVI_API void tovi_print_addr_symbol(int32_t tid, uint64_t addr, const char *label, int32_t with_value);

/** Hands the registers of the interrupted context to the exception chain
 *  (action 0) for signal `sig`; the chain's result. */
TOVI_API int32_t tovi_signal_exit_notify(int32_t sig, void *siginfo, void *ucontext);

/** 1 once the fault handlers are installed, else 0. */
TOVI_API uint32_t tovi_thread_signal_flag_get(void);

/** 0 when the fault handlers are installed, -1 otherwise. */
TOVI_API int32_t is_dump_stack_enabled(void);

/** Turns the process-wide core-dump flag on (1). */
TOVI_API void tovi_thread_set_coredump_on(void);
/** Turns the process-wide core-dump flag off (0). */
TOVI_API void tovi_thread_set_coredump_off(void);

/** Stores the core-dump flag in `*out`: 0 when it is 0 or 1, -1 otherwise
 *  (and for NULL). */
TOVI_API int32_t tovi_thread_coredump_flag_get(uint32_t *out);

/** Remembers the process name and installs the signal-59 handler
 *  (dump_stack_by_sig). Run by the thread module's set-up. */
TOVI_API void dump_signal_init(void);

/** The signal-59 handler: appends g_tag_buf and the symbolised backtrace of
 *  the receiving thread to "/var/log/dr/block-stack-<process>-<tid>". */
TOVI_API void dump_stack_by_sig(int sig);

/** Appends "dump_time:<seconds>\n" to g_tag_buf and sends signal 59 to
 *  thread `tid` of process `pid`; both messages go to module 999. */
TOVI_API void dump_thread_stack_sig_roc(int32_t pid, int32_t tid);

/** State of one thread of this process as the kernel side reports it. */
typedef struct tovi_thrd_status_s {
    int32_t tid;    /**< the thread asked for */
    char state;     /**< 'R' running, 'S' sleeping, 'D' waiting on I/O, ... */
    int32_t cpu;    /**< the CPU it last ran on */
    uint64_t utime; /**< user time, clock ticks */
    uint64_t stime; /**< system time, clock ticks */
} tovi_thrd_status_s;

/** Fills `*status` for thread `tid` of this process. 0, or 0xFFFFFFFF with
 *  "Tovi syscall for thrd_getstatus failed." (also for NULL). */
TOVI_API uint32_t tovi_thrd_getstatus(int32_t tid, tovi_thrd_status_s *status);

/** Dumps the stack of the thread of this process that is running on `cpu`
 *  (signal 61). 0, or 0xFFFFFFFF with "Tovi syscall for
 *  cur_cpu_thrd_getstatus failed." when none is found. */
TOVI_API uint32_t tovi_thrd_dump_cpu_stack_knl(uint32_t cpu);

TOVI_EXTERN_C_END

#endif
