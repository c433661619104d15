// Calendar arithmetic without zone data, the configuration-line setters, the
// kernel clock reads and the DST test.
#include <cstdio>
#include <cstring>
#include <ctime>

#include <safe_str_lib.h>

#include "tovi_companion.hpp"
#include "tovi_timezone.hpp"
#define TOVI_LOG_SOURCE "tovi_time"
#include "tovi_log.hpp"

tovi_tz_info_s m_stTZInfo = {0, 0, '+', " ", " "};
tovi_dst_info_s g_toviDstInfo = {"0", "0", 0, 0};
char m_ascTimeZoneName[256] = "UTC";
char m_ascTimeZoneStyle[8] = "UTC";
int32_t m_siTimeZoneOffsetDir = 'c';
int32_t m_siTimeZoneUTCHours = 0;
int32_t m_siTimeZoneMinutes = 0;
char m_ascTZName[32];
char m_ascStyle[8];
char m_ascDstBeginTime[24];
char m_ascDstEndTime[24];
tovi_time_store_s m_stTimeStore;
char m_ascCmd[512];
const uint16_t m_ausMon_YearDay[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

namespace {

using tovi::companion::syscall;

constexpr uint32_t kCmdLocal = 0x100, kCmdLocalFromUtc = 0x101, kCmdUtc = 0x102, kCmdDstFromUtc = 0x103,
                   kCmdDst = 0x104;
constexpr uint32_t kCapYear = 5001;

bool leap(uint32_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// Splits days since 1970 into year and day of that year; from 5001 on the
// date wraps to 1970-01-01 (callers rely on a bounded year).
void split_days(uint64_t days, uint32_t *year, uint32_t *yday)
{
    uint32_t y = 1970;
    while (days >= (leap(y) ? 366u : 365u)) {
        days -= leap(y) ? 366u : 365u;
        if (++y == kCapYear) {
            *year = 1970, *yday = 0;
            return;
        }
    }
    *year = y, *yday = static_cast<uint32_t>(days);
}

// The key must open the line; the value follows it.
const char *value_of(const char *line, const char *key)
{
    size_t n = std::strlen(key);
    return line != nullptr && std::strncmp(line, key, n) == 0 ? line + n : nullptr;
}

template <typename T>
int32_t scan_value(const char *line, const char *key, const char *fmt, T *target)
{
    const char *v = value_of(line, key);
    return v != nullptr && sscanf_s(v, fmt, target) == 1 ? 0 : -1;
}

int32_t copy_value(const char *line, const char *key, char (&target)[24])
{
    const char *v = value_of(line, key);
    return v != nullptr && strncpy_s(target, sizeof target, v, sizeof target - 1) == EOK ? 0 : -1;
}

// The facts the DST test needs, from the stored configuration or live.
struct DstFacts {
    int64_t local = 0;     // local seconds of the moment
    char date[20] = "";    // local date "YYYY-MM-DD hh:mm:ss"
    char begin[256] = "";  // rule begin "MM?DD?hh?mm?ss"
    char end[256] = "";
    uint32_t flag = 0;
    uint32_t minutes = 0;
};

void format_date(int64_t seconds, char (&out)[20])
{
    uint32_t f[6];
    uint64_t s = seconds < 0 ? 0 : static_cast<uint64_t>(seconds);
    uint32_t year = 0, yday = 0;
    split_days(s / 86400, &year, &yday);
    const uint16_t *cum = m_ausMon_YearDay[leap(year) ? 1 : 0];
    uint32_t month = 1;
    while (month < 12 && yday >= cum[month])
        ++month;
    f[0] = year, f[1] = month, f[2] = yday - cum[month - 1] + 1;
    f[3] = static_cast<uint32_t>(s % 86400 / 3600), f[4] = static_cast<uint32_t>(s / 60 % 60),
    f[5] = static_cast<uint32_t>(s % 60);
    snprintf_s(out, sizeof out, "%04d-%02u-%02u %02u:%02u:%02u", static_cast<int>(f[0]), f[1], f[2], f[3], f[4],
               f[5]);
}

void stored_facts(uint64_t utc, DstFacts *facts)
{
    strncpy_s(m_ascTZName, sizeof m_ascTZName, m_stTZInfo.name, sizeof m_ascTZName - 1);
    strncpy_s(m_ascStyle, sizeof m_ascStyle, m_stTZInfo.style, sizeof m_ascStyle - 1);
    strncpy_s(m_ascDstBeginTime, sizeof m_ascDstBeginTime, g_toviDstInfo.beginTime, sizeof m_ascDstBeginTime - 1);
    strncpy_s(m_ascDstEndTime, sizeof m_ascDstEndTime, g_toviDstInfo.endTime, sizeof m_ascDstEndTime - 1);
    uint64_t offset = static_cast<uint64_t>(m_stTZInfo.utcOffHours) * 3600 + static_cast<uint64_t>(m_stTZInfo.utcOffMins) * 60;
    uint64_t local = m_stTZInfo.utcOffDir == '+' ? utc + offset : (utc <= offset ? 0 : utc - offset);
    facts->local = static_cast<int64_t>(local);
    format_date(facts->local, facts->date);
    strncpy_s(facts->begin, sizeof facts->begin, m_ascDstBeginTime, sizeof m_ascDstBeginTime);
    strncpy_s(facts->end, sizeof facts->end, m_ascDstEndTime, sizeof m_ascDstEndTime);
    facts->flag = static_cast<uint32_t>(g_toviDstInfo.flag) & 1u;
    facts->minutes = g_toviDstInfo.minutes;
}

int32_t time_get_localtimeInfo(uint64_t utc, DstFacts *facts)
{
    if (facts == nullptr) {
        TOVI_LOG(tovi::log::kError, "The usr input para pstGetTimeInfo is NULL.");
        return -22;
    }
    time_t t = static_cast<time_t>(utc);
    std::tm tm{};
    if (localtime_r(&t, &tm) == nullptr) {
        TOVI_LOG(tovi::log::kError, "The localtime return NULL.");
        return -1;
    }
    facts->local = static_cast<int64_t>(utc) + tm.tm_gmtoff;
    // A year past 9999 does not fit: an empty date is then too short to be in DST.
    if (std::strftime(facts->date, sizeof facts->date, "%Y-%m-%d %H:%M:%S", &tm) == 0)
        facts->date[0] = '\0';
    char utcoff[32], zone[64], style[32];
    uint32_t reserved = 0;
    // The zone gettz found: for UTC it leaves m_ascTimeZoneName at the zone before.
    if (tovi_time_gettz(utcoff, zone, style) != 0 || tovi_time_query_dstforregion(zone, &facts->flag) != 0 ||
        tovi_time_querydstconf(facts->begin, facts->end, &facts->minutes, &reserved) != 0)
        return -1;
    return 0;
}

// MMDDhhmmss from the characters at the given positions.
uint64_t digits(const char *s, const int (&at)[10])
{
    uint64_t v = 0;
    for (int i : at)
        v = v * 10 + static_cast<uint64_t>(s[i] - '0');
    return v;
}

bool g_length_reported = false;

bool time_docheckdsttime(const DstFacts &f)
{
    if (f.flag == 0)
        return false;
    if (std::strlen(f.date) <= 18 || std::strlen(f.begin) <= 13 || std::strlen(f.end) <= 13) {
        if (!g_length_reported) {
            g_length_reported = true;
            TOVI_LOG(tovi::log::kError, "NUBO_CheckIsDSTTime: Date length is not enough.");
        }
        return false;
    }
    char shifted[20];
    // Unsigned: a moment near the top of the range wraps instead of overflowing.
    format_date(static_cast<int64_t>(static_cast<uint64_t>(f.local) + uint64_t{f.minutes} * 60), shifted);
    static constexpr int kDate[10] = {5, 6, 8, 9, 11, 12, 14, 15, 17, 18};
    static constexpr int kRule[10] = {0, 1, 3, 4, 6, 7, 9, 10, 12, 13};
    uint64_t l = digits(f.date, kDate), s = digits(shifted, kDate);
    uint64_t b = digits(f.begin, kRule), e = digits(f.end, kRule);
    return b <= e ? (b <= l && s < e) : (b <= l || s < e);
}

uint64_t read_out(uint32_t cmd, uint64_t *out, bool *ok)
{
    uint64_t value = 0;
    *ok = syscall(cmd, reinterpret_cast<long>(&value)) >= 0;
    if (*ok && out != nullptr)
        *out = value;
    return *ok ? value : 0;
}

}  // namespace

extern "C" {

int32_t tovi_time_settzname(const char *line) { return scan_value(line, "TimeZoneName=", "%31s", m_stTZInfo.name); }
int32_t tovi_time_settzstyle(const char *line) { return scan_value(line, "TimeZoneSty=", "%7s", m_stTZInfo.style); }
int32_t tovi_time_setutcoffsetH(const char *line) { return scan_value(line, "UTCOffHours=", "%d", &m_stTZInfo.utcOffHours); }
int32_t tovi_time_setutcoffsetM(const char *line) { return scan_value(line, "UTCOffMins=", "%d", &m_stTZInfo.utcOffMins); }
int32_t tovi_time_setutcoffsetD(const char *line) { return scan_value(line, "UTCOffDir=", "%c", &m_stTZInfo.utcOffDir); }
int32_t tovi_time_setdstflag(const char *line) { return scan_value(line, "DstFlag=", "%c", &g_toviDstInfo.flag); }
int32_t tovi_time_setdstoffsetM(const char *line) { return scan_value(line, "DstMinOffSet=", "%u", &g_toviDstInfo.minutes); }
int32_t tovi_time_setdstbegintime(const char *line) { return copy_value(line, "DstBeginTime=", g_toviDstInfo.beginTime); }
int32_t tovi_time_setdstendtime(const char *line) { return copy_value(line, "DstEndTime=", g_toviDstInfo.endTime); }

uint64_t tovi_time_getlocaltime(uint64_t *out)
{
    bool ok = false;
    uint64_t v = read_out(kCmdLocal, out, &ok);
    if (!ok)
        TOVI_LOG(tovi::log::kError, "Syscall for tovi_time_getlocaltime failed.");
    return v;
}

uint64_t tovi_time_gettime(uint64_t *out)
{
    bool ok = false;
    uint64_t v = read_out(kCmdUtc, out, &ok);
    if (!ok)
        TOVI_LOG(tovi::log::kError, "Syscall for tovi_time_gettime failed.");
    return v;
}

uint64_t tovi_time_getlocal_fromutc(uint64_t utc)
{
    uint64_t local = 0;
    if (syscall(kCmdLocalFromUtc, reinterpret_cast<long>(&utc), reinterpret_cast<long>(&local)) < 0) {
        TOVI_LOG(tovi::log::kError, "Syscall for tovi_time_getlocal_fromutc failed.");
        return utc;
    }
    return local;
}

uint64_t tovi_time_getdst_fromutc(uint64_t utc)
{
    uint64_t dst = 0;
    if (syscall(kCmdDstFromUtc, reinterpret_cast<long>(&utc), reinterpret_cast<long>(&dst)) < 0) {
        TOVI_LOG(tovi::log::kError, "Syscall for tovi_time_getdst_fromutc failed.");
        return 0;
    }
    return dst;
}

int32_t tovi_time_getdsttime(uint64_t *out)
{
    if (out == nullptr)
        return -1;
    if (syscall(kCmdDst, reinterpret_cast<long>(out)) < 0) {
        TOVI_LOG(tovi::log::kError, "Syscall for tovi_time_getdsttime failed.");
        return -1;
    }
    return 0;
}

void tovi_time_gmtime(const uint64_t *t, TOVI_DATE_TIME_S *r)
{
    if (r == nullptr)
        return;
    uint64_t now = 0;
    if (t == nullptr) {
        now = tovi_time_gettime(nullptr);
        if (static_cast<int64_t>(now) < 1)
            return;
        t = &now;
    }
    int64_t s = static_cast<int64_t>(*t);
    uint64_t days = 0, rest = 0;
    if (s < 0) {
        r->weekday = 4;
    } else {
        days = static_cast<uint64_t>(s) / 86400, rest = static_cast<uint64_t>(s) % 86400;
        r->weekday = static_cast<uint32_t>(days <= 2 ? days + 4 : (days - 3) % 7);
    }
    r->hour = static_cast<uint32_t>(rest / 3600);
    r->minute = static_cast<uint32_t>(rest / 60 % 60);
    r->second = static_cast<uint32_t>(rest % 60);
    uint32_t yday = 0;
    split_days(days, &r->year, &yday);
    static constexpr uint32_t kMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    uint32_t month = 0;
    for (; month < 11; ++month) {
        uint32_t len = kMonth[month] + (month == 1 && leap(r->year) ? 1 : 0);
        if (yday < len)
            break;
        yday -= len;
    }
    r->month = month + 1;
    r->day = yday + 1;
}

int32_t tovi_time_asctime(const uint64_t *t, char *buf, uint32_t len)
{
    if (buf == nullptr || len == 0)
        return 0;
    static constexpr const char *kDay[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char *kMon[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    TOVI_DATE_TIME_S r{};
    tovi_time_gmtime(t, &r);
    char text[64];
    std::snprintf(text, sizeof text, "%.3s %.3s %-3d%02d:%02d:%02d %d", kDay[r.weekday % 7],
                  kMon[(r.month + 11) % 12], static_cast<int>(r.day), static_cast<int>(r.hour),
                  static_cast<int>(r.minute), static_cast<int>(r.second), static_cast<int>(r.year));
    // Truncated to what fits, always terminated.
    size_t n = std::strlen(text) < len - 1 ? std::strlen(text) : len - 1;
    std::memcpy(buf, text, n);
    buf[n] = '\0';
    buf[len - 1] = '\0';
    return 0;
}

uint64_t tovi_time_mktime(const TOVI_DATE_TIME_S *r)
{
    if (r == nullptr)
        return 0;
    // Gauss's method: March is the first month, so February's leap day ends the year.
    int64_t month = static_cast<int64_t>(r->month) - 2, year = r->year;
    if (month < 1)
        month += 12, year -= 1;
    int64_t days = month * 367 / 12 - year / 100 + year / 400 + year / 4 + r->day + year * 365 - 719499;
    return static_cast<uint64_t>(((days * 24 + r->hour) * 60 + r->minute) * 60 + r->second);
}

int32_t tovi_time_ckdst(int32_t useStored, uint64_t utcSeconds)
{
    DstFacts facts;
    if (useStored != 0)
        stored_facts(utcSeconds, &facts);
    else if (time_get_localtimeInfo(utcSeconds, &facts) != 0)
        return -1;
    return time_docheckdsttime(facts) ? 0 : -1;
}

}  // extern "C"
