// CPU usage and topology, each in a child with a private /dev/shm and /tmp, bind mounts over
// /proc/stat and a fake /sys/devices/system/node.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "shell_recorder.hpp"
#include "tovi_sysinfo.h"
#include "tovi_sysinfo.hpp"

using tovi::test::LogCapture;
using tovi::test::write_file;
using Texts = std::vector<std::string>;
using Fields = std::vector<unsigned long>;

namespace {

const uint32_t n = static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_CONF));

// A private /dev/shm and /tmp, and the library's settings file there.
std::string in_namespace(const std::string &settings, const std::function<std::string()> &body)
{
    return tovi::test::in_private_mounts(0, {"/dev/shm", "/tmp"}, [&]() -> std::string {
        CHILD_CHECK(write_file("/tmp/tovi.ini", "[TOVI]\n" + settings) && setenv("TOVI_CFG_LIBRARY_FILE", "/tmp/tovi.ini", 1) == 0);
        return body();
    });
}

// Puts `text` in place of /proc/stat: each call stacks a new bind mount, so
// the sampler opens either the old file or the new one, never half of one.
bool use_stat(const std::string &text)
{
    static int k = 0;
    const std::string path = "/tmp/stat." + std::to_string(k++);
    return write_file(path, text) && mount(path.c_str(), tovi::sysinfo::kStatFile, nullptr, MS_BIND, nullptr) == 0;
}

// A /proc/stat: the machine's line, `extra` lines, then CPU 0 ... n - 1 of
// which only the last has ticks.
std::string stat_of(const Fields &machine, const Fields &last, const std::string &extra = "")
{
    std::string s;
    for (uint32_t c = 0; c <= n; ++c) {
        s += c == 0 ? "cpu " : "cpu" + std::to_string(c - 1);
        for (unsigned long v : c == 0 ? machine : c == n ? last : Fields(10, 0))
            s += " " + std::to_string(v);
        s += c == 0 ? "\n" + extra : "\n";
    }
    return s + "intr 1 2 3\nctxt 99\n";
}

// The pid holding the sampler lock ("0": nobody), asked from a fresh process:
// a process never sees its own record locks as conflicts.
std::string sampler_holder()
{
    return tovi::test::report_from_child([] {
        struct flock fl {};
        fl.l_type = F_WRLCK;
        int fd = open(tovi::sysinfo::kSamplerLock, O_RDWR);
        return fd >= 0 && fcntl(fd, F_GETLK, &fl) == 0 ? std::to_string(fl.l_type == F_UNLCK ? 0 : fl.l_pid) : "none";
    });
}

}  // namespace

