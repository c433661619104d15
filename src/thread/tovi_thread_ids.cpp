// Cached ids of the calling thread and process, and its CPU and NUMA node.
// Lock reports, wake-ups and dumps ask for them often, so they are cached in
// a thread-local and one relaxed atomic, refreshed in a forked child.
#include <atomic>
#include <sched.h>
#include <unistd.h>

#include "tovi_thread.hpp"

__thread int32_t my_core TOVI_TLS_IE = -1;
__thread uint32_t my_numa TOVI_TLS_IE = 0xFFFFFFFFu;

namespace {

// Cached kernel tid of the calling thread (0: not yet) and process id.
__thread int32_t t_tid TOVI_TLS_IE = 0;
std::atomic<int32_t> g_pid{0};

// A forked child keeps the forking thread's caches: refresh them there.
void refresh_ids_in_child()
{
    t_tid = 0;
    g_pid.store(getpid(), std::memory_order_relaxed);
}

[[maybe_unused]] const int g_fork_hook = pthread_atfork(nullptr, nullptr, refresh_ids_in_child);

}  // namespace

extern "C" {

void tovi_thrd_numaId_set(uint32_t numa)
{
    my_numa = numa;
    if (tovi_thread_s *rec = m_current_thread)
        __atomic_store_n(&rec->numa_id, numa, __ATOMIC_RELAXED);
}

uint32_t tovi_thrd_numaId_get(void)
{
    return my_numa;
}

void tovi_thrd_core_set(int32_t cpu)
{
    my_core = cpu;
    if (tovi_thread_s *rec = m_current_thread)
        __atomic_store_n(&rec->bind_cpu, cpu < 0 ? tovi::thrd::kUnknown64 : static_cast<uint64_t>(cpu), __ATOMIC_RELAXED);
}

int smp_processor_id(void)
{
    return my_core >= 0 ? my_core : sched_getcpu();
}

uint32_t tovi_thrd_setpid_accl(void)
{
    g_pid.store(getpid(), std::memory_order_relaxed);
    return 0;
}

int32_t tovi_thrd_getpid_accl(void)
{
    int32_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = getpid();
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

void tovi_thrd_settid_accl(void)
{
    t_tid = static_cast<int32_t>(gettid());
}

int32_t tovi_thrd_gettid_accl(void)
{
    if (t_tid == 0)
        t_tid = static_cast<int32_t>(gettid());
    return t_tid;
}

int32_t tovi_thread_get_knl_tid(void)
{
    return tovi_thrd_gettid_accl();
}

}  // extern "C"
