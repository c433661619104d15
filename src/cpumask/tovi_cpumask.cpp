// CPU masks of the system and CPU lists.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_bitop.h"
#include "tovi_cpumask.h"
#include "tovi_cpumask.hpp"
#define TOVI_LOG_SOURCE "tovi_cpumask"
#include "tovi_log.hpp"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr uint32_t kLastCpu = TOVI_CPUSET_BITS - 1;
// Longest item looked at: a group and a partition name of 31 characters
// each and the separator.
constexpr size_t kItemMax = 128;
// A partition whose binding names itself, directly or through others, would
// recurse for ever; real configurations nest one or two levels. Nor may one
// list expand more references in all: a binding naming itself many times
// over would otherwise take (names per binding)^8 steps.
constexpr int kMaxNesting = 8;
constexpr int kMaxReferences = 256;
constexpr size_t kSysfsLineMax = 256;

uint64_t g_possible[TOVI_CPUMASK_WORDS];
uint64_t g_online[TOVI_CPUMASK_WORDS];
uint64_t g_present[TOVI_CPUMASK_WORDS];
std::mutex g_masks_mutex;
bool g_masks_loaded = false;  // under g_masks_mutex

void set_range(uint64_t *set, uint32_t first, uint32_t last)
{
    for (uint32_t cpu = first; cpu <= last; ++cpu)
        set[cpu / 64] |= 1ULL << (cpu % 64);
}

int32_t parse_list(const char *list, uint64_t *set, int depth, int *refs_left);

// A reference to another partition's CPU binding ("GROUP_0/io").
bool apply_reference(const char *group, const char *partition, uint64_t *set, int depth, int *refs_left)
{
    if (depth >= kMaxNesting || *refs_left <= 0)
        return false;
    --*refs_left;
    const tovi_cpum_partition_s *p = tovi_cpum_get_partition(group, partition);
    return p != nullptr && parse_list(p->acCpuBind, set, depth + 1, refs_left) == 0;
}

// Applies one item; false when it was bad (logged).
bool apply_item(const char *item, uint64_t *set, int depth, int *refs_left)
{
    char group[TOVI_CPUM_NAME_LEN];
    char partition[TOVI_CPUM_NAME_LEN];
    if (sscanf_s(item, "%31[^/,]/%31[^,]", group, partition) == 2) {
        if (apply_reference(group, partition, set, depth, refs_left))
            return true;
        TOVI_LOG(kInfo, "Parse cpu mask fail, invalid format:%s", item);
        return false;
    }
    uint32_t first = 0;
    uint32_t last = 0;
    int n = tovi::cpumask::scan_range(item, &first, &last);
    if (n == 1) {
        last = first;
    } else if (n != 2) {
        TOVI_LOG(kInfo, "Parse cpu mask fail, invalid format:%s", item);
        return false;
    }
    if (last < first) {
        TOVI_LOG(kInfo, "Parse cpu mask %s fail, end:%u is less than start:%u", item, last, first);
        return false;
    }
    if (last > kLastCpu)
        last = kLastCpu;
    if (first <= last)
        set_range(set, first, last);
    return true;
}

// How much of a list cut after `len` characters, followed by `next`, to
// keep: all of it when the cut falls between items, else up to the last ','.
size_t whole_items(const char *list, size_t len, int next)
{
    if (next == '\0' || next == ',' || next == '\n' || next == EOF)
        return len;
    while (len > 0 && list[len - 1] != ',')
        --len;
    return len > 0 ? len - 1 : 0;
}

int32_t parse_list(const char *list, uint64_t *set, int depth, int *refs_left)
{
    bool applied = false;
    const char *p = list;
    while (*p != '\0') {
        const char *comma = std::strchr(p, ',');
        size_t len = comma != nullptr ? static_cast<size_t>(comma - p) : std::strlen(p);
        if (len != 0) {  // empty items (",," or a trailing ',') are no items
            char item[kItemMax];
            size_t keep = len < kItemMax ? len : kItemMax - 1;
            memcpy_s(item, sizeof item, p, keep);
            item[keep] = '\0';
            if (keep < len)  // cut, it would read as another number ("000...05" as 0)
                TOVI_LOG(kInfo, "Parse cpu mask fail, invalid format:%s", item);
            else if (apply_item(item, set, depth, refs_left))
                applied = true;
        }
        if (comma == nullptr)
            break;
        p = comma + 1;
    }
    return applied ? 0 : -1;
}

}  // namespace

