// Signal dumps: fatal signals dump and die by the same signal, dump-only
// signals are survived (three at a time), the call trace follows the frame
// chain, and the requested dumps (signal 61, register query, signal 59).
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_arch.hpp"
#include "tovi_exception.h"
#include "tovi_reboot.h"
#include "tovi_symbol.h"
#include "tovi_thread.h"
#include "tovi_thread_dump.hpp"

using tovi::test::LogCapture;

// Known functions for the frames the dumps must name; the barrier after
// each call keeps it a call (no tail call).
#define KEEP asm volatile("" ::: "memory")
std::atomic<int> g_spin{1};
std::atomic<unsigned> g_laps{0};
extern "C" {
__attribute__((noinline)) void dump_test_crash(volatile int *p) { *p = 1; KEEP; }
__attribute__((noinline)) void dump_test_caller(volatile int *p) { dump_test_crash(p); KEEP; }
__attribute__((noinline)) void dump_test_outer(volatile int *p) { dump_test_caller(p); KEEP; }
// Named as the thread entry the trace stops at.
__attribute__((noinline)) void start_thread() { for (int i = 0; i < 3; ++i) g_spin.fetch_add(0); }
__attribute__((noinline)) void dump_test_spin() { while (g_spin.load() != 0) g_laps.fetch_add(1); KEEP; }
__attribute__((noinline)) void dump_test_spin_caller() { dump_test_spin(); KEEP; }
__attribute__((noinline)) void dump_test_spin_outer() { dump_test_spin_caller(); KEEP; }
__attribute__((noinline)) void dump_test_skip(int32_t n) { tovi_dump_stack_skip(n); KEEP; }
__attribute__((noinline)) void dump_test_skip_caller(int32_t n) { dump_test_skip(n); KEEP; }
}

