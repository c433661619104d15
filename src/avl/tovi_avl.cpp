// The intrusive AVL tree.
//
// Invariants, true between calls:
//   - in-order, the objects follow the comparator;
//   - every node's balance is height(right) - height(left) and lies in
//     {-1, 0, +1};
//   - node->child[i]->parent == node and node->child[i]->childIndex == i;
//   - numNodes counts the linked nodes.
//
// The routines are written once for both sides: `d` is a side (0 left,
// 1 right), `1 - d` the other one, and sign(d) the balance a taller subtree
// on side d contributes (-1 for left, +1 for right).
#include <cstdint>

#include "tovi_avl.h"
#define TOVI_LOG_SOURCE "tovi_avl"
#include "tovi_log.hpp"

namespace {

using tovi::log::kDebug;
using tovi::log::kError;
using Node = tovi_avl_node_s;

constexpr int32_t kFail = -1;

inline int32_t sign(uint32_t d)
{
    return d != 0 ? 1 : -1;
}

inline Node *node_of(const tovi_avl_tree_s *tree, void *obj)
{
    return reinterpret_cast<Node *>(static_cast<char *>(obj) + tree->offset);
}

inline void *object_of(const tovi_avl_tree_s *tree, Node *node)
{
    return node == nullptr ? nullptr : reinterpret_cast<char *>(node) - tree->offset;
}

inline uint64_t make_where(Node *parent, uint32_t d)
{
    return reinterpret_cast<uintptr_t>(parent) | d;
}

inline Node *where_node(uint64_t where)
{
    return reinterpret_cast<Node *>(static_cast<uintptr_t>(where & ~uint64_t{1}));
}

inline void set_child(Node *parent, uint32_t d, Node *child)
{
    parent->child[d] = child;
    if (child != nullptr) {
        child->parent = parent;
        child->childIndex = d;
    }
}

// Puts `with` where `old` hangs: under old's parent on old's side, or at the root.
inline void take_place(tovi_avl_tree_s *tree, Node *old, Node *with)
{
    Node *parent = old->parent;
    with->parent = parent;
    with->childIndex = old->childIndex;
    if (parent == nullptr)
        tree->root = with;
    else
        parent->child[old->childIndex] = with;
}

inline Node *extreme(Node *node, uint32_t d)
{
    while (node->child[d] != nullptr)
        node = node->child[d];
    return node;
}

// Rebalances `node`, whose subtree on side d has become two levels taller
// than the other (its stored balance is still the old sign(d)). Returns the
// subtree's new top; *lowered tells whether the subtree is now one level
// lower than before the change that unbalanced it (always after an insertion,
// after a removal unless the heavy child was balanced).
Node *rotate(tovi_avl_tree_s *tree, Node *node, uint32_t d, bool *lowered)
{
    const int32_t s = sign(d);
    Node *heavy = node->child[d];

    if (heavy->balance == -s) {
        /*
         * Double rotation: the heavy child's inner child g rises to the top.
         *
         *        node                 g
         *       /    \              /   \
         *      A    heavy   ->   node   heavy
         *           /   \        /  \    /  \
         *          g     D      A   B1  B2   D
         *         / \
         *        B1  B2          (drawn for d = 1)
         */
        Node *g = heavy->child[1 - d];
        take_place(tree, node, g);
        set_child(node, d, g->child[1 - d]);
        set_child(heavy, 1 - d, g->child[d]);
        set_child(g, 1 - d, node);
        set_child(g, d, heavy);
        node->balance = g->balance == s ? -s : 0;
        heavy->balance = g->balance == -s ? s : 0;
        g->balance = 0;
        *lowered = true;
        return g;
    }

    /*
     * Single rotation: the heavy child rises to the top.
     *
     *        node               heavy
     *       /    \              /   \
     *      A    heavy   ->   node    C
     *           /   \        /  \
     *          B     C      A    B        (drawn for d = 1)
     */
    take_place(tree, node, heavy);
    set_child(node, d, heavy->child[1 - d]);
    set_child(heavy, 1 - d, node);
    if (heavy->balance == s) {
        node->balance = 0;
        heavy->balance = 0;
        *lowered = true;
    } else {
        // Only a removal leaves a balanced heavy child: the height is kept.
        node->balance = s;
        heavy->balance = -s;
        *lowered = false;
    }
    return heavy;
}

// Links node at the handle. The caller has checked the handle.
void insert_at(tovi_avl_tree_s *tree, Node *node, uint64_t where)
{
    Node *parent = where_node(where);
    uint32_t d = static_cast<uint32_t>(where & 1);

    tree->numNodes++;
    node->child[0] = nullptr;
    node->child[1] = nullptr;
    node->parent = parent;
    node->childIndex = d;
    node->balance = 0;
    if (where < 2) {
        tree->root = node;
        return;
    }
    parent->child[d] = node;

    // The subtree on side d of `parent` has grown by one level.
    while (parent != nullptr) {
        int32_t old_balance = parent->balance;
        int32_t new_balance = old_balance + sign(d);
        if (new_balance == 0) {
            parent->balance = 0;
            TOVI_LOG(kDebug, "Set AVL balance done.");
            return;
        }
        if (old_balance != 0) {
            bool lowered;
            rotate(tree, parent, d, &lowered);
            return;
        }
        parent->balance = new_balance;
        d = parent->childIndex;
        parent = parent->parent;
    }
}

// Exchanges node, which has two children, with its in-order neighbour on
// its heavier side, so that node then has at most one child. Links, sides
// and balances are exchanged; the objects themselves stay where they are.
void swap_with_neighbour(tovi_avl_tree_s *tree, Node *node)
{
    const uint32_t d = node->balance == 1 ? 1 : 0;
    Node *near = node->child[d];
    Node *m = extreme(near, 1 - d);  // m->child[1 - d] is NULL

    Node *m_parent = m->parent;
    uint32_t m_index = m->childIndex;
    int32_t m_balance = m->balance;
    Node *m_child = m->child[d];

    take_place(tree, node, m);
    m->balance = node->balance;
    set_child(m, 1 - d, node->child[1 - d]);
    if (m == near) {
        set_child(m, d, node);
    } else {
        set_child(m, d, near);
        set_child(m_parent, m_index, node);
    }
    node->child[1 - d] = nullptr;
    set_child(node, d, m_child);
    node->balance = m_balance;
}

void remove_node(tovi_avl_tree_s *tree, Node *node)
{
    tree->numNodes--;
    if (node->child[0] != nullptr && node->child[1] != nullptr)
        swap_with_neighbour(tree, node);

    Node *child = node->child[0] != nullptr ? node->child[0] : node->child[1];
    Node *parent = node->parent;
    uint32_t d = node->childIndex;
    if (child != nullptr)
        take_place(tree, node, child);
    else if (parent == nullptr)
        tree->root = nullptr;
    else
        parent->child[d] = nullptr;

    // The subtree on side d of `parent` has shrunk by one level.
    while (parent != nullptr) {
        int32_t new_balance = parent->balance - sign(d);
        if (new_balance == 1 || new_balance == -1) {
            parent->balance = new_balance;  // its own height is unchanged
            return;
        }
        Node *top = parent;
        if (new_balance != 0) {
            bool lowered;
            top = rotate(tree, parent, 1 - d, &lowered);
            if (!lowered)
                return;
        } else {
            parent->balance = 0;
        }
        d = top->childIndex;
        parent = top->parent;
    }
}

// The object equal to value under compar, or NULL with the handle in *where.
void *find(tovi_avl_tree_s *tree, tovi_avl_compar_f compar, const void *value, uint64_t *where)
{
    Node *node = tree->root;
    uint64_t handle = 0;
    while (node != nullptr) {
        void *obj = object_of(tree, node);
        int result = compar(value, obj);
        if (result == 0)
            return obj;
        uint32_t d;
        if (result == -1) {
            d = 0;
        } else if (result == 1) {
            d = 1;
        } else {
            handle = 0;
            break;
        }
        handle = make_where(node, d);
        node = node->child[d];
    }
    if (where != nullptr)
        *where = handle;
    return nullptr;
}

}  // namespace

