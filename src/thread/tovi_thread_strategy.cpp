// Scheduling strategies, nice values and CPU binding of threads.
//
// The strategy table is written without a lock, normally during start-up:
// each word is a relaxed atomic and the valid flag is stored last with
// release, so a reader never sees a valid flag before its entry; an entry
// rewritten while a thread reads it may be seen half old, half new.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_cpu.h"
#include "tovi_cpumask.h"
#define TOVI_LOG_SOURCE "tovi_thrd"
#include "tovi_log.hpp"
#include "tovi_thread.hpp"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;
using tovi::log::kWarning;

constexpr uint64_t kValid = 1;
constexpr uint32_t kSetBytes = TOVI_CPUSET_WORDS * 8;

struct Strategy {
    uint64_t flags;
    int32_t nice;
    uint64_t cpus[TOVI_CPUSET_WORDS];
};

Strategy g_strategies[TOVI_THREAD_STRATEGIES];

// Nice values of tovi_thrd_setprio's levels; the last is out of reach.
constexpr int32_t kPrioLevels[] = {-20, -15, 0, 10, 15, 20};
constexpr uint32_t kPrioLevelMax = 4;

std::atomic<uint32_t> g_cpuset_bytes{0};

bool entry_valid(uint32_t strategy)
{
    // Acquire pairs with the release that validates a filled entry.
    return (__atomic_load_n(&g_strategies[strategy].flags, __ATOMIC_ACQUIRE) & kValid) != 0;
}

void entry_read(uint32_t strategy, int32_t *nice, uint64_t *cpus)
{
    const Strategy &e = g_strategies[strategy];
    *nice = __atomic_load_n(&e.nice, __ATOMIC_RELAXED);
    for (uint32_t i = 0; i < TOVI_CPUSET_WORDS; ++i)
        cpus[i] = __atomic_load_n(&e.cpus[i], __ATOMIC_RELAXED);
}

// The affinity calls are given whole 64-bit words: the kernel reads a set
// only in words, and qemu's user mode refuses any other size. Bits past the
// configured CPUs name no CPU, so the words add nothing to a binding.
size_t syscall_bytes()
{
    return (tovi::thrd::cpuset_bytes() + 7) / 8 * 8;
}

// "0-3,8" for a set; "none" when empty.
void format_cpus(const uint64_t *cpus, char *out, size_t size)
{
    size_t used = 0;
    out[0] = '\0';
    for (uint32_t cpu = 0; cpu < TOVI_CPUSET_WORDS * 64;) {
        auto has = [cpus](uint32_t c) { return c < TOVI_CPUSET_WORDS * 64 && (cpus[c / 64] >> (c % 64) & 1) != 0; };
        if (!has(cpu)) {
            ++cpu;
            continue;
        }
        uint32_t last = cpu;
        while (has(last + 1))
            ++last;
        int n = last == cpu ? snprintf_s(out + used, size - used, "%s%u", used != 0 ? "," : "", cpu)
                            : snprintf_s(out + used, size - used, "%s%u-%u", used != 0 ? "," : "", cpu, last);
        if (n < 0 || used + static_cast<size_t>(n) >= size)
            break;
        used += static_cast<size_t>(n);
        cpu = last + 1;
    }
    if (used == 0)
        strcpy_s(out, size, "none");
}

}  // namespace

namespace tovi::thrd {

uint32_t cpuset_bytes()
{
    uint32_t bytes = g_cpuset_bytes.load(std::memory_order_relaxed);
    if (bytes != 0)
        return bytes;
    // Concurrent first calls compute the same value. No count (a host with
    // more CPUs than a mask holds) means the whole set.
    uint32_t count = num_config_cpus();
    if (count == 0)
        count = TOVI_CPUSET_WORDS * 64;
    bytes = (count + 7) / 8;
    if (bytes > kSetBytes)
        bytes = kSetBytes;
    g_cpuset_bytes.store(bytes, std::memory_order_relaxed);
    return bytes;
}

}  // namespace tovi::thrd

