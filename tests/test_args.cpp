// Hostile arguments across the exported interface: NULL pointers, sizes
// that overflow the allocator's header, counts and times out of range.
// Each call runs in a child so that a crash is one failed row, not the end.
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

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

namespace {

constexpr unsigned kError = 3;
constexpr int64_t kErr = 0xFFFFFFFF;  // the all-ones family
constexpr int64_t kVoid = 0;          // no result: only "no crash" and the error line
constexpr int64_t kAvlNull = -1;      // the AVL family's "NULL POINTER" result
constexpr int64_t kInval = -22;

int64_t ptr(const void *p)
{
    return p == nullptr ? 0 : 1;
}

struct NullCase {
    const char *call;
    std::function<int64_t()> run;
    int64_t expected;
    bool error_line;  // a level-3 line is required
};

// Exit status of the child: 0 as expected, 1 wrong result, 2 no error line.
int check(const NullCase &c)
{
    return tovi::test::run_in_child([&] {
        LogCapture log;
        if (c.run() != c.expected)
            return 1;
        return c.error_line && log.texts(kError).empty() ? 2 : 0;
    });
}

}  // namespace

TEST(Args, NullPointersGiveTheErrorResultInsteadOfACrash)
{
    tovi_timer timer{};
    tovi_avl_tree_s tree{};
    tovi_rb_root rb{};
    int obj = 0;
    auto cmp = [](const void *, const void *) { return 0; };
    tovi_create_avl(&tree, cmp, sizeof obj, 0);
    const std::vector<NullCase> cases = {
        // Semaphores.
        {"tovi_sem_enhance_init", [] { return int64_t{tovi_sem_enhance_init(nullptr, 1)}; }, -1, true},
        {"tovi_sem_enhance_up", [] { return int64_t{tovi_sem_enhance_up(nullptr)}; }, -1, true},
        {"tovi_sem_enhance_down", [] { tovi_sem_enhance_down(nullptr); return kVoid; }, kVoid, true},
        {"tovi_sem_enhance_down_interruptible", [] { return int64_t{tovi_sem_enhance_down_interruptible(nullptr)}; },
         -1, true},
        {"tovi_sem_enhance_down_timeout", [] { return int64_t{tovi_sem_enhance_down_timeout(nullptr, 8)}; }, -1,
         true},
        {"tovi_sem_enhance_show", [] { tovi_sem_enhance_show(nullptr); return kVoid; }, kVoid, true},
        // Timers: a NULL timer is simply not pending.
        {"tovi_timer_is_pending", [] { return int64_t{tovi_timer_is_pending(nullptr)}; }, 0, false},
        {"tovi_timer_init", [] { return int64_t{tovi_timer_init(nullptr)}; }, -1, true},
        {"tovi_timer_add", [] { return int64_t{tovi_timer_add(nullptr)}; }, -1, true},
        {"tovi_timer_modify", [] { return int64_t{tovi_timer_modify(nullptr, 10)}; }, -1, true},
        {"tovi_timer_delete", [] { return int64_t{tovi_timer_delete(nullptr)}; }, -1, true},
        {"tovi_timer_delete_sync", [] { return int64_t{tovi_timer_delete_sync(nullptr)}; }, -1, true},
        {"tovi_timer_destroy", [] { return int64_t{tovi_timer_destroy(nullptr)}; }, -1, true},
        {"tovi_timer_set_raw(func)",
         [&] { return int64_t{tovi_timer_set_raw(&timer, 10, 0, nullptr, nullptr, nullptr, 0)}; }, -1, true},
        {"tovi_timer_show", [] { tovi_timer_show(nullptr); return kVoid; }, kVoid, false},
        // AVL trees keep their "NULL POINTER" results.
        {"tovi_create_avl", [] { return int64_t{tovi_create_avl(nullptr, nullptr, 4, 0)}; }, kAvlNull, true},
        {"tovi_destroy_avl", [] { return int64_t{tovi_destroy_avl(nullptr)}; }, kAvlNull, true},
        {"tovi_find_avl_node", [&] { return ptr(tovi_find_avl_node(&tree, nullptr, nullptr)); }, 0, true},
        {"tovi_insert_avl_node", [&] { return int64_t{tovi_insert_avl_node(&tree, nullptr, 0)}; }, kAvlNull, true},
        {"tovi_add_avl_node", [&] { tovi_add_avl_node(&tree, nullptr); return kVoid; }, kVoid, true},
        {"tovi_walk_avl_node", [&] { return ptr(tovi_walk_avl_node(nullptr, &obj, 0)); }, 0, true},
        {"tovi_get_avl_node_num", [] { return int64_t(tovi_get_avl_node_num(nullptr)); }, 0, true},
        {"tovi_remove_avl_node", [&] { tovi_remove_avl_node(&tree, nullptr); return kVoid; }, kVoid, true},
        // Hash tables keep -22.
        {"tovi_hash_create", [] { return int64_t{tovi_hash_create(8, nullptr, 0)}; }, kInval, false},
        {"tovi_hash_insert", [] { return int64_t{tovi_hash_insert(nullptr, nullptr)}; }, kInval, false},
        {"tovi_hash_search", [] { return int64_t{tovi_hash_search(nullptr, 1, 1, nullptr)}; }, kInval, false},
        {"tovi_hash_delete", [] { return int64_t{tovi_hash_delete(nullptr, 1, 1, nullptr)}; }, kInval, false},
        {"tovi_hash_for_each", [] { return int64_t{tovi_hash_for_each(nullptr, nullptr, 0)}; }, kInval, false},
        // Red-black trees: nothing to do, nothing returned.
        {"tovi_rb_insert_color", [&] { tovi_rb_insert_color(nullptr, &rb); return kVoid; }, kVoid, false},
        {"tovi_rb_first", [] { return ptr(tovi_rb_first(nullptr)); }, 0, false},
        // Locks.
        {"tovi_spinlock_lock", [] { do_tovi_spinlock_lock(nullptr, "t", 1); return kVoid; }, kVoid, true},
        {"tovi_spinlock_trylock", [] { return int64_t{do_tovi_spinlock_trylock(nullptr, "t", 1)}; }, 0, true},
        {"tovi_spinlock_unlock", [] { do_tovi_spinlock_unlock(nullptr, "t", 1); return kVoid; }, kVoid, true},
        {"tovi_spinlock_get_flags", [] { return int64_t{tovi_spinlock_get_flags(nullptr)}; }, kErr, true},
        {"tovi_rwlock_read_lock", [] { tovi_rwlock_read_lock(nullptr); return kVoid; }, kVoid, true},
        {"tovi_rwlock_write_lock", [] { tovi_rwlock_write_lock(nullptr); return kVoid; }, kVoid, true},
        {"tovi_rwlock_try_read_lock", [] { return int64_t{tovi_rwlock_try_read_lock(nullptr)}; }, 0, true},
        {"tovi_rwlock_read_lock_mayblock", [] { tovi_rwlock_read_lock_mayblock(nullptr); return kVoid; }, kVoid,
         true},
        {"tovi_rwlock_write_lock_mayblock", [] { tovi_rwlock_write_lock_mayblock(nullptr); return kVoid; }, kVoid,
         true},
        {"tovi_tspinlock_init", [] { do_tovi_tspinlock_init(nullptr, "t", 1); return kVoid; }, kVoid, true},
        {"tovi_tspinlock_lock", [] { do_tovi_tspinlock_lock(nullptr, "t", 1); return kVoid; }, kVoid, true},
        {"tovi_tspinlock_trylock", [] { return int64_t{do_tovi_tspinlock_trylock(nullptr, "t", 1)}; }, 0, true},
        {"tovi_tspinlock_unlock", [] { do_tovi_tspinlock_unlock(nullptr, "t", 1); return kVoid; }, kVoid, true},
        {"tovi_tspinlock_destroy", [] { do_tovi_tspinlock_destroy(nullptr, "t", 1); return kVoid; }, kVoid, true},
        {"tovi_trwlock_init", [] { do_tovi_trwlock_init(nullptr); return kVoid; }, kVoid, true},
        {"tovi_trwlock_read_lock", [] { do_tovi_trwlock_read_lock(nullptr); return kVoid; }, kVoid, true},
        {"tovi_trwlock_read_unlock", [] { do_tovi_trwlock_read_unlock(nullptr); return kVoid; }, kVoid, true},
        {"tovi_trwlock_read_trylock", [] { return int64_t{do_tovi_trwlock_read_trylock(nullptr)}; }, 0, true},
        {"tovi_trwlock_write_lock", [] { do_tovi_trwlock_write_lock(nullptr); return kVoid; }, kVoid, true},
        {"tovi_trwlock_write_unlock", [] { do_tovi_trwlock_write_unlock(nullptr); return kVoid; }, kVoid, true},
        {"tovi_trwlock_write_trylock", [] { return int64_t{do_tovi_trwlock_write_trylock(nullptr)}; }, 0, true},
        {"tovi_trwlock_destroy", [] { do_tovi_trwlock_destroy(nullptr); return kVoid; }, kVoid, true},
        // Sleeping and wait queues.
        {"tovi_wait_comm", [] { return int64_t{tovi_wait_comm(nullptr, 1)}; }, -1, true},
        {"tovi_wait_interruptible", [] { return int64_t{tovi_wait_interruptible(nullptr)}; }, kErr, true},
        {"tovi_set_process_name", [] { return int64_t{tovi_set_process_name(nullptr)}; }, kErr, true},
        {"tovi_init_wait_entry", [] { tovi_init_wait_entry(nullptr); return kVoid; }, kVoid, true},
        {"__init_waitqueue_head", [] { __init_waitqueue_head(nullptr); return kVoid; }, kVoid, true},
        {"prepare_to_wait", [] { return int64_t{prepare_to_wait(nullptr, nullptr)}; }, -1, true},
        {"sched_wait", [] { return int64_t{sched_wait(nullptr)}; }, kErr, true},
        {"sched_wait_timeout", [] { return int64_t{sched_wait_timeout(nullptr, 1)}; }, -1, true},
        {"__wake_up", [] { __wake_up(nullptr); return kVoid; }, kVoid, true},
        {"finish_wait", [] { finish_wait(nullptr, nullptr); return kVoid; }, kVoid, true},
        // Start-up, per-thread keys, threads.
        {"tovi_mtx_init", [] { return int64_t{tovi_mtx_init(nullptr, 0)}; }, kErr, true},
        {"tovi_mtx_destroy", [] { return int64_t{tovi_mtx_destroy(nullptr)}; }, -1, true},
        {"tovi_pid_set_name", [] { tovi_pid_set_name(1, nullptr); return kVoid; }, kVoid, false},
        {"tovi_pthread_init_once", [] { return int64_t{tovi_pthread_init_once(nullptr, nullptr)}; }, kErr, true},
        {"tovi_key_create", [] { return int64_t{tovi_key_create(nullptr, nullptr)}; }, kErr, true},
        {"tovi_thrd_create", [] { return int64_t{tovi_thrd_create(nullptr, nullptr, nullptr)}; }, kErr, false},
        {"tovi_thrd_putthreadinfo", [] { tovi_thrd_putthreadinfo(nullptr); return kVoid; }, kVoid, false},
        {"tovi_get_process_name", [] { return int64_t{tovi_get_process_name(nullptr)}; }, kErr, false},
        {"tovi_get_process_exe_name", [] { return int64_t{tovi_get_process_exe_name(nullptr)}; }, kErr, false},
        {"tovi_initThreadStrategy", [] { return int64_t{tovi_initThreadStrategy(1, nullptr)}; }, kErr, false},
        {"tovi_setCurThreadBind", [] { return int64_t{tovi_setCurThreadBind(nullptr)}; }, kErr, true},
        {"tovi_thrd_getbindcpu", [] { return int64_t{tovi_thrd_getbindcpu(pthread_self(), nullptr)}; }, kErr, false},
        {"tovi_thrd_getosstack", [] { return int64_t{tovi_thrd_getosstack(0, nullptr, nullptr)}; }, kErr, false},
        // Memory, bits, files, symbols, CPU lists.
        {"tovi_mallocsubproc", [] { return ptr(tovi_mallocsubproc(8, nullptr, 0, 0, nullptr)) - 1; }, 0, false},
        {"tovi_mem_init_head", [] { tovi_mem_init_head(nullptr, 1, 1); return kVoid; }, kVoid, true},
        {"tovi_bitop_findfirstsetbit", [] { return int64_t{tovi_bitop_findfirstsetbit(nullptr, 8, nullptr)}; }, 0,
         false},
        {"tovi_readline", [] { return ptr(tovi_readline(0, nullptr, 8)); }, 0, false},
        {"tovi_cpum_parse_cpumask", [] { return int64_t{tovi_cpum_parse_cpumask(nullptr, nullptr)}; }, -1, false},
        {"tovi_symbol_find", [] { return int64_t{tovi_symbol_find(0, nullptr)}; }, -1, false},
        {"tovi_cfg_walk", [] { return int64_t{tovi_cfg_walk(nullptr, nullptr, nullptr)}; }, -1, false},
    };
    for (const NullCase &c : cases)
        EXPECT_EQ(check(c), 0) << c.call;
}

