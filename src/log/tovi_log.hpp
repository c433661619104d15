// The logging seam: every message of the library goes through these macros.
// Nothing else in the library calls vrlog, vrlog_original or vrlog_vraw (the
// log_seam test enforces it), so the line format, the level check and the
// rate limiter live in one place.
//
// Each source file that logs names its source once, on the line before the
// include, with the module's source name (not the file name, so that a file
// can be split or renamed without changing its messages):
//
//     #define TOVI_LOG_SOURCE "tovi_thrd"
//     #include "tovi_log.hpp"
//
// The forms:
//   TOVI_LOG(level, fmt, ...)              library module 381, after the level check
//   TOVI_LOG_AT(module, level, fmt, ...)   any module, after the level check
//   TOVI_LOG_RATELIMITED(level, fmt, ...)  module 381 through the per-site rate limiter
//   TOVI_LOG_RATELIMITED_GATED(gate, level, fmt, ...)
//                                          the same, with the limiter (and its summary)
//                                          run at level `gate` and the message at `level`
//   TOVI_LOG_INFRA(level, fmt, ...)        "[Infra]" + fmt on module 0, no check of ours
//   TOVI_LOG_WITH_INFRA(level, fmt, ...)   the "[Infra]" line, then the same text on 381
//   TOVI_LOG_RAW(fmt, ...)                 one raw line (stack dumps), unconditionally
// fmt must be a string literal.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tovi_base.h"
#include "vrlog.h"

#ifndef TOVI_LOG_SOURCE
#error "define TOVI_LOG_SOURCE (the module's source name) before including tovi_log.hpp"
#endif

namespace tovi::log {

enum Level : unsigned { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 };

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

#define TOVI_LOG_AT(module, level, fmt, ...)                                             \
    do {                                                                                 \
        if (vrlog_level_check((module), (level)) == 0)                                   \
            vrlog((module), (level), TOVI_LOG_SOURCE, __LINE__, __func__, 0,             \
                  fmt __VA_OPT__(, ) __VA_ARGS__);                                       \
    } while (0)

// A message of the library's own module.
#define TOVI_LOG(level, fmt, ...) TOVI_LOG_AT(TOVI_MODULE_ID, level, fmt __VA_OPT__(, ) __VA_ARGS__)

// A message of the library's own module through the shared rate limiter: the
// limiter runs (and writes its summary) at level `gate`, the message itself
// is written at `level` when that level is enabled too.
#define TOVI_LOG_RATELIMITED_GATED(gate, level, fmt, ...)                                \
    do {                                                                                 \
        static ::tovi::log::RateSite site_;                                              \
        if (vrlog_level_check(TOVI_MODULE_ID, (gate)) == 0 &&                            \
            ::tovi::log::ratelimit_allow(site_, ::tovi::log::current_jiffies(), (gate),  \
                                         TOVI_LOG_SOURCE, __func__, __LINE__))           \
            TOVI_LOG((level), fmt __VA_OPT__(, ) __VA_ARGS__);                           \
    } while (0)

#define TOVI_LOG_RATELIMITED(level, fmt, ...) \
    TOVI_LOG_RATELIMITED_GATED((level), (level), fmt __VA_OPT__(, ) __VA_ARGS__)

// The platform's infrastructure log (module 0) takes some diagnostics with
// the "[Infra]" tag whatever the library's own threshold says.
#define TOVI_LOG_INFRA(level, fmt, ...) \
    vrlog(0, (level), TOVI_LOG_SOURCE, __LINE__, __func__, 0, "[Infra]" fmt __VA_OPT__(, ) __VA_ARGS__)

#define TOVI_LOG_WITH_INFRA(level, fmt, ...)                        \
    do {                                                            \
        TOVI_LOG_INFRA((level), fmt __VA_OPT__(, ) __VA_ARGS__);    \
        TOVI_LOG((level), fmt __VA_OPT__(, ) __VA_ARGS__);          \
    } while (0)

// One raw line, as stack dumps write them.
#define TOVI_LOG_RAW(fmt, ...) vrlog_original(fmt __VA_OPT__(, ) __VA_ARGS__)

// Raw output of a caller's format and va_list (printk): the library's result.
#define TOVI_LOG_VRAW(fmt, ap) vrlog_vraw((fmt), (ap))

// As TOVI_LOG, as an expression whose value is vrlog's result (the length
// written), or 0 when the level is not enabled. For the few functions whose
// failure result is the logging call's own.
#define TOVI_LOG_RESULT(level, fmt, ...)                                                 \
    (vrlog_level_check(TOVI_MODULE_ID, (level)) == 0                                     \
         ? vrlog(TOVI_MODULE_ID, (level), TOVI_LOG_SOURCE, __LINE__, __func__, 0,          \
                 fmt __VA_OPT__(, ) __VA_ARGS__)                                         \
         : 0)

// A message under module 0 (the system's own), for modules that report
// there rather than under the library's number: the text is prefixed with
// the calling function's name and a colon, as "%s:" fmt.
#define TOVI_LOG_MODULE0(level, fmt, ...) \
    TOVI_LOG_AT(0u, level, "%s:" fmt, __func__ __VA_OPT__(, ) __VA_ARGS__)
