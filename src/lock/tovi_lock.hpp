// Internal helpers of the lock module: the releases of the reader-writer spin
// lock, which the library does not export but uses itself.
#pragma once

#include <cstdint>

namespace tovi::lock {

// Drops one reader: compare-and-swap loop whose store releases the reader's
// critical section to the writer that later sees the word reach 0.
inline void rwlock_read_unlock(int64_t *lock)
{
    int64_t old = __atomic_load_n(lock, __ATOMIC_RELAXED);
    // Release pairs with the acquiring compare-and-swap of the next writer.
    while (!__atomic_compare_exchange_n(lock, &old, old - 1, true, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    }
}

// Releases a writer (either encoding) with one sequentially consistent store;
// pairs with the acquiring compare-and-swap of the next reader or writer.
inline void rwlock_write_unlock(int64_t *lock)
{
    __atomic_store_n(lock, 0, __ATOMIC_SEQ_CST);
}

}  // namespace tovi::lock
