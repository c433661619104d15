/**
 * @file
 * The affinity level: a named CPU set, "affinity_level_1", to which the
 * timer threads bind themselves. Its CPUs are the item
 * "THREAD_CPU_AFFINITY_LIST" of the custom-settings section named after the
 * level (tovi_cst_getItem): decimal CPU numbers separated by ',' (no ranges;
 * numbers of 1024 and above are ignored, text that is no number reads as
 * CPU 0). The level is read only in the process named "app_data"; in every
 * other process it stays empty and binding to it does nothing.
 */
#ifndef TOVI_AFFINITY_H
#define TOVI_AFFINITY_H

#include <pthread.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_AFFINITY_NAME_LEN 64u  /**< level name, NUL included */

/** A named affinity level and its CPU set (1024 bits, bit n for CPU n). */
typedef struct tovi_affinity_level_s {
    char affinityLevelName[TOVI_AFFINITY_NAME_LEN]; /**< level name, NUL-terminated */
    uint64_t cpuSet[16];                            /**< CPU set, bit n for CPU n */
} tovi_affinity_level_s;

/** The level "affinity_level_1" (empty name until tovi_affinity_init read it). */
TOVI_API extern tovi_affinity_level_s g_affinityLevel_1;

/** Sets the affinity level up once per process. 0; -1 (logged) when the
 * process name cannot be read, and the next call tries again. */
TOVI_API int32_t tovi_affinity_init(void);

/** Forgets the level so that the next tovi_affinity_init reads it again.
 * Always 0. */
TOVI_API int32_t tovi_affinity_exit(void);

/** Reads the level's CPU list from the custom settings into `level` (its
 * set cleared first, then its name stored). 0, or 0xFFFFFFFF (logged) when
 * the item is missing or the name does not fit. */
TOVI_API uint32_t tovi_parse_affinity_level(const char *name, tovi_affinity_level_s *level);

/** Sets the CPUs of a list of decimal numbers in the level's set; empty
 * pieces name no CPU. */
TOVI_API void tovi_parse_affinity_value(const char *text, tovi_affinity_level_s *level);

/** The level of that name, or NULL (also before the level was read). */
TOVI_API tovi_affinity_level_s *tovi_get_affinity_entity(const char *name);

/** Binds a thread to a level's CPUs. 0 (also for an unknown level, which
 * leaves the thread alone); 0xFFFFFFFF for NULL or a failed binding
 * (logged). */
TOVI_API uint32_t tovi_set_thread_affinity(pthread_t thread, const char *name);

TOVI_EXTERN_C_END

#endif
