// Enhanced semaphores.
// test-labels: concurrency
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <unistd.h>

#include "log_capture.hpp"
#include "poll.hpp"
#include "tovi_sched.h"
#include "tovi_semaphore.h"
#include "tovi_time.h"

using tovi::test::fmt;
using Texts = std::vector<std::string>;

namespace {

size_t waiters(tovi_sem_enhance_s *sem)
{
    size_t n = 0;
    tovi_spinlock_lock(&sem->lock.lock);
    for (const tovi_list_head_s *p = sem->waiters.next; p != &sem->waiters; p = p->next)
        ++n;
    tovi_spinlock_unlock(&sem->lock.lock);
    return n;
}

}  // namespace

TEST(Semaphore, LifeCycle)
{
    tovi_sem_enhance_s sem;
    ASSERT_EQ(tovi_sem_enhance_init(&sem, 2), 0);
    tovi_sem_enhance_down(&sem);
    EXPECT_EQ(tovi_sem_enhance_down_interruptible(&sem), 0);
    for (uint32_t ms : {3u, 100u}) {  // 3 ms is 0 jiffies: no sleep at all
        const uint64_t t = tovi_time_getnanosec();
        EXPECT_EQ(tovi_sem_enhance_down_timeout(&sem, ms), -61);
        const double took = static_cast<double>(tovi_time_getnanosec() - t) / 1e6;
        EXPECT_TRUE(ms == 3 ? took < 50.0 : took >= 99.0) << ms << " ms took " << took;
    }
    // A wake-up without a unit ends an interruptible down (-4); a plain down sleeps again.
    // A wake-up sent between the listing and the sleep is not remembered (the
    // signal's handler does nothing), so the interruptible case repeats it.
    for (bool interruptible : {true, false}) {
        std::atomic<int32_t> tid{0}, result{1};
        std::thread t([&] {
            tid = gettid();
            result = interruptible ? tovi_sem_enhance_down_interruptible(&sem) : (tovi_sem_enhance_down(&sem), 0);
        });
        ASSERT_TRUE(tovi::test::wait_for([&] { return waiters(&sem) == 1; }));
        const bool left = tovi::test::wait_for([&] {
            EXPECT_EQ(tovi_wake_up_process(tid.load()), 0u);
            tovi_msleep(50);
            return waiters(&sem) == 0;
        }, interruptible ? 20000 : 200);
        EXPECT_EQ(left, interruptible);
        if (!interruptible)
            tovi_sem_enhance_up(&sem);
        t.join();
        EXPECT_EQ(result.load(), interruptible ? -4 : 0);
    }
    EXPECT_EQ(waiters(&sem), 0u);
    EXPECT_EQ(sem.count, 0);

    // Two sleepers: listed in arrival order, and released units go to them
    // in that order rather than to the count (else a join waits out a time-out).
    std::atomic<int32_t> tids[2] = {0, 0};
    auto waiter = [&](int id) {
        tids[id] = gettid();
        EXPECT_EQ(tovi_sem_enhance_down_timeout(&sem, 10000), 0);
    };
    std::thread first(waiter, 0);
    ASSERT_TRUE(tovi::test::wait_for([&] { return waiters(&sem) == 1; }));
    std::thread second(waiter, 1);
    ASSERT_TRUE(tovi::test::wait_for([&] { return waiters(&sem) == 2; }));
    tovi::test::LogCapture cap;
    tovi_sem_enhance_show(&sem);
    Texts listing{fmt("TBKOMI:sem %p cnt 0", static_cast<void *>(&sem))};
    const tovi_list_head_s *n = sem.waiters.next;
    for (int i = 0; i < 2; n = n->next, ++i)
        listing.push_back(fmt("TBKOMI:sem %p cnt 0 waiterTid %d status 1 cur %p next %p pre %p",
                              static_cast<void *>(&sem), tids[i].load(), static_cast<const void *>(n),
                              static_cast<void *>(n->next), static_cast<void *>(n->prev)));
    EXPECT_EQ(cap.texts(6), listing);
    EXPECT_EQ(tovi_sem_enhance_up(&sem), 0);
    first.join();
    EXPECT_EQ(waiters(&sem), 1u);
    EXPECT_EQ(tovi_sem_enhance_up(&sem), 0);
    second.join();
    EXPECT_EQ(sem.count, 0);
    EXPECT_EQ(tovi_sem_enhance_up(&sem), 0);

    // Mutual exclusion holds under contention and leaves the count exact.
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
    EXPECT_EQ(tovi_sem_enhance_destroy(&sem), 0);
}

// A waiter whose thread is gone: the unit is granted, the wake-up retried
// once, and each failure logged both plainly and for the module.
TEST(Semaphore, FailedWakeUpIsReportedInPairsAndReturned)
{
    struct {  // a waiter record as the down operations lay it out
        tovi_list_head_s node;
        uint32_t tid;
        uint32_t waiting;
    } ghost{{nullptr, nullptr}, 0x7FFFFFF0u, 1};
    tovi_sem_enhance_s sem;
    tovi_sem_enhance_init(&sem, 0);
    ghost.node.next = ghost.node.prev = &sem.waiters;
    sem.waiters.next = sem.waiters.prev = &ghost.node;

    tovi::test::LogCapture cap;
    EXPECT_EQ(tovi_sem_enhance_up(&sem), ESRCH);
    EXPECT_EQ(ghost.waiting, 0u) << "the unit is granted before the signal";
    EXPECT_EQ(sem.count, 0);
    Texts expected;
    for (const char *f : {"[Infra]Wake up sem(0x%lx) waiter tid(%u) fail ret(%d).",
                          "[Infra]Retry wake up sem(0x%lx) waiter tid(%u) fail ret(%d)."})
        for (const char *g : {f, f + 7})
            expected.push_back(fmt(g, reinterpret_cast<unsigned long>(&sem), ghost.tid, ESRCH));
    EXPECT_EQ(cap.texts(), expected);
    const auto r = cap.records();  // the plain line at level 6, then the module's own
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ((std::vector<uint64_t>{r[0].module, r[1].module, r[0].level}), (std::vector<uint64_t>{0, 381, 6}));
}
