// CPU usage sampled machine-wide into shared memory, and the CPU and memory
// counts.
//
// The arrays are mapped once per process and stay mapped. The sampler's
// lock is a POSIX record lock, which the kernel drops when the process
// closes any descriptor of the locked file: nothing in this process opens
// "/dev/shm/SYSINFO_PUICPUUSAGE_NOROOT" again once the sampler thread has
// started (the arrays are mapped before it starts, and only once).
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "tovi_cfg.hpp"
#include "tovi_fileops.h"
#define TOVI_LOG_SOURCE "tovi_sysinfo"
#include "tovi_log.hpp"
#include "tovi_sched.h"
#include "tovi_shm.h"
#include "tovi_sysinfo.h"
#include "tovi_sysinfo.hpp"
#include "tovi_thread.h"

namespace tovi::sysinfo {
namespace {

using tovi::log::kError;

constexpr uint32_t kSamplerStrategy = 5;
constexpr uint32_t kLineBytes = 160;

std::mutex g_init_mutex;
bool g_inited;            // under g_init_mutex
bool g_sampler_started;   // under g_init_mutex: one sampler thread per process
std::atomic<bool> g_steal_busy{false};

// Mapped once, never unmapped; published by g_mapped (release/acquire).
uint32_t *g_puiCpuUsage;
uint64_t *g_pullCpuLastIdle;
uint64_t *g_pullCpuLastTotal;
std::atomic<bool> g_mapped{false};

std::atomic<uint32_t> g_online{0};
std::atomic<uint32_t> g_configured{0};

uint32_t configured()
{
    uint32_t n = g_configured.load(std::memory_order_relaxed);
    if (n == 0) {
        long got = sysconf(_SC_NPROCESSORS_CONF);
        n = got > 0 ? static_cast<uint32_t>(got) : 0;
        g_configured.store(n, std::memory_order_relaxed);
    }
    return n;
}

// Creates the array exclusively, or attaches the one another process made.
// Attaching resizes the object to the size asked for, so it asks for no
// less than the object has: a process that counts fewer CPUs (started after
// one was removed) must not cut the array under a sampler that writes all
// of it, which would then die of SIGBUS.
void *create_or_attach(const char *name, size_t bytes)
{
    void *p = tovi_shm_create_ext(name, O_CREAT | O_EXCL | O_RDWR, 0660, bytes);
    if (p != nullptr)
        return p;
    struct stat st {};
    if (int fd = shm_open(name, O_RDONLY | O_CLOEXEC, 0); fd >= 0) {
        if (fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) > bytes)
            bytes = static_cast<size_t>(st.st_size);
        close(fd);
    }
    return tovi_shm_create_ext(name, O_RDWR, 0660, bytes);
}

bool map_arrays()
{
    if (g_mapped.load(std::memory_order_relaxed))
        return true;
    const size_t elements = configured() + 1u;
    g_puiCpuUsage = static_cast<uint32_t *>(create_or_attach(kUsageName, elements * sizeof(uint32_t)));
    if (g_puiCpuUsage == nullptr) {
        TOVI_LOG(kError, "Tovi sysinfo alloc g_puiCpuUsage mem failed.");
        return false;
    }
    g_pullCpuLastIdle = static_cast<uint64_t *>(create_or_attach(kIdleName, elements * sizeof(uint64_t)));
    if (g_pullCpuLastIdle == nullptr) {
        TOVI_LOG(kError, "Tovi sysinfo alloc g_pullCpuLastIdle mem failed.");
        return false;
    }
    g_pullCpuLastTotal = static_cast<uint64_t *>(create_or_attach(kTotalName, elements * sizeof(uint64_t)));
    if (g_pullCpuLastTotal == nullptr) {
        TOVI_LOG(kError, "Tovi sysinfo alloc g_pullCpuLastTotal mem failed.");
        return false;
    }
    g_mapped.store(true, std::memory_order_release);  // pairs with the readers' acquire in usage_array()
    return true;
}

uint32_t *usage_array()
{
    return g_mapped.load(std::memory_order_acquire) ? g_puiCpuUsage : nullptr;
}

// Element `i` from a sample's idle and total ticks. Other processes read the
// arrays at any time: every element is one aligned word, stored whole.
void update_element(uint32_t i, uint64_t idle, uint64_t total)
{
    uint64_t last_total = __atomic_load_n(&g_pullCpuLastTotal[i], __ATOMIC_RELAXED);
    uint64_t last_idle = __atomic_load_n(&g_pullCpuLastIdle[i], __ATOMIC_RELAXED);
    if (total != last_total) {
        uint64_t d_total = total - last_total, d_idle = idle - last_idle;
        // Counters that went backwards (a CPU brought back online) give a
        // nonsense delta: keep the percentage within 0 ... 100.
        uint64_t busy = d_idle <= d_total ? (d_total - d_idle) * 100 / d_total : 0;
        __atomic_store_n(&g_puiCpuUsage[i], static_cast<uint32_t>(busy > 100 ? 100 : busy), __ATOMIC_RELAXED);
    }
    __atomic_store_n(&g_pullCpuLastIdle[i], idle, __ATOMIC_RELAXED);
    __atomic_store_n(&g_pullCpuLastTotal[i], total, __ATOMIC_RELAXED);
}

// Sums the fields of a CPU line: the first seven, plus steal (the eighth)
// when it counts as busy.
uint64_t total_of(const unsigned long *v, bool steal_busy)
{
    uint64_t total = 0;
    for (int k = 0; k < 7; ++k)
        total += v[k];
    return steal_busy ? total + v[7] : total;
}

// One line of at most kLineBytes - 1 characters; the rest of a longer one is
// passed over, so that its tail is not taken for the next line (which would
// end the sample before the CPU lines).
bool read_line(char *line, FILE *f)
{
    if (std::fgets(line, kLineBytes, f) == nullptr)
        return false;
    if (std::strchr(line, '\n') == nullptr)
        for (int c = std::getc(f); c != EOF && c != '\n'; c = std::getc(f)) {
        }
    return true;
}

void *calc_cpu_usage_thrd(void *)
{
    tovi_set_process_name("tovi_sysinfo");
    int fd = open(kSamplerLock, O_RDWR | O_CREAT | O_CLOEXEC, 0660);
    if (fd < 0)
        TOVI_LOG(kError, "open file(%s) failed, errno is %d.", kSamplerLock, errno);
    // Waits while another process samples; takes over when it ends.
    if (fd >= 0 && !lock_whole(fd)) {
        TOVI_LOG(kError, "lock file(%s) failed, errno is %d.", kSamplerLock, errno);
        close(fd);
        fd = -1;
    }
    if (fd < 0) {
        TOVI_LOG(kError, "sysinfo lock failed.");
        return nullptr;
    }
    tovi_setCurThreadStrategy(kSamplerStrategy);
    for (;;) {
        update_all_cpu_usage();
        tovi_10msleep(100);
    }
}

}  // namespace

