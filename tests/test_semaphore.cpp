// Enhanced semaphores.
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log_capture.hpp"
#include "tovi_sched.h"
#include "tovi_semaphore.h"
#include "tovi_time.h"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

size_t waiters(tovi_sem_enhance_s *sem)
{
    tovi_spinlock_lock(&sem->lock.lock);
    size_t n = 0;
    for (const tovi_list_head_s *p = sem->waiters.next; p != &sem->waiters; p = p->next)
        ++n;
    tovi_spinlock_unlock(&sem->lock.lock);
    return n;
}

void wait_for_waiters(tovi_sem_enhance_s *sem, size_t n)
{
    while (waiters(sem) != n)
        tovi_usleep(200);
}

double ms_since(uint64_t t)
{
    return static_cast<double>(tovi_time_getnanosec() - t) / 1e6;
}

std::string fmt(const char *f, const void *sem, unsigned tid, int err = 0)
{
    char buf[160];
    std::snprintf(buf, sizeof buf, f, reinterpret_cast<unsigned long>(sem), tid, err);
    return buf;
}

}  // namespace

TEST(Semaphore, UnitsPassDirectlyToASleeper)
{
    tovi_sem_enhance_s sem;
    ASSERT_EQ(tovi_sem_enhance_init(&sem, 2), 0);
    tovi_sem_enhance_down(&sem);
    EXPECT_EQ(tovi_sem_enhance_down_interruptible(&sem), 0);
    EXPECT_EQ(sem.count, 0);

    std::atomic<bool> got{false};
    std::thread third([&] {
        tovi_sem_enhance_down(&sem);
        got = true;
    });
    wait_for_waiters(&sem, 1);
    EXPECT_FALSE(got.load());
    EXPECT_EQ(tovi_sem_enhance_up(&sem), 0);
    third.join();
    EXPECT_TRUE(got.load());
    EXPECT_EQ(sem.count, 0) << "the unit went to the waiter, not to the count";

    EXPECT_EQ(tovi_sem_enhance_up(&sem), 0);
    EXPECT_EQ(sem.count, 1);
    EXPECT_EQ(tovi_sem_enhance_destroy(&sem), 0);
}

TEST(Semaphore, TimedDownRunsOutInWholeJiffies)
{
    tovi_sem_enhance_s sem;
    tovi_sem_enhance_init(&sem, 0);
    uint64_t t = tovi_time_getnanosec();
    EXPECT_EQ(tovi_sem_enhance_down_timeout(&sem, 3), -61) << "3 ms is 0 jiffies: no sleep";
    EXPECT_LT(ms_since(t), 50.0);

    t = tovi_time_getnanosec();
    EXPECT_EQ(tovi_sem_enhance_down_timeout(&sem, 100), -61);
    EXPECT_GE(ms_since(t), 99.0);
    EXPECT_EQ(waiters(&sem), 0u);
    EXPECT_EQ(sem.count, 0);
}

