// Zone and DST queries through the platform script, the zone's offset and
// name, setting the zone and the time.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_process.h"
#include "tovi_timezone.hpp"
#define TOVI_LOG_SOURCE "tovi_time"
#include "tovi_log.hpp"

namespace tovi::timezone {
namespace {

constexpr size_t kCmdMax = 256;
constexpr size_t kWrapExtra = 43;  // the longest wrapping around the caller's command
constexpr const char *kMarker = "zumshell";

// Reads the wrapped command's lines up to the status marker.
int32_t read_cmd_shell(FILE *f, char *out, uint32_t outLen)
{
    char line[kCmdMax];
    int32_t lines = 0;
    size_t total = 0;
    if (out != nullptr && outLen > 0)
        out[0] = '\0';
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (const char *mark = std::strstr(line, kMarker); mark != nullptr) {
            int32_t status = static_cast<int32_t>(std::strtol(mark + 8, nullptr, 10));
            if (out == nullptr && lines > 0) {
                // Without an output buffer the output is standard error: any is a failure.
                TOVI_LOG(tovi::log::kError, "Execute shell failed, flags is %d.", lines);
                return -1;
            }
            return status;
        }
        ++lines;
        if (out == nullptr)
            continue;
        size_t len = std::strlen(line);
        if (total + len < outLen && total + len < kCmdMax) {
            strcat_s(out, outLen < kCmdMax ? outLen : kCmdMax, line);
            total += len;
        } else {
            TOVI_LOG(tovi::log::kError, "The length of output beyond %d.", static_cast<int>(outLen));
        }
    }
    return -1;
}

// Runs the platform script with an action word (and a formatted tail)
// into a 256-byte output buffer.
int32_t run_script(char (&out)[kCmdMax], const char *cmd) { return time_popen_shell(cmd, out, sizeof out); }

// A zone name too long for the command line: reported, and nothing is run
// (the buffer is left empty, which the shell would take for a command).
int32_t cmd_too_long(size_t destMax)
{
    TOVI_LOG(tovi::log::kError, "snprintf_s secure function failed, destMax<%lu>, count<%lu>.", destMax, destMax - 1);
    return -1;
}

int32_t local_now(std::tm *tm)
{
    time_t now = time(nullptr);
    return now >= 0 && localtime_r(&now, tm) != nullptr ? 0 : -1;
}

}  // namespace

int32_t time_popen_shell(const char *cmd, char *out, uint32_t outLen)
{
    if (isDangerousCmd(cmd, nullptr) != 0) {
        TOVI_LOG(tovi::log::kError, "Param error: pscCmd(%s) is dangerous.", cmd);
        return -1;
    }
    if (std::strlen(cmd) + kWrapExtra > kCmdMax) {
        TOVI_LOG(tovi::log::kError, "The input shell command string is too long.");
        return -7;
    }
    // A command at the length limit wraps to exactly kCmdMax characters; one
    // byte short, the status marker's "$?" lost its '?' and read as 0.
    char wrapped[kCmdMax + 1];
    if (out == nullptr)
        snprintf_s(wrapped, sizeof wrapped, "%s 2>/dev/stdout 1>/dev/null; echo zumshell$?", cmd);
    else if (std::strchr(cmd, '&') != nullptr)
        snprintf_s(wrapped, sizeof wrapped, "`%s`; echo zumshell$?", cmd);
    else
        snprintf_s(wrapped, sizeof wrapped, "%s; echo zumshell$?", cmd);
    std::fflush(nullptr);
    FILE *f = tovi_popen_s(wrapped, "r", "&`$;>");
    if (f == nullptr) {
        TOVI_LOG(tovi::log::kError, "Open command file (%s) failed.", wrapped);
        return -1;
    }
    int32_t result = read_cmd_shell(f, out, outLen);
    if (tovi_pclose(f) == -1)
        TOVI_LOG(tovi::log::kError, "Close command file (%s) failed.", wrapped);
    return result;
}

