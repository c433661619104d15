// The checked intrusive doubly linked list shared by timers, scheduled work,
// hash buckets and configuration nodes. A head is a node whose links point
// at itself when the list is empty; an unlinked node is poisoned so that a
// second unlink or a use after removal is recognisable.
//
// Corruption is reported, never repaired: check_links() logs a neighbour
// that does not point back and the caller decides whether to go on.
#pragma once

#include <cstdint>

#include "tovi_base.h"

namespace tovi::list {

// The public node type, so that callers' records embed the same links.
using Node = tovi_list_head_s;

inline Node *const kPoisonNext = reinterpret_cast<Node *>(uintptr_t{0x100100});
inline Node *const kPoisonPrev = reinterpret_cast<Node *>(uintptr_t{0x200200});

// An empty list, or a node that is linked nowhere.
inline void init(Node *head)
{
    head->next = head;
    head->prev = head;
}

inline bool empty(const Node *head)
{
    return head->next == head;
}

// Whether a node carries the poison of a removal.
inline bool poisoned(const Node *n)
{
    return n->next == kPoisonNext && n->prev == kPoisonPrev;
}

inline void poison(Node *n)
{
    n->next = kPoisonNext;
    n->prev = kPoisonPrev;
}

inline void link_between(Node *n, Node *prev, Node *next)
{
    next->prev = n;
    n->next = next;
    n->prev = prev;
    prev->next = n;
}

// Inserts after the head (stack order) or before it (queue order).
inline void add(Node *n, Node *head)
{
    link_between(n, head, head->next);
}

inline void add_tail(Node *n, Node *head)
{
    link_between(n, head->prev, head);
}

// Unlinks a node and poisons it.
inline void del(Node *n)
{
    n->next->prev = n->prev;
    n->prev->next = n->next;
    poison(n);
}

// Moves every node of `from` onto the empty list `to`, keeping their order.
inline void splice_init(Node *from, Node *to)
{
    if (empty(from)) {
        init(to);
        return;
    }
    to->next = from->next;
    to->prev = from->prev;
    to->next->prev = to;
    to->prev->next = to;
    init(from);
}

// Checks that both neighbours of `n` point back at it; logs each one that
// does not as "Abnormal list node prev:..." / "Abnormal list node next:...",
// giving every node's own address, next and prev. True when both agree.
bool check_links(const Node *n);

}  // namespace tovi::list
