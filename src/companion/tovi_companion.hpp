// The companion seam: the kernel-side services the library relies on (the
// private system call 259, the /proc/kar ioctls, the jiffies UIO device) go
// through this interface and nowhere else. Two backends serve it:
//
//   kernel  the platform's kernel companion: raw system call 259 with the
//           command word (381 << 32) | command, and the UIO device;
//   user    a stand-in inside the library for hosts without that kernel.
//
// The backend is chosen once, at first use: TOVI_COMPANION=kernel|user wins;
// otherwise kernel only when the platform kernel is there (aarch64 with
// /proc/kar/syscall).
#pragma once

#include <cstddef>
#include <cstdint>

#include "tovi_jiffies.h"

namespace tovi::companion {

enum class Backend { kernel, user };

// Private system call commands.
inline constexpr uint32_t kCmdMemTable = 0x401;  // a1: where to store the usage table's address
inline constexpr uint32_t kCmdMemDump = 0x402;   // dump the memory statistics
inline constexpr uint32_t kCmdWait = 0x800;      // a1: wait word, a2: jiffies in/out, a3: result
// Whole-machine CPU frequency steps; a1: the caller's result word (i32).
inline constexpr uint32_t kCmdCpufreqLowAll = 0x300;
inline constexpr uint32_t kCmdCpufreqHighAll = 0x301;
inline constexpr uint32_t kCmdCpufreqStepUp = 0x302;
inline constexpr uint32_t kCmdCpufreqStepDown = 0x303;
inline constexpr uint32_t kCmdCpufreqLocal = 0x304;  // a1: the platform's frequency record

Backend backend();
const char *backend_name();

// Makes private system call `cmd` with up to three argument slots (the rest
// carry -1). Returns what the call returns: -1 with errno set on failure.
long syscall(uint32_t cmd, long a1 = -1, long a2 = -1, long a3 = -1);

// Maps the jiffies counter into `uio` (which the caller has zeroed). The
// kernel backend maps the UIO device and returns 0 or 0xFFFFFFFF; the user
// backend has no device, leaves the counter pointer null and returns 0.
uint32_t jiffies_map(tovi_jiffies_uio_s *uio);

// A control file of the kernel side ("/proc/kar/syscall", "/proc/kar/timezone")
// that takes ioctl requests. Callers open it, issue requests and close it, and
// log open and ioctl failures with their own messages.
struct ControlFile {
    int fd = -1;                  // kernel backend: the open file
    const char *path = nullptr;   // user backend: which control file
};

// 0, or -1 with errno (ENOENT for a control file the backend does not know).
int control_open(const char *path, ControlFile *file);
// The request's result: -1 with errno on failure (ENOTTY for a request the
// backend does not serve).
long control_ioctl(const ControlFile &file, unsigned long request, void *arg);
void control_close(ControlFile *file);

namespace kernel {
long syscall(uint32_t cmd, long a1, long a2, long a3);
uint32_t jiffies_map(tovi_jiffies_uio_s *uio);
// Writes the UIO device's name ("uio<N>") into `child`; 0 or 0xFFFFFFFF.
uint32_t tovi_get_child_dir(char *child, size_t size);
}  // namespace kernel

namespace user {
long syscall(uint32_t cmd, long a1, long a2, long a3);
bool control_known(const char *path);
long control_ioctl(const char *path, unsigned long request, void *arg);
}  // namespace user

namespace user {
// CPU frequency steps 0x300-0x304: only the platform kernel can change a
// CPU's frequency, so the stand-in refuses them (-1, ENOSYS).
long cpufreq_refused(long a1, long a2, long a3);
}  // namespace user

}  // namespace tovi::companion
