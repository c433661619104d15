#include "tovi_companion.hpp"
#include "tovi_companion.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <pthread.h>
#include <unistd.h>

#include "tovi_arch.hpp"
#define TOVI_LOG_SOURCE "tovi_companion"
#include "tovi_log.hpp"

namespace tovi::companion {
namespace {

Backend g_backend = Backend::user;
pthread_once_t g_choose_once = PTHREAD_ONCE_INIT;

void choose()
{
    const char *forced = std::getenv("TOVI_COMPANION");
    if (forced != nullptr && std::strcmp(forced, "kernel") == 0) {
        g_backend = Backend::kernel;
        return;
    }
    if (forced != nullptr && std::strcmp(forced, "user") == 0) {
        g_backend = Backend::user;
        return;
    }
    if (forced != nullptr && *forced != '\0')
        TOVI_LOG(log::kWarning, "Unknown TOVI_COMPANION value %s, choosing the companion automatically.",
                 forced);
    bool kernel_present = arch::kPlatformSyscall && access("/proc/kar/syscall", F_OK) == 0;
    g_backend = kernel_present ? Backend::kernel : Backend::user;
}

}  // namespace

Backend backend()
{
    pthread_once(&g_choose_once, choose);
    return g_backend;
}

const char *backend_name()
{
    return backend() == Backend::kernel ? "kernel" : "user";
}

long syscall(uint32_t cmd, long a1, long a2, long a3)
{
    if (backend() == Backend::kernel)
        return kernel::syscall(cmd, a1, a2, a3);
    return user::syscall(cmd, a1, a2, a3);
}

long syscall4(uint32_t cmd, long a1, long a2, long a3, long a4)
{
    if (backend() == Backend::kernel)
        return kernel::syscall4(cmd, a1, a2, a3, a4);
    return user::syscall4(cmd, a1, a2, a3, a4);
}

uint32_t jiffies_map(tovi_jiffies_uio_s *uio)
{
    if (backend() == Backend::kernel)
        return kernel::jiffies_map(uio);
    return 0;
}

int control_open(const char *path, ControlFile *file)
{
    if (backend() == Backend::kernel) {
        file->fd = open(path, O_RDWR | O_CLOEXEC);
        return file->fd < 0 ? -1 : 0;
    }
    if (!user::control_known(path)) {
        errno = ENOENT;
        return -1;
    }
    file->path = path;
    return 0;
}

long control_ioctl(const ControlFile &file, unsigned long request, void *arg)
{
    if (file.fd >= 0)
        return ::ioctl(file.fd, request, arg);
    return user::control_ioctl(file.path, request, arg);
}

void control_close(ControlFile *file)
{
    if (file->fd >= 0)
        close(file->fd);
    *file = ControlFile{};
}

}  // namespace tovi::companion

extern "C" const char *tovi_companion_name(void)
{
    return tovi::companion::backend_name();
}