extern "C" {

int32_t tovi_create_avl(tovi_avl_tree_s *tree, tovi_avl_compar_f compar, uint32_t size,
                        uint32_t offset)
{
    return tovi_create_avl_new(tree, compar, compar, size, offset);
}

int32_t tovi_create_avl_new(tovi_avl_tree_s *tree, tovi_avl_compar_f compar,
                            tovi_avl_compar_f comparFind, uint32_t size, uint32_t offset)
{
    if (tree == nullptr || compar == nullptr || comparFind == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return kFail;
    }
    tree->root = nullptr;
    tree->compar = compar;
    tree->comparFind = comparFind;
    tree->offset = offset;
    tree->size = size;
    tree->numNodes = 0;
    return 0;
}

int32_t tovi_destroy_avl(tovi_avl_tree_s *tree)
{
    if (tree == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return kFail;
    }
    tree->root = nullptr;
    tree->numNodes = 0;
    return 0;
}

void *tovi_find_avl_node(tovi_avl_tree_s *tree, const void *value, uint64_t *where)
{
    if (tree == nullptr || value == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return nullptr;
    }
    return find(tree, tree->comparFind, value, where);
}

int32_t tovi_insert_avl_node(tovi_avl_tree_s *tree, void *obj, uint64_t where)
{
    if (tree == nullptr || obj == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return kFail;
    }
    // A root handle into a tree that has a root comes from a failed search
    // (a comparator outside -1..1) or a stale handle: refuse it rather than
    // orphan every linked node.
    if (where < 2 && tree->root != nullptr)
        return kFail;
    insert_at(tree, node_of(tree, obj), where);
    return 0;
}

void tovi_add_avl_node(tovi_avl_tree_s *tree, void *obj)
{
    if (tree == nullptr || obj == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return;
    }
    uint64_t where = 0;
    if (find(tree, tree->compar, obj, &where) != nullptr)
        return;
    if (tovi_insert_avl_node(tree, obj, where) != 0)
        TOVI_LOG(kError, "InsertAvlNode fail.");
}

int32_t tovi_insert_avl_node_specified(tovi_avl_tree_s *tree, void *obj, void *here,
                                       int32_t direction)
{
    if (tree == nullptr || obj == nullptr || here == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return kFail;
    }
    if (static_cast<uint32_t>(direction) > 1) {
        TOVI_LOG(kError, "Invalid Param");
        return kFail;
    }
    const uint32_t d = static_cast<uint32_t>(direction);
    Node *node = node_of(tree, here);
    uint64_t where;
    if (node->child[d] == nullptr)
        where = make_where(node, d);
    else
        where = make_where(extreme(node->child[d], 1 - d), 1 - d);
    if (tovi_insert_avl_node(tree, obj, where) != 0) {
        TOVI_LOG(kError, "InsertAvlNode fail: avl_tree=%p, new_node=%p, here=%p, direction=%d.",
                 static_cast<void *>(tree), obj, here, direction);
        return kFail;
    }
    return 0;
}

void *tovi_walk_avl_node(tovi_avl_tree_s *tree, void *obj, int32_t direction)
{
    if (tree == nullptr || obj == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return nullptr;
    }
    if (static_cast<uint32_t>(direction) > 1) {
        TOVI_LOG(kError, "Invalid Param");
        return nullptr;
    }
    const uint32_t d = static_cast<uint32_t>(direction);
    Node *node = node_of(tree, obj);
    if (node->child[d] != nullptr)
        return object_of(tree, extreme(node->child[d], 1 - d));
    // Climb out of every subtree of which node is the last one on side d.
    while (node->parent != nullptr && node->childIndex == d)
        node = node->parent;
    return object_of(tree, node->parent);
}

void *tovi_find_avl_nearest_node(tovi_avl_tree_s *tree, uint64_t where, int32_t direction)
{
    if (tree == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return nullptr;
    }
    if (where < 2)
        return nullptr;
    if (static_cast<uint32_t>(direction) > 1) {
        TOVI_LOG(kError, "Invalid Param");
        return nullptr;
    }
    // The handle's node is the last one the search passed: the searched
    // value lies right beside it on the handle's side.
    void *obj = object_of(tree, where_node(where));
    if ((where & 1) == static_cast<uint64_t>(direction))
        return tovi_walk_avl_node(tree, obj, direction);
    return obj;
}

void *tovi_get_avl_first_node(tovi_avl_tree_s *tree)
{
    if (tree == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return nullptr;
    }
    return tree->root == nullptr ? nullptr : object_of(tree, extreme(tree->root, 0));
}

void *tovi_get_avl_last_node(tovi_avl_tree_s *tree)
{
    if (tree == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return nullptr;
    }
    return tree->root == nullptr ? nullptr : object_of(tree, extreme(tree->root, 1));
}

uint64_t tovi_get_avl_node_num(tovi_avl_tree_s *tree)
{
    if (tree == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return 0;
    }
    return tree->numNodes;
}

void tovi_remove_avl_node(tovi_avl_tree_s *tree, void *obj)
{
    if (tree == nullptr || obj == nullptr) {
        TOVI_LOG(kError, "NULL POINTER");
        return;
    }
    remove_node(tree, node_of(tree, obj));
}

}  // extern "C"
