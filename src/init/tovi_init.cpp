// Start-up, tear-down and the module-name table.
#include <atomic>
#include <cerrno>
#include <ctime>
#include <execinfo.h>
#include <mutex>

#include <safe_str_lib.h>

#include "tovi_affinity.h"
#include "tovi_bitop.h"
#include "tovi_cpu.h"
#include "tovi_cpumask.h"
#include "tovi_cpufreq.h"
#include "tovi_init.h"
#include "tovi_jiffies.h"
#define TOVI_LOG_SOURCE "tovi_init"
#include "tovi_log.hpp"
#include "tovi_sched.h"
#include "tovi_schedwork.h"
#include "tovi_symbol.h"
#include "tovi_sysinfo.h"
#include "tovi_thread.h"
#include "tovi_time.h"
#include "tovi_timer.h"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

// One start step. A step with a failure message is checked: a non-zero
// result ends start-up (or, when `fatal` is false, is only logged).
struct StartStep {
    uint32_t (*run)();
    const char *failure;
    bool fatal;
};

uint32_t warm_up_unwinder()
{
    tovi_glibc_init();
    return 0;
}

uint32_t start_jiffies()
{
    jiffies_Init();
    return 0;
}

uint32_t name_modules()
{
    pid_init_names();
    tovi_pid_set_name(TOVI_MODULE_ID, "KOMI");
    return 0;
}

// The start order; each module's step sits at its fixed place.
constexpr StartStep kStartSteps[] = {
    {warm_up_unwinder, nullptr, false},
    {jiffies_usr_main, "Get jiffies usr addr failed.", true},
    {start_jiffies, nullptr, false},
    {name_modules, nullptr, false},
    {tovi_thrd_setpid_accl, nullptr, false},
    {tovi_sched_init, nullptr, false},
    {[]() -> uint32_t { return sysinfo_init() == 0 ? 0u : TOVI_ERR; }, "Tovi sysinfo initialize failed.", true},
    {[]() -> uint32_t { return cpuinfo_init() == 0 ? 0u : TOVI_ERR; }, "Tovi cpuinfo initialize failed.", true},
    {[]() -> uint32_t { return sched_work_init() == 0 ? 0u : TOVI_ERR; }, "Tovi schedWork initialize failed.", true},
    {[]() -> uint32_t { return static_cast<uint32_t>(cpumask_init()); }, nullptr, false},
    {[]() -> uint32_t { return static_cast<uint32_t>(globalCpuNum_init()); }, nullptr, false},
    {[]() -> uint32_t { return tovi_cpufreq_init() == 0 ? 0u : TOVI_ERR; }, "Tovi cpufreq initialize failed.", true},
    {tovi_gettime_init, "Tovi time initialize failed.", true},
    {tovi_thrd_module_init, nullptr, false},
    {[]() -> uint32_t { return tovi_affinity_init() == 0 ? 0u : TOVI_ERR; }, "Tovi affinity initialize failed.", false},
    {[]() -> uint32_t { return tovi_timer_module_init() == 0 ? 0u : TOVI_ERR; }, "Tovi timer initialize failed.", true},
    {tovi_symbol_init, nullptr, false},
    {tovi_crc32_init, nullptr, false},
};

std::mutex g_lib_mutex;
std::atomic<uint32_t> g_lib_up{0};

// Module names: slots are single pointers, read and written without the
// table mutex (one store each); the mutex orders fill and empty.
constexpr uint32_t kBuiltinModule = TOVI_MODULE_ID;
constexpr const char *kBuiltinName = "KOMI";
std::atomic<const char *> g_names[TOVI_MODULE_NAME_COUNT];
std::atomic<uint32_t> g_names_ready{0};
std::mutex g_names_mutex;
char g_overflow_name[10];

std::mutex g_version_mutex;
std::atomic<uint32_t> g_version_taken{0};
uint64_t g_version;

// Runs the start steps in order: 0, or the failing step's result.
uint32_t run_start_steps()
{
    for (const StartStep &step : kStartSteps) {
        uint32_t ret = step.run();
        if (ret == 0 || step.failure == nullptr)
            continue;
        TOVI_LOG(kError, "%s", step.failure);
        if (step.fatal)
            return ret;
    }
    return 0;
}

}  // namespace

