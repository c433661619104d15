// Tracked allocation and the usage table.
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <thread>

#include "child.hpp"
#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_mem.h"

using tovi::test::LogCapture;

static std::string g_shown;

static int collect(const char *fmt, ...)
{
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return g_shown += buf, n;
}

static std::string shown()
{
    g_shown.clear();
    tovi_mem_show(collect);
    return g_shown;
}

const std::string kHeading = "Begin to show used memory (Bytes) of all PID.\n"
                             "| PID         UsedMem | PID         UsedMem | PID         UsedMem "
                             "| PID         UsedMem | PID         UsedMem \n";
const std::string kNothing = kHeading + "\nTotal used memory: 0\n";

TEST(Mem, BlocksCarryTheirHeaderAndChargeTheirModuleFiveToALine)
{
    EXPECT_EQ(tovi_mem_show(nullptr), 0);
    LogCapture cap;
    EXPECT_EQ(TOVI_MALLOC(381, 0), nullptr);
    auto *p = static_cast<unsigned char *>(TOVI_MALLOC(381, 100));
    const auto *head = reinterpret_cast<const tovi_mem_head_s *>(p - 16);
    EXPECT_EQ((std::vector<uint64_t>{head->magic, head->size, head->pid, head->reserved}),
              (std::vector<uint64_t>{0xF5F5F5F5u, 100, 381, 0}));
    std::vector<void *> blocks = {p, TOVI_MALLOC(2000, 28)};  // beyond the table: charged to module 0
    for (uint32_t m = 1; m <= 5; ++m)
        blocks.push_back(TOVI_MALLOC(m, m * 10));
    EXPECT_EQ(shown(), kHeading +
                           "| 0                28 | 1                10 | 2                20 | 3                30 "
                           "| 4                40 \n| 5                50 | 381             100 \nTotal used memory: 278\n");
    for (void *b : blocks)
        TOVI_FREE(b);
    EXPECT_EQ(shown(), kNothing);
    p = static_cast<unsigned char *>(TOVI_MALLOC(42, 1000));
    EXPECT_EQ(tovi_mem_stat_dump(), 0u);
    EXPECT_EQ(cap.texts(), std::vector<std::string>{"Memory of module 42: 1000 bytes in use."});  // and nothing before
    TOVI_FREE(p);
    unsigned char buf[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(tovi_memset(buf, 0xAB, 5) == buf && tovi_memset(nullptr, 0, 5) == nullptr, true);
    EXPECT_EQ(std::vector<int>(buf, buf + 8), (std::vector<int>{0xAB, 0xAB, 0xAB, 0xAB, 0xAB, 1, 1, 1}));
    cap.clear();
    for (int i = 0; i < 6; ++i)
        tovi_freesub(nullptr, "caller", 7);
    EXPECT_EQ(cap.texts(), std::vector<std::string>(3, "ptr  is null, function(caller) line(7)"));  // rate-limited
#ifndef __SANITIZE_THREAD__  // the thread checker's allocator leaves no header before its blocks
    cap.clear();
    void *foreign = std::malloc(64);
    tovi_freesub(foreign, "caller", 12);  // the leak checker proves it was released
    char expected[128];
    std::snprintf(expected, sizeof expected, "mem magic is wrong, ptr(%p), function(caller) line(12)", foreign);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{expected});
#endif
}

TEST(Mem, CountersStayExactUnderConcurrentUse)
{
    std::vector<std::jthread> threads;
    for (uint32_t t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (uint32_t i = 0; i < 2000; ++i)
                TOVI_FREE(TOVI_MALLOC(10 + t % 2, 1 + i % 64));
        });
    threads.clear();
    EXPECT_EQ(shown(), kNothing);
}

