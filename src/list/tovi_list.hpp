// The checked intrusive doubly linked list shared by timers, scheduled work,
// hash buckets and configuration nodes. A head is a node whose links point
// at itself when the list is empty; an unlinked node is poisoned so that a
// second unlink or a use after removal is recognisable.
//
// Corruption is reported, never repaired: the check_* functions log a
// neighbour that does not point back and the caller decides whether to go on.
// They are the only place that prints "Abnormal list node".
#pragma once

#include <cstddef>
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

// Unlinks a node and leaves it self-linked (on no list).
inline void del_init(Node *n)
{
    n->next->prev = n->prev;
    n->prev->next = n->next;
    init(n);
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

// The record that embeds node `n` at byte `offset` (offsetof(T, member)).
template <class T>
inline T *entry(Node *n, std::size_t offset)
{
    return reinterpret_cast<T *>(reinterpret_cast<char *>(n) - offset);
}

template <class T>
inline const T *entry(const Node *n, std::size_t offset)
{
    return reinterpret_cast<const T *>(reinterpret_cast<const char *>(n) - offset);
}

// The records of a list in order, for a range-for:
//     for (Waiter *w : list::for_each_entry<Waiter>(head, offsetof(Waiter, node)))
// The successor is read before the body runs, so the body may unlink (or
// free) the record it is given, but no other.
template <class T>
class for_each_entry {
public:
    for_each_entry(Node *head, std::size_t offset) : head_(head), offset_(offset) {}

    class iterator {
    public:
        iterator(Node *cur, std::size_t offset) : cur_(cur), next_(cur->next), offset_(offset) {}
        T *operator*() const { return entry<T>(cur_, offset_); }
        iterator &operator++()
        {
            cur_ = next_;
            next_ = cur_->next;
            return *this;
        }
        bool operator!=(const iterator &other) const { return cur_ != other.cur_; }

    private:
        Node *cur_;
        Node *next_;
        std::size_t offset_;
    };

    iterator begin() const { return iterator(head_->next, offset_); }
    iterator end() const { return iterator(head_, offset_); }

private:
    Node *head_;
    std::size_t offset_;
};

// The same list operations for lists whose links some thread reads without
// the lock that orders the changes (a waiter testing its own entry, a pending
// test of a timer): every link store is an atomic store of memory order
// `Order`, so such a reader never sees a torn pointer. Writers still
// serialise among themselves with their lock.
template <int Order>
struct Atomic {
    static void store(Node **field, Node *value) { __atomic_store_n(field, value, Order); }

    // `next` last: an unlocked reader that sees it self-linked may reuse the
    // node at once, so no store to it may come later.
    static void init(Node *head)
    {
        store(&head->prev, head);
        store(&head->next, head);
    }

    static void link_between(Node *n, Node *prev, Node *next)
    {
        store(&n->next, next);
        store(&n->prev, prev);
        store(&next->prev, n);
        store(&prev->next, n);
    }

    static void add(Node *n, Node *head) { link_between(n, head, head->next); }
    static void add_tail(Node *n, Node *head) { link_between(n, head->prev, head); }

    // Unlinks a node and leaves it self-linked (on no list).
    static void del_init(Node *n)
    {
        Node *prev = n->prev;
        Node *next = n->next;
        store(&next->prev, prev);
        store(&prev->next, next);
        init(n);
    }

    // As list::splice_init.
    static void splice_init(Node *from, Node *to)
    {
        if (empty(from)) {
            init(to);
            return;
        }
        Node *first = from->next;
        Node *last = from->prev;
        store(&to->next, first);
        store(&to->prev, last);
        store(&first->prev, to);
        store(&last->next, to);
        init(from);
    }
};

// Orders nothing beyond the pointer itself (the lock does the rest).
using Relaxed = Atomic<__ATOMIC_RELAXED>;
// Publishes everything the writer did before the link store.
using Release = Atomic<__ATOMIC_RELEASE>;

// Called with each node of a failed check (the neighbour, then the node
// itself) so that the owner can dump the records around them.
using ShowFn = void (*)(Node *);

// Checks that both neighbours of `n` point back at it; logs each one that
// does not as "Abnormal list node prev:..." / "Abnormal list node next:...",
// giving every node's own address, next and prev, and passes both nodes to
// `show`. True when both agree.
bool check_links(const Node *n, ShowFn show = nullptr);

// check_links for a node about to be unlinked whose links may lead nowhere:
// a missing (NULL) or poisoned prev is logged at level 6 as
// "List node prev:(%p), cur:(%p)" instead, and a next that leads nowhere is
// not followed. True when nothing was found.
bool check_unlink(const Node *n, ShowFn show = nullptr);

// The prev half of check_unlink: for a node (or a list head) about to get a
// new predecessor.
bool check_tail_link(const Node *n, ShowFn show = nullptr);

// The check of one step of a walk: `n` must follow `last`
// ("Abnormal list node cur:%p(%p,%p), is not point to last:%p") and its
// successor must point back. True when both hold.
bool check_step(const Node *n, const Node *last);

// A link that leads nowhere: NULL or the poison of a removal.
inline bool bad_link(const Node *p)
{
    return p == nullptr || p == kPoisonPrev || p == kPoisonNext;
}

}  // namespace tovi::list
