/**
 * @file
 * Huge pages: the sizes the kernel offers (one directory
 * "/sys/kernel/mm/hugepages/hugepages-<N>kB" each) and their counters.
 * tovi_huge_page_init reads the sizes once into the module's list, smallest
 * first; the counters are read afresh on every tovi_get_page_info_from_file.
 * The list is guarded by the module's mutex.
 */
#ifndef TOVI_HUGEPAGES_H
#define TOVI_HUGEPAGES_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_HUGE_PAGE_DIR "/sys/kernel/mm/hugepages" /**< where the size directories are */

/** One huge-page size and its pool's counters, as the kernel reports them. */
typedef struct tovi_huge_page_info_s {
    uint64_t size;     /**< bytes per page */
    uint64_t total;    /**< nr_hugepages */
    uint64_t free;     /**< free_hugepages */
    uint64_t reserved; /**< resv_hugepages */
    uint64_t surplus;  /**< surplus_hugepages */
} tovi_huge_page_info_s;

/** Reads the offered sizes into the module's list, once; later calls
 * return 0 until the list is destroyed. 0, or 0xFFFFFFFF when the
 * directory cannot be read (logged). */
TOVI_API uint32_t tovi_huge_page_init(void);

/** The default huge-page size in bytes ("Hugepagesize" of /proc/meminfo),
 * 0 when the kernel has none. */
TOVI_API uint64_t tovi_get_page_size(void);

/** Fills `info` from one size directory (a path ending in
 * "hugepages-<N>kB"). 0, or 0xFFFFFFFF for a NULL argument, a name of
 * another form or an unreadable counter (logged). */
TOVI_API uint32_t tovi_get_page_info_from_file(const char *dir, tovi_huge_page_info_s *info);

/** The size in bytes of the list's entry `index` (smallest first), 0 beyond
 * the end or when the list is empty. */
TOVI_API uint64_t tovi_get_page_size_from_list(uint32_t index);

/** Empties the list; the next tovi_huge_page_init reads it again. */
TOVI_API void tovi_destroy_page_list(void);

/** The module's tear-down: the same as tovi_destroy_page_list. */
TOVI_API void tovi_huge_page_destroy(void);

TOVI_EXTERN_C_END

#endif
