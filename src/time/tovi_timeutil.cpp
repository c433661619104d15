// The zdump reader and the kernel zone table's fill rules.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_format.hpp"
#include "tovi_timezone.hpp"
#define TOVI_LOG_SOURCE "tovi_timeutil"
#include "tovi_log.hpp"

// The kernel side reads the table with exactly this layout.
static_assert(sizeof(tovi_tz_transition_s) == 16);
static_assert(offsetof(tovi_tz_table_s, noTransition) == 4);
static_assert(offsetof(tovi_tz_table_s, gmtoff) == 8);
static_assert(offsetof(tovi_tz_table_s, transition) == 16);
static_assert(offsetof(tovi_tz_transition_s, gmtoff) == 8);
static_assert(sizeof(tovi_tz_table_s) == 8720);

namespace tovi::timezone {
namespace {

int month_of(const char *name)
{
    static constexpr const char *kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (int i = 0; i < 12; ++i)
        if (std::strcmp(name, kMonths[i]) == 0)
            return i;
    return 0;
}

}  // namespace

int64_t utc_seconds(const std::tm &tm)
{
    // Days from the civil date, March first so that the leap day ends the year.
    int64_t y = static_cast<int64_t>(tm.tm_year) + 1900, m = tm.tm_mon + 1;
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + tm.tm_mday - 1;
    const int64_t days = era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
    return ((days * 24 + tm.tm_hour) * 60 + tm.tm_min) * 60 + tm.tm_sec;
}

bool read_dst_line(const char *line, ZdumpLine *out)
{
    char zone[128], uwday[8], umon[8], ut[8], lwday[8], lmon[8];
    int n = sscanf_s(line, "%127s  %7s %7s %d %d:%d:%d %d %7s = %7s %7s %d %d:%d:%d %d %31s isdst=%d gmtoff=%d", zone,
                     uwday, umon, &out->utc.tm_mday, &out->utc.tm_hour, &out->utc.tm_min, &out->utc.tm_sec,
                     &out->utc.tm_year, ut, lwday, lmon, &out->local.tm_mday, &out->local.tm_hour,
                     &out->local.tm_min, &out->local.tm_sec, &out->local.tm_year, out->abbr, &out->isdst,
                     &out->gmtoff);
    if (n != 19) {
        TOVI_LOG(log::kError, "%s: sscanf_s fail, %d, %s.", __func__, n, line);
        return false;
    }
    out->utc.tm_mon = month_of(umon), out->local.tm_mon = month_of(lmon);
    // In 64 bits and narrowed back: a garbled cache line may hold any int here.
    out->utc.tm_year = static_cast<int>(int64_t{out->utc.tm_year} - 1900);
    out->local.tm_year = static_cast<int>(int64_t{out->local.tm_year} - 1900);
    // zdump prints the last second before each change: the change is one later.
    out->utc.tm_sec = static_cast<int>(int64_t{out->utc.tm_sec} + 1);
    return true;
}

bool table_add(tovi_tz_table_s *table, const ZdumpLine &line)
{
    tovi_tz_transition_s *last = table->count > 0 ? &table->transition[table->count - 1] : nullptr;
    if (last != nullptr && line.gmtoff == last->gmtoff)
        return true;
    const int64_t t = utc_seconds(line.utc);
    // Changes before 1970 collapse into one entry: the offset that held then.
    if (t < 1 && last != nullptr) {
        last->utc = t, last->gmtoff = line.gmtoff;
        return true;
    }
    if (table->count >= TOVI_TZ_TABLE_MAX)
        return false;
    table->transition[table->count++] = tovi_tz_transition_s{t, line.gmtoff, {}};
    return t <= kTableEnd;
}

FILE *open_regular(const char *path)
{
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat st {};
    int fl = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? fcntl(fd, F_GETFL) : -1;
    FILE *f = fl >= 0 && fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) == 0 ? fdopen(fd, "r") : nullptr;
    if (f == nullptr) {
        close(fd);
        errno = EINVAL;
    }
    return f;
}

bool cache_path(const char *zone, char *path, size_t size)
{
    if (!tovi::formatted(snprintf_s(path, size, "%s/%s", kCacheDir, zone), size))
        return false;
    // The zone's own '/' would make directories: the cache is flat.
    for (size_t i = std::strlen(kCacheDir) + 1; path[i] != '\0'; ++i)
        if (path[i] == '/')
            path[i] = '_';
    return true;
}

}  // namespace tovi::timezone
