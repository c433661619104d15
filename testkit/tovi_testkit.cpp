// The test kit: a manual processor counter, the timer wheel and the work
// queue driven from the test's thread, and the logging interface kept in
// memory. See tovi_testkit.h.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <unistd.h>
#include <mutex>
#include <string>
#include <vector>

#include "tovi_hr_timer.hpp"
#include "tovi_list.hpp"
#include "tovi_schedwork.hpp"
#include "tovi_testkit.h"
#include "tovi_time.h"
#include "tovi_timer.hpp"
#include "vrlog.h"

namespace {

constexpr uint64_t kNsPerMs = 1000000;
constexpr uint64_t kNsPerSec = 1000000000;

// Relaxed: the clock is moved by the test thread only; library threads the
// test may still start read it without ordering anything else by it.
std::atomic<uint64_t> g_now_ns{0};
// Set by the first tovi_testkit_start that succeeds: before it the timer
// lists and the work queue are not built, and driving them would crash.
std::atomic<bool> g_started{false};

bool started(const char *caller)
{
    if (g_started.load(std::memory_order_acquire))
        return true;
    std::fprintf(stderr, "%s: the test kit is not started: call tovi_testkit_start first and check that it returns 0\n",
                 caller);
    return false;
}

std::mutex g_log_mutex;
// A deque: lines kept later never move the earlier ones, so a pointer the
// test holds stays valid (a short line lives inside its string object).
std::deque<std::string> g_log;

void keep(std::string line)
{
    std::lock_guard<std::mutex> guard(g_log_mutex);
    g_log.push_back(std::move(line));
}

std::string format(const char *fmt, va_list ap)
{
    va_list copy;
    va_copy(copy, ap);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(text.data(), text.size() + 1, fmt, ap);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

// The high-resolution timers' clock: the same test clock.
int hr_clock(timespec *now)
{
    const uint64_t ns = g_now_ns.load(std::memory_order_relaxed);
    now->tv_sec = static_cast<time_t>(ns / kNsPerSec);
    now->tv_nsec = static_cast<long>(ns % kNsPerSec);
    return 0;
}

// Fires the high-resolution timers due by `until` ns in expiry order, the
// clock reading each one's expiry while its callback runs.
void fire_hr_timers(uint64_t until)
{
    tovi_timer_time_s at{};
    while (tovi::timer::hr::next_expiry(&at)) {
        const uint64_t due = static_cast<uint64_t>(at.sec) * kNsPerSec + static_cast<uint64_t>(at.nsec);
        if (due > until)
            return;
        if (due > g_now_ns.load(std::memory_order_relaxed))
            g_now_ns.store(due, std::memory_order_relaxed);
        timespec now{};
        hr_clock(&now);
        tovi::timer::hr::fire_due(now);
    }
}

bool read_at(int fd, void *buf, size_t size, uint64_t offset)
{
    return pread(fd, buf, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

// The names of the program's undefined dynamic symbols: the calls it makes
// into shared libraries. Empty when its file cannot be read.
std::vector<std::string> undefined_dynamic_symbols()
{
    std::vector<std::string> out;
    const int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return out;
    Elf64_Ehdr eh{};
    std::vector<Elf64_Shdr> sh;
    if (read_at(fd, &eh, sizeof eh, 0) && eh.e_shentsize == sizeof(Elf64_Shdr)) {
        sh.resize(eh.e_shnum);
        if (!read_at(fd, sh.data(), sh.size() * sizeof(Elf64_Shdr), eh.e_shoff))
            sh.clear();
    }
    for (const Elf64_Shdr &dynsym : sh) {
        if (dynsym.sh_type != SHT_DYNSYM || dynsym.sh_link >= sh.size())
            continue;
        std::vector<Elf64_Sym> syms(dynsym.sh_size / sizeof(Elf64_Sym));
        std::string names(sh[dynsym.sh_link].sh_size, '\0');
        if (!read_at(fd, syms.data(), syms.size() * sizeof(Elf64_Sym), dynsym.sh_offset) ||
            !read_at(fd, names.data(), names.size(), sh[dynsym.sh_link].sh_offset))
            break;
        for (const Elf64_Sym &sym : syms)
            if (sym.st_shndx == SHN_UNDEF && sym.st_name != 0 && sym.st_name < names.size())
                out.emplace_back(names.c_str() + sym.st_name);
    }
    close(fd);
    return out;
}

// The first of `calls` that the loaded shared library `lib` serves, or "".
std::string called_in_shared_library(const char *lib, const std::vector<std::string> &calls)
{
    void *handle = dlopen(lib, RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr)
        return {};
    std::string found;
    for (const std::string &name : calls) {
        void *addr = dlsym(handle, name.c_str());
        Dl_info info{};
        if (addr != nullptr && dladdr(addr, &info) != 0 && info.dli_fname != nullptr &&
            std::strstr(info.dli_fname, lib) != nullptr) {
            found = name;
            break;
        }
    }
    dlclose(handle);
    return found;
}

// The shared libraries the kit stands in for. A test linked with libtovi or
// libvrlog before the kit has calls that reach the shared copy, with its own
// clock, threads and logging: the test would pass or fail for reasons of its
// own. Such a call is an undefined symbol of the program's dynamic symbol
// table that the shared library defines. (Linked after the kit, the shared
// library may be loaded but is never called, which is harmless.)
bool shared_library_called()
{
    const std::vector<std::string> calls = undefined_dynamic_symbols();
    for (const char *lib : {"libtovi.so.1", "libvrlog.so.1"}) {
        const std::string name = called_in_shared_library(lib, calls);
        if (!name.empty()) {
            std::fprintf(stderr,
                         "tovi_testkit_start: the test program calls %s in %s instead of the kit's: link the test "
                         "with libtovi-testkit instead of libtovi and libvrlog (pkg-config --libs libtovi-testkit, "
                         "or tovi::testkit), or name the kit first\n",
                         name.c_str(), lib);
            return true;
        }
    }
    return false;
}

}  // namespace

namespace tovi::arch {

uint64_t testkit_counter_read()
{
    return g_now_ns.load(std::memory_order_relaxed);
}

uint64_t testkit_counter_frequency()
{
    return 1000000000ULL;  // one tick a nanosecond
}

}  // namespace tovi::arch

extern "C" {

int tovi_testkit_start(void)
{
    tovi_testkit_log_clear();
    if (shared_library_called())
        return -1;
    setenv("TOVI_COMPANION", "user", 0);
    tovi::schedwork::SchedWorkRoot &work = tovi::schedwork::root();
    pthread_mutex_lock(&work.initMutex);
    if (__atomic_load_n(&work.inited, __ATOMIC_ACQUIRE) == 0)
        tovi::schedwork::root_setup(work);
    // "Started" with no worker: tovi_sched_add_work queues and the kit drains.
    // Again after tovi_destory, which stopped the pool.
    __atomic_store_n(&work.started, 1u, __ATOMIC_RELEASE);
    __atomic_store_n(&work.inited, 1u, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&work.initMutex);
    if (tovi::timer::hr::start_without_thread(hr_clock) != 0 || tovi::timer::start_without_thread() != 0)
        return -1;
    g_started.store(true, std::memory_order_release);
    return 0;
}

uint64_t tovi_testkit_now_ns(void)
{
    return g_now_ns.load(std::memory_order_relaxed);
}

namespace {

uint32_t run_work()
{
    tovi::schedwork::SchedWorkRoot &r = tovi::schedwork::root();
    uint32_t ran = 0;
    for (;;) {
        tovi_spinlock_lock(&r.queueLock.lock);
        tovi_list_head_s *head = &r.queue.head;
        if (tovi::list::empty(head)) {
            tovi_spinlock_unlock(&r.queueLock.lock);
            return ran;
        }
        tovi_list_head_s *first = head->next;
        tovi::list::del(first);  // poisoned: idle again, as a worker leaves it
        tovi_spinlock_unlock(&r.queueLock.lock);
        auto *work = tovi::list::entry<tovi_sched_work>(first, offsetof(tovi_sched_work, entry));
        if (work->process != nullptr)
            work->process(work);
        ++ran;
    }
}

}  // namespace

uint32_t tovi_testkit_run_work(void)
{
    return started("tovi_testkit_run_work") ? run_work() : 0;
}

uint32_t tovi_testkit_advance_ms(uint64_t ms)
{
    uint32_t ran = 0;
    if (!started("tovi_testkit_advance_ms"))
        return 0;
    for (uint64_t i = 0; i < ms; ++i) {
        const uint64_t now = (g_now_ns.load(std::memory_order_relaxed) / kNsPerMs + 1) * kNsPerMs;
        fire_hr_timers(now);
        g_now_ns.store(now, std::memory_order_relaxed);
        tovi::timer::run_timers(tovi::timer::process_root(), now / kNsPerMs);
        ran += run_work();
    }
    return ran;
}

uint32_t tovi_testkit_log_count(void)
{
    std::lock_guard<std::mutex> guard(g_log_mutex);
    return static_cast<uint32_t>(g_log.size());
}

const char *tovi_testkit_log_line(uint32_t index)
{
    std::lock_guard<std::mutex> guard(g_log_mutex);
    return index < g_log.size() ? g_log[index].c_str() : nullptr;
}

int32_t tovi_testkit_log_find(const char *text)
{
    if (text == nullptr)
        return -1;
    std::lock_guard<std::mutex> guard(g_log_mutex);
    for (size_t i = 0; i < g_log.size(); ++i)
        if (g_log[i].find(text) != std::string::npos)
            return static_cast<int32_t>(i);
    return -1;
}

void tovi_testkit_log_clear(void)
{
    std::lock_guard<std::mutex> guard(g_log_mutex);
    g_log.clear();
}

// The logging interface the library calls, kept in memory.

int vrlog_init(unsigned int, const char *)
{
    return 0;
}

int vrlog_destroy(void)
{
    return 0;
}

int vrlog_loglevel_set(unsigned int, unsigned int)
{
    return 0;
}

int vrlog_loglevel_get(unsigned int)
{
    return 7;
}

int vrlog_get_group_id(const char *)
{
    return 0;
}

int vrlog_ratelimit_set(int, unsigned int, unsigned int)
{
    return 0;
}

int vrlog_level_check(unsigned int, unsigned int)
{
    return 0;
}

int vrlog(unsigned int, unsigned int level, const char *file, unsigned int, const char *func, unsigned int,
          const char *fmt, ...)
{
    // As the logging library: nothing for a NULL format, "?" for a NULL
    // file or function name.
    if (fmt == nullptr)
        return 0;
    va_list ap;
    va_start(ap, fmt);
    std::string text = format(fmt, ap);
    va_end(ap);
    keep(std::to_string(level) + " " + (file != nullptr ? file : "?") + ":" + (func != nullptr ? func : "?") + ": " +
         text);
    return static_cast<int>(text.size()) + 1;
}

int vrlog_vraw(const char *fmt, va_list ap)
{
    if (fmt == nullptr)
        return -1;
    std::string text = format(fmt, ap);
    keep("raw: " + text);
    return static_cast<int>(text.size()) + 1;
}

int vrlog_original(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int n = vrlog_vraw(fmt, ap);
    va_end(ap);
    return n;
}

}  // extern "C"
