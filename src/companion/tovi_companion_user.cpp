// User-space backend of the companion: serves the private system call
// commands inside the process on hosts without the platform kernel. Each
// command is one handler in the table below; at first use the table is
// registered in the private-system-call registry, and every call is looked
// up there.
#include <array>
#include <cerrno>
#include <pthread.h>
#include <utility>
#include <cstring>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tovi_companion.hpp"
#include "tovi_syscall.hpp"
#define TOVI_LOG_SOURCE "tovi_companion_user"
#include "tovi_log.hpp"

namespace tovi::companion::user {
namespace {

constexpr int64_t kNsPerJiffy = 1000000000LL / TOVI_HZ;

using Handler = long (*)(long a1, long a2, long a3);
// A command that takes the fourth argument slot too.
using Handler4 = long (*)(long a1, long a2, long a3, long a4);

int64_t monotonic_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

long futex_wait(volatile uint32_t *word, uint32_t expected, int64_t timeout_ns)
{
    timespec ts{static_cast<time_t>(timeout_ns / 1000000000LL), static_cast<long>(timeout_ns % 1000000000LL)};
    return ::syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, &ts, nullptr, 0);
}

// Command 0x800: sleep on the caller's wait word for at most *timeout
// jiffies. The sleep ends early when the word becomes 0 (the waker clears it
// before signalling, so a wake-up that comes before the sleep is not lost) or
// when a signal arrives (the wake-up signal ends the futex wait with EINTR).
// Returns 0 when the time ran out; otherwise fails with EINTR after writing
// the jiffies left (at least 1) into *result and *timeout.
long wait_on_word(long a1, long a2, long a3)
{
    auto *word = reinterpret_cast<volatile uint32_t *>(a1);
    auto *timeout = reinterpret_cast<int64_t *>(a2);
    auto *result = reinterpret_cast<int64_t *>(a3);
    if (word == nullptr || timeout == nullptr || result == nullptr) {
        errno = EFAULT;
        return -1;
    }
    // A time-out too long to count in nanoseconds means "no limit".
    const int64_t now = monotonic_ns();
    const int64_t deadline = *timeout > (INT64_MAX - now) / kNsPerJiffy ? INT64_MAX : now + *timeout * kNsPerJiffy;
    for (;;) {
        int64_t left = deadline - monotonic_ns();
        if (left <= 0) {
            *timeout = 0;
            return 0;
        }
        uint32_t seen = __atomic_load_n(word, __ATOMIC_ACQUIRE);  // pairs with the waker's clearing store
        bool woken = seen == 0;
        if (!woken && futex_wait(word, seen, left) != 0 && errno == EINTR)
            woken = true;
        if (woken) {
            int64_t jiffies_left = (left + kNsPerJiffy - 1) / kNsPerJiffy;
            *timeout = jiffies_left;
            *result = jiffies_left > 0 ? jiffies_left : 1;
            errno = EINTR;
            return -1;
        }
    }
}

// Command 0x401: the memory usage table, one 64-bit counter per module,
// kept in this process.
uint64_t g_mem_usage[1024];

long mem_table(long a1, long, long)
{
    auto **out = reinterpret_cast<uint64_t **>(a1);
    if (out == nullptr) {
        errno = EFAULT;
        return -1;
    }
    *out = g_mem_usage;
    return 0;
}

// Command 0x402: the statistics of this companion are the usage table.
long mem_dump(long, long, long)
{
    for (uint32_t m = 0; m < sizeof g_mem_usage / sizeof g_mem_usage[0]; ++m) {
        uint64_t used = __atomic_load_n(&g_mem_usage[m], __ATOMIC_ACQUIRE);  // pairs with the allocator's adds
        if (used != 0)
            TOVI_LOG_RAW("Memory of module %u: %llu bytes in use.", m, static_cast<unsigned long long>(used));
    }
    return 0;
}

struct Command {
    uint32_t cmd;
    Handler handler;
    Handler4 handler4 = nullptr;  // instead of handler
};

constexpr Command kCommands[] = {
    {kCmdMemTable, mem_table},
    {kCmdMemDump, mem_dump},
    {kCmdWait, wait_on_word},
    {kCmdTimeLocal, time_local},
    {kCmdTimeLocalFromUtc, time_local_from_utc},
    {kCmdTimeUtc, time_utc},
    {kCmdTimeDstFromUtc, time_local_from_utc},
    {kCmdTimeDst, time_local},
    {kCmdGetIdleNoCstates, cpu_get_idle_no_cstates},
    {kCmdSetIdleNoCstates, cpu_set_idle_no_cstates},
    {kCmdCpuTaskInfo, cpu_task_info},
    {kCmdResetBoard, nullptr, refuse_platform},
    {kCmdReboot, nullptr, refuse_platform},
    {kCmdRebootCount, nullptr, refuse_platform},
    {kCmdPanic, nullptr, refuse_platform},
    {kCmdRegisters, nullptr, register_query},
    {kCmdThreadStatus, nullptr, thread_status},
    {kCmdCpuThread, nullptr, cpu_thread},
    {kCmdCpufreqLowAll, cpufreq_refused},
    {kCmdCpufreqHighAll, cpufreq_refused},
    {kCmdCpufreqStepUp, cpufreq_refused},
    {kCmdCpufreqStepDown, cpufreq_refused},
    {kCmdCpufreqLocal, cpufreq_refused},
};

long run(const Command &c, long a1, long a2, long a3, long a4)
{
    return c.handler4 != nullptr ? c.handler4(a1, a2, a3, a4) : c.handler(a1, a2, a3);
}

// The registry's groups are 0 to 31. Commands the platform has not numbered
// are no system calls: they stay out of the registry.
static_assert([] {
    for (const Command &c : kCommands)
        if ((c.cmd & kCmdLocalOnly) == 0 && c.cmd >> 8 >= TOVI_SYSCALL_GROUPS)
            return false;
    return true;
}(), "companion commands must fit the private-system-call registry");

// What an in-process call hands its registry entry: the arguments are
// addresses of this process, so the block starts with the address of a
// private object that no request arriving over the loopback wire can carry
// by accident; an entry refuses any other input.
char g_in_process_tag;

struct InProcessCall {
    const void *tag;
    long a1, a2, a3, a4;
    long result;
};

template <size_t I>
int32_t serve_entry(uint32_t, tovi_syscall_call_s *call)
{
    InProcessCall args;
    if (call->uiInLen != sizeof args || call->pucOutBuf != call->pucInBuf)
        return -1;
    __builtin_memcpy(&args, call->pucInBuf, sizeof args);
    if (args.tag != &g_in_process_tag)
        return -1;
    args.result = run(kCommands[I], args.a1, args.a2, args.a3, args.a4);
    __builtin_memcpy(call->pucOutBuf, &args, sizeof args);
    call->uiOutLen = sizeof args;
    return 0;
}

template <size_t... I>
constexpr std::array<tovi_syscall_fn, sizeof...(I)> entries_of(std::index_sequence<I...>)
{
    return {serve_entry<I>...};
}

constexpr size_t kCommandCount = sizeof kCommands / sizeof kCommands[0];
constexpr auto kEntries = entries_of(std::make_index_sequence<kCommandCount>());

// Registers the table group by group. A group an application registered
// first keeps its handlers: those commands of ours are then not served.
void register_commands()
{
    for (uint32_t group = 0; group < TOVI_SYSCALL_GROUPS; ++group) {
        tovi_syscall_entry_s calls[kCommandCount];
        uint32_t n = 0;
        for (size_t i = 0; i < kCommandCount; ++i)
            if ((kCommands[i].cmd & kCmdLocalOnly) == 0 && kCommands[i].cmd >> 8 == group)
                calls[n++] = {kCommands[i].cmd, TOVI_SYSCALL_DIRECT, kEntries[i]};
        int32_t ret = -1;
        try {
            ret = n > 0 ? tovi::syscall::register_group(group, calls, n, false) : 0;
        } catch (...) {
        }
        if (ret != 0)
            TOVI_LOG(log::kError, "Companion commands of group %u are not served: the group is taken.", group);
    }
}

// The control files of the kernel side and the ioctl requests served for
// them, one handler per (file, request).
constexpr const char *kControlFiles[] = {"/proc/kar/syscall", "/proc/kar/timezone"};

using IoctlHandler = long (*)(void *arg);

struct IoctlCommand {
    const char *path;
    unsigned long request;
    IoctlHandler handler;
};

constexpr IoctlCommand kIoctls[] = {
    {"/proc/kar/timezone", kIoctlTimezone, timezone_table_store},
    {"/proc/kar/syscall", kIoctlCstGet, cst_get},
    {"/proc/kar/syscall", kIoctlCstSet, cst_set},
    {"/proc/kar/syscall", kIoctlCstReload, cst_reload},
};

}  // namespace