int32_t time_echo_timeinfotoproc()
{
    char utcoff[32], zone[64] = "", style[32] = "", begin[kCmdMax], end[kCmdMax];
    uint32_t flag = 0, minutes = 0, reserved = 0;
    if (tovi_time_gettz(utcoff, zone, style) != 0)
        return -1;
    // For UTC gettz fills the buffers only: the offset globals and the kept
    // name still describe the zone before, which the script must not be told.
    const bool utc = std::strcmp(style, "UTC") == 0;
    if (tovi_time_query_dstforregion(utc ? zone : m_ascTimeZoneName, &flag) != 0 ||
        tovi_time_querydstconf(begin, end, &minutes, &reserved) != 0)
        return -1;
    snprintf_s(m_ascCmd, sizeof m_ascCmd,
               "/ZSR/script/os_get_tmtz.sh         \"%s\" \"%s\" \"%u\" \"%s\" \"%s\" \"%u\" \"%d\" \"%d\" \"%c\" \"%s\"",
               "tokproc", zone, flag, begin, end, minutes, utc ? 0 : m_siTimeZoneUTCHours, utc ? 0 : m_siTimeZoneMinutes,
               utc ? '+' : static_cast<char>(m_siTimeZoneOffsetDir), style);
    int32_t rc = tovi_system_s(m_ascCmd, nullptr);
    if (rc != 0) {
        TOVI_LOG(tovi::log::kError, "Call system(acCmd) err %s(%d).", m_ascCmd, rc);
        return -1;
    }
    return 0;
}

}  // namespace tovi::timezone

using namespace tovi::timezone;

