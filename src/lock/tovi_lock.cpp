// Spin, reader-writer and ticket locks.
//
// Lock words are taken only by single atomic instructions with
// acquire-release ordering (compare-and-swap, fetch-and-add). A word that only
// its holder may change (the held spin-lock word, the ticket lock's serving
// counter) is released by a plain store with release ordering, as the
// unlocks cost a locked instruction otherwise. Waits spin on relaxed loads and
// re-read with acquire ordering once the wait looks over, so that the
// acquiring side always synchronises with the releasing one.
#include <bit>
#include <climits>
#include <pthread.h>
#include <unistd.h>

#include "tovi_arch.hpp"
#include "tovi_lock.h"
#include "tovi_lock.hpp"
#define TOVI_LOG_SOURCE "tovi_lock"
#include "tovi_log.hpp"
#include "tovi_sched.h"
#include "tovi_symbol.h"
#include "tovi_thread.h"
#include "tovi_time.h"

// The ticket reader-writer lock splits its 64-bit words into the two 32-bit
// counters in memory order.
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(tovi_tspinlock_s) == 24 && sizeof(tovi_trwlock_s) == 24);

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr uint64_t kSpinPeriodNs = 99999;  // a spin period ends past this
constexpr unsigned kAttemptsPerClockRead = 10;
constexpr unsigned kMayblockAttempts = 10;
constexpr uint32_t kDumpSkip = 2;           // spin_slowpath and do_tovi_spinlock_lock
constexpr uintptr_t kFallbackStackBytes = 4096;
constexpr size_t kSymbolText = 64;

uint64_t g_spinlock_flags;  // TOVI_SPINLOCK_DEBUG_LONGWAIT

// ---- plain spin lock ----

