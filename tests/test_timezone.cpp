// Time zones and DST: calendar arithmetic against glibc, the DST rules, the zdump reader and the pushed table's clock
// reads, and zone and time setting under a private root with a fake platform script, timedatectl and hwclock.
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_companion.hpp"
#include "tovi_rtcsim.h"
#include "tovi_timezone.hpp"

using namespace tovi::test;
using Texts = std::vector<std::string>;

namespace {

std::tm tm_of(int year, int month, int day, int hour)
{
    std::tm tm{};
    tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day, tm.tm_hour = hour;
    return tm;
}

void set_tz(const char *zone) { zone != nullptr ? setenv("TZ", zone, 1) : unsetenv("TZ"), tzset(); }

// The table the kernel side would get for `zone`, from this host's zdump.
tovi_tz_table_s table_of(const char *zone)
{
    tovi_tz_table_s t{};
    FILE *f = popen((std::string("zdump -v ") + zone).c_str(), "r");
    char line[128];
    tovi::timezone::ZdumpLine z;
    while (f != nullptr && fgets(line, sizeof line, f) != nullptr)
        if (strstr(line, "= NULL") == nullptr && (!tovi::timezone::read_dst_line(line, &z) || !tovi::timezone::table_add(&t, z)))
            break;
    return f != nullptr ? pclose(f) : 0, t;
}

void push(tovi_tz_table_s *t)
{
    tovi::companion::ControlFile file;
    ASSERT_EQ(tovi::companion::control_open(tovi::timezone::kProcFile, &file), 0);
    ASSERT_EQ(tovi::companion::control_ioctl(file, TOVI_TZ_IOCTL, t), 0);
    tovi::companion::control_close(&file);
}

}  // namespace

// Seconds to date against gmtime_r and back against timegm, over random instants to the year 5000 and the edges.
TEST(Timezone, CalendarMatchesGlibc)
{
    std::mt19937_64 rng(18);
    std::vector<int64_t> when = {0, 59, 86399, 951782400, 951868799, 4107542399, 4107542400, 95649120000 - 1};
    for (int y = 1970; y < 5001; y += 97) {
        std::tm end = tm_of(y, 12, 31, 23);
        when.push_back(timegm(&end) + 3599);
    }
    for (int i = 0; i < 20000; ++i)
        when.push_back(static_cast<int64_t>(rng() % 95649120000));
    for (int64_t s : when) {
        std::tm g{};
        time_t tt = s;
        gmtime_r(&tt, &g);
        uint64_t u = static_cast<uint64_t>(s);
        TOVI_DATE_TIME_S r{};
        tovi_time_gmtime(&u, &r);
        ASSERT_EQ(std::vector<uint32_t>({r.second, r.minute, r.hour, r.day, r.month, r.year, r.weekday}),
                  std::vector<uint32_t>({uint32_t(g.tm_sec), uint32_t(g.tm_min), uint32_t(g.tm_hour), uint32_t(g.tm_mday),
                                         uint32_t(g.tm_mon + 1), uint32_t(g.tm_year + 1900), uint32_t(g.tm_wday)})) << s;
        ASSERT_EQ(tovi_time_mktime(&r), u) << s;
    }
    // From 5001 the year wraps to 1970-01-01, keeping the time of day; a negative instant is the epoch.
    uint64_t cap = 95649120000 + 3723, neg = static_cast<uint64_t>(-5);
    TOVI_DATE_TIME_S r{};
    tovi_time_gmtime(&cap, &r);
    EXPECT_EQ(std::vector<uint32_t>({r.hour, r.minute, r.second, r.day, r.month, r.year}), std::vector<uint32_t>({1, 2, 3, 1, 1, 1970}));
    tovi_time_gmtime(&neg, &r);
    EXPECT_EQ(std::vector<uint32_t>({r.second, r.day, r.year, r.weekday}), std::vector<uint32_t>({0, 1, 1970, 4}));
    char buf[32], small[8];
    uint64_t zero = 0;
    tovi_time_asctime(&zero, buf, sizeof buf), tovi_time_asctime(&zero, small, sizeof small);
    EXPECT_EQ(std::string(buf) + "|" + small, "Thu Jan 1  00:00:00 1970|Thu Jan");
}