extern "C" {

int32_t tovi_time_zone_name_set(const char *name, uint32_t)
{
    // Measured first: a failed sprintf_s would leave the current name emptied or cut.
    if (name == nullptr || std::strlen(name) >= sizeof m_ascTimeZoneName ||
        sprintf_s(m_ascTimeZoneName, sizeof m_ascTimeZoneName, "%s", name) < 0) {
        TOVI_LOG(tovi::log::kError, "sprintf_s secure function failed, destMax<%lu>.", sizeof m_ascTimeZoneName);
        return -1;
    }
    return 0;
}

void tovi_time_setforutc(char *utcoff, char *zonename, char *style)
{
    if (utcoff != nullptr)
        snprintf_s(utcoff, 32, "%s", "+00:00");
    if (zonename != nullptr)
        snprintf_s(zonename, 64, "%s", "UTC");
    if (style != nullptr)
        snprintf_s(style, 32, "%s", "UTC");
}

void tovi_time_setzoneutc(char *utcoff, const struct tm *tm)
{
    if (utcoff == nullptr || tm == nullptr)
        return;
    // An offset of 0 reads '-': true UTC goes through tovi_time_setforutc.
    long off = tm->tm_gmtoff;
    m_siTimeZoneOffsetDir = off > 0 ? '+' : '-';
    // Unsigned, so that a caller's LONG_MIN has a magnitude too.
    unsigned long abs = off < 0 ? 0ul - static_cast<unsigned long>(off) : static_cast<unsigned long>(off);
    m_siTimeZoneUTCHours = static_cast<int32_t>(abs / 3600);
    m_siTimeZoneMinutes = static_cast<int32_t>(abs % 3600 / 60);
    snprintf_s(utcoff, 32, "%c%02d:%02d", static_cast<char>(m_siTimeZoneOffsetDir), m_siTimeZoneUTCHours,
               m_siTimeZoneMinutes);
}

int32_t tovi_time_gettz(char *utcoff, char *zonename, char *style)
{
    time_t now = time(nullptr);
    tzset();
    std::tm tm{};
    if (localtime_r(&now, &tm) == nullptr) {
        TOVI_LOG(tovi::log::kError, "Get local time failed.");
        return -1;
    }
    if (tm.tm_zone != nullptr && std::strcmp(tm.tm_zone, "UTC") == 0) {
        tovi_time_setforutc(utcoff, zonename, style);
        if (style != nullptr)  // the current abbreviation, not the zone before's
            snprintf_s(m_ascTimeZoneStyle, sizeof m_ascTimeZoneStyle, "%s", "UTC");
        return 0;
    }
    if (tm.tm_isdst == 1)
        tm.tm_gmtoff = -timezone;  // the standard offset
    tovi_time_setzoneutc(utcoff, &tm);
    if (tovi_time_getzonename(zonename) != 0)
        return -1;
    if (style != nullptr) {
        snprintf_s(style, 32, "%s", tm.tm_zone);
        snprintf_s(m_ascTimeZoneStyle, sizeof m_ascTimeZoneStyle, "%s", tm.tm_zone);
    }
    return 0;
}

int32_t tovi_time_getzonename(char *buf) { return tovi_zonename_get_shell(buf); }

int32_t time_query_dst_for_localtime(const time_t *t, uint32_t *isdst)
{
    if (isdst == nullptr) {
        TOVI_LOG(tovi::log::kError, "The input DST flag pointor is NULL.");
        return -22;
    }
    time_t when = t != nullptr ? *t : time(nullptr);
    if (when < 0) {
        TOVI_LOG(tovi::log::kError, "Get system time failed.");
        return -1;
    }
    std::tm tm{};
    if (localtime_r(&when, &tm) == nullptr) {
        TOVI_LOG(tovi::log::kError, "Get localtime failed.");
        return -1;
    }
    *isdst = static_cast<uint32_t>(tm.tm_isdst);
    return 0;
}

int32_t tovi_time_process_gmtoff(struct tm *tm)
{
    uint32_t isdst = 0;
    if (time_query_dst_for_localtime(nullptr, &isdst) != 0) {
        TOVI_LOG(tovi::log::kError, "Can not get dst flag!");
        return -1;
    }
    if (isdst == 0 || tm == nullptr)
        return 0;
    char begin[kCmdMax], end[kCmdMax];
    uint32_t minutes = 0, reserved = 0;
    if (tovi_time_querydstconf(begin, end, &minutes, &reserved) != 0) {
        TOVI_LOG(tovi::log::kError, "Can not get dst info for dstOffset!");
        return -1;
    }
    tm->tm_gmtoff = static_cast<long>(static_cast<unsigned long>(tm->tm_gmtoff) - minutes * 60ul);  // wraps, never overflows
    return 0;
}

int32_t tovi_time_querydstconf(char *begin, char *end, uint32_t *dstMinutes, uint32_t *reserved)
{
    if (begin == nullptr || end == nullptr || dstMinutes == nullptr)
        return -1;
    char cmd[kCmdMax], out[kCmdMax];
    snprintf_s(cmd, sizeof cmd, "%s %s", kScript, "querydstinfo");
    int32_t rc = run_script(out, cmd);
    if (rc != 0) {
        TOVI_LOG(tovi::log::kError, "Get DST config info failed, return value is %d.", rc);
        return -1;
    }
    strncpy_s(begin, kCmdMax, out, 14);
    strncpy_s(end, kCmdMax, std::strlen(out) > 14 ? out + 14 : "", 14);
    std::tm tm{};
    tzset();
    long shift = local_now(&tm) == 0 ? (tm.tm_gmtoff + timezone) / 60 : 0;
    *dstMinutes = static_cast<uint32_t>(shift < 0 ? -shift : shift);
    if (reserved != nullptr)
        *reserved = 0;
    return 0;
}

int32_t tovi_filter_special_character(const char *s)
{
    if (s == nullptr)
        return -1;
    return s[std::strcspn(s, ";<$&\\|`>!\n")] != '\0' ? -1 : 0;
}

int32_t tovi_time_query_dstforregion(const char *zone, uint32_t *dstFlag)
{
    if (dstFlag == nullptr) {
        TOVI_LOG(tovi::log::kError, "The input DST flag pointor is NULL.");
        return -22;
    }
    if (zone == nullptr) {
        TOVI_LOG(tovi::log::kError, "The input timezone name pointor is NULL.");
        return -22;
    }
    if (tovi_filter_special_character(zone) != 0) {
        TOVI_LOG(tovi::log::kError, "Input param timeZoneName is invalid.");
        return -1;
    }
    char cmd[kCmdMax], out[kCmdMax];
    if (!tovi::formatted(snprintf_s(cmd, sizeof cmd, "%s %s \"%s\"", kScript, "querydstforregion", zone), sizeof cmd))
        return cmd_too_long(sizeof cmd);
    int32_t rc = run_script(out, cmd);
    if (rc != 0) {
        TOVI_LOG(tovi::log::kError, "Get DST info failed, return value is %d.", rc);
        return -1;
    }
    *dstFlag = static_cast<uint32_t>(std::strtoul(out, nullptr, 10));
    return 0;
}

int32_t tovi_time_query_dstconfinfoforregion(const char *zone, char *begin, char *end, uint32_t *offset,
                                              uint32_t *second)
{
    if (zone == nullptr || begin == nullptr || end == nullptr || offset == nullptr || second == nullptr) {
        TOVI_LOG(tovi::log::kError, "Input param is NULL.");
        return -1;
    }
    if (tovi_filter_special_character(zone) != 0) {
        TOVI_LOG(tovi::log::kError, "Input param timeZoneName is invalid.");
        return -1;
    }
    char cmd[kCmdMax], out[kCmdMax] = "";
    if (!tovi::formatted(snprintf_s(cmd, sizeof cmd, "%s %s \"%s\"", kScript, "querydstinfoforregion", zone), sizeof cmd))
        return cmd_too_long(sizeof cmd);
    int32_t rc = run_script(out, cmd);
    if (rc != 0) {
        TOVI_LOG(tovi::log::kError, "Get DST config info failed, return value is %d.", rc);
        return -1;
    }
    std::memcpy(begin, out, 14);
    std::memcpy(end, out + 14, 14);
    *offset = static_cast<uint32_t>(std::strtoul(out + 28, nullptr, 10));
    return 0;
}

int32_t tovi_time_query_dstconfforregion(const char *zone, tovi_dst_rules_s *rules)
{
    if (zone == nullptr || rules == nullptr) {
        TOVI_LOG(tovi::log::kError, "Input param is NULL.");
        return -1;
    }
    if (tovi_filter_special_character(zone) != 0) {
        TOVI_LOG(tovi::log::kError, "Input param timeZoneName is invalid.");
        return -1;
    }
    std::memset(rules, 0, sizeof *rules);
    std::tm tm{};
    local_now(&tm);
    char cmd[kCmdMax], out[kCmdMax];
    if (!tovi::formatted(snprintf_s(cmd, sizeof cmd, "%s %s \"%s\" %d", kScript, "querydstinfoforcurrentyear", zone,
                              tm.tm_year + 1900),
                   sizeof cmd))
        return cmd_too_long(sizeof cmd);
    if (run_script(out, cmd) != 0) {
        TOVI_LOG(tovi::log::kError, "Get DST config info failed.");
        return -1;
    }
    char *save = nullptr;
    for (char *tok = strtok_r(out, "\n", &save); tok != nullptr && rules->count < 5;
         tok = strtok_r(nullptr, "\n", &save)) {
        if (std::strlen(tok) < 38) {
            if (rules->count == 0)
                return 0;
            TOVI_LOG(tovi::log::kError, "Get DST config info failed, result is %s.", tok);
            return -1;
        }
        tovi_dst_rule_s &r = rules->rule[rules->count++];
        std::memcpy(r.begin, tok, 19);
        std::memcpy(r.end, tok + 19, 19);
        r.offset = static_cast<uint32_t>(std::strtoul(tok + 38, nullptr, 10));
    }
    return 0;
}

int32_t tovi_time_settz(const char *zone)
{
    int32_t rc = tovi_timezone_set_shell(zone);
    if (rc != 0) {
        TOVI_LOG(tovi::log::kError, "Set timezone failed, return value is %d.", rc);
        return rc;
    }
    time_echo_timeinfotoproc();
    sync_timezone_to_kernel();
    return 0;
}

int32_t tovi_time_settime(const time_t *t)
{
    if (t == nullptr || *t < 1 || *t > 3124223999) {
        TOVI_LOG(tovi::log::kError, "Input time param is error.");
        return -1;
    }
    std::tm tm{};
    if (gmtime_r(t, &tm) == nullptr) {
        TOVI_LOG(tovi::log::kError, "Convert to GMT time failed.");
        return -1;
    }
    if (tm.tm_year > 99)
        tm.tm_year -= 100;  // the RTC command takes a two-digit year
    char cmd[kCmdMax];
    snprintf_s(cmd, sizeof cmd, "%s%02d%s%02d%s%02d %02d%s%02d%s%02d -0%s", "hwclock --set --utc --date=\"",
               tm.tm_mon + 1, "/", tm.tm_mday, "/", tm.tm_year, tm.tm_hour, ":", tm.tm_min, ":", tm.tm_sec, "\"");
    int32_t rc = tovi_system_s(cmd, nullptr);
    if (rc != 0) {
        TOVI_LOG(tovi::log::kError, "Set RTC failed, return value is %d.", rc);
        return -1;
    }
    rc = tovi_system_s("hwclock  --utc --hctosys", nullptr);
    for (int retry = 0; rc != 0 && retry < 3; ++retry) {
        usleep(500000);
        rc = tovi_system_s("hwclock  --utc --hctosys", nullptr);
    }
    if (rc != 0) {
        TOVI_LOG(tovi::log::kError, "Sync time from RTC to system failed, return value is %d.", rc);
        return -1;
    }
    time_echo_timeinfotoproc();
    sync_timezone_to_kernel();
    return 0;
}

}  // extern "C"
