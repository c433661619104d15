/**
 * @file
 * Shared memory: thin wrappers over System V segments and POSIX shared
 * memory objects. The POSIX form reserves the object's pages when it is
 * mapped (fallocate), so a full /dev/shm is reported at once instead of as
 * a SIGBUS on first touch.
 *
 * The process keeps a record of the objects and segments it made through
 * these functions (at most TOVI_SHM_RECORDS of them); tovi_shm_show lists
 * them.
 */
#ifndef TOVI_SHM_H
#define TOVI_SHM_H

#include <stddef.h>
#include <stdint.h>
#include <sys/ipc.h> /* key_t, also in strict C11 */
#include <sys/types.h>

#include "tovi_base.h"
#include "tovi_mem.h"

TOVI_EXTERN_C_BEGIN

/** The mode tovi_shm_create gives a new object: read and write for its
 * owner only. Processes of other users that must share an object name it
 * with tovi_shm_create_ext and a wider mode (the CPU-usage arrays use 0660). */
#define TOVI_SHM_DEFAULT_MODE 0600

/** How many objects and segments the process record holds. */
#define TOVI_SHM_RECORDS 64u

/** Opens (or with O_CREAT creates) the POSIX shared memory object `name`
 * with shm_open(name, oflag, mode), sizes it to `size` bytes, reserves its
 * pages and maps all of it shared. The access mode of `oflag` decides the
 * protection: O_RDONLY read, O_WRONLY write, O_RDWR read and write (any
 * other access mode is logged and mapped without access). Returns the
 * address, or NULL for a NULL name, when the open fails (silently when the
 * object exists and O_EXCL was given), when /dev/shm has no room for the
 * pages, or when the mapping fails. The descriptor is closed in every case. */
TOVI_API void *tovi_shm_create_ext(const char *name, int oflag, mode_t mode, size_t size);

/** tovi_shm_create_ext with TOVI_SHM_DEFAULT_MODE. Address or NULL. */
TOVI_API void *tovi_shm_create(const char *name, int oflag, size_t size);

/** Removes the name of the POSIX object `name` (shm_unlink; mappings stay
 * valid until unmapped). 0, or 0xFFFFFFFF when it fails (logged) or for a
 * NULL name. */
TOVI_API uint32_t tovi_shm_destroy(const char *name);

/** shmget(key, size, flags): the segment's identifier, or -1 with errno. */
TOVI_API int32_t tovi_shmget_ex(key_t key, size_t size, int32_t flags);

/** Same as tovi_shmget_ex: the identifier or -1. */
TOVI_API int32_t tovi_shmget(key_t key, size_t size, int32_t flags);

/** Attaches segment `shmid` read-write where the system chooses. The
 * address, or NULL when it fails. */
TOVI_API void *tovi_shmat(int32_t shmid);

/** Marks segment `shmid` for removal (it goes when the last process
 * detaches). 0, or -1 with errno. */
TOVI_API int32_t tovi_shmdel(int32_t shmid);

/** Prints the shared memory this process made through the functions above
 * and still holds: the POSIX objects it mapped (name, bytes, address) and
 * the System V segments it got (key, identifier, bytes). Returns the print
 * function's last result; 0 for a NULL print function. */
TOVI_API int tovi_shm_show(tovi_mem_print_fn print);

TOVI_EXTERN_C_END

#endif
