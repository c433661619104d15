// Start-up, tear-down, module names, the mutex constructor and the version stamp.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.hpp"
#include "tovi_init.h"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

// Runs first: nothing is up yet.
TEST(Init, DestroyBeforeInitReturnsZeroSilently)
{
    LogCapture cap;
    EXPECT_EQ(tovi_destory(), 0u);
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Init, StartsOnceAcrossThreadsAndStopsOnce)
{
    LogCapture cap;
    std::vector<std::thread> threads;
    std::vector<uint32_t> results(4, 7);
    for (size_t i = 0; i < results.size(); ++i)
        threads.emplace_back([&results, i] { results[i] = tovi_Init(); });
    for (auto &t : threads)
        t.join();
    for (uint32_t r : results)
        EXPECT_EQ(r, 0u);
    // The start steps log on their own account (the worker pool, the
    // settings it looks up); start-up itself says when it begins and ends.
    auto own = [&cap] {
        Texts texts;
        for (const auto &r : cap.records()) {
            EXPECT_EQ(r.module, 381u);
            if (r.file == "tovi_init")
                texts.push_back(r.text);
        }
        return texts;
    };
    EXPECT_EQ(own(), (Texts{"Tovi init start.", "Tovi init end ret 0."}));
    EXPECT_STREQ(tovi_pid_get_name(381), "KOMI");

    cap.clear();
    EXPECT_EQ(tovi_Init(), 0u);
    EXPECT_TRUE(own().empty()) << "a second start logs nothing";

    EXPECT_EQ(tovi_destory(), 0u);
    EXPECT_EQ(tovi_destory(), 0u);
    EXPECT_EQ(own(), (Texts{"Tovi destroy start.", "Tovi destroy end."}));

    // The module-name table fills itself again on use after tear-down.
    EXPECT_STREQ(tovi_pid_get_name(381), "KOMI");
    EXPECT_EQ(tovi_Init(), 0u);
}

TEST(Init, ModuleNamesKeepPointersAndShareTheOverflowBuffer)
{
    EXPECT_STREQ(tovi_pid_get_name(5), "NONE");
    EXPECT_STREQ(tovi_pid_get_name(1023), "NONE");

    static const char seven[] = "SEVEN";
    tovi_pid_set_name(7, seven);
    EXPECT_EQ(tovi_pid_get_name(7), seven) << "the caller's pointer is stored, not a copy";

    tovi_pid_set_name(5, nullptr);
    tovi_pid_set_name(1024, seven);
    EXPECT_STREQ(tovi_pid_get_name(5), "NONE");

    const char *overflow = tovi_pid_get_name(70000);
    EXPECT_STREQ(overflow, "<4464>");
    EXPECT_STREQ(tovi_pid_get_name(1024), "<1024>");
    EXPECT_STREQ(overflow, "<1024>") << "overflow names share one buffer";
    EXPECT_STREQ(tovi_pid_get_name(0xFFFFFFFFu), "<65535>");

    pid_destroy_names();
    EXPECT_STREQ(tovi_pid_get_name(7), "NONE") << "emptying forgets every name";
    EXPECT_STREQ(tovi_pid_get_name(381), "KOMI");
}

TEST(Init, MutexKindsMapZeroNormalOneErrorCheckingTwoRecursive)
{
    pthread_mutex_t m;
    std::memset(&m, 0xAB, sizeof m);
    EXPECT_EQ(tovi_mtx_init(&m, 3), 0xFFFFFFFFu);
    const auto *bytes = reinterpret_cast<const unsigned char *>(&m);
    for (size_t i = 0; i < sizeof m; ++i)
        ASSERT_EQ(bytes[i], 0xAB) << "an unknown kind leaves the mutex untouched";

    ASSERT_EQ(tovi_mtx_init(&m, 1), 0u);
    ASSERT_EQ(pthread_mutex_lock(&m), 0);
    EXPECT_EQ(pthread_mutex_lock(&m), EDEADLK);
    pthread_mutex_unlock(&m);
    EXPECT_EQ(tovi_mtx_destroy(&m), 0);

    ASSERT_EQ(tovi_mtx_init(&m, 2), 0u);
    ASSERT_EQ(pthread_mutex_lock(&m), 0);
    EXPECT_EQ(pthread_mutex_lock(&m), 0);
    pthread_mutex_unlock(&m);
    pthread_mutex_unlock(&m);
    EXPECT_EQ(tovi_mtx_destroy(&m), 0);

    ASSERT_EQ(tovi_mtx_init(&m, 0), 0u);
    EXPECT_EQ(pthread_mutex_trylock(&m), 0);
    EXPECT_EQ(pthread_mutex_trylock(&m), EBUSY);
    pthread_mutex_unlock(&m);
    EXPECT_EQ(tovi_mtx_destroy(&m), 0);
}

TEST(Init, VersionStampIsTakenOnce)
{
    uint64_t first = ps_get_version();
    EXPECT_NE(first, 0u);
    EXPECT_EQ(ps_get_version(), first);
}

TEST(Init, LogWrappersForwardToTheLoggingLibrary)
{
    LogCapture cap;
    EXPECT_EQ(tovi_log_init(381, "KOMI"), 0);
    EXPECT_EQ(tovi_log_level_set(381, 7), 0);
    EXPECT_EQ(tovi_log_level_get(381), 5);
    EXPECT_EQ(tovi_ratelimit_set("g12", 100, 3), 0);
    EXPECT_EQ(tovi_log_destroy(), 0);
    EXPECT_EQ(cap.control_calls(),
              (Texts{"vrlog_init(381,KOMI)", "vrlog_loglevel_set(381,7)", "vrlog_loglevel_get(381)",
                     "vrlog_get_group_id(g12)", "vrlog_ratelimit_set(12,100,3)", "vrlog_destroy()"}));
}

TEST(Init, GlibcWarmUpCapturesFrames)
{
    int frames = tovi_glibc_init();
    EXPECT_GT(frames, 0);
    EXPECT_LE(frames, 3);
}
