// Notifier chains. The links change only under the chain's spin lock. A
// walk remembers each block's successor before calling it, so a callback
// may take its own block off the chain: register and unregister called by
// the thread that holds the lock (recorded in the lock's owner field) work
// on the links directly instead of spinning on a lock they hold.
#include "tovi_notifier.hpp"

#include <unistd.h>

#include "tovi_lock.h"
#define TOVI_LOG_SOURCE "tovi_notifier"
#include "tovi_log.hpp"

namespace tovi::notifier {
namespace {

using log::kInfo;

constexpr int32_t kNotFound = -2;

uint64_t self()
{
    return static_cast<uint64_t>(static_cast<uint32_t>(gettid()));
}

// Holds the chain lock for a scope unless this thread holds it already (a
// callback changing the chain that is calling it).
class ChainGuard {
public:
    explicit ChainGuard(ToviAtomicNotifierHead *head) : head_(head), taken_(owner(head) != self())
    {
        if (taken_)
            lock(head_);
    }
    ~ChainGuard()
    {
        if (taken_)
            unlock(head_);
    }
    ChainGuard(const ChainGuard &) = delete;
    ChainGuard &operator=(const ChainGuard &) = delete;

private:
    ToviAtomicNotifierHead *head_;
    bool taken_;
};

bool on_chain(const ToviAtomicNotifierHead *head, const ToviNotifierBlock *block)
{
    for (const ToviNotifierBlock *nb = head->head; nb != nullptr; nb = nb->next)
        if (nb == block)
            return true;
    return false;
}

}  // namespace

uint64_t owner(const ToviAtomicNotifierHead *head)
{
    // Relaxed: only the holder ever stores its own id, so a thread reading
    // its own id here is the holder; any other value means "not me".
    return __atomic_load_n(&head->lock.owner, __ATOMIC_RELAXED);
}

void lock(ToviAtomicNotifierHead *head)
{
    do_tovi_spinlock_lock(&head->lock.lock, __func__, __LINE__);
    __atomic_store_n(&head->lock.owner, self(), __ATOMIC_RELAXED);
}

bool try_lock(ToviAtomicNotifierHead *head)
{
    if (do_tovi_spinlock_trylock(&head->lock.lock, __func__, __LINE__) == 0)
        return false;
    __atomic_store_n(&head->lock.owner, self(), __ATOMIC_RELAXED);
    return true;
}

void unlock(ToviAtomicNotifierHead *head)
{
    __atomic_store_n(&head->lock.owner, TOVI_LOCK_NO_OWNER, __ATOMIC_RELAXED);
    do_tovi_spinlock_unlock(&head->lock.lock, __func__, __LINE__);
}

int32_t call_chain_locked(ToviAtomicNotifierHead *head, uint64_t action, void *data, int32_t nrToCall,
                          int32_t *nrCalls)
{
    int32_t ret = 0;
    ToviNotifierBlock *nb = head->head;
    while (nb != nullptr && nrToCall != 0) {
        ToviNotifierBlock *next = nb->next;  // the callback may unregister nb
        TOVI_LOG(kInfo, "Exception chain node %p called start: function:%p, action=%d, data=%p, pri=%u, next=%p.",
                 static_cast<void *>(nb), reinterpret_cast<void *>(nb->notifier_call), static_cast<int>(action),
                 data, nb->priority, static_cast<void *>(next));
        ret = nb->notifier_call(nb, action, data);
        TOVI_LOG(kInfo, "Exception chain node %p called end: action=%d, data=%p, ret=0x%02X.", static_cast<void *>(nb),
                 static_cast<int>(action), data, static_cast<unsigned>(ret));
        if (nrCalls != nullptr)
            ++*nrCalls;
        if ((ret & TOVI_NOTIFY_STOP_MASK) != 0)
            break;
        nb = next;
        if (nrToCall > 0)
            --nrToCall;
    }
    return ret;
}

}  // namespace tovi::notifier

using tovi::log::kInfo;
using namespace tovi::notifier;

extern "C" {

int32_t tovi_atomic_notifier_chain_register__(ToviAtomicNotifierHead *head, ToviNotifierBlock *block,
                                              const char *file, int32_t line)
{
    if (head == nullptr || block == nullptr)
        return 0;
    {
        ChainGuard guard(head);
        // A block registered a second time would be linked after itself, and
        // the next walk would never end (with the lock held): it stays put.
        if (!on_chain(head, block)) {
            ToviNotifierBlock **link = &head->head;
            while (*link != nullptr && (*link)->priority >= block->priority)
                link = &(*link)->next;
            block->next = *link;
            *link = block;
        }
    }
    TOVI_LOG(kInfo, "Notifier chain %s register (%s:%d, %p, %p, %u), ret=%d", head->name, file, line,
             static_cast<void *>(block), reinterpret_cast<void *>(block->notifier_call), block->priority, 0);
    return 0;
}

int32_t tovi_atomic_notifier_chain_unregister__(ToviAtomicNotifierHead *head, ToviNotifierBlock *block,
                                                const char *file, int32_t line)
{
    if (head == nullptr || block == nullptr)
        return 0;
    int32_t ret = kNotFound;
    {
        ChainGuard guard(head);
        for (ToviNotifierBlock **link = &head->head; *link != nullptr; link = &(*link)->next)
            if (*link == block) {
                *link = block->next;
                ret = 0;
                break;
            }
    }
    TOVI_LOG(kInfo, "Notifier chain %s unregister (%s:%d, 0x%p), ret=%d", head->name, file, line,
             static_cast<void *>(block), ret);
    return ret;
}

int32_t tovi_atomic_notifier_call_chain__(ToviAtomicNotifierHead *head, uint64_t action, void *data,
                                          int32_t nrToCall, int32_t *nrCalls)
{
    if (head == nullptr)
        return 0;
    TOVI_LOG(kInfo, "Chain name %s call chain start: action=%d, data=%p, nrToCall=%d, nrCalls=%p.", head->name,
             static_cast<int>(action), data, nrToCall, static_cast<void *>(nrCalls));
    lock(head);
    int32_t ret = call_chain_locked(head, action, data, nrToCall, nrCalls);
    unlock(head);
    return ret;
}

}  // extern "C"
