// The intrusive red-black tree.
//
// Invariants, true between calls:
//   1. every node is red or black;
//   2. the root is black;
//   3. a red node has no red child;
//   4. every path from a node down to a NULL link passes the same number of
//      black nodes (the node's black height).
// Together they bound the height by 2 log2(n + 1). A node's parent and colour
// share parentColor; rotations rewrite the parent part only, so every node
// keeps its colour through a rotation unless a case below repaints it.
//
// Plain and augmented trees share one insertion and one erase rebalancing
// routine: augmentation is applied afterwards by one walk (augment_path)
// that serves tovi_rb_augment_insert and tovi_rb_augment_erase_end alike.
//
// In the drawings, upper-case letters are black, lower-case red, and a node
// in parentheses is of either colour. The cases are written once for both
// mirror images: `side` is the side on which the node being fixed hangs, and
// the drawings show side = left.
#include <cstdint>

#include "tovi_rbtree.h"

namespace {

using Node = tovi_rb_node;
using Root = tovi_rb_root;

constexpr uint64_t kColourMask = 3;

inline Node *parent_of(const Node *n)
{
    return reinterpret_cast<Node *>(static_cast<uintptr_t>(n->parentColor & ~kColourMask));
}

inline bool is_black(const Node *n)
{
    return (n->parentColor & TOVI_RB_BLACK) != 0;
}

// NULL links count as black.
inline bool black_or_null(const Node *n)
{
    return n == nullptr || is_black(n);
}

inline void set_black(Node *n)
{
    n->parentColor |= TOVI_RB_BLACK;
}

inline void set_red(Node *n)
{
    n->parentColor &= ~uint64_t{TOVI_RB_BLACK};
}

// New parent, colour kept.
inline void set_parent(Node *n, Node *parent)
{
    n->parentColor = reinterpret_cast<uintptr_t>(parent) | (n->parentColor & kColourMask);
}

// The child link on one side: false is left, true right.
inline Node *&link(Node *n, bool right)
{
    return right ? n->right : n->left;
}

// Makes `with` hang where `old` hung under parent (NULL: at the root).
inline void change_child(Node *old, Node *with, Node *parent, Root *root)
{
    if (parent == nullptr)
        root->node = with;
    else if (parent->left == old)
        parent->left = with;
    else
        parent->right = with;
}

/*
 * x moves down to side `to`; its child on the other side, y, takes its place
 * and y's inner subtree B passes to x. Colours stay with the nodes.
 *
 *        x                 y
 *       / \               / \
 *      A   y      ->     x   C
 *         / \           / \
 *        B   C         A   B           (to = left)
 */
void rotate(Node *x, bool to, Root *root)
{
    Node *y = link(x, !to);
    Node *b = link(y, to);
    Node *parent = parent_of(x);

    link(x, !to) = b;
    if (b != nullptr)
        set_parent(b, x);
    link(y, to) = x;
    set_parent(y, parent);
    change_child(x, y, parent, root);
    set_parent(x, y);
}

Node *extreme(Node *n, bool right)
{
    while (link(n, right) != nullptr)
        n = link(n, right);
    return n;
}

// The neighbour of n towards side `right` in order.
Node *neighbour(const Node *node, bool right)
{
    if (parent_of(node) == node)
        return nullptr;  // empty node
    Node *n = const_cast<Node *>(node);
    if (link(n, right) != nullptr)
        return extreme(link(n, right), !right);
    // Climb out of every subtree of which n is the last node on that side.
    Node *parent;
    while ((parent = parent_of(n)) != nullptr && n == link(parent, right))
        n = parent;
    return parent;
}

void insert_fixup(Node *node, Root *root)
{
    Node *parent = parent_of(node);

    for (;;) {
        // node is red; rule 3 may be broken between node and its parent only.
        if (parent == nullptr) {
            set_black(node);  // the root: rule 2, and every path gains one black
            return;
        }
        if (is_black(parent))
            return;

        Node *gparent = parent_of(parent);  // a red parent is never the root
        const bool side = parent == gparent->right;
        Node *uncle = link(gparent, !side);

        if (uncle != nullptr && !is_black(uncle)) {
            /*
             * Case 1: red uncle. Push G's black down to both children; the
             * black heights below G are unchanged, but g may now break rule 3
             * with its own parent: go on two levels up.
             *
             *          G               g
             *         / \             / \
             *        p   u    ->     P   U
             *        |               |
             *        n               n
             */
            set_black(parent);
            set_black(uncle);
            set_red(gparent);
            node = gparent;
            parent = parent_of(node);
            continue;
        }

        if (node == link(parent, !side)) {
            /*
             * Case 2: black uncle, node is the inner grandchild. Rotate it to
             * the outside; this is case 3 with the roles of n and p swapped.
             *
             *          G               G
             *         / \             / \
             *        p   U    ->     n   U
             *         \             /
             *          n           p
             */
            rotate(parent, side, root);
            Node *tmp = parent;
            parent = node;
            node = tmp;
        }

        /*
         * Case 3: black uncle, node is the outer grandchild. Rotate at G and
         * swap the colours of P and G: rule 3 holds and no path changes its
         * count of black nodes.
         *
         *          G               P
         *         / \             / \
         *        p   U    ->     n   g
         *       /                     \
         *      n                       U
         */
        rotate(gparent, !side, root);
        set_black(parent);
        set_red(gparent);
        return;
    }
}

// node (possibly NULL) under parent is one black short on every path through
// it, after a black node was removed there.
void erase_fixup(Node *node, Node *parent, Root *root)
{
    while (parent != nullptr && black_or_null(node)) {
        // A NULL node is on the side whose link is NULL; its sibling cannot be
        // NULL, since the sibling's side still holds at least one black.
        const bool side = node == parent->right;
        Node *sibling = link(parent, !side);

        if (!is_black(sibling)) {
            /*
             * Case 1: red sibling. Rotate at the parent and swap colours so
             * that node's new sibling is black (it was one of s's children).
             *
             *        P               S
             *       / \             / \
             *      N   s    ->     p   Sr
             *         / \         / \
             *        Sl  Sr      N   Sl
             */
            rotate(parent, side, root);
            set_black(sibling);
            set_red(parent);
            sibling = link(parent, !side);
        }

        Node *outer = link(sibling, !side);
        Node *inner = link(sibling, side);
        if (black_or_null(outer) && black_or_null(inner)) {
            /*
             * Case 2: black sibling with black children. Paint the sibling
             * red: both sides of the parent are now one black short, so the
             * shortage moves up to the parent (ends there if it is red).
             *
             *       (p)             (p)
             *       / \             / \
             *      N   S    ->     N   s
             *         / \             / \
             *        Sl  Sr          Sl  Sr
             */
            set_red(sibling);
            node = parent;
            parent = parent_of(node);
            continue;
        }

        if (black_or_null(outer)) {
            /*
             * Case 3: black sibling, red inner child, black outer child.
             * Rotate at the sibling so that the red child ends on the outside.
             *
             *       (p)             (p)
             *       / \             / \
             *      N   S    ->     N   Sl
             *         / \               \
             *        sl  Sr              s
             *                             \
             *                              Sr
             */
            rotate(sibling, !side, root);
            set_red(sibling);
            set_black(inner);
            outer = sibling;
            sibling = inner;
        }

        /*
         * Case 4: black sibling, red outer child. Rotate at the parent; the
         * sibling takes the parent's colour and the parent and the outer
         * child turn black: node's side gains the missing black.
         *
         *       (p)             (s)
         *       / \             / \
         *      N   S    ->     P   Sr
         *         / \         / \
         *       (sl) sr      N  (sl)
         */
        sibling->parentColor =
            (sibling->parentColor & ~kColourMask) | (parent->parentColor & kColourMask);
        set_black(parent);
        set_black(outer);
        rotate(parent, side, root);
        return;
    }
    if (node != nullptr)
        set_black(node);
}

void erase(Node *node, Root *root)
{
    Node *child;
    Node *parent;
    bool removed_black;

    if (node->left != nullptr && node->right != nullptr) {
        // The successor s takes node's place and colour; the position that
        // actually empties is s's old one, which had no left child.
        Node *succ = extreme(node->right, false);
        child = succ->right;
        removed_black = is_black(succ);
        if (parent_of(succ) == node) {
            parent = succ;
        } else {
            parent = parent_of(succ);
            parent->left = child;
            if (child != nullptr)
                set_parent(child, parent);
            succ->right = node->right;
            set_parent(node->right, succ);
        }
        succ->left = node->left;
        set_parent(node->left, succ);
        change_child(node, succ, parent_of(node), root);
        succ->parentColor = node->parentColor;
    } else {
        child = node->left != nullptr ? node->left : node->right;
        parent = parent_of(node);
        removed_black = is_black(node);
        if (child != nullptr)
            set_parent(child, parent);
        change_child(node, child, parent, root);
    }
    if (removed_black)
        erase_fixup(child, parent, root);
}

// Refreshes n, then every node on the way to the root, each after its two
// children: the sibling of the node climbed from is refreshed first.
void augment_path(Node *n, tovi_rb_augment_f func, void *data)
{
    for (;;) {
        func(n, data);
        Node *parent = parent_of(n);
        if (parent == nullptr)
            return;
        if (n == parent->right)
            func(parent->left != nullptr ? parent->left : n, data);
        else if (parent->right != nullptr)
            func(parent->right, data);
        n = parent;
    }
}

}  // namespace

