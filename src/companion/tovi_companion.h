/**
 * @file
 * Which kernel-side companion serves this process: "kernel" (the platform
 * kernel's private system call and devices) or "user" (the library's own
 * stand-in on hosts without it). Chosen at first use; TOVI_COMPANION=kernel
 * or TOVI_COMPANION=user in the environment overrides the choice.
 */
#ifndef TOVI_COMPANION_H
#define TOVI_COMPANION_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** "kernel" or "user". */
TOVI_API const char *tovi_companion_name(void);

TOVI_EXTERN_C_END

#endif
