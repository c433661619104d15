// Wait queues: every list change happens under the head's spin lock; the
// waiting flag is the wait word the sleeper parks on.
#include <cstddef>
#include <unistd.h>

#include "tovi_list.hpp"
#define TOVI_LOG_SOURCE "tovi_sem_enhance"
#include "tovi_log.hpp"
#include "tovi_sched.h"
#include "tovi_thread.h"

namespace {

namespace list = tovi::list;

// A waiter tests its own entry without the head's lock (finish_wait must
// not block on it), so the queues are list::Release lists: every link store
// is atomic, and the release pairs with queued(). The lock still orders the
// changes among themselves.
using Links = list::Release;

bool queued(const wait_queue_t *wait)
{
    return __atomic_load_n(&wait->entry.next, __ATOMIC_ACQUIRE) != &wait->entry;
}

void set_flag(uint32_t *flag, uint32_t value)
{
    __atomic_store_n(flag, value, __ATOMIC_RELEASE);  // pairs with the sleeper's acquire load of its word
}

// A NULL head or entry is refused (logged) instead of dereferenced.
bool null_arg(const void *a, const void *b, const char *func)
{
    if (a != nullptr && b != nullptr)
        return false;
    TOVI_LOG(tovi::log::kError, "Wait queue param is NULL in %s.", func);
    return true;
}

}  // namespace

extern "C" {

void tovi_init_wait_entry(wait_queue_t *wait)
{
    if (null_arg(wait, wait, __func__))
        return;
    wait->tid = static_cast<uint32_t>(tovi_thrd_gettid_accl());
    wait->waiting = 0;
    wait->priv = nullptr;
    list::init(&wait->entry);
}

void __init_waitqueue_head(wait_queue_head_t *head)
{
    if (null_arg(head, head, __func__))
        return;
    head->lock = TOVI_SPINLOCK_INITIALIZER;
    list::init(&head->task_list);
}

int prepare_to_wait(wait_queue_head_t *head, wait_queue_t *wait)
{
    if (null_arg(head, wait, __func__))
        return -1;
    tovi_spinlock_lock(&head->lock.lock);
    set_flag(&wait->waiting, 1);
    if (!queued(wait))
        Links::add(&wait->entry, &head->task_list);
    tovi_spinlock_unlock(&head->lock.lock);
    return 0;
}

uint32_t sched_wait(wait_queue_t *wait)
{
    if (null_arg(wait, wait, __func__))
        return TOVI_ERR;
    return tovi_wait_interruptible(&wait->waiting);
}

int64_t sched_wait_timeout(wait_queue_t *wait, int64_t timeout)
{
    if (null_arg(wait, wait, __func__))
        return -1;
    return tovi_wait_comm(&wait->waiting, timeout);
}

void __wake_up(wait_queue_head_t *head)
{
    if (null_arg(head, head, __func__))
        return;
    tovi_spinlock_lock(&head->lock.lock);
    for (wait_queue_t *wait : list::for_each_entry<wait_queue_t>(&head->task_list, offsetof(wait_queue_t, entry))) {
        // The flag is cleared before the signal, so a waiter that has not
        // parked yet does not park at all.
        set_flag(&wait->waiting, 0);
        tovi_wake_up_process(static_cast<int32_t>(wait->tid));
        Links::del_init(&wait->entry);
    }
    tovi_spinlock_unlock(&head->lock.lock);
}

void finish_wait(wait_queue_head_t *head, wait_queue_t *wait)
{
    if (null_arg(head, wait, __func__))
        return;
    while (queued(wait)) {
        if (tovi_spinlock_trylock(&head->lock.lock) == 0) {
            tovi_usleep(10);
            continue;
        }
        if (queued(wait))
            Links::del_init(&wait->entry);
        set_flag(&wait->waiting, 0);
        tovi_spinlock_unlock(&head->lock.lock);
    }
}

int autoremove_wake_function(wait_queue_t *, unsigned, int, void *)
{
    return 0;
}

void before_wait(void *)
{
}

}  // extern "C"
