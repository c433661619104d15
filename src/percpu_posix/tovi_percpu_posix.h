/**
 * @file
 * Thread-specific keys and once-initialisation: thin wrappers over the POSIX
 * calls that return their result unchanged and log a failure at level 3.
 */
#ifndef TOVI_PERCPU_POSIX_H
#define TOVI_PERCPU_POSIX_H

#include <pthread.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** pthread_once(once, routine): 0 or its error number. */
TOVI_API uint32_t tovi_pthread_init_once(pthread_once_t *once, void (*routine)(void));

/** pthread_key_create(key, destructor): 0 or its error number. */
TOVI_API uint32_t tovi_key_create(pthread_key_t *key, void (*destructor)(void *));

/** pthread_key_delete(key): 0 or its error number. */
TOVI_API uint32_t tovi_key_delete(pthread_key_t key);

/** pthread_setspecific(key, value): 0 or its error number; 0xFFFFFFFF for a
 * null value, which is refused without the call. */
TOVI_API uint32_t tovi_key_setspecific(pthread_key_t key, const void *value);

/** pthread_getspecific(key): the calling thread's value, or NULL (logged) when
 * it has none. */
TOVI_API void *tovi_key_getspecific(pthread_key_t key);

TOVI_EXTERN_C_END

#endif