extern "C" {

uint32_t tovi_initThreadStrategy(uint32_t strategy, const tovi_thread_strategy_s *desc)
{
    if (strategy >= TOVI_THREAD_STRATEGIES) {
        TOVI_LOG(kInfo, "Invalid thread strategy %d.", static_cast<int>(strategy));
        return TOVI_ERR;
    }
    if (desc == nullptr)
        return TOVI_ERR;
    Strategy &e = g_strategies[strategy];
    __atomic_store_n(&e.flags, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&e.nice, desc->prio, __ATOMIC_RELAXED);
    uint64_t cpus[TOVI_CPUSET_WORDS] = {};
    const bool parsed = tovi_cpum_parse_cpumask(desc->cpus, cpus) == 0;
    for (uint32_t i = 0; i < TOVI_CPUSET_WORDS; ++i)
        __atomic_store_n(&e.cpus[i], parsed ? cpus[i] : 0, __ATOMIC_RELAXED);
    if (!parsed) {
        TOVI_LOG(kInfo, "Invalid cpu mask info:%s.", desc->cpus != nullptr ? desc->cpus : "NULL");
        return TOVI_ERR;
    }
    __atomic_store_n(&e.flags, kValid, __ATOMIC_RELEASE);  // pairs with entry_valid()
    return 0;
}

uint32_t tovi_setCurThreadStrategy(uint32_t strategy)
{
    if (strategy >= TOVI_THREAD_STRATEGIES) {
        // Callers rely on an unknown number being harmless.
        TOVI_LOG(kInfo, "Invalid thread strategy %d.", static_cast<int>(strategy));
        return 0;
    }
    uint32_t used = strategy;
    if (!entry_valid(used)) {
        used = 0;
        if (!entry_valid(used))
            return 0;
    }
    int32_t nice = 0;
    uint64_t cpus[TOVI_CPUSET_WORDS];
    entry_read(used, &nice, cpus);
    const uint32_t prio = tovi_setCurThreadPrio(nice);
    const uint32_t bind = tovi_thrd_setbindcpu(pthread_self(), cpus);
    if (prio != 0 || bind != 0) {
        TOVI_LOG_RATELIMITED(kInfo, "Set thread strategy %d fail.", static_cast<int>(strategy));
        return TOVI_ERR;
    }
    if (tovi_thread_s *rec = m_current_thread)
        __atomic_store_n(&rec->strategy, strategy, __ATOMIC_RELAXED);  // read by listings
    return 0;
}

uint32_t tovi_setCurThreadPrio(int32_t value)
{
    // On Linux the process-wide call with who = 0 sets the calling thread.
    if (setpriority(PRIO_PROCESS, 0, value) != 0) {
        int err = errno;
        TOVI_LOG_RATELIMITED(kWarning, "Set thread prio fail %d, errno %d.", value, err);
        return TOVI_ERR;
    }
    return 0;
}

void tovi_thrd_setprio(uint32_t level)
{
    if (level > kPrioLevelMax)
        return;
    tovi_setCurThreadPrio(kPrioLevels[level]);
}

uint32_t tovi_setCurThreadBind(const char *cpus)
{
    uint64_t set[TOVI_CPUSET_WORDS] = {};
    if (tovi_cpum_parse_cpumask(cpus, set) != 0) {
        TOVI_LOG(kError, "Bind thread:%lu to cpu:%s fail, invalid cpu mask.", static_cast<unsigned long>(pthread_self()),
                 cpus != nullptr ? cpus : "NULL");
        return TOVI_ERR;
    }
    return tovi_thrd_setbindcpu(pthread_self(), set);
}

uint32_t tovi_thrd_setbindcpu(pthread_t thread, const uint64_t *set)
{
    if (set == nullptr)
        return TOVI_ERR;
    // Only the configured CPUs count: a set without any leaves the thread
    // where it is.
    const auto *bytes = reinterpret_cast<const uint8_t *>(set);
    const uint32_t size = tovi::thrd::cpuset_bytes();
    bool empty = true;
    for (uint32_t i = 0; i < size && empty; ++i)
        empty = bytes[i] == 0;
    if (empty)
        return 0;
    int ret = pthread_setaffinity_np(thread, syscall_bytes(), reinterpret_cast<const cpu_set_t *>(set));
    if (ret != 0) {
        TOVI_LOG(kError, "Set thread(0x%lx) affinity bind cpu failed(%d).", static_cast<unsigned long>(thread), ret);
        return TOVI_ERR;
    }
    return 0;
}

uint32_t tovi_thrd_getbindcpu(pthread_t thread, uint64_t *set)
{
    if (set == nullptr)
        return TOVI_ERR;
    memset_s(set, kSetBytes, 0, kSetBytes);
    int ret = pthread_getaffinity_np(thread, syscall_bytes(), reinterpret_cast<cpu_set_t *>(set));
    if (ret != 0) {
        TOVI_LOG(kError, "Get thread(%llu) affinity bind cpu failed(%d).", static_cast<unsigned long long>(thread),
                 ret);
        return TOVI_ERR;
    }
    return 0;
}

uint32_t tovi_thrd_getbindcpu_bypid(int32_t tid, uint64_t *set)
{
    if (set == nullptr)
        return TOVI_ERR;
    memset_s(set, kSetBytes, 0, kSetBytes);
    int ret = sched_getaffinity(tid, syscall_bytes(), reinterpret_cast<cpu_set_t *>(set));
    if (ret != 0) {
        int err = errno;
        TOVI_LOG(kError, "Get thread(%llu) affinity bind cpu by pid failed(%d), errno(%d:%s).",
                 static_cast<unsigned long long>(tid), ret, err, std::strerror(err));
        return TOVI_ERR;
    }
    return 0;
}

void tovi_showThreadStrategyDbg(void)
{
    std::printf("thread strategy table:\n");
    std::printf("%-8s %-5s %-5s %s\n", "strategy", "valid", "nice", "cpus");
    for (uint32_t i = 0; i < TOVI_THREAD_STRATEGIES; ++i) {
        int32_t nice = 0;
        uint64_t cpus[TOVI_CPUSET_WORDS];
        const bool valid = entry_valid(i);
        entry_read(i, &nice, cpus);
        char text[4096];
        format_cpus(cpus, text, sizeof text);
        std::printf("%-8u %-5d %-5d %s\n", i, valid ? 1 : 0, nice, valid ? text : "-");
    }
    std::fflush(stdout);
}

}  // extern "C"
