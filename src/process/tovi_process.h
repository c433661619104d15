/**
 * @file
 * Running commands: a shell-command pipe and runner that record their
 * children, filters that refuse shell metacharacters, a guarded execv, an
 * argv runner without a shell, and link-time wrappers for popen, pclose and
 * system.
 *
 * The shell. Commands run as `<shell> -c <command>` with argv[0] "sh".
 * The library's command templates use bash's "&>" redirection, which a
 * POSIX sh such as dash reads as "run in the background, then truncate the
 * file" and so reports success whatever the command did. The shell is
 * therefore chosen once per process: "/bin/sh" when it resolves to bash,
 * else "/bin/bash" when that exists, else "/bin/sh". Started as "sh", bash
 * runs in its POSIX mode on every host, which keeps "&>".
 *
 * Children. A child resets every signal to its default action and unblocks
 * all signals before exec, so it never inherits the library's handlers or
 * the masks of the library's threads. Descriptors the library opens are
 * close-on-exec; a pipe's end reaches the child only as its standard input
 * or output.
 *
 * Filters. The forbidden characters are '|', ';', '&', '$', '<', '>', '!',
 * line feed and '`'; an allow list names those a caller accepts. Refused
 * commands are never started and not logged (except by execv_s).
 *
 * Results are raw wait statuses (see waitpid: WIFEXITED, WEXITSTATUS, ...)
 * unless stated otherwise; -22 bad argument, -29 refused as dangerous.
 */
#ifndef TOVI_PROCESS_H
#define TOVI_PROCESS_H

#include <stdio.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** 1 if *c is one of the nine forbidden characters, else 0 (0 for NULL). */
TOVI_API int32_t isBlackChar(const char *c);

/** 1 if allow is non-NULL, non-empty and contains *c, else 0. */
TOVI_API int32_t isWhiteChar(const char *c, const char *allow);

/** 1 if any character of cmd is forbidden and not in allow (may be NULL),
 * else 0. cmd must not be NULL. */
TOVI_API int32_t isDangerousCmd(const char *cmd, const char *allow);

/** Starts the shell on cmd with a pipe to its standard output (mode "r") or
 * input (mode "w"); the child's pid is kept for tovi_pclose under the
 * stream's descriptor. NULL for any other mode or on failure; a failure
 * leaves no descriptor open. */
TOVI_API FILE *tovi_popen(const char *cmd, const char *mode);

/** tovi_popen, or NULL for a NULL or dangerous command. */
TOVI_API FILE *tovi_popen_s(const char *cmd, const char *mode, const char *allow);

/** As tovi_popen, but the pid goes to *pid for the caller to wait on and
 * close the stream with fclose; the mode is not validated ("r" gives a
 * read stream, anything else a write stream). */
TOVI_API FILE *tovi_popen_with_pid(const char *cmd, const char *mode, int32_t *pid);

/** NULL when a pointer is NULL, the mode is not "r" or "w" or the command
 * is dangerous; else tovi_popen_with_pid. */
TOVI_API FILE *tovi_popen_s_with_pid(const char *cmd, const char *mode, const char *allow,
                                     int32_t *pid);

/** Closes a stream of tovi_popen and waits for its child (SIGHUP, SIGINT and
 * SIGQUIT blocked meanwhile): the raw wait status, or -1 for a stream
 * tovi_popen did not open or when the wait fails. */
TOVI_API int32_t tovi_pclose(FILE *stream);

/** Runs cmd in the shell and waits: the raw wait status, -22 for NULL, -1
 * when refused or on failure. Its own filter refuses a command of two
 * characters or more holding ';' anywhere but last, or two '|' in a row;
 * a trailing ';' passes. */
TOVI_API int32_t tovi_system(const char *cmd);

/** -22 for NULL, else tovi_system. */
TOVI_API int32_t tovi_cmd_exec(const char *cmd);

/** -22 for NULL, -29 when dangerous, else tovi_system. */
TOVI_API int32_t tovi_system_s(const char *cmd, const char *allow);

/** The C library's popen after the filter: NULL when cmd is NULL or
 * dangerous, or the mode is not exactly "r" or "w". */
TOVI_API FILE *popen_s(const char *cmd, const char *mode, const char *allow);

/** The C library's system after the filter: -22 for NULL, -29 dangerous. */
TOVI_API int32_t system_s(const char *cmd, const char *allow);

/** A caller's extra check of execv_s's arguments: a low byte of 0 refuses. */
typedef int32_t (*tovi_execv_check_fn)(const char *path, int32_t argc, char *const argv[]);

/** execv(path, argv) after checking argv[0..argc-1] (NULL entries skipped)
 * with the filter and then with check (may be NULL). -22 for a NULL path
 * or argv, -29 when refused ("execv cmd is dangerous, argv[%d] is: %s."
 * for an argument); otherwise returns only when execv fails, with its
 * result. */
TOVI_API int32_t execv_s(const char *path, int32_t argc, char *const argv[], const char *allow,
                         tovi_execv_check_fn check);

/** @{ */
/** Wrappers for a program linked with -Wl,--wrap=popen,--wrap=pclose,
 * --wrap=system: its calls of popen, pclose and system reach tovi_popen,
 * tovi_pclose and tovi_system. */
TOVI_API FILE *__wrap_popen(const char *cmd, const char *mode);
TOVI_API int __wrap_pclose(FILE *stream);
TOVI_API int __wrap_system(const char *cmd);
/** @} */

/** Runs a program with the argument vector argv (argv[0] included,
 * NULL-terminated) and no shell, so no character of any argument has a
 * special meaning. A path without '/' is looked up in PATH (else
 * "/bin:/usr/bin"), before the child is started. Standard
 * input, output and error are the caller's. With timeout_ms above 0 the
 * child leads a process group of its own and, if it has not ended in time,
 * that group is killed with SIGKILL and reaped. Stores the raw wait status
 * in *status (may be NULL). Returns 0 once the child has ended by itself,
 * -61 on time-out, -22 for a NULL path or argv, or the negated errno of a
 * failed start (-2 for a program that does not exist). */
TOVI_API int32_t tovi_spawn_argv(const char *path, char *const argv[], uint32_t timeout_ms,
                                 int32_t *status);

TOVI_EXTERN_C_END

#endif