bool lock_whole(int fd)
{
    // Record locks belong to the process, not the thread, so the kernel's
    // deadlock check sees a cycle that is none when one thread here waits
    // for a process that waits for a lock another thread here holds (our
    // sampler waiting while our start-up holds the topology lock). That
    // wait ends on its own: ask again rather than give up.
    const tovi_lock_req_s whole{TOVI_LOCK_EXCLUSIVE, 0, 0};
    for (;;) {
        if (tovi_lockfile(fd, &whole) == 0)
            return true;
        if (errno != EDEADLK)
            return false;
        tovi_10msleep(1);
    }
}

bool steal_is_busy()
{
    return g_steal_busy.load(std::memory_order_relaxed);
}

void update_all_cpu_usage()
{
    const uint32_t n = configured();
    if (usage_array() == nullptr)
        return;
    FILE *f = std::fopen(kStatFile, "re");
    if (f == nullptr) {
        TOVI_LOG(kError, "Open cpu stat file %s failed.", kStatFile);
        return;
    }
    const bool steal_busy = steal_is_busy();
    char line[kLineBytes];
    unsigned long v[8] = {};
    if (!read_line(line, f)) {
        TOVI_LOG(kError, "Get CPU stat (%s) file failed.", kStatFile);
    } else if (std::sscanf(line, "cpu %lu %lu %lu %lu %lu %lu %lu %lu", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5],
                           &v[6], &v[7]) >= 4) {
        update_element(0, v[3], total_of(v, steal_busy));
        for (uint32_t seen = 0; seen < n && read_line(line, f); ++seen) {
            unsigned cpu = 0;
            unsigned long w[8] = {};
            if (std::sscanf(line, "cpu%u %lu %lu %lu %lu %lu %lu %lu %lu", &cpu, &w[0], &w[1], &w[2], &w[3], &w[4],
                            &w[5], &w[6], &w[7]) < 5)
                break;
            if (cpu < n)
                update_element(cpu + 1, w[3], total_of(w, steal_busy));
        }
    }
    std::fclose(f);
}

}  // namespace tovi::sysinfo

