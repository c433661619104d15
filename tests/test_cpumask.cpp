// CPU lists, the system masks and counts from a fake sysfs, partitions and
// NUMA nodes from fake platform files, the processor controls.
#include <gtest/gtest.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <cstdarg>
#include <dirent.h>
#include <filesystem>
#include <map>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_cpu.h"
#include "tovi_cpumask.h"
#include "tovi_thread.hpp"

using namespace tovi::test;
using Texts = std::vector<std::string>;
using Cpus = std::bitset<1024>;

static Cpus bits(const uint64_t *words, unsigned n = 1024)
{
    Cpus b;
    for (unsigned cpu = 0; cpu < n; ++cpu)
        b[cpu] = (words[cpu / 64] >> (cpu % 64) & 1) != 0;
    return b;
}

static Cpus cpus(std::initializer_list<std::pair<unsigned, unsigned>> ranges)
{
    Cpus b;
    for (auto [first, last] : ranges)
        for (unsigned cpu = first; cpu <= last; ++cpu)
            b[cpu] = true;
    return b;
}

TEST(Cpumask, ListsAreOredIntoTheSetAndBadItemsLoggedAndSkipped)
{
    const auto bad = [](const std::string &item) { return "Parse cpu mask fail, invalid format:" + item; };
    struct Case {
        const char *list;
        int32_t rc;
        Cpus want;  // besides CPU 100, there before
        std::vector<std::string> said;
    };
    const std::string padded = std::string(130, '0') + "5";
    const Case cases[] = {
        {"0-3,8,12-13,63-65", 0, cpus({{0, 3}, {8, 8}, {12, 13}, {63, 65}}), {}},
        {"1023", 0, cpus({{1023, 1023}}), {}},
        {"1020-5000", 0, cpus({{1020, 1023}}), {}},  // range ends are cut at 1023
        {"2000,1500-1600", 0, {}, {}},               // beyond the set: good, but names no CPU
        {"1,x,5-3,7", 0, cpus({{1, 1}, {7, 7}}), {bad("x"), "Parse cpu mask 5-3 fail, end:3 is less than start:5"}},
        {"x,9-8", -1, {}, {bad("x"), "Parse cpu mask 9-8 fail, end:8 is less than start:9"}},
        {"", -1, {}, {}},
        {",,", -1, {}, {}},
        {",2,,4,", 0, cpus({{2, 2}, {4, 4}}), {}},  // empty items are no items
        {"6-y", 0, cpus({{6, 6}}), {}},             // a second number that does not scan: one CPU
        {"4294967296-4294967300,4294967298", 0, {}, {}},  // beyond 32 bits: no CPU, not their low bits
        {"1000-4294967297", 0, cpus({{1000, 1023}}), {}},
        {padded.c_str(), -1, {}, {bad(padded.substr(0, 127))}},  // longer than any item: not cut to another number
    };
    for (const Case &c : cases) {
        LogCapture cap;
        uint64_t words[16] = {};
        words[1] = 1ULL << 36;
        EXPECT_EQ(tovi_cpum_parse_cpumask(c.list, words), c.rc) << c.list;
        EXPECT_EQ(bits(words), c.want | cpus({{100, 100}})) << c.list;
        EXPECT_EQ(cap.texts(6), c.said) << c.list;
        EXPECT_EQ(cap.texts().size(), c.said.size()) << c.list;
    }
    uint64_t words[16] = {};
    EXPECT_EQ(tovi_cpum_parse_cpumask(nullptr, words), -1);
    EXPECT_EQ(tovi_cpum_parse_cpumask("1", nullptr), -1);
    EXPECT_TRUE(bits(words).none());
}