namespace {

pid_t tid() { return static_cast<pid_t>(syscall(SYS_gettid)); }
// Waits until the spinning thread is back in its loop (out of any handler).
void in_loop() { for (unsigned lap = g_laps.load(); g_laps.load() == lap;) {} }

// Runs `body` in a child whose messages go to a file; the child's status
// (128 + signal when a signal ended it) and the texts of its messages.
struct Death { int status; std::vector<std::string> lines; };
Death run_dying(const std::function<void()> &body)
{
    char path[] = "/tmp/tovi_dump_XXXXXX";
    int fd = mkstemp(path);
    int status = tovi::test::run_in_child([&] {
        setenv("TOVI_TEST_LOG", "1", 1);
        dup2(fd, 2);
        body();
        return 0;
    });
    std::string all = tovi::test::read_file(path);
    close(fd), unlink(path);
    Death d{status, {}};
    for (size_t at = 0, nl; (nl = all.find('\n', at)) != std::string::npos; at = nl + 1) {
        std::string line = all.substr(at, nl - at);
        size_t text = line.find("] ");
        if (line.rfind("[log ", 0) == 0 && text != std::string::npos)
            d.lines.push_back(line.substr(text + 2));
    }
    return d;
}

size_t find(const std::vector<std::string> &lines, const std::string &part, size_t from = 0)
{
    for (size_t i = from; i < lines.size(); ++i)
        if (lines[i].find(part) != std::string::npos)
            return i;
    return std::string::npos;
}

int32_t exception_seen(ToviNotifierBlock *, uint64_t, void *data)
{
    auto *d = static_cast<ToviExceptionData *>(data);
    printk("exception chain: sig %d pc %s", d->sig, d->regs->pc != 0 ? "set" : "zero");
    return 0;
}

unsigned general_registers()
{
    ucontext_t uc;
    tovi::arch::RegisterSet set{};
    return getcontext(&uc), tovi::arch::signal_context_registers(&uc, &set), set.general;
}

TEST(ThreadDump, FatalSignalsDumpThenDieBySameSignal)
{
    struct Case {
        int sig;
        std::string name;
        bool real_fault;  // a fault in dump_test_crash, else raised
    } cases[] = {{SIGSEGV, "SIGSEGV", true}, {SIGUSR1, "SIGUSR1", false}, {SIGTERM, "SIGTERM", false},
                 {SIGABRT, "SIGABRT", false}};
    for (const Case &c : cases) {
        Death d = run_dying([&] {
            static ToviNotifierBlock block{exception_seen, nullptr, 0};
            tovi_thrd_setcurthreadinfo();
            tovi_exception_init();
            tovi_exception_chain_register(&block);
            if (c.real_fault)
                dump_test_outer(reinterpret_cast<volatile int *>(16));  // unmapped, not null
            else
                raise(c.sig);
        });
        const std::string &name = c.name;
        EXPECT_EQ(d.status, 128 + c.sig) << name;
        size_t start = find(d.lines, "start of stack of general fault_handler() is 0x");
        ASSERT_NE(start, std::string::npos);
        EXPECT_NE(d.lines[start].find(". <1>, sig " + name + ", si 0x"), std::string::npos) << d.lines[start];
        size_t fault = find(d.lines, "thrd=[NULL], sig = [" + std::to_string(c.sig) + "], " + name, start);
        ASSERT_EQ(fault, start + 1);
        // One line per general register, then the program counter.
        size_t rip = find(d.lines, "RIP=0x", fault);
        EXPECT_EQ(rip, fault + 1 + general_registers());
        size_t trace = find(d.lines, "(sync)get OS_STACK, stack start(0x", rip);
        size_t success = find(d.lines, "dump_stack info Success", trace);
        size_t hex = find(d.lines, ": 0000000000000000 ...", success);
        size_t chain = find(d.lines, "exception chain: sig " + std::to_string(c.sig) + " pc set", success);
        EXPECT_TRUE(trace != std::string::npos && success != std::string::npos && hex != std::string::npos &&
                    chain > hex && chain != std::string::npos);
        if (c.real_fault) {
            EXPECT_NE(d.lines[rip].find(" func=dump_test_crash+0x"), std::string::npos) << d.lines[rip];
            // The outer caller's frame record is on the frame chain: no mark.
            size_t row = find(d.lines, " dump_test_outer+0x", trace);
            ASSERT_LT(row, success);
            EXPECT_EQ(d.lines[row].back(), ' ') << d.lines[row];
        }
    }
}

TEST(ThreadDump, DumpOnlySignalsAreSurvivedThreeAtATime)
{
    std::string report = tovi::test::report_from_child([]() -> std::string {
        LogCapture log;
        tovi_thrd_setcurthreadinfo();
        // Numbers past the table are logged, not installed; the text is the list cut at 127 characters.
        const uint32_t list[] = {SIGUSR2, SIGPIPE, 4000000000u, 4000000000u, 4000000000u, 4000000000u, 4000000000u,
                                 4000000000u, 4000000000u, 4000000000u, 4000000000u, 4000000000u, 200};
        tovi_thread_signal_init_with_list(nullptr, list, 13);
        std::string joined = "12, 13, ";
        for (int i = 0; i < 10; ++i)
            joined += "4000000000, ";
        CHILD_CHECK(log.texts(6) == std::vector<std::string>{"signal init with list(" + joined.substr(0, 127) + ")."});
        CHILD_CHECK(tovi_thread_signal_flag_get() == 1 && is_dump_stack_enabled() == 0);
        raise(SIGUSR2);
        CHILD_CHECK(log.count("<" + std::to_string(tid()) + ">dump_stack info Success") == 1);
        CHILD_CHECK(find(log.texts(), ", sig sigList[i], si 0x") != std::string::npos);  // the list's names, as they are
        for (const std::string &t : log.texts())
            CHILD_CHECK(t.find(" ...") == std::string::npos);  // no hex dump
        // Three handlers held inside their dump; the fourth is refused.
        static std::atomic<int> held{0};
        static std::atomic<bool> release{false};
        LogCapture::set_raw_hook([](const char *text) {
            if (std::strstr(text, "start of stack of general") != nullptr) {
                ++held;
                while (!release.load()) {
                }
            }
        });
        std::vector<std::thread> threads;  // parked until `done`
        std::atomic<int> ids[4] = {};
        std::atomic<bool> done{false};
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&, i] {
                ids[i] = tid();
                while (!done.load())
                    usleep(1000);
            });
        for (auto &id : ids)
            while (id.load() == 0)
                usleep(100);
        for (int i = 0; i < 3; ++i)
            syscall(SYS_tgkill, getpid(), ids[i].load(), SIGUSR2);
        while (held.load() < 3)
            usleep(100);
        syscall(SYS_tgkill, getpid(), ids[3].load(), SIGPIPE);
        const std::string refused = "<" + std::to_string(ids[3].load()) + ">fault handler reentrant<4> too much. sig 13";
        for (int i = 0; i < 5000 && !log.contains(refused); ++i)
            usleep(1000);
        release = done = true;
        for (auto &t : threads)
            t.join();
        LogCapture::set_raw_hook(nullptr);
        CHILD_CHECK(log.count(refused) == 1 && held.load() == 3);
        return "";
    });
    EXPECT_EQ(report, "");
}

