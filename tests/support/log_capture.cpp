#include "log_capture.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "vrlog.h"

namespace tovi::test {
namespace {

// Never destroyed: the library's detached threads may still log while the
// test program's static objects are being torn down.
std::mutex &g_mutex = *new std::mutex;
std::vector<LogRecord> &g_records = *new std::vector<LogRecord>;
std::vector<std::string> &g_calls = *new std::vector<std::string>;
unsigned g_threshold = 7;
void (*g_raw_hook)(const char *) = nullptr;

std::string format(const char *fmt, va_list ap)
{
    char buf[4096];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    return buf;
}

int record_call(const std::string &call)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    g_calls.push_back(call);
    return 0;
}

void store(LogRecord r)
{
    if (std::getenv("TOVI_TEST_LOG") != nullptr)
        std::fprintf(stderr, "[log %u/%u %s:%u %s] %s\n", r.module, r.level, r.file.c_str(), r.line,
                     r.func.c_str(), r.text.c_str());
    std::lock_guard<std::mutex> guard(g_mutex);
    g_records.push_back(std::move(r));
}

}  // namespace

LogCapture::LogCapture()
{
    clear();
    set_threshold(7);
}

LogCapture::~LogCapture()
{
    set_threshold(7);
}

std::vector<LogRecord> LogCapture::records() const
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_records;
}

std::vector<std::string> LogCapture::texts() const
{
    std::vector<std::string> out;
    for (const LogRecord &r : records())
        out.push_back(r.text);
    return out;
}

std::vector<std::string> LogCapture::texts(unsigned level) const
{
    std::vector<std::string> out;
    for (const LogRecord &r : records())
        if (r.level == level)
            out.push_back(r.text);
    return out;
}

bool LogCapture::contains(const std::string &text) const
{
    return count(text) != 0;
}

size_t LogCapture::count(const std::string &text) const
{
    size_t n = 0;
    for (const LogRecord &r : records())
        n += r.text == text;
    return n;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    g_records.clear();
    g_calls.clear();
}

std::vector<std::string> LogCapture::control_calls() const
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return g_calls;
}

void LogCapture::set_threshold(unsigned level)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    g_threshold = level;
}

void LogCapture::set_raw_hook(void (*hook)(const char *text))
{
    __atomic_store_n(&g_raw_hook, hook, __ATOMIC_RELEASE);
}

}  // namespace tovi::test

using tovi::test::LogRecord;

extern "C" {

int vrlog_level_check(unsigned int, unsigned int level)
{
    std::lock_guard<std::mutex> guard(tovi::test::g_mutex);
    return level <= tovi::test::g_threshold ? 0 : 1;
}

int vrlog(unsigned int module, unsigned int level, const char *file, unsigned int line, const char *func,
          unsigned int, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string text = tovi::test::format(fmt, ap);
    va_end(ap);
    tovi::test::store(LogRecord{module, level, file, line, func, text, false});
    return static_cast<int>(text.size());
}

int vrlog_vraw(const char *fmt, va_list ap)
{
    std::string text = tovi::test::format(fmt, ap);
    if (auto hook = __atomic_load_n(&tovi::test::g_raw_hook, __ATOMIC_ACQUIRE))
        hook(text.c_str());
    tovi::test::store(LogRecord{0, 0, "", 0, "", text, true});
    return static_cast<int>(text.size());
}

int vrlog_original(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vrlog_vraw(fmt, ap);
    va_end(ap);
    return n;
}

using tovi::test::record_call;

int vrlog_init(unsigned int module, const char *name)
{
    return record_call("vrlog_init(" + std::to_string(module) + "," + (name ? name : "NULL") + ")");
}

int vrlog_destroy(void)
{
    return record_call("vrlog_destroy()");
}

int vrlog_loglevel_set(unsigned int module, unsigned int level)
{
    return record_call("vrlog_loglevel_set(" + std::to_string(module) + "," + std::to_string(level) + ")");
}

int vrlog_loglevel_get(unsigned int module)
{
    record_call("vrlog_loglevel_get(" + std::to_string(module) + ")");
    return 5;
}

// Groups named "g<N>" resolve to N.
int vrlog_get_group_id(const char *group)
{
    record_call(std::string("vrlog_get_group_id(") + (group ? group : "NULL") + ")");
    return group != nullptr && group[0] == 'g' ? std::atoi(group + 1) : -1;
}

int vrlog_ratelimit_set(int group, unsigned int interval, unsigned int burst)
{
    return record_call("vrlog_ratelimit_set(" + std::to_string(group) + "," + std::to_string(interval) + "," +
                       std::to_string(burst) + ")");
}

}  // extern "C"
