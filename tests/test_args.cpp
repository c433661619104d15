// Hostile arguments across the exported interface: NULL pointers, sizes
// that overflow the allocator's header, counts and times out of range.
// Each call runs in a child so that a crash is one failed row, not the end.
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <climits>
#include <functional>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_avl.h"
#include "tovi_bitop.h"
#include "tovi_cfg.h"
#include "tovi_cpumask.h"
#include "tovi_fileops.h"
#include "tovi_hash.h"
#include "tovi_init.h"
#include "tovi_lock.h"
#include "tovi_mem.h"
#include "tovi_percpu_posix.h"
#include "tovi_rbtree.h"
#include "tovi_sched.h"
#include "tovi_semaphore.h"
#include "tovi_symbol.h"
#include "tovi_thread.h"
#include "tovi_timer.h"
#include "tovi_timer.hpp"

using tovi::test::LogCapture;

constexpr unsigned kError = 3;
constexpr int64_t kErr = 0xFFFFFFFF;  // the all-ones family
constexpr int64_t kVoid = 0;          // no result: only "no crash" and the error line
constexpr int64_t kAvlNull = -1;      // the AVL family's "NULL POINTER" result
constexpr int64_t kInval = -22;

struct NullCase {
    const char *call;
    std::function<int64_t()> run;
    int64_t expected;
    bool error_line;  // a level-3 line is required
};

// Exit status of the child: 0 as expected, 1 wrong result, 2 no error line.
static int check(const NullCase &c)
{
    return tovi::test::run_in_child([&] {
        LogCapture log;
        if (c.run() != c.expected)
            return 1;
        return c.error_line && log.texts(kError).empty() ? 2 : 0;
    });
}

// Rows named by their call. R: a result, V: none; a Q: no error line required.
// AVL trees keep their "NULL POINTER" results, hash tables -22; a NULL timer
// is simply not pending.
#define R(call, want) {#call, [&] { return int64_t(call); }, want, true}
#define RQ(call, want) {#call, [&] { return int64_t(call); }, want, false}
#define V(call) {#call, [&] { call; return kVoid; }, kVoid, true}
#define VQ(call) {#call, [&] { call; return kVoid; }, kVoid, false}

TEST(Args, NullPointersGiveTheErrorResultInsteadOfACrash)
{
    tovi_timer timer{};
    tovi_avl_tree_s tree{};
    tovi_rb_root rb{};
    int obj = 0;
    tovi_create_avl(&tree, [](const void *, const void *) { return 0; }, sizeof obj, 0);
    const std::vector<NullCase> cases = {
        R(tovi_sem_enhance_init(nullptr, 1), -1), R(tovi_sem_enhance_up(nullptr), -1),
        V(tovi_sem_enhance_down(nullptr)), R(tovi_sem_enhance_down_interruptible(nullptr), -1),
        R(tovi_sem_enhance_down_timeout(nullptr, 8), -1), V(tovi_sem_enhance_show(nullptr)),
        RQ(tovi_timer_is_pending(nullptr), 0), R(tovi_timer_init(nullptr), -1), R(tovi_timer_add(nullptr), -1),
        R(tovi_timer_modify(nullptr, 10), -1), R(tovi_timer_delete(nullptr), -1),
        R(tovi_timer_delete_sync(nullptr), -1), R(tovi_timer_destroy(nullptr), -1),
        R(tovi_timer_set_raw(&timer, 10, 0, nullptr, nullptr, nullptr, 0), -1), VQ(tovi_timer_show(nullptr)),
        R(tovi_create_avl(nullptr, nullptr, 4, 0), kAvlNull), R(tovi_destroy_avl(nullptr), kAvlNull),
        R(tovi_find_avl_node(&tree, nullptr, nullptr) != nullptr, 0),
        R(tovi_insert_avl_node(&tree, nullptr, 0), kAvlNull), V(tovi_add_avl_node(&tree, nullptr)),
        R(tovi_walk_avl_node(nullptr, &obj, 0) != nullptr, 0), R(tovi_get_avl_node_num(nullptr), 0),
        V(tovi_remove_avl_node(&tree, nullptr)), RQ(tovi_hash_create(8, nullptr, 0), kInval),
        RQ(tovi_hash_insert(nullptr, nullptr), kInval), RQ(tovi_hash_search(nullptr, 1, 1, nullptr), kInval),
        RQ(tovi_hash_delete(nullptr, 1, 1, nullptr), kInval), RQ(tovi_hash_for_each(nullptr, nullptr, 0), kInval),
        VQ(tovi_rb_insert_color(nullptr, &rb)), RQ(tovi_rb_first(nullptr) != nullptr, 0),
        V(do_tovi_spinlock_lock(nullptr, "t", 1)), R(do_tovi_spinlock_trylock(nullptr, "t", 1), 0),
        V(do_tovi_spinlock_unlock(nullptr, "t", 1)), R(tovi_spinlock_get_flags(nullptr), kErr),
        V(tovi_rwlock_read_lock(nullptr)), V(tovi_rwlock_write_lock(nullptr)), R(tovi_rwlock_try_read_lock(nullptr), 0),
        V(tovi_rwlock_read_lock_mayblock(nullptr)), V(tovi_rwlock_write_lock_mayblock(nullptr)),
        V(do_tovi_tspinlock_init(nullptr, "t", 1)), V(do_tovi_tspinlock_lock(nullptr, "t", 1)),
        R(do_tovi_tspinlock_trylock(nullptr, "t", 1), 0), V(do_tovi_tspinlock_unlock(nullptr, "t", 1)),
        V(do_tovi_tspinlock_destroy(nullptr, "t", 1)), V(do_tovi_trwlock_init(nullptr)),
        V(do_tovi_trwlock_read_lock(nullptr)), V(do_tovi_trwlock_read_unlock(nullptr)),
        R(do_tovi_trwlock_read_trylock(nullptr), 0), V(do_tovi_trwlock_write_lock(nullptr)),
        V(do_tovi_trwlock_write_unlock(nullptr)), R(do_tovi_trwlock_write_trylock(nullptr), 0),
        V(do_tovi_trwlock_destroy(nullptr)), R(tovi_wait_comm(nullptr, 1), -1),
        R(tovi_wait_interruptible(nullptr), kErr), R(tovi_set_process_name(nullptr), kErr),
        V(tovi_init_wait_entry(nullptr)), V(__init_waitqueue_head(nullptr)), R(prepare_to_wait(nullptr, nullptr), -1),
        R(sched_wait(nullptr), kErr), R(sched_wait_timeout(nullptr, 1), -1), V(__wake_up(nullptr)),
        V(finish_wait(nullptr, nullptr)), R(tovi_mtx_init(nullptr, 0), kErr), R(tovi_mtx_destroy(nullptr), -1),
        VQ(tovi_pid_set_name(1, nullptr)), R(tovi_pthread_init_once(nullptr, nullptr), kErr),
        R(tovi_key_create(nullptr, nullptr), kErr), RQ(tovi_thrd_create(nullptr, nullptr, nullptr), kErr),
        VQ(tovi_thrd_putthreadinfo(nullptr)), RQ(tovi_get_process_name(nullptr), kErr),
        RQ(tovi_get_process_exe_name(nullptr), kErr), RQ(tovi_initThreadStrategy(1, nullptr), kErr),
        R(tovi_setCurThreadBind(nullptr), kErr), RQ(tovi_thrd_getbindcpu(pthread_self(), nullptr), kErr),
        RQ(tovi_thrd_getosstack(0, nullptr, nullptr), kErr),
        RQ(tovi_mallocsubproc(8, nullptr, 0, 0, nullptr) != nullptr, 1), V(tovi_mem_init_head(nullptr, 1, 1)),
        RQ(tovi_bitop_findfirstsetbit(nullptr, 8, nullptr), 0), RQ(tovi_readline(0, nullptr, 8) != nullptr, 0),
        RQ(tovi_cpum_parse_cpumask(nullptr, nullptr), -1), RQ(tovi_symbol_find(0, nullptr), -1),
        RQ(tovi_cfg_walk(nullptr, nullptr, nullptr), -1),
    };
    for (const NullCase &c : cases)
        EXPECT_EQ(check(c), 0) << c.call;
}