// A thread asked with signal 61 dumps itself; the trace follows its frame
// chain from the interrupted function up.
TEST(ThreadDump, RequestedDumpsFollowTheFrameChain)
{
    std::string report = tovi::test::report_from_child([]() -> std::string {
        LogCapture log;
        auto_install_dump_stack_signal(), tovi_thread_signal_init();  // 61 first: its name must stay
        std::atomic<pid_t> target{0};
        pthread_t id;
        g_spin = 1;
        create_thread_raw([](void *arg) -> void * {
            static_cast<std::atomic<pid_t> *>(arg)->store(tid());
            dump_test_spin_outer();
            return nullptr;
        }, &target, &id);
        while (target.load() == 0)
            usleep(100);
        const std::string t = "<" + std::to_string(target.load()) + ">";
        const std::string me = "<" + std::to_string(tid()) + ">";
        // Register query through the companion: no code runs on the target but the answer.
        in_loop();
        tovi_thread_dump_thread_stack(static_cast<uint64_t>(target.load()));
        auto lines = log.texts();
        size_t rip = find(lines, me + "RIP=0x");
        CHILD_CHECK(rip != std::string::npos && lines[rip].find("func=dump_test_spin+0x") != std::string::npos);
        size_t row = find(lines, " dump_test_spin_outer+0x", rip);
        CHILD_CHECK(row != std::string::npos && lines[row].back() == ' ');
        CHILD_CHECK(find(lines, me + "(async)get OS_STACK, stack start(0x") < row);
        log.clear();
        in_loop();  // out of the answer's handler
        dump_thread_stack_sig(getpid(), target.load());
        for (int i = 0; i < 5000 && !log.contains(t + "dump_stack info Success"); ++i)
            usleep(1000);
        lines = log.texts();
        CHILD_CHECK(lines.size() > 3 && lines[0] == me + "Show task context by signal ...: pid=" +
                    std::to_string(getpid()) + ", tid=" + std::to_string(target.load()) + ".");
        CHILD_CHECK(find(lines, t + "start of stack of general fault_handler() is") != std::string::npos);
        CHILD_CHECK(find(lines, "sig = [61], SIGTASKTRACK") != std::string::npos);
        row = find(lines, " dump_test_spin_outer+0x");
        CHILD_CHECK(row != std::string::npos && lines[row].back() == ' ');
        g_spin = 0;
        // A thread that does not exist.
        log.clear();
        tovi_thread_dump_thread_stack(999999);
        CHILD_CHECK(log.texts(3) == std::vector<std::string>{"Syscall for register failed -1."});
        return "";
    });
    EXPECT_EQ(report, "");
}

// A made-up stack of frame records: rows for return addresses, "???" off the
// chain, the end after the chain reaches start_thread, the range cut at the next
// page after an off-chain start_thread once the chain is behind; unreadable pages.
TEST(ThreadDump, CallTraceStopRules)
{
    tovi_symbol_init();
    LogCapture log;
    alignas(4096) static uint64_t w[1024];
    auto at = [](int i) { return reinterpret_cast<uint64_t>(&w[i]); };
    auto ret = [](void (*fn)()) { return reinterpret_cast<uint64_t>(fn) + 4; };
    auto outer = reinterpret_cast<void (*)()>(dump_test_spin_caller);
    struct Case {
        std::vector<std::pair<int, uint64_t>> words;
        int fp;
        std::vector<std::string> rows;  // function and mark of each row
    } cases[] = {
        {{{2, at(6)}, {3, ret(outer)}, {5, ret(dump_test_spin)}, {6, at(10)}, {7, ret(start_thread)}, {11, ret(outer)}},
         2, {"dump_test_spin_caller+0x4 ", "dump_test_spin+0x4 ???", "start_thread+0x4 "}},
        {{{0, 0}, {1, ret(outer)}, {3, ret(start_thread)}, {300, ret(dump_test_spin)}, {600, ret(outer)}},
         0, {"dump_test_spin_caller+0x4 ", "start_thread+0x4 ???", "dump_test_spin+0x4 ???"}},
    };
    for (const Case &c : cases) {
        std::fill(std::begin(w), std::end(w), 0);
        for (auto [i, v] : c.words)
            w[i] = v;
        log.clear();
        tovi::thrd::dump::call_trace(9, at(0), at(c.fp), at(0), at(1024));
        auto lines = log.texts();
        ASSERT_EQ(lines.size(), c.rows.size() + 3);
        for (size_t i = 0; i < c.rows.size(); ++i)
            EXPECT_EQ(lines[2 + i].substr(lines[2 + i].size() - c.rows[i].size()), c.rows[i]) << lines[2 + i];
        EXPECT_EQ(lines.back(), "<9>dump_stack info Success");
    }
    auto *m = static_cast<uint64_t *>(mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(m + 512, 4096, PROT_READ | PROT_WRITE), m[600] = ret(outer), log.clear();
    tovi::thrd::dump::call_trace(9, uint64_t(m), 0, uint64_t(m), uint64_t(m + 1024));
    EXPECT_TRUE(log.texts().size() == 4 && log.texts()[2].ends_with("dump_test_spin_caller+0x4 ???"));
    munmap(m, 8192);
}

TEST(ThreadDump, HexDumpCollapsesZeroLines)
{
    LogCapture log;
    alignas(32) static uint64_t words[20] = {1, 2, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
    const auto base = reinterpret_cast<uint64_t>(words);
    tovi_thread_dump_full_stack(SIGUSR2, base, 7, base, base + sizeof words);  // dump-only: nothing
    tovi_thread_dump_full_stack(SIGSEGV, base + 64, 7, base, base + sizeof words);
    char line[3][96];
    snprintf(line[0], sizeof line[0], "<7>%16p: %016lx %016lx %016lx %016lx", static_cast<void *>(words), 1UL, 2UL, 3UL, 4UL);
    snprintf(line[1], sizeof line[1], "<7>%16p: %016lx ...", static_cast<void *>(words + 4), 0UL);
    snprintf(line[2], sizeof line[2], "<7>%16p: %016lx %016lx %016lx %016lx", static_cast<void *>(words + 16), 0UL, 0UL, 0UL, 5UL);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{line[0], line[1], line[2]}));
}

