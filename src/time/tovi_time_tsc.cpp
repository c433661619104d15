// The processor speed from the processor description, read through the
// filtered command runner; the counter estimate stands in when the model
// line carries no speed.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#define TOVI_LOG_SOURCE "tovi_time"
#include "tovi_log.hpp"
#include "tovi_process.h"
#include "tovi_time.h"

namespace {

constexpr int kLineMax = 256;

// The first line the command prints, without its line feed; false when the
// command could not be started.
bool first_line(const char *cmd, const char *allow, char (&line)[kLineMax])
{
    line[0] = '\0';
    FILE *out = tovi_popen_s(cmd, "r", allow);
    if (out == nullptr)
        return false;
    if (fgets(line, kLineMax, out) == nullptr)
        line[0] = '\0';
    line[std::strcspn(line, "\n")] = '\0';
    tovi_pclose(out);
    return true;
}

}  // namespace

extern "C" {

uint32_t tovi_get_tsc_freq(void)
{
    char line[kLineMax];
    if (!first_line("cat /proc/cpuinfo | grep -o constant_tsc | uniq", "|", line)) {
        TOVI_LOG(tovi::log::kError, "Cat /proc/cpuinfo for constant_tsc fail");
        return TOVI_ERR;
    }
    if (line[0] == '\0') {
        TOVI_LOG(tovi::log::kError, "There is no constant_tsc flag in /proc/cpuinfo");
        return TOVI_ERR;
    }
    if (!first_line("cat /proc/cpuinfo | grep @ | uniq | awk '{print $NF}'", "|$", line)) {
        TOVI_LOG(tovi::log::kError, "Cat /proc/cpuinfo fail for cpufreq fail");
        return TOVI_ERR;
    }
    if (line[0] != '\0')
        currCpuGHz = std::strtod(line, nullptr);
    else
        tovi_estimate_tsc_freq();
    return TOVI_OK;
}

}  // extern "C"
