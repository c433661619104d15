// The thread registry: slots and records, raw creation and the life of a
// thread's record. Ids, names, stack lookups, the stack hook and the watch
// table live beside it in tovi_thread_*.cpp.
//
// Invariants of a slot:
//   - refs is 0 exactly when the slot is free; it changes only by
//     compare-and-swap, and a reference is taken only from a non-zero count,
//     so a claimer (0 -> 1) never meets a reader holding the slot;
//   - the claimer owns the first reference; it passes to the thread, which
//     gives it back last thing;
//   - a reader looks at a record only while it holds a reference and has
//     seen a live state (TOVI_THREAD_LIVE); the thread stores that state
//     after filling its tid and stack bounds.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include <safe_mem_lib.h>

#define TOVI_LOG_SOURCE "tovi_thrd"
#include "tovi_log.hpp"
#include "tovi_mem.h"
#include "tovi_scope.hpp"
#include "tovi_thread.hpp"

__thread tovi_thread_s *m_current_thread TOVI_TLS_IE = nullptr;

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr char kUnnamed[] = "[NULL]";

tovi_thread_slot_s g_slots[TOVI_THREAD_SLOTS];

pthread_once_t g_module_once = PTHREAD_ONCE_INIT;
pthread_key_t g_adopted_key;
bool g_adopted_key_ok = false;

bool ref_get(tovi_thread_slot_s *slot)
{
    uint32_t n = __atomic_load_n(&slot->refs, __ATOMIC_RELAXED);
    do {
        if (n == 0)
            return false;
        // Acquire pairs with the releasing give-back of the previous holder.
    } while (!__atomic_compare_exchange_n(&slot->refs, &n, n + 1, true, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED));
    return true;
}

void ref_put(tovi_thread_slot_s *slot)
{
    uint32_t n = __atomic_load_n(&slot->refs, __ATOMIC_RELAXED);
    do {
        if (n == 0)
            return;
        // Release: what this holder wrote is seen by the next claimer's acquire.
    } while (!__atomic_compare_exchange_n(&slot->refs, &n, n - 1, true, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED));
}

// Signal stack first, then the record.
tovi_thread_s *allocate_record()
{
    void *stack = TOVI_MALLOC(TOVI_MODULE_ID, TOVI_THREAD_SIGSTACK_SIZE);
    if (stack == nullptr) {
        TOVI_LOG(kError, "Tovi_malloc sig stack for tovi_thread_s failed, errno=%d.", errno);
        return nullptr;
    }
    auto *rec = static_cast<tovi_thread_s *>(TOVI_MALLOC(TOVI_MODULE_ID, sizeof(tovi_thread_s)));
    if (rec == nullptr) {
        TOVI_LOG(kError, "Tovi_malloc tovi_thread_s failed, errno=%d.", errno);
        TOVI_FREE(stack);
        return nullptr;
    }
    memset_s(rec, sizeof *rec, 0, sizeof *rec);
    rec->sig_stack = stack;
    return rec;
}

void free_record(tovi_thread_s *rec)
{
    sem_destroy(&rec->sem);
    TOVI_FREE(rec->sig_stack);
    TOVI_FREE(rec);
}

void reset(tovi_thread_s *rec, tovi_thread_fn fn, void *arg)
{
    rec->pthread_id = 0;
    rec->start_routine = fn;
    rec->arg = arg;
    rec->tid = 0;
    rec->pid = tovi_thrd_getpid_accl();
    rec->bind_cpu = tovi::thrd::kUnknown64;
    rec->numa_id = tovi::thrd::kUnknown32;
    rec->preempt_flag = 0;
    rec->strategy = 0;
    rec->os_stack_low = 0;
    rec->os_stack_high = 0;
    rec->flags = 0;
    sem_init(&rec->sem, 0, 0);
    char name[TOVI_THREAD_NAME_LEN] = {};
    memcpy_s(name, sizeof name, kUnnamed, sizeof kUnnamed);
    tovi::thrd::write_name(rec, name);
}

void install_sig_stack(tovi_thread_s *rec)
{
    stack_t ss{};
    ss.ss_sp = rec->sig_stack;
    ss.ss_size = TOVI_THREAD_SIGSTACK_SIZE;
    ss.ss_flags = 0;
    if (sigaltstack(&ss, nullptr) != 0)
        TOVI_LOG(kError, "Set thrd tid:%d sigaltstack fail.", rec->tid);
}

// Gives back the record of a thread that adopted one and now ends.
void release_adopted(void *record)
{
    tovi::thrd::leave(static_cast<tovi_thread_s *>(record));
}

void module_init_once()
{
    g_adopted_key_ok = pthread_key_create(&g_adopted_key, release_adopted) == 0;
    tovi_thrd_setpid_accl();
    dump_signal_init();
}

