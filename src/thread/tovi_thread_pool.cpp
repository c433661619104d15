// The thread pool: threads that park on their record's semaphore in the
// idle state and run work handed to them.
//
// Hand-off: a creator moves an idle slot to busy by compare-and-swap (so
// exactly one creator wins a thread), stores the argument, then the routine
// with a full barrier, and posts the semaphore. The pool thread alone moves
// its slot back to idle, after the work. Leaving: the destroyer raises the
// flag and posts every pool thread; a thread leaves by moving idle to
// finished, and when a creator beat it to the slot it first runs that
// creator's work.
#include <atomic>
#include <cerrno>
#include <semaphore.h>

#define TOVI_LOG_SOURCE "tovi_thrd"
#include "tovi_log.hpp"
#include "tovi_thread.hpp"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

std::atomic<uint32_t> g_pool_size{0};
std::atomic<uint32_t> g_pool_to_start{0};
std::atomic<uint32_t> g_pool_destroying{0};
std::atomic<bool> g_pool_map_now{false};
// Shared by the creations of the pool; destroyed by the thread that starts
// the last of them.
pthread_attr_t g_pool_attr;

void wait_for_post(tovi_thread_s *rec)
{
    while (sem_wait(&rec->sem) != 0 && errno == EINTR) {
    }
}

// Runs the work handed to this thread, if any.
bool run_handed(tovi_thread_s *rec)
{
    // Acquire pairs with the creator's barrier-ordered store of the routine.
    auto fn = __atomic_load_n(&rec->start_routine, __ATOMIC_ACQUIRE);
    if (fn == nullptr)
        return false;
    void *arg = __atomic_load_n(&rec->arg, __ATOMIC_RELAXED);
    __atomic_store_n(&rec->start_routine, nullptr, __ATOMIC_RELAXED);
    tovi::thrd::set_names(rec, "OSThrdPoolRun");
    fn(arg);
    return true;
}

bool destroying()
{
    // Pairs with the destroyer's store: a thread going idle either sees the
    // flag or is seen idle by the destroyer.
    return g_pool_destroying.load(std::memory_order_seq_cst) != 0;
}

void go_idle(tovi_thread_s *rec)
{
    tovi::thrd::set_names(rec, "OSThrdPoolNull");
    tovi::thrd::set_state(rec, TOVI_THREAD_IDLE);
}

void serve(tovi_thread_s *rec)
{
    go_idle(rec);
    for (;;) {
        if (!destroying())
            wait_for_post(rec);
        bool ran = run_handed(rec);
        if (destroying()) {
            // A creator that moved this thread to busy has its post coming.
            if (!ran && !tovi::thrd::move_state(rec, TOVI_THREAD_IDLE, TOVI_THREAD_FINISHED)) {
                wait_for_post(rec);
                run_handed(rec);
            }
            return;
        }
        if (ran)
            go_idle(rec);
    }
}

uint32_t start_pool_thread(void *(*body)(void *))
{
    uint32_t ret = tovi::thrd::create(nullptr, nullptr, body, nullptr, &g_pool_attr, 1);
    if (ret != 0)
        TOVI_LOG(kError, "Create thread failed, error %d, errno %d.", static_cast<int>(ret), errno);
    return ret;
}

void *pool_thread(void *record)
{
    auto *rec = static_cast<tovi_thread_s *>(record);
    tovi::thrd::adopt(rec, g_pool_map_now.load(std::memory_order_relaxed));
    serve(rec);
    tovi::thrd::leave(rec);
    return nullptr;
}

// Starts the rest of the pool, then serves as one of it.
void *pool_starter(void *record)
{
    auto *rec = static_cast<tovi_thread_s *>(record);
    tovi::thrd::adopt(rec, g_pool_map_now.load(std::memory_order_relaxed));
    const uint32_t to_start = g_pool_to_start.load(std::memory_order_relaxed);
    uint32_t started = 0;
    for (uint32_t i = 1; i < to_start; ++i)
        if (start_pool_thread(pool_thread) == 0)
            ++started;
    g_pool_size.fetch_add(started, std::memory_order_acq_rel);  // pairs with the creators' acquire load
    pthread_attr_destroy(&g_pool_attr);
    serve(rec);
    tovi::thrd::leave(rec);
    return nullptr;
}

}  // namespace

namespace tovi::thrd {

uint32_t pool_size()
{
    return g_pool_size.load(std::memory_order_acquire);
}

}  // namespace tovi::thrd

