// Thin wrappers of the POSIX per-process timers: the arguments the system
// calls would dereference are checked first; otherwise their own result.
#include <signal.h>
#include <time.h>

#include "tovi_hr_timer.h"

#define TOVI_LOG_SOURCE "tovi_timer_posix"
#include "tovi_log.hpp"

namespace {

using tovi::log::kError;

constexpr int kBadArgument = -22;
constexpr clockid_t kClockIdLimit = 4;  // CLOCK_REALTIME .. CLOCK_THREAD_CPUTIME_ID

}  // namespace

extern "C" {

int tovi_timer_create_posix(clockid_t clockid, struct sigevent *evp, timer_t *timerid)
{
    if (evp == nullptr || timerid == nullptr) {
        TOVI_LOG(kError, "Argument NULL in tovi_timer_create_posix, evp: %p, timerid: %p!\n", static_cast<void *>(evp),
                 static_cast<void *>(timerid));
        return kBadArgument;
    }
    if (clockid >= kClockIdLimit) {
        TOVI_LOG(kError, "Argument clockid: %d is out of range in tovi_timer_create_posix!\n", clockid);
        return kBadArgument;
    }
    return timer_create(clockid, evp, timerid);
}

int tovi_timer_delete_posix(timer_t timerid)
{
    return timer_delete(timerid);
}

int tovi_timer_settime_posix(timer_t timerid, int flags, const struct itimerspec *new_value,
                             struct itimerspec *old_value)
{
    if (new_value == nullptr) {
        TOVI_LOG(kError, "Argument NULL in tovi_timer_settime_posix, timerid: %p, new_value: %p!\n",
                 static_cast<void *>(timerid), static_cast<const void *>(new_value));
        return kBadArgument;
    }
    return timer_settime(timerid, flags, new_value, old_value);
}

int tovi_timer_gettime_posix(timer_t timerid, struct itimerspec *curr_value)
{
    if (curr_value == nullptr) {
        TOVI_LOG(kError, "Argument NULL in tovi_timer_gettime_posix, timerid: %p, curr_value: %p!\n",
                 static_cast<void *>(timerid), static_cast<void *>(curr_value));
        return kBadArgument;
    }
    return timer_gettime(timerid, curr_value);
}

int tovi_timer_getoverrun_posix(timer_t timerid)
{
    return timer_getoverrun(timerid);
}

}  // extern "C"