using namespace tovi::sysinfo;

extern "C" {

int32_t sysinfo_init(void)
{
    std::lock_guard<std::mutex> guard(g_init_mutex);
    if (g_inited)
        return 0;
    if (!map_arrays())
        return -1;
    char value[32];
    bool sample = tovi::cfg::library_setting("SYSINFO_CPUUSAGE_THREAD_FLAG", value, sizeof value) != 0 ||
                  std::strtol(value, nullptr, 10) != 0;
    g_steal_busy.store(tovi::cfg::library_setting("SYSINFO_CPUUSAGE_STEAL_BUSY", value, sizeof value) == 0 &&
                           std::strtol(value, nullptr, 10) == 1,
                       std::memory_order_relaxed);
    if (sample && !g_sampler_started) {
        if (create_thread_nopreempt_raw(calc_cpu_usage_thrd, nullptr, nullptr) != 0)
            return -1;
        g_sampler_started = true;
    }
    g_inited = true;
    return 0;
}

void sysinfo_exit(void)
{
    std::lock_guard<std::mutex> guard(g_init_mutex);
    g_inited = false;
}

uint32_t tovi_sysinfo_cpu_num(void)
{
    uint32_t n = g_online.load(std::memory_order_relaxed);
    if (n != 0)
        return n;
    long got = sysconf(_SC_NPROCESSORS_ONLN);
    if (got <= 0) {
        TOVI_LOG(kError, "tovi_sysinfo getting online cpu num failed errno=%d.", errno);
        return 0;
    }
    g_online.store(static_cast<uint32_t>(got), std::memory_order_relaxed);
    return static_cast<uint32_t>(got);
}

uint32_t tovi_sysinfo_present_cpu_num(void)
{
    return configured();
}

uint32_t tovi_sysinfo_cpu_usage(void)
{
    const uint32_t *usage = usage_array();
    return usage != nullptr ? __atomic_load_n(&usage[0], __ATOMIC_RELAXED) : 0;
}

uint32_t tovi_sysinfo_core_usage(const uint32_t *cpu)
{
    const uint32_t *usage = usage_array();
    if (usage == nullptr || cpu == nullptr || *cpu >= configured())
        return 0;
    return __atomic_load_n(&usage[*cpu + 1], __ATOMIC_RELAXED);
}

int32_t tovi_get_cpu_usage_array(uint32_t *out, uint32_t count)
{
    if (out == nullptr) {
        TOVI_LOG(kError, "tovi_get_cpu_usage_array: data is NULL");
        return -1;
    }
    const uint32_t *usage = usage_array();
    if (usage == nullptr)
        return -1;
    const uint32_t n = count < configured() ? count : configured();
    for (uint32_t i = 0; i < n; ++i)  // word by word: the sampler may be storing
        out[i] = __atomic_load_n(&usage[i + 1], __ATOMIC_RELAXED);
    return 0;
}

uint32_t tovi_sysinfo_mem_usage(void)
{
    struct sysinfo info {};
    if (sysinfo(&info) != 0 || info.totalram == 0)
        return 0;
    return static_cast<uint32_t>((info.totalram - info.freeram) * 100 / info.totalram);
}

}  // extern "C"
