// Thread-specific keys and once-initialisation.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <pthread.h>
#include <thread>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_percpu_posix.h"

namespace {

using tovi::test::LogCapture;

int g_once_runs = 0;
void count_once()
{
    ++g_once_runs;
}

int g_destroyed_value = 0;
void note_destroyed(void *value)
{
    g_destroyed_value = *static_cast<int *>(value);
}

}  // namespace

TEST(PercpuPosix, OnceRunsTheRoutineOnce)
{
    LogCapture cap;
    pthread_once_t once = PTHREAD_ONCE_INIT;
    EXPECT_EQ(tovi_pthread_init_once(&once, count_once), 0u);
    EXPECT_EQ(tovi_pthread_init_once(&once, count_once), 0u);
    EXPECT_EQ(g_once_runs, 1);
    EXPECT_TRUE(cap.records().empty());
}

TEST(PercpuPosix, ValuesArePerThreadAndDestroyedAtThreadExit)
{
    LogCapture cap;
    pthread_key_t key;
    ASSERT_EQ(tovi_key_create(&key, note_destroyed), 0u);
    int mine = 1;
    EXPECT_EQ(tovi_key_setspecific(key, &mine), 0u);
    EXPECT_EQ(tovi_key_getspecific(key), &mine);
    std::thread other([key] {
        EXPECT_EQ(tovi_key_getspecific(key), nullptr) << "not set in this thread";
        static int theirs = 2;
        EXPECT_EQ(tovi_key_setspecific(key, &theirs), 0u);
        EXPECT_EQ(tovi_key_getspecific(key), &theirs);
    });
    other.join();
    EXPECT_EQ(g_destroyed_value, 2) << "the other thread's value went to the destructor";
    EXPECT_EQ(tovi_key_getspecific(key), &mine);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{"pthread_getspecific failed!\n"});
    EXPECT_EQ(cap.records()[0].module, 381u);
    EXPECT_EQ(tovi_key_delete(key), 0u);
}

TEST(PercpuPosix, FailuresReturnThePosixResultAndLogTheirMessage)
{
    LogCapture cap;
    pthread_key_t key;
    ASSERT_EQ(tovi_key_create(&key, nullptr), 0u);
    int v = 5;
    EXPECT_EQ(tovi_key_setspecific(key, nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{"param(value) is null !\n"}) << "refused before the call";
    cap.clear();

    EXPECT_EQ(tovi_key_getspecific(key), nullptr);
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{"pthread_getspecific failed!\n"});
    cap.clear();

    ASSERT_EQ(tovi_key_delete(key), 0u);
    EXPECT_EQ(tovi_key_delete(key), static_cast<uint32_t>(EINVAL)) << "deleted twice";
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{"pthread_key_delete failed!\n"});
    cap.clear();

    const auto bad = static_cast<pthread_key_t>(PTHREAD_KEYS_MAX + 7);
    EXPECT_EQ(tovi_key_setspecific(bad, &v), static_cast<uint32_t>(EINVAL));
    EXPECT_EQ(cap.texts(3), std::vector<std::string>{"pthread_setspecific failed!\n"});
}

TEST(PercpuPosix, KeyCreationFailsWhenKeysRunOut)
{
    // In a child: the keys it uses up are the child's own.
    int status = tovi::test::run_in_child([] {
        LogCapture cap;
        pthread_key_t key;
        uint32_t ret = 0;
        for (int i = 0; i <= PTHREAD_KEYS_MAX && ret == 0; ++i)
            ret = tovi_key_create(&key, nullptr);
        if (ret != static_cast<uint32_t>(EAGAIN))
            return 1;
        return cap.texts(3) == std::vector<std::string>{"pthread_key_create failed!\n"} ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
}
