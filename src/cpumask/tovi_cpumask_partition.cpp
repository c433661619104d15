// CPU partitions: named groups of named partitions, each bound to a CPU list,
// read once per process from the partition file.
//
// The table is built under g_mutex and published by the release store of
// g_inited; readers that see the flag walk it without a lock, and it never
// changes afterwards.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_cfg.h"
#include "tovi_cpumask.h"
#include "tovi_cpumask.hpp"
#include "tovi_list.hpp"
#define TOVI_LOG_SOURCE "tovi_cpumask"
#include "tovi_log.hpp"
#include "tovi_mem.h"
#include "tovi_process.h"

namespace {

namespace list = tovi::list;
using tovi::log::kInfo;

constexpr const char *kGenerate = "/ZSR/component/omm/script/gen_product_ini.sh \"/ZSR/conf/app_data/qlrt/\"";
constexpr size_t kValueMax = 512;

list::Node g_groups = {&g_groups, &g_groups};
std::mutex g_mutex;
std::atomic<uint32_t> g_inited{0};

bool read_int(const char *path, const char *section, const char *item, long *out)
{
    char value[64];
    if (tovi_cfg_getItemValue_ex(path, section, item, value, sizeof value) != 0)
        return false;
    *out = std::strtol(value, nullptr, 10);
    return true;
}

// "name:type:cpus" into a new partition; NULL (nothing allocated) for an
// entry without two ':', false through *nomem when memory runs out.
tovi_cpum_partition_s *new_partition(char *entry, bool *nomem)
{
    char *colon1 = std::strchr(entry, ':');
    char *colon2 = colon1 != nullptr ? std::strchr(colon1 + 1, ':') : nullptr;
    if (colon2 == nullptr)
        return nullptr;
    *colon1 = *colon2 = '\0';
    auto *p = static_cast<tovi_cpum_partition_s *>(TOVI_MALLOC(TOVI_MODULE_ID, sizeof(tovi_cpum_partition_s)));
    if (p == nullptr) {
        *nomem = true;
        return nullptr;
    }
    *p = tovi_cpum_partition_s{};
    list::init(&p->stList);
    p->iType = static_cast<int32_t>(std::strtol(colon1 + 1, nullptr, 10));
    strncpy_s(p->acName, sizeof p->acName, entry, sizeof p->acName - 1);         // names are cut, not refused
    tovi::cpumask::copy_list(p->acCpuBind, sizeof p->acCpuBind, colon2 + 1);
    return p;
}

// The largest n of the sections "GROUP_<n>" and of the keys "partition_<n>"
// in a loaded file: no group or partition lies beyond them, so a count of
// billions (a -1 written unsigned) is not walked name by name.
struct Highest {
    long group = -1;
    long partition = -1;
};

long index_after(const char *name, const char *prefix)
{
    const size_t len = std::strlen(prefix);
    if (std::strncmp(name, prefix, len) != 0 || name[len] < '0' || name[len] > '9')
        return -1;
    char *end = nullptr;
    long n = std::strtol(name + len, &end, 10);
    return *end == '\0' ? n : -1;
}

int32_t note_highest(const char *section, const char *item, const char *, void *arg)
{
    auto *h = static_cast<Highest *>(arg);
    long &highest = item == nullptr ? h->group : h->partition;
    highest = std::max(highest, item == nullptr ? index_after(section, "GROUP_") : index_after(item, "partition_"));
    return 0;
}

// Reads the groups of a loaded file onto the global list. 0 or -1.
int32_t parse(const char *path)
{
    long groups = 0;
    if (!read_int(path, "CPU_PARTITION", "group_num", &groups) || groups <= 0) {
        TOVI_LOG_RATELIMITED(kInfo, "Get cpu num fail, ret:%d", static_cast<int>(groups));
        return -1;
    }
    Highest highest;
    tovi_cfg_walk(path, note_highest, &highest);
    groups = std::min(groups, highest.group + 1);
    for (long i = 0; i < groups; ++i) {
        char section[TOVI_CFG_NAME_MAX];
        snprintf_s(section, sizeof section, "GROUP_%ld", i);
        long partitions = 0;
        if (!read_int(path, section, "partition_num", &partitions) || partitions <= 0) {
            TOVI_LOG_RATELIMITED(kInfo, "Get cpu partition num fail, %s", section);
            continue;
        }
        auto *g = static_cast<tovi_cpum_group_s *>(TOVI_MALLOC(TOVI_MODULE_ID, sizeof(tovi_cpum_group_s)));
        if (g == nullptr) {
            TOVI_LOG_RATELIMITED(kInfo, "Malloc for group fail");
            return -1;
        }
        *g = tovi_cpum_group_s{};
        list::init(&g->stPartitions);
        strncpy_s(g->acName, sizeof g->acName, section, sizeof g->acName - 1);
        for (long j = 0; j < std::min(partitions, highest.partition + 1); ++j) {
            char key[TOVI_CFG_NAME_MAX];
            char entry[kValueMax];
            snprintf_s(key, sizeof key, "partition_%ld", j);
            if (tovi_cfg_getItemValue_ex(path, section, key, entry, sizeof entry) != 0)
                continue;
            bool nomem = false;
            if (tovi_cpum_partition_s *p = new_partition(entry, &nomem))
                list::add_tail(&p->stList, &g->stPartitions);
            else if (nomem)
                TOVI_LOG_RATELIMITED(kInfo, "Malloc for group fail");
        }
        list::add_tail(&g->stList, &g_groups);
    }
    return 0;
}

int32_t load(const char *path)
{
    if (path == nullptr) {
        path = TOVI_CPUM_PARTITION_FILE;
        if (access(path, F_OK) != 0) {
            int ret = tovi_system_s(kGenerate, nullptr);
            TOVI_LOG_RATELIMITED(kInfo, "Generate default cpu group cfg ret:%d", ret);
        }
    }
    if (access(path, F_OK) != 0) {
        TOVI_LOG_RATELIMITED(kInfo, "Cpu group cfg %s is not exist, errno:%d", path, errno);
        TOVI_LOG_RATELIMITED(kInfo, "Invalid cpu group cfg %s", path);
        return -1;
    }
    if (tovi_cfg_init(path) != 0) {
        TOVI_LOG_RATELIMITED(kInfo, "Load cpu cgroup cfg fail %s", path);
        return -1;
    }
    int32_t ret = parse(path);
    if (ret != 0)
        TOVI_LOG_RATELIMITED(kInfo, "Parse cpu group cfg fail %s", path);
    tovi_cfg_destroy_ex(path);
    return ret;
}

bool same_name(const char *a, const char *b)
{
    return std::strncmp(a, b, TOVI_CPUM_NAME_LEN) == 0;
}

}  // namespace

