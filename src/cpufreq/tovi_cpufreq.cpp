// CPU frequency: the table read from the cpufreq files, the governor and
// maximum changes by shell command, the whole-machine steps through the
// companion. Only the table's one-time fill locks; the commands are
// independent, and two callers changing one CPU race in the kernel.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <safe_mem_lib.h>

#include "tovi_companion.hpp"
#include "tovi_cpufreq.h"
#include "tovi_cpufreq.hpp"
#include "tovi_cpumask.h"
#define TOVI_LOG_SOURCE "tovi_cpufreq"
#include "tovi_log.hpp"
#include "tovi_process.h"
#include "tovi_sysinfo.h"

namespace tovi::cpufreq {
namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr const char *kCpuFile = "/sys/devices/system/cpu/cpu%u/cpufreq/%s";
constexpr const char *kAvailable = "scaling_available_frequencies";
constexpr const char *kGovernor = "scaling_governor";
constexpr const char *kMaxFreq = "scaling_max_freq";
constexpr const char *kFallbackFreqs = "1200000";
constexpr const char *kFallbackGovernor = "ondemand";
constexpr int32_t kEinval = -22;

std::mutex g_init_mutex;
bool g_done;  // under g_init_mutex; the table and counts are constant once it is set
Entry g_table[kMaxCpus];
uint32_t g_packages;
uint32_t g_logical;

// The online CPUs, ascending, into `cpus` (kMaxCpus entries); their number.
// The masks are loaded here too, so callers that come before the library's
// start see the same CPUs as after it; masks that cannot be loaded (logged
// there) leave no CPU to act on.
uint32_t online_cpus(uint32_t *cpus)
{
    static_assert(kMaxCpus == TOVI_CPUMASK_BITS, "one table entry per CPU a mask names");
    if (cpumask_init() != 0)
        return 0;
    uint32_t count = 0;
    for (uint32_t cpu = tovi_first_cpu(cpu_online_mask); cpu < kMaxCpus; cpu = tovi_next_cpu(cpu, cpu_online_mask))
        cpus[count++] = cpu;
    return count;
}

// First line of a CPU's cpufreq file (at most 255 characters) without its
// line feed. Missing files are common (virtual machines, CPUs without
// scaling), so they are reported at level 6 through the rate limiter.
bool read_cpu_file(uint32_t cpu, const char *name, char *out, size_t size)
{
    char path[128];
    std::snprintf(path, sizeof path, kCpuFile, cpu, name);
    FILE *f = std::fopen(path, "re");
    bool ok = f != nullptr && std::fgets(out, static_cast<int>(size), f) != nullptr;
    if (f != nullptr)
        std::fclose(f);
    if (!ok) {
        TOVI_LOG_RATELIMITED(kInfo, "Load cpu%d %s file fail!", static_cast<int>(cpu), name);
        return false;
    }
    out[std::strcspn(out, "\n")] = '\0';
    return true;
}

// Parses a blank-separated frequency list into the entry, highest first.
// More than the entry holds: the highest kMaxFreqs - 1 and the lowest are
// kept, so the entry's range stays the CPU's.
void fill_frequencies(Entry &e, char *list)
{
    uint32_t all[160];
    uint32_t n = 0;
    for (char *save = nullptr, *tok = strtok_r(list, " \t\r\n", &save); tok != nullptr && n < 160;
         tok = strtok_r(nullptr, " \t\r\n", &save))
        all[n++] = static_cast<uint32_t>(std::strtoul(tok, nullptr, 10));
    std::sort(all, all + n, [](uint32_t a, uint32_t b) { return a > b; });
    if (n > kMaxFreqs) {
        all[kMaxFreqs - 1] = all[n - 1];
        n = kMaxFreqs;
    }
    std::copy(all, all + n, e.freqs);
    e.highest = n > 0 ? all[0] : 0;
    e.lowest = n > 0 ? all[n - 1] : 0;
}

bool fill_entry(uint32_t cpu)
{
    Entry &e = g_table[cpu];
    e = Entry{};
    char line[256];
    if (!read_cpu_file(cpu, kAvailable, line, sizeof line))
        std::snprintf(line, sizeof line, "%s", kFallbackFreqs);
    fill_frequencies(e, line);
    if (!read_cpu_file(cpu, kGovernor, line, sizeof line))
        std::snprintf(line, sizeof line, "%s", kFallbackGovernor);
    size_t len = std::min(std::strlen(line), sizeof e.governor);
    if (errno_t ret = memcpy_s(e.governor, sizeof e.governor, line, len); ret != 0) {
        TOVI_LOG_RATELIMITED(kError, "memcpy_sp secure function failed, ret<%d>.", static_cast<int>(ret));
        return false;
    }
    e.governor[sizeof e.governor - 1] = '\0';
    return true;
}

// The two CPUs of a package that stand for it: the first and the middle.
// False for a package the machine does not have, or before the counts are
// known: package x per-package would wrap in 32 bits or come out as CPU 0,
// and a command must not reach a real CPU for a nonsense package.
bool package_cpus(uint32_t package, uint32_t *first, uint32_t *middle)
{
    std::lock_guard<std::mutex> guard(g_init_mutex);  // the counts are written by a failed init too
    const uint32_t per = g_done && g_packages != 0 ? g_logical / g_packages : 0;
    if (per == 0 || package >= g_packages)
        return false;
    *first = package * per;  // below g_logical: no wrap
    *middle = *first + per / 2;
    return true;
}

bool read_max(uint32_t cpu, uint32_t *khz)
{
    char line[256];
    if (!read_cpu_file(cpu, kMaxFreq, line, sizeof line))
        return false;
    *khz = static_cast<uint32_t>(std::strtoul(line, nullptr, 10));
    return true;
}

// A whole-machine step: the kernel writes its result into `result`.
int32_t machine_step(uint32_t op, int32_t result)
{
    long ret = tovi::companion::syscall(op, reinterpret_cast<long>(&result));
    if (ret != 0) {
        TOVI_LOG(kError, "Syscall failed %d.", static_cast<int>(ret));
        return -1;
    }
    return result;
}

}  // namespace

