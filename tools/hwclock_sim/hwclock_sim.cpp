// A stand-in "hwclock" for hosts without the platform's clock module: the
// simulated clock of tovi_rtcsim.h, kept in the file $TOVI_RTCSIM_STATE
// (started from the system time when the file does not exist yet). The
// time-zone test's recording hwclock hands commands on to it; it is not
// installed.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tovi_rtcsim.h"

int main(int argc, char **argv)
{
    const char *state = std::getenv("TOVI_RTCSIM_STATE");
    if (state == nullptr || state[0] == '\0') {
        std::fprintf(stderr, "hwclock (simulated): TOVI_RTCSIM_STATE is not set\n");
        return 1;
    }
    tovi_rtcsim_s rtc{};
    const int rc = tovi_rtcsim_load(&rtc, state);
    if (rc == -ENOENT) {
        rtc.hctosys = -1;
        tovi_rtcsim_set(&rtc, static_cast<int64_t>(std::time(nullptr)));
        rtc.sets = 0;  // a fresh clock, not a setting
    } else if (rc != 0) {
        std::fprintf(stderr, "hwclock (simulated): %s is not a clock state\n", state);
        return 1;
    }
    char out[128];
    const int status = tovi_rtcsim_command(&rtc, argc - 1, argv + 1, out, sizeof out);
    if (out[0] != '\0')
        std::fprintf(status == 0 ? stdout : stderr, "%s%s\n", status == 0 ? "" : "hwclock (simulated): ", out);
    if (status == 0 && tovi_rtcsim_save(&rtc, state) != 0)
        return 1;
    return status;
}
