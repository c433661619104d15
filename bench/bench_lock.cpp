// Lock and unlock, uncontended and with two threads contending, against the
// platform's locks and Concurrency Kit's ticket and reader-writer locks.
// bench-link: ck
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <ck_rwlock.h>
#include <spinlock/ticket.h>  // only the ticket lock: the other kinds are not valid C++

#include "tovi_lock.h"

namespace {

// Lock words shared by the threads of one benchmark (each benchmark has its own).
uint64_t g_spin;
tovi_tspinlock_s g_tspin = {0, 0, TOVI_TSPINLOCK_MAGIC, 0xFFFFFFFFu, TOVI_LOCK_NO_OWNER};
int64_t g_rw;
tovi_trwlock_s g_trw;
pthread_spinlock_t g_pspin;
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_rwlock_t g_prw = PTHREAD_RWLOCK_INITIALIZER;
ck_spinlock_ticket_t g_ck_ticket = CK_SPINLOCK_TICKET_INITIALIZER;
ck_rwlock_t g_ck_rw = CK_RWLOCK_INITIALIZER;
uint64_t g_counter;  // read inside each critical section

// The reader-writer spin lock has no exported unlock: holders release it as
// the header describes.
inline void rw_read_unlock(int64_t *lock)
{
    int64_t old = __atomic_load_n(lock, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(lock, &old, old - 1, true, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    }
}

inline void rw_write_unlock(int64_t *lock)
{
    __atomic_store_n(lock, 0, __ATOMIC_SEQ_CST);
}

template <typename Lock, typename Unlock>
void run(benchmark::State &state, Lock lock, Unlock unlock)
{
    for (auto _ : state) {
        lock();
        benchmark::DoNotOptimize(g_counter);
        unlock();
    }
    state.SetItemsProcessed(state.iterations());
}

// ---- ours ----

void BM_tovi_spinlock(benchmark::State &state)
{
    run(state, [] { tovi_spinlock_lock(&g_spin); }, [] { tovi_spinlock_unlock(&g_spin); });
}

void BM_tovi_tspinlock(benchmark::State &state)
{
    run(state, [] { tovi_tspinlock_lock(&g_tspin); }, [] { tovi_tspinlock_unlock(&g_tspin); });
}

void BM_tovi_rwlock_read(benchmark::State &state)
{
    run(state, [] { tovi_rwlock_read_lock(&g_rw); }, [] { rw_read_unlock(&g_rw); });
}

void BM_tovi_rwlock_write(benchmark::State &state)
{
    run(state, [] { tovi_rwlock_write_lock(&g_rw); }, [] { rw_write_unlock(&g_rw); });
}

void BM_tovi_rwlock_write_mayblock(benchmark::State &state)
{
    run(state, [] { tovi_rwlock_write_lock_mayblock(&g_rw); }, [] { rw_write_unlock(&g_rw); });
}

void BM_tovi_trwlock_read(benchmark::State &state)
{
    run(state, [] { tovi_trwlock_read_lock(&g_trw); }, [] { tovi_trwlock_read_unlock(&g_trw); });
}

void BM_tovi_trwlock_write(benchmark::State &state)
{
    run(state, [] { tovi_trwlock_write_lock(&g_trw); }, [] { tovi_trwlock_write_unlock(&g_trw); });
}

// ---- peers ----

void BM_pthread_spinlock(benchmark::State &state)
{
    if (state.thread_index() == 0)
        pthread_spin_init(&g_pspin, PTHREAD_PROCESS_PRIVATE);
    run(state, [] { pthread_spin_lock(&g_pspin); }, [] { pthread_spin_unlock(&g_pspin); });
}

void BM_pthread_mutex(benchmark::State &state)
{
    run(state, [] { pthread_mutex_lock(&g_mutex); }, [] { pthread_mutex_unlock(&g_mutex); });
}

void BM_pthread_rwlock_read(benchmark::State &state)
{
    run(state, [] { pthread_rwlock_rdlock(&g_prw); }, [] { pthread_rwlock_unlock(&g_prw); });
}

void BM_pthread_rwlock_write(benchmark::State &state)
{
    run(state, [] { pthread_rwlock_wrlock(&g_prw); }, [] { pthread_rwlock_unlock(&g_prw); });
}

void BM_ck_spinlock_ticket(benchmark::State &state)
{
    run(state, [] { ck_spinlock_ticket_lock(&g_ck_ticket); }, [] { ck_spinlock_ticket_unlock(&g_ck_ticket); });
}

void BM_ck_rwlock_read(benchmark::State &state)
{
    run(state, [] { ck_rwlock_read_lock(&g_ck_rw); }, [] { ck_rwlock_read_unlock(&g_ck_rw); });
}

void BM_ck_rwlock_write(benchmark::State &state)
{
    run(state, [] { ck_rwlock_write_lock(&g_ck_rw); }, [] { ck_rwlock_write_unlock(&g_ck_rw); });
}

}  // namespace

// Uncontended: one thread; contended: two threads on the same lock.
#define LOCK_BENCHMARK(fn) BENCHMARK(fn)->Threads(1)->Threads(2)->UseRealTime()

LOCK_BENCHMARK(BM_tovi_spinlock);
LOCK_BENCHMARK(BM_tovi_tspinlock);
LOCK_BENCHMARK(BM_tovi_rwlock_read);
LOCK_BENCHMARK(BM_tovi_rwlock_write);
LOCK_BENCHMARK(BM_tovi_rwlock_write_mayblock);
LOCK_BENCHMARK(BM_tovi_trwlock_read);
LOCK_BENCHMARK(BM_tovi_trwlock_write);
LOCK_BENCHMARK(BM_pthread_spinlock);
LOCK_BENCHMARK(BM_pthread_mutex);
LOCK_BENCHMARK(BM_pthread_rwlock_read);
LOCK_BENCHMARK(BM_pthread_rwlock_write);
LOCK_BENCHMARK(BM_ck_spinlock_ticket);
LOCK_BENCHMARK(BM_ck_rwlock_read);
LOCK_BENCHMARK(BM_ck_rwlock_write);
