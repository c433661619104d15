/**
 * @file
 * Process capabilities through libcap: read them, drop to a named set,
 * change user and group ids keeping a named set, and the "run without
 * root" step a daemon takes once its privileged start-up is over.
 *
 * Names are libcap's ("cap_net_admin,cap_sys_nice", separated by commas,
 * no blanks; "" is the empty set); a set is a mask with bit n for
 * capability n.
 *
 * Capabilities belong to each thread: these functions change the calling
 * thread only. At a change of user id away from root the kernel clears
 * every other thread's permitted set, so a daemon calls
 * tovi_cap_run_without_root before it starts the threads that need the
 * kept capabilities (threads created later inherit them). Capabilities
 * are not passed on to programs the process executes.
 *
 * Results (negated errno family): 0 success; -22 a NULL argument, an
 * unknown name or uid 0 for tovi_cap_run_without_root; -1 (EPERM) a name
 * outside the permitted set, or the kernel refused a change; other negated
 * errno values from the system calls. Failures are logged at level 3.
 */
#ifndef TOVI_CAP_H
#define TOVI_CAP_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** The calling thread's capability sets, bit n for capability n. */
typedef struct tovi_cap_set_s {
    uint64_t effective;   /**< capabilities in force */
    uint64_t permitted;   /**< capabilities the thread may make effective */
    uint64_t inheritable; /**< capabilities kept across an execve */
} tovi_cap_set_s;

/** Reads the calling thread's sets into `*set`: 0 or a negated errno. */
TOVI_API int tovi_cap_get(tovi_cap_set_s *set);

/** Turns names into a mask: 0, or -22 for an unknown or empty name within the list. */
TOVI_API int tovi_cap_parse(const char *names, uint64_t *mask);

/** Writes the names of `mask` ("cap_a,cap_b", "" for none) into `buf`
 * (truncated at a name to fit `len`); returns the length of the full text. */
TOVI_API size_t tovi_cap_format(uint64_t mask, char *buf, size_t len);

/** Makes `names` the effective and permitted sets (inheritable cleared);
 * every name must be permitted now: 0, -22, -1. */
TOVI_API int tovi_cap_drop_to(const char *names);

/** Changes real, effective and saved group and user ids to `gid` and `uid`
 * (supplementary groups cleared) and keeps exactly `names` in the effective
 * and permitted sets: 0, -22, -1 or the failed call's negated errno. */
TOVI_API int tovi_cap_setuid_keep(uint32_t uid, uint32_t gid, const char *names);

/** Leaves root for `uid`/`gid` for good keeping `keep`: refuses (-1, nothing
 * changed) when `keep` is not all permitted, removes every other
 * capability from the bounding set, changes ids as tovi_cap_setuid_keep
 * does and checks that root cannot be taken back (unless cap_setuid is
 * kept). Logs "cap: running as uid %u gid %u keeping %s." at level 6. */
TOVI_API int tovi_cap_run_without_root(uint32_t uid, uint32_t gid, const char *keep);

TOVI_EXTERN_C_END

#endif
