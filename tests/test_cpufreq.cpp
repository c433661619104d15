// CPU frequency over a fake /sys/devices/system/cpu in a private mount
// namespace; commands go to the recording shell, so nothing is changed.
#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "shell_recorder.hpp"
#include "tovi_cpufreq.h"
#include "tovi_cpufreq.hpp"
#include "tovi_sysinfo.h"

using tovi::test::LogCapture;
using tovi::test::write_file;
using Texts = std::vector<std::string>;

namespace {

const std::string kCpu = "/sys/devices/system/cpu/";
constexpr const char *kGovernorCmd = "echo %s > /sys/devices/system/cpu/cpu%d/cpufreq/scaling_governor";

bool cpu_file(int cpu, const std::string &name, const std::string &text)
{
    const std::string dir = kCpu + "cpu" + std::to_string(cpu);
    mkdir(dir.c_str(), 0755), mkdir((dir + "/cpufreq").c_str(), 0755);
    return write_file(dir + "/cpufreq/" + name, text);
}

}  // namespace

// Two packages of 48 logical CPUs, of which 0-3 are online: CPU 0 scales,
// CPU 1 has no cpufreq files, CPU 2 lists more frequencies than an entry
// holds, CPU 3 has a governor name longer than its field.
TEST(Cpufreq, TableCommandsAndMachineSteps)
{
    EXPECT_CHILD_REPORT(tovi::test::in_private_mounts(0, {"/dev/shm", kCpu}, []() -> std::string {
        std::string many;  // 100000 ... 3200000
        for (int f = 1; f <= 32; ++f) many += std::to_string(f * 100000) + " ";
        CHILD_CHECK(write_file(kCpu + "online", "0-3\n") && write_file(kCpu + "possible", "0-47\n") && write_file(kCpu + "present", "0-47\n") && cpu_file(0, "scaling_available_frequencies", "  2400000 1200000\t1800000 \n") &&
                    cpu_file(0, "scaling_governor", "performance\n") && cpu_file(2, "scaling_available_frequencies", many + "\n") &&
                    cpu_file(3, "scaling_governor", "abcdefghijklmnopqrstuvwxyz\n") && cpu_file(24, "scaling_max_freq", "2000000\n") &&
                    cpu_file(36, "scaling_max_freq", "2200000\n"));
        LogCapture cap;
        tovi::test::ShellRecorder shell;
        shell.output = {{"lscpu | grep 'Socket(s)' | awk '{print $NF}' ", "2\n"},
                        {"cat /proc/cpuinfo | grep 'processor' | awk '{print $NF}' | sort | uniq | wc -l", "48\n"},
                        {"uname -p", "aarch64\n"}};
        CHILD_CHECK(cpuinfo_init() == 0 && (cap.clear(), tovi_cpufreq_init() == 0) && tovi_cpufreq_init() == 0);
        Texts table;  // lowest-highest, the first two and the 30th frequency, the governor
        for (uint32_t cpu = 0; cpu < 4; ++cpu) {
            const auto *e = tovi::cpufreq::entry(cpu);
            table.push_back(tovi::test::fmt("%u-%u %u %u %u %s", e->lowest, e->highest, e->freqs[0], e->freqs[1], e->freqs[29], e->governor));
        }
        CHILD_CHECK(table == (Texts{"1200000-2400000 2400000 1800000 0 performance", "1200000-1200000 1200000 0 0 ondemand",
                                    "100000-3200000 3200000 3100000 100000 ondemand", "1200000-1200000 1200000 0 0 abcdefghijklmnopqrs"}));
        // Missing files go through the rate limiter: three messages, the fourth (cpu3) and later ones held back.
        CHILD_CHECK(cap.texts() == (Texts{"Load cpu1 scaling_available_frequencies file fail!", "Load cpu1 scaling_governor file fail!",
                                          "Load cpu2 scaling_governor file fail!"}));
        // Governors: refused arguments run nothing; a switch stops at the first failure.
        shell.commands.clear(), cap.clear();
        shell.status[tovi::test::fmt(kGovernorCmd, "performance", 2)] = 256;
        CHILD_CHECK(tovi_set_cpufreq_switch(2) == -22 && tovi_cpufreq_set_governor(1, nullptr) == -22 &&
                    tovi_cpufreq_set_governor(1, "a;b") == -1 && tovi_cpufreq_set_governor(1, std::string(200, 'g').c_str()) == -1 && shell.commands.empty());
        CHILD_CHECK(tovi_set_cpufreq_switch(0) == 256 && tovi_set_cpufreq_switch(1) == 0 && shell.commands.size() == 7);
        CHILD_CHECK(shell.commands[2] == tovi::test::fmt(kGovernorCmd, "performance", 2) && shell.commands[6] == tovi::test::fmt(kGovernorCmd, "ondemand", 3));
        const Texts said = cap.texts();  // the invalid type, the refused arguments, then each CPU's command until the failing one
        CHILD_CHECK(said.size() == 11 && said[6] == "Set cpu2 cpufreq governor(performance) fail." && Texts(said.begin(), said.begin() + 4) ==
                    (Texts{"cpufreq: parameter is invalid, type is 2.", "Param error: null pointer, cpuid(1), ip_addr((nil)).",
                           "Param error: v_pszGovernor(a;b) is dangerous.", "Cpufreq governor(performance), v_pszGovernor(0), file(scaling_governor)."}));
        // Package 1 of 2 x 24 is read and written at CPUs 24 and 36, first then middle.
        shell.commands.clear(), cap.clear();
        const std::string set24 = "echo 1500000 > /sys/devices/system/cpu/cpu24/cpufreq/scaling_max_freq";
        CHILD_CHECK(tovi_get_phycpu_scaling_max_freq(1) == 2200000 && tovi_cpufreq_quick_get_max(24) == 2000000 && tovi_cpufreq_quick_get_max(256) == 0);
        CHILD_CHECK(tovi_set_phycpu_scaling_max_freq(1, 1500000) == 0 &&
                    shell.commands == (Texts{set24, "echo 1500000 > /sys/devices/system/cpu/cpu36/cpufreq/scaling_max_freq"}));
        shell.status[set24] = 512;
        CHILD_CHECK(tovi_set_phycpu_scaling_max_freq(1, 1500000) == -1 && shell.commands.size() == 3);
        // Packages the machine lacks reach no CPU (178956971 x 24 wraps to CPU 8 in 32 bits).
        CHILD_CHECK(tovi_set_phycpu_scaling_max_freq(2, 1) == -1 && tovi_set_phycpu_scaling_max_freq(178956971, 1) == -1 && shell.commands.size() == 3);
        CHILD_CHECK(unlink((kCpu + "cpu36/cpufreq/scaling_max_freq").c_str()) == 0 && tovi_get_phycpu_scaling_max_freq(1) == -1);
        CHILD_CHECK(cap.texts() == (Texts{"Set freq (1500000) logic_cpuid(24) failed, ret (512).", "Query frequency failed."}));
        // Without the platform kernel every whole-machine step is refused.
        int record = 0;
        CHILD_CHECK((cap.clear(), tovi_cpufreq_set_low_all()) == -1 && tovi_cpufreq_set_high_all() == -1 && tovi_cpufreq_up_allcpu_freq_by_step() == -1 &&
                    tovi_cpufreq_down_allcpu_freq_by_step() == -1 && tovi_get_local_cpufreq(nullptr) == -22 && tovi_get_local_cpufreq(&record) == -22);
        CHILD_CHECK(cap.texts() == (Texts{"Syscall failed -1.", "Syscall failed -1.", "Syscall failed -1.", "Syscall failed -1.",
                                          "Parameter is null.", "Syscall failed -1."}));
        return "";
    }));
}
