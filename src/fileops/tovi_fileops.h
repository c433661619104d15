/*
 * File operations for the library and its callers.
 */
#ifndef TOVI_FILEOPS_H
#define TOVI_FILEOPS_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/* Reads one line from fd a byte at a time, so that the descriptor's offset
 * ends just after it: up to and including a line feed, dropping every
 * carriage return, at most size - 1 bytes kept; end of file or a read error
 * also ends the line. The buffer is always NUL-terminated. Returns pBuf, or
 * NULL when nothing was kept (end of file, size below 1, NULL buffer). */
TOVI_API char *tovi_readline(int32_t fd, char *pBuf, int32_t size);

TOVI_EXTERN_C_END

#endif
