// Enhanced semaphores. The waiter list and the waiters' flags change only
// under the semaphore's spin lock; a sleeper reads its flag after relocking.
#include <cerrno>
#include <cstdint>
#include <cstddef>
#include <unistd.h>

#include "tovi_list.hpp"
#define TOVI_LOG_SOURCE "tovi_sem_enhance"
#include "tovi_log.hpp"
#include "tovi_sched.h"
#include "tovi_thread.h"
#include "tovi_semaphore.h"

namespace {

namespace list = tovi::list;

constexpr int64_t kForever = 0x7FFFFFFFFFFFFFFF;

enum class Sleep { interruptible = 1, uninterruptible = 2 };

// Built on the sleeping thread's stack.
struct Waiter {
    list::Node node;
    uint32_t tid;
    uint32_t waiting;
};

Waiter *waiter_of(list::Node *n)
{
    return list::entry<Waiter>(n, offsetof(Waiter, node));
}

void lock(tovi_sem_enhance_s *sem, const char *label)
{
    do_tovi_spinlock_lock(&sem->lock.lock, label, __LINE__);
}

void unlock(tovi_sem_enhance_s *sem, const char *label)
{
    do_tovi_spinlock_unlock(&sem->lock.lock, label, __LINE__);
}

// Entered and left with the lock held and the count below 1.
int32_t down_common(tovi_sem_enhance_s *sem, Sleep state, int64_t timeout)
{
    Waiter w{{}, static_cast<uint32_t>(tovi_thrd_gettid_accl()), 1};
    list::add_tail(&w.node, &sem->waiters);
    for (;;) {
        unlock(sem, "down_common_inner");
        int64_t slept = tovi_wait_comm(&w.waiting, timeout);
        lock(sem, "down_common_inner");
        if (__atomic_load_n(&w.waiting, __ATOMIC_ACQUIRE) == 0)
            return 0;  // an up handed its unit over; the count was not touched
        if (slept == 0) {
            list::del(&w.node);
            return TOVI_SEM_ETIME;
        }
        if (state == Sleep::interruptible) {
            list::del(&w.node);
            return TOVI_SEM_EINTR;
        }
    }
}

int32_t down(tovi_sem_enhance_s *sem, Sleep state, int64_t timeout)
{
    lock(sem, __func__);
    int32_t ret = 0;
    if (sem->count >= 1)
        --sem->count;
    else
        ret = down_common(sem, state, timeout);
    unlock(sem, __func__);
    return ret;
}

// A NULL semaphore is refused (logged) instead of dereferenced.
bool null_sem(const tovi_sem_enhance_s *sem, const char *func)
{
    if (sem != nullptr)
        return false;
    TOVI_LOG(tovi::log::kError, "Sem is NULL in %s.", func);
    return true;
}

}  // namespace

extern "C" {

int32_t tovi_sem_enhance_init(tovi_sem_enhance_s *sem, uint32_t count)
{
    if (null_sem(sem, __func__))
        return -1;
    if (count > INT32_MAX) {
        // Stored as is the count would turn negative and every down would sleep.
        TOVI_LOG(tovi::log::kError, "Sem(%p) count(%u) is larger than %d, set to %d.", static_cast<void *>(sem),
                 count, INT32_MAX, INT32_MAX);
        count = INT32_MAX;
    }
    sem->lock = TOVI_SPINLOCK_INITIALIZER;
    sem->count = static_cast<int32_t>(count);
    list::init(&sem->waiters);
    return 0;
}

void tovi_sem_enhance_down(tovi_sem_enhance_s *sem)
{
    if (null_sem(sem, __func__))
        return;
    down(sem, Sleep::uninterruptible, kForever);
}

int32_t tovi_sem_enhance_down_interruptible(tovi_sem_enhance_s *sem)
{
    if (null_sem(sem, __func__))
        return -1;
    return down(sem, Sleep::interruptible, kForever);
}

int32_t tovi_sem_enhance_down_timeout(tovi_sem_enhance_s *sem, int64_t ms)
{
    if (null_sem(sem, __func__))
        return -1;
    return down(sem, Sleep::interruptible, ms / 4);
}

int32_t tovi_sem_enhance_up(tovi_sem_enhance_s *sem)
{
    if (null_sem(sem, __func__))
        return -1;
    lock(sem, __func__);
    if (list::empty(&sem->waiters)) {
        ++sem->count;
        unlock(sem, __func__);
        return 0;
    }
    Waiter *w = waiter_of(sem->waiters.next);
    list::del(&w->node);
    uint32_t tid = w->tid;
    __atomic_store_n(&w->waiting, 0, __ATOMIC_RELEASE);  // the grant; pairs with the waiter's load after relocking
    unlock(sem, __func__);

    auto addr = reinterpret_cast<unsigned long>(sem);
    auto err = static_cast<int32_t>(tovi_wake_up_process(static_cast<int32_t>(tid)));
    if (err == 0)
        return 0;
    TOVI_LOG_WITH_INFRA(tovi::log::kInfo, "Wake up sem(0x%lx) waiter tid(%u) fail ret(%d).", addr, tid, err);
    while (err == EAGAIN) {
        err = static_cast<int32_t>(tovi_wake_up_process(static_cast<int32_t>(tid)));
        if (err == 0) {
            TOVI_LOG_WITH_INFRA(tovi::log::kInfo, "Retry wake up sem(0x%lx) waiter tid(%u) sucess.", addr, tid);
            return 0;
        }
        tovi_usleep(1);
    }
    TOVI_LOG_WITH_INFRA(tovi::log::kInfo, "Retry wake up sem(0x%lx) waiter tid(%u) fail ret(%d).", addr, tid, err);
    return err;
}

int32_t tovi_sem_enhance_destroy(tovi_sem_enhance_s *)
{
    return 0;
}

void tovi_sem_enhance_show(tovi_sem_enhance_s *sem)
{
    if (null_sem(sem, __func__))
        return;
    lock(sem, __func__);
    TOVI_LOG(tovi::log::kInfo, "TBKOMI:sem %p cnt %d", static_cast<void *>(sem), sem->count);
    for (list::Node *n = sem->waiters.next; n != &sem->waiters; n = n->next) {
        Waiter *w = waiter_of(n);
        TOVI_LOG(tovi::log::kInfo, "TBKOMI:sem %p cnt %d waiterTid %d status %d cur %p next %p pre %p",
                 static_cast<void *>(sem), sem->count, static_cast<int>(w->tid), static_cast<int>(w->waiting),
                 static_cast<void *>(n), static_cast<void *>(n->next), static_cast<void *>(n->prev));
    }
    unlock(sem, __func__);
}

}  // extern "C"
