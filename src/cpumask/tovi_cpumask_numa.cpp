// The process's NUMA configuration: the nodes with their CPU lists, which of
// them this process uses, and the NUMA status.
//
// A load builds its nodes on a private list and publishes them (list splice,
// counts, then the release store of g_loaded) only when the whole file
// parsed, so a failed load leaves nothing behind and the next call starts
// over. Readers that see g_loaded walk the list without a lock.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_cfg.h"
#include "tovi_cpumask.h"
#include "tovi_cpumask.hpp"
#include "tovi_list.hpp"
#define TOVI_LOG_SOURCE "tovi_numa"
#include "tovi_log.hpp"
#include "tovi_mem.h"

namespace {

namespace list = tovi::list;
using tovi::log::kError;
using tovi::log::kInfo;

struct NumaNode {
    list::Node link;
    uint32_t id;
    uint32_t used;  // 1 when this process uses the node
    char cpus[TOVI_CPUM_BIND_LEN];
};

list::Node g_nodes = {&g_nodes, &g_nodes};
std::atomic<int32_t> g_numa_num{0};
int32_t g_cpu_num = 0;
std::atomic<uint32_t> g_status{0};
std::mutex g_mutex;  // both entry points
std::atomic<uint32_t> g_loaded{0};

constexpr size_t kValueMax = 1024;

void free_nodes(list::Node *head)
{
    for (auto *n : list::for_each_entry<NumaNode>(head, offsetof(NumaNode, link))) {
        list::del(&n->link);
        TOVI_FREE(n);
    }
}

bool read_int(const char *path, const char *section, const char *item, long *out)
{
    char value[64];
    if (tovi_cfg_getItemValue_ex(path, section, item, value, sizeof value) != 0)
        return false;
    *out = std::strtol(value, nullptr, 10);
    return true;
}

// [NUMA_PARTITION] onto `nodes`. 0 or -1.
int32_t parse_nodes(const char *path, list::Node *nodes, int32_t *cpu_num, int32_t *numa_num)
{
    long cpus = 0;
    long numas = 0;
    if (!read_int(path, "NUMA_PARTITION", "cpu_num", &cpus) || cpus < 1) {
        TOVI_LOG(kError, "Get cpu num fail, ret:%d", static_cast<int>(cpus));
        return -1;
    }
    if (!read_int(path, "NUMA_PARTITION", "numa_num", &numas) || numas < 1) {
        TOVI_LOG(kError, "Get numa num fail, ret:%d", static_cast<int>(numas));
        return -1;
    }
    for (uint32_t id = 0; id < static_cast<uint64_t>(numas); ++id) {
        char key[TOVI_CFG_NAME_MAX];
        char value[kValueMax];
        snprintf_s(key, sizeof key, "numa_%u", id);
        if (tovi_cfg_getItemValue_ex(path, "NUMA_PARTITION", key, value, sizeof value) != 0)
            return -1;
        auto *n = static_cast<NumaNode *>(TOVI_MALLOC(TOVI_MODULE_ID, sizeof(NumaNode)));
        if (n == nullptr) {
            TOVI_LOG(kError, "Malloc for numaInfo fail");
            return -1;
        }
        *n = NumaNode{};
        n->id = id;
        tovi::cpumask::copy_list(n->cpus, sizeof n->cpus, value);
        list::add_tail(&n->link, nodes);
        TOVI_LOG(kInfo, "Get cores(%s) by numaId(%u) success.", n->cpus, id);
    }
    *cpu_num = static_cast<int32_t>(cpus);
    *numa_num = static_cast<int32_t>(numas);
    TOVI_LOG(kInfo, "Get cpu_num(%u), numa_num(%d) success.", static_cast<unsigned>(cpus), static_cast<int>(numas));
    return 0;
}

// [PROC_PARTITION]: the status and the nodes this process uses. 0 or -1.
int32_t parse_proc(const char *path, list::Node *nodes, int32_t numa_num, uint32_t *status)
{
    char value[kValueMax];
    if (tovi_cfg_getItemValue_ex(path, "PROC_PARTITION", "numa_enable", value, sizeof value) != 0)
        return -1;
    if (std::strncmp(value, "tru", 3) == 0) {
        *status = 1;
    } else if (std::strncmp(value, "fals", 4) == 0) {
        *status = 0;
    } else {
        TOVI_LOG(kError, "Get proc_numa_info fail, itemValue:%s", value);
        return -1;
    }
    TOVI_LOG(kInfo, "Get numa_enable(%s) success.", value);
    if (tovi_cfg_getItemValue_ex(path, "PROC_PARTITION", "proc_numa_info", value, sizeof value) != 0)
        return 0;
    for (const char *p = value; *p != '\0';) {
        // An empty piece (",," or a trailing ',') names no node; read as a
        // number it would mark node 0.
        const bool empty = *p == ',';
        unsigned long id = empty ? 0 : std::strtoul(p, nullptr, 10);
        if (!empty && id >= static_cast<unsigned long>(numa_num)) {
            TOVI_LOG(kError, "Get proc_numa_info(%s) failed.", value);
            return -1;
        }
        for (auto *n : list::for_each_entry<NumaNode>(nodes, offsetof(NumaNode, link)))
            if (!empty && n->id == id)
                n->used = 1;
        const char *comma = std::strchr(p, ',');
        if (comma == nullptr)
            break;
        p = comma + 1;
    }
    TOVI_LOG(kInfo, "Get proc_numa_info(%s) success.", value);
    return 0;
}

// Both sections, from one file or two; publishes the result. 0 or -1.
int32_t parse_and_publish(const char *nodes_path, const char *proc_path)
{
    list::Node nodes = {&nodes, &nodes};
    int32_t cpu_num = 0;
    int32_t numa_num = 0;
    uint32_t status = 0;
    if (parse_nodes(nodes_path, &nodes, &cpu_num, &numa_num) != 0) {
        TOVI_LOG(kError, "Parse numa cfg CPU_PARTITION fail.");
        free_nodes(&nodes);
        return -1;
    }
    if (parse_proc(proc_path, &nodes, numa_num, &status) != 0) {
        TOVI_LOG(kError, "Parse numa cfg PROC_PARTITION fail.");
        free_nodes(&nodes);
        return -1;
    }
    list::splice_init(&nodes, &g_nodes);
    g_cpu_num = cpu_num;
    g_numa_num.store(numa_num, std::memory_order_relaxed);
    g_status.store(status, std::memory_order_relaxed);
    g_loaded.store(1, std::memory_order_release);  // publishes the nodes; pairs with the acquires of the readers
    return 0;
}

const NumaNode *find(uint32_t id)
{
    if (g_loaded.load(std::memory_order_acquire) == 0)  // pairs with parse_and_publish
        return nullptr;
    for (auto *n : list::for_each_entry<NumaNode>(&g_nodes, offsetof(NumaNode, link)))
        if (n->id == id)
            return n;
    return nullptr;
}

// ORs a node's CPU list into `words` 64-bit words; CPUs beyond them are left
// out. False for a bad item.
bool or_cpus(const char *cpus, uint64_t *bits, uint32_t words)
{
    char copy[TOVI_CPUM_BIND_LEN];
    strcpy_s(copy, sizeof copy, cpus);
    char *save = nullptr;
    rsize_t left = sizeof copy;
    for (char *item = strtok_s(copy, &left, ",", &save); item != nullptr; item = strtok_s(nullptr, &left, ",", &save)) {
        uint32_t first = 0;
        uint32_t last = 0;
        if (tovi_numam_parse_cpustr(item, &first, &last) != 0)
            return false;
        for (uint64_t cpu = first; cpu <= last && cpu < words * 64ULL; ++cpu)
            bits[cpu / 64] |= 1ULL << (cpu % 64);
    }
    return true;
}

int32_t node_cpus(uint32_t numaId, uint64_t *bits, uint32_t words, bool set)
{
    memset_s(bits, words * 8, 0, words * 8);
    const NumaNode *n = find(numaId);
    if (n == nullptr) {
        // Asking for a node the file does not have is not an error.
        TOVI_LOG(kInfo, "NumaId(%u) not configured, numa_num(%u).", numaId,
                 static_cast<unsigned>(g_numa_num.load(std::memory_order_relaxed)));
        return 0;
    }
    if (or_cpus(n->cpus, bits, words))
        return 0;
    if (set)
        TOVI_LOG(kError, "Parse CpuSet %s fail.", n->cpus);
    else
        TOVI_LOG(kError, "Parse cpu mask %s fail.", n->cpus);
    return -1;
}

bool valid_name(const char *name)
{
    size_t len = strnlen_s(name, 256);
    return len >= 1 && len <= 255;
}

}  // namespace

