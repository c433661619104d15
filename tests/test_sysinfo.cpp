// CPU usage and topology. Everything runs in a child with its own mount
// namespace: a private /dev/shm and /tmp, /proc/stat replaced by bind mounts
// of files the test writes, and a fake /sys/devices/system/node.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <string>
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

void in_namespace(const std::string &settings, const std::function<std::string()> &body)
{
    std::string failure = tovi::test::report_from_child([&]() -> std::string {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev/shm", "tmpfs", 0, nullptr) != 0 || mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0)
            return "SKIP";
        CHILD_CHECK(write_file("/tmp/tovi.ini", "[TOVI]\n" + settings) && setenv("TOVI_CFG_LIBRARY_FILE", "/tmp/tovi.ini", 1) == 0);
        return body();
    });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(failure, "");
}

// Puts `text` in place of /proc/stat: each call stacks a new bind mount, so
// the sampler opens either the old file or the new one, never half of one.
bool use_stat(const std::string &text)
{
    static int k = 0;
    const std::string path = "/tmp/stat." + std::to_string(k++);
    return write_file(path, text) && mount(path.c_str(), tovi::sysinfo::kStatFile, nullptr, MS_BIND, nullptr) == 0;
}

std::string line_of(const std::string &name, const Fields &f)
{
    std::string s = name;
    for (unsigned long v : f)
        s += " " + std::to_string(v);
    return s + "\n";
}

// A /proc/stat whose last CPU has `last` and the other CPUs nothing.
std::string stat_of(const Fields &machine, const Fields &last, const std::string &first_cpu_line = "")
{
    std::string s = line_of("cpu ", machine) + first_cpu_line;
    for (uint32_t c = 0; c < n; ++c)
        s += line_of("cpu" + std::to_string(c), c + 1 == n ? last : Fields(10, 0));
    return s + "intr 1 2 3\nctxt 99\n";
}

// The process holding the sampler lock, asked from a fresh process (a
// process never sees its own record locks as conflicts); 0 for nobody.
pid_t sampler_holder()
{
    int fds[2];
    if (pipe(fds) != 0)
        return -1;
    tovi::test::run_in_child([&] {
        struct flock fl {};
        fl.l_type = F_WRLCK;
        int fd = open(tovi::sysinfo::kSamplerLock, O_RDWR);
        pid_t holder = fd >= 0 && fcntl(fd, F_GETLK, &fl) == 0 ? (fl.l_type == F_UNLCK ? 0 : fl.l_pid) : -1;
        return write(fds[1], &holder, sizeof holder) == sizeof holder ? 0 : 1;
    });
    pid_t holder = -1;
    close(fds[1]);
    if (read(fds[0], &holder, sizeof holder) != sizeof holder)
        holder = -1;
    close(fds[0]);
    return holder;
}

size_t threads_of_process()
{
    size_t count = 0;
    DIR *d = opendir("/proc/self/task");
    while (dirent *e = d != nullptr ? readdir(d) : nullptr)
        count += e->d_name[0] != '.';
    return d != nullptr ? (closedir(d), count) : 0;
}

}  // namespace

