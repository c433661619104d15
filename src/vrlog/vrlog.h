/**
 * @file
 * vrlog: module and level based logging for the controller's processes.
 *
 * Every message names a module number (0 to 1023) and a level (3 error,
 * 4 warning, 6 information, 7 debug). A message is written when its level is
 * not above the module's threshold; the default threshold is 6, or what the
 * environment variable VRLOG_LEVEL says: either one number for every module,
 * or a comma-separated list of MODULE=LEVEL pairs, optionally led by a bare
 * number for the rest ("4,381=7").
 *
 * Lines go to standard error, or to syslog when VRLOG_TARGET=syslog. A
 * platform may replace this library with its own that exports the same
 * functions.
 */
#ifndef VRLOG_H
#define VRLOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VRLOG_API __attribute__((visibility("default")))  /**< marks vrlog's interface */

#define VRLOG_MODULE_COUNT 1024u  /**< module numbers 0 to 1023 */
#define VRLOG_ALL_MODULES 0xFFFFFFFFu  /**< every module, for vrlog_loglevel_set */
#define VRLOG_DEFAULT_LEVEL 6u  /**< threshold of a module not set */

/** Names a module for the lines it logs. 0, or -1 for a number above 1023 or a
 * null name. The name pointer is kept, not copied. */
VRLOG_API int vrlog_init(unsigned int module, const char *name);

/** Forgets module names and rate limits and closes syslog. Always 0. */
VRLOG_API int vrlog_destroy(void);

/** Sets the threshold of one module, or of all with VRLOG_ALL_MODULES.
 * 0, or -1 for a bad module or a level above 7. */
VRLOG_API int vrlog_loglevel_set(unsigned int module, unsigned int level);

/** The module's threshold, or -1 for a module above 1023. */
VRLOG_API int vrlog_loglevel_get(unsigned int module);

/** The group of a rate limit is a module: given the name passed to
 * vrlog_init or a decimal module number, returns the module number, or -1. */
VRLOG_API int vrlog_get_group_id(const char *group);

/** Lets a module write at most `burst` messages in each `interval_ms`
 * milliseconds; a burst of 0 removes the limit. 0, or -1 for a bad group. */
VRLOG_API int vrlog_ratelimit_set(int group_id, unsigned int interval_ms, unsigned int burst);

/** 0 when a message of this module and level would be written, else 1. */
VRLOG_API int vrlog_level_check(unsigned int module, unsigned int level);

/** Writes one line: time, level, module number and name, file:line, function
 * and the formatted message. Returns the characters written, 0 when the
 * level or rate limit held it back, -1 on a write error. `flags` is
 * reserved and must be 0. */
VRLOG_API int vrlog(unsigned int module, unsigned int level, const char *file, unsigned int line,
                    const char *func, unsigned int flags, const char *fmt, ...)
    __attribute__((format(printf, 7, 8)));

/** @{ */
/** Writes one raw line, unconditionally (a newline is added when missing). */
VRLOG_API int vrlog_original(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
VRLOG_API int vrlog_vraw(const char *fmt, va_list ap) __attribute__((format(printf, 1, 0)));
/** @} */

#ifdef __cplusplus
}
#endif

#endif
