// The kernel zone table: the zone's transitions from zdump, cached per zone
// under /var/run/timezone, pushed with ioctl 902 on /proc/kar/timezone.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_companion.hpp"
#include "tovi_mem.h"
#include "tovi_process.h"
#include "tovi_scope.hpp"
#include "tovi_timezone.hpp"
#define TOVI_LOG_SOURCE "tovi_time"
#include "tovi_log.hpp"

namespace tovi::timezone {
namespace {

constexpr size_t kPathMax = 256;

// Fills the table from the cache file: 0, or -1 when the file cannot be read
// or yields no transition before a line it cannot parse.
int32_t read_timezone_file(const char *path, tovi_tz_table_s *table)
{
    FILE *f = open_regular(path);
    if (f == nullptr)
        return -1;
    ScopeExit close_file([f] { std::fclose(f); });
    char line[128];
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::strstr(line, "= NULL") != nullptr)
            continue;
        ZdumpLine parsed;
        if (!read_dst_line(line, &parsed)) {
            TOVI_LOG(log::kError, "%s: read_dst_line fail, (%s).", __func__, line);
            return table->count == 0 ? -1 : 0;
        }
        if (!table_add(table, parsed))
            return 0;
    }
    // A read error before any transition would otherwise pass for a zone without any.
    return std::ferror(f) != 0 && table->count == 0 ? -1 : 0;
}

}  // namespace

// Every message of the push carries this function's name: the operator
// greps for it, whichever step failed.
int32_t sync_timezone_to_kernel()
{
    auto *table = static_cast<tovi_tz_table_s *>(
        tovi_mallocsubstandard(TOVI_MODULE_ID, sizeof(tovi_tz_table_s), 0, __func__, __LINE__));
    if (table == nullptr) {
        TOVI_LOG(log::kError, "allocing memory failed.");
        return -1;
    }
    ScopeExit free_table([table] { tovi_freesub(table, "sync_timezone_to_kernel", __LINE__); });
    std::memset(table, 0, sizeof *table);
    char zone[64] = "", path[kPathMax];
    if (tovi_zonename_get_shell(zone) != 0)
        return -1;
    // A blank would split the name in the zdump command: another zone's cache
    // file would be written with both zones' lines and stand for it from then on.
    if (isDangerousCmd(zone, nullptr) != 0 || std::strpbrk(zone, " \t") != nullptr) {
        TOVI_LOG(log::kError, "Param error: timezone_name(%s) is dangerous.", zone);
        return -1;
    }
    if (!cache_path(zone, path, sizeof path)) {
        TOVI_LOG(log::kError, "Path snprintf failed, return %d.", -1);
        return -1;
    }
    if (access(kCacheDir, F_OK) != 0)
        mkdir(kCacheDir, 0755);
    if (access(path, F_OK) != 0) {
        char cmd[2 * kPathMax];
        int n = snprintf_s(cmd, sizeof cmd, "zdump -v %s > %s 2>/dev/kmsg", zone, path);
        if (n < 0) {
            TOVI_LOG(log::kError, "Cmd snprintf failed, return %d.", n);
            return -1;
        }
        int32_t rc = tovi_system_s(cmd, ">");
        if (rc != 0) {
            // A partial file would stand for the zone from then on.
            TOVI_LOG(log::kError, "zdump fail %d.", rc);
            unlink(path);
        }
    }
    if (access(path, F_OK) == 0) {
        int32_t rc = read_timezone_file(path, table);
        if (rc != 0) {
            TOVI_LOG(log::kError, "%s: read_timezone_file fail, %d.", __func__, rc);
            return -1;
        }
    }
    if (table->count == 0) {
        tzset();
        time_t now = time(nullptr);
        std::tm tm{};
        if (now < 0) {
            TOVI_LOG(log::kError, "Get time failed.\n");
            return -1;
        }
        if (localtime_r(&now, &tm) == nullptr) {
            TOVI_LOG(log::kError, "Gmtime is null.\n");
            return -1;
        }
        table->noTransition = 1;
        table->gmtoff = tm.tm_gmtoff;
    }
    companion::ControlFile file;
    if (companion::control_open(kProcFile, &file) != 0) {
        TOVI_LOG(log::kError, "%s: NUBO_open fail, %d\n", __func__, errno);
        return -1;
    }
    long rc = companion::control_ioctl(file, TOVI_TZ_IOCTL, table);
    int err = errno;
    companion::control_close(&file);
    if (rc < 0) {
        TOVI_LOG(log::kError, "%s: ioctl fail, %d, error:%d.", __func__, static_cast<int>(rc), err);
        return -1;
    }
    return 0;
}

}  // namespace tovi::timezone
