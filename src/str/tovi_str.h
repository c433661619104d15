/**
 * @file
 * String helpers: unsigned-number test, text to 64-bit integers,
 * lower-casing, and a strtok-like tokenizer.
 *
 * The tokenizer keeps one saved position for the whole process: it is not
 * for two threads tokenizing at the same time (use strtok_r there).
 */
#ifndef TOVI_STR_H
#define TOVI_STR_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** 0 when s is an unsigned number: empty, all decimal digits, or "0x"/"0X"
 * followed by hexadecimal digits only (the bare prefix counts); -1 when
 * not (a sign is not accepted); -22 for NULL. */
TOVI_API int32_t tovi_str_isuint(const char *s);

/** Text to an unsigned 64-bit value: base 16 after a "0x"/"0X" prefix, else
 * base 10. NULL logs and gives 0; a range or conversion error is logged and
 * the converted value returned all the same. */
TOVI_API uint64_t tovi_str_tou64(const char *s);

/** Text to a signed 64-bit value: a leading '-' negates tovi_str_tou64 of
 * the rest. NULL logs at info level and gives 0. */
TOVI_API int64_t tovi_str_tos64(const char *s);

/** Lower-cases s in place; NULL is ignored. */
TOVI_API void tovi_str_tolower(char *s);

/** The tokenizer's argument check: s when it is not NULL, else the saved
 * position *saved; NULL (with a level-3 message) when delim is NULL or
 * when there is nothing to continue from. */
TOVI_API char *check_parameter(char *s, char **saved, const char *delim);

/** Next token of s (NULL: continue the previous text), split at runs of the
 * characters of delim, which are overwritten with NUL; leading delimiters
 * are skipped. An empty remaining text is returned as it is. When the text
 * ends (in a delimiter run or not) the last token is returned, empty when
 * the text held delimiters only, and the saved position is cleared, so the
 * next NULL call returns NULL and logs "Param(%p %p )  is null.". */
TOVI_API char *tovi_str_tok(char *s, const char *delim);

TOVI_EXTERN_C_END

#endif
