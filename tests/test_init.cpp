// Start-up, tear-down, module names, the mutex constructor and the version stamp.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "log_capture.hpp"
#include "tovi_init.h"

using Texts = std::vector<std::string>;

TEST(Init, StartsOnceAcrossThreadsStopsOnceAndNamesModules)
{
    tovi::test::LogCapture cap;
    EXPECT_EQ(tovi_destory(), 0u) << "nothing is up yet: returns silently";
    std::vector<std::thread> threads(4);
    for (auto &t : threads)
        t = std::thread([] { EXPECT_EQ(tovi_Init(), 0u); });
    for (auto &t : threads)
        t.join();
    auto own = [&cap] {
        Texts texts;
        for (const auto &r : cap.records()) {
            EXPECT_EQ(r.module, 381u);
            if (r.text.rfind("Tovi ", 0) == 0)  // the start steps log on their own account
                texts.push_back(r.text);
        }
        return texts;
    };
    EXPECT_EQ(own(), (Texts{"Tovi init start.", "Tovi init end ret 0."}));
    cap.clear();
    EXPECT_EQ(tovi_Init(), 0u);
    EXPECT_TRUE(own().empty()) << "a second start logs nothing";

    EXPECT_EQ(tovi_destory(), 0u);
    EXPECT_EQ(tovi_destory(), 0u) << "stopping twice stops once";
    EXPECT_EQ(own(), (Texts{"Tovi destroy start.", "Tovi destroy end."}));
    // The module-name table fills itself again on use after tear-down.
    EXPECT_STREQ(tovi_pid_get_name(381), "KOMI");
    EXPECT_EQ(tovi_Init(), 0u);
    EXPECT_STREQ(tovi_pid_get_name(1023), "NONE");
    static const char seven[] = "SEVEN";
    tovi_pid_set_name(7, seven);
    tovi_pid_set_name(5, nullptr);
    tovi_pid_set_name(1024, seven);
    EXPECT_EQ(tovi_pid_get_name(7), seven) << "the caller's pointer is stored, not a copy";
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

TEST(Init, MutexKindsVersionStampWarmUpAndLogWrappers)
{
    pthread_mutex_t m;
    std::memset(&m, 0xAB, sizeof m);
    EXPECT_EQ(tovi_mtx_init(&m, 3), 0xFFFFFFFFu);
    const auto *bytes = reinterpret_cast<const unsigned char *>(&m);
    EXPECT_EQ(std::count(bytes, bytes + sizeof m, 0xAB), sizeof m) << "an unknown kind leaves the mutex untouched";
    // {kind, a second lock by the owner would block (so only try it), what it returns}
    const std::tuple<uint32_t, bool, int> kinds[] = {{0, true, EBUSY}, {1, false, EDEADLK}, {2, false, 0}};
    for (auto [kind, blocks, second] : kinds) {
        ASSERT_EQ(tovi_mtx_init(&m, kind), 0u);
        ASSERT_EQ(pthread_mutex_lock(&m), 0);
        EXPECT_EQ(blocks ? pthread_mutex_trylock(&m) : pthread_mutex_lock(&m), second) << "kind " << kind;
        for (int held = second == 0 ? 2 : 1; held > 0; --held)
            pthread_mutex_unlock(&m);
        EXPECT_EQ(tovi_mtx_destroy(&m), 0);
    }
    const uint64_t first = ps_get_version();
    EXPECT_TRUE(first != 0 && ps_get_version() == first) << first;
    const int frames = tovi_glibc_init();
    EXPECT_TRUE(frames > 0 && frames <= 3) << frames;
    // The log wrappers forward to the logging library.
    tovi::test::LogCapture cap;
    EXPECT_EQ(tovi_log_init(381, "KOMI"), 0);
    EXPECT_EQ(tovi_log_level_set(381, 7), 0);
    EXPECT_EQ(tovi_log_level_get(381), 5);
    EXPECT_EQ(tovi_ratelimit_set("g12", 100, 3), 0);
    EXPECT_EQ(tovi_log_destroy(), 0);
    EXPECT_EQ(cap.control_calls(),
              (Texts{"vrlog_init(381,KOMI)", "vrlog_loglevel_set(381,7)", "vrlog_loglevel_get(381)",
                     "vrlog_get_group_id(g12)", "vrlog_ratelimit_set(12,100,3)", "vrlog_destroy()"}));
}

