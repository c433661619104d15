// User-space backend: thread registers and states for the stack dumps, and
// the platform requests that a stock host refuses.
//
// The register query asks the target thread itself: a real-time signal
// (kRegisterSignal) makes it copy the program counter, stack and frame
// pointers of the context it was interrupted in into the request slot, and
// the asking thread waits for that answer for at most kAnswerWaitMs. One
// request is in flight at a time (g_request_mutex). The target claims the
// request before it writes (tid becomes kClaimed), and a request given up on
// is withdrawn the same way (tid back to 0), so a late answer (the thread had
// the signal blocked, or was preempted inside the handler) never writes into
// a later request's slot.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tovi_arch.hpp"
#include "tovi_companion.hpp"
#include "tovi_thread.h"

namespace tovi::companion::user {
namespace {

constexpr long kAnswerWaitMs = 1000;

int register_signal()
{
    return SIGRTMAX - 2;
}

constexpr int32_t kClaimed = -1;

struct RegisterRequest {
    int32_t tid;       // thread asked, 0 when none, kClaimed while its answer is written
    uint32_t seq;      // request number; written under g_request_mutex before tid
    uint32_t answered; // seq of the last answer (futex word)
    uint64_t sp;
    uint64_t fp;
    uint64_t pc;
};

RegisterRequest g_request;
pthread_mutex_t g_request_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t g_install_once = PTHREAD_ONCE_INIT;
bool g_installed = false;

// Runs on the target thread: only loads, stores and a futex wake.
void answer(int, siginfo_t *, void *context)
{
    // Only the thread asked, and only once per request. Acquire pairs with
    // the requester's release store of tid (R1), so seq is this request's.
    int32_t expected = static_cast<int32_t>(gettid());
    if (!__atomic_compare_exchange_n(&g_request.tid, &expected, kClaimed, false, __ATOMIC_ACQUIRE,
                                     __ATOMIC_RELAXED))
        return;
    const uint32_t seq = __atomic_load_n(&g_request.seq, __ATOMIC_RELAXED);
    const auto *uc = static_cast<const ucontext_t *>(context);
    // Relaxed: A1 publishes them.
    __atomic_store_n(&g_request.sp, arch::signal_context_sp(uc), __ATOMIC_RELAXED);
    __atomic_store_n(&g_request.fp, arch::signal_context_fp(uc), __ATOMIC_RELAXED);
    __atomic_store_n(&g_request.pc, arch::signal_context_pc(uc), __ATOMIC_RELAXED);
    // Release pairs with the requester's acquiring load of answered (A1).
    __atomic_store_n(&g_request.answered, seq, __ATOMIC_RELEASE);
    ::syscall(SYS_futex, &g_request.answered, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void install()
{
    struct sigaction sa{};
    sa.sa_sigaction = answer;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    g_installed = sigaction(register_signal(), &sa, nullptr) == 0;
}

int64_t now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until request `seq` is answered; false after kAnswerWaitMs, or
// never when `bounded` is false.
bool wait_answer(uint32_t seq, bool bounded)
{
    const int64_t deadline = now_ms() + kAnswerWaitMs;
    for (;;) {
        uint32_t seen = __atomic_load_n(&g_request.answered, __ATOMIC_ACQUIRE);  // A1
        if (seen == seq)
            return true;
        int64_t left = bounded ? deadline - now_ms() : kAnswerWaitMs;
        if (left <= 0)
            return false;
        timespec ts{static_cast<time_t>(left / 1000), static_cast<long>(left % 1000) * 1000000L};
        ::syscall(SYS_futex, &g_request.answered, FUTEX_WAIT_PRIVATE, seen, &ts, nullptr, 0);
    }
}

// The fields of /proc/self/task/<tid>/stat after the command name: [0] is
// the state (field 3), [n - 3] field n. False when the thread is gone.
bool read_stat(int32_t tid, char *state, unsigned long long *utime, unsigned long long *stime, int *cpu)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", static_cast<int>(tid));
    FILE *f = std::fopen(path, "re");
    if (f == nullptr)
        return false;
    char buf[1024] = {};
    size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    buf[n] = '\0';
    const char *p = std::strrchr(buf, ')');
    if (p == nullptr || p[1] != ' ')
        return false;
    p += 2;
    *state = *p;
    unsigned field = 3;
    while (*p != '\0' && field < 39) {
        p = std::strchr(p, ' ');
        if (p == nullptr)
            return false;
        ++p;
        ++field;
        if (field == 14)
            *utime = std::strtoull(p, nullptr, 10);
        else if (field == 15)
            *stime = std::strtoull(p, nullptr, 10);
    }
    if (field != 39)
        return false;
    *cpu = static_cast<int>(std::strtol(p, nullptr, 10));
    return true;
}

}  // namespace

// Reset, reboot, reboot count and panic mean the platform itself; on a
// developer's machine they must never reach the host, so they fail here.
long refuse_platform(long, long, long, long)
{
    errno = EPERM;
    return -1;
}

long register_query(long a1, long a2, long a3, long a4)
{
    const auto *tid = reinterpret_cast<const int32_t *>(a1);
    auto *sp = reinterpret_cast<uint64_t *>(a2);
    auto *fp = reinterpret_cast<uint64_t *>(a3);
    auto *pc = reinterpret_cast<uint64_t *>(a4);
    if (tid == nullptr || sp == nullptr || fp == nullptr || pc == nullptr) {
        errno = EFAULT;
        return -1;
    }
    pthread_once(&g_install_once, install);
    if (!g_installed) {
        errno = ENOSYS;
        return -1;
    }
    const int32_t target = *tid;
    if (target <= 0) {  // no thread id (0 and kClaimed also mark the slot)
        errno = EINVAL;
        return -1;
    }
    if (target == static_cast<int32_t>(gettid())) {  // it would wait for itself
        errno = EDEADLK;
        return -1;
    }
    pthread_mutex_lock(&g_request_mutex);
    const uint32_t seq = g_request.seq + 1;
    __atomic_store_n(&g_request.seq, seq, __ATOMIC_RELAXED);
    __atomic_store_n(&g_request.tid, target, __ATOMIC_RELEASE);  // R1
    // errno from tgkill: ESRCH for a thread that is not there.
    bool answered = ::syscall(SYS_tgkill, getpid(), target, register_signal()) == 0;
    if (answered && !wait_answer(seq, true)) {
        answered = false;
        errno = ETIMEDOUT;
    }
    int32_t withdrawn = target;
    if (!answered && !__atomic_compare_exchange_n(&g_request.tid, &withdrawn, 0, false, __ATOMIC_RELAXED,
                                                  __ATOMIC_RELAXED))
        // Claimed just now (a signal left pending by an earlier request can
        // answer this one too): the answer is a few stores away.
        answered = wait_answer(seq, false);
    long ret = -1;
    if (answered) {
        *sp = __atomic_load_n(&g_request.sp, __ATOMIC_RELAXED);
        *fp = __atomic_load_n(&g_request.fp, __ATOMIC_RELAXED);
        *pc = __atomic_load_n(&g_request.pc, __ATOMIC_RELAXED);
        __atomic_store_n(&g_request.tid, 0, __ATOMIC_RELAXED);
        ret = 0;
    }
    pthread_mutex_unlock(&g_request_mutex);
    return ret;
}

long thread_status(long a1, long a2, long, long)
{
    auto *status = reinterpret_cast<tovi_thrd_status_s *>(a2);
    if (status == nullptr) {
        errno = EFAULT;
        return -1;
    }
    auto tid = static_cast<int32_t>(a1);
    char state = '?';
    unsigned long long utime = 0, stime = 0;
    int cpu = -1;
    if (!read_stat(tid, &state, &utime, &stime, &cpu)) {
        errno = ESRCH;
        return -1;
    }
    *status = tovi_thrd_status_s{tid, state, cpu, utime, stime};
    return 0;
}

// A thread of this process in state R on CPU a1, another thread than the
// caller when there is one.
long cpu_thread(long a1, long a2, long, long)
{
    auto *out = reinterpret_cast<int32_t *>(a2);
    if (out == nullptr) {
        errno = EFAULT;
        return -1;
    }
    DIR *dir = opendir("/proc/self/task");
    if (dir == nullptr)
        return -1;
    const auto self = static_cast<int32_t>(gettid());
    int32_t found = 0;
    while (const dirent *e = readdir(dir)) {
        auto tid = static_cast<int32_t>(std::strtol(e->d_name, nullptr, 10));
        char state = '?';
        unsigned long long utime = 0, stime = 0;
        int cpu = -1;
        if (tid <= 0 || !read_stat(tid, &state, &utime, &stime, &cpu) || state != 'R' || cpu != a1)
            continue;
        found = tid;
        if (tid != self)
            break;
    }
    closedir(dir);
    if (found == 0) {
        errno = ESRCH;
        return -1;
    }
    *out = found;
    return 0;
}

}  // namespace tovi::companion::user
