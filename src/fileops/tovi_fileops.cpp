// File operations: checked descriptor wrappers, the line reader, record
// locks, the file copy, the per-thread directory reader and file-system
// figures.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <safe_mem_lib.h>

#define TOVI_LOG_SOURCE "tovi_fileops"
#include "tovi_fileops.h"
#include "tovi_fileops.hpp"
#include "tovi_log.hpp"
#include "tovi_thread.h"

namespace {

constexpr size_t kCopyBlock = 64 * 1024;

// Directory entries handed out by tovi_readdir_new: a slot belongs to the
// thread whose tid it holds (claimed by compare-and-swap from 0), and is
// taken over when that thread no longer exists.
struct ReaddirSlot {
    std::atomic<int32_t> tid{0};
    struct dirent entry;
};
ReaddirSlot g_readdir_slots[TOVI_READDIR_SLOTS];

bool thread_gone(int32_t tid)
{
    return tid != 0 && kill(tid, 0) != 0 && errno == ESRCH;
}

ReaddirSlot *readdir_slot(int32_t tid)
{
    for (ReaddirSlot &s : g_readdir_slots)
        if (s.tid.load(std::memory_order_acquire) == tid)
            return &s;
    for (ReaddirSlot &s : g_readdir_slots) {
        int32_t owner = s.tid.load(std::memory_order_acquire);
        // Acquire on success: the previous owner's last copy is complete.
        if ((owner == 0 || thread_gone(owner)) &&
            s.tid.compare_exchange_strong(owner, tid, std::memory_order_acquire))
            return &s;
    }
    return nullptr;
}

int lock_range(int fd, short type, const tovi_lock_req_s *req, bool wait)
{
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = static_cast<off_t>(req->start);
    fl.l_len = static_cast<off_t>(req->len);
    int ret;
    do {
        ret = fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl);
    } while (ret != 0 && wait && errno == EINTR);
    return ret;
}

}  // namespace