// The figures come from a fake /proc/meminfo bound over the real one in a private mount namespace.
TEST(Mem, MachineFiguresFromMeminfo)
{
    std::string failure = tovi::test::report_from_child([]() -> std::string {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0 || !tovi::test::write_file("/tmp/meminfo", "") ||
            mount("/tmp/meminfo", "/proc/meminfo", nullptr, MS_BIND, nullptr) != 0)
            return "SKIP";
        struct {
            const char *text;
            uint64_t total, free;
            uint32_t usage;
        } cases[] = {
            {"MemTotal:    1000 kB\nMemFree:  250 kB\nMemAvailable:  400 kB\n", 1000, 250, 60},
            {"MemFree: 7 kB\nMemTotal: 3 kB\nMemAvailable: 1 kB\n", 3, 7, 66},  // any order; rounded down
            {"MemTotalX: 5 kB\nMemFreeish: 7 kB\nMemTotal: 100 kB\n", 100, 0, TOVI_ERR},  // a longer key is another key
            {"MemTotal: 100 kB\nMemAvailable: 200 kB\n", 100, 0, TOVI_ERR},
            {"MemTotal: 0 kB\nMemAvailable: 0 kB\n", 0, 0, TOVI_ERR},
        };
        for (const auto &c : cases) {
            CHILD_CHECK(tovi::test::write_file("/tmp/meminfo", c.text));
            CHILD_CHECK(tovi_get_total_mem() == c.total && tovi_get_free_mem() == c.free && tovi_get_available_usage() == c.usage);
        }
        LogCapture cap;
        CHILD_CHECK(umount("/proc/meminfo") == 0 && mount("tmpfs", "/proc", "tmpfs", 0, nullptr) == 0 && tovi_get_total_mem() == 0);
        return cap.texts(3) == std::vector<std::string>{"Open /proc/meminfo fail, errno<2>."} ? "" : cap.texts(3).front();
    });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(failure, "");
}

// Whole pages change protection (as the process's own map shows); the cache release runs its one command.
TEST(Mem, PageProtectionAndCacheRelease)
{
    const uint64_t page = tovi_get_sys_page_size();
    EXPECT_EQ(page, static_cast<uint64_t>(sysconf(_SC_PAGESIZE)));
    auto *base = static_cast<char *>(mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(base, MAP_FAILED);
    char *p = base + page;  // two pages between an inaccessible one and a hole: never merged with a neighbour
    mprotect(base, page, PROT_NONE);
    munmap(p + 2 * page, page);
    auto modes = [&] {
        std::string maps = "\n" + tovi::test::read_file("/proc/self/maps"), got;
        for (char *at : {p, p + page}) {
            char key[32];
            snprintf(key, sizeof key, "\n%lx-", reinterpret_cast<unsigned long>(at));
            size_t line = maps.find(key);
            got += line == std::string::npos ? "?" : maps.substr(maps.find(' ', line) + 1, 3);  // this page opens a mapping
            got += ' ';
        }
        return got;
    };
    LogCapture cap;
    EXPECT_EQ(tovi_setmemory_ro(p + 10, 1), 0u);
    EXPECT_EQ(modes(), "r-- rw- ");
    EXPECT_EQ(tovi_setmemory_ro(p + page - 1, 2), 0u);  // straddles both
    EXPECT_EQ(modes(), "r-- ? ");                       // one read-only mapping now
    EXPECT_EQ(tovi_setmemory_rw(p + page, 1), 0u);
    EXPECT_EQ(modes(), "r-- rw- ");
    EXPECT_EQ(tovi_setmemory_rw(p, 2 * page), 0u);
    EXPECT_EQ(modes(), "rw- ? ");
    EXPECT_EQ((std::vector<uint32_t>{tovi_setmemory_ro(nullptr, 1), tovi_setmemory_rw(p, 0), tovi_setmemory_ro(p + page, page + 1)}),
              (std::vector<uint32_t>{TOVI_ERR, TOVI_ERR, TOVI_ERR}));
    char zero[64], text[128];
    snprintf(zero, sizeof zero, "Param error: addr(%p) len(0).", static_cast<void *>(p));
    snprintf(text, sizeof text, "Set memory protection fail, addr(%p) len(%llu) errno(12).", static_cast<void *>(p + page),
             static_cast<unsigned long long>(page + 1));
    EXPECT_EQ(cap.texts(3), (std::vector<std::string>{"Param error: addr((nil)) len(1).", zero, text}));
    munmap(base, 3 * page);
    tovi::test::ShellRecorder shell;
    shell.status["sync;echo 3 > /proc/sys/vm/drop_caches;"] = 0x100;
    EXPECT_EQ(tovi_release_mem(), 0x100);
    EXPECT_EQ(shell.commands, std::vector<std::string>{"sync;echo 3 > /proc/sys/vm/drop_caches;"});
}