bool spin_try(uint64_t *lock)
{
    uint64_t expected = 0;
    // Acquire pairs with the release half of the holder's unlocking swap.
    return __atomic_compare_exchange_n(lock, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

// One attempt of a spin period: a swap only when the word looks free, so
// waiters do not keep stealing the line from the holder.
bool spin_attempt(uint64_t *lock)
{
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == 0 && spin_try(lock))
        return true;
    tovi::arch::cpu_relax();
    return false;
}

// Contended acquisition: 100 us spin periods separated by 1 ms sleeps. Kept
// out of line so that the long-wait report can skip exactly this frame and
// do_tovi_spinlock_lock's.
__attribute__((noinline)) void spin_slowpath(uint64_t *lock)
{
    for (;;) {
        const uint64_t start = tovi_time_getnanosec();
        do {
            for (unsigned i = 0; i < kAttemptsPerClockRead; ++i)
                if (spin_attempt(lock))
                    return;
        } while (tovi_time_getnanosec() - start <= kSpinPeriodNs);
        if (__atomic_load_n(&g_spinlock_flags, __ATOMIC_RELAXED) & TOVI_SPINLOCK_DEBUG_LONGWAIT)
            debug_dump_stack(kDumpSkip);
        tovi_schedule();
        if (spin_try(lock))
            return;
    }
}

// ---- ticket spin lock ----

// The caller's kernel thread id as the owner field records it, cached per
// thread (initial-exec: reading it calls nothing), so that the ticket lock's
// owner recording costs a load, not a call; 0 until first use, and again in a
// forked child, whose thread ids are new.
__thread uint32_t t_owner_id __attribute__((tls_model("initial-exec"))) = 0;

void forget_owner_id()
{
    t_owner_id = 0;
}

[[maybe_unused]] const int g_owner_fork_hook = pthread_atfork(nullptr, nullptr, forget_owner_id);

inline uint64_t owner_id()
{
    uint32_t id = t_owner_id;
    if (id == 0) [[unlikely]]
        t_owner_id = id = static_cast<uint32_t>(tovi_thrd_gettid_accl());
    return id;
}

uint64_t tspin_pair(const tovi_tspinlock_s *lock)
{
    uint64_t next = __atomic_load_n(&lock->next, __ATOMIC_RELAXED);
    return next << 32 | __atomic_load_n(&lock->serving, __ATOMIC_RELAXED);
}

// One report: the tag, the caller's name and line, and the fields as they stand.
#define TSPIN_REPORT(tag, func, line, lock)                                                       \
    TOVI_LOG(kInfo, "%s in %s:%u lock:0x%lx magic:0x%x owner:%lu other:%u", (tag),                 \
             (func) != nullptr ? (func) : "(null)", (line), tspin_pair(lock),                      \
             __atomic_load_n(&(lock)->magic, __ATOMIC_RELAXED),                                    \
             __atomic_load_n(&(lock)->owner, __ATOMIC_RELAXED),                                    \
             __atomic_load_n(&(lock)->other, __ATOMIC_RELAXED))

// The misuse reports, kept out of line so that the checks cost the fast
// paths two compares. No report changes what the operation does next.
__attribute__((noinline, cold)) void tspin_lock_reports(const tovi_tspinlock_s *lock, uint64_t me,
                                                        const char *func, uint32_t line)
{
    if (__atomic_load_n(&lock->magic, __ATOMIC_RELAXED) != TOVI_TSPINLOCK_MAGIC)
        TSPIN_REPORT("UnInited lock", func, line, lock);
    if (__atomic_load_n(&lock->owner, __ATOMIC_RELAXED) == me)
        TSPIN_REPORT("AA lock", func, line, lock);
}

__attribute__((noinline, cold)) void tspin_unlock_reports(const tovi_tspinlock_s *lock, uint64_t me,
                                                          const char *func, uint32_t line)
{
    if (__atomic_load_n(&lock->magic, __ATOMIC_RELAXED) != TOVI_TSPINLOCK_MAGIC)
        TSPIN_REPORT("UnInited lock", func, line, lock);
    if (__atomic_load_n(&lock->owner, __ATOMIC_RELAXED) != me)
        TSPIN_REPORT("AB lock", func, line, lock);
}

// Reports a release of a lock that was not held (serving had caught up with
// next when the owner was cleared).
__attribute__((noinline, cold)) void ticket_unlock(const tovi_tspinlock_s *lock, uint32_t line)
{
    TSPIN_REPORT("ReUnlock", __func__, line, lock);
}

// The checks of lock and trylock: not initialised, or held by the caller.
inline bool tspin_lock_suspect(const tovi_tspinlock_s *lock, uint64_t me)
{
    return __atomic_load_n(&lock->magic, __ATOMIC_RELAXED) != TOVI_TSPINLOCK_MAGIC ||
           __atomic_load_n(&lock->owner, __ATOMIC_RELAXED) == me;
}

// ---- ticket reader-writer lock ----

constexpr uint32_t low_half(uint64_t word)
{
    return static_cast<uint32_t>(word);
}

constexpr uint32_t high_half(uint64_t word)
{
    return static_cast<uint32_t>(word >> 32);
}

constexpr uint64_t halves(uint32_t low, uint32_t high)
{
    return static_cast<uint64_t>(high) << 32 | low;
}

// Spins on relaxed loads of *word until `ready`, confirming with an acquire
// load that pairs with the releasing swap that made it ready; then a full
// barrier keeps the critical section behind the wait.
template <typename Ready>
void wait_for(const uint64_t *word, Ready ready)
{
    while (!ready(__atomic_load_n(word, __ATOMIC_ACQUIRE)))
        do
            tovi::arch::cpu_relax();
        while (!ready(__atomic_load_n(word, __ATOMIC_RELAXED)));
    tovi::arch::fence_full();  // keeps the critical section behind the wait
}

// Adds (add_low, add_high) to the two halves of *word with one 64-bit
// compare-and-swap loop; returns the old word.
uint64_t add_halves(uint64_t *word, uint32_t add_low, uint32_t add_high)
{
    uint64_t old = __atomic_load_n(word, __ATOMIC_RELAXED);
    // Acquire-release: a ticket taken here is ordered against the serving
    // counters' releases; an add to `serving` releases the critical section.
    while (!__atomic_compare_exchange_n(word, &old,
                                        halves(low_half(old) + add_low, high_half(old) + add_high),
                                        true, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
    }
    return old;
}

// A NULL lock is refused (logged) instead of dereferenced.
[[gnu::cold, gnu::noinline]] void null_lock(const char *func)
{
    TOVI_LOG(kError, "Lock is NULL in %s.", func);
}

}  // namespace


extern "C" {

// ---- plain spin lock ----

void do_tovi_spinlock_lock(uint64_t *lock, const char *, uint32_t)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    if (spin_try(lock)) [[likely]]
        return;
    spin_slowpath(lock);
    // Keeps the call above from becoming a tail jump, which would drop this
    // frame from the long-wait report's count.
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

uint32_t do_tovi_spinlock_trylock(uint64_t *lock, const char *, uint32_t)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__), 0;
    return spin_try(lock) ? 1 : 0;
}