// The line setters and the DST test on stored rules: northern and year-wrapping rules, the flag, short dates.
TEST(Timezone, StoredDstRules)
{
    LogCapture cap;
    const std::pair<int32_t (*)(const char *), const char *> lines[] = {
        {tovi_time_settzname, "TimeZoneName=Europe/Paris"}, {tovi_time_settzstyle, "TimeZoneSty=CET"},
        {tovi_time_setutcoffsetH, "UTCOffHours=1"}, {tovi_time_setutcoffsetM, "UTCOffMins=0"},
        {tovi_time_setutcoffsetD, "UTCOffDir=+"}, {tovi_time_setdstflag, "DstFlag=1"}, {tovi_time_setdstoffsetM, "DstMinOffSet=60"}};
    for (auto [set, line] : lines)
        EXPECT_EQ(set(line), 0) << line;
    EXPECT_EQ(std::vector<int>({tovi_time_settzname("TimeZoneSty=X"), tovi_time_setutcoffsetH("UTCOffHours="), tovi_time_setdstflag(nullptr),
                               tovi_zonename_get_shell(nullptr)}),
              std::vector<int>({-1, -1, -1, 0}));
    EXPECT_EQ(std::string(m_stTZInfo.name) + m_stTZInfo.style + m_stTZInfo.utcOffDir + std::to_string(g_toviDstInfo.minutes), "Europe/ParisCET+60");
    struct Case { const char *begin, *end; int month, day, hour; int32_t rc; };
    const Case cases[] = {
        {"03-29 02:00:00", "10-25 03:00:00", 7, 1, 12, 0}, {"03-29 02:00:00", "10-25 03:00:00", 1, 10, 12, -1},
        {"03-29 02:00:00", "10-25 03:00:00", 3, 29, 0, -1},  // local 01:00, before the begin
        {"03-29 02:00:00", "10-25 03:00:00", 3, 29, 1, 0},   // local 02:00 is the begin
        {"03-29 02:00:00", "10-25 03:00:00", 10, 25, 0, 0},  // local 01:00, shifted 02:00 < 03:00
        {"03-29 02:00:00", "10-25 03:00:00", 10, 25, 1, -1}, // shifted 03:00 is the end
        {"10-01 02:00:00", "04-01 03:00:00", 12, 15, 12, 0}, {"10-01 02:00:00", "04-01 03:00:00", 2, 1, 12, 0},
        {"10-01 02:00:00", "04-01 03:00:00", 6, 1, 12, -1}, {"10-01 02:00", "04-01 03:00:00", 12, 15, 12, -1},
    };
    for (const Case &c : cases) {
        tovi_time_setdstbegintime((std::string("DstBeginTime=") + c.begin).c_str()), tovi_time_setdstendtime((std::string("DstEndTime=") + c.end).c_str());
        std::tm tm = tm_of(2024, c.month, c.day, c.hour);
        EXPECT_EQ(tovi_time_ckdst(1, static_cast<uint64_t>(timegm(&tm))), c.rc) << c.begin << " " << c.month << "-" << c.day << " " << c.hour;
    }
    tovi_time_ckdst(1, 1);  // reported once only
    tovi_time_setdstflag("DstFlag=0");
    tovi_time_setdstbegintime("DstBeginTime=03-29 02:00:00");
    EXPECT_EQ(tovi_time_ckdst(1, 1720000000), -1);
    EXPECT_EQ(cap.texts(), Texts{"NUBO_CheckIsDSTTime: Date length is not enough."});
    EXPECT_EQ(std::string(m_ascTZName) + m_ascDstBeginTime, "Europe/Paris03-29 02:00:00");
}