extern "C" {

int32_t tovi_numam_init(const char *path)
{
    if (g_loaded.load(std::memory_order_acquire) != 0)
        return 0;
    std::lock_guard<std::mutex> guard(g_mutex);
    if (g_loaded.load(std::memory_order_relaxed) != 0)
        return 0;
    if (path == nullptr) {
        path = TOVI_NUMAM_FILE;
        if (access(path, R_OK) != 0) {
            // No NUMA file: this host runs without NUMA configuration.
            TOVI_LOG_RATELIMITED(kInfo, "Numa cfg %s is not access, errno:%d", path, errno);
            return 0;
        }
    }
    TOVI_LOG_RATELIMITED(kInfo, "Numa cfg %s.", path);
    if (tovi_cfg_init(path) != 0) {
        TOVI_LOG(kError, "Load Numa cfg fail %s", path);
        return -1;
    }
    int32_t ret = parse_and_publish(path, path);
    if (tovi_cfg_destroy_ex(path) != 0)
        TOVI_LOG(kError, "Destroy numa cfg fail %s", path);
    return ret;
}

int32_t tovi_numam_module_init(char files[2][256])
{
    if (files == nullptr) {
        TOVI_LOG(kError, "Numa cfg is NULL.");
        return -1;
    }
    if (!valid_name(files[0])) {
        TOVI_LOG(kError, "Numa cfg numa_info error.");
        return -1;
    }
    if (!valid_name(files[1])) {
        TOVI_LOG(kError, "Numa cfg node_numa error.");
        return -1;
    }
    if (g_loaded.load(std::memory_order_acquire) != 0)
        return 0;
    std::lock_guard<std::mutex> guard(g_mutex);
    if (g_loaded.load(std::memory_order_relaxed) != 0)
        return 0;
    int32_t ret = 0;
    bool loaded[2] = {false, false};
    for (int i = 0; i < 2; ++i) {
        loaded[i] = tovi_cfg_init(files[i]) == 0;
        if (!loaded[i]) {
            TOVI_LOG(kInfo, "Load cfg(%s) fail", files[i]);
            ret = -1;
        }
    }
    if (ret == 0)
        ret = parse_and_publish(files[0], files[1]);
    for (int i = 0; i < 2; ++i)
        if (loaded[i] && tovi_cfg_destroy_ex(files[i]) != 0)
            TOVI_LOG(kError, "Destroy cfg(%s) fail", files[i]);
    return ret;
}

uint32_t tovi_numam_status_get(void)
{
    return g_status.load(std::memory_order_relaxed);
}

int32_t tovi_numam_status_set(uint32_t on)
{
    if (on > 1)
        return -1;
    g_status.store(on, std::memory_order_relaxed);
    return 0;
}

int32_t tovi_numam_num_get(void)
{
    return g_numa_num.load(std::memory_order_relaxed);
}

int32_t tovi_numam_proc_numamask_get(uint64_t *mask)
{
    if (mask == nullptr) {
        TOVI_LOG(kError, "Param error, munaMask is NULL.");
        return -1;
    }
    if (g_loaded.load(std::memory_order_acquire) == 0)
        return 0;
    for (auto *n : list::for_each_entry<NumaNode>(&g_nodes, offsetof(NumaNode, link)))
        if (n->used != 0)
            *mask |= 1ULL << (n->id % 64);
    return 0;
}

int32_t tovi_numam_cpuset_get(uint32_t numaId, uint64_t *set)
{
    if (set == nullptr) {
        TOVI_LOG(kError, "Param error, cpuSet is NULL.");
        return -1;
    }
    return node_cpus(numaId, set, TOVI_CPUSET_BITS / 64, true);
}

int32_t tovi_numam_cpumask_get(uint32_t numaId, uint64_t *mask)
{
    if (mask == nullptr) {
        TOVI_LOG(kError, "Param error, munaMask is NULL.");
        return -1;
    }
    return node_cpus(numaId, mask, TOVI_CPUMASK_WORDS, false);
}

int32_t tovi_numam_parse_cpustr(const char *item, uint32_t *start, uint32_t *end)
{
    if (item == nullptr || start == nullptr || end == nullptr)
        return -1;
    uint32_t first = 0;
    uint32_t last = 0;
    int n = tovi::cpumask::scan_range(item, &first, &last);
    if (n == 2 && last < first) {
        TOVI_LOG(kError, "Parse cpu mask %s fail, end:%u is less than start:%u", item, last, first);
        return -1;
    }
    if (n < 1) {
        TOVI_LOG(kError, "Parse CpuSet fail, invalid format:%s", item);
        return -1;
    }
    *start = first;
    *end = n == 2 ? last : first;
    return 0;
}

}  // extern "C"
