// Tracked allocation and the usage table.
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "log_capture.hpp"
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
