/**
 * @file
 * Light-weight process instances and their variables.
 *
 * A caller describes an instance type once in a record it owns
 * (tovi_lwp_type_s: a name, the size of each instance's own data, a
 * constructor and a destructor) and registers it. It may then define
 * per-instance variables of the type (each a size; the result is a slot
 * number), and create one instance of the type per context: the context id
 * is the caller's (one per controller, per I/O context, ...). Every instance
 * gets zeroed storage for its data and for every variable defined before it
 * was created; tovi_lwp_var reaches a variable from an instance in constant
 * time.
 *
 * Order and life cycle: the constructor runs once when an instance is
 * created (a failing constructor leaves nothing behind, its result is
 * returned); the destructor runs once when it is destroyed, by
 * tovi_lwp_destroy or by tovi_lwp_destroy_all, which tears every instance
 * down in the reverse order of construction. Variables may be defined only
 * while the type has no instance (-EBUSY otherwise), types unregistered only
 * when they have none.
 *
 * Concurrency: tovi_lwp_find and tovi_lwp_var may run in any number of
 * threads at once; creation and destruction are serialised (constructors
 * and destructors run one at a time, outside the look-up lock, so look-ups
 * never wait for them; they must not create or destroy instances). An instance must not be used after it is destroyed:
 * the caller keeps users away first.
 *
 * Results (negated errno family): 0 success, -22 bad argument, -17 the
 * type's name or the (type, context) instance exists, -2 not found, -16 busy
 * (the type has instances), -12 no memory; a constructor's own non-zero
 * result is passed on. Failures are logged at level 3.
 */
#ifndef TOVI_LWP_H
#define TOVI_LWP_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Bytes of a type name, NUL included. */
#define TOVI_LWP_NAME_LEN 32
/** Variables one type may define. */
#define TOVI_LWP_VAR_MAX 64

/** An instance, created and owned by the library. */
typedef struct tovi_lwp_inst_s tovi_lwp_inst_s;

/** An instance type, owned by the caller and left in place while registered. */
typedef struct tovi_lwp_type_s {
    char name[TOVI_LWP_NAME_LEN]; /**< unique, not empty */
    uint32_t data_size;           /**< bytes of each instance's own data (may be 0) */
    /** Builds the instance of context `ctx` in its zeroed data; 0 on success. May be NULL. */
    int (*ctor)(tovi_lwp_inst_s *inst, void *data, uint32_t ctx, void *arg);
    /** Releases what the constructor built. May be NULL. */
    void (*dtor)(tovi_lwp_inst_s *inst, void *data, uint32_t ctx);
} tovi_lwp_type_s;

/** One line of the diagnostic listing. */
typedef struct tovi_lwp_info_s {
    char type[TOVI_LWP_NAME_LEN]; /**< the instance's type name */
    uint32_t ctx;       /**< its context id */
    uint32_t vars;      /**< variables the instance carries */
    uint64_t bytes;     /**< its data and variables */
    uint64_t sequence;  /**< order of construction, from 1 */
} tovi_lwp_info_s;

/** Registers `type` (the record must outlive the registration). 0, -22 or -17. */
TOVI_API int tovi_lwp_type_register(tovi_lwp_type_s *type);

/** Unregisters `type`: 0, -2 not registered, -16 while it has instances. */
TOVI_API int tovi_lwp_type_unregister(tovi_lwp_type_s *type);

/** Defines a variable of `size` bytes (1 ... 1 MiB, aligned to 16) for every
 * later instance of `type` and stores its slot in `*slot`.
 * 0, -22, -2 type not registered, -16 instances exist, -12 table full. */
TOVI_API int tovi_lwp_var_define(tovi_lwp_type_s *type, const char *name, uint32_t size, uint32_t *slot);

/** Creates the instance of `type` for context `ctx`, runs the constructor with
 * `arg` and stores the instance in `*inst` (may be NULL).
 * 0, -22, -2 type not registered, -17 exists, -12, or the constructor's result. */
TOVI_API int tovi_lwp_create(tovi_lwp_type_s *type, uint32_t ctx, void *arg, tovi_lwp_inst_s **inst);

/** The instance of `type` for `ctx`, or NULL. */
TOVI_API tovi_lwp_inst_s *tovi_lwp_find(const tovi_lwp_type_s *type, uint32_t ctx);

/** The storage of variable `slot` in `inst`, or NULL for a slot it does not carry. */
TOVI_API void *tovi_lwp_var(const tovi_lwp_inst_s *inst, uint32_t slot);

/** The instance's own data (data_size bytes), or NULL. */
TOVI_API void *tovi_lwp_data(const tovi_lwp_inst_s *inst);

/** The instance's context id (0 for NULL). */
TOVI_API uint32_t tovi_lwp_ctx(const tovi_lwp_inst_s *inst);

/** Runs the destructor and frees the instance: 0, -22, -2 not a live instance. */
TOVI_API int tovi_lwp_destroy(tovi_lwp_inst_s *inst);

/** Destroys every instance, newest first; returns how many. */
TOVI_API uint32_t tovi_lwp_destroy_all(void);

/** Copies up to `max` listing lines, oldest first, into `out` (may be NULL
 * when max is 0); returns the number of live instances. */
TOVI_API uint32_t tovi_lwp_list(tovi_lwp_info_s *out, uint32_t max);

TOVI_EXTERN_C_END

#endif
