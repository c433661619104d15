/**
 * @file
 * The symbol table: function symbols of every object loaded at start-up,
 * for turning code addresses into "function+0xoffset" text. Lookups neither
 * allocate nor lock, so signal handlers may use them.
 */
#ifndef TOVI_SYMBOL_H
#define TOVI_SYMBOL_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_SYMBOL_TYPE_FUNC 2u  /**< symbol type of a function */

/** What a lookup finds. The texts belong to the table and stay valid until
 * tovi_symbol_fini. */
typedef struct tovi_symbol_s {
    const char *file;  /**< path of the object that holds the symbol */
    const char *name;  /**< function name */
    uint64_t addr;     /**< the function's start address */
    uint32_t type;     /**< TOVI_SYMBOL_TYPE_FUNC */
} tovi_symbol_s;

/** Collects the loaded objects and reads their ELF symbols (.symtab when the
 * file has one, else .dynsym). 0, or 0xFFFFFFFF when nothing could be read.
 * Does nothing when the table already exists. */
TOVI_API uint32_t tovi_symbol_init(void);

/** Drops the table; lookups find nothing until the next tovi_symbol_init. */
TOVI_API void tovi_symbol_fini(void);

/** Fills `record` for the function that contains `address`. 0 when found,
 * -1 otherwise (record untouched). */
TOVI_API int tovi_symbol_find(uint64_t address, tovi_symbol_s *record);

/** Writes "function+0xoffset" for `address`, or "0x<address>" when it is in
 * no known function, into `buf` (always terminated, cut to fit). 0 when the
 * address resolved, -1 otherwise (and for a NULL or empty buffer). */
TOVI_API int tovi_symbol_addr_to_string(uint64_t address, char *buf, size_t len);

TOVI_EXTERN_C_END

#endif
