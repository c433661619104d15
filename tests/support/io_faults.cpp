#include "io_faults.hpp"

#include <cerrno>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Armed with n: the n-th call from now fails, once. The calls come from the
// test's own thread only (the library's edits are synchronous).
struct Fault {
    unsigned left = 0;
    int err = 0;

    bool hit()
    {
        if (left == 0 || --left != 0)
            return false;
        errno = err;
        return true;
    }
};

Fault g_read, g_fsync, g_rename;
struct stat g_read_file;
unsigned g_fsyncs;

template <typename Fn>
Fn real(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace tovi::test {

void fail_read(const std::string &path, unsigned nth, int err)
{
    if (stat(path.c_str(), &g_read_file) == 0)
        g_read = {nth, err};
}

void fail_fsync(unsigned nth, int err)
{
    g_fsync = {nth, err};
}

void fail_rename(unsigned nth, int err)
{
    g_rename = {nth, err};
}

void clear_faults()
{
    g_read = g_fsync = g_rename = {};
    g_fsyncs = 0;
}

unsigned fsync_calls()
{
    return g_fsyncs;
}

}  // namespace tovi::test

extern "C" {

ssize_t read(int fd, void *buf, size_t n)
{
    static const auto next = real<ssize_t (*)(int, void *, size_t)>("read");
    struct stat st {};
    if (g_read.left != 0 && fstat(fd, &st) == 0 && st.st_dev == g_read_file.st_dev &&
        st.st_ino == g_read_file.st_ino && g_read.hit())
        return -1;
    return next(fd, buf, n);
}

int fsync(int fd)
{
    static const auto next = real<int (*)(int)>("fsync");
    ++g_fsyncs;
    return g_fsync.hit() ? -1 : next(fd);
}

int rename(const char *from, const char *to)
{
    static const auto next = real<int (*)(const char *, const char *)>("rename");
    return g_rename.hit() ? -1 : next(from, to);
}

}  // extern "C"
