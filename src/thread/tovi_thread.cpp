// The thread registry: slots and records, raw creation, names, cached ids,
// stack lookups and the thread watch table.
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
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_jiffies.h"
#define TOVI_LOG_SOURCE "tovi_thrd"
#include "tovi_log.hpp"
#include "tovi_mem.h"
#include "tovi_thread.hpp"

__thread tovi_thread_s *m_current_thread TOVI_TLS_IE = nullptr;
__thread int32_t my_core TOVI_TLS_IE = -1;
__thread uint32_t my_numa TOVI_TLS_IE = 0xFFFFFFFFu;

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr uint64_t kUnknown64 = ~0ULL;
constexpr uint32_t kUnknown32 = ~0U;
constexpr char kUnnamed[] = "[NULL]";

tovi_thread_slot_s g_slots[TOVI_THREAD_SLOTS];

// Cached kernel tid of the calling thread (0: not yet) and process id.
__thread int32_t t_tid TOVI_TLS_IE = 0;
std::atomic<int32_t> g_pid{0};

std::atomic<int32_t> g_siProcMapFlag{0};

pthread_once_t g_module_once = PTHREAD_ONCE_INIT;
pthread_key_t g_adopted_key;
bool g_adopted_key_ok = false;

std::atomic<const tovi_lwt_stack_ops_s *> g_lwt_ops{nullptr};

// A forked child keeps the forking thread's caches: refresh them there.
void refresh_ids_in_child()
{
    t_tid = 0;
    g_pid.store(getpid(), std::memory_order_relaxed);
}

[[maybe_unused]] const int g_fork_hook = pthread_atfork(nullptr, nullptr, refresh_ids_in_child);

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

void write_name(tovi_thread_s *rec, const char (&name)[TOVI_THREAD_NAME_LEN])
{
    // Byte by byte, relaxed: a listing may read the name while it changes
    // and at worst shows a mix of the two.
    for (uint32_t i = 0; i < TOVI_THREAD_NAME_LEN; ++i)
        __atomic_store_n(&rec->name[i], name[i], __ATOMIC_RELAXED);
}

void reset(tovi_thread_s *rec, tovi_thread_fn fn, void *arg)
{
    rec->pthread_id = 0;
    rec->start_routine = fn;
    rec->arg = arg;
    rec->tid = 0;
    rec->pid = tovi_thrd_getpid_accl();
    rec->bind_cpu = kUnknown64;
    rec->numa_id = kUnknown32;
    rec->preempt_flag = 0;
    rec->strategy = 0;
    rec->os_stack_low = 0;
    rec->os_stack_high = 0;
    rec->flags = 0;
    sem_init(&rec->sem, 0, 0);
    char name[TOVI_THREAD_NAME_LEN] = {};
    memcpy_s(name, sizeof name, kUnnamed, sizeof kUnnamed);
    write_name(rec, name);
}

// The usable part of the stack, for mapping its pages at once.
void fill_os_stack(tovi_thread_s *rec, bool map_now)
{
    pthread_attr_t attr;
    int ret = pthread_getattr_np(pthread_self(), &attr);
    if (ret != 0) {
        TOVI_LOG(kInfo, "Get thread attr ret:%d.", ret);
        return;
    }
    size_t guard = 0;
    if (pthread_attr_getguardsize(&attr, &guard) != 0)
        guard = 0;
    void *addr = nullptr;
    size_t size = 0;
    ret = pthread_attr_getstack(&attr, &addr, &size);
    pthread_attr_destroy(&attr);
    if (ret != 0) {
        TOVI_LOG(kInfo, "Get os stack ret:%d.", ret);
        return;
    }
    const auto low = reinterpret_cast<uint64_t>(addr);
    rec->os_stack_low = low - guard;
    rec->os_stack_high = low + size;
    // Best effort: a thread that must not take page faults later has its
    // whole stack populated now; a kernel without the advice just faults.
    if (map_now)
        madvise(addr, size, MADV_POPULATE_WRITE);
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
}

void run(tovi_thread_s *rec, bool map_now)
{
    tovi::thrd::adopt(rec, map_now);
    tovi::thrd::set_state(rec, TOVI_THREAD_RUNNING);
    // Also when the routine leaves by pthread_exit (forced unwinding).
    struct Leave {
        tovi_thread_s *rec;
        ~Leave() { tovi::thrd::leave(rec); }
    } leave{rec};
    rec->start_routine(rec->arg);
}

