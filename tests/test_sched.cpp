// Sleeping, busy delays, binding and the wait/wake-up primitives.
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <pthread.h>
#include <sched.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log_capture.hpp"
#include "tovi_sched.h"
#include "tovi_time.h"

namespace {

double elapsed_ms(uint64_t since)
{
    return static_cast<double>(tovi_time_getnanosec() - since) / 1e6;
}

// A thread parked in tovi_wait_comm on its own word.
class Sleeper {
public:
    explicit Sleeper(int64_t timeout)
        : thread_([this, timeout] {
              tid_.store(gettid());
              started_ = tovi_time_getnanosec();
              result_ = tovi_wait_comm(&word_, timeout);
              took_ms_ = elapsed_ms(started_);
          })
    {
        while (tid_.load() == 0)
            tovi_yield();
    }
    ~Sleeper()
    {
        if (thread_.joinable())
            thread_.join();
    }
    uint32_t *word() { return &word_; }
    int32_t tid() const { return tid_.load(); }
    int64_t join()
    {
        thread_.join();
        return result_;
    }
    double took_ms() const { return took_ms_; }

private:
    uint32_t word_ = 1;
    std::atomic<int32_t> tid_{0};
    uint64_t started_ = 0;
    int64_t result_ = -1;
    double took_ms_ = 0;
    std::thread thread_;
};

}  // namespace

TEST(Sched, SelectSleepsSplitSecondsAndMicroseconds)
{
    uint64_t t = tovi_time_getnanosec();
    tovi_msleep(1050);
    EXPECT_GE(elapsed_ms(t), 1049.0) << "1050 ms is 1 s and 50000 us";
    t = tovi_time_getnanosec();
    tovi_10msleep(3);
    EXPECT_GE(elapsed_ms(t), 29.0);
    t = tovi_time_getnanosec();
    tovi_usleep(20000);
    EXPECT_GE(elapsed_ms(t), 19.0);
    t = tovi_time_getnanosec();
    tovi_schedule();
    EXPECT_GE(elapsed_ms(t), 0.9);
}

TEST(Sched, WakeUpSignalEndsASelectSleepEarly)
{
    ASSERT_EQ(tovi_sched_init(), 0u);
    std::atomic<int32_t> tid{0};
    std::atomic<double> took{0};
    std::thread sleeper([&] {
        tid.store(gettid());
        uint64_t t = tovi_time_getnanosec();
        tovi_msleep(10000);
        took.store(elapsed_ms(t));
    });
    while (tid.load() == 0)
        tovi_yield();
    tovi_msleep(50);
    EXPECT_EQ(tovi_wake_up_process(tid.load()), 0u);
    sleeper.join();
    EXPECT_LT(took.load(), 5000.0);
}

TEST(Sched, AffinityBindsTheCallingThreadOnly)
{
    tovi::test::LogCapture cap;
    long count = sysconf(_SC_NPROCESSORS_CONF);
    EXPECT_EQ(tovi_sched_setaffinity(static_cast<uint64_t>(count)), 0xFFFFFFFFu);
    EXPECT_EQ(cap.texts(), std::vector<std::string>{"cpu num overstep, current only has " +
                                                     std::to_string(count) + " cpu"});

    std::thread t([] {
        ASSERT_EQ(tovi_sched_setaffinity(0), 0u);
        cpu_set_t set;
        ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
        EXPECT_EQ(CPU_COUNT(&set), 1);
        EXPECT_TRUE(CPU_ISSET(0, &set));
    });
    t.join();
}

TEST(Sched, WaitTimesOutAfterItsJiffies)
{
    uint32_t word = 1;
    uint64_t t = tovi_time_getnanosec();
    EXPECT_EQ(tovi_wait_comm(&word, 25), 0);
    double took = elapsed_ms(t);
    EXPECT_GE(took, 99.0);
    EXPECT_LT(took, 3000.0);
}

TEST(Sched, WakeUpSignalEndsAWaitPromptly)
{
    Sleeper s(5 * 250);
    tovi_msleep(30);
    EXPECT_EQ(tovi_wake_up_process(s.tid()), 0u);
    int64_t left = s.join();
    EXPECT_GT(left, 0) << "woken: the jiffies left";
    EXPECT_LE(left, 5 * 250);
    EXPECT_LT(s.took_ms(), 2500.0);
}

TEST(Sched, ClearedWordWakesEvenBeforeTheWaitBegins)
{
    uint32_t word = 0;
    uint64_t t = tovi_time_getnanosec();
    EXPECT_NE(tovi_wait_comm(&word, 250), 0);
    EXPECT_LT(elapsed_ms(t), 500.0);
}

TEST(Sched, ClearThenSignalNeverLosesAWakeUp)
{
    for (int i = 0; i < 40; ++i) {
        Sleeper s(5 * 250);
        if (i % 2 == 0)
            tovi_yield();
        __atomic_store_n(s.word(), 0, __ATOMIC_RELEASE);
        EXPECT_EQ(tovi_wake_up_process(s.tid()), 0u);
        EXPECT_NE(s.join(), 0);
        EXPECT_LT(s.took_ms(), 2500.0) << "round " << i;
    }
}