namespace tovi::fileops {

bool write_all(int fd, const char *p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

int open_nowait(const char *path, int flags, mode_t mode)
{
    const int fd = open(path, flags | O_NONBLOCK | O_CLOEXEC, mode);
    const int fl = fd >= 0 ? fcntl(fd, F_GETFL) : -1;
    if (fd >= 0 && (fl < 0 || fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) != 0)) {
        const int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

}  // namespace tovi::fileops

extern "C" {

int32_t tovi_access(const char *pFilePath, int32_t mode)
{
    if (pFilePath == nullptr) {
        TOVI_LOG(tovi::log::kError, "pFilePath is NULL.");
        errno = EINVAL;
        return -1;
    }
    return access(pFilePath, mode);
}

int32_t tovi_open(const char *pFilePath, int32_t flags, uint32_t mode)
{
    if (pFilePath == nullptr) {
        TOVI_LOG(tovi::log::kError, "pFilePath is NULL.");
        errno = EINVAL;
        return -1;
    }
    return open(pFilePath, flags, static_cast<mode_t>(mode));
}

int64_t tovi_read(int32_t fd, void *pBuf, uint64_t size)
{
    if (pBuf == nullptr) {
        TOVI_LOG(tovi::log::kError, "pBuf is NULL.");
        errno = EINVAL;
        return -1;
    }
    return read(fd, pBuf, static_cast<size_t>(size));
}

int64_t tovi_write(int32_t fd, const void *pBuf, uint64_t size)
{
    if (pBuf == nullptr) {
        TOVI_LOG(tovi::log::kError, "pBuf is NULL.");
        errno = EINVAL;
        return -1;
    }
    return write(fd, pBuf, static_cast<size_t>(size));
}

int64_t tovi_lseek(int32_t fd, int64_t offset, int32_t whence)
{
    return lseek(fd, static_cast<off_t>(offset), whence);
}

int32_t tovi_sync(int32_t fd)
{
    return fsync(fd);
}

int32_t tovi_close(int32_t fd)
{
    return close(fd);
}

char *tovi_readline(int32_t fd, char *pBuf, int32_t size)
{
    if (pBuf == nullptr || size < 1)
        return nullptr;
    int32_t stored = 0;
    while (stored < size - 1) {
        char c;
        ssize_t n = read(fd, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n != 1)
            break;  // end of file or error
        if (c == '\r')
            continue;
        pBuf[stored++] = c;
        if (c == '\n')
            break;
    }
    pBuf[stored] = '\0';
    pBuf[size - 1] = '\0';
    return stored == 0 ? nullptr : pBuf;
}

int32_t tovi_lockfile(int32_t fd, const tovi_lock_req_s *pReq)
{
    if (pReq == nullptr) {
        TOVI_LOG(tovi::log::kError, "Param is NULL.");
        return -22;
    }
    short type = (pReq->mode & TOVI_LOCK_EXCLUSIVE) != 0 ? F_WRLCK : F_RDLCK;
    bool wait = (pReq->mode & TOVI_LOCK_NOWAIT) == 0;
    return lock_range(fd, type, pReq, wait) == 0 ? 0 : -1;
}

uint32_t tovi_unlockfile(int32_t fd, const tovi_lock_req_s *pReq)
{
    if (pReq == nullptr) {
        TOVI_LOG(tovi::log::kError, "Param is NULL.");
        return static_cast<uint32_t>(-22);
    }
    return lock_range(fd, F_UNLCK, pReq, false) == 0 ? TOVI_OK : TOVI_ERR;
}

int32_t tovi_copy(const char *pSrcFile, const char *pDestFile)
{
    if (pSrcFile == nullptr || pDestFile == nullptr) {
        TOVI_LOG(tovi::log::kError, "Param is NULL.");
        return -22;
    }
    int src = open(pSrcFile, O_RDONLY | O_CLOEXEC);
    if (src < 0) {
        TOVI_LOG(tovi::log::kError, "Open srcFile %s error.", pSrcFile);
        return -1;
    }
    struct stat st {};
    mode_t perm = fstat(src, &st) == 0 ? (st.st_mode & 07777) : 0644;
    int dst = open(pDestFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, perm);
    if (dst < 0) {
        TOVI_LOG(tovi::log::kError, "Open pDestFile %s error.", pDestFile);
        close(src);
        return -1;
    }
    char *buf = static_cast<char *>(std::malloc(kCopyBlock));
    int32_t ret = buf == nullptr ? -1 : 0;
    while (ret == 0) {
        ssize_t n = read(src, buf, kCopyBlock);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            break;
        if (n < 0) {
            TOVI_LOG(tovi::log::kError, "copydata read from srcFile=%s to destfile=%s error.", pSrcFile,
                     pDestFile);
            ret = -1;
        } else if (!tovi::fileops::write_all(dst, buf, static_cast<size_t>(n))) {
            TOVI_LOG(tovi::log::kError, "copydata WRITE from srcFile=%s to destfile=%s error.", pSrcFile,
                     pDestFile);
            ret = -1;
        }
    }
    std::free(buf);
    close(src);
    if (close(dst) != 0 && ret == 0)
        ret = -1;
    return ret;
}

struct dirent *tovi_readdir_new(DIR *pDir)
{
    if (pDir == nullptr) {
        TOVI_LOG(tovi::log::kError, "Param is NULL.");
        return nullptr;
    }
    auto tid = static_cast<uint32_t>(tovi_thrd_gettid_accl());
    ReaddirSlot *slot = readdir_slot(static_cast<int32_t>(tid));
    if (slot == nullptr) {
        TOVI_LOG(tovi::log::kError, "can not find spare index for tid %u.", tid);
        return nullptr;
    }
    errno = 0;
    struct dirent *e = readdir(pDir);
    if (e == nullptr)
        return nullptr;
    if (memcpy_s(&slot->entry, sizeof slot->entry, e, sizeof *e) != 0)
        return nullptr;
    return &slot->entry;
}

int32_t tovi_stat(const char *pPath, struct stat *pStat)
{
    if (pPath == nullptr || pStat == nullptr) {
        TOVI_LOG(tovi::log::kError, "pPath is NULL.");
        errno = EINVAL;
        return -1;
    }
    return stat(pPath, pStat);
}

int32_t tovi_statfs(const char *pPath, uint32_t index, uint64_t *pValue)
{
    if (pPath == nullptr || pValue == nullptr) {
        TOVI_LOG(tovi::log::kError, "pPath is NULL.");
        return -22;
    }
    if (index >= TOVI_STATFS_INDEX_MAX) {
        TOVI_LOG(tovi::log::kError, "Invalid index (%u).\n", index);
        return -22;
    }
    struct statfs fs {};
    if (statfs(pPath, &fs) != 0)
        return -1;
    auto bsize = static_cast<uint64_t>(fs.f_bsize);
    const uint64_t figures[] = {
        static_cast<uint64_t>(fs.f_blocks) * bsize, static_cast<uint64_t>(fs.f_bfree) * bsize,
        static_cast<uint64_t>(fs.f_bavail) * bsize, static_cast<uint64_t>(fs.f_files),
        static_cast<uint64_t>(fs.f_ffree)};
    *pValue = figures[index];
    return 0;
}

}  // extern "C"
