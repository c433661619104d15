/**
 * @file
 * File operations for the library and its callers: file-system commands run
 * through the shell, checked descriptor wrappers, a line reader, record
 * locks, a file copy, a per-thread directory reader and file-system figures.
 *
 * The commands (tovi_cmd_*) take paths below TOVI_FILEOPS_PATH_MAX
 * characters, refuse paths holding shell metacharacters (see
 * tovi_process.h) and run with the library's shell. They return 0, the
 * shell's raw wait status when the command failed, -22 for a NULL argument
 * (or, for tovi_cmd_mkdir, a dangerous path), -29 when the filter refuses
 * the command, -36 for a path too long, -12 without memory.
 */
#ifndef TOVI_FILEOPS_H
#define TOVI_FILEOPS_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Paths given to the commands are shorter than this. */
#define TOVI_FILEOPS_PATH_MAX 1024

/** "cp -af <src> <dest>". */
TOVI_API int32_t tovi_cmd_cp(const char *pSrcFile, const char *pDestFile);

/** "rm -rf <path>". */
TOVI_API int32_t tovi_cmd_rm(const char *pFile);

/** Directions of tovi_cmd_tar. */
#define TOVI_TAR_CREATE 0u  /**< "tar -czf <archive> <dir>" */
#define TOVI_TAR_EXTRACT 1u /**< "tar -xzf <archive> -C <dir>" (any non-zero value) */

/** Packs pDir into the archive pSrcFile or unpacks the archive into pDir,
 * by direction. */
TOVI_API int32_t tovi_cmd_tar(const char *pSrcFile, const char *pDir, uint32_t direction);

/** "touch <path>". */
TOVI_API int32_t tovi_cmd_touch(const char *pFile);

/** "mv <src> <dest>". */
TOVI_API int32_t tovi_cmd_mv(const char *pSrcFile, const char *pDestFile);

/** "mkdir -p <path> &>/dev/null"; a path holding any metacharacter gives -22. */
TOVI_API int32_t tovi_cmd_mkdir(const char *pFile);

/** @{ */
/** Thin wrappers of the system calls of the same name. A NULL path or
 * buffer is logged and gives -1 with errno EINVAL. */
TOVI_API int32_t tovi_access(const char *pFilePath, int32_t mode);
TOVI_API int32_t tovi_open(const char *pFilePath, int32_t flags, uint32_t mode);
TOVI_API int64_t tovi_read(int32_t fd, void *pBuf, uint64_t size);
TOVI_API int64_t tovi_write(int32_t fd, const void *pBuf, uint64_t size);
TOVI_API int64_t tovi_lseek(int32_t fd, int64_t offset, int32_t whence);
TOVI_API int32_t tovi_sync(int32_t fd); /**< fsync */
TOVI_API int32_t tovi_close(int32_t fd);
/** @} */

/** Reads one line from fd a byte at a time, so that the descriptor's offset
 * ends just after it: up to and including a line feed, dropping every
 * carriage return, at most size - 1 bytes kept; end of file or a read error
 * also ends the line. The buffer is always NUL-terminated. Returns pBuf, or
 * NULL when nothing was kept (end of file, size below 1, NULL buffer). */
TOVI_API char *tovi_readline(int32_t fd, char *pBuf, int32_t size);

/** A record lock request: mode bit 0 asks for an exclusive (write) lock,
 * else a shared (read) lock; bit 1 set means do not wait. The range starts
 * at `start` bytes from the beginning of the file; a length of 0 reaches
 * to the end of the file, however far it grows. */
typedef struct tovi_lock_req_s {
    uint32_t mode;  /**< TOVI_LOCK_EXCLUSIVE, TOVI_LOCK_NOWAIT */
    int64_t start;  /**< first byte of the range */
    int64_t len;  /**< bytes of the range; 0: to the end */
} tovi_lock_req_s;

#define TOVI_LOCK_EXCLUSIVE 1u  /**< mode bit: an exclusive (write) lock */
#define TOVI_LOCK_NOWAIT 2u  /**< mode bit: fail instead of waiting */

/** Takes a POSIX record lock (held by the process, released when any of its
 * descriptors of the file is closed). A waiting request interrupted by a
 * signal is retried. 0, -1 when the lock was not taken, -22 for NULL. */
TOVI_API int32_t tovi_lockfile(int32_t fd, const tovi_lock_req_s *pReq);

/** Releases the request's range: 0, 0xFFFFFFFF on failure, (uint32_t)-22
 * for NULL. */
TOVI_API uint32_t tovi_unlockfile(int32_t fd, const tovi_lock_req_s *pReq);

/** Copies the file pSrcFile to pDestFile (created or truncated, with the
 * source's permission bits). 0, -1 on failure, -22 for NULL. */
TOVI_API int32_t tovi_copy(const char *pSrcFile, const char *pDestFile);

/** @{ */
/** The next entry of pDir, copied into the calling thread's own slot (valid
 * until that thread's next call), or NULL at the end, on error, or when all
 * TOVI_READDIR_SLOTS slots belong to other live threads. */
#define TOVI_READDIR_SLOTS 64
TOVI_API struct dirent *tovi_readdir_new(DIR *pDir);
/** @} */

/** stat(2): 0, or -1 (a NULL argument is logged). */
TOVI_API int32_t tovi_stat(const char *pPath, struct stat *pStat);

/** Figures of the file system holding pPath, chosen by index. */
enum tovi_statfs_index_e {
    TOVI_STATFS_TOTAL_BYTES = 0,
    TOVI_STATFS_FREE_BYTES = 1,  /**< free for the superuser */
    TOVI_STATFS_AVAIL_BYTES = 2, /**< free for everyone */
    TOVI_STATFS_TOTAL_INODES = 3,
    TOVI_STATFS_FREE_INODES = 4,
    TOVI_STATFS_INDEX_MAX
};

/** Stores the figure `index` in *pValue: 0, -1 when statfs fails, -22 for a
 * NULL argument or an index out of range. */
TOVI_API int32_t tovi_statfs(const char *pPath, uint32_t index, uint64_t *pValue);

TOVI_EXTERN_C_END

#endif
