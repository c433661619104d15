// The registry of private system calls: 32 group slots, each empty or a
// copy of the group's entries. Writers (register, unregister) are
// serialised by one mutex; readers take a slot with one acquire load and
// search it without a lock, which is why a group must not be unregistered
// while one of its handlers runs.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>

#include <safe_mem_lib.h>

#include "tovi_syscall.hpp"
#define TOVI_LOG_SOURCE "nubo_syscall_main"
#include "tovi_log.hpp"

namespace tovi::syscall {
namespace {

// A registered group: its count, then its entries in the same block.
struct alignas(alignof(tovi_syscall_entry_s)) Group {
    uint32_t count;
    tovi_syscall_entry_s *calls() { return reinterpret_cast<tovi_syscall_entry_s *>(this + 1); }
};

std::atomic<Group *> g_groups[TOVI_SYSCALL_GROUPS];  // R1: acquire loads pair with W1
std::mutex g_writers;

constexpr uint32_t group_of(uint32_t cmd)
{
    return cmd >> 8;
}

bool group_too_large(uint32_t group)
{
    if (group < TOVI_SYSCALL_GROUPS)
        return false;
    TOVI_LOG(log::kError, "Param 1 v_uiGroupId %d is larger than %d.", static_cast<int>(group),
             static_cast<int>(TOVI_SYSCALL_GROUPS));
    return true;
}

}  // namespace

void encode(const WireHeader &h, unsigned char out[kWireHeaderLen])
{
    const uint32_t cmd = htole32(h.cmd), zero = 0;
    const uint64_t words[3] = {htole64(h.len), htole64(h.out_cap), htole64(static_cast<uint64_t>(h.result))};
    __builtin_memcpy(out, &cmd, 4);
    __builtin_memcpy(out + 4, &zero, 4);
    __builtin_memcpy(out + 8, words, sizeof words);
}

WireHeader decode(const unsigned char in[kWireHeaderLen])
{
    uint32_t cmd;
    uint64_t words[3];
    __builtin_memcpy(&cmd, in, 4);
    __builtin_memcpy(words, in + 8, sizeof words);
    return {le32toh(cmd), le64toh(words[0]), le64toh(words[1]), static_cast<int64_t>(le64toh(words[2]))};
}

int send_all(int fd, const void *buf, size_t len)
{
    const auto *p = static_cast<const char *>(buf);
    while (len > 0) {
        ssize_t n = ::send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

int recv_all(int fd, void *buf, size_t len, int stall_ms, bool idle_first)
{
    auto *p = static_cast<char *>(buf);
    bool started = false;
    while (len > 0) {
        if (stall_ms > 0 && (started || !idle_first)) {
            pollfd pfd{fd, POLLIN, 0};
            int ready = ::poll(&pfd, 1, stall_ms);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready == 0)
                errno = ETIMEDOUT;
            if (ready <= 0)
                return -1;
        }
        ssize_t n = ::recv(fd, p, len, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            errno = 0;
        if (n <= 0)
            return -1;
        started = true;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

int32_t register_group(uint32_t group, const tovi_syscall_entry_s *calls, uint32_t count, bool verbose)
{
    if (verbose)
        TOVI_LOG(log::kInfo, "NUBO reg syscall begin.");
    if (group_too_large(group))
        return -1;
    if (verbose)
        TOVI_LOG(log::kInfo, "NUBO reg syscall check groupid(%u).", group);
    if (NUBO_CheckGroupCalls(group, calls, count) != 0) {
        TOVI_LOG(log::kError, "Check the input param failed.");
        return -1;
    }
    std::lock_guard<std::mutex> guard(g_writers);
    if (verbose)
        TOVI_LOG(log::kInfo, "NUBO reg syscall check rereg, uicount(%u).", count);
    if (g_groups[group].load(std::memory_order_relaxed) != nullptr) {
        TOVI_LOG(log::kInfo, "NUBO register syscall %d.", static_cast<int>(group));
        return -1;
    }
    if (verbose)
        TOVI_LOG(log::kInfo, "NUBO reg syscall alloc memory.");
    // The plain allocator: the tracked one asks the companion for its table,
    // and the companion registers its commands here.
    const size_t bytes = sizeof(tovi_syscall_entry_s) * count;
    auto *g = static_cast<Group *>(std::malloc(sizeof(Group) + bytes));
    if (g == nullptr) {
        TOVI_LOG(log::kError, "Alloc memory for syscall group (%u) fail, count = (%u).", group, count);
        return -1;
    }
    if (errno_t ret = memset_s(g, sizeof(Group) + bytes, 0, sizeof(Group) + bytes); ret != 0) {
        TOVI_LOG(log::kError, "Memset failed, ret = %d.", static_cast<int>(ret));
        std::free(g);
        return -1;
    }
    if (errno_t ret = count == 0 ? 0 : memcpy_s(g->calls(), bytes, calls, bytes); ret != 0) {
        TOVI_LOG(log::kError, "Memcpy failed, ret = %d.", static_cast<int>(ret));
        std::free(g);
        return -1;
    }
    g->count = count;
    g_groups[group].store(g, std::memory_order_release);  // W1: publishes the filled group to R1
    return 0;
}

const tovi_syscall_entry_s *find(uint32_t cmd)
{
    const uint32_t group = group_of(cmd);
    Group *g = group < TOVI_SYSCALL_GROUPS ? g_groups[group].load(std::memory_order_acquire) : nullptr;  // R1
    for (uint32_t i = 0; g != nullptr && i < g->count; ++i)
        if (g->calls()[i].uiCmd == cmd)
            return &g->calls()[i];
    return nullptr;
}

}  // namespace tovi::syscall

using namespace tovi;

extern "C" {

int32_t NUBO_CheckGroupCalls(uint32_t group, const tovi_syscall_entry_s *calls, uint32_t count)
{
    if (calls == nullptr) {
        TOVI_LOG(log::kError, "Parm 2(v_pstSysCalls) is NULL.");
        return -1;
    }
    if (count > TOVI_SYSCALL_GROUP_MAX) {
        TOVI_LOG(log::kError, "Parm 3 %d is larger than %d.", static_cast<int>(count), static_cast<int>(TOVI_SYSCALL_GROUP_MAX));
        return -1;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const tovi_syscall_entry_s &e = calls[i];
        if (e.uiType != TOVI_SYSCALL_DIRECT && e.uiType != TOVI_SYSCALL_INDIRECT) {
            TOVI_LOG(log::kError, "Syscall type is wrong, it should be direct(%d) or indirect(%d).",
                     static_cast<int>(TOVI_SYSCALL_DIRECT), static_cast<int>(TOVI_SYSCALL_INDIRECT));
            return -1;
        }
        if (syscall::group_of(e.uiCmd) != group) {
            TOVI_LOG(log::kError, "Syscall's cmd %d  is wrong, it should be v_uiGroupId(%d).", static_cast<int>(e.uiCmd),
                     static_cast<int>(group));
            return -1;
        }
        if (e.pfnSysCall == nullptr) {
            TOVI_LOG(log::kError, "pfnSysCall is NULL.");
            return -1;
        }
    }
    return 0;
}

int32_t NUBO_RegSysCall(uint32_t group, const tovi_syscall_entry_s *calls, uint32_t count)
try {
    return syscall::register_group(group, calls, count, true);
} catch (...) {
    return -1;
}

int32_t NUBO_UnRegSysCall(uint32_t group)
try {
    if (syscall::group_too_large(group))
        return -1;
    std::lock_guard<std::mutex> guard(syscall::g_writers);
    std::free(syscall::g_groups[group].exchange(nullptr, std::memory_order_acq_rel));  // pairs with R1: readers see the slot empty
    return 0;
} catch (...) {
    return -1;
}

const tovi_syscall_entry_s *NUBO_FindSysCall(uint32_t cmd)
{
    const uint32_t group = syscall::group_of(cmd);
    if (group >= TOVI_SYSCALL_GROUPS || syscall::g_groups[group].load(std::memory_order_acquire) == nullptr) {  // R1
        TOVI_LOG(log::kError, "Syscall not registered usr, cmd = (0x%x).", cmd);
        return nullptr;
    }
    return syscall::find(cmd);
}

int32_t NUBO_Netlink_ext3_create(uint32_t)
{
    errno = ENOSYS;
    return -1;
}

int32_t NUBO_Netlink_ext3_listen(int32_t, void *, uint32_t)
{
    errno = ENOSYS;
    return -1;
}

void NUBO_Netlink_ext3_release(int32_t)
{
    errno = ENOSYS;
}

}  // extern "C"