extern "C" {

uint32_t tovi_Init(void)
{
    if (g_lib_up.load(std::memory_order_acquire) == 1)
        return 0;
    std::lock_guard<std::mutex> guard(g_lib_mutex);
    if (g_lib_up.load(std::memory_order_relaxed) == 1)
        return 0;
    TOVI_LOG(kInfo, "Tovi init start.");
    uint32_t ret = run_start_steps();
    TOVI_LOG(kInfo, "Tovi init end ret %d.", static_cast<int>(ret));
    g_lib_up.store(ret == 0 ? 1 : 0, std::memory_order_release);
    return ret == 0 ? 0 : TOVI_ERR;
}

uint32_t tovi_destory(void)
{
    if (g_lib_up.load(std::memory_order_acquire) == 0)
        return 0;
    std::unique_lock<std::mutex> guard(g_lib_mutex);
    if (g_lib_up.load(std::memory_order_relaxed) == 0)
        return 0;
    TOVI_LOG(kInfo, "Tovi destroy start.");
    pid_destroy_names();
    sysinfo_exit();
    sched_work_destroy();
    tovi_symbol_fini();
    TOVI_LOG(kInfo, "Tovi destroy end.");
    g_lib_up.store(0, std::memory_order_release);
    return 0;
}

int tovi_glibc_init(void)
{
    void *frames[3];
    return backtrace(frames, 3);
}

int tovi_log_init(unsigned int module, const char *name)
{
    return vrlog_init(module, name);
}

int tovi_log_destroy(void)
{
    return vrlog_destroy();
}

int tovi_log_level_set(unsigned int module, unsigned int level)
{
    return vrlog_loglevel_set(module, level);
}

int tovi_log_level_get(unsigned int module)
{
    return vrlog_loglevel_get(module);
}

int tovi_ratelimit_set(const char *group, unsigned int interval_ms, unsigned int burst)
{
    return vrlog_ratelimit_set(vrlog_get_group_id(group), interval_ms, burst);
}

uint32_t tovi_mtx_init(pthread_mutex_t *mutex, uint32_t kind)
{
    static const int kTypes[] = {PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_RECURSIVE};
    if (mutex == nullptr) {
        TOVI_LOG(kError, "Mutex is NULL in %s.", __func__);
        return TOVI_ERR;
    }
    if (kind >= sizeof kTypes / sizeof kTypes[0])
        return TOVI_ERR;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, kTypes[kind]);
    int ret = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return static_cast<uint32_t>(ret);
}

int tovi_mtx_destroy(pthread_mutex_t *mutex)
{
    if (mutex == nullptr) {
        TOVI_LOG(kError, "Mutex is NULL in %s.", __func__);
        return -1;
    }
    return pthread_mutex_destroy(mutex);
}

void pid_init_names(void)
{
    std::lock_guard<std::mutex> guard(g_names_mutex);
    if (g_names_ready.load(std::memory_order_relaxed) == 1)
        return;
    for (auto &slot : g_names)
        if (slot.load(std::memory_order_relaxed) == nullptr)
            slot.store("NONE", std::memory_order_relaxed);
    g_names[kBuiltinModule].store(kBuiltinName, std::memory_order_relaxed);
    g_names_ready.store(1, std::memory_order_release);  // publishes the filled slots
}

void pid_destroy_names(void)
{
    std::lock_guard<std::mutex> guard(g_names_mutex);
    if (g_names_ready.load(std::memory_order_relaxed) != 1)
        return;
    for (auto &slot : g_names)
        slot.store(nullptr, std::memory_order_relaxed);
    g_names_ready.store(0, std::memory_order_release);
}

const char *tovi_pid_get_name(uint32_t module)
{
    if (g_names_ready.load(std::memory_order_acquire) != 1)
        pid_init_names();
    if (module < TOVI_MODULE_NAME_COUNT)
        return g_names[module].load(std::memory_order_acquire);
    snprintf_s(g_overflow_name, sizeof g_overflow_name, "<%u>", module & 0xFFFFu);
    return g_overflow_name;
}

void tovi_pid_set_name(uint32_t module, const char *name)
{
    if (module >= TOVI_MODULE_NAME_COUNT || name == nullptr)
        return;
    if (g_names_ready.load(std::memory_order_acquire) != 1)
        pid_init_names();
    g_names[module].store(name, std::memory_order_release);  // pairs with the reader's acquire
}

uint64_t ps_get_version(void)
{
    if (g_version_taken.load(std::memory_order_acquire) == 1)
        return g_version;
    std::lock_guard<std::mutex> guard(g_version_mutex);
    if (g_version_taken.load(std::memory_order_relaxed) == 1)
        return g_version;
    timespec ts{};
    int ret = clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
    if (ret != 0)
        TOVI_LOG(kInfo, "Clock_gettime fail ret:%d errno:%d", ret, errno);
    else
        g_version = static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
    g_version_taken.store(1, std::memory_order_release);  // publishes g_version
    return g_version;
}

}  // extern "C"
