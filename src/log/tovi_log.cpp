#define TOVI_LOG_SOURCE "tovi_log"
#include "tovi_log.hpp"

#include "tovi_jiffies.h"

namespace tovi::log {

uint64_t current_jiffies()
{
    return tovi_get_jiffies();
}

bool ratelimit_allow(RateSite &site, uint64_t now, unsigned level, const char *file,
                     const char *func, int line)
{
    // Acquire pairs with the release below: the plain fields are only touched
    // by the thread that holds the site.
    if (site.busy.exchange(true, std::memory_order_acquire)) {
        site.missed.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    // A window lasts kWindow jiffies from the last message printed.
    if (!site.started || now - site.last_printed >= kWindow) {
        uint32_t missed = site.missed.load(std::memory_order_relaxed);
        if (missed != 0 && (!site.summarised || now - site.last_summary >= kSummaryInterval)) {
            vrlog(TOVI_MODULE_ID, level, file, static_cast<unsigned>(line), func, 0,
                  "print: %u messages suppressed.%s,line=%d.", missed, func, line);
            site.missed.fetch_sub(missed, std::memory_order_relaxed);
            site.last_summary = now;
            site.summarised = true;
        }
        site.started = true;
        site.printed = 0;
    }
    bool allow = site.printed < kBurst;
    if (allow) {
        ++site.printed;
        site.last_printed = now;
    } else {
        site.missed.fetch_add(1, std::memory_order_relaxed);
    }
    site.busy.store(false, std::memory_order_release);
    return allow;
}

}  // namespace tovi::log