// Random lists of good, reversed and junk items against a plain model.
TEST(Cpumask, RandomListsMatchAModel)
{
    std::mt19937 rng(20240611);
    for (int round = 0; round < 400; ++round) {
        LogCapture cap;
        uint64_t words[16] = {};
        Cpus model;
        bool applied = false;
        size_t bad = 0;
        std::string list;
        for (int i = 0, items = static_cast<int>(rng() % 6); i < items; ++i) {
            list += i != 0 ? "," : "";
            const unsigned a = rng() % 1100, b = rng() % 1100;
            switch (rng() % 4) {
            case 0:
                list += std::to_string(a);
                if (a < 1024)
                    model[a] = true;
                applied = true;
                break;
            case 1:
                list += std::to_string(a) + "-" + std::to_string(b);
                bad += b < a;
                applied = applied || b >= a;
                for (unsigned cpu = a; cpu <= std::min(b, 1023u); ++cpu)
                    model[cpu] = true;
                break;
            case 2:
                list += "cpu" + std::to_string(a);
                ++bad;
                break;
            }  // otherwise an empty item
        }
        EXPECT_EQ(tovi_cpum_parse_cpumask(list.c_str(), words), applied ? 0 : -1) << list;
        EXPECT_EQ(bits(words), model) << list;
        EXPECT_EQ(cap.texts(6).size(), bad) << list;
    }
}