bool control_known(const char *path)
{
    for (const char *known : kControlFiles)
        if (path != nullptr && std::strcmp(known, path) == 0)
            return true;
    return false;
}

long control_ioctl(const char *path, unsigned long request, void *arg)
{
    for (const IoctlCommand &c : kIoctls)
        if (c.request == request && std::strcmp(c.path, path) == 0)
            return c.handler(arg);
    errno = ENOTTY;
    return -1;
}

long syscall(uint32_t cmd, long a1, long a2, long a3)
{
    return syscall4(cmd, a1, a2, a3, -1);
}

long syscall4(uint32_t cmd, long a1, long a2, long a3, long a4)
{
    if ((cmd & kCmdLocalOnly) != 0) {
        for (const Command &c : kCommands)
            if (c.cmd == cmd)
                return run(c, a1, a2, a3, a4);
        errno = ENOSYS;
        return -1;
    }
    static pthread_once_t registered = PTHREAD_ONCE_INIT;
    pthread_once(&registered, register_commands);
    const tovi_syscall_entry_s *entry = tovi::syscall::find(cmd);
    InProcessCall args{&g_in_process_tag, a1, a2, a3, a4, -1};
    auto *block = reinterpret_cast<uint8_t *>(&args);
    tovi_syscall_call_s call{sizeof args, sizeof args, 0, block, block};
    if (entry == nullptr || entry->pfnSysCall(cmd, &call) != 0 || call.uiOutLen != sizeof args) {
        errno = ENOSYS;
        return -1;
    }
    return args.result;
}

}  // namespace tovi::companion::user
