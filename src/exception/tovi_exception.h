/**
 * @file
 * The process-wide exception chain, "tovi_exception_chain": a notifier chain
 * that a fatal signal runs (after its dump, before the process dies) with
 * the interrupted registers; the installation of the fault handlers; and a
 * watchdog hook. The walk only tries the chain lock: a fault inside an
 * exception callback finds it held and returns -1 instead of deadlocking.
 */
#ifndef TOVI_EXCEPTION_H
#define TOVI_EXCEPTION_H

#include "tovi_base.h"
#include "tovi_notifier.h"

TOVI_EXTERN_C_BEGIN

/** The registers of an interrupted context: the 31 general registers (on
 *  x86_64 the first 18 hold RAX to R15, RIP and EFLAGS), the stack pointer,
 *  the program counter and the processor state. */
typedef struct ToviExceptionRegs {
    uint64_t regs[31]; /**< general registers in the dump's order */
    uint64_t sp;       /**< stack pointer */
    uint64_t pc;       /**< program counter */
    uint64_t pstate;   /**< processor state (flags) */
} ToviExceptionRegs;

/** What an exception callback receives as its data. */
typedef struct ToviExceptionData {
    ToviExceptionRegs *regs; /**< registers of the faulting context, or NULL */
    void *siginfo;           /**< the signal's siginfo_t, or NULL */
    uint64_t arg64;          /**< caller's 64-bit argument */
    uint32_t arg32;          /**< caller's 32-bit argument */
    int32_t sig;             /**< the signal number */
} ToviExceptionData;

/** The watchdog hook. */
typedef int32_t (*ToviExceptionWatchdogFn)(uint32_t value);

/** Registers `block` on the exception chain; always 0. */
TOVI_API int32_t tovi_exception_chain_register__(ToviNotifierBlock *block, const char *file, int32_t line);

/** Unregisters `block` from the exception chain: 0, or -2 when absent. */
TOVI_API int32_t tovi_exception_chain_unregister__(ToviNotifierBlock *block, const char *file, int32_t line);

/** tovi_exception_chain_register__ with the caller's file and line. */
#define tovi_exception_chain_register(block) tovi_exception_chain_register__((block), __FILE__, __LINE__)
/** tovi_exception_chain_unregister__ with the caller's file and line. */
#define tovi_exception_chain_unregister(block) tovi_exception_chain_unregister__((block), __FILE__, __LINE__)

/** Walks the whole exception chain with `action` and a ToviExceptionData of
 *  the other arguments. The walk's status, or -1 when the chain is being
 *  walked already (its lock is not waited for). */
TOVI_API int32_t tovi_exception_call_chain(uint64_t action, void *siginfo, ToviExceptionRegs *regs, uint64_t arg64,
                                           uint32_t arg32, int32_t sig);

/** Installs the fault handlers (tovi_thread_signal_init); 0. */
TOVI_API int32_t tovi_exception_init(void);

/** Installs the fault handlers for the `sigNum` signals of `sigList` (the
 *  first argument is ignored). 0, or -1 for a NULL list or a count of 0. */
TOVI_API int32_t tovi_exception_init_with_list(void *ignored, const uint32_t *sigList, uint32_t sigNum);

/** Stores the watchdog hook, replacing any earlier one; 0. */
TOVI_API int32_t tovi_exception_watchdog_timer_func_register(ToviExceptionWatchdogFn fn);

/** Calls the watchdog hook with `value`: its result, or 0 when there is none. */
TOVI_API int32_t tovi_exception_watchdog_timer_reset(uint32_t value);

TOVI_EXTERN_C_END

#endif