extern "C" {

uint32_t tovi_thread_pool_create(uint32_t count)
{
    if (count == 0)
        return 0;
    if (count > TOVI_THREAD_SLOTS)
        count = TOVI_THREAD_SLOTS;
    uint32_t none = 0;
    if (!g_pool_size.compare_exchange_strong(none, count, std::memory_order_acq_rel)) {
        TOVI_LOG(kError, "OS thread pool just allowed create once %u.", count);
        return 0;
    }
    pthread_attr_init(&g_pool_attr);
    if (tovi_get_instant_map_flag() == 1) {
        g_pool_map_now.store(true, std::memory_order_relaxed);
        tovi::thrd::set_small_stack(&g_pool_attr);
    }
    const uint32_t direct = count > 3 ? count / 4 : 0;
    uint32_t started = 0;
    for (uint32_t i = 0; i < direct; ++i)
        if (start_pool_thread(pool_thread) == 0)
            ++started;
    g_pool_to_start.store(count - direct, std::memory_order_relaxed);  // published by the thread's creation
    if (start_pool_thread(pool_starter) == 0)
        ++started;
    else
        pthread_attr_destroy(&g_pool_attr);
    if (started != count) {
        TOVI_LOG(kError, "Create OS thread pool %u, success %u.", count, started);
        // A subtraction, not a store: the starter may have added its own already.
        g_pool_size.fetch_sub(count - started, std::memory_order_acq_rel);
    }
    return started;
}

uint32_t create_thread_from_thread_pool(tovi_thread_fn fn, void *arg, pthread_t *id)
{
    if (fn == nullptr || g_pool_size.load(std::memory_order_acquire) == 0)
        return TOVI_ERR;
    for (uint32_t i = 0; i < TOVI_THREAD_SLOTS; ++i) {
        tovi_thread_s *rec = tovi::thrd::get_live(i);
        if (rec == nullptr)
            continue;
        uint32_t state = TOVI_THREAD_IDLE;
        bool won = false;
        // Acquire pairs with the pool thread's store of idle (its record is
        // filled); a weak failure with the state still idle is retried.
        while (!(won = __atomic_compare_exchange_n(&rec->slot->state, &state, TOVI_THREAD_BUSY, true,
                                                   __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) &&
               state == TOVI_THREAD_IDLE) {
        }
        if (won) {
            __atomic_store_n(&rec->arg, arg, __ATOMIC_RELAXED);
            // Full barrier (a sequentially consistent exchange): the argument
            // is visible before the routine that the pool thread looks for.
            (void)__atomic_exchange_n(&rec->start_routine, fn, __ATOMIC_SEQ_CST);
            if (id != nullptr)
                *id = rec->pthread_id;
            sem_post(&rec->sem);
            tovi_thrd_putthreadinfo(rec);
            return 0;
        }
        tovi_thrd_putthreadinfo(rec);
    }
    return TOVI_ERR;
}

uint32_t create_thread_nopreempt_raw(tovi_thread_fn fn, void *arg, pthread_t *id)
{
    if (fn == nullptr)
        return TOVI_ERR;
    if (create_thread_from_thread_pool(fn, arg, id) == 0)
        return 0;
    if (tovi_get_instant_map_flag() != 1)
        return tovi::thrd::create(fn, arg, tovi::thrd::entry, id, nullptr, 1);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    tovi::thrd::set_small_stack(&attr);
    uint32_t ret = tovi::thrd::create(fn, arg, tovi::thrd::entry_instant, id, &attr, 1);
    pthread_attr_destroy(&attr);
    return ret;
}

void tovi_thread_pool_destroy(void)
{
    g_pool_destroying.store(1, std::memory_order_seq_cst);  // see destroying()
    int posted = 0;
    int failed = 0;
    for (uint32_t i = 0; i < TOVI_THREAD_SLOTS; ++i) {
        tovi_thread_s *rec = tovi::thrd::get_live(i);
        if (rec == nullptr)
            continue;
        if ((tovi::thrd::slot_state(rec) & (TOVI_THREAD_IDLE | TOVI_THREAD_BUSY)) != 0) {
            if (sem_post(&rec->sem) == 0)
                ++posted;
            else
                ++failed;
        }
        tovi_thrd_putthreadinfo(rec);
    }
    TOVI_LOG(kInfo, "TBA:res1 %d, res2 %d.", posted, failed);
}

}  // extern "C"
