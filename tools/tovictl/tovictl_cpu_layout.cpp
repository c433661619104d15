// tovictl numa / partitions: the machine's CPU layout as the library sees it.
//
//   tovictl numa [FILE]         the system masks, then the NUMA nodes of FILE
//                               (default: the platform's NUMA file)
//   tovictl partitions [FILE]   the CPU partition table of FILE (default: the
//                               platform's partition file; not generated here)
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

#include "tovi_cpu.h"
#include "tovi_cpumask.h"

namespace {

// "0-3,8" for the first `bits` bits of a set; "none" when empty.
std::string cpu_list(const uint64_t *set, unsigned bits)
{
    auto has = [set, bits](unsigned c) { return c < bits && (set[c / 64] >> (c % 64) & 1) != 0; };
    std::string out;
    for (unsigned cpu = 0; cpu < bits; ++cpu) {
        if (!has(cpu))
            continue;
        unsigned last = cpu;
        while (has(last + 1))
            ++last;
        out += (out.empty() ? "" : ",") + std::to_string(cpu) + (last != cpu ? "-" + std::to_string(last) : "");
        cpu = last;
    }
    return out.empty() ? "none" : out;
}

// The optional FILE argument: false (after the usage line) for more.
bool file_arg(const char *verb, int argc, char **argv, const char **file)
{
    if (argc > 1 || (argc == 1 && argv[0][0] == '-')) {
        std::fprintf(stderr, "tovictl: %s: usage: tovictl %s [FILE]\n", verb, verb);
        return false;
    }
    *file = argc == 1 ? argv[0] : nullptr;
    return true;
}

}  // namespace

int tovictl_numa(int argc, char **argv)
{
    const char *file = nullptr;
    if (!file_arg("numa", argc, argv, &file))
        return 2;
    if (file != nullptr && access(file, R_OK) != 0) {
        std::fprintf(stderr, "tovictl: numa: cannot read '%s'\n", file);
        return 1;
    }
    if (tovi_numam_init(file) != 0) {
        std::fprintf(stderr, "tovictl: numa: '%s' is not a valid NUMA file\n", file != nullptr ? file : TOVI_NUMAM_FILE);
        return 1;
    }
    if (cpumask_init() == 0) {
        std::printf("possible %s\nonline   %s\npresent  %s\n", cpu_list(cpu_possible_mask, TOVI_CPUMASK_BITS).c_str(),
                    cpu_list(cpu_online_mask, TOVI_CPUMASK_BITS).c_str(),
                    cpu_list(cpu_present_mask, TOVI_CPUMASK_BITS).c_str());
    }
    std::printf("configured CPUs %u, online %u\n", num_config_cpus(), num_online_cpus());
    const int32_t nodes = tovi_numam_num_get();
    if (nodes == 0) {
        std::printf("no NUMA configuration (%s)\n", file != nullptr ? file : TOVI_NUMAM_FILE);
        return 0;
    }
    uint64_t used = 0;
    tovi_numam_proc_numamask_get(&used);
    std::printf("NUMA %s, %d nodes\n", tovi_numam_status_get() != 0 ? "enabled" : "disabled", nodes);
    for (uint32_t id = 0; id < static_cast<uint32_t>(nodes); ++id) {
        uint64_t set[TOVI_CPUSET_BITS / 64] = {};
        if (tovi_numam_cpuset_get(id, set) != 0) {
            std::fprintf(stderr, "tovictl: numa: node %u has a bad CPU list\n", id);
            return 1;
        }
        std::printf("node %-3u %s %s\n", id, (used >> (id % 64) & 1) != 0 ? "used  " : "unused",
                    cpu_list(set, TOVI_CPUSET_BITS).c_str());
    }
    return 0;
}

int tovictl_partitions(int argc, char **argv)
{
    const char *file = nullptr;
    if (!file_arg("partitions", argc, argv, &file))
        return 2;
    const char *path = file != nullptr ? file : TOVI_CPUM_PARTITION_FILE;
    if (access(path, R_OK) != 0) {
        std::fprintf(stderr, "tovictl: partitions: cannot read '%s'\n", path);
        return 1;
    }
    if (tovi_cpum_init(path) != 0) {
        std::fprintf(stderr, "tovictl: partitions: '%s' is not a valid partition file\n", path);
        return 1;
    }
    return tovi_cpum_dbg_show(std::printf) == 0 ? 0 : 1;
}