// Offsets, the character filter and the runner's status marker.
TEST(Timezone, OffsetsFilterAndShell)
{
    LogCapture cap;
    for (auto [off, text] : {std::pair{0L, "-00:00"}, {-19800L, "-05:30"}, {28800L, "+08:00"}}) {
        std::tm tm{};
        tm.tm_gmtoff = off;
        char buf[32];
        tovi_time_setzoneutc(buf, &tm);
        EXPECT_EQ(buf, std::string(text));
    }
    EXPECT_EQ(std::vector<int>({m_siTimeZoneOffsetDir, m_siTimeZoneUTCHours, m_siTimeZoneMinutes}), std::vector<int>({'+', 8, 0}));
    for (auto [s, rc] : {std::pair{"", 0}, {"Asia/Ho_Chi_Minh", 0}, {"a\\b", -1}, {"a\nb", -1}, {"a!", -1}, {"x`", -1}, {"a<b", -1}})
        EXPECT_EQ(tovi_filter_special_character(s), rc) << s;
    char out[256];
    std::string big(214, 'x');
    struct Case { std::string cmd; bool with_out; int32_t rc; std::string out; };
    const Case cases[] = {{"printf 'one\\ntwo\\n'", true, 0, "one\ntwo\n"}, {"ls -d / /none-such", true, 2, "/\n"},
                          {"true", false, 0, ""}, {"ls /none-such", false, -1, ""}, {"echo x | cat", false, -1, ""},
                          {big, false, -7, ""}, {"printf '%0300d\\n'", true, 0, std::string(255, '0')}, {"false" + std::string(208, ' '), false, 1, ""}};
    for (const Case &c : cases) {
        out[0] = '\0';
        EXPECT_EQ(tovi::timezone::time_popen_shell(c.cmd.c_str(), c.with_out ? out : nullptr, sizeof out), c.rc) << c.cmd;
        EXPECT_EQ(std::string(c.with_out ? out : ""), c.out) << c.cmd;
    }
    EXPECT_EQ(tovi_time_zone_name_set("Asia/Tokyo", 10) + tovi_time_zone_name_set(std::string(256, 'z').c_str(), 256), -1);
    EXPECT_EQ(m_ascTimeZoneName, std::string("Asia/Tokyo"));
    EXPECT_EQ(cap.texts(), (Texts{"Execute shell failed, flags is 1.", "Param error: pscCmd(echo x | cat) is dangerous.",
                                  "The input shell command string is too long.", "The length of output beyond 256.", "sprintf_s secure function failed, destMax<256>."}));
}

