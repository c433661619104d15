/**
 * @file
 * printk and panic, and the requests that reset or reboot the platform. The
 * requests go to the kernel side through the private system call; a host
 * without the platform kernel refuses them (nothing is ever rebooted there)
 * and the callers log their failure messages.
 */
#ifndef TOVI_REBOOT_H
#define TOVI_REBOOT_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Formats like printf into the raw log; the logging library's result. */
TOVI_API int printk(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/** Logs "Panic info = <text>" (at most 255 characters) through printk and
 *  passes the text to the platform's panic request. Returns 0: the process
 *  is not ended here. */
TOVI_API int panic(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/** Asks the platform to reboot for `reason` on behalf of module `mid`; only
 *  the first byte of `text` (may be NULL) reaches the platform. The request's
 *  result, or -1 with "Syscall for tovi_Reboot failed.". */
TOVI_API int32_t tovi_Reboot(uint64_t reason, uint32_t mid, const char *text);

/** Asks the platform to reset the local board. 0, or 0xFFFFFFFF with
 *  "Syscall for tovi_ResetLocalBoard failed.". */
TOVI_API uint32_t tovi_ResetLocalBoard(void);

/** The platform's reboot counter (`arg` is passed on), or 0xFFFFFFFF with
 *  "Syscall for tovi_get_reboot_count failed.". */
TOVI_API uint32_t tovi_get_reboot_count(uint64_t arg);

TOVI_EXTERN_C_END

#endif
