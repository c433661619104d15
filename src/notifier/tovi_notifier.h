/**
 * @file
 * Notifier chains: callers register blocks (a callback and a priority) on a
 * chain and a walk calls them in descending priority order, registration
 * order among equals. A callback's status with TOVI_NOTIFY_STOP_MASK set
 * ends the walk. Each chain has a spin lock that records its holder; the
 * walk holds it throughout, and a callback may unregister itself (or
 * register) on the chain it is called from: those calls see that their own
 * thread holds the lock and change the chain without taking it again.
 */
#ifndef TOVI_NOTIFIER_H
#define TOVI_NOTIFIER_H

#include "tovi_base.h"
#include "tovi_lock.h"

TOVI_EXTERN_C_BEGIN

/** Status bit of a callback that ends the walk. */
#define TOVI_NOTIFY_STOP_MASK 0x8000

struct ToviNotifierBlock;

/** A callback: the block it was registered with, the walk's action and data;
 *  returns a status (TOVI_NOTIFY_STOP_MASK set: stop). */
typedef int32_t (*ToviNotifierFn)(struct ToviNotifierBlock *block, uint64_t action, void *data);

/** A registration, owned by the registrant; the chain links it, never frees it. */
typedef struct ToviNotifierBlock {
    ToviNotifierFn notifier_call;   /**< the callback */
    struct ToviNotifierBlock *next; /**< next block on the chain */
    uint32_t priority;              /**< higher priorities are called first */
} ToviNotifierBlock;

/** A chain: its name (for messages), its lock (whose owner field holds the
 *  walking thread's id) and its first block. */
typedef struct ToviAtomicNotifierHead {
    const char *name;         /**< shown in the chain's messages */
    tovi_spinlock_s lock;     /**< guards the links; owner: holder's kernel tid */
    ToviNotifierBlock *head;  /**< first block, NULL when empty */
} ToviAtomicNotifierHead;

/** Static initialiser of an empty chain called `name`. */
#define TOVI_ATOMIC_NOTIFIER_HEAD_INIT(name) {(name), TOVI_SPINLOCK_INITIALIZER, NULL}

/** Inserts `block` before the first block of lower priority. Always 0 (also
 *  for NULL arguments, which change nothing). `file` and `line` name the
 *  caller in the message "Notifier chain ... register ...". */
TOVI_API int32_t tovi_atomic_notifier_chain_register__(ToviAtomicNotifierHead *head, ToviNotifierBlock *block,
                                                       const char *file, int32_t line);

/** Removes `block`: 0, or -2 when it is not on the chain; 0 for NULL
 *  arguments. */
TOVI_API int32_t tovi_atomic_notifier_chain_unregister__(ToviAtomicNotifierHead *head, ToviNotifierBlock *block,
                                                         const char *file, int32_t line);

/** Calls the blocks in order with `action` and `data` until one returns a
 *  status with TOVI_NOTIFY_STOP_MASK, the chain ends or `nrToCall` calls
 *  were made (-1: no limit); counts the calls into `*nrCalls` when given.
 *  The last status, 0 when nothing was called (NULL or empty chain). */
TOVI_API int32_t tovi_atomic_notifier_call_chain__(ToviAtomicNotifierHead *head, uint64_t action, void *data,
                                                   int32_t nrToCall, int32_t *nrCalls);

/** tovi_atomic_notifier_chain_register__ with the caller's file and line. */
#define tovi_atomic_notifier_chain_register(head, block) \
    tovi_atomic_notifier_chain_register__((head), (block), __FILE__, __LINE__)
/** tovi_atomic_notifier_chain_unregister__ with the caller's file and line. */
#define tovi_atomic_notifier_chain_unregister(head, block) \
    tovi_atomic_notifier_chain_unregister__((head), (block), __FILE__, __LINE__)
/** The whole chain, uncounted. */
#define tovi_atomic_notifier_call_chain(head, action, data) \
    tovi_atomic_notifier_call_chain__((head), (action), (data), -1, NULL)

TOVI_EXTERN_C_END

#endif
