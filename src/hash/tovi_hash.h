/**
 * @file
 * Intrusive chained hash table keyed by a pair (a 32-bit and a 64-bit key).
 *
 * The caller embeds a tovi_hash_node_s in each object and owns it; the table
 * owns only its header and its bucket array, both allocated through the
 * optional allocator attribute. Each bucket is a circular doubly linked list
 * whose head is a tovi_hash_list_s; a node begins with the same two links,
 * and points to itself both ways once removed. New nodes go to the front of
 * their bucket.
 *
 * Only the low 32 bits of key64 reach the hash, while equality compares both
 * keys in full: keys that differ only in the high half of key64 share a
 * bucket but are distinct.
 *
 * The table takes no lock: callers serialise all use of one table.
 *
 * Results: 0; -22 invalid argument; -12 no memory; -17 key exists; -1 not found.
 */
#ifndef TOVI_HASH_H
#define TOVI_HASH_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** A bucket head; also the first two fields of every node. */
typedef struct tovi_hash_list {
    struct tovi_hash_list *next;  /**< first node; the head itself when empty */
    struct tovi_hash_list *prev;  /**< last node */
} tovi_hash_list_s;

/** Embedded in the caller's object. */
typedef struct tovi_hash_node {
    struct tovi_hash_list *next;  /**< next node in the bucket */
    struct tovi_hash_list *prev;  /**< previous node in the bucket */
    uint64_t key64;  /**< key of a 64-bit table */
    uint32_t key32;  /**< key of a 32-bit table */
} tovi_hash_node_s;

/** Allocator for the table's own memory (caller-owned, kept alive for the
 * table's life). Both callbacks or neither. */
typedef struct tovi_hash_attr {
    void *(*malloc)(size_t size);  /**< allocates `size` bytes, NULL on failure */
    void (*free)(void *mem);  /**< frees what malloc returned */
} tovi_hash_attr_s;

/** A hash table: bucketCount bucket heads of doubly linked nodes. */
typedef struct tovi_hash_table {
    tovi_hash_list_s *buckets;  /**< bucketCount heads */
    uint32_t bucketCount; /**< a power of two */
    uint8_t pow;          /**< log2(bucketCount) */
    tovi_hash_attr_s *attr;  /**< allocator; NULL: the C library */
} tovi_hash_table_s;

/** Releases one node while tovi_hash_destory empties the table. */
typedef void (*tovi_hash_release_f)(tovi_hash_node_s *node);
/** Visits one node; a non-zero result ends the walk when the walk's `stop` is set. */
typedef int32_t (*tovi_hash_visit_f)(tovi_hash_node_s *node);
/** As tovi_hash_visit_f, with the caller's argument. */
typedef int32_t (*tovi_hash_visit_ex_f)(tovi_hash_node_s *node, void *arg);

/** Zeroes both callbacks. 0, or -1 for a NULL attr. */
TOVI_API int32_t tovi_hash_attr_init(tovi_hash_attr_s *attr);

/** Creates a table of the largest power of two not above `count` buckets
 * (at least 2 should be asked for). `limit` must not exceed 1023 and is only
 * checked. 0 with *table set; -22 for count 0, a NULL table, limit above
 * 1023 or 2^31 buckets or more; -12 (and *table NULL) when an allocation
 * fails. A bucket array from the system allocator that spans whole 2 MiB
 * pages is advised to use transparent huge pages. */
TOVI_API int32_t tovi_hash_create_ex(uint32_t count, tovi_hash_table_s **table, uint32_t limit,
                                     tovi_hash_attr_s *attr);

/** tovi_hash_create_ex without an allocator attribute. */
TOVI_API int32_t tovi_hash_create(uint32_t count, tovi_hash_table_s **table, uint32_t limit);

/** Empties every bucket in index order, front first, passing each node
 * (pointing to itself) to `release` when given; frees the table. 0, or -22
 * for a NULL table. */
TOVI_API int32_t tovi_hash_destory(tovi_hash_table_s *table, tovi_hash_release_f release);

/** Links the node at the front of its bucket. 0; -17 when a node with both
 * keys equal is present (the table is unchanged); -22 for a NULL argument. */
TOVI_API int32_t tovi_hash_insert(tovi_hash_table_s *table, tovi_hash_node_s *node);

/** Unlinks the node with these keys, leaves it pointing to itself and stores
 * it in *node when `node` is given. 0; -1 not found; -22 for a NULL table. */
TOVI_API int32_t tovi_hash_delete(tovi_hash_table_s *table, uint32_t key32, uint64_t key64,
                                  tovi_hash_node_s **node);

/** *node = the node with these keys and 0, or NULL and -1. -22 for a NULL
 * table or node. */
TOVI_API int32_t tovi_hash_search(tovi_hash_table_s *table, uint32_t key32, uint64_t key64,
                                  tovi_hash_node_s **node);

/** Calls `visit` for every node, buckets in index order, each front to back.
 * The next node is read before the call, so `visit` may remove the node it
 * is given (and no other). When `visit` returns non-zero and `stop` is
 * non-zero, returns that value at once; else 0. -22 for a NULL table or
 * callback. */
