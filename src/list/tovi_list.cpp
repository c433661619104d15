#include "tovi_list.hpp"

#define TOVI_LOG_SOURCE "tovi_list"
#include "tovi_log.hpp"

namespace tovi::list {
namespace {

const void *at(const Node *n)
{
    return static_cast<const void *>(n);
}

void show_pair(ShowFn show, const Node *neighbour, const Node *n)
{
    if (show != nullptr) {
        show(const_cast<Node *>(neighbour));
        show(const_cast<Node *>(n));
    }
}

bool check_prev(const Node *n, ShowFn show)
{
    const Node *prev = n->prev;
    if (prev->next == n)
        return true;
    TOVI_LOG(log::kError, "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)", at(prev), at(prev->next),
             at(prev->prev), at(n), at(n->next), at(n->prev));
    show_pair(show, prev, n);
    return false;
}

bool check_next(const Node *n, ShowFn show)
{
    const Node *next = n->next;
    if (next->prev == n)
        return true;
    TOVI_LOG(log::kError, "Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)", at(next), at(next->next),
             at(next->prev), at(n), at(n->next), at(n->prev));
    show_pair(show, next, n);
    return false;
}

}  // namespace

bool check_links(const Node *n, ShowFn show)
{
    bool ok = check_prev(n, show);
    return check_next(n, show) && ok;
}

bool check_tail_link(const Node *n, ShowFn show)
{
    const Node *prev = n->prev;
    if (prev == nullptr || prev == kPoisonPrev) {
        TOVI_LOG(log::kInfo, "List node prev:(%p), cur:(%p)", at(prev), at(n));
        return false;
    }
    return check_prev(n, show);
}

bool check_unlink(const Node *n, ShowFn show)
{
    bool ok = check_tail_link(n, show);
    if (!bad_link(n->next))
        ok = check_next(n, show) && ok;
    return ok;
}

bool check_step(const Node *n, const Node *last)
{
    bool ok = true;
    if (n->prev != last) {
        TOVI_LOG(log::kError, "Abnormal list node cur:%p(%p,%p), is not point to last:%p", at(n), at(n->next),
                 at(n->prev), at(last));
        ok = false;
    }
    return check_next(n, nullptr) && ok;
}

}  // namespace tovi::list
