#include "tovi_list.hpp"

#include "tovi_log.hpp"

namespace tovi::list {

bool check_links(const Node *n)
{
    bool ok = true;
    const Node *prev = n->prev;
    if (prev->next != n) {
        TOVI_LOG(log::kError, "Abnormal list node prev:%p(%p,%p) is not point to cur:%p(%p,%p)",
                 static_cast<const void *>(prev), static_cast<void *>(prev->next), static_cast<void *>(prev->prev),
                 static_cast<const void *>(n), static_cast<void *>(n->next), static_cast<void *>(n->prev));
        ok = false;
    }
    const Node *next = n->next;
    if (next->prev != n) {
        TOVI_LOG(log::kError, "Abnormal list node next:%p(%p,%p) is not point to cur:%p(%p,%p)",
                 static_cast<const void *>(next), static_cast<void *>(next->next), static_cast<void *>(next->prev),
                 static_cast<const void *>(n), static_cast<void *>(n->next), static_cast<void *>(n->prev));
        ok = false;
    }
    return ok;
}

}  // namespace tovi::list