// The arithmetic, one sample at a time, in a process that does not sample
// by itself (the setting 0): with the default and with steal counted as busy.
TEST(Sysinfo, UsageFromStatSamples)
{
    const Fields last{10, 0, 0, 30, 0, 0, 0, 0, 0, 0};
    const struct {
        std::string stat;
        uint32_t machine, machine_steal_busy, last_cpu;
    } samples[] = {
        {stat_of({100, 0, 0, 300, 0, 0, 0, 0}, last), 25, 25, 25},  // the first sample
        {stat_of({100, 0, 0, 300, 0, 0, 0, 0}, last), 25, 25, 25},  // the same totals: unchanged
        {stat_of({100, 0, 0, 350, 50, 0, 0, 0}, last), 50, 50, 25},  // I/O wait is busy
        {stat_of({100, 0, 0, 350, 50, 0, 0, 100}, last), 50, 100, 25},  // steal: left out unless it counts as busy
        {stat_of({1, 2, 3}, {40, 0, 0, 30}), 50, 100, 25},  // a short first line ends the sample
        {stat_of({200, 0, 0, 350, 50, 0, 0, 100}, {40, 0, 0, 30}, "cpu0 1 2 3\n"), 100, 100, 25},  // a short CPU line ends it
        {stat_of({200, 0, 0, 350, 50, 0, 0, 100}, {40, 0, 0, 60}, "cpu999 5 5 5 5\n"), 100, 100, 25},  // a CPU beyond n is skipped, and the last CPU's line is then beyond n lines
        {stat_of({200, 0, 0, 350, 50, 0, 0, 100}, {40, 0, 0, 60}), 100, 100, 50},  // every CPU
        {stat_of([] { Fields f{300, 0, 0, 450, 50, 0, 0, 100}; f.resize(22, 1000000000); return f; }(), {40, 0, 0, 120}), 50, 50, 0},  // a first line over 160 bytes
        {"", 50, 50, 0},  // the last: an empty file
    };
    for (bool steal_busy : {false, true})
        EXPECT_CHILD_REPORT(in_namespace(steal_busy ? "SYSINFO_CPUUSAGE_THREAD_FLAG=0\nSYSINFO_CPUUSAGE_STEAL_BUSY=1\n" : "SYSINFO_CPUUSAGE_THREAD_FLAG=0\n",
                     [&]() -> std::string {
            LogCapture cap;
            const uint32_t last_cpu = n - 1, beyond = n;
            // An array bigger than this process needs (made by one that counts more CPUs) is not cut.
            struct stat st {};
            const int fd = shm_open(tovi::sysinfo::kUsageName, O_CREAT | O_RDWR, 0660);
            CHILD_CHECK(fd >= 0 && ftruncate(fd, 8192) == 0);
            CHILD_CHECK(sysinfo_init() == 0 && sysinfo_init() == 0 && tovi::sysinfo::steal_is_busy() == steal_busy);
            CHILD_CHECK(fstat(fd, &st) == 0 && st.st_size == 8192 && close(fd) == 0);
            for (const auto &s : samples) {
                cap.clear();
                CHILD_CHECK(use_stat(s.stat));
                tovi::sysinfo::update_all_cpu_usage();
                const uint32_t want = steal_busy ? s.machine_steal_busy : s.machine;
                if (tovi_sysinfo_cpu_usage() != want || tovi_sysinfo_core_usage(&last_cpu) != s.last_cpu || cap.texts().size() != s.stat.empty())
                    return tovi::test::fmt("sample %zu: machine %u cpu %u", &s - samples, tovi_sysinfo_cpu_usage(), tovi_sysinfo_core_usage(&last_cpu));
            }
            // The queries' bounds: the copy stops at n, a CPU at n is refused.
            CHILD_CHECK(cap.texts() == Texts{"Get CPU stat (/proc/stat) file failed."} && sampler_holder() == "0");  // reads, never samples
            std::vector<uint32_t> out(n + 2, 7);
            cap.clear();
            CHILD_CHECK(tovi_get_cpu_usage_array(out.data(), n + 2) == 0 && out[n - 1] == 0 && out[n] == 7);
            CHILD_CHECK(tovi_sysinfo_core_usage(&beyond) == 0 && tovi_sysinfo_core_usage(nullptr) == 0);
            CHILD_CHECK(tovi_get_cpu_usage_array(nullptr, 1) == -1 && cap.texts() == Texts{"tovi_get_cpu_usage_array: data is NULL"});
            return "";
        }));
}

// Two processes start a sampler each: the first samples, the second reads
// its numbers and takes over when it ends. The first lives until it gets a
// lock the second holds: the second's sampler, waiting for the first, closes
// a cycle the kernel reports as a deadlock, which is none.
TEST(Sysinfo, OneSamplerPerMachineAndATakeOver)
{
    EXPECT_CHILD_REPORT(in_namespace("", []() -> std::string {
        CHILD_CHECK(use_stat(stat_of({100, 0, 0, 300}, {1, 0, 0, 3})));
        struct flock whole {};
        whole.l_type = F_WRLCK;
        const int held = open("/tmp/held", O_RDWR | O_CREAT, 0600);
        pid_t first = fcntl(held, F_SETLK, &whole) == 0 ? fork() : -1;
        if (first == 0)
            _exit(sysinfo_init() == 0 && fcntl(held, F_SETLKW, &whole) == 0 ? 0 : 1);
        const std::string waiting = tovi::test::fmt("-> POSIX  ADVISORY  WRITE %d ", first);
        CHILD_CHECK(tovi::test::wait_for([&] { return sampler_holder() == std::to_string(first) && tovi::test::read_file("/proc/locks").find(waiting) != std::string::npos; }));
        CHILD_CHECK(sysinfo_init() == 0 && tovi::test::wait_for([] { return tovi_sysinfo_cpu_usage() == 25; }) && sampler_holder() == std::to_string(first));
        // The first ends; the second's waiting sampler goes on from the
        // numbers the first stored (100 more ticks, 75 of them busy).
        whole.l_type = F_UNLCK;
        CHILD_CHECK(fcntl(held, F_SETLK, &whole) == 0);
        int status = 0;
        CHILD_CHECK(waitpid(first, &status, 0) == first && status == 0 && use_stat(stat_of({175, 0, 0, 325}, {1, 0, 0, 3})));
        CHILD_CHECK(tovi::test::wait_for([] { return tovi_sysinfo_cpu_usage() == 75; }) && sampler_holder() == std::to_string(getpid()));
        return "";
    }));
}

