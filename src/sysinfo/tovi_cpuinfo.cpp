// The CPU topology, gathered by commands once per boot and shared through
// "cpuinfo_shm".
//
// The record's lock is a record lock on "/dev/shm/cpuinfo_shm" itself. The
// object is mapped (which opens and closes the file) before the lock is
// taken, because closing any descriptor of a file drops the process's locks
// on it.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_cpumask.h"
#include "tovi_fileops.h"
#define TOVI_LOG_SOURCE "tovi_cpuinfo"
#include "tovi_log.hpp"
#include "tovi_process.h"
#include "tovi_shm.h"
#include "tovi_sysinfo.h"
#include "tovi_sysinfo.hpp"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr const char *kShmName = "cpuinfo_shm";
constexpr const char *kShmLock = "/dev/shm/cpuinfo_shm";
constexpr const char *kPackagesCmd = "lscpu | grep 'Socket(s)' | awk '{print $NF}' ";
constexpr const char *kLogicalCmd = "cat /proc/cpuinfo | grep 'processor' | awk '{print $NF}' | sort | uniq | wc -l";
constexpr const char *kModelCmd = "uname -p";
constexpr const char *kNodesOnline = "/sys/devices/system/node/online";
constexpr const char *kNodeCpus = "/sys/devices/system/node/node%u/cpulist";
constexpr uint32_t kMagic = 0x55504354;  // "TCPU"

// The shared record. Valid when the magic, the layout size and both counts
// are right; the magic is stored last, so a writer that died half-way
// leaves an invalid record that the next process gathers again.
struct CpuInfo {
    uint32_t magic;
    uint32_t bytes;
    uint32_t packages;
    uint32_t logical;
    uint32_t nodes;
    char model[TOVI_CPUMODEL_LEN];
};

std::mutex g_mutex;
bool g_loaded;  // under g_mutex; g_info is constant once it is set
CpuInfo g_info;

bool valid(const CpuInfo &info)
{
    return info.magic == kMagic && info.bytes == sizeof info && info.packages != 0 && info.logical != 0;
}

// First line of a command's output, without its line feed. 0 or -1 (logged).
int run(const char *cmd, char *out, size_t size)
{
    out[0] = '\0';
    FILE *f = tovi_popen_s(cmd, "r", "|$");
    if (f == nullptr) {
        TOVI_LOG(kError, "Cmd %s failed.", cmd);
        return -1;
    }
    errno = 0;  // end of output is reported as errno 0
    bool got = std::fgets(out, static_cast<int>(size), f) != nullptr;
    int err = errno;
    int status = tovi_pclose(f);
    if (!got) {
        TOVI_LOG(kError, "Fgets err, errno=%d.", err);
        return -1;
    }
    if (status != 0) {
        TOVI_LOG(kError, "Execute bash failed(%d), cmd(%s).", status, cmd);
        return -1;
    }
    out[std::strcspn(out, "\n")] = '\0';
    return 0;
}

// A decimal count from a command. 0 when it cannot be had (logged with the
// caller's messages).
uint32_t count_from(const char *cmd, const char *run_failed, const char *bad_value)
{
    char line[256];
    if (int ret = run(cmd, line, sizeof line); ret != 0) {
        TOVI_LOG(kError, run_failed, ret);
        return 0;
    }
    int num = 0;
    int ret = std::sscanf(line, "%d", &num);
    if (ret == 1 && num > 0)
        return static_cast<uint32_t>(num);
    if (bad_value != nullptr)
        TOVI_LOG(kError, bad_value, ret, num);
    return 0;
}

// NUMA nodes from the online list ("0" or "0-3"); 0 when it cannot be read.
uint32_t node_count()
{
    FILE *f = std::fopen(kNodesOnline, "re");
    if (f == nullptr) {
        TOVI_LOG(kError, "Open filename %s failed.", kNodesOnline);
        return 0;
    }
    int first = -1, last = -1;
    int ret = std::fscanf(f, "%d-%d", &first, &last);
    std::fclose(f);
    if (ret < 1 || first < 0) {
        TOVI_LOG(kError, "Get numa num failed, ret is %d", ret);
        return 0;
    }
    return static_cast<uint32_t>(ret == 2 ? last : first) + 1u;  // "0-2147483647": no signed overflow
}

CpuInfo gather()
{
    CpuInfo info{};
    info.magic = kMagic;
    info.bytes = sizeof info;
    info.packages = count_from(kPackagesCmd, "Get phycpu num failed, ret is %d", "Get_phycpu_num failed, ret=%d, cpuNum=%d.");
    info.logical = count_from(kLogicalCmd, "Get logic cpu num failed, ret is %d", nullptr);
    if (info.logical == 0)
        TOVI_LOG(kError, "Get logic cpu num failed.");
    if (int ret = run(kModelCmd, info.model, sizeof info.model); ret != 0)
        TOVI_LOG(kError, "Get cpumodel failed, ret is %d", ret);
    else if (info.model[0] == '\0')
        TOVI_LOG(kError, "Get cpumode failed.");
    info.nodes = node_count();
    return info;
}

