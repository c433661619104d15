// Fault and termination signals turned into dumps. fault_handler runs on
// the thread's alternate signal stack: registers with their symbols, a call
// trace over the frame records, a hex dump of the stack; a fatal signal then
// runs the exception chain and is re-raised with its default action.
//
// Every line goes to the raw log and starts with "<tid>". Nothing here
// allocates or takes a lock: buffers live on the handler's stack, the
// symbol and stack lookups are lock-free, and memory is probed before it is
// read where the range is a guess.
#include <cerrno>
#include <cstddef>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_arch.hpp"
#include "tovi_exception.h"
#include "tovi_symbol.h"
#include "tovi_thread.h"
#include "tovi_thread.hpp"
#include "tovi_thread_dump.hpp"
#define TOVI_LOG_SOURCE "tovi_sig_calltrace"
#include "tovi_log.hpp"

namespace tovi::thrd::dump {
namespace {

using log::kInfo;

constexpr uint64_t kNoFramePointer = 0xFFFFFFFFULL;
constexpr uint64_t kTraceSpan = 16384;   // bytes of stack a trace or hex dump covers
constexpr uint64_t kBelowSp = 1024;      // a hex dump starts this far below sp
constexpr uint64_t kPage = 4096;
constexpr int kMaxDumpOnly = 3;          // dump-only signals handled at a time

struct SignalClass {
    int sig;
    const char *name;
};

// The signals fault_handler takes by default (61 is installed on its own).
constexpr SignalClass kHandled[] = {
    {SIGILL, "SIGILL"},     {SIGABRT, "SIGABRT"},     {SIGBUS, "SIGBUS"},       {SIGFPE, "SIGFPE"},
    {SIGUSR1, "SIGUSR1"},   {SIGSEGV, "SIGSEGV"},     {SIGUSR2, "SIGUSR2"},     {SIGPIPE, "SIGPIPE"},
    {SIGALRM, "SIGALRM"},   {SIGTERM, "SIGTERM"},     {SIGSTKFLT, "SIGSTKFLT"}, {SIGTTIN, "SIGTTIN"},
    {SIGTTOU, "SIGTTOU"},   {SIGXCPU, "SIGXCPU"},     {SIGXFSZ, "SIGXFSZ"},     {SIGVTALRM, "SIGVTALRM"},
    {SIGPROF, "SIGPROF"},   {SIGIO, "SIGIO"},         {SIGPWR, "SIGPWR"},       {SIGSYS, "SIGSYS"},
};

// Written only while installing; read by the handlers.
const char *g_sig_names[TOVI_SIGNAL_NAMES];
uint32_t g_handlers_installed = 0;
uint32_t g_install_started = 0;
uint32_t g_dump_signal_installed = 0;
int32_t g_reentry = 0;
uint32_t g_coredump = 0;

const char *sig_name(int sig)
{
    const char *n = sig >= 0 && static_cast<uint32_t>(sig) < TOVI_SIGNAL_NAMES ? g_sig_names[sig] : nullptr;
    return n != nullptr ? n : "";
}

uint32_t hi(uint64_t v)
{
    return static_cast<uint32_t>(v >> 32);
}

uint32_t lo(uint64_t v)
{
    return static_cast<uint32_t>(v);
}

void *ptr(uint64_t v)
{
    return reinterpret_cast<void *>(v);
}

// A word of someone else's stack or code, read as raw memory: the sanitizers
// would see redzones and races where a dump only looks.
// Code addresses need not be aligned, hence the byte copy.
__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) uint64_t word_at(uint64_t addr)
{
    uint64_t v;
    __builtin_memcpy(&v, reinterpret_cast<const void *>(addr), sizeof v);
    return v;
}

uint64_t align_up(uint64_t v, uint64_t a)
{
    return (v + a - 1) & ~(a - 1);
}

void fault_handler(int sig, siginfo_t *info, void *ucontext);

bool install(int sig, const char *name)
{
    struct sigaction sa{};
    sa.sa_sigaction = fault_handler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    if (sigaction(sig, &sa, nullptr) != 0)
        return false;
    g_sig_names[sig] = name;
    return true;
}

// The common start of both installations; false when one ran already.
bool begin_install()
{
    uint32_t expected = 0;
    if (!__atomic_compare_exchange_n(&g_install_started, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return false;
    tovi_symbol_init();
    atexit(tovi_thread_exit_callback);
    // Signal 61 may be in place already (a dump was asked for first): its
    // handler stays, and so must its name.
    const bool keep_61 = __atomic_load_n(&g_dump_signal_installed, __ATOMIC_ACQUIRE) != 0;
    for (uint32_t s = 0; s < TOVI_SIGNAL_NAMES; ++s)
        if (s != TOVI_SIGNAL_TASKTRACK || !keep_61)
            g_sig_names[s] = nullptr;
    return true;
}

// `with_61`: the full installation puts signal 61 in place before the flag
// says the handlers are there.
void end_install(bool with_61)
{
    signal(SIGHUP, SIG_IGN);
    if (with_61)
        auto_install_dump_stack_signal();
    // Release pairs with the acquiring loads of the flag getters.
    __atomic_store_n(&g_handlers_installed, 1, __ATOMIC_RELEASE);
}

// One row of four words; false when the line cannot be read.
bool read_line(PageProbe &probe, uint64_t p, uint64_t (&w)[4])
{
    if (!probe.readable(p) || !probe.readable(p + 24))
        return false;
    for (unsigned i = 0; i < 4; ++i)
        w[i] = word_at(p + 8 * i);
    return true;
}

// Four words a line; a line of zeros is printed once as "..." and the zero
// lines after it are left out. `announce` runs before each printed line.
template <class Announce>
void hex_lines(int32_t tid, uint64_t from, uint64_t to, Announce announce)
{
    PageProbe probe;
    bool in_zeros = false;
    for (uint64_t p = from; p + 32 <= to; p += 32) {
        uint64_t w[4];
        if (!read_line(probe, p, w))
            continue;
        if ((w[0] | w[1] | w[2] | w[3]) == 0) {
            if (!in_zeros)
                TOVI_LOG_RAW("<%d>%16p: %016lx ...", tid, ptr(p), 0UL);
            in_zeros = true;
            continue;
        }
        in_zeros = false;
        announce(p, w);
        TOVI_LOG_RAW("<%d>%16p: %016lx %016lx %016lx %016lx", tid, ptr(p), static_cast<unsigned long>(w[0]),
                     static_cast<unsigned long>(w[1]), static_cast<unsigned long>(w[2]),
                     static_cast<unsigned long>(w[3]));
    }
}

void dump_stack_of(int32_t tid, int32_t sig, uint64_t sp, uint64_t fp, bool exiting)
{
    TOVI_LOG_RAW("<%d>Stack Info: RSP: 0x%x%08x RBP: 0x%x%08x", tid, hi(sp), lo(sp), hi(fp), lo(fp));
    uint64_t start = 0, end = 0;
    const char *desc = "";
    if (tovi_thrd_getcurrentstack(0, sp, &start, &end, &desc) != 0) {
        if (exiting) {
            TOVI_LOG_RAW("<%d>(exit)can't find current stack info by stack addr(0x%0llx) desc(%s)", tid,
                         static_cast<unsigned long long>(sp), desc);
            return;
        }
        TOVI_LOG_RAW("<%d>(sync)can't find current stack info by stack addr(0x%0llx) desc(%s)", tid,
                     static_cast<unsigned long long>(sp), desc);
        tovi_thread_dump_broken_stack(sig, tid);
        return;
    }
    if (exiting)
        TOVI_LOG_RAW("<%d>(exit)get %s, stack start(0x%0llx) end(0x%0llx)", tid, desc,
                     static_cast<unsigned long long>(start), static_cast<unsigned long long>(end));
    else
        TOVI_LOG_RAW("<%d>(sync)get %s, stack start(0x%0llx) end(0x%0llx)", tid, desc,
                     static_cast<unsigned long long>(start), static_cast<unsigned long long>(end));
    call_trace(tid, sp, fp, start, end);
    if (!exiting)
        tovi_thread_dump_full_stack(sig, sp, tid, start, end);
}

// Steps 1-5 of a fault: count in, dump, count out; fatal signals then run
// the exception chain and come back with their default action.
void fault_handler(int sig, siginfo_t *info, void *ucontext)
{
    const int saved_errno = errno;
    const int32_t tid = self_tid();
    const bool fatal = tovi_signal_is_fatal(sig) != 0;
    // The counter only bounds concurrent dumps; it orders no other memory.
    int32_t depth = __atomic_add_fetch(&g_reentry, 1, __ATOMIC_RELAXED);
    if (!fatal && depth > kMaxDumpOnly) {
        __atomic_sub_fetch(&g_reentry, 1, __ATOMIC_RELAXED);
        TOVI_LOG_RAW("<%d>fault handler reentrant<%d> too much. sig %d", tid, depth, sig);
        errno = saved_errno;
        return;
    }
    int here = 0;
    TOVI_LOG_RAW("<%d>start of stack of general fault_handler() is %p. <%d>, sig %s, si %p, si_code %08x, cpu %d",
                 tid, static_cast<void *>(&here), depth, sig_name(sig), static_cast<void *>(info),
                 info != nullptr ? static_cast<unsigned>(info->si_code) : 0U, sched_getcpu());
    tovi_thread_dump_current_stack(sig, ucontext);
    __atomic_sub_fetch(&g_reentry, 1, __ATOMIC_RELAXED);
    if (fatal) {
        tovi_signal_exit_notify(sig, info, ucontext);
        // Pending until this handler returns; then the default action ends
        // the process with this signal (and its core).
        struct sigaction dfl{};
        dfl.sa_handler = SIG_DFL;
        sigemptyset(&dfl.sa_mask);
        sigaction(sig, &dfl, nullptr);
        pthread_kill(pthread_self(), sig);
    }
    errno = saved_errno;
}

}  // namespace

int32_t self_tid()
{
    return static_cast<int32_t>(::syscall(SYS_gettid));
}

bool PageProbe::readable(uint64_t addr)
{
    const uint64_t pg = addr & ~(kPage - 1);
    if (pg == page)
        return true;
    uint64_t sink;
    iovec local{&sink, sizeof sink};
    iovec remote{reinterpret_cast<void *>(pg), sizeof sink};
    ssize_t n = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    bool ok = n == static_cast<ssize_t>(sizeof sink);
    if (n < 0 && (errno == ENOSYS || errno == EPERM)) {
        // Without the call, a resident page is readable; a page never
        // touched is left out (it would read as zeros anyway).
        unsigned char vec = 0;
        ok = mincore(reinterpret_cast<void *>(pg), kPage, &vec) == 0 && (vec & 1) != 0;
    }
    if (ok)
        page = pg;
    return ok;
}

// Walks the words of the stack range: every word that is a return address
// into a known function is a row; a row is a true frame record (no mark)
// when the frame chain, followed from fp, stands at that slot, else "???".
// The trace ends after the chain reaches start_thread or main; a "???" row
// of those with the chain already below cuts the range at the next page.
void call_trace(int32_t tid, uint64_t sp, uint64_t fp, uint64_t start, uint64_t end)
{
    if (fp == kNoFramePointer)
        fp = sp;
    const uint64_t from = align_up(sp > start ? sp : start, 8);
    uint64_t to = from + kTraceSpan < end ? from + kTraceSpan : end;
    TOVI_LOG_RAW("<%d>stack: [%p -- %p] ", tid, ptr(from), ptr(to));
    // The header's "(%08s)" is the text the dump readers know; glibc pads it
    // with spaces.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    TOVI_LOG_RAW("<%d>%18s %18s %18s (%08s) %-40s  %s+%s %s", tid, "stack_addr", "stack_rbp", "content", "length",
                 "file", "func", "position", "suspicious");
#pragma GCC diagnostic pop
    PageProbe probe;
    uint64_t prev = from;
    for (uint64_t p = from; p + 8 < to; p += 8) {
        if (!probe.readable(p + 8)) {
            // A page that cannot be read (the guard page an overflowing
            // stack ran into) is stepped over; the frames lie above it.
            p = (((p + 8) | (kPage - 1)) + 1) - 16;
            continue;
        }
        // The slot read as a frame record: saved frame pointer, return address.
        const uint64_t word = word_at(p + offsetof(arch::FrameRecord, return_address));
        tovi_symbol_s sym{};
        if (tovi_symbol_find(word, &sym) != 0 || sym.type != TOVI_SYMBOL_TYPE_FUNC)
            continue;
        const bool chained = fp >= from && fp < to && fp == p;
        TOVI_LOG_RAW("<%d>%18p %18p %18p (%08ld) %-40s  %s+0x%x %s", tid, ptr(p), ptr(fp), ptr(word),
                     static_cast<long>((p - prev) / 8), sym.file, sym.name, static_cast<unsigned>(word - sym.addr),
                     chained ? "" : "???");
        prev = p;
        const bool last = std::strcmp(sym.name, "start_thread") == 0 || std::strcmp(sym.name, "main") == 0;
        if (chained) {
            fp = word_at(p + offsetof(arch::FrameRecord, next));
            if (last)
                break;
        } else if (last && fp < p) {
            const uint64_t cut = ((p + 8) | (kPage - 1)) + 1;
            if (cut < to)
                to = cut;
        }
    }
    TOVI_LOG_RAW("<%d>dump_stack info Success", tid);
}

}  // namespace tovi::thrd::dump