// A root of this child's own: the host's directories bound in, empty /tmp and
// /sys/devices/system/cpu, and `files` (path -> text; "*.sh" executable).
static bool fake_root(const std::map<std::string, std::string> &files)
{
    DIR *d = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0 && mkdir("/tmp/root", 0755) == 0 ? opendir("/") : nullptr;
    bool ok = d != nullptr;
    struct stat st;
    while (dirent *e = ok ? readdir(d) : nullptr) {
        std::string name = e->d_name, from = "/" + name, to = "/tmp/root/" + name;
        if (name != "." && name != ".." && name != "tmp" && stat(from.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            ok = mkdir(to.c_str(), 0755) == 0 && mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
    }
    ok = d != nullptr && closedir(d) == 0 && ok && mkdir("/tmp/root/tmp", 01777) == 0 && chroot("/tmp/root") == 0 &&
         chdir("/") == 0 && mount("tmpfs", "/sys/devices/system/cpu", "tmpfs", 0, nullptr) == 0;
    for (const auto &[path, text] : files) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        ok = ok && write_file(path, text, path.ends_with(".sh") ? 0755 : 0644);
    }
    return ok;
}

static void in_fake_root(const std::map<std::string, std::string> &files, const std::function<std::string()> &body)
{
    std::string failure = report_from_child([&]() { return fake_root(files) ? body() : "SKIP"; });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(failure, "");
}

static std::string joined(const Texts &texts)
{
    std::string out;
    for (const auto &t : texts)
        out += t + "|";
    return out;
}

// In a child: a text that differs is reported as it is.
#define CHILD_TEXT(got, want)                                                       \
    do {                                                                            \
        if (std::string g_ = (got); g_ != (want))                                   \
            return "line " + std::to_string(__LINE__) + ": got '" + g_ + "'";     \
    } while (0)

static std::string g_shown;
static int show(const char *fmt, ...)
{
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    g_shown += line;
    return n;
}

constexpr const char *kSys = "/sys/devices/system/cpu/";
constexpr const char *kProduct = "/ZSR/conf/app_data/qlrt/product.ini";

// The system masks of a host with more CPUs than a mask holds, the counts,
// and a partition file that is missing and cannot be generated.
TEST(CpuLayout, MasksCountsAndAMissingPartitionFile)
{
    in_fake_root({{std::string(kSys) + "possible", "0-299\n"}, {std::string(kSys) + "online", "0-2,8\n"}}, [] {
        LogCapture cap;
        CHILD_CHECK(cpumask_init() == -1);
        CHILD_TEXT(joined(cap.texts(3)), "Load_cpumask failed. possible_cpu = 299, online_cpu = 8, max_cpu=-1\n|");
        CHILD_CHECK(write_file(std::string(kSys) + "present", "\n") && cpumask_init() == 0);
        CHILD_CHECK(bits(cpu_possible_mask, 256).count() == 256 && bits(cpu_present_mask, 256).none());
        std::vector<uint32_t> online;
        for (uint32_t cpu = tovi_first_cpu(cpu_online_mask); cpu < 256; cpu = tovi_next_cpu(cpu, cpu_online_mask))
            online.push_back(cpu);
        CHILD_CHECK(online == (std::vector<uint32_t>{0, 1, 2, 8}) && tovi_first_cpu(cpu_present_mask) == 256);
        const std::string whole = std::string(252, ',') + "250\n", cut = std::string(252, ',') + "2500\n";
        struct {
            const char *line;
            int32_t rc;
            Cpus want;
        } loads[] = {{"4-6,1\n", 6, cpus({{1, 1}, {4, 6}})}, {"7-5\n", 5, {}}, {"255-1000", 1000, cpus({{255, 255}})},
                     {whole.c_str(), 250, cpus({{250, 250}})},  // 255 characters and the line feed
                     {cut.c_str(), 0, {}}};  // cut in an item: not "250"
        for (const auto &l : loads) {
            uint64_t mask[5] = {0, 0, 0, 0, 0x5a};
            CHILD_CHECK(write_file("/tmp/list", l.line) && load_cpumask(mask, "/tmp/list") == l.rc);
            CHILD_CHECK(bits(mask, 256) == l.want && mask[4] == 0x5a);
        }
        cap.clear();
        errno = 0;
        CHILD_CHECK(num_config_cpus() == 0 && tovi::thrd::cpuset_bytes() == 128);
        CHILD_CHECK(globalCpuNum_init() == 0 && g_configCpuNum == 300 && g_onlineCpuNum == 4 && num_config_cpus() == 300);
        // No partition file and no script to make one: one failed load per process.
        uint64_t set[16] = {~0ULL};
        CHILD_CHECK(tovi_cpum_clear_cpumask_of_iod_poll(set) == -1 && tovi_cpum_init(nullptr) == 0);
        const std::string smp = "Tovi_smp getting cpu num failed ret 300 errno=0.|";  // asked twice
        CHILD_TEXT(joined(cap.texts()), smp + smp + "Generate default cpu group "
                                        "cfg ret:32512|Cpu group cfg " + std::string(kProduct) +
                                            " is not exist, errno:2|Invalid cpu group cfg " + kProduct + "|");
        CHILD_CHECK(tovi_cpum_dbg_show(show) == 0 && g_shown == "Group            Partition        Type CpuBind\n");
        return std::string();
    });
}

TEST(CpuLayout, PartitionsFromTheGeneratedDefaultFile)
{
    std::string loops = "GROUP_0/loop";  // names itself 12 times: 12^8 steps unless references are counted
    for (int i = 0; i < 11; ++i)
        loops += ",GROUP_0/loop";
    const std::string script = "#!/bin/sh\necho \"$*\" >/tmp/args\nmkdir -p \"$1\"\ncat >\"$1product.ini\" <<EOF\n"
                               "[CPU_PARTITION]\ngroup_num=4294967295\n[GROUP_0]\npartition_num=6\npartition_0=io:1:2-3\n"
                               "partition_1=IOD_NORMAL:2:4-9\npartition_2=nocolon\npartition_3=ref:3:GROUP_0/io,12\n"
                               "partition_4=loop:4:" + loops + "\npartition_5=a_name_longer_than_thirty_one_chars:5:7\n"
                               "[GROUP_1]\npartition_num=0\n[GROUP_2]\npartition_num=4294967295\npartition_0=IOD_NORMAL:6:20-21\n"
                               "partition_1=IOD_NORMAL:7:4294967296-4294967300\nEOF\n";
    in_fake_root({{"/ZSR/component/omm/script/gen_product_ini.sh", script}}, [&] {
        alarm(60);  // neither counts of 2^32 - 1 nor a binding naming itself may take minutes
        LogCapture cap;
        uint64_t set[16] = {};
        CHILD_CHECK(tovi_cpum_dbg_show(show) == -1 && g_shown == "Cpu partition is not inited yet\n");
        CHILD_CHECK(tovi_cpum_parse_cpumask("GROUP_0/io,12", set) == 0 && bits(set) == cpus({{2, 3}, {12, 12}}));
        CHILD_CHECK(read_file("/tmp/args") == "/ZSR/conf/app_data/qlrt/\n");
        CHILD_TEXT(joined(cap.texts()), "Generate default cpu group cfg ret:0|Get cpu partition num fail, GROUP_1|");
        struct {
            const char *list;
            int32_t rc;
            Cpus want;
        } refs[] = {{"GROUP_0/ref", 0, cpus({{2, 3}, {12, 12}})}, {"GROUP_0/loop,1", 0, cpus({{1, 1}})},
                    {"GROUP_9/io", -1, {}}, {"GROUP_0/a_name_longer_than_thirty_one_c", 0, cpus({{7, 7}})}};
        for (const auto &r : refs) {
            uint64_t words[16] = {};
            CHILD_CHECK(tovi_cpum_parse_cpumask(r.list, words) == r.rc && bits(words) == r.want);
        }
        std::fill(set, set + 16, ~0ULL);
        CHILD_CHECK(tovi_cpum_clear_cpumask_of_iod_poll(set) == 0 && (~bits(set)) == cpus({{4, 5}}));
        g_shown.clear();
        CHILD_CHECK(tovi_cpum_dbg_show(show) == 0);
        CHILD_CHECK(g_shown == "Group            Partition        Type CpuBind\n"
                               "GROUP_0          io               1    2-3\n"
                               "GROUP_0          IOD_NORMAL       2    4-9\n"
                               "GROUP_0          ref              3    GROUP_0/io,12\n"
                               "GROUP_0          loop             4    " + loops + "\n"
                               "GROUP_0          a_name_longer_than_thirty_one_c 5    7\n"
                               "GROUP_2          IOD_NORMAL       6    20-21\n"
                               "GROUP_2          IOD_NORMAL       7    4294967296-4294967300\n");
        return std::string();
    });
}

TEST(CpuLayout, NumaFileFailuresThenALoad)
{
    char dir[] = "/tmp/tovi_numa_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/numa.ini", proc = std::string(dir) + "/proc.ini";
    const std::string nodes = "[NUMA_PARTITION]\ncpu_num=8\nnuma_num=2\nnuma_0=0-3,8\nnuma_1=4-7,250-1100,4294967298\n";
    LogCapture cap;
    if (access(TOVI_NUMAM_FILE, F_OK) != 0) {
        EXPECT_EQ(tovi_numam_init(nullptr), 0);
        EXPECT_EQ(cap.texts(), Texts{"Numa cfg " + std::string(TOVI_NUMAM_FILE) + " is not access, errno:2"});
    }
    const std::string loaded = "Get cores(0-3,8) by numaId(0) success.|Get cores(4-7,250-1100,4294967298) by numaId(1) success.|"
                               "Get cpu_num(8), numa_num(2) success.|";
    struct {
        std::string text;
        std::string said;
    } bad[] = {
        {"[NUMA_PARTITION]\ncpu_num=0\n", "Get cpu num fail, ret:0|Parse numa cfg CPU_PARTITION fail.|"},
        {"[NUMA_PARTITION]\ncpu_num=2\n", "Get numa num fail, ret:0|Parse numa cfg CPU_PARTITION fail.|"},
        {"[NUMA_PARTITION]\ncpu_num=2\nnuma_num=2\nnuma_0=1\n", "Get cores(1) by numaId(0) success.|"
                                                                "Parse numa cfg CPU_PARTITION fail.|"},
        {nodes, loaded + "Parse numa cfg PROC_PARTITION fail.|"},
        {nodes + "[PROC_PARTITION]\nnuma_enable=yes\n", loaded + "Get proc_numa_info fail, itemValue:yes|"
                                                                 "Parse numa cfg PROC_PARTITION fail.|"},
        {nodes + "[PROC_PARTITION]\nnuma_enable=falsy\nproc_numa_info=0,2\n",
         loaded + "Get numa_enable(falsy) success.|Get proc_numa_info(0,2) failed.|Parse numa cfg PROC_PARTITION fail.|"},
    };
    for (const auto &b : bad) {
        cap.clear();
        ASSERT_TRUE(write_file(file, b.text));
        EXPECT_EQ(tovi_numam_init(file.c_str()), -1) << b.text;
        EXPECT_TRUE(joined(cap.texts()).ends_with(b.said)) << joined(cap.texts());  // "Numa cfg %s." is rate-limited
        EXPECT_EQ(tovi_numam_num_get(), 0);
    }
    char files[2][256] = {};
    cap.clear();
    EXPECT_EQ(tovi_numam_module_init(files), -1);
    std::copy(file.begin(), file.end(), files[0]);
    EXPECT_EQ(tovi_numam_module_init(files), -1);
    std::fill(files[1], files[1] + 256, 'x');
    EXPECT_EQ(tovi_numam_module_init(files), -1);
    std::fill(files[1], files[1] + 256, '\0');
    std::copy(proc.begin(), proc.end(), files[1]);
    ASSERT_TRUE(write_file(file, nodes) && write_file(proc, "[PROC_PARTITION]\nnuma_enable=true\nproc_numa_info=,1,\n"));
    EXPECT_EQ(tovi_numam_module_init(files), 0);
    EXPECT_EQ(joined(cap.texts()), "Numa cfg numa_info error.|Numa cfg node_numa error.|Numa cfg node_numa error.|" + loaded +
                                       "Get numa_enable(true) success.|Get proc_numa_info(,1,) success.|");
    EXPECT_EQ(tovi_numam_init(nullptr), 0);
    EXPECT_EQ(tovi_numam_status_get(), 1u);
    EXPECT_EQ(tovi_numam_num_get(), 2);
    uint64_t used = 0, set[16] = {~0ULL}, mask[5] = {~0ULL, 0, 0, 0, 0x5a};
    EXPECT_EQ(tovi_numam_proc_numamask_get(&used), 0);
    EXPECT_EQ(used, 2u);
    EXPECT_EQ(tovi_numam_cpuset_get(1, set), 0);
    EXPECT_EQ(bits(set), cpus({{4, 7}, {250, 1023}}));
    EXPECT_EQ(tovi_numam_cpumask_get(1, mask), 0);
    EXPECT_EQ(bits(mask, 256), cpus({{4, 7}, {250, 255}}));
    EXPECT_EQ(mask[4], 0x5au);
    cap.clear();
    EXPECT_EQ(tovi_numam_cpuset_get(2, set), 0);
    EXPECT_TRUE(bits(set).none());
    uint32_t first = 9, last = 9;
    EXPECT_EQ(tovi_numam_parse_cpustr("3-1", &first, &last), -1);
    EXPECT_EQ(tovi_numam_parse_cpustr("x", &first, &last), -1);
    EXPECT_EQ(tovi_numam_parse_cpustr("5-5", &first, &last), 0) << "a range of one CPU";
    EXPECT_EQ(tovi_numam_parse_cpustr("5", &first, &last), 0);
    EXPECT_EQ(first * 10 + last, 55u);
    EXPECT_EQ(tovi_numam_cpuset_get(0, nullptr), -1);
    EXPECT_EQ(tovi_numam_status_set(2), -1);
    EXPECT_EQ(joined(cap.texts()), "NumaId(2) not configured, numa_num(2).|Parse cpu mask 3-1 fail, end:1 is less than "
                                   "start:3|Parse CpuSet fail, invalid format:x|Param error, cpuSet is NULL.|");
    std::filesystem::remove_all(dir);
}

// The user-space companion keeps the C-state switch per process and has no
// task information.
TEST(CpuLayout, ProcessorControls)
{
    LogCapture cap;
    uint32_t value = 7;
    const uint32_t beyond = static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_CONF));
    EXPECT_EQ(tovi_get_idle_no_cstates(0, &value), 0);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(tovi_set_idle_no_cstates(0, 1), 0);
    EXPECT_EQ(tovi_get_idle_no_cstates(0, &value), 0);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(tovi_get_idle_no_cstates(beyond, &value), -1);
    EXPECT_EQ(tovi_set_idle_no_cstates(beyond, 1), -1);
    char info[64];
    EXPECT_EQ(tovi_get_cpu_task_info(0, info), -1);
    EXPECT_EQ(tovi_get_idle_no_cstates(0, nullptr), -1);
    EXPECT_EQ(tovi_get_cpu_task_info(0, nullptr), -1);
    EXPECT_EQ(cap.texts(), (Texts{"Syscall for tovi_set_idle_no_cstates failed.", "idle_no_cstates_value is null.",
                                  "pCpuTaskInfo is null."}));
}
