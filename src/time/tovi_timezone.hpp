// Internals of the zone layer: the script runner, the kernel push and the
// zdump reader behind it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "tovi_format.hpp"
#include "tovi_timezone.h"

namespace tovi::timezone {

inline constexpr const char *kScript = "/ZSR/script/os_get_tmtz.sh";
inline constexpr const char *kProcFile = "/proc/kar/timezone";
inline constexpr const char *kCacheDir = "/var/run/timezone";
// Transitions after this moment (2037-12-31 23:59:59 UTC) are not kept.
inline constexpr int64_t kTableEnd = 2145916799;

// Runs cmd with its exit status marked by "zumshell"; the output goes to
// out (outLen bytes, may be NULL: then any output is a failure). The status,
// -1, or -7 for a command too long to wrap.
int32_t time_popen_shell(const char *cmd, char *out, uint32_t outLen);

// Tells the platform script the current zone ("tokproc"). 0 or -1.
int32_t time_echo_timeinfotoproc();

// Pushes the current zone's transitions to the kernel side. 0 or -1.
int32_t sync_timezone_to_kernel();

// One line of "zdump -v" output.
struct ZdumpLine {
    std::tm utc{};
    std::tm local{};
    char abbr[32]{};
    int32_t isdst = 0;
    int32_t gmtoff = 0;
};

// Parses one zdump line; false (logged) unless all 19 fields are there.
bool read_dst_line(const char *line, ZdumpLine *out);

// Adds a parsed line to the table; false once the table is complete.
bool table_add(tovi_tz_table_s *table, const ZdumpLine &line);

// The cache file of a zone: "/var/run/timezone/<name>" with '/' after the
// first 17 characters turned into '_'. False when it does not fit.
bool cache_path(const char *zone, char *path, size_t size);

// Opens a regular file to read ("re"); NULL (errno set) for anything else:
// a FIFO with no writer would hold the caller up for good, a directory
// reads as an empty file.
FILE *open_regular(const char *path);

// Seconds since 1970 of a broken-down UTC time (no zone data).
int64_t utc_seconds(const std::tm &tm);

}  // namespace tovi::timezone