extern "C" {

int32_t tovi_cpum_init(const char *path)
{
    if (g_inited.load(std::memory_order_acquire) != 0)  // pairs with the release below
        return 0;
    std::lock_guard<std::mutex> guard(g_mutex);
    if (g_inited.load(std::memory_order_relaxed) != 0)
        return 0;
    int32_t ret = load(path);
    // Once per process, failed or not: a broken file is reported once.
    g_inited.store(1, std::memory_order_release);  // publishes the list
    return ret;
}

tovi_cpum_partition_s *tovi_cpum_get_partition(const char *group, const char *partition)
{
    tovi_cpum_init(nullptr);
    if (group == nullptr || partition == nullptr)
        return nullptr;
    for (auto *g : list::for_each_entry<tovi_cpum_group_s>(&g_groups, offsetof(tovi_cpum_group_s, stList))) {
        if (!same_name(g->acName, group))
            continue;
        for (auto *p : list::for_each_entry<tovi_cpum_partition_s>(&g->stPartitions,
                                                                     offsetof(tovi_cpum_partition_s, stList)))
            if (same_name(p->acName, partition))
                return p;
    }
    return nullptr;
}

int32_t tovi_cpum_clear_cpumask_of_iod_poll(uint64_t *set)
{
    if (tovi_cpum_init(nullptr) != 0 || set == nullptr)
        return -1;
    for (auto *g : list::for_each_entry<tovi_cpum_group_s>(&g_groups, offsetof(tovi_cpum_group_s, stList)))
        for (auto *p : list::for_each_entry<tovi_cpum_partition_s>(&g->stPartitions,
                                                                     offsetof(tovi_cpum_partition_s, stList))) {
            uint32_t first = 0;
            uint32_t last = 0;
            if (std::strcmp(p->acName, "IOD_NORMAL") != 0 || tovi::cpumask::scan_range(p->acCpuBind, &first, &last) != 2 ||
                first > TOVI_CPUSET_BITS - 2 || last < first + 2)
                continue;
            for (unsigned cpu = first; cpu <= first + 1; ++cpu)
                set[cpu / 64] &= ~(1ULL << (cpu % 64));
        }
    return 0;
}

int32_t tovi_cpum_dbg_show(tovi_cpum_print_f print)
{
    if (print == nullptr)
        return -1;
    if (g_inited.load(std::memory_order_acquire) == 0) {
        print("Cpu partition is not inited yet\n");
        return -1;
    }
    print("%-16s %-16s %-4s %s\n", "Group", "Partition", "Type", "CpuBind");
    for (auto *g : list::for_each_entry<tovi_cpum_group_s>(&g_groups, offsetof(tovi_cpum_group_s, stList)))
        for (auto *p : list::for_each_entry<tovi_cpum_partition_s>(&g->stPartitions,
                                                                     offsetof(tovi_cpum_partition_s, stList)))
            print("%-16s %-16s %-4d %s\n", g->acName, p->acName, p->iType, p->acCpuBind);
    return 0;
}

}  // extern "C"