// The shared record when it is valid, else gathered now and stored there.
// The mapping stays: it is small, and the process's listing of its shared
// memory then shows what it uses.
CpuInfo load_shared()
{
    auto *shared = static_cast<CpuInfo *>(tovi_shm_create_ext(kShmName, O_CREAT | O_RDWR, 0660, sizeof(CpuInfo)));
    if (shared == nullptr) {
        TOVI_LOG(kInfo, "Create cpuinfo shm failed, load by system.");
        return gather();
    }
    int fd = open(kShmLock, O_RDWR | O_CLOEXEC);
    const tovi_lock_req_s whole{TOVI_LOCK_EXCLUSIVE, 0, 0};
    if (fd < 0)
        TOVI_LOG(kError, "Open cpuinfo flock_fd failed, errno = %d", errno);
    else if (!tovi::sysinfo::lock_whole(fd))
        TOVI_LOG(kError, "lock file failed, errno=%d.", errno);
    CpuInfo info = *shared;
    if (!valid(info)) {
        TOVI_LOG(kInfo, "cpu info in shm is incorrect or first, load by system.");
        info = gather();
        if (valid(info)) {
            CpuInfo stored = info;
            stored.magic = 0;
            *shared = stored;
            __atomic_store_n(&shared->magic, kMagic, __ATOMIC_RELEASE);  // pairs with a reader's copy under the lock
        }
    }
    if (fd >= 0) {
        tovi_unlockfile(fd, &whole);
        close(fd);
    }
    return info;
}

// The topology of this process, loaded on first use.
const CpuInfo *topology()
{
    std::lock_guard<std::mutex> guard(g_mutex);
    if (!g_loaded) {
        CpuInfo info = load_shared();
        if (!valid(info))
            return nullptr;
        g_info = info;
        g_loaded = true;
    }
    return &g_info;
}

}  // namespace

extern "C" {

int32_t cpuinfo_init(void)
{
    return topology() != nullptr ? 0 : -1;
}

int32_t tovi_get_phycpu_num(uint32_t *num)
{
    if (num == nullptr) {
        TOVI_LOG(kError, "Parameter is null.");
        return -1;
    }
    const CpuInfo *info = topology();
    return info != nullptr ? (*num = info->packages, 0) : -1;
}

int32_t tovi_get_logic_cpu_num(uint32_t *num)
{
    if (num == nullptr) {
        TOVI_LOG(kError, "Parameter is null.");
        return -1;
    }
    const CpuInfo *info = topology();
    return info != nullptr ? (*num = info->logical, 0) : -1;
}

int32_t tovi_get_cpumodel_info(char *buf)
{
    if (buf == nullptr) {
        TOVI_LOG(kError, "Parameter is null.");
        return -1;
    }
    const CpuInfo *info = topology();
    return info != nullptr && strncpy_s(buf, TOVI_CPUMODEL_LEN, info->model, TOVI_CPUMODEL_LEN - 1) == 0 ? 0 : -1;
}

int32_t tovi_get_cpumask_by_phycpu(uint32_t package, uint64_t *mask)
{
    if (mask == nullptr) {
        TOVI_LOG(kError, "Parameter is null.");
        return -1;
    }
    const CpuInfo *info = topology();
    if (info == nullptr)
        return -1;
    if (package >= info->packages) {
        TOVI_LOG(kError, "Parameter phycpu %d is bigger then total phycpu %d.", static_cast<int>(package),
                 static_cast<int>(info->packages));
        return -1;
    }
    const uint32_t per = info->nodes / info->packages > 0 ? info->nodes / info->packages : 1;
    uint64_t set[16] = {};  // a 1024-bit CPU list set; the mask keeps its first 256 bits
    for (uint32_t node = package * per; node < package * per + per; ++node) {
        char path[96], list[256];
        std::snprintf(path, sizeof path, kNodeCpus, node);
        FILE *f = std::fopen(path, "re");
        bool ok = f != nullptr && std::fgets(list, sizeof list, f) != nullptr;
        if (f != nullptr)
            std::fclose(f);
        list[ok ? std::strcspn(list, "\n") : 0] = '\0';
        if (!ok || tovi_cpum_parse_cpumask(list, set) != 0) {
            TOVI_LOG(kError, "Get %s failed.", path);
            return -1;
        }
    }
    for (int w = 0; w < 4; ++w)
        mask[w] = set[w];
    return 0;
}

}  // extern "C"