// zdump's lines become transitions: one entry for everything before 1970, then each change one second late, to the
// first after 2037; the pushed table answers local time as glibc does. Until a table is pushed, the process's zone.
TEST(Timezone, ZdumpTableAndClockReads)
{
    LogCapture cap;
    std::mt19937_64 rng(902);
    for (auto [zone, to2037] : {std::pair{"Europe/Berlin", true}, {"America/New_York", true}, {"Australia/Sydney", true},
                                {"Asia/Kolkata", false}, {"Asia/Shanghai", false}}) {
        tovi_tz_table_s t = table_of(zone);
        ASSERT_GT(t.count, 0u) << zone;
        EXPECT_LT(t.transition[0].utc, 1) << zone;
        EXPECT_TRUE(!to2037 || (t.transition[t.count - 1].utc > tovi::timezone::kTableEnd &&
                                t.transition[t.count - 2].utc <= tovi::timezone::kTableEnd)) << zone;
        const auto *bytes = reinterpret_cast<const uint8_t *>(&t);
        int64_t at16 = 0;
        int32_t at24 = 0, at28 = -1;
        memcpy(&at16, bytes + 16 + 16 * (t.count - 1), 8), memcpy(&at24, bytes + 24 + 16 * (t.count - 1), 4), memcpy(&at28, bytes + 28, 4);
        EXPECT_EQ(std::vector<int64_t>({at16, at24, at28}), std::vector<int64_t>({t.transition[t.count - 1].utc, t.transition[t.count - 1].gmtoff, 0}));
        // Berlin's spring change of 2024, a second late as zdump's lines give it.
        EXPECT_TRUE(std::string(zone) != "Europe/Berlin" ||
                    std::any_of(t.transition, t.transition + t.count, [](auto &e) { return e.utc == 1711846801 && e.gmtoff == 7200; }));
        push(&t);
        set_tz(zone);
        for (int i = 0; i < 3000; ++i) {
            time_t utc = static_cast<time_t>(rng() % 2145916800);
            std::tm tm{};
            localtime_r(&utc, &tm);
            ASSERT_EQ(tovi_time_getlocal_fromutc(uint64_t(utc)), uint64_t(utc + tm.tm_gmtoff)) << zone << " " << utc;
        }
    }
    uint64_t utc = 0, local = 0, dst = 0;
    local = tovi_time_getlocaltime(nullptr), utc = tovi_time_gettime(&utc);
    EXPECT_EQ(tovi_time_getdsttime(&dst), 0);
    EXPECT_NEAR(double(local - utc), 28800, 2);
    EXPECT_NEAR(double(dst - utc), 28800, 2);
    EXPECT_EQ(tovi_time_getlocal_fromutc(INT64_MAX), uint64_t(INT64_MAX) + 28800) << "wraps as unsigned";
    tovi::companion::user::timezone_table_reset();
    set_tz("Asia/Kolkata");
    EXPECT_EQ(tovi_time_getdst_fromutc(1000), 1000 + 19800u);
    set_tz(nullptr);
    tovi::timezone::ZdumpLine z;
    EXPECT_FALSE(tovi::timezone::read_dst_line("Europe/Berlin  Fri Mar 31 23:06:31 1893 UT = x", &z));
    EXPECT_TRUE(tovi::timezone::read_dst_line("X  Thu Jan 1 0:0:2147483647 -2147483648 UT = Thu Jan 1 0:0:0 1970 X isdst=0 gmtoff=0", &z));
    EXPECT_EQ(cap.texts(), Texts{"read_dst_line: sscanf_s fail, 10, Europe/Berlin  Fri Mar 31 23:06:31 1893 UT = x."});
}

