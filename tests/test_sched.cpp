// Sleeping, busy delays, binding and the wait/wake-up primitives.
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <atomic>
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

size_t queued(wait_queue_head_t *head)
{
    size_t n = 0;
    for (const tovi_list_head_s *p = head->task_list.next; p != &head->task_list; p = p->next)
        ++n;
    return n;
}

}  // namespace

TEST(Sched, SleepsLastAtLeastTheirTime)
{
    auto took_ms = [](auto sleep) {
        const uint64_t t = tovi_time_getnanosec();
        sleep();
        return elapsed_ms(t);
    };
    EXPECT_GE(took_ms([] { tovi_msleep(1050); }), 1049.0) << "1 s and 50000 us for the select";
    EXPECT_GE(took_ms([] { tovi_10msleep(3); }), 29.0);
    EXPECT_GE(took_ms([] { tovi_usleep(20000); }), 19.0);
    EXPECT_GE(took_ms([] { tovi_schedule(); }), 0.9);
    const uint64_t zero = tovi_mdelay(0), t = tovi_time_getnanosec(), three = tovi_mdelay(3);  // never early
    const uint64_t took = tovi_time_getnanosec() - t;
    EXPECT_TRUE(zero >= 1 && zero < 50000000u && three > 3000000u && took >= three) << zero << " " << three << " " << took;
}

TEST(Sched, AffinityBindsTheCallingThreadOnly)
{
    tovi::test::LogCapture cap;
    long count = sysconf(_SC_NPROCESSORS_CONF);
    EXPECT_EQ(tovi_sched_setaffinity(static_cast<uint64_t>(count)), 0xFFFFFFFFu);
    EXPECT_EQ(cap.texts(), std::vector<std::string>{"cpu num overstep, current only has " + std::to_string(count) + " cpu"});
    std::thread([] {
        ASSERT_EQ(tovi_sched_setaffinity(0), 0u);
        cpu_set_t set;
        ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
        EXPECT_TRUE(CPU_COUNT(&set) == 1 && CPU_ISSET(0, &set));
    }).join();
}

TEST(Sched, WaitsTimeOutOrEndAtOnceOnAClearedWord)
{
    uint32_t word = 1;
    EXPECT_EQ(tovi_wake_up_process(static_cast<int32_t>(gettid())), 0u) << "before any wait: its handler is installed first";
    uint64_t t = tovi_time_getnanosec();
    EXPECT_EQ(tovi_wait_comm(&word, 25), 0) << "timed out: no jiffies left";
    EXPECT_TRUE(elapsed_ms(t) >= 99.0 && elapsed_ms(t) < 3000.0) << elapsed_ms(t);
    t = tovi_time_getnanosec();
    EXPECT_EQ(tovi_wait_interruptible(&word), 0u);
    EXPECT_GE(elapsed_ms(t), 990.0);
    // A word cleared even before the wait begins ends it at once.
    word = 0;
    t = tovi_time_getnanosec();
    EXPECT_NE(tovi_wait_comm(&word, 250), 0);
    EXPECT_LT(elapsed_ms(t), 500.0);
    EXPECT_EQ(tovi_wait_interruptible(&word), 0xFFFFFFFFu);
}

TEST(Sched, WakeUpSignalEndsSleepsPromptlyAndIsNeverLost)
{
    ASSERT_EQ(tovi_sched_init(), 0u);
    // Round 0 sleeps 10 s in select, round 1 is woken with its word still set (it gets the
    // jiffies left), round 42 waits too long to count: none may end before the signal.
    for (int i = 0; i <= 42; ++i) {
        const bool late = i < 2 || i == 42;
        const int64_t timeout = i == 42 ? INT64_MAX : 5 * 250;
        uint32_t word = 1;
        std::atomic<int32_t> tid{0};
        int64_t left = -1;
        double took_ms = 0;
        std::thread sleeper([&] {
            const uint64_t t = tovi_time_getnanosec();
            tid = gettid();
            left = i == 0 ? (tovi_msleep(10000), 0) : tovi_wait_comm(&word, timeout);
            took_ms = elapsed_ms(t);
        });
        while (tid.load() == 0)
            tovi_yield();
        if (late)
            tovi_msleep(i == 0 ? 300 : 60);  // the select sleep must have begun: a signal before it is lost
        else if (i % 2 == 0)
            tovi_yield();
        if (i >= 2)
            __atomic_store_n(&word, 0, __ATOMIC_RELEASE);
        EXPECT_EQ(tovi_wake_up_process(tid), 0u);
        sleeper.join();
        EXPECT_TRUE(i == 0 || (left != 0 && (i != 1 || (left > 0 && left <= 5 * 250)))) << i << ": " << left;
        EXPECT_TRUE(took_ms < (i == 0 ? 5000.0 : 2500.0) && (!late || took_ms >= 50.0)) << i << ": " << took_ms;
    }
}

TEST(SchedWait, PrepareQueuesAtTheFrontOnceAndFinishWaitsForTheHead)
{
    wait_queue_head_t head;
    __init_waitqueue_head(&head);
    wait_queue_t a, b;
    tovi_init_wait_entry(&a);
    tovi_init_wait_entry(&b);
    EXPECT_EQ(a.tid, static_cast<uint32_t>(gettid()));
    EXPECT_EQ(prepare_to_wait(&head, &a), 0);
    EXPECT_EQ(prepare_to_wait(&head, &b), 0);
    EXPECT_EQ(head.task_list.next, &b.entry) << "newest first";
    a.waiting = 0;
    EXPECT_EQ(prepare_to_wait(&head, &a), 0);
    EXPECT_TRUE(a.waiting == 1 && queued(&head) == 2u) << "an entry already queued is only flagged again";
    finish_wait(&head, &a);
    EXPECT_TRUE(a.waiting == 0 && a.entry.next == &a.entry && queued(&head) == 1u);
    finish_wait(&head, &a);  // on no queue: returns at once
    // Taking b off waits for a waker holding the head to let go.
    tovi_spinlock_lock(&head.lock.lock);
    std::atomic<bool> finished{false};
    std::thread t([&] { finish_wait(&head, &b), finished = true; });
    tovi_msleep(30);
    EXPECT_FALSE(finished.load());
    tovi_spinlock_unlock(&head.lock.lock);
    t.join();
    EXPECT_TRUE(queued(&head) == 0 && b.waiting == 0);
    __wake_up(&head);  // empty: only locks and unlocks
    EXPECT_EQ(head.lock.lock, 0u);
}

TEST(SchedWait, WakeUpReleasesEveryWaiter)
{
    wait_queue_head_t head;
    __init_waitqueue_head(&head);
    std::atomic<bool> condition{false};
    std::atomic<int> woken{0}, parked{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            wait_queue_t w;
            tovi_init_wait_entry(&w);
            prepare_to_wait(&head, &w);
            ++parked;
            const uint64_t t = tovi_time_getnanosec();
            while (!condition.load() && elapsed_ms(t) < 5000 && sched_wait_timeout(&w, 5 * 250) == 0) {
            }
            finish_wait(&head, &w);
            woken += condition.load() ? 1 : 0;
        });
    while (parked.load() < 3)
        tovi_yield();
    condition = true;
    const uint64_t t = tovi_time_getnanosec();
    __wake_up(&head);
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(woken.load(), 3);
    EXPECT_LT(elapsed_ms(t), 2500.0);
    EXPECT_EQ(queued(&head), 0u);
}