using namespace tovi::thrd::dump;

extern "C" {

int tovi_signal_is_fatal(int sig)
{
    switch (sig) {
    case 12: case 13: case 14: case 21: case 22: case 26: case 27: case 29: case TOVI_SIGNAL_TASKTRACK:
        return 0;
    default:
        return 1;
    }
}

void tovi_thread_signal_init(void)
{
    if (!begin_install())
        return;
    for (const SignalClass &s : kHandled)
        install(s.sig, s.name);
    end_install(true);
}

void tovi_thread_signal_init_with_list(void *, const uint32_t *sigList, uint32_t count)
{
    if (sigList == nullptr || !begin_install())
        return;
    char text[128] = {};
    size_t len = 0;
    bool full = false;
    for (uint32_t i = 0; i < count; ++i) {
        if (sigList[i] < TOVI_SIGNAL_NAMES)
            install(static_cast<int>(sigList[i]), "sigList[i]");
        // The text is the list cut where it stops fitting: a shorter number
        // written over the cut one would show a list that was never given.
        int n = full ? -1 : snprintf_s(text + len, sizeof text - len, "%u, ", sigList[i]);
        if (n > 0 && len + static_cast<size_t>(n) < sizeof text)
            len += static_cast<size_t>(n);
        else
            full = true;
    }
    TOVI_LOG(kInfo, "signal init with list(%s).", text);
    end_install(false);
}

void auto_install_dump_stack_signal(void)
{
    if (__atomic_load_n(&g_dump_signal_installed, __ATOMIC_ACQUIRE) != 0)
        return;
    if (install(TOVI_SIGNAL_TASKTRACK, "SIGTASKTRACK"))
        __atomic_store_n(&g_dump_signal_installed, 1, __ATOMIC_RELEASE);
}

void dump_thread_stack_sig(int32_t pid, int32_t tid)
{
    auto_install_dump_stack_signal();
    const int32_t me = self_tid();
    TOVI_LOG_RAW("<%d>Show task context by signal ...: pid=%d, tid=%d.", me, pid, tid);
    long ret = ::syscall(SYS_tgkill, pid, tid, TOVI_SIGNAL_TASKTRACK);
    TOVI_LOG_RAW("<%d>SYS_tgkill Show task context by signal end ...: pid=%d, tid=%d, ret=%ld, errno=%d.", me, pid,
                 tid, ret, ret == 0 ? 0 : errno);
}

void tovi_print_addr_symbol(int32_t tid, uint64_t addr, const char *label, int32_t with_value)
{
    tovi_symbol_s sym{};
    if (tovi_symbol_find(addr, &sym) != 0) {
        TOVI_LOG_RAW("<%d>%s%p func=%s+0x%lx file=%s ", tid, label, ptr(addr), "NULL", 0UL, "NULL");
        return;
    }
    const auto off = static_cast<unsigned long>(addr - sym.addr);
    if (with_value == 1)
        TOVI_LOG_RAW("<%d>%s%p value=0x%lx func=%s+0x%lx file=%s ", tid, label, ptr(addr),
                     static_cast<unsigned long>(word_at(addr)), sym.name, off, sym.file);
    else
        TOVI_LOG_RAW("<%d>%s%p func=%s+0x%lx file=%s ", tid, label, ptr(addr), sym.name, off, sym.file);
}

void tovi_thread_dump_current_stack(int32_t sig, void *ucontext)
{
    const int32_t tid = self_tid();
    char name[TOVI_THREAD_NAME_LEN];
    tovi::thrd::current_name(name);
    TOVI_LOG_RAW("<%d>Critical fault: pid=%d, tid=%d, thrd=%s, sig = [%d], %s", tid, static_cast<int>(getpid()), tid,
                 name, sig, sig_name(sig));
    if (ucontext == nullptr)
        return;
    const auto *uc = static_cast<const ucontext_t *>(ucontext);
    tovi::arch::RegisterSet regs{};
    tovi::arch::signal_context_registers(uc, &regs);
    for (unsigned i = 0; i < regs.general; ++i) {
        const uint64_t v = regs.values[i];
        tovi_symbol_s sym{};
        if (tovi_symbol_find(v, &sym) == 0)
            TOVI_LOG_RAW("<%d>%8s: %08x%08x %s+0x%lx", tid, regs.names[i], hi(v), lo(v), sym.name,
                         static_cast<unsigned long>(v - sym.addr));
        else
            TOVI_LOG_RAW("<%d>%8s: %08x%08x", tid, regs.names[i], hi(v), lo(v));
    }
    tovi_print_addr_symbol(tid, tovi::arch::signal_context_pc(uc), "RIP=", 1);
    tovi_thread_dump_sync_stack(tid, sig, tovi::arch::signal_context_sp(uc), tovi::arch::signal_context_fp(uc));
}

void tovi_thread_dump_sync_stack(int32_t tid, int32_t sig, uint64_t sp, uint64_t fp)
{
    dump_stack_of(tid, sig, sp, fp, false);
}

void tovi_thread_dump_exit_stack(uint64_t sp, uint64_t fp)
{
    dump_stack_of(self_tid(), 0, sp, fp, true);
}

void tovi_thread_dump_full_stack(int32_t sig, uint64_t sp, int32_t tid, uint64_t start, uint64_t end)
{
    if (tovi_signal_is_fatal(sig) == 0)
        return;
    const uint64_t low = sp > start + kBelowSp ? sp - kBelowSp : start;
    const uint64_t from = align_up(low, 8);
    const uint64_t to = from + kTraceSpan < end ? from + kTraceSpan : end;
    hex_lines(tid, from, to, [](uint64_t, const uint64_t (&)[4]) {});
}

void tovi_thread_dump_broken_stack(int32_t sig, int32_t tid)
{
    if (tovi_signal_is_fatal(sig) == 0)
        return;
    uint64_t start = 0, end = 0;
    if (tovi_thrd_getosstack(tid == self_tid() ? 0 : tid, &start, &end) != 0)
        return;
    TOVI_LOG_RAW("<%d>Try to dump OS stack, start(0x%0llx) end(0x%0llx):", tid, static_cast<unsigned long long>(start),
                 static_cast<unsigned long long>(end));
    // The last word of the line printed before; a line left out was zeros.
    uint64_t before = 0, before_line = 0;
    hex_lines(tid, align_up(start, 8), end, [&](uint64_t p, const uint64_t (&w)[4]) {
        if (before_line + 32 != p)
            before = 0;
        for (unsigned i = 0; i < 4; ++i) {
            const uint64_t at = p + 8 * i;
            tovi_symbol_s sym{};
            if (tovi_symbol_find(w[i], &sym) == 0 && sym.type == TOVI_SYMBOL_TYPE_FUNC) {
                const auto off = static_cast<unsigned>(w[i] - sym.addr);
                if (at == align_up(start, 8))
                    TOVI_LOG_RAW("<%d>                  (rip)%016lx: %s+0x%x ???", tid,
                                 static_cast<unsigned long>(w[i]), sym.name, off);
                else
                    TOVI_LOG_RAW("<%d>%18s%016lx: %016lx  (rip)%016lx: %s+0x%x ???", tid, "(rbp)",
                                 static_cast<unsigned long>(at - 8),
                                 static_cast<unsigned long>(i == 0 ? before : w[i - 1]),
                                 static_cast<unsigned long>(w[i]), sym.name, off);
            }
        }
        before = w[3];
        before_line = p;
    });
}

int32_t tovi_signal_exit_notify(int32_t sig, void *siginfo, void *ucontext)
{
    ToviExceptionRegs regs;
    memset_s(&regs, sizeof regs, 0, sizeof regs);
    if (ucontext != nullptr) {
        const auto *uc = static_cast<const ucontext_t *>(ucontext);
        tovi::arch::RegisterSet set{};
        tovi::arch::signal_context_registers(uc, &set);
        for (unsigned i = 0; i < set.general && i < 31; ++i)
            regs.regs[i] = set.values[i];
        regs.sp = tovi::arch::signal_context_sp(uc);
        regs.pc = tovi::arch::signal_context_pc(uc);
        regs.pstate = tovi::arch::signal_context_flags(uc);
    }
    return tovi_exception_call_chain(0, siginfo, &regs, 0, 0, sig);
}

uint32_t tovi_thread_signal_flag_get(void)
{
    return __atomic_load_n(&g_handlers_installed, __ATOMIC_ACQUIRE);
}

int32_t is_dump_stack_enabled(void)
{
    return tovi_thread_signal_flag_get() == 1 ? 0 : -1;
}

void tovi_thread_set_coredump_on(void)
{
    __atomic_store_n(&g_coredump, 1, __ATOMIC_RELAXED);
}

void tovi_thread_set_coredump_off(void)
{
    __atomic_store_n(&g_coredump, 0, __ATOMIC_RELAXED);
}

int32_t tovi_thread_coredump_flag_get(uint32_t *out)
{
    const uint32_t v = __atomic_load_n(&g_coredump, __ATOMIC_RELAXED);
    if (out == nullptr || v > 1)
        return -1;
    *out = v;
    return 0;
}

}  // extern "C"