void do_tovi_spinlock_unlock(uint64_t *lock, const char *, uint32_t)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    // Only the holder writes a held word, so a plain releasing store frees it
    // (no locked instruction); a free word is left as it is. The release pairs
    // with the acquiring swap of the next holder.
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == 1)
        __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

uint32_t tovi_spinlock_set_flags(uint64_t mask)
{
    // One read-modify-write, so that concurrent set and clear calls of
    // different bits never undo each other.
    __atomic_fetch_or(&g_spinlock_flags, mask, __ATOMIC_RELAXED);
    return 0;
}

uint32_t tovi_spinlock_clear_flags(uint64_t mask)
{
    __atomic_fetch_and(&g_spinlock_flags, ~mask, __ATOMIC_RELAXED);
    return 0;
}

uint32_t tovi_spinlock_get_flags(uint64_t *flags)
{
    if (flags == nullptr) [[unlikely]]
        return null_lock(__func__), TOVI_ERR;
    *flags = __atomic_load_n(&g_spinlock_flags, __ATOMIC_RELAXED);
    return 0;
}

// Walks the frame-record chain, reading only records inside the stack
// bounds: the 4096 bytes above this function's own frame record, as the
// thread's real bounds are not looked up here. (The record, not a local
// variable, is the base: locals may lie above it, or on a sanitizer's
// separate stack.)
__attribute__((noinline)) void debug_dump_stack(uint32_t skip)
{
    const tovi::arch::FrameRecord *frame = tovi::arch::frame_pointer();
    const uintptr_t top = reinterpret_cast<uintptr_t>(frame) + kFallbackStackBytes;
    for (uint32_t i = 0; i < skip && frame != nullptr; ++i)
        frame = tovi::arch::next_frame(frame, top);
    const void *address[3];
    for (const void *&a : address) {
        a = nullptr;
        if (frame != nullptr) {
            a = frame->return_address;
            frame = tovi::arch::next_frame(frame, top);
        }
    }
    char text[3][kSymbolText];
    for (unsigned i = 0; i < 3; ++i)
        tovi_symbol_addr_to_string(reinterpret_cast<uintptr_t>(address[i]), text[i], sizeof text[i]);
    TOVI_LOG_RAW("current tid:%d, stack:%p(%s) << %p(%s) << %p(%s).", tovi_thrd_gettid_accl(), address[0], text[0],
                 address[1], text[1], address[2], text[2]);
}

// ---- reader-writer spin lock ----