void run(tovi_thread_s *rec, bool map_now)
{
    tovi::thrd::adopt(rec, map_now);
    tovi::thrd::set_state(rec, TOVI_THREAD_RUNNING);
    // Also when the routine leaves by pthread_exit (forced unwinding).
    tovi::ScopeExit leave([rec] { tovi::thrd::leave(rec); });
    rec->start_routine(rec->arg);
}

}  // namespace

namespace tovi::thrd {

tovi_thread_s *claim(tovi_thread_fn fn, void *arg)
{
    tovi_thread_slot_s *slot = nullptr;
    for (tovi_thread_slot_s &s : g_slots) {
        uint32_t expected = 0;
        // Acquire pairs with the previous holder's releasing give-back.
        if (__atomic_load_n(&s.refs, __ATOMIC_RELAXED) == 0 &&
            __atomic_compare_exchange_n(&s.refs, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
            slot = &s;
            break;
        }
    }
    tovi_thread_s *rec = nullptr;
    if (slot != nullptr) {
        // Orders after the claim; readers see a claimed, not live, slot.
        __atomic_exchange_n(&slot->state, TOVI_THREAD_CLAIMED, __ATOMIC_ACQ_REL);
        rec = slot->record;
    }
    if (rec == nullptr) {
        rec = allocate_record();
        if (rec == nullptr) {
            if (slot != nullptr) {
                __atomic_exchange_n(&slot->state, 0u, __ATOMIC_ACQ_REL);  // before the slot is freed below
                ref_put(slot);
            }
            return nullptr;
        }
        rec->slot = slot;
        if (slot != nullptr)
            slot->record = rec;
    }
    reset(rec, fn, arg);
    return rec;
}

tovi_thread_s *get_live(uint32_t index)
{
    tovi_thread_slot_s *slot = &g_slots[index];
    if (__atomic_load_n(&slot->refs, __ATOMIC_RELAXED) == 0 || !ref_get(slot))
        return nullptr;
    // Pairs with the thread's store of a live state, made after it filled
    // its record; sequentially consistent for the pool's destroyer (see
    // set_state).
    if ((__atomic_load_n(&slot->state, __ATOMIC_SEQ_CST) & TOVI_THREAD_LIVE) == 0) {
        ref_put(slot);
        return nullptr;
    }
    return slot->record;
}

void set_state(tovi_thread_s *rec, uint32_t state)
{
    // Sequentially consistent: a pool thread going idle and the pool's
    // destroyer each see the other (state here, flag there).
    if (rec->slot != nullptr)
        __atomic_exchange_n(&rec->slot->state, state, __ATOMIC_SEQ_CST);
}

bool move_state(tovi_thread_s *rec, uint32_t from, uint32_t to)
{
    if (rec->slot == nullptr)
        return false;
    // Pairs with the pool creator's compare-and-swap from idle to busy.
    return __atomic_compare_exchange_n(&rec->slot->state, &from, to, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

uint32_t slot_state(const tovi_thread_s *rec)
{
    return rec->slot != nullptr ? __atomic_load_n(&rec->slot->state, __ATOMIC_SEQ_CST) : 0;
}

void adopt(tovi_thread_s *rec, bool map_now)
{
    m_current_thread = rec;
    rec->pthread_id = pthread_self();
    tovi_thrd_settid_accl();
    rec->tid = tovi_thrd_gettid_accl();
    fill_os_stack(rec, map_now);
    install_sig_stack(rec);
    tovi_setCurThreadStrategy(0);
}

void leave(tovi_thread_s *rec)
{
    set_state(rec, TOVI_THREAD_FINISHED);
    if (tovi_thrd_unsetsigstack() != 0)
        TOVI_LOG(kError, "Disable signal stack failed, thrd tid:%d, errno:%d.", rec->tid, errno);
    m_current_thread = nullptr;
    tovi_thrd_putthreadinfo(rec);
}

uint32_t create(tovi_thread_fn fn, void *arg, void *(*trampoline)(void *), pthread_t *id, pthread_attr_t *attr,
                uint32_t preempt)
{
    tovi_thrd_module_init();
    tovi_thread_s *rec = claim(fn, arg);
    if (rec == nullptr) {
        TOVI_LOG(kInfo, "Create thread info fail.");
        return TOVI_ERR;
    }
    rec->preempt_flag = preempt;
    pthread_attr_t own;
    pthread_attr_t *use = attr;
    if (use == nullptr) {
        pthread_attr_init(&own);
        use = &own;
    }
    tovi::ScopeExit destroy_own([&] {
        if (use == &own)
            pthread_attr_destroy(&own);
    });
    uint32_t result = 0;
    int ret = pthread_attr_setdetachstate(use, PTHREAD_CREATE_DETACHED);
    if (ret != 0) {
        int err = errno;
        TOVI_LOG(kError, "Set thread detach state failed, ret:%d, errno(%d:%s).", ret, err, std::strerror(err));
        result = TOVI_ERR;
    } else {
        pthread_t thread;
        ret = pthread_create(&thread, use, trampoline != nullptr ? trampoline : entry, rec);
        if (ret != 0) {
            TOVI_LOG(kError, "Create thread failed, error %d.", ret);
            result = TOVI_ERR;
        } else if (id != nullptr) {
            *id = thread;
        }
    }
    if (result != 0) {
        set_state(rec, TOVI_THREAD_FINISHED);
        tovi_thrd_putthreadinfo(rec);
    }
    return result;
}

void *entry(void *record)
{
    run(static_cast<tovi_thread_s *>(record), false);
    return nullptr;
}

void *entry_instant(void *record)
{
    run(static_cast<tovi_thread_s *>(record), true);
    return nullptr;
}

void set_small_stack(pthread_attr_t *attr)
{
    int ret = pthread_attr_setstacksize(attr, kPoolStackSize);
    if (ret != 0) {
        int err = errno;
        TOVI_LOG(kError, "Set thread stack size failed, ret:%d, errno(%d:%s).", ret, err, std::strerror(err));
    }
}

uint32_t free_slots()
{
    uint32_t n = 0;
    for (const tovi_thread_slot_s &s : g_slots)
        n += __atomic_load_n(&s.refs, __ATOMIC_ACQUIRE) == 0 ? 1 : 0;
    return n;
}

}  // namespace tovi::thrd

extern "C" {

uint32_t tovi_thrd_module_init(void)
{
    // Once: the key that gives adopted records back, the cached process id,
    // the block-stack signal.
    pthread_once(&g_module_once, module_init_once);
    return 0;
}

uint32_t create_thread_raw_base(tovi_thread_fn fn, void *arg, void *(*trampoline)(void *), pthread_t *id,
                                pthread_attr_t *attr)
{
    if (fn == nullptr)
        return TOVI_ERR;
    return tovi::thrd::create(fn, arg, trampoline, id, attr, 0);
}

uint32_t create_thread_raw(tovi_thread_fn fn, void *arg, pthread_t *id)
{
    return create_thread_raw_base(fn, arg, nullptr, id, nullptr);
}

uint32_t tovi_thread_create_raw(tovi_thread_fn fn, void *arg, pthread_t *id)
{
    return create_thread_raw_base(fn, arg, nullptr, id, nullptr);
}

uint32_t tovi_thrd_create(tovi_thread_fn fn, void *arg, pthread_t *id)
{
    return create_thread_raw_base(fn, arg, nullptr, id, nullptr);
}

tovi_thread_s *tovi_thrd_getthreadinfobytid(int32_t tid)
{
    for (uint32_t i = 0; i < TOVI_THREAD_SLOTS; ++i) {
        tovi_thread_s *rec = tovi::thrd::get_live(i);
        if (rec == nullptr)
            continue;
        if (rec->tid == tid)
            return rec;
        tovi_thrd_putthreadinfo(rec);
    }
    return nullptr;
}

void tovi_thrd_putthreadinfo(tovi_thread_s *info)
{
    if (info == nullptr)
        return;
    if (info->slot == nullptr)
        free_record(info);
    else
        ref_put(info->slot);
}

tovi_thread_s *tovi_thrd_currentthreadinfo(void)
{
    return m_current_thread;
}

void tovi_thrd_list(void)
{
    std::printf("list threads flag(0:preempt 1:nonpreempt) created by tovi:\n");
    std::printf("%-5s %-18s %-11s %-8s\n", "tid", "name", "preemptflag", "strategy");
    for (uint32_t i = 0; i < TOVI_THREAD_SLOTS; ++i) {
        tovi_thread_s *rec = tovi::thrd::get_live(i);
        if (rec == nullptr)
            continue;
        char name[TOVI_THREAD_NAME_LEN];
        tovi::thrd::read_name(rec, name);
        std::printf("%5lu %-18s %-11d %-8d\n", static_cast<unsigned long>(rec->tid), name,
                    static_cast<int>(__atomic_load_n(&rec->preempt_flag, __ATOMIC_RELAXED)),
                    static_cast<int>(__atomic_load_n(&rec->strategy, __ATOMIC_RELAXED)));
        tovi_thrd_putthreadinfo(rec);
    }
    std::fflush(stdout);
}

uint32_t tovi_thrd_unsetsigstack(void)
{
    stack_t ss{};
    ss.ss_flags = SS_DISABLE;
    return sigaltstack(&ss, nullptr) == 0 ? 0 : TOVI_ERR;
}

uint32_t tovi_thrd_setcurthreadinfo(void)
{
    tovi_thrd_module_init();
    if (m_current_thread != nullptr)
        return 0;
    tovi_thread_s *rec = tovi::thrd::claim(nullptr, nullptr);
    if (rec == nullptr) {
        TOVI_LOG(kInfo, "Create thread info fail.");
        return TOVI_ERR;
    }
    tovi::thrd::adopt(rec, false);
    tovi::thrd::set_state(rec, TOVI_THREAD_RUNNING);
    if (g_adopted_key_ok)
        pthread_setspecific(g_adopted_key, rec);
    return 0;
}

}  // extern "C"
