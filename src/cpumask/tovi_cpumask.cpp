// CPU masks and CPU lists.
#include <cstring>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_cpumask.h"
#define TOVI_LOG_SOURCE "tovi_cpumask"
#include "tovi_log.hpp"

namespace {

using tovi::log::kInfo;

constexpr uint32_t kSetBits = 1024;
constexpr uint32_t kLastCpu = kSetBits - 1;
// Longest item looked at: a group and a partition name of 31 characters
// each and the separator.
constexpr size_t kItemMax = 128;

void set_range(uint64_t *set, uint32_t first, uint32_t last)
{
    for (uint32_t cpu = first; cpu <= last; ++cpu)
        set[cpu / 64] |= 1ULL << (cpu % 64);
}

// A reference to another partition's CPU binding ("GROUP_0/io"). The
// partition table is not part of the library yet, so no reference resolves.
bool apply_reference(const char *, const char *, uint64_t *)
{
    return false;
}

// Applies one item; false when it was bad (logged).
bool apply_item(const char *item, uint64_t *set)
{
    char group[32];
    char partition[32];
    if (sscanf_s(item, "%31[^/,]/%31[^,]", group, partition) == 2) {
        if (apply_reference(group, partition, set))
            return true;
        TOVI_LOG(kInfo, "Parse cpu mask fail, invalid format:%s", item);
        return false;
    }
    unsigned first = 0;
    unsigned last = 0;
    int n = sscanf_s(item, "%u-%u", &first, &last);
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

}  // namespace

extern "C" {

int32_t tovi_cpum_parse_cpumask(const char *list, uint64_t *set)
{
    if (list == nullptr || set == nullptr)
        return -1;
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
            if (apply_item(item, set))
                applied = true;
        }
        if (comma == nullptr)
            break;
        p = comma + 1;
    }
    return applied ? 0 : -1;
}

}  // extern "C"
