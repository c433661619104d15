// The affinity level: read only in the process named "app_data", from the
// custom settings of the user-space companion; the timer thread binds to it.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sched.h>
#include <sys/prctl.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "tovi_affinity.h"
#include "tovi_cfg.h"
#include "tovi_init.h"

using namespace tovi::test;
using Texts = std::vector<std::string>;

namespace {

constexpr const char *kLevel = "affinity_level_1";

// Runs `body` in a child named "app_data" whose settings file holds `settings`.
std::string as_app_data(const std::string &settings, const std::function<std::string()> &body)
{
    return report_from_child([&] {
        const std::string file = "/tmp/tovi_affinity_" + std::to_string(getpid()) + ".ini";
        setenv(TOVI_CST_FILE_ENV, file.c_str(), 1);
        std::string out = prctl(PR_SET_NAME, "app_data") == 0 && write_file(file, settings) ? body() : "set-up";
        unlink(file.c_str());
        return out;
    });
}

pid_t thread_named(const std::string &name)
{
    DIR *d = opendir("/proc/self/task");
    pid_t found = 0;
    while (dirent *e = d != nullptr ? readdir(d) : nullptr)
        if (read_file(std::string("/proc/self/task/") + e->d_name + "/comm") == name + "\n")
            found = std::atoi(e->d_name);
    if (d != nullptr)
        closedir(d);
    return found;
}

}  // namespace

TEST(Affinity, LevelOfTheDataProcessBindsTheTimerThread)
{
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
    EXPECT_EQ(as_app_data("[affinity_level_1]\nTHREAD_CPU_AFFINITY_LIST=1,2000,x\n", [&] {
        CHILD_CHECK(tovi_Init() == 0);
        const tovi_affinity_level_s *level = tovi_get_affinity_entity(kLevel);
        CHILD_CHECK(level == &g_affinityLevel_1 && std::string(level->affinityLevelName) == kLevel);
        CHILD_CHECK(level->cpuSet[0] == 3 && std::all_of(level->cpuSet + 1, level->cpuSet + 16, [](uint64_t w) { return w == 0; }));
        cpu_set_t want, got;
        CPU_ZERO(&want);
        for (int cpu = 0; cpu < 2; ++cpu)
            if (CPU_ISSET(cpu, &allowed))
                CPU_SET(cpu, &want);
        // The thread names itself once it runs; the binding is done before tovi_Init returns.
        pid_t timer = 0;
        tovi::test::wait_for([&] { return (timer = thread_named("tovi_run_timers")) != 0; });
        CHILD_CHECK(timer != 0 && sched_getaffinity(timer, sizeof got, &got) == 0 && CPU_EQUAL(&got, &want));
        CHILD_CHECK(tovi_set_thread_affinity(pthread_self(), "affinity_level_2") == 0);
        CHILD_CHECK(tovi_set_thread_affinity(pthread_self(), nullptr) == TOVI_ERR);
        CHILD_CHECK(tovi_affinity_exit() == 0 && tovi_get_affinity_entity(kLevel) == nullptr);
        return std::string();
    }), "");
}

TEST(Affinity, MissingItemAndOtherProcesses)
{
    EXPECT_EQ(as_app_data("[affinity_level_1]\nOTHER=1\n", [] {
        LogCapture cap;
        CHILD_CHECK(tovi_affinity_init() == 0 && tovi_get_affinity_entity(kLevel) == nullptr);
        CHILD_CHECK(cap.texts(3) == (Texts{"Ioctl failed, errno 2", "Get item failed, section(affinity_level_1) item "
                                           "name(THREAD_CPU_AFFINITY_LIST), cmd(256)."}));
        CHILD_CHECK(cap.texts(6) == Texts{"Can not find the item(affinity_level_1) in section(THREAD_CPU_AFFINITY_LIST)."});
        return std::string();
    }), "");
    // This test program is not the data process: no level, whatever the settings hold.
    LogCapture cap;
    EXPECT_EQ(tovi_affinity_init(), 0);
    EXPECT_EQ(tovi_get_affinity_entity(kLevel), nullptr);
    EXPECT_EQ(tovi_set_thread_affinity(pthread_self(), kLevel), 0u);
    EXPECT_EQ(cap.texts(), Texts{});
    tovi_affinity_level_s level{};
    tovi_parse_affinity_value("", &level), tovi_parse_affinity_value("7,,1023,1024,-1,", &level);
    EXPECT_EQ(level.cpuSet[0], 0x80u);  // empty pieces name no CPU
    EXPECT_EQ(level.cpuSet[15], 1ULL << 63);
}
