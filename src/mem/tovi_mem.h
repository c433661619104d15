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

#define TOVI_MEM_MAGIC 0xF5F5F5F5u /**< magic of a tracked block's header */
#define TOVI_MEM_MODULES 1024u     /**< module numbers 0 to 1023 */

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

/* ---- The machine's memory ("/proc/meminfo") and pages ---- */

/** MemTotal of /proc/meminfo in KiB; 0 when it cannot be read. */
TOVI_API uint64_t tovi_get_total_mem(void);

/** MemFree of /proc/meminfo in KiB (memory not used at all, page cache not
 * counted as free); 0 when it cannot be read. */
TOVI_API uint64_t tovi_get_free_mem(void);

/** The share of memory in use, in percent (0 to 100): MemTotal less
 * MemAvailable over MemTotal. 0xFFFFFFFF when the figures are missing. */
TOVI_API uint32_t tovi_get_available_usage(void);

/** The size of a base page in bytes (4096 when the system does not say). */
TOVI_API uint64_t tovi_get_sys_page_size(void);

/** Makes the whole pages covering [addr, addr + len) read-only with
 * mprotect (neighbouring data on the same pages included). 0, or 0xFFFFFFFF
 * for a NULL address, a length of 0 or a failed mprotect (logged). */
TOVI_API uint32_t tovi_setmemory_ro(void *addr, uint64_t len);

/** The same, read and write. */
TOVI_API uint32_t tovi_setmemory_rw(void *addr, uint64_t len);

/** Flushes the file systems and drops the page cache, dentries and inodes
 * ("sync;echo 3 > /proc/sys/vm/drop_caches;" in the shell; needs root).
 * The shell's raw wait status, or -1 when it could not run. */
TOVI_API int32_t tovi_release_mem(void);

/** Tracked allocation with the caller's function and line filled in. */
#define TOVI_MALLOC(module, size) tovi_mallocsubstandard((module), (size), 0, __func__, __LINE__)
/** Release of a tracked block (tovi_freesub) with the caller's function and
 * line filled in. */
#define TOVI_FREE(ptr) tovi_freesub((ptr), __func__, __LINE__)

TOVI_EXTERN_C_END

#endif