// The record of thread `tid` (0: the caller); `held` tells whether a
// reference was taken for it.
tovi_thread_s *find_record(int32_t tid, bool *held)
{
    tovi_thread_s *cur = m_current_thread;
    *held = false;
    if (tid == 0 || (cur != nullptr && cur->tid == tid))
        return cur;
    *held = true;
    return tovi_thrd_getthreadinfobytid(tid);
}

void drop(tovi_thread_s *rec, bool held)
{
    if (held)
        tovi_thrd_putthreadinfo(rec);
}

bool inside(uint64_t sp, uint64_t low, uint64_t high)
{
    return high != 0 && sp >= low && sp <= high;
}

// The "[stack]" mapping of this process (the main thread's stack).
uint32_t main_stack(uint64_t *start, uint64_t *end)
{
    FILE *maps = std::fopen("/proc/self/maps", "r");
    if (maps == nullptr)
        return TOVI_ERR;
    char line[512];
    uint32_t ret = TOVI_ERR;
    while (std::fgets(line, sizeof line, maps) != nullptr) {
        unsigned long lo = 0;
        unsigned long hi = 0;
        if (std::strstr(line, "[stack]") != nullptr && sscanf_s(line, "%lx-%lx", &lo, &hi) == 2) {
            *start = lo;
            *end = hi;
            ret = 0;
            break;
        }
    }
    std::fclose(maps);
    return ret;
}

// The thread watch table.
struct ThreadWatch {
    std::mutex mutex;
    tovi_thread_watch_s entries[TOVI_THREAD_WATCH_MAX];
} toviThreadWatch;