void tovi_rwlock_read_lock(int64_t *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    for (;;) {
        int64_t word = __atomic_load_n(lock, __ATOMIC_RELAXED);
        if (word < 0) {
            tovi::arch::cpu_relax();
            continue;
        }
        // Acquire pairs with the writer's releasing store of 0.
        if (__atomic_compare_exchange_n(lock, &word, word + 1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
            return;
    }
}

uint8_t tovi_rwlock_try_read_lock(int64_t *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__), 0;
    for (;;) {
        int64_t word = __atomic_load_n(lock, __ATOMIC_RELAXED);
        if (word < 0)
            return 0;
        // Acquire pairs with the writer's releasing store of 0.
        if (__atomic_compare_exchange_n(lock, &word, word + 1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
            return 1;
    }
}

void tovi_rwlock_write_lock(int64_t *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    for (;;) {
        while (__atomic_load_n(lock, __ATOMIC_RELAXED) != 0)
            tovi::arch::cpu_relax();
        int64_t expected = 0;
        // Acquire pairs with the last reader's releasing decrement or the
        // previous writer's releasing store.
        if (__atomic_compare_exchange_n(lock, &expected, -1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
            return;
    }
}

void tovi_rwlock_read_lock_mayblock(int64_t *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    for (;;) {
        for (unsigned i = 0; i < kMayblockAttempts; ++i)
            if (tovi_rwlock_try_read_lock(lock) != 0)
                return;
        tovi_usleep(1);
    }
}

void tovi_rwlock_write_lock_mayblock(int64_t *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    for (;;) {
        for (unsigned i = 0; i < kMayblockAttempts; ++i) {
            // Load-acquire and a weak (exclusive) store: a spurious failure
            // costs one attempt. Acquire pairs with the releases of the last
            // reader or writer.
            int64_t word = __atomic_load_n(lock, __ATOMIC_ACQUIRE);
            if (word == 0 &&
                __atomic_compare_exchange_n(lock, &word, INT64_MIN, true, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
                return;
        }
        tovi_usleep(1);
    }
}

// ---- ticket spin lock ----

void do_tovi_tspinlock_init(tovi_tspinlock_s *lock, const char *func, uint32_t line)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    if (__atomic_load_n(&lock->magic, __ATOMIC_RELAXED) == TOVI_TSPINLOCK_MAGIC)
        TSPIN_REPORT("ReInited lock", func, line, lock);
    __atomic_store_n(&lock->serving, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->next, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->magic, TOVI_TSPINLOCK_MAGIC, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->other, 0xFFFFFFFFu, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->owner, TOVI_LOCK_NO_OWNER, __ATOMIC_RELAXED);
}

void do_tovi_tspinlock_lock(tovi_tspinlock_s *lock, const char *func, uint32_t line)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    const uint64_t me = owner_id();
    if (tspin_lock_suspect(lock, me)) [[unlikely]]
        tspin_lock_reports(lock, me, func, line);
    // Acquire-release: tickets are handed out in one total order.
    const uint32_t ticket = __atomic_fetch_add(&lock->next, 1u, __ATOMIC_ACQ_REL);
    // Acquire pairs with the previous holder's releasing store to serving,
    // and by itself keeps the critical section behind the wait.
    while (__atomic_load_n(&lock->serving, __ATOMIC_ACQUIRE) != ticket)
        do
            tovi::arch::cpu_relax();
        while (__atomic_load_n(&lock->serving, __ATOMIC_RELAXED) != ticket);
    __atomic_store_n(&lock->owner, me, __ATOMIC_RELAXED);
}

uint32_t do_tovi_tspinlock_trylock(tovi_tspinlock_s *lock, const char *func, uint32_t line)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__), 0;
    const uint64_t me = owner_id();
    if (tspin_lock_suspect(lock, me)) [[unlikely]]
        tspin_lock_reports(lock, me, func, line);
    for (;;) {
        uint32_t next = __atomic_load_n(&lock->next, __ATOMIC_RELAXED);
        // Acquire pairs with the previous holder's releasing store to serving.
        if (next != __atomic_load_n(&lock->serving, __ATOMIC_ACQUIRE))
            return 0;
        // Acquire-release, as the ticket of lock.
        if (__atomic_compare_exchange_n(&lock->next, &next, next + 1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
            __atomic_store_n(&lock->owner, me, __ATOMIC_RELAXED);
            return 1;
        }
    }
}

void do_tovi_tspinlock_unlock(tovi_tspinlock_s *lock, const char *func, uint32_t line)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    const uint64_t me = owner_id();
    if (__atomic_load_n(&lock->magic, __ATOMIC_RELAXED) != TOVI_TSPINLOCK_MAGIC ||
        __atomic_load_n(&lock->owner, __ATOMIC_RELAXED) != me) [[unlikely]]
        tspin_unlock_reports(lock, me, func, line);
    const uint32_t next = __atomic_load_n(&lock->next, __ATOMIC_RELAXED);
    const uint32_t serving = __atomic_load_n(&lock->serving, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->owner, TOVI_LOCK_NO_OWNER, __ATOMIC_RELAXED);
    if (next == serving) [[unlikely]]
        ticket_unlock(lock, line);
    // Only the holder moves serving, so a plain releasing store of the next
    // ticket hands the lock on (no locked instruction). Release pairs with
    // the acquiring load of the waiter holding that ticket.
    __atomic_store_n(&lock->serving, serving + 1, __ATOMIC_RELEASE);
}

void do_tovi_tspinlock_destroy(tovi_tspinlock_s *lock, const char *func, uint32_t line)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    if (__atomic_load_n(&lock->magic, __ATOMIC_RELAXED) != TOVI_TSPINLOCK_MAGIC)
        TSPIN_REPORT("UnInited lock", func, line, lock);
    __atomic_store_n(&lock->magic, TOVI_TSPINLOCK_DESTROYED, __ATOMIC_RELAXED);
}

// ---- ticket reader-writer lock ----

void do_tovi_trwlock_init(tovi_trwlock_s *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    __atomic_store_n(&lock->serving, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->tickets, 0u, __ATOMIC_RELAXED);
    __atomic_store_n(&lock->reserved, 0u, __ATOMIC_RELAXED);
}

void do_tovi_trwlock_read_lock(tovi_trwlock_s *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    // A reader ticket: tickets + 1, writers unchanged.
    const uint32_t writers_before = high_half(add_halves(&lock->tickets, 1, 0));
    // In once every earlier writer has left (read-serving caught up).
    wait_for(&lock->serving, [writers_before](uint64_t serving) { return high_half(serving) == writers_before; });
}

void do_tovi_trwlock_read_unlock(tovi_trwlock_s *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    add_halves(&lock->serving, 1, 0);
}

uint32_t do_tovi_trwlock_read_trylock(tovi_trwlock_s *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__), 0;
    uint64_t tickets = __atomic_load_n(&lock->tickets, __ATOMIC_RELAXED);
    for (;;) {
        // Acquire pairs with the last writer's releasing add to serving.
        if (high_half(tickets) != high_half(__atomic_load_n(&lock->serving, __ATOMIC_ACQUIRE)))
            return 0;
        // Acquire-release, as the ticket of read_lock; a lost race reloads tickets.
        if (__atomic_compare_exchange_n(&lock->tickets, &tickets, halves(low_half(tickets) + 1, high_half(tickets)),
                                        false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
            return 1;
    }
}

void do_tovi_trwlock_write_lock(tovi_trwlock_s *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    // A writer ticket: tickets + 1 and writers + 1.
    const uint32_t ticket = low_half(add_halves(&lock->tickets, 1, 1));
    // In once every earlier reader and writer has left.
    wait_for(&lock->serving, [ticket](uint64_t serving) { return low_half(serving) == ticket; });
}

void do_tovi_trwlock_write_unlock(tovi_trwlock_s *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
    add_halves(&lock->serving, 1, 1);
}

uint32_t do_tovi_trwlock_write_trylock(tovi_trwlock_s *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__), 0;
    uint64_t tickets = __atomic_load_n(&lock->tickets, __ATOMIC_RELAXED);
    for (;;) {
        // Acquire pairs with the last holder's releasing add to serving.
        if (low_half(tickets) != low_half(__atomic_load_n(&lock->serving, __ATOMIC_ACQUIRE)))
            return 0;
        // Acquire-release, as the ticket of write_lock; a lost race reloads tickets.
        if (__atomic_compare_exchange_n(&lock->tickets, &tickets,
                                        halves(low_half(tickets) + 1, high_half(tickets) + 1), false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
            return 1;
    }
}

void do_tovi_trwlock_destroy(tovi_trwlock_s *lock)
{
    if (lock == nullptr) [[unlikely]]
        return null_lock(__func__);
}

}  // extern "C"