TEST(Args, AllocatorRefusesSizesWhoseHeaderWouldWrap)
{
    // Sizes from 0xFFFFFFF0 wrapped to a block of at most 15 bytes.
    for (uint32_t size : {0xFFFFFFF0u, 0xFFFFFFF8u, 0xFFFFFFFFu}) {
        LogCapture log;
        EXPECT_EQ(TOVI_MALLOC(TOVI_MODULE_ID, size), nullptr) << size;
        const std::string want = "Malloc memory fails. PID: (" + std::to_string(TOVI_MODULE_ID) + "), size: (" +
                                 std::to_string(static_cast<int>(size)) + "), type: (0).";
        EXPECT_EQ(log.texts(kError), std::vector<std::string>{want}) << size;
    }
}

TEST(Args, SemaphoreCountsAboveInt32MaxAreClamped)
{
    for (uint32_t count : {0x80000000u, UINT32_MAX, uint32_t{INT32_MAX}}) {
        tovi_sem_enhance_s sem{};
        LogCapture log;
        EXPECT_EQ(tovi_sem_enhance_init(&sem, count), 0);
        EXPECT_EQ(sem.count, INT32_MAX) << count;
        EXPECT_EQ(log.texts(kError).size(), count > INT32_MAX ? 1u : 0u) << count;
        EXPECT_EQ(tovi_sem_enhance_down_timeout(&sem, 0), 0) << count;  // a unit to take at once: no sleep
        EXPECT_EQ(sem.count, INT32_MAX - 1);
    }
}

TEST(Args, TimerDeadlinesAreNormalisedFromOneSecondOfNanoseconds)
{
    struct Case {
        long now_ns;
        uint64_t ms;
        std::pair<time_t, long> want;
    };
    const Case cases[] = {
        {980000000, 20, {6, 0}},  // exactly 1e9: the kernel refuses it as it is
        {980000000, 19, {5, 999000000}},
        {999999999, 20, {6, 19999999}},
        {0, 0, {5, 0}},
    };
    for (const Case &c : cases) {
        timespec got = tovi::timer::deadline_after({5, c.now_ns}, c.ms);
        EXPECT_EQ(std::make_pair(got.tv_sec, got.tv_nsec), c.want) << c.now_ns << "+" << c.ms;
    }
}