void current_name(char (&out)[TOVI_THREAD_NAME_LEN])
{
    memset_s(out, sizeof out, 0, sizeof out);
    if (const tovi_thread_s *rec = m_current_thread)
        tovi::thrd::read_name(rec, out);
    else
        prctl(PR_GET_NAME, out);
    out[TOVI_THREAD_NAME_LEN - 1] = '\0';
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
    t_tid = static_cast<int32_t>(gettid());
    rec->tid = t_tid;
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
    if (use == &own)
        pthread_attr_destroy(&own);
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

bool set_names(tovi_thread_s *rec, const char *name)
{
    char buf[TOVI_THREAD_NAME_LEN] = {};
    for (uint32_t i = 0; i + 1 < TOVI_THREAD_NAME_LEN && name[i] != '\0'; ++i)
        buf[i] = name[i];
    write_name(rec, buf);
    return prctl(PR_SET_NAME, buf) == 0;
}

void read_name(const tovi_thread_s *rec, char out[TOVI_THREAD_NAME_LEN])
{
    for (uint32_t i = 0; i < TOVI_THREAD_NAME_LEN; ++i)
        out[i] = __atomic_load_n(&rec->name[i], __ATOMIC_RELAXED);
    out[TOVI_THREAD_NAME_LEN - 1] = '\0';
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
    // Once: the key that gives adopted records back, the cached process id.
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

uint32_t tovi_thrd_setname(const char *fmt, ...)
{
    if (fmt == nullptr) {
        TOVI_LOG(kError, "Tovi set thrd name(NULL) fail.");
        return TOVI_ERR;
    }
    tovi_thread_s *rec = m_current_thread;
    if (rec == nullptr) {
        TOVI_LOG(kError, "Tovi set thrd name(%s) fail, please use tovi or Nubo create thrd.", fmt);
        return TOVI_ERR;
    }
    // The bounded formatter refuses rather than truncates: format into room
    // to spare, then keep the first 15 characters.
    char text[256] = {};
    va_list ap;
    va_start(ap, fmt);
    int ret = vsnprintf_s(text, sizeof text, fmt, ap);
    va_end(ap);
    if (ret < 0 && text[0] == '\0') {
        TOVI_LOG(kError, "vsnprintf_s failed, name(%s).", fmt);
        return TOVI_ERR;
    }
    text[TOVI_THREAD_NAME_LEN - 1] = '\0';
    if (!tovi::thrd::set_names(rec, text)) {
        TOVI_LOG(kError, "Tovi set thrd name fail, errno:%d.", errno);
        return TOVI_ERR;
    }
    return 0;
}

const char *tovi_thrd_getname(void)
{
    tovi_thread_s *rec = m_current_thread;
    return rec != nullptr ? rec->name : nullptr;
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

void tovi_thrd_numaId_set(uint32_t numa)
{
    my_numa = numa;
    if (tovi_thread_s *rec = m_current_thread)
        __atomic_store_n(&rec->numa_id, numa, __ATOMIC_RELAXED);
}

uint32_t tovi_thrd_numaId_get(void)
{
    return my_numa;
}

void tovi_thrd_core_set(int32_t cpu)
{
    my_core = cpu;
    if (tovi_thread_s *rec = m_current_thread)
        __atomic_store_n(&rec->bind_cpu, cpu < 0 ? kUnknown64 : static_cast<uint64_t>(cpu), __ATOMIC_RELAXED);
}

int smp_processor_id(void)
{
    return my_core >= 0 ? my_core : sched_getcpu();
}

uint32_t tovi_thrd_setpid_accl(void)
{
    g_pid.store(getpid(), std::memory_order_relaxed);
    return 0;
}

int32_t tovi_thrd_getpid_accl(void)
{
    int32_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = getpid();
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

void tovi_thrd_settid_accl(void)
{
    t_tid = static_cast<int32_t>(gettid());
}

int32_t tovi_thrd_gettid_accl(void)
{
    if (t_tid == 0)
        t_tid = static_cast<int32_t>(gettid());
    return t_tid;
}

int32_t tovi_thread_get_knl_tid(void)
{
    return tovi_thrd_gettid_accl();
}

uint32_t tovi_get_process_name(char *buf)
{
    if (buf == nullptr)
        return TOVI_ERR;
    char path[64];
    snprintf_s(path, sizeof path, "/proc/%d/status", tovi_thrd_getpid_accl());
    FILE *status = std::fopen(path, "r");
    if (status == nullptr)
        return TOVI_ERR;
    char line[256];
    uint32_t ret = TOVI_ERR;
    while (std::fgets(line, sizeof line, status) != nullptr) {
        char name[TOVI_THREAD_NAME_LEN] = {};
        if (sscanf_s(line, "Name:\t%15[^\n]", name) == 1) {
            strcpy_s(buf, TOVI_THREAD_NAME_LEN, name);
            ret = 0;
            break;
        }
    }
    std::fclose(status);
    return ret;
}

uint32_t tovi_get_process_exe_name(char *buf)
{
    if (buf == nullptr)
        return TOVI_ERR;
    char path[64];
    snprintf_s(path, sizeof path, "/proc/%d/exe", tovi_thrd_getpid_accl());
    char target[4096];
    ssize_t n = readlink(path, target, sizeof target - 1);
    if (n < 0)
        return TOVI_ERR;
    target[n] = '\0';
    size_t keep = std::min<size_t>(static_cast<size_t>(n), TOVI_PROCESS_EXE_LEN - 1);
    memcpy_s(buf, TOVI_PROCESS_EXE_LEN, target, keep);
    buf[keep] = '\0';
    return 0;
}

void tovi_set_instant_map_flag(int32_t flag)
{
    g_siProcMapFlag.store(flag, std::memory_order_relaxed);
}

int32_t tovi_get_instant_map_flag(void)
{
    return g_siProcMapFlag.load(std::memory_order_relaxed);
}

uint32_t tovi_thrd_unsetsigstack(void)
{
    stack_t ss{};
    ss.ss_flags = SS_DISABLE;
    return sigaltstack(&ss, nullptr) == 0 ? 0 : TOVI_ERR;
}

uint32_t register_lwt_stack_ops(const tovi_lwt_stack_ops_s *ops)
{
    if (ops == nullptr || ops->get_stack == nullptr)
        return TOVI_ERR;
    const tovi_lwt_stack_ops_s *none = nullptr;
    // Release publishes the table to the lookups' acquire.
    return g_lwt_ops.compare_exchange_strong(none, ops, std::memory_order_acq_rel) ? 0 : TOVI_ERR;
}

uint32_t unregister_lwt_stack_ops(const tovi_lwt_stack_ops_s *ops)
{
    if (ops == nullptr)
        return TOVI_ERR;
    return g_lwt_ops.compare_exchange_strong(ops, nullptr, std::memory_order_acq_rel) ? 0 : TOVI_ERR;
}

uint32_t tovi_thrd_getcurrentstack(int32_t tid, uint64_t sp, uint64_t *start, uint64_t *end, const char **desc)
{
    if (start == nullptr || end == nullptr || desc == nullptr)
        return TOVI_ERR;
    bool held = false;
    tovi_thread_s *rec = find_record(tid, &held);
    if (rec == nullptr) {
        *desc = "UNKNOWN_STACK";
        return TOVI_ERR;
    }
    const auto sig_low = reinterpret_cast<uint64_t>(rec->sig_stack);
    const uint64_t sig_high = sig_low + TOVI_THREAD_SIGSTACK_SIZE;
    uint32_t ret = 0;
    if (inside(sp, sig_low, sig_high)) {
        *start = sig_low;
        *end = sig_high;
        *desc = "SIG_STACK";
    } else if (inside(sp, rec->os_stack_low, rec->os_stack_high)) {
        *start = rec->os_stack_low;
        *end = rec->os_stack_high;
        *desc = "OS_STACK";
    } else if (const tovi_lwt_stack_ops_s *ops = g_lwt_ops.load(std::memory_order_acquire)) {
        if (ops->get_stack(rec->tid, sp, start, end) == 0) {
            *desc = ops->desc != nullptr ? ops->desc : "LWT_STACK";
        } else {
            *desc = "INVALID_LWT_STACK";
            ret = TOVI_ERR;
        }
    } else {
        *desc = "INVALID_STACK";
        ret = TOVI_ERR;
    }
    drop(rec, held);
    return ret;
}

uint32_t tovi_thrd_getosstack(int32_t tid, uint64_t *start, uint64_t *end)
{
    if (start == nullptr || end == nullptr)
        return TOVI_ERR;
    bool held = false;
    tovi_thread_s *rec = find_record(tid, &held);
    if (rec == nullptr)
        return TOVI_ERR;
    uint32_t ret = TOVI_ERR;
    if (rec->os_stack_high != 0) {
        *start = rec->os_stack_low;
        *end = rec->os_stack_high;
        ret = 0;
    }
    drop(rec, held);
    return ret;
}

uint32_t tovi_thread_get_specific_stack(int32_t tid, uint64_t *start, uint64_t *end)
{
    if (start == nullptr || end == nullptr)
        return TOVI_ERR;
    if (tovi_thrd_getosstack(tid, start, end) == 0)
        return 0;
    const int32_t who = tid != 0 ? tid : tovi_thrd_gettid_accl();
    return who == tovi_thrd_getpid_accl() ? main_stack(start, end) : TOVI_ERR;
}

int32_t tovi_thread_watch_add(uint32_t timeout)
{
    const int32_t tid = tovi_thrd_gettid_accl();
    char name[TOVI_THREAD_NAME_LEN];
    current_name(name);
    std::lock_guard<std::mutex> guard(toviThreadWatch.mutex);
    int32_t index = -1;
    for (uint32_t i = 0; i < TOVI_THREAD_WATCH_MAX; ++i) {
        const int32_t owner = toviThreadWatch.entries[i].tid;
        if (owner == tid) {
            index = static_cast<int32_t>(i);
            break;
        }
        if (owner == 0 && index < 0)
            index = static_cast<int32_t>(i);
    }
    if (index < 0) {
        TOVI_LOG(kError, "Thread watch table toviThreadWatch is full, tid:%d.", tid);
        return -1;
    }
    tovi_thread_watch_s &e = toviThreadWatch.entries[index];
    e.tid = tid;
    e.timeout = timeout;
    e.start_jiffies = tovi_get_jiffies();
    e.overdue = 0;
    memcpy_s(e.name, sizeof e.name, name, sizeof name);
    return index;
}

uint32_t tovi_thread_watch_del(void)
{
    const int32_t tid = tovi_thrd_gettid_accl();
    std::lock_guard<std::mutex> guard(toviThreadWatch.mutex);
    for (tovi_thread_watch_s &e : toviThreadWatch.entries) {
        if (e.tid == tid) {
            memset_s(&e, sizeof e, 0, sizeof e);
            return 0;
        }
    }
    return TOVI_ERR;
}

uint32_t tovi_thread_watch_get(uint32_t index, tovi_thread_watch_s *out)
{
    if (out == nullptr || index >= TOVI_THREAD_WATCH_MAX)
        return TOVI_ERR;
    const uint64_t now = tovi_get_jiffies();
    std::lock_guard<std::mutex> guard(toviThreadWatch.mutex);
    const tovi_thread_watch_s &e = toviThreadWatch.entries[index];
    if (e.tid == 0)
        return TOVI_ERR;
    *out = e;
    out->overdue = now - e.start_jiffies > e.timeout ? 1 : 0;
    return 0;
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
