// The logging seam: every message of the library goes through these macros,
// which ask vrlog_level_check before formatting and then call vrlog with the
// library's module number, the source file's base name, line and function.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tovi_base.h"
#include "vrlog.h"

namespace tovi::log {

enum Level : unsigned { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 };

// Base name of a source path without its extension ("src/init/tovi_init.cpp"
// gives "tovi_init"), computed at compile time.
struct Stem {
    char text[64];
};

consteval Stem make_stem(const char *path)
{
    const char *base = path;
    for (const char *p = path; *p != '\0'; ++p)
        if (*p == '/')
            base = p + 1;
    Stem stem{};
    std::size_t n = 0;
    for (const char *p = base; *p != '\0' && *p != '.' && n + 1 < sizeof stem.text; ++p)
        stem.text[n++] = *p;
    return stem;
}

// One message site of the shared rate limiter: at most kBurst messages
// within kWindow jiffies of the last one printed; what is held back is summed up at most once per
// kSummaryInterval jiffies. The site is claimed with a try-lock so that a
// contended site never blocks: the loser counts itself as suppressed.
struct RateSite {
    std::atomic<bool> busy{false};
    std::atomic<uint32_t> missed{0};
    uint64_t last_printed = 0;
    uint64_t last_summary = 0;
    uint32_t printed = 0;
    bool started = false;
    bool summarised = false;
};

inline constexpr uint32_t kBurst = 3;
inline constexpr uint64_t kWindow = 15000;
inline constexpr uint64_t kSummaryInterval = 150000;

// Decides whether the site may print now (jiffies `now`); logs the summary
// "print: %u messages suppressed.%s,line=%d." first when one is due.
bool ratelimit_allow(RateSite &site, uint64_t now, unsigned level, const char *file,
                     const char *func, int line);

uint64_t current_jiffies();

}  // namespace tovi::log

#define TOVI_LOG_FILE                                                                   \
    ([]() -> const char * {                                                             \
        static constexpr ::tovi::log::Stem stem_ = ::tovi::log::make_stem(__FILE__);    \
        return stem_.text;                                                              \
    }())

#define TOVI_LOG_AT(module, level, fmt, ...)                                             \
    do {                                                                                 \
        if (vrlog_level_check((module), (level)) == 0)                                   \
            vrlog((module), (level), TOVI_LOG_FILE, __LINE__, __func__, 0,               \
                  fmt __VA_OPT__(, ) __VA_ARGS__);                                       \
    } while (0)

// A message of the library's own module.
#define TOVI_LOG(level, fmt, ...) TOVI_LOG_AT(TOVI_MODULE_ID, level, fmt __VA_OPT__(, ) __VA_ARGS__)

// A message of the library's own module through the shared rate limiter.
#define TOVI_LOG_RATELIMITED(level, fmt, ...)                                            \
    do {                                                                                 \
        static ::tovi::log::RateSite site_;                                              \
        if (vrlog_level_check(TOVI_MODULE_ID, (level)) == 0 &&                           \
            ::tovi::log::ratelimit_allow(site_, ::tovi::log::current_jiffies(), (level), \
                                         TOVI_LOG_FILE, __func__, __LINE__))             \
            vrlog(TOVI_MODULE_ID, (level), TOVI_LOG_FILE, __LINE__, __func__, 0,         \
                  fmt __VA_OPT__(, ) __VA_ARGS__);                                       \
    } while (0)

// A message under module 0 (the system's own), for modules that report
// there rather than under the library's number: the text is prefixed with
// the calling function's name and a colon, as "%s:" fmt.
#define TOVI_LOG_MODULE0(level, fmt, ...) \
    TOVI_LOG_AT(0u, level, "%s:" fmt, __func__ __VA_OPT__(, ) __VA_ARGS__)
