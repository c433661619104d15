// POSIX and System V shared memory, and the record of what this process
// made. The record is a small fixed table under one mutex: it is written on
// create/destroy only and read by the listing.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <safe_str_lib.h>

#define TOVI_LOG_SOURCE "tovi_shm_posix"
#include "tovi_log.hpp"
#include "tovi_shm.h"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

enum class Kind { none, posix, sysv };

struct Segment {
    Kind kind;
    char name[64];  // POSIX: the object's name (cut to fit)
    key_t key;      // System V
    int32_t id;
    size_t size;
    void *addr;
};

std::mutex g_record_mutex;
Segment g_record[TOVI_SHM_RECORDS];

// Files a POSIX object by name or a System V segment by identifier,
// replacing an entry of the same name or identifier. A full table keeps
// what it has: the listing is a diagnostic, not an owner.
bool same_segment(const Segment &s, Kind kind, const char *name, int32_t id)
{
    return s.kind == kind && (kind == Kind::posix ? std::strncmp(s.name, name, sizeof s.name - 1) == 0 : s.id == id);
}

void remember(Kind kind, const char *name, key_t key, int32_t id, size_t size, void *addr)
{
    std::lock_guard<std::mutex> guard(g_record_mutex);
    Segment *slot = nullptr;
    for (Segment &s : g_record)
        if (same_segment(s, kind, name, id))
            slot = &s;
    for (Segment &s : g_record)
        if (slot == nullptr && s.kind == Kind::none)
            slot = &s;
    if (slot == nullptr)
        return;
    *slot = Segment{kind, {}, key, id, size, addr};
    if (name != nullptr)
        strncpy_s(slot->name, sizeof slot->name, name, sizeof slot->name - 1);
}

void forget(Kind kind, const char *name, int32_t id)
{
    std::lock_guard<std::mutex> guard(g_record_mutex);
    for (Segment &s : g_record)
        if (same_segment(s, kind, name, id))
            s.kind = Kind::none;
}

int protection_of(int oflag)
{
    switch (oflag & O_ACCMODE) {
    case O_RDONLY:
        return PROT_READ;
    case O_WRONLY:
        return PROT_WRITE;
    case O_RDWR:
        return PROT_READ | PROT_WRITE;
    default:
        TOVI_LOG(kError, "Oflag open failed, oflag<%d>.", oflag);
        return PROT_NONE;
    }
}

}  // namespace

extern "C" {

void *tovi_shm_create_ext(const char *name, int oflag, mode_t mode, size_t size)
{
    if (name == nullptr)
        return nullptr;
    int fd = shm_open(name, oflag, mode);
    if (fd < 0) {
        if (errno != EEXIST)
            TOVI_LOG(kInfo, "Open shm fail, fd<%d> errno<%d>.", fd, errno);
        return nullptr;
    }
    // A read-only descriptor cannot be resized: attaching an existing object
    // read-only still works, so neither failure stops us; only a full
    // /dev/shm does, now rather than as a SIGBUS on first touch.
    (void)!ftruncate(fd, static_cast<off_t>(size));
    if (int ret = fallocate(fd, 0, 0, static_cast<off_t>(size)); ret != 0 && errno == ENOSPC) {
        TOVI_LOG(kInfo, "Fallocate shm fail, ret<%d> errno<%d>.", ret, errno);
        close(fd);
        return nullptr;
    }
    void *addr = mmap(nullptr, size, protection_of(oflag), MAP_SHARED, fd, 0);
    int mmap_errno = errno;
    close(fd);
    if (addr == MAP_FAILED) {
        TOVI_LOG(kInfo, "Mmap shm mem fail, errno<%d>.", mmap_errno);
        return nullptr;
    }
    remember(Kind::posix, name, 0, -1, size, addr);
    return addr;
}

void *tovi_shm_create(const char *name, int oflag, size_t size)
{
    return tovi_shm_create_ext(name, oflag, TOVI_SHM_DEFAULT_MODE, size);
}

uint32_t tovi_shm_destroy(const char *name)
{
    if (name == nullptr)
        return TOVI_ERR;
    int ret = shm_unlink(name);
    if (ret != 0) {
        TOVI_LOG(kInfo, "Destroy shm fail, ret<%d> errno<%d>.", ret, errno);
        return TOVI_ERR;
    }
    forget(Kind::posix, name, -1);
    return 0;
}

int32_t tovi_shmget_ex(key_t key, size_t size, int32_t flags)
{
    int32_t id = shmget(key, size, flags);
    if (id >= 0)
        remember(Kind::sysv, nullptr, key, id, size, nullptr);
    return id;
}

int32_t tovi_shmget(key_t key, size_t size, int32_t flags)
{
    return tovi_shmget_ex(key, size, flags);
}

void *tovi_shmat(int32_t shmid)
{
    void *addr = shmat(shmid, nullptr, 0);
    return addr == reinterpret_cast<void *>(-1) ? nullptr : addr;
}

int32_t tovi_shmdel(int32_t shmid)
{
    int32_t ret = shmctl(shmid, IPC_RMID, nullptr);
    if (ret == 0)
        forget(Kind::sysv, nullptr, shmid);
    return ret;
}

int tovi_shm_show(tovi_mem_print_fn print)
{
    if (print == nullptr)
        return 0;
    Segment copy[TOVI_SHM_RECORDS];
    {
        std::lock_guard<std::mutex> guard(g_record_mutex);
        std::memcpy(copy, g_record, sizeof copy);
    }
    int ret = print("Shared memory of this process:\n");
    bool any = false;
    for (const Segment &s : copy) {
        any = any || s.kind != Kind::none;
        if (s.kind == Kind::posix)
            ret = print("  posix  %-32s %12zu bytes at %p\n", s.name, s.size, s.addr);
        else if (s.kind == Kind::sysv)
            ret = print("  sysv   key 0x%08x id %-10d %12zu bytes\n", static_cast<unsigned>(s.key), s.id, s.size);
    }
    return any ? ret : print("  none\n");
}

}  // extern "C"
