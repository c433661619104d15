// User-space backend of the companion: serves the private system call
// commands inside the process on hosts without the platform kernel. Each
// command is one handler in the table below.
#include <array>
#include <cerrno>
#include <cstring>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tovi_companion.hpp"
#define TOVI_LOG_SOURCE "tovi_companion_user"
#include "tovi_log.hpp"

namespace tovi::companion::user {
namespace {

constexpr int64_t kNsPerJiffy = 1000000000LL / TOVI_HZ;

using Handler = long (*)(long a1, long a2, long a3);

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
};

constexpr Command kCommands[] = {
    {kCmdMemTable, mem_table},
    {kCmdMemDump, mem_dump},
    {kCmdWait, wait_on_word},
    {kCmdCpufreqLowAll, cpufreq_refused},
    {kCmdCpufreqHighAll, cpufreq_refused},
    {kCmdCpufreqStepUp, cpufreq_refused},
    {kCmdCpufreqStepDown, cpufreq_refused},
    {kCmdCpufreqLocal, cpufreq_refused},
};

// The control files of the kernel side and the ioctl requests served for
// them, one handler per (file, request).
constexpr const char *kControlFiles[] = {"/proc/kar/syscall", "/proc/kar/timezone"};

using IoctlHandler = long (*)(void *arg);

struct IoctlCommand {
    const char *path;
    unsigned long request;
    IoctlHandler handler;
};

constexpr std::array<IoctlCommand, 0> kIoctls{};

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
    for (const Command &c : kCommands)
        if (c.cmd == cmd)
            return c.handler(a1, a2, a3);
    errno = ENOSYS;
    return -1;
}

}  // namespace tovi::companion::user
