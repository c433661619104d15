// Stack dumps on request: backtraces of the calling thread, the dump of
// another thread from its registers, the block-stack file that signal 59
// appends to, and the thread state queries of the kernel side.
#include <cerrno>
#include <csignal>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_arch.hpp"
#include "tovi_companion.hpp"
#include "tovi_thread.h"
#include "tovi_thread_dump.hpp"
#define TOVI_LOG_SOURCE "tovi_dump_stack"
#include "tovi_log.hpp"

using tovi::thrd::dump::self_tid;

char g_tag_buf[TOVI_TAG_BUF_LEN] = "dump_time:";

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr int32_t kDepth = 63;
constexpr int32_t kBlockDepth = 128;
constexpr uint32_t kRocModule = 999;
constexpr size_t kPathLen = 100;
constexpr const char *kBlockStackPrefix = "/var/log/dr/block-stack-";

char g_process_name[32];

// A text builder for the signal handler: no formatting functions.
struct Text {
    char *buf;
    size_t cap;
    size_t len = 0;
    void add(const char *s)
    {
        while (*s != '\0' && len + 1 < cap)
            buf[len++] = *s++;
        buf[len] = '\0';
    }
    void add(int32_t v)
    {
        char digits[12];
        int n = 0;
        auto u = static_cast<uint32_t>(v < 0 ? -static_cast<int64_t>(v) : v);
        do
            digits[n++] = static_cast<char>('0' + u % 10);
        while ((u /= 10) != 0);
        if (v < 0)
            digits[n++] = '-';
        char out[13];
        for (int i = 0; i < n; ++i)
            out[i] = digits[n - 1 - i];
        out[n] = '\0';
        add(out);
    }
};

void write_all(int fd, const char *s, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, s, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return;
        s += w;
        n -= static_cast<size_t>(w);
    }
}

// Name kept from the kernel-side interface: the dump of a thread from the
// registers the companion reports.
void tovi_thread_dump_specific_stack(uint64_t thread_id)
{
    const int32_t me = self_tid();
    auto tid = static_cast<int32_t>(thread_id);
    uint64_t sp = 0, fp = 0, pc = 0;
    long ret = tovi::companion::syscall4(tovi::companion::kCmdRegisters, reinterpret_cast<long>(&tid),
                                         reinterpret_cast<long>(&sp), reinterpret_cast<long>(&fp),
                                         reinterpret_cast<long>(&pc));
    if (ret != 0) {
        TOVI_LOG(kError, "Syscall for register failed %d.", static_cast<int>(ret));
        return;
    }
    TOVI_LOG_RAW("<%d>Critical fault: thread_id=%d.", me, tid);
    tovi_print_addr_symbol(me, pc, "RIP=", 1);
    TOVI_LOG_RAW("<%d>Stack Info: RSP: %08x%08x RBP: %08x%08x", me, static_cast<uint32_t>(sp >> 32),
                 static_cast<uint32_t>(sp), static_cast<uint32_t>(fp >> 32), static_cast<uint32_t>(fp));
    uint64_t start = 0, end = 0;
    const char *desc = "";
    if (tovi_thrd_getcurrentstack(tid, sp, &start, &end, &desc) == 0) {
        TOVI_LOG_RAW("<%d>(async)get %s, stack start(0x%0llx) end(0x%0llx)", me, desc,
                     static_cast<unsigned long long>(start), static_cast<unsigned long long>(end));
    } else if (tovi_thread_get_specific_stack(tid, &start, &end) != 0) {
        TOVI_LOG_RAW("<%d>get thread stack failed for thread_id = %lu!", me, static_cast<unsigned long>(thread_id));
        return;
    }
    tovi::thrd::dump::call_trace(me, sp, fp, start, end);
}

}  // namespace

