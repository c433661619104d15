// Kernel backend of the companion: the platform kernel's private system call
// and its jiffies UIO device.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_arch.hpp"
#include "tovi_companion.hpp"
#define TOVI_LOG_SOURCE "tovi_companion_kernel"
#include "tovi_log.hpp"
#include "tovi_scope.hpp"

namespace tovi::companion::kernel {
namespace {

constexpr long kPrivateSyscall = 259;
constexpr size_t kPathMax = 128;
constexpr size_t kValueMax = 32;
constexpr const char *kUioDir = "/sys/devices/platform/jiffies_uio/uio/";

}  // namespace

// Finds the device's name ("uio<N>") under the platform directory. The name
// is empty until one is found, so the failure reports show an empty name
// whatever the caller's buffer held.
uint32_t tovi_get_child_dir(char *child, size_t size)
{
    if (size != 0)
        child[0] = '\0';
    DIR *dir = opendir(kUioDir);
    if (dir == nullptr) {
        TOVI_LOG(log::kError, "Tovi jiffies get child dir (%s) failed, errno=%d.", child, errno);
        return TOVI_ERR;
    }
    ScopeExit close_dir([dir] { closedir(dir); });
    errno = 0;
    const dirent *entry;
    while ((entry = readdir(dir)) != nullptr)
        if (std::strncmp(entry->d_name, "uio", 3) == 0)
            break;
    if (entry == nullptr) {
        int err = errno;
        TOVI_LOG(log::kError, "Tovi jiffies get child dir (%s) failed, errno=%d.", child, err);
        return TOVI_ERR;
    }
    if (strcpy_s(child, size, entry->d_name) != EOK)
        TOVI_LOG(log::kError, "strcpy_s failed.");
    return 0;
}

namespace {

int open_map_file(const char *child, const char *file)
{
    char path[kPathMax];
    snprintf_s(path, sizeof path, "%s%s/maps/map0/%s", kUioDir, child, file);
    return open(path, O_RDONLY | O_CLOEXEC);
}

// Reads at most kValueMax bytes of a sysfs value (written as "0x..." or decimal).
void read_value(int fd, char (&buf)[kValueMax + 1])
{
    std::memset(buf, 0, sizeof buf);
    ssize_t n = read(fd, buf, kValueMax);
    if (n < 0)
        buf[0] = '\0';
}

void close_all(const int *fds, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        if (fds[i] >= 0)
            close(fds[i]);
}

}  // namespace

long syscall(uint32_t cmd, long a1, long a2, long a3)
{
    return syscall4(cmd, a1, a2, a3, -1);
}

long syscall4(uint32_t cmd, long a1, long a2, long a3, long a4)
{
    if constexpr (arch::kPlatformSyscall) {
        if ((cmd & kCmdLocalOnly) == 0) {
            uint64_t word = (static_cast<uint64_t>(TOVI_MODULE_ID) << 32) | cmd;
            return ::syscall(kPrivateSyscall, word, a1, a2, a3, a4);
        }
    }
    errno = ENOSYS;
    return -1;
}

uint32_t jiffies_map(tovi_jiffies_uio_s *uio)
{
    char child[kPathMax] = "";
    if (tovi_get_child_dir(child, sizeof child) != 0)
        return TOVI_ERR;

    char dev_path[kPathMax];
    snprintf_s(dev_path, sizeof dev_path, "/dev/%s", child);
    int fds[4] = {open(dev_path, O_RDONLY | O_CLOEXEC), -1, -1, -1};
    if (fds[0] < 0)
        return TOVI_ERR;
    uio->dev_fd = fds[0];
    // The mapping outlives the descriptors: they are closed on every way out.
    ScopeExit close_fds([&fds] { close_all(fds, 4); });

    static const char *const files[] = {"addr", "size", "offset"};
    static const char *const failures[] = {"Tovi jiffies open addr_fd map failed, errno=%d.",
                                           "Tovi jiffies open size_fd map failed, errno=%d.",
                                           "Tovi jiffies open map failed, errno=%d."};
    char values[3][kValueMax + 1];
    for (size_t i = 0; i < 3; ++i) {
        fds[i + 1] = open_map_file(child, files[i]);
        if (fds[i + 1] < 0) {
            TOVI_LOG(log::kError, failures[i], errno);
            return TOVI_ERR;
        }
        read_value(fds[i + 1], values[i]);
    }
    uint64_t addr = std::strtoull(values[0], nullptr, 0);
    int64_t size = std::strtoll(values[1], nullptr, 0);
    int64_t offset = std::strtoll(values[2], nullptr, 0);

    void *base = mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, fds[0], 0);
    if (base == MAP_FAILED) {
        TOVI_LOG(log::kError, "Tovi jiffies mmap2, errno=%d.", errno);
        return TOVI_ERR;
    }
    uio->addr_fd = fds[1];
    uio->size_fd = fds[2];
    uio->offset_fd = fds[3];
    uio->phys_addr = addr;
    uio->size = static_cast<uint64_t>(size);
    uio->jiffies = reinterpret_cast<volatile uint64_t *>(static_cast<char *>(base) + offset);
    return 0;
}

}  // namespace tovi::companion::kernel