TEST(Semaphore, WaitersAreServedFirstComeFirstServed)
{
    tovi_sem_enhance_s sem;
    tovi_sem_enhance_init(&sem, 0);
    std::vector<int> order;
    std::mutex m;
    auto waiter = [&](int id) {
        EXPECT_EQ(tovi_sem_enhance_down_timeout(&sem, 10000), 0);
        std::lock_guard<std::mutex> g(m);
        order.push_back(id);
    };
    std::thread first(waiter, 1);
    wait_for_waiters(&sem, 1);
    std::thread second(waiter, 2);
    wait_for_waiters(&sem, 2);

    tovi_sem_enhance_up(&sem);
    first.join();
    EXPECT_EQ(waiters(&sem), 1u);
    tovi_sem_enhance_up(&sem);
    second.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(Semaphore, WakeUpWithoutAUnitInterruptsOnlyInterruptibleDowns)
{
    tovi_sem_enhance_s sem;
    tovi_sem_enhance_init(&sem, 0);
    std::atomic<int32_t> tid{0};
    std::atomic<int32_t> result{1};
    std::thread interruptible([&] {
        tid = gettid();
        result = tovi_sem_enhance_down_interruptible(&sem);
    });
    wait_for_waiters(&sem, 1);
    EXPECT_EQ(tovi_wake_up_process(tid.load()), 0u);
    interruptible.join();
    EXPECT_EQ(result.load(), -4);
    EXPECT_EQ(waiters(&sem), 0u);
    EXPECT_EQ(sem.count, 0);

    std::atomic<bool> done{false};
    tid = 0;
    std::thread uninterruptible([&] {
        tid = gettid();
        tovi_sem_enhance_down(&sem);
        done = true;
    });
    wait_for_waiters(&sem, 1);
    EXPECT_EQ(tovi_wake_up_process(tid.load()), 0u);
    tovi_msleep(50);
    EXPECT_FALSE(done.load()) << "an uninterruptible down sleeps again";
    EXPECT_EQ(waiters(&sem), 1u);
    tovi_sem_enhance_up(&sem);
    uninterruptible.join();
    EXPECT_TRUE(done.load());
}

TEST(Semaphore, ShowListsCountAndWaiters)
{
    tovi_sem_enhance_s sem;
    tovi_sem_enhance_init(&sem, 0);
    std::atomic<int32_t> tid{0};
    std::thread waiter([&] {
        tid = gettid();
        tovi_sem_enhance_down(&sem);
    });
    wait_for_waiters(&sem, 1);
    LogCapture cap;
    tovi_sem_enhance_show(&sem);
    tovi_list_head_s *n = sem.waiters.next;
    char head[64], row[256];
    std::snprintf(head, sizeof head, "TBKOMI:sem %p cnt %d", static_cast<void *>(&sem), 0);
    std::snprintf(row, sizeof row, "TBKOMI:sem %p cnt %d waiterTid %d status %d cur %p next %p pre %p",
                  static_cast<void *>(&sem), 0, tid.load(), 1, static_cast<void *>(n), static_cast<void *>(n->next),
                  static_cast<void *>(n->prev));
    EXPECT_EQ(cap.texts(6), (Texts{head, row}));
    tovi_sem_enhance_up(&sem);
    waiter.join();
}

TEST(Semaphore, FailedWakeUpIsReportedInPairsAndReturned)
{
    // A waiter record as the down operations lay it out, for a thread that
    // does not exist.
    struct {
        tovi_list_head_s node;
        uint32_t tid;
        uint32_t waiting;
    } ghost{{nullptr, nullptr}, 0x7FFFFFF0u, 1};
    tovi_sem_enhance_s sem;
    tovi_sem_enhance_init(&sem, 0);
    ghost.node.next = &sem.waiters;
    ghost.node.prev = &sem.waiters;
    sem.waiters.next = &ghost.node;
    sem.waiters.prev = &ghost.node;

    LogCapture cap;
    EXPECT_EQ(tovi_sem_enhance_up(&sem), ESRCH);
    EXPECT_EQ(ghost.waiting, 0u) << "the unit is granted before the signal";
    EXPECT_EQ(sem.count, 0);
    const char *first = "[Infra]Wake up sem(0x%lx) waiter tid(%u) fail ret(%d).";
    const char *retry = "[Infra]Retry wake up sem(0x%lx) waiter tid(%u) fail ret(%d).";
    EXPECT_EQ(cap.texts(), (Texts{fmt(first, &sem, ghost.tid, ESRCH), fmt(first + 7, &sem, ghost.tid, ESRCH),
                                  fmt(retry, &sem, ghost.tid, ESRCH), fmt(retry + 7, &sem, ghost.tid, ESRCH)}));
    auto records = cap.records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].module, 0u);
    EXPECT_EQ(records[1].module, 381u);
    EXPECT_EQ(records[0].level, 6u);
}

TEST(Semaphore, CountsStayExactUnderContention)
{
    tovi_sem_enhance_s sem;
    tovi_sem_enhance_init(&sem, 1);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                tovi_sem_enhance_down(&sem);
                long seen = counter;
                if (i % 16 == 0)
                    tovi_yield();
                counter = seen + 1;
                tovi_sem_enhance_up(&sem);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(counter, 1200);
    EXPECT_EQ(sem.count, 1);
    EXPECT_EQ(waiters(&sem), 0u);
}