extern "C" {

void tovi_rb_insert_color(tovi_rb_node *node, tovi_rb_root *root)
{
    if (node == nullptr || root == nullptr)
        return;
    insert_fixup(node, root);
}

void tovi_rb_erase(tovi_rb_node *node, tovi_rb_root *root)
{
    if (node == nullptr || root == nullptr)
        return;
    erase(node, root);
}

void tovi_rb_replace_node(tovi_rb_node *victim, tovi_rb_node *newNode, tovi_rb_root *root)
{
    if (victim == nullptr || newNode == nullptr || root == nullptr)
        return;
    change_child(victim, newNode, parent_of(victim), root);
    if (victim->left != nullptr)
        set_parent(victim->left, newNode);
    if (victim->right != nullptr)
        set_parent(victim->right, newNode);
    newNode->parentColor = victim->parentColor;
    newNode->right = victim->right;
    newNode->left = victim->left;
}

tovi_rb_node *tovi_rb_first(const tovi_rb_root *root)
{
    if (root == nullptr || root->node == nullptr)
        return nullptr;
    return extreme(root->node, false);
}

tovi_rb_node *tovi_rb_last(const tovi_rb_root *root)
{
    if (root == nullptr || root->node == nullptr)
        return nullptr;
    return extreme(root->node, true);
}

tovi_rb_node *tovi_rb_next(const tovi_rb_node *node)
{
    return node == nullptr ? nullptr : neighbour(node, true);
}

tovi_rb_node *tovi_rb_prev(const tovi_rb_node *node)
{
    return node == nullptr ? nullptr : neighbour(node, false);
}

void tovi_rb_augment_insert(tovi_rb_node *node, tovi_rb_augment_f func, void *data)
{
    if (node == nullptr || func == nullptr)
        return;
    // After the rotations node's children are the nodes whose values moved.
    Node *start = node->left != nullptr ? node->left : node->right != nullptr ? node->right : node;
    augment_path(start, func, data);
}

tovi_rb_node *tovi_rb_augment_erase_begin(tovi_rb_node *node)
{
    if (node == nullptr)
        return nullptr;
    if (node->left == nullptr && node->right == nullptr)
        return parent_of(node);
    if (node->left == nullptr)
        return node->right;
    if (node->right == nullptr)
        return node->left;
    // The successor moves up into node's place; the values below it change
    // from where it left: its right child moves up, or its parent lost it.
    Node *succ = extreme(node->right, false);
    if (succ->right != nullptr)
        return succ->right;
    Node *parent = parent_of(succ);
    return parent != node ? parent : succ;
}

void tovi_rb_augment_erase_end(tovi_rb_node *node, tovi_rb_augment_f func, void *data)
{
    if (node == nullptr || func == nullptr)
        return;
    augment_path(node, func, data);
}

}  // extern "C"