// The arithmetic, one sample at a time, in a process that does not sample
// by itself (the setting 0): with the default and with steal counted as busy.
TEST(Sysinfo, UsageFromStatSamples)
{
    const Fields last{10, 0, 0, 30, 0, 0, 0, 0, 0, 0};
    const struct {
        const char *what;
        std::string stat;
        uint32_t machine, machine_steal_busy, last_cpu;
        Texts said;
    } samples[] = {
        {"first", stat_of({100, 0, 0, 300, 0, 0, 0, 0}, last), 25, 25, 25, {}},
        {"same totals", stat_of({100, 0, 0, 300, 0, 0, 0, 0}, last), 25, 25, 25, {}},
        {"iowait is busy", stat_of({100, 0, 0, 350, 50, 0, 0, 0}, last), 50, 50, 25, {}},
        {"steal only", stat_of({100, 0, 0, 350, 50, 0, 0, 100}, last), 50, 100, 25, {}},
        {"short first line", stat_of({1, 2, 3}, {40, 0, 0, 30}), 50, 100, 25, {}},
        {"short cpu line", stat_of({200, 0, 0, 350, 50, 0, 0, 100}, {40, 0, 0, 30}, "cpu0 1 2 3\n"), 100, 100, 25, {}},
        {"cpu beyond n", stat_of({200, 0, 0, 350, 50, 0, 0, 100}, {40, 0, 0, 60}, "cpu999 5 5 5 5\n"), 100, 100, 25, {}},
        {"all cpus", stat_of({200, 0, 0, 350, 50, 0, 0, 100}, {40, 0, 0, 60}), 100, 100, 50, {}},
        {"empty", "", 100, 100, 50, {"Get CPU stat (/proc/stat) file failed."}},
    };
    for (bool steal_busy : {false, true})
        in_namespace(steal_busy ? "SYSINFO_CPUUSAGE_THREAD_FLAG=0\nSYSINFO_CPUUSAGE_STEAL_BUSY=1\n" : "SYSINFO_CPUUSAGE_THREAD_FLAG=0\n",
                     [&]() -> std::string {
            LogCapture cap;
            const uint32_t last_cpu = n - 1, beyond = n;
            uint32_t scratch = 0;
            CHILD_CHECK(tovi_sysinfo_cpu_usage() == 0 && tovi_get_cpu_usage_array(&scratch, 1) == -1);  // nothing mapped yet
            const size_t threads = threads_of_process();
            CHILD_CHECK(sysinfo_init() == 0 && sysinfo_init() == 0 && tovi::sysinfo::steal_is_busy() == steal_busy);
            CHILD_CHECK(threads_of_process() == threads && sampler_holder() == 0);  // reads, never samples
            for (const auto &s : samples) {
                cap.clear();
                CHILD_CHECK(use_stat(s.stat));
                tovi::sysinfo::update_all_cpu_usage();
                const uint32_t want = steal_busy ? s.machine_steal_busy : s.machine;
                if (tovi_sysinfo_cpu_usage() != want || tovi_sysinfo_core_usage(&last_cpu) != s.last_cpu || cap.texts() != s.said)
                    return tovi::test::fmt("%s: machine %u cpu %u", s.what, tovi_sysinfo_cpu_usage(), tovi_sysinfo_core_usage(&last_cpu));
            }
            // The queries' bounds: the copy stops at n, a CPU at n is refused.
            std::vector<uint32_t> out(n + 2, 7);
            cap.clear();
            CHILD_CHECK(tovi_get_cpu_usage_array(out.data(), n + 2) == 0 && out[n - 1] == 50 && out[n] == 7);
            CHILD_CHECK(tovi_sysinfo_core_usage(&beyond) == 0 && tovi_sysinfo_core_usage(nullptr) == 0);
            CHILD_CHECK(tovi_get_cpu_usage_array(nullptr, 1) == -1 && cap.texts() == Texts{"tovi_get_cpu_usage_array: data is NULL"});
            CHILD_CHECK(tovi_sysinfo_present_cpu_num() == n && tovi_sysinfo_cpu_num() == sysconf(_SC_NPROCESSORS_ONLN));
            const uint32_t mem = tovi_sysinfo_mem_usage();
            CHILD_CHECK(mem >= 1 && mem <= 100);
            return "";
        });
}

// Two processes start a sampler each: the first samples, the second reads
// its numbers and takes over when it ends.
TEST(Sysinfo, OneSamplerPerMachineAndATakeOver)
{
    in_namespace("", []() -> std::string {
        CHILD_CHECK(use_stat(stat_of({100, 0, 0, 300}, {1, 0, 0, 3})));
        int go[2];
        CHILD_CHECK(pipe(go) == 0);
        pid_t first = fork();
        if (first == 0) {
            char c;
            close(go[1]);
            _exit(sysinfo_init() == 0 && read(go[0], &c, 1) >= 0 ? 0 : 1);  // lives until the pipe closes
        }
        close(go[0]);
        CHILD_CHECK(tovi::test::wait_for([&] { return sampler_holder() == first; }));
        CHILD_CHECK(sysinfo_init() == 0);
        CHILD_CHECK(tovi::test::wait_for([] { return tovi_sysinfo_cpu_usage() == 25; }));
        CHILD_CHECK(sampler_holder() == first);
        // The first ends; the second's waiting sampler goes on from the
        // numbers the first stored (100 more ticks, 75 of them busy).
        close(go[1]);
        int status = 0;
        CHILD_CHECK(waitpid(first, &status, 0) == first && status == 0);
        CHILD_CHECK(use_stat(stat_of({175, 0, 0, 325}, {1, 0, 0, 3})));
        CHILD_CHECK(tovi::test::wait_for([] { return tovi_sysinfo_cpu_usage() == 75; }));
        CHILD_CHECK(sampler_holder() == getpid());
        return "";
    });
}

