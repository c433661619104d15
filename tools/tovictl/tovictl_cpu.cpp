// tovictl cpu: CPU usage of the whole machine and of each CPU, once a
// second, like a small top.
//
//   tovictl cpu [-n N]
//
// Runs until Ctrl-C, or for N samples. The numbers are the machine-wide
// sampler's: this process samples only when no other process does.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "tovi_init.h"
#include "tovi_sched.h"
#include "tovi_sysinfo.h"

namespace {

volatile sig_atomic_t g_interrupted = 0;

void on_interrupt(int)
{
    g_interrupted = 1;
}

void print_header(uint32_t cpus)
{
    uint32_t packages = 0, logical = 0;
    char model[TOVI_CPUMODEL_LEN] = "?";
    tovi_get_phycpu_num(&packages);
    tovi_get_logic_cpu_num(&logical);
    tovi_get_cpumodel_info(model);
    std::printf("%u package(s), %u logical CPU(s), %u online, model %s\n", packages, logical, tovi_sysinfo_cpu_num(),
                model);
    std::string head = "time       all  mem";
    for (uint32_t c = 0; c < cpus; ++c) {
        char col[16];
        std::snprintf(col, sizeof col, " %5s", ("cpu" + std::to_string(c)).c_str());
        head += col;
    }
    std::printf("%s\n", head.c_str());
}

void print_sample(uint32_t cpus, uint32_t *usage)
{
    char stamp[16];
    const time_t now = std::time(nullptr);
    struct tm local {};
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", localtime_r(&now, &local));
    std::string line = stamp;
    char col[16];
    std::snprintf(col, sizeof col, " %4u%% %3u%%", tovi_sysinfo_cpu_usage(), tovi_sysinfo_mem_usage());
    line += col;
    tovi_get_cpu_usage_array(usage, cpus);
    for (uint32_t c = 0; c < cpus; ++c) {
        std::snprintf(col, sizeof col, " %4u%%", usage[c]);
        line += col;
    }
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

int tovictl_cpu(int argc, char **argv)
{
    unsigned long samples = 0;  // 0: until interrupted
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "-n") == 0 && i + 1 < argc) {
            char *end = nullptr;
            const char *text = argv[++i];
            samples = std::strtoul(text, &end, 10);
            if (text[0] < '0' || text[0] > '9' || *end != '\0' || samples < 1 || samples > 100000) {
                std::fprintf(stderr, "tovictl: cpu: N must be a number from 1 to 100000, not '%s'\n", text);
                return 2;
            }
        } else {
            std::fprintf(stderr, "tovictl: cpu: unexpected '%s' (usage: tovictl cpu [-n N])\n", argv[i]);
            return 2;
        }
    }
    if (tovi_Init() != 0) {
        std::fprintf(stderr, "tovictl: the library failed to start (see the log above)\n");
        return 1;
    }
    struct sigaction sa {};
    sa.sa_handler = on_interrupt;
    sigaction(SIGINT, &sa, nullptr);
    const uint32_t cpus = tovi_sysinfo_present_cpu_num();
    uint32_t *usage = static_cast<uint32_t *>(std::calloc(cpus + 1u, sizeof(uint32_t)));
    if (usage == nullptr)
        return 1;
    print_header(cpus);
    for (unsigned long done = 0; !g_interrupted && (samples == 0 || done < samples); ++done) {
        for (int tick = 0; tick < 100 && !g_interrupted; ++tick)  // one second, ended early by Ctrl-C
            tovi_10msleep(1);
        if (!g_interrupted)
            print_sample(cpus, usage);
    }
    std::free(usage);
    return 0;
}
