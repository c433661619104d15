/**
 * @file
 * Clock-module simulator: a stand-in for the platform's hardware clock
 * (RTC), so that the time functions can run on hosts without one.
 *
 * The simulated clock holds UTC seconds and advances with the library's
 * clock base (tovi_time_getnanosec, the processor's free-running counter,
 * the same in every process of the machine). Its state is a caller-owned
 * record that can be saved to and loaded from a small text file, so that
 * separate processes share one clock: the build's stand-in "hwclock"
 * command (tools/hwclock_sim) keeps it in the file named by the environment
 * variable TOVI_RTCSIM_STATE and answers the command lines the time module
 * runs:
 *
 *   hwclock --set --utc --date="MM/DD/YY hh:mm:ss -0"   set the clock (YY < 69: 20YY)
 *   hwclock --utc --hctosys                           hand its time to the system clock
 *   hwclock --systohc                                 set it from the system clock
 *   hwclock --show | -r                               print "YYYY-MM-DD hh:mm:ss+00:00"
 *
 * --hctosys never touches the real system clock: it records the time it
 * would have set (`hctosys`), for tests to check.
 *
 * Results: 0 success; -22 a NULL argument or a time outside
 * 1 ... TOVI_RTCSIM_MAX; -2 no state file; -5 a state file that does not
 * parse or cannot be written. tovi_rtcsim_command returns the command's
 * exit status: 0, 1 failed, 2 bad usage (with a line of text in `out`).
 */
#ifndef TOVI_RTCSIM_H
#define TOVI_RTCSIM_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** The latest time the clock accepts: 2068-12-31 23:59:59 UTC. */
#define TOVI_RTCSIM_MAX 3124223999LL

/** A simulated clock. */
typedef struct tovi_rtcsim_s {
    int64_t utc;       /**< its reading at `stamp_ns` */
    uint64_t stamp_ns; /**< the clock base when it was set */
    int64_t hctosys;   /**< the last time handed to the system clock, -1 for none */
    uint32_t sets;     /**< times it was set */
} tovi_rtcsim_s;

/** Sets the clock to `utc` (seconds since 1970, UTC) from now on: 0 or -22. */
TOVI_API int tovi_rtcsim_set(tovi_rtcsim_s *rtc, int64_t utc);

/** The clock's time now (seconds since 1970, UTC), or -22 for NULL. */
TOVI_API int64_t tovi_rtcsim_read(const tovi_rtcsim_s *rtc);

/** Runs one hwclock command line given as arguments (without the program
 * name) against `rtc`; text for the caller goes to `out` (may be NULL). */
TOVI_API int tovi_rtcsim_command(tovi_rtcsim_s *rtc, int argc, const char *const *argv, char *out, size_t outlen);

/** Loads the clock from `path`: 0, -22, -2 or -5. */
TOVI_API int tovi_rtcsim_load(tovi_rtcsim_s *rtc, const char *path);

/** Saves the clock to `path` (written whole, then renamed into place): 0, -22 or -5. */
TOVI_API int tovi_rtcsim_save(const tovi_rtcsim_s *rtc, const char *path);

TOVI_EXTERN_C_END

#endif
