/**
 * @file
 * Jiffies: a 64-bit tick counter advanced 250 times a second (4 ms a jiffy).
 *
 * On the platform the kernel publishes the counter through a UIO device that
 * the library maps read-only once; elsewhere, and whenever nothing is mapped,
 * jiffies are derived from the nanosecond clock.
 */
#ifndef TOVI_JIFFIES_H
#define TOVI_JIFFIES_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** The mapping of the kernel's jiffies counter. All four descriptors are
 * closed again before the mapping call returns; their numbers stay here. */
typedef struct tovi_jiffies_uio_s {
    int32_t dev_fd;          /**< the UIO character device */
    int32_t addr_fd;         /**< maps/map0/addr */
    int32_t size_fd;         /**< maps/map0/size */
    int32_t offset_fd;       /**< maps/map0/offset */
    uint64_t phys_addr;      /**< value of the addr file */
    uint64_t size;           /**< value of the size file: the length mapped */
    volatile uint64_t *jiffies; /**< mapping base + offset; NULL while unmapped */
} tovi_jiffies_uio_s;

/** The jiffies device and its mapping (read-only for callers). */
TOVI_API extern tovi_jiffies_uio_s g_jiffies_uio;

/** Maps the kernel's jiffies counter once. 0, or 0xFFFFFFFF when the device
 * is missing or cannot be mapped. Without the kernel companion it succeeds
 * without mapping. */
TOVI_API uint32_t jiffies_usr_main(void);

/** Maps the counter and sets up the clock base once. */
TOVI_API void jiffies_Init(void);

/** Current jiffies: the mapped counter, or nanoseconds / 4000000. */
TOVI_API uint64_t tovi_get_jiffies(void);

/** Returns its argument. */
TOVI_API uint64_t jiffies_fini(uint64_t value);

/** The mapping record. */
TOVI_API tovi_jiffies_uio_s *jiffies_uio_get(void);

/** Opens and maps the device: 0 or 0xFFFFFFFF. */
TOVI_API uint32_t jiffies_uio_adp_open(void);

/** Closes the recorded device descriptor (already closed by the open, so the
 * result is informative only). */
TOVI_API int jiffies_uio_adp_close(void);

TOVI_EXTERN_C_END

#endif