TEST(Sched, InterruptibleWaitTellsWokenFromTimedOut)
{
    uint32_t word = 0;
    EXPECT_EQ(tovi_wait_interruptible(&word), 0xFFFFFFFFu);
    word = 1;
    uint64_t t = tovi_time_getnanosec();
    EXPECT_EQ(tovi_wait_interruptible(&word), 0u);
    EXPECT_GE(elapsed_ms(t), 990.0);
}

TEST(Sched, AnUnboundedWaitSleepsUntilWoken)
{
    Sleeper s(INT64_MAX);
    tovi_msleep(60);
    __atomic_store_n(s.word(), 0, __ATOMIC_RELEASE);
    EXPECT_EQ(tovi_wake_up_process(s.tid()), 0u);
    EXPECT_NE(s.join(), 0);
    EXPECT_GE(s.took_ms(), 50.0) << "a time-out too long to count must not end the wait at once";
}

namespace {

size_t queued(wait_queue_head_t *head)
{
    size_t n = 0;
    for (const tovi_list_head_s *p = head->task_list.next; p != &head->task_list; p = p->next)
        ++n;
    return n;
}

}  // namespace

TEST(SchedWait, PrepareQueuesAtTheFrontOnce)
{
    wait_queue_head_t head;
    __init_waitqueue_head(&head);
    EXPECT_EQ(head.lock.magic, 0xDEAD4EADu);
    EXPECT_EQ(head.lock.other, 0xFFFFFFFFu);
    EXPECT_EQ(head.lock.owner, UINT64_MAX);
    wait_queue_t a, b;
    tovi_init_wait_entry(&a);
    tovi_init_wait_entry(&b);
    EXPECT_EQ(a.tid, static_cast<uint32_t>(gettid()));

    EXPECT_EQ(prepare_to_wait(&head, &a), 0);
    EXPECT_EQ(prepare_to_wait(&head, &b), 0);
    EXPECT_EQ(head.task_list.next, &b.entry) << "newest first";
    a.waiting = 0;
    EXPECT_EQ(prepare_to_wait(&head, &a), 0);
    EXPECT_EQ(a.waiting, 1u);
    EXPECT_EQ(queued(&head), 2u) << "an entry already queued is only flagged again";

    finish_wait(&head, &a);
    EXPECT_EQ(a.waiting, 0u);
    EXPECT_EQ(a.entry.next, &a.entry);
    EXPECT_EQ(queued(&head), 1u);
    finish_wait(&head, &a);  // on no queue: returns at once
    finish_wait(&head, &b);
    EXPECT_EQ(queued(&head), 0u);
    __wake_up(&head);  // empty: only locks and unlocks
    EXPECT_EQ(head.lock.lock, 0u);
}

TEST(SchedWait, WakeUpReleasesEveryWaiter)
{
    wait_queue_head_t head;
    __init_waitqueue_head(&head);
    std::atomic<bool> condition{false};
    std::atomic<int> woken{0};
    std::atomic<int> parked{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            wait_queue_t w;
            tovi_init_wait_entry(&w);
            prepare_to_wait(&head, &w);
            ++parked;
            uint64_t t = tovi_time_getnanosec();
            while (!condition.load() && elapsed_ms(t) < 5000)
                if (sched_wait_timeout(&w, 5 * 250) != 0)
                    break;
            finish_wait(&head, &w);
            woken += condition.load() ? 1 : 0;
        });
    while (parked.load() < 3)
        tovi_yield();
    condition = true;
    uint64_t t = tovi_time_getnanosec();
    __wake_up(&head);
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(woken.load(), 3);
    EXPECT_LT(elapsed_ms(t), 2500.0);
    EXPECT_EQ(queued(&head), 0u);
}

TEST(SchedWait, FinishWaitNeverBlocksOnTheHeadLock)
{
    wait_queue_head_t head;
    __init_waitqueue_head(&head);
    wait_queue_t w;
    tovi_init_wait_entry(&w);
    prepare_to_wait(&head, &w);
    tovi_spinlock_lock(&head.lock.lock);  // a waker holds the head
    std::atomic<bool> finished{false};
    std::thread t([&] {
        finish_wait(&head, &w);
        finished = true;
    });
    tovi_msleep(30);
    EXPECT_FALSE(finished.load());
    tovi_spinlock_unlock(&head.lock.lock);
    t.join();
    EXPECT_TRUE(finished.load());
    EXPECT_EQ(queued(&head), 0u);
    EXPECT_EQ(w.waiting, 0u);
}

TEST(Sched, BusyDelayNeverReturnsEarly)
{
    uint64_t zero = tovi_mdelay(0);
    EXPECT_GE(zero, 1u);
    EXPECT_LT(zero, 50000000u);
    uint64_t t = tovi_time_getnanosec();
    uint64_t three = tovi_mdelay(3);
    EXPECT_GT(three, 3000000u);
    EXPECT_GE(tovi_time_getnanosec() - t, three);
}
