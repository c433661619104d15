/**
 * @file
 * Library start-up and tear-down, the module-name table, the mutex
 * constructor, the process version stamp and the logging wrappers.
 *
 * An application calls tovi_Init once before anything else and tovi_destory
 * (spelled so) when done; both may be called from any thread, any number of
 * times.
 */
#ifndef TOVI_INIT_H
#define TOVI_INIT_H

#include <pthread.h>

#include "tovi_base.h"
#include "vrlog.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_MODULE_NAME_COUNT 1024u  /**< module numbers 0 to 1023 have names */

/** Kinds of tovi_mtx_init (deliberately not the platform's own constants). */
#define TOVI_MTX_NORMAL 0u
#define TOVI_MTX_ERRORCHECK 1u  /**< an error-checking mutex */
#define TOVI_MTX_RECURSIVE 2u  /**< a recursive mutex */

/** Brings the library up. 0 (at once when already up), or 0xFFFFFFFF when a
 * start step failed; steps that succeeded are not undone. */
TOVI_API uint32_t tovi_Init(void);

/** Tears down the module names, the CPU sampler, scheduled work and the
 * symbol table. 0 (at once when not up). */
TOVI_API uint32_t tovi_destory(void);

/** Takes one throw-away backtrace so that later ones need not load the
 * unwinder. The number of frames captured. */
TOVI_API int tovi_glibc_init(void);

/** @{ */
/** The logging library's functions, forwarded unchanged. */
TOVI_API int tovi_log_init(unsigned int module, const char *name);
TOVI_API int tovi_log_destroy(void);
TOVI_API int tovi_log_level_set(unsigned int module, unsigned int level);
TOVI_API int tovi_log_level_get(unsigned int module);
/** @} */

/** vrlog_ratelimit_set(vrlog_get_group_id(group), interval_ms, burst). */
TOVI_API int tovi_ratelimit_set(const char *group, unsigned int interval_ms, unsigned int burst);

/** @{ */
/** Initialises `mutex` as normal (0), error-checking (1) or recursive (2).
 * The initialisation's result, or 0xFFFFFFFF for another kind (the mutex
 * is then untouched). */
TOVI_API uint32_t tovi_mtx_init(pthread_mutex_t *mutex, uint32_t kind);
TOVI_API int tovi_mtx_destroy(pthread_mutex_t *mutex);
/** @} */

/** @{ */
/** Fills / empties the module-name table. */
TOVI_API void pid_init_names(void);
TOVI_API void pid_destroy_names(void);
/** @} */

/** The module's name: "NONE" when unnamed; for a number above 1023, "<%u>" of
 * its low 16 bits in one buffer shared by all callers. */
TOVI_API const char *tovi_pid_get_name(uint32_t module);

/** Names a module; the pointer is kept, not copied. Numbers above 1023 and a
 * null name are ignored. */
TOVI_API void tovi_pid_set_name(uint32_t module, const char *name);

/** An identifier of this run of the process (raw monotonic nanoseconds at the
 * first call), the same on every call. */
TOVI_API uint64_t ps_get_version(void);

TOVI_EXTERN_C_END

#endif
