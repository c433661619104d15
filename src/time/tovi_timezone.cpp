// Setting the zone (platform script, timedatectl or the /etc/localtime link)
// and finding its name.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_fileops.h"
#include "tovi_process.h"
#include "tovi_timezone.hpp"
#define TOVI_LOG_SOURCE "tovi_timezone"
#include "tovi_log.hpp"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr const char *kLocaltime = "/etc/localtime";
constexpr const char *kZoneDir = "/usr/share/zoneinfo/";
constexpr const char *kZoneConf = "/ZSR/conf/time_zone.conf";
constexpr size_t kNameMax = 64;

}  // namespace

extern "C" {

int32_t tovi_timezone_set_shell(const char *zone)
{
    if (zone == nullptr) {
        TOVI_LOG(kError, "Input timezone name pointor is NULL.");
        return -22;
    }
    char cmd[256];
    int n = snprintf_s(cmd, sizeof cmd, "%s %s \"%s\"", tovi::timezone::kScript, "settimezone", zone);
    if (!tovi::formatted(n, sizeof cmd)) {
        TOVI_LOG(kError, "Settimezone cmd snprintf_s failed, return %d.", n);
        return -1;
    }
    int32_t rc = tovi_system_s(cmd, nullptr);
    if (rc != 0) {
        TOVI_LOG(kError, "Set timezone failed, return value is %d.", rc);
        return -1;
    }
    tzset();
    n = snprintf_s(cmd, sizeof cmd, "%s %s \"%s\"", tovi::timezone::kScript, "synctimezone", zone);
    if (!tovi::formatted(n, sizeof cmd)) {
        TOVI_LOG(kError, "Synctimezone cmd snprintf_s failed, return %d.", n);
        return -1;
    }
    rc = tovi_system_s(cmd, nullptr);
    if (rc != 0) {
        TOVI_LOG(kError, "synctimezone failed, return value is %d.", rc);
        return -1;
    }
    return 0;
}

int32_t tovi_timezone_set(const char *zone)
{
    if (zone == nullptr) {
        TOVI_LOG(kError, "Input timezone name pointor is NULL.");
        return -22;
    }
    if (isDangerousCmd(zone, nullptr) != 0) {
        TOVI_LOG(kError, "Param error: pscTimeZoneName(%s) is dangerous.", zone);
        return -22;
    }
    char cmd[512];
    // The buffer is emptied when the name does not fit, and an empty command succeeds.
    if (!tovi::formatted(snprintf_s(cmd, sizeof cmd, "timedatectl set-timezone %s", zone), sizeof cmd)) {
        TOVI_LOG(kError, "snprintf_s secure function failed, destMax<%lu>, count<%lu>.", sizeof cmd, sizeof cmd - 1);
        return -1;
    }
    if (tovi_system_s(cmd, nullptr) == 0) {
        TOVI_LOG(kInfo, "timedatectl cmd success.");
        tzset();
        return 0;
    }
    struct stat st {};
    if (lstat(kLocaltime, &st) != 0) {
        TOVI_LOG(kError, "Cannot find %s file.", kLocaltime);
        return -2;
    }
    char file[kNameMax];
    int n = snprintf_s(file, sizeof file, "%s%s", kZoneDir, zone);
    if (!tovi::formatted(n, sizeof file)) {
        TOVI_LOG(kError, "Zone_info_file snprintf failed, return %d.", n);
        return -1;
    }
    if (stat(file, &st) != 0 || !S_ISREG(st.st_mode)) {
        TOVI_LOG(kError, "Cannot find %s timezone file.", file);
        return -2;
    }
    snprintf_s(cmd, sizeof cmd, "rm -rf %s\nln -s %s %s", kLocaltime, file, kLocaltime);
    int32_t rc = tovi_system_s(cmd, "\n");
    if (rc != 0) {
        TOVI_LOG(kError, "Set timezone failed, return value is %d.", rc);
        return -1;
    }
    tzset();
    return 0;
}

int32_t tovi_zonename_get_shell(char *buf)
{
    if (buf == nullptr)
        return 0;
    char cmd[256];
    snprintf_s(cmd, sizeof cmd, "%s %s", tovi::timezone::kScript, "gettimezone");
    int32_t rc = tovi_system_s(cmd, nullptr);
    if (rc != 0) {
        TOVI_LOG(kError, "Get timezone failed, return value is %d.", rc);
        return -1;
    }
    FILE *f = tovi::timezone::open_regular(kZoneConf);
    if (f == nullptr) {
        TOVI_LOG(kError, "Open timezone config file (%s) failed.", kZoneConf);
        return -1;
    }
    char line[256];
    bool got = std::fgets(line, sizeof line, f) != nullptr;
    std::fclose(f);
    if (!got) {
        TOVI_LOG(kError, "Get timezone name from config file failed.");
        return -1;
    }
    tovi_cmd_rm(kZoneConf);
    line[std::strcspn(line, "\r\n")] = '\0';  // the name, without its line end
    int n = sprintf_s(buf, kNameMax, "%s", line);
    if (!tovi::formatted(n, kNameMax)) {
        TOVI_LOG(kError, "PscTimeZoneName sprintf_s failed,return %d.", n);
        return -1;
    }
    return tovi_time_zone_name_set(buf, static_cast<uint32_t>(n)) == 0 ? 0 : -1;
}

int32_t tovi_zonename_get_by_timedatectl(char *buf, uint32_t len)
{
    if (buf == nullptr || len == 0)
        return -1;
    FILE *f = tovi_popen_s("timedatectl | grep \"Time zone\" | awk '{print $3}'", "r", "$|");
    if (f == nullptr) {
        TOVI_LOG(kError, "Timedatectl may not be installed on this env.");
        return -1;
    }
    size_t n = std::fread(buf, 1, len, f);
    tovi_pclose(f);
    if (n == 0) {
        TOVI_LOG(kError, "Result of Timedatectl is null.");
        return -1;
    }
    buf[n - 1] = '\0';  // the line end, or the last byte that fits
    if (buf[0] == '\0') {
        TOVI_LOG(kError, "Timedatectl return null.");
        return -1;
    }
    return 0;
}

int32_t tovi_zonename_get_by_soft_link(char *buf, uint32_t len)
{
    if (buf == nullptr)
        return -1;
    // One byte more than a target may have, to tell a longer one (cut by readlink) apart.
    char target[257];
    ssize_t n = readlink(kLocaltime, target, sizeof target - 1);
    if (n <= 0 || n > 255)
        return -1;
    target[n] = '\0';
    const char *at = std::strstr(target, kZoneDir);
    if (at == nullptr)
        return -1;
    int rc = sprintf_s(buf, len, "%s", at + std::strlen(kZoneDir));
    if (!tovi::formatted(rc, len)) {
        TOVI_LOG(kError, "Zonename_get_by_soft_link sprintf_s failed, return %d.", rc);
        return -1;
    }
    return 0;
}

int32_t tovi_zonename_get_by_sysconfig(char *buf, uint32_t len)
{
    // Any way this source fails is reported: it is the last one asked.
    int rc = -1;
    FILE *f = buf != nullptr ? tovi::timezone::open_regular("/etc/sysconfig/clock") : nullptr;
    char line[256];
    while (f != nullptr && std::fgets(line, sizeof line, f) != nullptr) {
        char *first = std::strchr(line, '"'), *last = std::strrchr(line, '"');
        if (std::strstr(line, "DEFAULT_TIMEZONE") == nullptr || first == nullptr || first == last)
            continue;
        *last = '\0';
        rc = snprintf_s(buf, len, "%s", first + 1);
        rc = tovi::formatted(rc, len) ? rc : -1;
        break;
    }
    if (f != nullptr)
        std::fclose(f);
    if (rc < 0) {
        TOVI_LOG(kError, "Zonename_get_by_sysconfig failed,  return %d.", rc);
        return -1;
    }
    return 0;
}

int32_t tovi_zonename_get(char *buf)
{
    using Source = int32_t (*)(char *, uint32_t);
    static constexpr Source kSources[] = {tovi_zonename_get_by_timedatectl, tovi_zonename_get_by_soft_link,
                                          tovi_zonename_get_by_sysconfig};
    if (buf == nullptr)
        return -1;
    for (Source source : kSources) {
        char name[kNameMax] = "";
        if (source(name, sizeof name) == 0)
            return snprintf_s(buf, kNameMax, "%s", name) < 0 ? -1 : 0;
    }
    return -1;
}

}  // extern "C"
