// vrlog: the default logging library. Thresholds and names are read without
// locks on every message; only rate-limited modules take a mutex.
#include "vrlog.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr unsigned kMaxLevel = 7;
constexpr size_t kLineMax = 2048;

struct RateLimit {
    unsigned interval_ms = 0;
    unsigned burst = 0;  // 0: no limit
    unsigned long long window_start_ms = 0;
    unsigned printed = 0;
};

std::atomic<unsigned char> g_levels[VRLOG_MODULE_COUNT];
std::atomic<const char *> g_names[VRLOG_MODULE_COUNT];
std::atomic<bool> g_limited[VRLOG_MODULE_COUNT];
RateLimit g_limits[VRLOG_MODULE_COUNT];
std::mutex g_limit_mutex;
pthread_once_t g_env_once = PTHREAD_ONCE_INIT;
bool g_to_syslog = false;

unsigned parse_level(const char *s, char **end)
{
    unsigned long v = std::strtoul(s, end, 10);
    return v > kMaxLevel ? kMaxLevel : static_cast<unsigned>(v);
}

// VRLOG_LEVEL: "N" for every module, or "N,M=L,..." / "M=L,...".
void apply_level_env(const char *spec)
{
    const char *p = spec;
    while (*p != '\0') {
        char *end = nullptr;
        unsigned long first = std::strtoul(p, &end, 10);
        if (end == p)
            return;
        if (*end == '=') {
            unsigned level = parse_level(end + 1, &end);
            if (first < VRLOG_MODULE_COUNT)
                g_levels[first].store(static_cast<unsigned char>(level), std::memory_order_relaxed);
        } else {
            unsigned level = first > kMaxLevel ? kMaxLevel : static_cast<unsigned>(first);
            for (auto &l : g_levels)
                l.store(static_cast<unsigned char>(level), std::memory_order_relaxed);
        }
        if (*end != ',')
            return;
        p = end + 1;
    }
}

void load_environment()
{
    for (auto &l : g_levels)
        l.store(VRLOG_DEFAULT_LEVEL, std::memory_order_relaxed);
    if (const char *spec = std::getenv("VRLOG_LEVEL"))
        apply_level_env(spec);
    const char *target = std::getenv("VRLOG_TARGET");
    g_to_syslog = target != nullptr && std::strcmp(target, "syslog") == 0;
}

void ensure_environment()
{
    pthread_once(&g_env_once, load_environment);
}

unsigned threshold(unsigned module)
{
    ensure_environment();
    if (module >= VRLOG_MODULE_COUNT)
        return VRLOG_DEFAULT_LEVEL;
    return g_levels[module].load(std::memory_order_relaxed);
}

unsigned long long now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(ts.tv_nsec) / 1000000ULL;
}

bool rate_allows(unsigned module)
{
    if (module >= VRLOG_MODULE_COUNT || !g_limited[module].load(std::memory_order_acquire))
        return true;
    std::lock_guard<std::mutex> guard(g_limit_mutex);
    RateLimit &rl = g_limits[module];
    if (rl.burst == 0)
        return true;
    unsigned long long now = now_ms();
    if (now - rl.window_start_ms >= rl.interval_ms) {
        rl.window_start_ms = now;
        rl.printed = 0;
    }
    if (rl.printed >= rl.burst)
        return false;
    ++rl.printed;
    return true;
}

const char *level_name(unsigned level)
{
    static const char *const names[] = {"EMERG", "ALERT", "CRIT", "ERROR",
                                        "WARN",  "NOTICE", "INFO", "DEBUG"};
    return level <= kMaxLevel ? names[level] : "LEVEL?";
}

// One write per line keeps lines from different threads whole.
int emit(char *line, size_t len, int priority)
{
    if (len >= kLineMax - 1)
        len = kLineMax - 2;
    if (len == 0 || line[len - 1] != '\n')
        line[len++] = '\n';
    line[len] = '\0';
    if (g_to_syslog) {
        syslog(priority, "%.*s", static_cast<int>(len - 1), line);
        return static_cast<int>(len);
    }
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(STDERR_FILENO, line + done, len - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        done += static_cast<size_t>(n);
    }
    return static_cast<int>(len);
}

size_t clamp_len(int n, size_t room)
{
    if (n < 0)
        return 0;
    return static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1;
}

// The local time of a line without the C library's zone lock, which
// localtime_r and gmtime_r both take: a fatal-signal handler that logs while
// its thread was inside one of them would wait for ever. The zone offset is
// looked up once a minute; a thread interrupted during that look-up uses the
// offset of the minute before.
std::atomic<long long> g_zone_minute{-1};
std::atomic<long> g_zone_offset{0};
__attribute__((tls_model("initial-exec"))) thread_local bool t_in_zone_lookup = false;

long zone_offset(time_t now)
{
    const long long minute = now / 60;
    if (g_zone_minute.load(std::memory_order_acquire) != minute && !t_in_zone_lookup) {
        t_in_zone_lookup = true;
        tm local{};
        if (localtime_r(&now, &local) != nullptr)
            g_zone_offset.store(local.tm_gmtoff, std::memory_order_relaxed);
        g_zone_minute.store(minute, std::memory_order_release);  // pairs with the load above
        t_in_zone_lookup = false;
    }
    return g_zone_offset.load(std::memory_order_relaxed);
}

