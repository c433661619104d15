// tovictl time: the clocks as the library reads them, the zone, whether DST
// is in effect, and the next transitions of the zone table the kernel side
// would be given.
//
//   tovictl time [ZONE]
//
// Without ZONE the host's zone: the /etc/localtime link, else the library's
// sources in their order (timedatectl first); with ZONE that zone stands in
// for this process.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>

#include "tovi_process.h"
#include "tovi_timezone.hpp"

namespace {

constexpr int kShown = 4;

std::string text_of(uint64_t seconds)
{
    char buf[64];
    tovi_time_asctime(&seconds, buf, sizeof buf);
    return buf;
}

// The zone's table as zdump's lines fill it; false when zdump cannot run.
bool table_of(const std::string &zone, tovi_tz_table_s *table)
{
    FILE *f = tovi_popen_s(("zdump -v " + zone).c_str(), "r", nullptr);
    if (f == nullptr)
        return false;
    char line[128];
    tovi::timezone::ZdumpLine parsed;
    bool filling = true;  // read to the end all the same: zdump must not die of a closed pipe
    while (std::fgets(line, sizeof line, f) != nullptr)
        if (filling && std::strstr(line, "= NULL") == nullptr)
            filling = tovi::timezone::read_dst_line(line, &parsed) && tovi::timezone::table_add(table, parsed);
    return tovi_pclose(f) == 0;
}

}  // namespace

int tovictl_time(int argc, char **argv)
{
    if (argc > 1) {
        std::fprintf(stderr, "tovictl: time: unexpected '%s' (usage: tovictl time [ZONE])\n", argv[1]);
        return 2;
    }
    char zone[64] = "";
    struct stat st {};
    if (argc == 1) {
        std::string file = std::string("/usr/share/zoneinfo/") + argv[0];
        if (tovi_filter_special_character(argv[0]) != 0 || std::strstr(argv[0], "..") != nullptr ||
            stat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || std::strlen(argv[0]) >= sizeof zone) {
            std::fprintf(stderr, "tovictl: time: no zone '%s' in /usr/share/zoneinfo\n", argv[0]);
            return 1;
        }
        std::strcpy(zone, argv[0]);
        setenv("TZ", zone, 1);
    } else if (tovi_zonename_get_by_soft_link(zone, sizeof zone) != 0 && tovi_zonename_get(zone) != 0) {
        std::strcpy(zone, "UTC");
    }
    tzset();
    uint64_t utc = tovi_time_gettime(nullptr), local = tovi_time_getlocaltime(nullptr);
    time_t now = static_cast<time_t>(utc);
    std::tm tm{};
    localtime_r(&now, &tm);
    uint32_t isdst = 0;
    time_query_dst_for_localtime(&now, &isdst);
    long off = tm.tm_gmtoff < 0 ? -tm.tm_gmtoff : tm.tm_gmtoff;
    std::printf("UTC:    %s (%llu)\n", text_of(utc).c_str(), static_cast<unsigned long long>(utc));
    std::printf("local:  %s\n", text_of(local).c_str());
    std::printf("zone:   %s (%s, UTC%c%02ld:%02ld)\n", zone, tm.tm_zone, tm.tm_gmtoff < 0 ? '-' : '+', off / 3600,
                off % 3600 / 60);
    std::printf("DST:    %s\n", isdst != 0 ? "in effect" : "not in effect");
    static tovi_tz_table_s table;
    if (!table_of(zone, &table)) {
        std::fprintf(stderr, "tovictl: time: zdump -v %s failed\n", zone);
        return 1;
    }
    std::printf("table:  %u transitions\n", table.count);
    int shown = 0;
    for (uint32_t i = 0; i < table.count && shown < kShown; ++i) {
        const tovi_tz_transition_s &t = table.transition[i];
        if (t.utc <= static_cast<int64_t>(utc))
            continue;
        long abs = t.gmtoff < 0 ? -t.gmtoff : t.gmtoff;
        std::printf("next:   %s UTC  UTC%c%02ld:%02ld\n", text_of(static_cast<uint64_t>(t.utc)).c_str(),
                    t.gmtoff < 0 ? '-' : '+', abs / 3600, abs % 3600 / 60);
        ++shown;
    }
    if (shown == 0)
        std::printf("next:   none\n");
    return 0;
}
