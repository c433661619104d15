/**
 * @file
 * Tracked allocation: every block is charged to a module number (0 to 1023,
 * the numbers of the module-name table) so that the memory each module holds
 * can be listed. A 16-byte header sits just before the pointer handed out.
 */
#ifndef TOVI_MEM_H
#define TOVI_MEM_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_MEM_MAGIC 0xF5F5F5F5u  /**< marks a tracked block */
#define TOVI_MEM_MODULES 1024u  /**< module numbers that track memory */

/** The header before every tracked block. */
typedef struct tovi_mem_head_s {
    uint32_t magic;    /**< TOVI_MEM_MAGIC */
    uint32_t size;     /**< bytes requested, header not included */
    uint32_t pid;      /**< module charged */
    uint32_t reserved; /**< 0 */
} tovi_mem_head_s;

/** A print function such as printf: format and arguments, returns an int. */
typedef int (*tovi_mem_print_fn)(const char *fmt, ...);

/** Allocates `size` bytes charged to `module`. NULL for a size of 0 (no
 * message) or when memory runs out (logged). */
TOVI_API void *tovi_mallocsubstandard(uint32_t module, uint32_t size, uint32_t reserved, const char *func,
                                      uint32_t line);

/** The allocation step itself: `size` bytes from the system allocator; sets
 * *type to 1. */
TOVI_API void *tovi_mallocsubproc(uint32_t size, uint32_t *type, uint32_t reserved, uint32_t module,
                                  const char *func);

/** Releases a tracked block and uncharges its module. A block without the
 * header's magic is logged and released as given; NULL is logged. */
TOVI_API void tovi_freesub(void *ptr, const char *func, uint32_t line);

/** Plain release. */
TOVI_API void tovi_freesubproc(void *ptr);

/** Writes the four header words. */
TOVI_API void tovi_mem_init_head(tovi_mem_head_s *head, uint32_t size, uint32_t module);

/** @{ */
/** Adds or subtracts bytes on a module's counter (numbers above 1023 count as
 * module 0). Nothing happens when the usage table is not available. */
TOVI_API void tovi_mem_stat_add(uint32_t module, uint64_t bytes);
TOVI_API void tovi_mem_stat_sub(uint32_t module, uint64_t bytes);
/** @} */

/** Prints the bytes in use of every module that holds any, and the total.
 * The print function's last result; 0 for a NULL print function. */
TOVI_API int tovi_mem_show(tovi_mem_print_fn print);

/** Asks the kernel side to dump its memory statistics. 0 or 0xFFFFFFFF. */
TOVI_API uint32_t tovi_mem_stat_dump(void);

/** Fills `len` bytes of `buf` with `c`, bounded. Returns buf. */
TOVI_API void *tovi_memset(void *buf, int c, size_t len);

/** @{ */
/** Tracked allocation with the caller's function and line filled in. */
#define TOVI_MALLOC(module, size) tovi_mallocsubstandard((module), (size), 0, __func__, __LINE__)
#define TOVI_FREE(ptr) tovi_freesub((ptr), __func__, __LINE__)
/** @} */

TOVI_EXTERN_C_END

#endif
