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
// Clocks, in seconds: a1 the output; or, for the *_FromUtc reads, a1 the
// input and a2 the output.
inline constexpr uint32_t kCmdTimeLocal = 0x100;
inline constexpr uint32_t kCmdTimeLocalFromUtc = 0x101;
inline constexpr uint32_t kCmdTimeUtc = 0x102;
inline constexpr uint32_t kCmdTimeDstFromUtc = 0x103;
inline constexpr uint32_t kCmdTimeDst = 0x104;
// ioctl on /proc/kar/timezone: the zone's transition table (tovi_tz_table_s).
inline constexpr unsigned long kIoctlTimezone = 902;
inline constexpr uint32_t kCmdGetIdleNoCstates = 0x305;  // a1: CPU, a2: uint32_t out
inline constexpr uint32_t kCmdSetIdleNoCstates = 0x306;  // a1: CPU, a2: uint32_t in
inline constexpr uint32_t kCmdCpuTaskInfo = 0x307;       // a1: CPU, a2: the platform's record out

// ioctl requests on "/proc/kar/syscall": the custom setting items.
inline constexpr unsigned long kIoctlCstGet = 256;     // CstMsgHeader, 325 bytes in, 290 out
inline constexpr unsigned long kIoctlCstSet = 257;     // CstMsgHeader, 325 bytes in
inline constexpr unsigned long kIoctlCstReload = 258;  // no argument
// Platform requests: reset the board (a1-a4 -1), reboot (a1 reason, a2
// module, a3 first byte of the text), reboot count (a1 argument, a2 where to
// store the 32-bit count), panic (a1 the text). Stock hosts refuse them.
inline constexpr uint32_t kCmdResetBoard = 0x0;
inline constexpr uint32_t kCmdReboot = 0x1;
inline constexpr uint32_t kCmdRebootCount = 0x2;
inline constexpr uint32_t kCmdPanic = 0x3;
// Registers of a thread of the caller's process: a1 its tid (int32_t *),
// a2/a3/a4 where to store its stack pointer, frame pointer and program counter.
inline constexpr uint32_t kCmdRegisters = 0x500;
// Commands the platform has not numbered yet: only the user backend serves
// them and the kernel backend refuses them (ENOSYS) without a system call.
inline constexpr uint32_t kCmdLocalOnly = 0x80000000u;
// a1 tid, a2 tovi_thrd_status_s * to fill.
inline constexpr uint32_t kCmdThreadStatus = kCmdLocalOnly | 0x501;
// a1 CPU, a2 int32_t * for the tid of a thread of this process running there.
inline constexpr uint32_t kCmdCpuThread = kCmdLocalOnly | 0x502;
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
// The same with all four argument slots.
long syscall4(uint32_t cmd, long a1, long a2, long a3, long a4);

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
long syscall4(uint32_t cmd, long a1, long a2, long a3, long a4);
uint32_t jiffies_map(tovi_jiffies_uio_s *uio);
// Writes the UIO device's name ("uio<N>") into `child`; 0 or 0xFFFFFFFF.
uint32_t tovi_get_child_dir(char *child, size_t size);
}  // namespace kernel

namespace user {
long syscall(uint32_t cmd, long a1, long a2, long a3);
bool control_known(const char *path);
long control_ioctl(const char *path, unsigned long request, void *arg);
}  // namespace user

// The clocks and the zone table (tovi_companion_user_time.cpp).
namespace user {
long time_local(long a1, long a2, long a3);
long time_local_from_utc(long a1, long a2, long a3);
long time_utc(long a1, long a2, long a3);
long timezone_table_store(void *arg);
// Forgets the stored table, so the process's own zone counts again.
void timezone_table_reset();
}  // namespace user

// Processor controls of the user backend (tovi_companion_user_cpu.cpp).
namespace user {
long cpu_get_idle_no_cstates(long cpu, long value, long);
long cpu_set_idle_no_cstates(long cpu, long value, long);
long cpu_task_info(long cpu, long info, long);
}  // namespace user

// Custom setting items of the user backend (tovi_companion_user_cst.cpp).
namespace user {
long cst_get(void *header);
long cst_set(void *header);
long cst_reload(void *header);
}  // namespace user

// Thread dumps and platform requests (tovi_companion_user_dump.cpp).
namespace user {
long syscall4(uint32_t cmd, long a1, long a2, long a3, long a4);
long refuse_platform(long a1, long a2, long a3, long a4);
long register_query(long a1, long a2, long a3, long a4);
long thread_status(long a1, long a2, long a3, long a4);
long cpu_thread(long a1, long a2, long a3, long a4);
}  // namespace user

namespace user {
// CPU frequency steps 0x300-0x304: only the platform kernel can change a
// CPU's frequency, so the stand-in refuses them (-1, ENOSYS).
long cpufreq_refused(long a1, long a2, long a3);
}  // namespace user

}  // namespace tovi::companion
