/**
 * @file
 * An intrusive AVL tree. The caller embeds a tovi_avl_node_s in each of its
 * objects and gives the tree the node's byte position inside the object; the
 * tree links nodes only and never allocates, copies or frees anything. It
 * takes no lock: callers serialise all use of one tree.
 *
 * A failed search returns a "where" handle, so that an insertion can follow
 * without a second descent: the address of the would-be parent's node with
 * the child side (0 left, 1 right) in bit 0; a handle below 2 means "no
 * parent", the new node becomes the root. A handle is valid until the tree
 * is next changed.
 *
 * Comparators are called as compar(searched value, object) and return -1
 * (the value sorts before the object), 0 (equal) or +1 (after it); any other
 * result ends a search as "not found" with handle 0.
 *
 * Directions: 0 towards smaller objects (previous), 1 towards larger (next).
 * A NULL tree or required pointer is reported as "NULL POINTER".
 */
#ifndef TOVI_AVL_H
#define TOVI_AVL_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_AVL_PREV 0  /**< tovi_find_avl_nearest_node: the nearest node before `where` */
#define TOVI_AVL_NEXT 1  /**< the nearest node after `where` */

/** A tree node, embedded in the caller's object at the tree's `offset`. */
typedef struct tovi_avl_node_s {
    struct tovi_avl_node_s *child[2]; /**< [0] left, [1] right */
    struct tovi_avl_node_s *parent;   /**< NULL at the root */
    uint32_t childIndex;              /**< 0: the parent's left child, 1: right */
    int32_t balance;                  /**< right height - left height: -1, 0, +1 */
} tovi_avl_node_s;

/** Orders `value` against an object of the tree: negative, 0 or positive. */
typedef int (*tovi_avl_compar_f)(const void *value, const void *object);

/** An AVL tree: its root, its two orderings and where the node sits in an object. */
typedef struct tovi_avl_tree_s {
    tovi_avl_node_s *root;  /**< NULL while empty */
    tovi_avl_compar_f compar;     /**< ordering of tovi_add_avl_node */
    tovi_avl_compar_f comparFind; /**< ordering of tovi_find_avl_node */
    uint32_t offset;              /**< of the node inside an object */
    uint32_t size;                /**< of an object; kept, not used */
    uint64_t numNodes;  /**< nodes in the tree */
} tovi_avl_tree_s;

/** Sets up an empty tree ordered by compar for adding and finding. 0, or -1
 * for a NULL tree or compar. */
TOVI_API int32_t tovi_create_avl(tovi_avl_tree_s *tree, tovi_avl_compar_f compar, uint32_t size,
                                 uint32_t offset);

/** As tovi_create_avl with a separate comparator for tovi_find_avl_node. 0,
 * or -1 when any pointer is NULL. */
TOVI_API int32_t tovi_create_avl_new(tovi_avl_tree_s *tree, tovi_avl_compar_f compar,
                                     tovi_avl_compar_f comparFind, uint32_t size, uint32_t offset);

/** Empties the tree without visiting the nodes. 0, or -1 for a NULL tree. */
TOVI_API int32_t tovi_destroy_avl(tovi_avl_tree_s *tree);

/** The object equal to value under comparFind (where left untouched), or NULL
 * with the insertion handle stored in *where when where is not NULL. */
TOVI_API void *tovi_find_avl_node(tovi_avl_tree_s *tree, const void *value, uint64_t *where);

/** Links obj at the handle and rebalances. 0; -1 for a NULL pointer or for a
 * handle below 2 while the tree has a root (the root would be lost). */
TOVI_API int32_t tovi_insert_avl_node(tovi_avl_tree_s *tree, void *obj, uint64_t where);

/** Inserts obj at its place under compar unless an equal object is there
 * already, in which case the tree is left as it was. */
TOVI_API void tovi_add_avl_node(tovi_avl_tree_s *tree, void *obj);

/** Inserts obj immediately before (direction 0) or after (1) the object
 * here, which is in the tree. 0; -1 for a NULL pointer or a direction above 1. */
TOVI_API int32_t tovi_insert_avl_node_specified(tovi_avl_tree_s *tree, void *obj, void *here,
                                                int32_t direction);

/** After a failed search: the largest object before the searched value
 * (direction 0) or the smallest after it (1). NULL past either end, for a
 * handle below 2 or a direction above 1. */
TOVI_API void *tovi_find_avl_nearest_node(tovi_avl_tree_s *tree, uint64_t where, int32_t direction);

/** The in-order neighbour of obj: previous (direction 0) or next (1); NULL
 * past the end or for a direction above 1. */
TOVI_API void *tovi_walk_avl_node(tovi_avl_tree_s *tree, void *obj, int32_t direction);

/** @{ */
/** The smallest / largest object, NULL when the tree is empty. */
TOVI_API void *tovi_get_avl_first_node(tovi_avl_tree_s *tree);
TOVI_API void *tovi_get_avl_last_node(tovi_avl_tree_s *tree);
/** @} */

/** The number of linked objects; 0 for a NULL tree. */
TOVI_API uint64_t tovi_get_avl_node_num(tovi_avl_tree_s *tree);

/** Unlinks obj, which is in the tree, and rebalances. Nodes are relinked,
 * never copied between objects; obj's node fields are stale afterwards. */
TOVI_API void tovi_remove_avl_node(tovi_avl_tree_s *tree, void *obj);

TOVI_EXTERN_C_END

#endif