namespace {

// A root of this child's own: the host's directories, a private /etc (the host's entries linked, /etc/localtime
// ours), /run and /ZSR, a file for /dev/kmsg, and PATH=/fakebin with a recording script, timedatectl and hwclock.
bool private_root()
{
    DIR *d = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0 && mkdir("/tmp/root", 0755) == 0 ? opendir("/") : nullptr;
    bool ok = d != nullptr;
    struct stat st;
    while (dirent *e = ok ? readdir(d) : nullptr) {
        std::string name = e->d_name, from = "/" + name, to = "/tmp/root/" + (name == "etc" ? "hostetc" : name);
        if (name != "." && name != ".." && name != "tmp" && stat(from.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            ok = mkdir(to.c_str(), 0755) == 0 && mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
    }
    ok = ok && closedir(d) == 0 && (d = opendir("/etc")) != nullptr;
    for (const char *dir : {"tmp", "etc", "etc/sysconfig", "fakebin", "ZSR", "ZSR/script", "ZSR/conf"})
        ok = ok && mkdir((std::string("/tmp/root/") + dir).c_str(), 0755) == 0;
    while (dirent *e = ok ? readdir(d) : nullptr)
        if (std::string n = e->d_name; n[0] != '.' && n != "localtime" && n != "sysconfig")
            ok = symlink(("/hostetc/" + n).c_str(), ("/tmp/root/etc/" + n).c_str()) == 0;
    ok = ok && closedir(d) == 0 && symlink("/usr/share/zoneinfo/Etc/UTC", "/tmp/root/etc/localtime") == 0;
    for (const char *tool : {"cat", "rm", "ln", "zdump", "grep", "awk", "ls"})
        ok = ok && symlink((std::string("/usr/bin/") + tool).c_str(), (std::string("/tmp/root/fakebin/") + tool).c_str()) == 0;
    ok = ok && write_file("/tmp/root/ZSR/script/os_get_tmtz.sh", R"S(#!/bin/sh
echo "$*" >> /tmp/calls
[ -e "/tmp/fail-$1" ] && exit 3
case "$1" in
gettimezone) cat /tmp/zone > /ZSR/conf/time_zone.conf ;;
settimezone) echo "$2" > /tmp/zone ;;
querydstforregion) echo 1 ;;
querydstinfo) echo '03-29 02:00:0010-25 03:00:00' ;;
querydstinfoforregion) echo '03-29 02:00:0010-25 03:00:0060' ;;
querydstinfoforcurrentyear) printf '%s\n' "$3-03-29 02:00:00$3-10-25 03:00:0060" "$3-03-30 02:00:00$3-10-26 03:00:0030" ;;
esac
)S", 0755) && write_file("/tmp/root/fakebin/timedatectl", R"S(#!/bin/sh
echo "timedatectl $*" >> /tmp/calls
[ "$1" = set-timezone ] && { [ -e /tmp/tdc-ok ]; exit $?; }
[ -e /tmp/tdc-zone ] && echo "                Time zone: $(cat /tmp/tdc-zone) (CST, -0600)"
exit 0
)S", 0755) && write_file("/tmp/root/fakebin/hwclock", R"S(#!/bin/sh
echo "hwclock $*" >> /tmp/calls
n=$(cat /tmp/hw-fail 2>/dev/null || echo 0)
case "$*" in *hctosys*) [ "$n" -gt 0 ] && { echo $((n - 1)) > /tmp/hw-fail; exit 1; } ;; esac
[ -z "$HWCLOCK_SIM" ] || exec "$HWCLOCK_SIM" "$@"
exit 0
)S", 0755) && write_file("/tmp/root/tmp/kmsg", "");
    return ok && mount("tmpfs", "/tmp/root/run", "tmpfs", 0, nullptr) == 0 &&
           mount("/tmp/root/tmp/kmsg", "/tmp/root/dev/kmsg", nullptr, MS_BIND, nullptr) == 0 && chroot("/tmp/root") == 0 &&
           chdir("/") == 0 && setenv("PATH", "/fakebin", 1) == 0 && setenv("TZ", "Asia/Kolkata", 1) == 0
#ifdef TOVI_HWCLOCK_SIM  // the commands let through reach the simulated clock module, in /tmp/rtc
           && setenv("HWCLOCK_SIM", TOVI_HWCLOCK_SIM, 1) == 0 && setenv("TOVI_RTCSIM_STATE", "/tmp/rtc", 1) == 0
#endif
        ;
}

void in_private_root(const std::function<std::string()> &body)
{
    std::string failure = report_from_child([&]() { return private_root() ? body() : "SKIP"; });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private mount namespace here (an emulated build): runs natively only";
    EXPECT_EQ(failure, "");
}

std::string calls(const char *prefix = "")
{
    std::string all = read_file("/tmp/calls"), out;
    for (size_t at = 0, nl; (nl = all.find('\n', at)) != std::string::npos; at = nl + 1)
        if (all.compare(at, strlen(prefix), prefix) == 0)
            out += all.substr(at, nl + 1 - at);
    return unlink("/tmp/calls"), out;
}

}  // namespace