// The topology: gathered by its commands once, then read from "cpuinfo_shm".
TEST(Sysinfo, TopologyIsGatheredOncePerBootAndShared)
{
    EXPECT_CHILD_REPORT(in_namespace("", []() -> std::string {
        const std::string node = "/sys/devices/system/node/";
        CHILD_CHECK(mount("tmpfs", node.c_str(), "tmpfs", 0, nullptr) == 0 && write_file(node + "online", "0-3\n"));
        for (int i = 0; i < 4; ++i)  // four nodes of two CPUs each
            CHILD_CHECK(mkdir((node + "node" + std::to_string(i)).c_str(), 0755) == 0 &&
                        write_file(node + "node" + std::to_string(i) + "/cpulist", tovi::test::fmt("%d-%d\n", 2 * i, 2 * i + 1)));
        const Texts cmds{"lscpu | grep 'Socket(s)' | awk '{print $NF}' ",
                         "cat /proc/cpuinfo | grep 'processor' | awk '{print $NF}' | sort | uniq | wc -l", "uname -p"};
        auto step = [&](const std::map<std::string, std::string> &output, const Texts &ran, const Texts &said, int32_t rc) {
            return tovi::test::report_from_child([&]() -> std::string {  // a fresh process each time
                LogCapture cap;
                tovi::test::ShellRecorder shell;
                shell.output = output;
                CHILD_CHECK(cpuinfo_init() == rc && shell.commands == ran && cap.texts() == said);
                return "";
            });
        };
        const std::map<std::string, std::string> two{{cmds[0], "2\n"}, {cmds[1], "8\n"}, {cmds[2], "aarch64\n"}};
        const Texts first_time{"cpu info in shm is incorrect or first, load by system."};
        CHILD_CHECK(step({{cmds[0], "0\n"}, {cmds[1], "8\n"}}, cmds,
                         {first_time[0], "Get_phycpu_num failed, ret=1, cpuNum=0.", "Fgets err, errno=0.", "Get cpumodel failed, ret is -1"}, -1) == "");
        CHILD_CHECK(step(two, cmds, first_time, 0) == "" && step({}, {}, {}, 0) == "");  // then read from shared memory, nothing run
        // This process reads the record and resolves packages to CPUs.
        LogCapture cap;
        uint32_t packages = 0, logical = 0;
        char model[TOVI_CPUMODEL_LEN];
        uint64_t mask[4] = {~0ull, ~0ull, ~0ull, ~0ull};
        CHILD_CHECK(tovi_get_phycpu_num(&packages) == 0 && tovi_get_logic_cpu_num(&logical) == 0 && tovi_get_cpumodel_info(model) == 0);
        CHILD_CHECK(packages == 2 && logical == 8 && model == std::string("aarch64"));
        CHILD_CHECK(tovi_get_cpumask_by_phycpu(1, mask) == 0 && mask[0] == 0xF0 && mask[1] == 0 && mask[3] == 0);
        CHILD_CHECK(unlink((node + "node1/cpulist").c_str()) == 0 && tovi_get_cpumask_by_phycpu(0, mask) == -1);
        CHILD_CHECK(tovi_get_cpumask_by_phycpu(2, mask) == -1 && tovi_get_cpumodel_info(nullptr) == -1);
        CHILD_CHECK(cap.texts() == (Texts{"Get /sys/devices/system/node/node1/cpulist failed.", "Parameter phycpu 2 is bigger then total phycpu 2.", "Parameter is null."}));
        return "";
    }));
}
