// Tracked allocation and the usage table.
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.hpp"
#include "tovi_mem.h"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

std::string g_shown;

int collect(const char *fmt, ...)
{
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    g_shown += buf;
    return n;
}

std::string shown()
{
    g_shown.clear();
    tovi_mem_show(collect);
    return g_shown;
}

const std::string kHeading = "Begin to show used memory (Bytes) of all PID.\n"
                             "| PID         UsedMem | PID         UsedMem | PID         UsedMem "
                             "| PID         UsedMem | PID         UsedMem \n";

}  // namespace

TEST(Mem, EmptyTableShowsOnlyHeadingAndTotal)
{
    EXPECT_EQ(shown(), kHeading + "\nTotal used memory: 0\n");
    EXPECT_EQ(tovi_mem_show(nullptr), 0);
}

TEST(Mem, BlocksCarryTheirHeaderAndChargeTheirModule)
{
    LogCapture cap;
    EXPECT_EQ(TOVI_MALLOC(381, 0), nullptr);

    auto *p = static_cast<unsigned char *>(TOVI_MALLOC(381, 100));
    ASSERT_NE(p, nullptr);
    const auto *head = reinterpret_cast<const tovi_mem_head_s *>(p - 16);
    EXPECT_EQ(head->magic, 0xF5F5F5F5u);
    EXPECT_EQ(head->size, 100u);
    EXPECT_EQ(head->pid, 381u);
    EXPECT_EQ(head->reserved, 0u);

    void *q = TOVI_MALLOC(2000, 28);  // beyond the table: charged to module 0
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(shown(), kHeading + "| 0                28 | 381             100 \nTotal used memory: 128\n");

    TOVI_FREE(p);
    TOVI_FREE(q);
    EXPECT_EQ(shown(), kHeading + "\nTotal used memory: 0\n");
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Mem, FiveModulesToALine)
{
    std::vector<void *> blocks;
    for (uint32_t m = 1; m <= 6; ++m)
        blocks.push_back(TOVI_MALLOC(m, m * 10));
    EXPECT_EQ(shown(), kHeading +
                           "| 1                10 | 2                20 | 3                30 "
                           "| 4                40 | 5                50 \n"
                           "| 6                60 \nTotal used memory: 210\n");
    for (void *b : blocks)
        TOVI_FREE(b);
}

TEST(Mem, ForeignPointerIsReportedAndStillReleased)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread checker's allocator leaves no header before its blocks";
#endif
    LogCapture cap;
    void *foreign = std::malloc(64);
    tovi_freesub(foreign, "caller", 12);  // the leak checker proves it was released
    char expected[128];
    std::snprintf(expected, sizeof expected, "mem magic is wrong, ptr(%p), function(caller) line(12)", foreign);
    EXPECT_EQ(cap.texts(3), Texts{expected});
    EXPECT_EQ(shown(), kHeading + "\nTotal used memory: 0\n");
}

TEST(Mem, NullReleaseIsRateLimited)
{
    LogCapture cap;
    for (int i = 0; i < 6; ++i)
        tovi_freesub(nullptr, "caller", 7);
    EXPECT_EQ(cap.texts(), Texts(3, "ptr  is null, function(caller) line(7)"));
}

TEST(Mem, StatisticsDumpListsEveryModuleInUse)
{
    LogCapture cap;
    void *p = TOVI_MALLOC(42, 1000);
    EXPECT_EQ(tovi_mem_stat_dump(), 0u);
    EXPECT_EQ(cap.texts(), Texts{"Memory of module 42: 1000 bytes in use."});
    TOVI_FREE(p);
}

TEST(Mem, MemsetFillsExactlyTheLength)
{
    unsigned char buf[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(tovi_memset(buf, 0xAB, 5), buf);
    EXPECT_EQ(buf[4], 0xAB);
    EXPECT_EQ(buf[5], 1);
    EXPECT_EQ(tovi_memset(nullptr, 0, 5), nullptr);
}

TEST(Mem, CountersStayExactUnderConcurrentUse)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 2000; ++i) {
                void *p = TOVI_MALLOC(static_cast<uint32_t>(10 + t % 2), static_cast<uint32_t>(1 + i % 64));
                TOVI_FREE(p);
            }
        });
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(shown(), kHeading + "\nTotal used memory: 0\n");
}