// The platform script sets the zone; its name, offset and DST go to the script, its transitions to the kernel side,
// and the local clock follows. A zone without transitions pushes the process's offset.
TEST(Timezone, ZoneChainUnderPrivateRoot)
{
    in_private_root([] {
        LogCapture cap;
        CHILD_CHECK(tovi_time_settz("Europe/Berlin") == 0);
        CHILD_CHECK(calls() == "settimezone Europe/Berlin\nsynctimezone Europe/Berlin\ngettimezone\nquerydstforregion Europe/Berlin\n"
                               "querydstinfo\ntokproc Europe/Berlin 1 03-29 02:00:00 10-25 03:00:00 0 5 30 + IST\ngettimezone\n");
        CHILD_CHECK(std::string(m_ascCmd) == "/ZSR/script/os_get_tmtz.sh         \"tokproc\" \"Europe/Berlin\" \"1\" \"03-29 02:00:00\" "
                                             "\"10-25 03:00:00\" \"0\" \"5\" \"30\" \"+\" \"IST\"");
        CHILD_CHECK(access("/ZSR/conf/time_zone.conf", F_OK) != 0 && access("/var/run/timezone/Europe_Berlin", F_OK) == 0);
        CHILD_CHECK(tovi_time_getlocal_fromutc(1719835200) == 1719835200 + 7200 && tovi_time_getlocal_fromutc(1704110400) == 1704110400 + 3600);
        tovi_dst_rules_s rules;
        char begin[15] = "", end[15] = "";
        uint32_t offset = 0, second = 0;
        std::tm tm{};
        time_t now = time(nullptr);
        localtime_r(&now, &tm);
        std::string year = std::to_string(tm.tm_year + 1900);
        CHILD_CHECK(tovi_time_query_dstconfforregion("Europe/Berlin", &rules) == 0 && rules.count == 2 &&
                    std::string(rules.rule[1].begin) == year + "-03-30 02:00:00" && std::string(rules.rule[1].end) == year + "-10-26 03:00:00" &&
                    rules.rule[0].offset == 60 && rules.rule[1].offset == 30);
        CHILD_CHECK(tovi_time_query_dstconfinfoforregion("Europe/Berlin", begin, end, &offset, &second) == 0 &&
                    std::string(begin) + "|" + end == "03-29 02:00:00|10-25 03:00:00" && offset == 60);
        CHILD_CHECK(calls() == "querydstinfoforcurrentyear Europe/Berlin " + year + "\nquerydstinfoforregion Europe/Berlin\n");
        CHILD_CHECK(tovi_time_settz("UTC") == 0 && tovi_time_getlocal_fromutc(1000) == 1000 + 19800);
        // A cache that is no file keeps the table last pushed (a FIFO must not hold the push up).
        CHILD_CHECK(mkfifo("/var/run/timezone/Asia_Tokyo", 0600) == 0 && tovi_time_settz("Asia/Tokyo") == 0 &&
                    tovi_time_getlocal_fromutc(1000) == 1000 + 19800 && tovi_time_query_dstforregion(std::string(250, 'x').c_str(), &offset) == -1);
        CHILD_CHECK(tovi_time_settz("Etc/UTC Europe/Berlin") == 0 && access("/var/run/timezone/Etc_UTC", F_OK) != 0);
        CHILD_CHECK(write_file("/tmp/fail-settimezone", "") && tovi_time_settz("Asia/Tokyo") == -1 && tovi_time_query_dstforregion("a;b", &offset) == -1 &&
                    write_file("/tmp/fail-querydstinfoforregion", "") && tovi_time_query_dstconfinfoforregion("UTC", begin, end, &offset, &second) == -1);
        CHILD_CHECK(setenv("TZ", "UTC", 1) == 0 && tovi::timezone::time_echo_timeinfotoproc() == 0 && std::string(m_ascCmd).ends_with("\"0\" \"0\" \"+\" \"UTC\"") && m_ascTimeZoneStyle == std::string("UTC") && calls().ends_with("querydstforregion UTC\nquerydstinfo\ntokproc UTC 1 03-29 02:00:00 10-25 03:00:00 0 0 0 + UTC\n"));
        CHILD_CHECK(tovi_time_ckdst(0, 1720000000) == 0 && calls("querydstforregion") == "querydstforregion UTC\n");
        CHILD_CHECK(cap.texts() == Texts({"sync_timezone_to_kernel: read_timezone_file fail, -1.", "snprintf_s secure function failed, destMax<256>, count<255>.", "Param error: timezone_name(Etc/UTC Europe/Berlin) is dangerous.",
                                          "Set timezone failed, return value is 768.", "Set timezone failed, return value is -1.",
                                          "Input param timeZoneName is invalid.", "Get DST config info failed, return value is 3."}));
        return std::string();
    });
}

