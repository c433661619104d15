// Stack bounds: the thread's own stack (learnt when it starts), its signal
// stack, a light-weight thread's stack through the registered hook, and the
// main thread's "[stack]" mapping.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>

#include <safe_str_lib.h>

#define TOVI_LOG_SOURCE "tovi_thrd"
#include "tovi_log.hpp"
#include "tovi_scope.hpp"
#include "tovi_thread.hpp"

namespace {

using tovi::log::kInfo;

std::atomic<int32_t> g_instant_map_flag{0};

// The record of thread `tid` (0: the caller); `held` tells whether a
// reference was taken for it.
tovi_thread_s *find_record(int32_t tid, bool *held)
{
    tovi_thread_s *cur = m_current_thread;
    *held = false;
    if (tid == 0 || (cur != nullptr && cur->tid == tid))
        return cur;
    *held = true;
    return tovi_thrd_getthreadinfobytid(tid);
}

void drop(tovi_thread_s *rec, bool held)
{
    if (held)
        tovi_thrd_putthreadinfo(rec);
}

bool inside(uint64_t sp, uint64_t low, uint64_t high)
{
    return high != 0 && sp >= low && sp <= high;
}

// The "[stack]" mapping of this process (the main thread's stack): 0 or a
// negated errno.
int main_stack(uint64_t *start, uint64_t *end)
{
    FILE *maps = std::fopen("/proc/self/maps", "re");
    if (maps == nullptr)
        return -errno;
    tovi::ScopeExit close_maps([maps] { std::fclose(maps); });
    char line[512];
    int ret = -ENOENT;
    while (std::fgets(line, sizeof line, maps) != nullptr) {
        unsigned long lo = 0;
        unsigned long hi = 0;
        if (std::strstr(line, "[stack]") != nullptr && sscanf_s(line, "%lx-%lx", &lo, &hi) == 2) {
            *start = lo;
            *end = hi;
            ret = 0;
            break;
        }
    }
    return ret;
}

}  // namespace

namespace tovi::thrd {

// The usable part of the stack, for mapping its pages at once.
void fill_os_stack(tovi_thread_s *rec, bool map_now)
{
    pthread_attr_t attr;
    int ret = pthread_getattr_np(pthread_self(), &attr);
    if (ret != 0) {
        TOVI_LOG(kInfo, "Get thread attr ret:%d.", ret);
        return;
    }
    size_t guard = 0;
    if (pthread_attr_getguardsize(&attr, &guard) != 0)
        guard = 0;
    void *addr = nullptr;
    size_t size = 0;
    ret = pthread_attr_getstack(&attr, &addr, &size);
    pthread_attr_destroy(&attr);
    if (ret != 0) {
        TOVI_LOG(kInfo, "Get os stack ret:%d.", ret);
        return;
    }
    const auto low = reinterpret_cast<uint64_t>(addr);
    rec->os_stack_low = low - guard;
    rec->os_stack_high = low + size;
    // Best effort: a thread that must not take page faults later has its
    // whole stack populated now; a kernel without the advice just faults.
    if (map_now)
        madvise(addr, size, MADV_POPULATE_WRITE);
}

}  // namespace tovi::thrd

extern "C" {

void tovi_set_instant_map_flag(int32_t flag)
{
    g_instant_map_flag.store(flag, std::memory_order_relaxed);
}

int32_t tovi_get_instant_map_flag(void)
{
    return g_instant_map_flag.load(std::memory_order_relaxed);
}

uint32_t tovi_thrd_getcurrentstack(int32_t tid, uint64_t sp, uint64_t *start, uint64_t *end, const char **desc)
{
    if (start == nullptr || end == nullptr || desc == nullptr)
        return TOVI_ERR;
    bool held = false;
    tovi_thread_s *rec = find_record(tid, &held);
    if (rec == nullptr) {
        *desc = "UNKNOWN_STACK";
        return TOVI_ERR;
    }
    const auto sig_low = reinterpret_cast<uint64_t>(rec->sig_stack);
    const uint64_t sig_high = sig_low + TOVI_THREAD_SIGSTACK_SIZE;
    uint32_t ret = 0;
    if (inside(sp, sig_low, sig_high)) {
        *start = sig_low;
        *end = sig_high;
        *desc = "SIG_STACK";
    } else if (inside(sp, rec->os_stack_low, rec->os_stack_high)) {
        *start = rec->os_stack_low;
        *end = rec->os_stack_high;
        *desc = "OS_STACK";
    } else if (const tovi_lwt_stack_ops_s *ops = tovi::thrd::lwt_stack_ops()) {
        if (ops->get_stack(rec->tid, sp, start, end) == 0) {
            *desc = ops->desc != nullptr ? ops->desc : "LWT_STACK";
        } else {
            *desc = "INVALID_LWT_STACK";
            ret = TOVI_ERR;
        }
    } else {
        *desc = "INVALID_STACK";
        ret = TOVI_ERR;
    }
    drop(rec, held);
    return ret;
}

uint32_t tovi_thrd_getosstack(int32_t tid, uint64_t *start, uint64_t *end)
{
    if (start == nullptr || end == nullptr)
        return TOVI_ERR;
    bool held = false;
    tovi_thread_s *rec = find_record(tid, &held);
    if (rec == nullptr)
        return TOVI_ERR;
    uint32_t ret = TOVI_ERR;
    if (rec->os_stack_high != 0) {
        *start = rec->os_stack_low;
        *end = rec->os_stack_high;
        ret = 0;
    }
    drop(rec, held);
    return ret;
}

uint32_t tovi_thread_get_specific_stack(int32_t tid, uint64_t *start, uint64_t *end)
{
    if (start == nullptr || end == nullptr)
        return TOVI_ERR;
    if (tovi_thrd_getosstack(tid, start, end) == 0)
        return 0;
    const int32_t who = tid != 0 ? tid : tovi_thrd_gettid_accl();
    return who == tovi_thrd_getpid_accl() ? tovi::to_all_ones(main_stack(start, end)) : TOVI_ERR;
}

}  // extern "C"