TEST(Args, AllocatorRefusesSizesWhoseHeaderWouldWrap)
{
    struct Case {
        uint32_t size;
        bool granted;
    };
    // Sizes from 0xFFFFFFF0 wrapped to a block of at most 15 bytes.
    const Case cases[] = {{0xFFFFFFF0u, false}, {0xFFFFFFFFu, false}, {0xFFFFFFF8u, false}, {64, true}};
    for (const Case &c : cases) {
        LogCapture log;
        void *p = TOVI_MALLOC(TOVI_MODULE_ID, c.size);
        EXPECT_EQ(p != nullptr, c.granted) << c.size;
        if (p != nullptr) {
            tovi_freesub(p, __func__, __LINE__);
            continue;
        }
        const std::string want = "Malloc memory fails. PID: (" + std::to_string(TOVI_MODULE_ID) + "), size: (" +
                                 std::to_string(static_cast<int>(c.size)) + "), type: (0).";
        EXPECT_EQ(log.texts(kError), std::vector<std::string>{want}) << c.size;
    }
}

TEST(Args, SemaphoreCountsAboveInt32MaxAreClamped)
{
    struct Case {
        uint32_t count;
        int32_t stored;
        bool logged;
    };
    const Case cases[] = {{0x80000000u, INT32_MAX, true}, {UINT32_MAX, INT32_MAX, true}, {INT32_MAX, INT32_MAX, false}};
    for (const Case &c : cases) {
        tovi_sem_enhance_s sem{};
        LogCapture log;
        EXPECT_EQ(tovi_sem_enhance_init(&sem, c.count), 0);
        EXPECT_EQ(sem.count, c.stored) << c.count;
        EXPECT_EQ(log.texts(kError).size(), c.logged ? 1u : 0u) << c.count;
        // A unit is there to take at once: no sleep.
        EXPECT_EQ(tovi_sem_enhance_down_timeout(&sem, 0), 0) << c.count;
        EXPECT_EQ(sem.count, c.stored - 1);
    }
}

TEST(Args, TimerDeadlinesAreNormalisedFromOneSecondOfNanoseconds)
{
    struct Case {
        timespec now;
        uint64_t ms;
        timespec want;
    };
    const Case cases[] = {
        {{5, 980000000}, 20, {6, 0}},         // exactly 1e9: the kernel refuses it as it is
        {{5, 980000000}, 19, {5, 999000000}},
        {{5, 999999999}, 20, {6, 19999999}},
        {{5, 0}, 0, {5, 0}},
    };
    for (const Case &c : cases) {
        timespec got = tovi::timer::deadline_after(c.now, c.ms);
        EXPECT_EQ(got.tv_sec, c.want.tv_sec) << c.now.tv_nsec << "+" << c.ms;
        EXPECT_EQ(got.tv_nsec, c.want.tv_nsec) << c.now.tv_nsec << "+" << c.ms;
    }
}