const Entry *entry(uint32_t cpu)
{
    return cpu < kMaxCpus ? &g_table[cpu] : nullptr;
}

}  // namespace tovi::cpufreq

using namespace tovi::cpufreq;
namespace companion = tovi::companion;

extern "C" {

int32_t tovi_cpufreq_init(void)
{
    std::lock_guard<std::mutex> guard(g_init_mutex);
    if (g_done)
        return 0;
    if (tovi_get_phycpu_num(&g_packages) != 0) {
        TOVI_LOG(kError, "Get phycpu nums fail.");
        return -1;
    }
    if (tovi_get_logic_cpu_num(&g_logical) != 0) {
        TOVI_LOG(kError, "Get logic cpu nums fail.");
        return -1;
    }
    uint32_t cpus[kMaxCpus];
    for (uint32_t i = 0, n = online_cpus(cpus); i < n; ++i)
        if (!fill_entry(cpus[i]))
            return -1;
    g_done = true;
    return 0;
}

int32_t tovi_cpufreq_set_governor(uint32_t cpu, const char *governor)
{
    if (governor == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, cpuid(%u), ip_addr(%p).", cpu, static_cast<const void *>(governor));
        return kEinval;
    }
    if (isDangerousCmd(governor, nullptr) != 0) {
        TOVI_LOG(kError, "Param error: v_pszGovernor(%s) is dangerous.", governor);
        return -1;
    }
    char cmd[256];
    int len = std::snprintf(cmd, sizeof cmd, "echo %s > /sys/devices/system/cpu/cpu%u/cpufreq/%s", governor, cpu, kGovernor);
    if (len < 0 || static_cast<size_t>(len) >= sizeof cmd)
        return -1;  // cut short, the redirection would name another file
    TOVI_LOG(kInfo, "Cpufreq governor(%s), v_pszGovernor(%d), file(%s).", governor, static_cast<int>(cpu), kGovernor);
    return tovi_system_s(cmd, ">");
}

int32_t tovi_set_cpufreq_switch(uint32_t type)
{
    static const char *const kGovernors[] = {"performance", "ondemand"};
    if (type >= sizeof kGovernors / sizeof kGovernors[0]) {
        TOVI_LOG(kError, "cpufreq: parameter is invalid, type is %u.", type);
        return kEinval;
    }
    uint32_t cpus[kMaxCpus];
    for (uint32_t i = 0, n = online_cpus(cpus); i < n; ++i) {
        if (int32_t ret = tovi_cpufreq_set_governor(cpus[i], kGovernors[type]); ret != 0) {
            TOVI_LOG(kError, "Set cpu%d cpufreq governor(%s) fail.", static_cast<int>(cpus[i]), kGovernors[type]);
            return ret;
        }
    }
    return 0;
}

uint32_t tovi_cpufreq_quick_get_max(uint32_t cpu)
{
    uint32_t khz = 0;
    return cpu < kMaxCpus && read_max(cpu, &khz) ? khz : 0;
}

int32_t tovi_get_phycpu_scaling_max_freq(uint32_t package)
{
    tovi_cpufreq_init();
    uint32_t first, middle, a = 0, b = 0;
    if (!package_cpus(package, &first, &middle) || !read_max(first, &a) || !read_max(middle, &b)) {
        TOVI_LOG(kError, "Query frequency failed.");
        return -1;
    }
    return static_cast<int32_t>(std::max(a, b));
}

int32_t tovi_set_phycpu_scaling_max_freq(uint32_t package, uint32_t freq)
{
    tovi_cpufreq_init();
    uint32_t cpus[2];
    if (!package_cpus(package, &cpus[0], &cpus[1]))
        return -1;
    for (uint32_t cpu : cpus) {
        char cmd[256];
        std::snprintf(cmd, sizeof cmd, "echo %u > /sys/devices/system/cpu/cpu%u/cpufreq/%s", freq, cpu, kMaxFreq);
        if (int32_t ret = tovi_system_s(cmd, ">"); ret != 0) {
            TOVI_LOG(kError, "Set freq (%u) logic_cpuid(%u) failed, ret (%d).", freq, cpu, static_cast<int>(ret));
            return -1;
        }
    }
    return 0;
}

int32_t tovi_cpufreq_set_low_all(void)
{
    return machine_step(companion::kCmdCpufreqLowAll, -1);
}

int32_t tovi_cpufreq_set_high_all(void)
{
    return machine_step(companion::kCmdCpufreqHighAll, -1);
}

int32_t tovi_cpufreq_up_allcpu_freq_by_step(void)
{
    return machine_step(companion::kCmdCpufreqStepUp, 0);
}

int32_t tovi_cpufreq_down_allcpu_freq_by_step(void)
{
    return machine_step(companion::kCmdCpufreqStepDown, -1);
}

int32_t tovi_get_local_cpufreq(void *out)
{
    if (out == nullptr) {
        TOVI_LOG(kError, "Parameter is null.");
        return kEinval;
    }
    if (long ret = companion::syscall(companion::kCmdCpufreqLocal, reinterpret_cast<long>(out)); ret != 0) {
        TOVI_LOG(kError, "Syscall failed %d.", static_cast<int>(ret));
        return kEinval;
    }
    return 0;
}

}  // extern "C"