TEST(ThreadDump, BacktraceSkipsTheAskedFrames)
{
    LogCapture log;
    tovi_symbol_init();
    for (auto [skip, first] :
         {std::pair{-3, "dump_test_skip+0x"}, {0, "dump_test_skip+0x"}, {1, "dump_test_skip_caller+0x"}}) {
        log.clear();
        dump_test_skip_caller(skip);
        auto lines = log.texts();
        ASSERT_TRUE(lines.size() >= 2 && lines[0].find("<" + std::to_string(tid()) + ">Start dump stack from 0x") == 0);
        EXPECT_NE(lines[1].find(std::string(" func=") + first), std::string::npos) << skip << ": " << lines[1];
    }
}

// Signal 59 appends the tag and a backtrace to the process's block-stack
// file (in a private mount namespace, so the host's /var/log is untouched).
TEST(ThreadDump, BlockStackFileCarriesTheTag)
{
    std::string report = tovi::test::report_from_child([]() -> std::string {
        const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return "";  // no namespaces here: nothing to check
        CHILD_CHECK(tovi::test::write_file("/proc/self/setgroups", "deny") &&
                    tovi::test::write_file("/proc/self/uid_map", "0 " + uid + " 1") &&
                    tovi::test::write_file("/proc/self/gid_map", "0 " + gid + " 1"));
        CHILD_CHECK(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
        CHILD_CHECK(mount("tmpfs", "/var/log", "tmpfs", 0, nullptr) == 0 && mkdir("/var/log/dr", 0755) == 0);
        LogCapture log;
        dump_signal_init();
        dump_thread_stack_sig_roc(getpid(), tid());
        char name[16] = {};
        tovi_get_process_name(name);
        std::string file = tovi::test::read_file("/var/log/dr/block-stack-" + std::string(name) + "-" + std::to_string(tid()));
        const std::string tag = g_tag_buf;
        CHILD_CHECK(tag.rfind("dump_time:dump_time:", 0) == 0 && tag.back() == '\n');
        CHILD_CHECK(file.rfind("---" + tag + "---\n", 0) == 0 && file.find("dump_stack_by_sig") != std::string::npos);
        auto texts = log.texts(6);
        CHILD_CHECK(texts.size() == 2 && log.records()[0].module == 999 &&
                    texts[0] == "Show backtrace pid=" + std::to_string(getpid()) + ", tid=" + std::to_string(tid()) + ", " + tag);
        return "";
    });
    EXPECT_EQ(report, "");
}

TEST(ThreadDump, ThreadStatusFromTheCompanion)
{
    LogCapture log;
    tovi_thrd_status_s st{};
    EXPECT_TRUE(tovi_thrd_getstatus(tid(), &st) == 0 && st.tid == tid() && st.state == 'R');
    EXPECT_EQ(tovi_thrd_getstatus(999999, &st), TOVI_ERR);
    EXPECT_EQ(tovi_thrd_dump_cpu_stack_knl(100000), TOVI_ERR);
    EXPECT_EQ(log.texts(3), (std::vector<std::string>{"Tovi syscall for thrd_getstatus failed.",
                                                      "Tovi syscall for cur_cpu_thrd_getstatus failed."}));
}

}  // namespace