namespace tovi::cpumask {

int scan_range(const char *item, uint32_t *first, uint32_t *last)
{
    // strtoull takes what %u takes (blanks, a sign) and saturates instead of
    // wrapping; a negative number comes out huge, as with %u.
    auto number = [](const char *p, const char **end, uint32_t *out) {
        char *e = nullptr;
        unsigned long long v = std::strtoull(p, &e, 10);
        if (e == p)
            return false;
        *out = v > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(v);
        *end = e;
        return true;
    };
    const char *p = item;
    if (!number(p, &p, first))
        return 0;
    if (*p != '-' || !number(p + 1, &p, last))
        return 1;
    return 2;
}

void copy_list(char *to, size_t size, const char *from)
{
    size_t len = strnlen_s(from, size);
    size_t keep = len < size ? len : whole_items(from, size - 1, static_cast<unsigned char>(from[size - 1]));
    memcpy_s(to, size, from, keep);
    to[keep] = '\0';
}

}  // namespace tovi::cpumask

extern "C" {

uint64_t *const cpu_possible_mask = g_possible;
uint64_t *const cpu_online_mask = g_online;
uint64_t *const cpu_present_mask = g_present;

int32_t tovi_cpum_parse_cpumask(const char *list, uint64_t *set)
{
    if (list == nullptr || set == nullptr)
        return -1;
    int refs_left = kMaxReferences;
    return parse_list(list, set, 0, &refs_left);
}

int32_t tovi_set_cpumask_bit(uint8_t *mask, const char *item)
{
    if (mask == nullptr || item == nullptr)
        return -1;
    int first = 0;
    int last = 0;
    int ret = std::strchr(item, '-') != nullptr ? sscanf_s(item, "%d-%d", &first, &last) : sscanf_s(item, "%d", &first);
    if (ret != (std::strchr(item, '-') != nullptr ? 2 : 1)) {
        TOVI_LOG(kError, "sscanf_s failed.ret is %d.", ret);
        return -1;
    }
    if (std::strchr(item, '-') == nullptr)
        last = first;
    // A host with more CPUs than a mask holds lists them all: the mask keeps
    // the first 256.
    for (int cpu = first < 0 ? 0 : first; cpu <= last && cpu < static_cast<int>(TOVI_CPUMASK_BITS); ++cpu)
        mask[cpu / 8] = static_cast<uint8_t>(mask[cpu / 8] | 1u << (cpu % 8));
    return last;
}

void init_cpumask_bit(uint64_t *mask, int32_t words)
{
    for (int32_t i = 0; mask != nullptr && i < words; ++i)
        mask[i] = 0;
}

int32_t load_cpumask(uint64_t *mask, const char *path)
{
    if (mask == nullptr || path == nullptr)
        return -1;
    FILE *f = std::fopen(path, "re");
    if (f == nullptr)
        return -1;
    char line[kSysfsLineMax] = {};
    bool read = std::fgets(line, sizeof line, f) != nullptr;
    if (read && std::strchr(line, '\n') == nullptr)  // a longer line: whole items only
        line[whole_items(line, std::strlen(line), std::fgetc(f))] = '\0';
    std::fclose(f);
    if (!read)
        return -1;
    line[std::strcspn(line, "\n")] = '\0';
    int32_t largest = 0;
    char *save = nullptr;
    rsize_t left = sizeof line;
    for (char *item = strtok_s(line, &left, ",", &save); item != nullptr; item = strtok_s(nullptr, &left, ",", &save)) {
        int32_t last = tovi_set_cpumask_bit(reinterpret_cast<uint8_t *>(mask), item);
        if (last > largest)
            largest = last;
    }
    return largest;
}

int32_t cpumask_init(void)
{
    std::lock_guard<std::mutex> guard(g_masks_mutex);
    if (g_masks_loaded)
        return 0;
    init_cpumask_bit(g_possible, TOVI_CPUMASK_WORDS);
    init_cpumask_bit(g_online, TOVI_CPUMASK_WORDS);
    init_cpumask_bit(g_present, TOVI_CPUMASK_WORDS);
    int32_t possible = load_cpumask(g_possible, "/sys/devices/system/cpu/possible");
    int32_t online = load_cpumask(g_online, "/sys/devices/system/cpu/online");
    int32_t present = load_cpumask(g_present, "/sys/devices/system/cpu/present");
    if (possible < 0 || online < 0 || present < 0) {
        TOVI_LOG(kError, "Load_cpumask failed. possible_cpu = %d, online_cpu = %d, max_cpu=%d\n", possible, online,
                 present);
        return -1;
    }
    g_masks_loaded = true;
    return 0;
}

uint32_t tovi_first_cpu(const uint64_t *mask)
{
    return mask == nullptr ? TOVI_CPUMASK_BITS : static_cast<uint32_t>(find_first_bit(mask, TOVI_CPUMASK_BITS));
}

uint32_t tovi_next_cpu(uint32_t cpu, const uint64_t *mask)
{
    if (mask == nullptr || cpu >= TOVI_CPUMASK_BITS - 1)
        return TOVI_CPUMASK_BITS;
    return static_cast<uint32_t>(find_next_bit(mask, TOVI_CPUMASK_BITS, cpu + 1));
}

}  // extern "C"
