#include "io_faults.hpp"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Fault {
    std::atomic<unsigned> left{0};  // calls to let pass + 1; 0 disarmed
    int err = 0;

    void arm(unsigned nth, int e)
    {
        err = e;
        left.store(nth, std::memory_order_release);
    }

    // True when this call is the one to fail.
    bool hit()
    {
        unsigned n = left.load(std::memory_order_acquire);
        while (n != 0 && !left.compare_exchange_weak(n, n - 1, std::memory_order_acq_rel)) {
        }
        return n == 1;
    }
};

Fault g_read;
Fault g_fsync;
Fault g_rename;
dev_t g_read_dev;
ino_t g_read_ino;
std::atomic<unsigned> g_fsyncs{0};

template <typename Fn>
Fn next(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

using ReadFn = ssize_t (*)(int, void *, size_t);
using FsyncFn = int (*)(int);
using RenameFn = int (*)(const char *, const char *);


}  // namespace

namespace tovi::test {

void fail_read(const std::string &path, unsigned nth, int err)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return;
    g_read_dev = st.st_dev;
    g_read_ino = st.st_ino;
    g_read.arm(nth, err);
}

void fail_fsync(unsigned nth, int err)
{
    g_fsync.arm(nth, err);
}

void fail_rename(unsigned nth, int err)
{
    g_rename.arm(nth, err);
}

void clear_faults()
{
    g_read.left = 0;
    g_fsync.left = 0;
    g_rename.left = 0;
    g_fsyncs = 0;
}

unsigned fsync_calls()
{
    return g_fsyncs.load();
}

}  // namespace tovi::test

extern "C" {

ssize_t read(int fd, void *buf, size_t n)
{
    struct stat st {};
    if (g_read.left.load(std::memory_order_acquire) != 0 && fstat(fd, &st) == 0 && st.st_dev == g_read_dev &&
        st.st_ino == g_read_ino && g_read.hit()) {
        errno = g_read.err;
        return -1;
    }
    static const auto real = next<ReadFn>("read");
    return real(fd, buf, n);
}

int fsync(int fd)
{
    g_fsyncs.fetch_add(1);
    if (g_fsync.hit()) {
        errno = g_fsync.err;
        return -1;
    }
    static const auto real = next<FsyncFn>("fsync");
    return real(fd);
}

int rename(const char *from, const char *to)
{
    if (g_rename.hit()) {
        errno = g_rename.err;
        return -1;
    }
    static const auto real = next<RenameFn>("rename");
    return real(from, to);
}

}  // extern "C"