extern "C" {

__attribute__((noinline)) void tovi_dump_stack_ext(void **buffer, int32_t depth, int32_t skip)
{
    int here = 0;
    const int32_t tid = self_tid();
    TOVI_LOG_RAW("<%d>Start dump stack from 0x%lx", tid, reinterpret_cast<unsigned long>(&here));
    if (buffer == nullptr || depth <= 0)
        return;
    const int n = backtrace(buffer, depth);
    // Frame 1 is this function's caller; find it by its return address, as
    // an instrumented build puts its interceptor's frame in front.
    int first = 1;
    for (int i = 0; i < n; ++i)
        if (buffer[i] == __builtin_return_address(0)) {
            first = i;
            break;
        }
    for (int i = first + (skip > 0 ? skip : 0); i < n; ++i)
        tovi_print_addr_symbol(tid, reinterpret_cast<uint64_t>(buffer[i]), " ", 0);
}

// The frames skipped are counted from these functions' own: keep them
// real calls (no inlining, no tail call).
__attribute__((noinline)) void tovi_dump_stack(void)
{
    void *buffer[kDepth];
    tovi_dump_stack_ext(buffer, kDepth, 1);
    asm volatile("" ::: "memory");
}

__attribute__((noinline)) void tovi_dump_stack_skip(int32_t skip)
{
    void *buffer[kDepth];
    tovi_dump_stack_ext(buffer, kDepth, (skip > 0 ? skip : 0) + 1);
    asm volatile("" ::: "memory");
}

__attribute__((noinline)) void tovi_thread_dump_stack(void)
{
    ucontext_t uc;
    getcontext(&uc);
    int here = 0;
    TOVI_LOG_RAW("<%d>Start dump stack RIP=0x%lx RSP=0x%lx RBP=0x%lx CUR=0x%lx", self_tid(),
                 static_cast<unsigned long>(tovi::arch::signal_context_pc(&uc)),
                 static_cast<unsigned long>(tovi::arch::signal_context_sp(&uc)),
                 static_cast<unsigned long>(tovi::arch::signal_context_fp(&uc)),
                 reinterpret_cast<unsigned long>(&here));
    void *buffer[kDepth];
    tovi_dump_stack_ext(buffer, kDepth, 1);
    asm volatile("" ::: "memory");
}

void tovi_thread_exit_callback(void)
{
    TOVI_LOG(kError, "exit_callback!");
    tovi_thread_dump_stack();
}

void tovi_thread_dump_thread_stack(uint64_t tid)
{
    TOVI_LOG_RAW("<%d>Dump thread ID: thread_id=%lu.", self_tid(), static_cast<unsigned long>(tid));
    tovi_thread_dump_specific_stack(tid);
}

void dump_signal_init(void)
{
    if (tovi_get_process_name(g_process_name) != 0)
        g_process_name[0] = '\0';
    // The first backtrace loads the unwinder, which allocates: take it here
    // rather than in the handler (the thread module may start before the
    // library's own start-up warms it).
    void *warm[2];
    backtrace(warm, 2);
    struct sigaction sa{};
    sa.sa_handler = dump_stack_by_sig;
    sa.sa_flags = 0;
    sigemptyset(&sa.sa_mask);
    sigaction(TOVI_SIGNAL_BLOCKSTACK, &sa, nullptr);
}

void dump_stack_by_sig(int)
{
    const int saved_errno = errno;
    char path[kPathLen + 1];
    Text text{path, sizeof path};
    text.add(kBlockStackPrefix);
    text.add(g_process_name);
    text.add("-");
    text.add(self_tid());
    void *frames[kBlockDepth];
    const int n = backtrace(frames, kBlockDepth);
    // Non-blocking: should the path be a FIFO that nobody drains, the
    // handler gives up on a full pipe instead of parking its thread.
    const int fd = open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0700);
    if (fd >= 0) {
        write_all(fd, "---", 3);
        write_all(fd, g_tag_buf, strnlen_s(g_tag_buf, sizeof g_tag_buf));
        write_all(fd, "---\n", 4);
        backtrace_symbols_fd(frames, n, fd);
        close(fd);
    }
    errno = saved_errno;
}

void dump_thread_stack_sig_roc(int32_t pid, int32_t tid)
{
    char stamp[24];
    snprintf_s(stamp, sizeof stamp, "%ld\n", static_cast<long>(time(nullptr)));
    strcat_s(g_tag_buf, sizeof g_tag_buf, "dump_time:");
    strcat_s(g_tag_buf, sizeof g_tag_buf, stamp);
    TOVI_LOG_AT(kRocModule, kInfo, "Show backtrace pid=%d, tid=%d, %s", pid, tid, g_tag_buf);
    long ret = ::syscall(SYS_tgkill, pid, tid, TOVI_SIGNAL_BLOCKSTACK);
    TOVI_LOG_AT(kRocModule, kInfo, "Show backtrace pid=%d, tid=%d, ret=%ld, errno=%d.", pid, tid, ret,
                ret == 0 ? 0 : errno);
}

uint32_t tovi_thrd_getstatus(int32_t tid, tovi_thrd_status_s *status)
{
    if (status == nullptr ||
        tovi::companion::syscall(tovi::companion::kCmdThreadStatus, tid, reinterpret_cast<long>(status)) != 0) {
        TOVI_LOG(kError, "Tovi syscall for thrd_getstatus failed.");
        return TOVI_ERR;
    }
    return 0;
}

uint32_t tovi_thrd_dump_cpu_stack_knl(uint32_t cpu)
{
    int32_t tid = 0;
    if (tovi::companion::syscall(tovi::companion::kCmdCpuThread, static_cast<long>(cpu),
                                 reinterpret_cast<long>(&tid)) != 0) {
        TOVI_LOG(kError, "Tovi syscall for cur_cpu_thrd_getstatus failed.");
        return TOVI_ERR;
    }
    dump_thread_stack_sig(static_cast<int32_t>(getpid()), tid);
    return 0;
}

}  // extern "C"