// timedatectl first, else the /etc/localtime link; the three name sources in order; the RTC, then the system clock.
TEST(Timezone, ZoneLinkNamesAndTimeUnderPrivateRoot)
{
    in_private_root([] {
        LogCapture cap;
        char name[64] = "", link[256] = "";
        CHILD_CHECK(tovi_timezone_set("Asia/Tokyo") == 0 && readlink("/etc/localtime", link, sizeof link) > 0 &&
                    std::string(link) == "/usr/share/zoneinfo/Asia/Tokyo");
        CHILD_CHECK(tovi_zonename_get(name) == 0 && std::string(name) == "Asia/Tokyo");
        CHILD_CHECK(write_file("/tmp/tdc-zone", "America/Chicago") && tovi_zonename_get(name) == 0 && std::string(name) == "America/Chicago");
        CHILD_CHECK(tovi_zonename_get_by_sysconfig(name, sizeof name) == -1 && write_file("/etc/sysconfig/clock", "ZONE=x\nDEFAULT_TIMEZONE=\"Europe/Rome\"\n") &&
                    tovi_zonename_get_by_sysconfig(name, sizeof name) == 0 && std::string(name) == "Europe/Rome");
        CHILD_CHECK(tovi_timezone_set("Nowhere/City") == -2 && tovi_timezone_set("a;b") == -22 && tovi_timezone_set(std::string(600, 'a').c_str()) == -1);
        const std::string near = "././././././././././././././././" "./Etc/GMT+11";  // its file path fills the buffer exactly
        CHILD_CHECK(tovi_timezone_set(near.c_str()) == -1 && readlink("/etc/localtime", link, sizeof link) == 30);
        CHILD_CHECK(write_file("/tmp/tdc-ok", "") && tovi_timezone_set("Asia/Seoul") == 0 && unlink("/tmp/tdc-ok") == 0);
        CHILD_CHECK(unlink("/etc/localtime") == 0 && tovi_timezone_set("Asia/Tokyo") == -2);
        CHILD_CHECK(calls("timedatectl set") == "timedatectl set-timezone Asia/Tokyo\ntimedatectl set-timezone Nowhere/City\ntimedatectl set-timezone " + near + "\n"
                                                "timedatectl set-timezone Asia/Seoul\ntimedatectl set-timezone Asia/Tokyo\n");
        time_t zero = 0, past = 3124224000, last = 3124223999;
        CHILD_CHECK(tovi_time_settime(&zero) == -1 && tovi_time_settime(&past) == -1 && calls() == "");
        CHILD_CHECK(write_file("/tmp/zone", "UTC") && write_file("/tmp/hw-fail", "2") && tovi_time_settime(&last) == 0);
        const std::string rtc = "hwclock --set --utc --date=12/31/68 23:59:59 -0\n", sys = "hwclock --utc --hctosys\n";
        CHILD_CHECK(calls("hwclock") == rtc + sys + sys + sys);
#ifdef TOVI_HWCLOCK_SIM  // the two-digit year came back as 2068, and the system clock was handed it
        tovi_rtcsim_s clock{};
        CHILD_CHECK(tovi_rtcsim_load(&clock, "/tmp/rtc") == 0 && clock.utc == last && clock.hctosys >= last && clock.hctosys < last + 60);
#endif
        CHILD_CHECK(write_file("/tmp/hw-fail", "9") && tovi_time_settime(&last) == -1 && calls("hwclock") == rtc + sys + sys + sys + sys);
        CHILD_CHECK(cap.texts() == Texts({"Result of Timedatectl is null.", "Zonename_get_by_sysconfig failed,  return -1.", "Cannot find /usr/share/zoneinfo/Nowhere/City timezone file.",
                                          "Param error: pscTimeZoneName(a;b) is dangerous.",
                                          "snprintf_s secure function failed, destMax<512>, count<511>.", "Zone_info_file snprintf failed, return 64.", "timedatectl cmd success.",
                                          "Cannot find /etc/localtime file.", "Input time param is error.", "Input time param is error.",
                                          "Sync time from RTC to system failed, return value is 256."}));
        return std::string();
    });
}
