/**
 * @file
 * Console output switching: send the process's standard output and
 * standard error to a console or terminal device and back.
 *
 * tovi_tty_redirect keeps duplicates of descriptors 1 and 2 in the
 * caller's record and puts the device on both; tovi_tty_restore puts the
 * originals back and closes the duplicates. A descriptor that was closed
 * (a daemon's) is recorded as -1 and closed again by the restore. Buffered stdio output is
 * flushed before each switch, so it lands where it was written. The record
 * is the caller's: zero it before the first use. Switching is not
 * synchronised with other threads writing to descriptors 1 and 2.
 *
 * Results (negated errno family): 0; -22 a NULL record or a restore without
 * a redirect; -16 the record already holds a redirect; -25 the device is
 * not a terminal; the open's negated errno otherwise (the device is opened
 * without waiting: -6 for a FIFO without a reader). Messages:
 * "tty: output sent to %s." and "tty: output restored." (level 6),
 * "tty: %s is not a terminal.", "tty: cannot open %s (%s)." and, when a
 * saved descriptor cannot be put back (the other still is, the record is
 * cleared), "tty: cannot put the output back (%s)." (level 3).
 */
#ifndef TOVI_TTY_H
#define TOVI_TTY_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** The system console, the device used when none is named. */
#define TOVI_TTY_CONSOLE "/dev/console"

/** The original descriptors while output is switched. */
typedef struct tovi_tty_saved_s {
    int32_t out;     /**< duplicate of the original standard output, -1 when it was closed */
    int32_t err;     /**< duplicate of the original standard error, -1 when it was closed */
    uint32_t active; /**< 1 while switched */
} tovi_tty_saved_s;

/** Sends standard output and error to `device` (NULL: TOVI_TTY_CONSOLE). */
TOVI_API int tovi_tty_redirect(const char *device, tovi_tty_saved_s *saved);

/** Puts back the descriptors `saved` holds and clears it. */
TOVI_API int tovi_tty_restore(tovi_tty_saved_s *saved);

TOVI_EXTERN_C_END

#endif