// The topology: gathered by its commands once, then read from "cpuinfo_shm".
TEST(Sysinfo, TopologyIsGatheredOncePerBootAndShared)
{
    in_namespace("", []() -> std::string {
        CHILD_CHECK(mount("tmpfs", "/sys/devices/system/node", "tmpfs", 0, nullptr) == 0);
        const std::string node = "/sys/devices/system/node/";
        CHILD_CHECK(write_file(node + "online", "0-3\n"));
        for (int i = 0; i < 4; ++i)
            CHILD_CHECK(mkdir((node + "node" + std::to_string(i)).c_str(), 0755) == 0 &&
                        write_file(node + "node" + std::to_string(i) + "/cpulist", std::to_string(2 * i) + "-" + std::to_string(2 * i + 1) + "\n"));
        const Texts cmds{"lscpu | grep 'Socket(s)' | awk '{print $NF}' ",
                         "cat /proc/cpuinfo | grep 'processor' | awk '{print $NF}' | sort | uniq | wc -l", "uname -p"};
        // Each process gathers or reads afresh: a child per step.
        auto step = [&](const std::map<std::string, std::string> &output, const Texts &ran, const Texts &said, int32_t rc,
                        uint32_t packages) {
            return tovi::test::report_from_child([&]() -> std::string {
                LogCapture cap;
                tovi::test::ShellRecorder shell;
                shell.output = output;
                CHILD_CHECK(cpuinfo_init() == rc && shell.commands == ran);
                if (cap.texts() != said)
                    return cap.texts().empty() ? std::string("nothing said") : cap.texts().back();
                uint32_t num = 0;
                CHILD_CHECK(rc != 0 || (tovi_get_phycpu_num(&num) == 0 && num == packages));
                return "";
            });
        };
        const std::map<std::string, std::string> two{{cmds[0], "2\n"}, {cmds[1], "8\n"}, {cmds[2], "aarch64\n"}};
        const Texts first_time{"cpu info in shm is incorrect or first, load by system."};
        CHILD_CHECK(step({{cmds[0], "0\n"}, {cmds[1], "8\n"}}, cmds, Texts{first_time[0], "Get_phycpu_num failed, ret=1, cpuNum=0.", "Fgets err, errno=0.", "Get cpumodel failed, ret is -1"}, -1, 0) == "");
        if (std::string r = step(two, cmds, first_time, 0, 2); !r.empty())
            return "gathering: " + r;
        CHILD_CHECK(step({}, {}, {}, 0, 2) == "");  // read from shared memory, nothing run
        // This process reads the record and resolves packages to CPUs.
        LogCapture cap;
        uint32_t logical = 0;
        char model[TOVI_CPUMODEL_LEN];
        uint64_t mask[4] = {~0ull, ~0ull, ~0ull, ~0ull};
        CHILD_CHECK(tovi_get_logic_cpu_num(&logical) == 0 && logical == 8 && tovi_get_cpumodel_info(model) == 0 && model == std::string("aarch64"));
        CHILD_CHECK(tovi_get_cpumask_by_phycpu(1, mask) == 0 && mask[0] == 0xF0 && mask[1] == 0 && mask[3] == 0);
        CHILD_CHECK(unlink((node + "node1/cpulist").c_str()) == 0 && tovi_get_cpumask_by_phycpu(0, mask) == -1);
        CHILD_CHECK(tovi_get_cpumask_by_phycpu(2, mask) == -1 && tovi_get_phycpu_num(nullptr) == -1 && tovi_get_cpumodel_info(nullptr) == -1);
        CHILD_CHECK(cap.texts() == (Texts{"Get /sys/devices/system/node/node1/cpulist failed.", "Parameter phycpu 2 is bigger then total phycpu 2.",
                                          "Parameter is null.", "Parameter is null."}));
        return "";
    });
}