TOVI_API int32_t tovi_hash_for_each(tovi_hash_table_s *table, tovi_hash_visit_f visit, uint8_t stop);

/** tovi_hash_for_each passing `arg` to every call. */
TOVI_API int32_t tovi_hash_for_each_ex(tovi_hash_table_s *table, tovi_hash_visit_ex_f visit, void *arg,
                                       uint8_t stop);

/** Memory for the table: the system allocator when attr is NULL or has
 * neither callback, the attribute's malloc when it has both; NULL (and a
 * level-6 message) when it has only one. */
TOVI_API void *tovi_hash_malloc(tovi_hash_attr_s *attr, size_t size);

/** Frees memory from tovi_hash_malloc: the system free when attr is NULL or
 * has no free callback, else the attribute's free. */
TOVI_API void tovi_hash_free(tovi_hash_attr_s *attr, void *mem);

/* ---- Inline search ----
 *
 * tovi_hash_search is also a macro that runs the search here, in the caller,
 * with the same results: a lookup is two dependent cache misses (the bucket
 * head, then the node), and a processor overlaps more lookups when each
 * carries fewer instructions. The table header, the bucket heads, the node
 * links and keys and the hash below are therefore part of the interface: a
 * change to them is an incompatible change of the library (new SONAME); the
 * static assertions pin the offsets. (tovi_hash_search)(...) or a
 * function pointer reaches the exported function. Defining
 * TOVI_HASH_NO_INLINE before including this header leaves the macro out. */

/** @cond INTERNAL */
#ifdef __cplusplus
#define TOVI_HASH_ASSERT(c, m) static_assert(c, m)
#else
#define TOVI_HASH_ASSERT(c, m) _Static_assert(c, m)
#endif
TOVI_HASH_ASSERT(sizeof(tovi_hash_list_s) == 16 && __builtin_offsetof(tovi_hash_node_s, next) == 0 &&
                     __builtin_offsetof(tovi_hash_node_s, prev) == 8 &&
                     __builtin_offsetof(tovi_hash_node_s, key64) == 16 &&
                     __builtin_offsetof(tovi_hash_node_s, key32) == 24,
                 "node links and keys");
TOVI_HASH_ASSERT(__builtin_offsetof(tovi_hash_table_s, buckets) == 0 &&
                     __builtin_offsetof(tovi_hash_table_s, bucketCount) == 8 &&
                     __builtin_offsetof(tovi_hash_table_s, pow) == 12,
                 "table header");
#undef TOVI_HASH_ASSERT
/** @endcond */

/** The hash: the top `pow` bits of the product of a multiplier with the word
 * of key32 (high half) and the low half of key64. With pow 0 the shift is 0
 * and the whole low half of the product comes back. */
static inline __attribute__((always_inline)) uint32_t tovi_hash_inl_hash_(uint32_t key32, uint64_t key64, uint8_t pow)
{
    const uint64_t word = ((uint64_t)key32 << 32) | (key64 & 0xFFFFFFFFu);
    return (uint32_t)((word * 0x9e37fffffffc0001ULL) >> ((64u - pow) & 63u));
}

/** The bucket of these keys. The mask changes nothing for pow >= 1 and keeps
 * a one-bucket table (pow 0) inside its array. */
static inline __attribute__((always_inline)) tovi_hash_list_s *tovi_hash_inl_bucket_(const tovi_hash_table_s *table,
                                                                                   uint32_t key32, uint64_t key64)
{
    return &table->buckets[tovi_hash_inl_hash_(key32, key64, table->pow) & (table->bucketCount - 1)];
}

/** The node of the bucket `head` with both keys equal, or NULL. */
static inline __attribute__((always_inline)) tovi_hash_node_s *tovi_hash_inl_find_(tovi_hash_list_s *head,
                                                                                 uint32_t key32, uint64_t key64)
{
    for (tovi_hash_list_s *n = head->next; n != head; n = n->next) {
        tovi_hash_node_s *node = (tovi_hash_node_s *)n;
        if (node->key32 == key32 && node->key64 == key64)
            return node;
    }
    return 0;
}

/** The search behind the macro tovi_hash_search. */
static inline __attribute__((always_inline)) int32_t tovi_hash_inl_search(tovi_hash_table_s *table, uint32_t key32,
                                                                        uint64_t key64, tovi_hash_node_s **node)
{
    if (__builtin_expect(table == 0 || node == 0, 0))
        return (tovi_hash_search)(table, key32, key64, node);
    *node = tovi_hash_inl_find_(tovi_hash_inl_bucket_(table, key32, key64), key32, key64);
    return *node != 0 ? 0 : -1;
}

#ifndef TOVI_HASH_NO_INLINE
/** The inline form of the exported call of the same name, same results. */
#define tovi_hash_search(table, key32, key64, node) tovi_hash_inl_search((table), (key32), (key64), (node))
#endif

TOVI_EXTERN_C_END

#endif
