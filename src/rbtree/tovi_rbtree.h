/**
 * @file
 * An intrusive red-black tree. The caller embeds a tovi_rb_node in each
 * object, descends from the root itself to find where a new node goes, links
 * it there with tovi_rb_link_node and then calls tovi_rb_insert_color;
 * tovi_rb_erase unlinks. The tree allocates nothing and takes no lock:
 * callers serialise all use of one tree.
 *
 * A node keeps its parent's address and its colour in one word: bit 0 set is
 * black, clear is red; the low two bits are not part of the address, so
 * nodes must be at least 4-byte aligned. A node whose parent is itself is
 * empty (unlinked).
 *
 * Augmented trees (a value per node computed from its children) call
 * tovi_rb_augment_insert after tovi_rb_insert_color, and bracket
 * tovi_rb_erase with tovi_rb_augment_erase_begin / _end. The callback
 * recomputes one node's value from its children's.
 */
#ifndef TOVI_RBTREE_H
#define TOVI_RBTREE_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_RB_RED 0u  /**< colour of a red node */
#define TOVI_RB_BLACK 1u  /**< colour of a black node */

/** A tree node, embedded in the caller's object. */
typedef struct tovi_rb_node {
    uint64_t parentColor; /**< parent address | colour (bit 0: black) */
    struct tovi_rb_node *right;  /**< right child */
    struct tovi_rb_node *left;  /**< left child */
} tovi_rb_node;

/** A red-black tree: its root node. */
typedef struct tovi_rb_root {
    struct tovi_rb_node *node;  /**< NULL while empty */
} tovi_rb_root;

/** Recomputes the augmented value of `node` from its children. */
typedef void (*tovi_rb_augment_f)(tovi_rb_node *node, void *data);

#define TOVI_RB_ROOT_INIT {NULL}  /**< an empty tree */

/** The object that embeds node as its member `member`. */
#define tovi_rb_entry(node, type, member) ((type *)((char *)(node) - offsetof(type, member)))

/** The parent of node, NULL at the root. */
static inline tovi_rb_node *tovi_rb_parent(const tovi_rb_node *node)
{
    return (tovi_rb_node *)(uintptr_t)(node->parentColor & ~(uint64_t)3);
}

/** Non-zero when node is black. */
static inline int tovi_rb_is_black(const tovi_rb_node *node)
{
    return (int)(node->parentColor & TOVI_RB_BLACK);
}

/** @{ */
/** Marks node empty (unlinked) / tells whether it is. */
static inline void tovi_rb_clear_node(tovi_rb_node *node)
{
    node->parentColor = (uint64_t)(uintptr_t)node;
}
static inline int tovi_rb_empty_node(const tovi_rb_node *node)
{
    return tovi_rb_parent(node) == node;
}
/** @} */

/** Links node, red and childless, at *link under parent (NULL for the root);
 * tovi_rb_insert_color must follow. */
static inline void tovi_rb_link_node(tovi_rb_node *node, tovi_rb_node *parent, tovi_rb_node **link)
{
    node->parentColor = (uint64_t)(uintptr_t)parent;
    node->left = NULL;
    node->right = NULL;
    *link = node;
}

/** Restores the red-black rules after node was linked as a red leaf. */
TOVI_API void tovi_rb_insert_color(tovi_rb_node *node, tovi_rb_root *root);

/** Unlinks node and rebalances; node's own fields are left as they were. */
TOVI_API void tovi_rb_erase(tovi_rb_node *node, tovi_rb_root *root);

/** Puts newNode in victim's place (colour and links) without rebalancing;
 * the caller keeps the order. */
TOVI_API void tovi_rb_replace_node(tovi_rb_node *victim, tovi_rb_node *newNode, tovi_rb_root *root);

/** @{ */
/** The first / last node in order, NULL for an empty tree. */
TOVI_API tovi_rb_node *tovi_rb_first(const tovi_rb_root *root);
TOVI_API tovi_rb_node *tovi_rb_last(const tovi_rb_root *root);
/** @} */

/** @{ */
/** The in-order successor / predecessor, NULL at the end and for an empty
 * node. */
TOVI_API tovi_rb_node *tovi_rb_next(const tovi_rb_node *node);
TOVI_API tovi_rb_node *tovi_rb_prev(const tovi_rb_node *node);
/** @} */

/** After tovi_rb_insert_color of node: refreshes the augmented values that
 * the insertion changed, children first. */
TOVI_API void tovi_rb_augment_insert(tovi_rb_node *node, tovi_rb_augment_f func, void *data);

/** Before tovi_rb_erase of node: the deepest node whose augmented value the
 * erase changes (NULL when node is the only one), for _erase_end. */
TOVI_API tovi_rb_node *tovi_rb_augment_erase_begin(tovi_rb_node *node);

/** After the erase: refreshes from the node _erase_begin returned up to the
 * root; a NULL node does nothing. */
TOVI_API void tovi_rb_augment_erase_end(tovi_rb_node *node, tovi_rb_augment_f func, void *data);

TOVI_EXTERN_C_END

#endif
