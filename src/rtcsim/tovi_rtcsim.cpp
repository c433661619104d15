// The clock-module simulator: a reading and the clock-base stamp it was
// taken at; everything else is arithmetic on whole seconds.
#include "tovi_rtcsim.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <unistd.h>

#include "tovi_time.h"

#define TOVI_LOG_SOURCE "tovi_rtcsim"
#include "tovi_log.hpp"

namespace {

constexpr uint64_t kNsPerSec = 1000000000ull;

// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t days_from_civil(int64_t y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

bool valid_date(int y, unsigned m, unsigned d, unsigned hh, unsigned mm, unsigned ss)
{
    static const unsigned kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return m >= 1 && m <= 12 && d >= 1 && d <= kDays[m - 1] && (m != 2 || d <= 28u + leap) && hh < 24 && mm < 60 &&
           ss < 60;
}

// "MM/DD/YY hh:mm:ss -0" (the time module's form) or "YYYY-MM-DD hh:mm:ss", UTC.
bool parse_date(const char *text, int64_t *utc)
{
    int y = 0;
    unsigned m = 0, d = 0, hh = 0, mm = 0, ss = 0;
    int used = 0;
    if (std::sscanf(text, "%2u/%2u/%2d %2u:%2u:%2u -0%n", &m, &d, &y, &hh, &mm, &ss, &used) == 6 && text[used] == '\0')
        y += y < 69 ? 2000 : 1900;
    else if (used = 0; !(std::sscanf(text, "%4d-%2u-%2u %2u:%2u:%2u%n", &y, &m, &d, &hh, &mm, &ss, &used) == 6 &&
                         text[used] == '\0'))
        return false;
    if (!valid_date(y, m, d, hh, mm, ss))
        return false;
    *utc = ((days_from_civil(y, m, d) * 24 + hh) * 60 + mm) * 60 + ss;
    return true;
}

void say(char *out, size_t outlen, const char *text)
{
    if (out != nullptr && outlen > 0)
        std::snprintf(out, outlen, "%s", text);
}

}  // namespace

extern "C" {

TOVI_API int tovi_rtcsim_set(tovi_rtcsim_s *rtc, int64_t utc)
{
    if (rtc == nullptr || utc < 1 || utc > TOVI_RTCSIM_MAX) {
        TOVI_LOG(tovi::log::kError, "rtcsim: time %" PRId64 " out of range.", utc);
        return -EINVAL;
    }
    rtc->utc = utc;
    rtc->stamp_ns = tovi_time_getnanosec();
    ++rtc->sets;
    return 0;
}

TOVI_API int64_t tovi_rtcsim_read(const tovi_rtcsim_s *rtc)
{
    if (rtc == nullptr)
        return -EINVAL;
    const uint64_t now = tovi_time_getnanosec();
    return rtc->utc + static_cast<int64_t>((now > rtc->stamp_ns ? now - rtc->stamp_ns : 0) / kNsPerSec);
}

TOVI_API int tovi_rtcsim_command(tovi_rtcsim_s *rtc, int argc, const char *const *argv, char *out, size_t outlen)
{
    say(out, outlen, "");
    if (rtc == nullptr || argc < 0 || (argv == nullptr && argc > 0))
        return 2;
    bool set = false, hctosys = false, systohc = false, show = false;
    const char *date = nullptr;
    for (int i = 0; i < argc; ++i) {
        const char *a = argv[i] != nullptr ? argv[i] : "";
        if (std::strcmp(a, "--set") == 0)
            set = true;
        else if (std::strncmp(a, "--date=", 7) == 0)
            date = a + 7;
        else if (std::strcmp(a, "--hctosys") == 0 || std::strcmp(a, "-s") == 0)
            hctosys = true;
        else if (std::strcmp(a, "--systohc") == 0 || std::strcmp(a, "-w") == 0)
            systohc = true;
        else if (std::strcmp(a, "--show") == 0 || std::strcmp(a, "-r") == 0)
            show = true;
        else if (std::strcmp(a, "--utc") != 0 && std::strcmp(a, "-u") != 0) {
            say(out, outlen, "unknown option");
            return 2;
        }
    }
    if (set + hctosys + systohc + show != 1 || (set != (date != nullptr))) {
        say(out, outlen, "one function, and --date with --set only");
        return 2;
    }
    if (set) {
        int64_t utc = 0;
        if (!parse_date(date, &utc) || tovi_rtcsim_set(rtc, utc) != 0) {
            say(out, outlen, "invalid date");
            return 1;
        }
    } else if (systohc) {
        return tovi_rtcsim_set(rtc, static_cast<int64_t>(std::time(nullptr))) == 0 ? 0 : 1;
    } else if (hctosys) {
        rtc->hctosys = tovi_rtcsim_read(rtc);
    } else {
        const time_t now = static_cast<time_t>(tovi_rtcsim_read(rtc));
        struct tm tm;
        char text[40];
        gmtime_r(&now, &tm);
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S+00:00", &tm);
        say(out, outlen, text);
    }
    return 0;
}

TOVI_API int tovi_rtcsim_load(tovi_rtcsim_s *rtc, const char *path)
{
    if (rtc == nullptr || path == nullptr)
        return -EINVAL;
    FILE *f = std::fopen(path, "re");
    if (f == nullptr)
        return errno == ENOENT ? -ENOENT : -EIO;
    tovi_rtcsim_s r{};
    const int n = std::fscanf(f, "utc=%" SCNd64 " stamp_ns=%" SCNu64 " hctosys=%" SCNd64 " sets=%" SCNu32, &r.utc,
                              &r.stamp_ns, &r.hctosys, &r.sets);
    std::fclose(f);
    if (n != 4 || r.utc < 1 || r.utc > TOVI_RTCSIM_MAX) {
        TOVI_LOG(tovi::log::kError, "rtcsim: %s is not a clock state.", path);
        return -EIO;
    }
    *rtc = r;
    return 0;
}

TOVI_API int tovi_rtcsim_save(const tovi_rtcsim_s *rtc, const char *path)
{
    if (rtc == nullptr || path == nullptr)
        return -EINVAL;
    char tmp[4096];
    if (std::snprintf(tmp, sizeof tmp, "%s.new", path) >= static_cast<int>(sizeof tmp)) {
        TOVI_LOG(tovi::log::kError, "rtcsim: cannot save the clock to %s.", path);
        return -EIO;
    }
    FILE *f = std::fopen(tmp, "we");
    bool ok = f != nullptr &&
              std::fprintf(f, "utc=%" PRId64 " stamp_ns=%" PRIu64 " hctosys=%" PRId64 " sets=%" PRIu32 "\n", rtc->utc,
                           rtc->stamp_ns, rtc->hctosys, rtc->sets) > 0;
    if (f != nullptr)
        ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp, path) != 0) {
        TOVI_LOG(tovi::log::kError, "rtcsim: cannot save the clock to %s.", path);
        unlink(tmp);
        return -EIO;
    }
    return 0;
}

}  // extern "C"