// "YYYY-MM-DD hh:mm:ss" of a local instant in seconds since the epoch
// (days to civil date by the proleptic Gregorian era arithmetic).
size_t format_local(char *buf, size_t size, long long t)
{
    long long days = t / 86400, secs = t % 86400;
    if (secs < 0) {
        secs += 86400;
        --days;
    }
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long doe = days - era * 146097;
    const long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const long long mp = (5 * doy + 2) / 153;
    const long long day = doy - (153 * mp + 2) / 5 + 1;
    const long long month = mp < 10 ? mp + 3 : mp - 9;
    const long long year = yoe + era * 400 + (month <= 2);
    return clamp_len(std::snprintf(buf, size, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld", year, month, day,
                                   secs / 3600, secs / 60 % 60, secs % 60),
                     size);
}

}  // namespace

extern "C" {

int vrlog_init(unsigned int module, const char *name)
{
    if (module >= VRLOG_MODULE_COUNT || name == nullptr)
        return -1;
    ensure_environment();
    g_names[module].store(name, std::memory_order_release);
    return 0;
}

int vrlog_destroy(void)
{
    std::lock_guard<std::mutex> guard(g_limit_mutex);
    for (unsigned m = 0; m < VRLOG_MODULE_COUNT; ++m) {
        g_names[m].store(nullptr, std::memory_order_relaxed);
        g_limited[m].store(false, std::memory_order_relaxed);
        g_limits[m] = RateLimit{};
    }
    closelog();
    return 0;
}

int vrlog_loglevel_set(unsigned int module, unsigned int level)
{
    if (level > kMaxLevel || (module >= VRLOG_MODULE_COUNT && module != VRLOG_ALL_MODULES))
        return -1;
    ensure_environment();
    for (unsigned m = 0; m < VRLOG_MODULE_COUNT; ++m)
        if (module == VRLOG_ALL_MODULES || m == module)
            g_levels[m].store(static_cast<unsigned char>(level), std::memory_order_relaxed);
    return 0;
}

int vrlog_loglevel_get(unsigned int module)
{
    if (module >= VRLOG_MODULE_COUNT)
        return -1;
    return static_cast<int>(threshold(module));
}

int vrlog_get_group_id(const char *group)
{
    if (group == nullptr || *group == '\0')
        return -1;
    for (unsigned m = 0; m < VRLOG_MODULE_COUNT; ++m) {
        const char *name = g_names[m].load(std::memory_order_acquire);
        if (name != nullptr && std::strcmp(name, group) == 0)
            return static_cast<int>(m);
    }
    char *end = nullptr;
    unsigned long m = std::strtoul(group, &end, 10);
    if (*end != '\0' || m >= VRLOG_MODULE_COUNT)
        return -1;
    return static_cast<int>(m);
}

int vrlog_ratelimit_set(int group_id, unsigned int interval_ms, unsigned int burst)
{
    if (group_id < 0 || static_cast<unsigned>(group_id) >= VRLOG_MODULE_COUNT)
        return -1;
    std::lock_guard<std::mutex> guard(g_limit_mutex);
    g_limits[group_id] = RateLimit{interval_ms, burst, now_ms(), 0};
    g_limited[group_id].store(burst != 0, std::memory_order_release);
    return 0;
}

int vrlog_level_check(unsigned int module, unsigned int level)
{
    return level <= threshold(module) ? 0 : 1;
}

int vrlog(unsigned int module, unsigned int level, const char *file, unsigned int line,
          const char *func, unsigned int flags, const char *fmt, ...)
{
    (void)flags;
    if (fmt == nullptr || vrlog_level_check(module, level) != 0 || !rate_allows(module))
        return 0;
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    const char *name = module < VRLOG_MODULE_COUNT ? g_names[module].load(std::memory_order_acquire) : nullptr;

    char buf[kLineMax];
    size_t len = format_local(buf, sizeof buf, static_cast<long long>(ts.tv_sec) + zone_offset(ts.tv_sec));
    len += clamp_len(std::snprintf(buf + len, sizeof buf - len, ".%06ld %s %u/%s %s:%u %s: ",
                                   ts.tv_nsec / 1000, level_name(level), module,
                                   name != nullptr ? name : "-", file != nullptr ? file : "?",
                                   line, func != nullptr ? func : "?"),
                     sizeof buf - len);
    va_list ap;
    va_start(ap, fmt);
    len += clamp_len(std::vsnprintf(buf + len, sizeof buf - len, fmt, ap), sizeof buf - len);
    va_end(ap);
    return emit(buf, len, static_cast<int>(level > kMaxLevel ? kMaxLevel : level));
}

int vrlog_vraw(const char *fmt, va_list ap)
{
    if (fmt == nullptr)
        return -1;
    ensure_environment();
    char buf[kLineMax];
    size_t len = clamp_len(std::vsnprintf(buf, sizeof buf, fmt, ap), sizeof buf);
    return emit(buf, len, LOG_INFO);
}

int vrlog_original(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vrlog_vraw(fmt, ap);
    va_end(ap);
    return n;
}

}  // extern "C"
