// Helpers for tests that make threads meet: polling with a generous bound,
// starting threads together, and one exclusion check that serves every lock.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace tovi::test {

// Polls `done` every millisecond for up to `seconds` (sanitizers and qemu are slow).
inline bool eventually(const std::function<bool()> &done, double seconds = 10)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

// Starts threads together and keeps them going for a while (at least
// kMinRounds each), so that they really overlap even on a loaded machine.
class Race {
public:
    static constexpr int kMinRounds = 300;
    void wait() const
    {
        while (!go_.load())
            std::this_thread::yield();
    }
    bool more(int round) const { return round < kMinRounds || !stop_.load(std::memory_order_relaxed); }
    void run(std::chrono::milliseconds how_long = std::chrono::milliseconds(40))
    {
        go_ = true;
        std::this_thread::sleep_for(how_long);
        stop_ = true;
    }

private:
    std::atomic<bool> go_{false};
    std::atomic<bool> stop_{false};
};

// One lock as the exclusion check drives it. The read side is empty for an
// exclusive lock; a trylock returns true when it took the lock.
struct LockOps {
    const char *name;
    std::function<void()> lock, unlock;
    std::function<bool()> trylock;
    std::function<void()> read_lock, read_unlock;
    std::function<bool()> read_trylock;
};

struct RaceResult {
    long writes = 0, a = 0, b = 0, torn = 0, reads = 0;
};

// Two writers (one locks, one only tries, so that at most two queue on a
// ticket lock) and, for a reader-writer lock, two readers likewise. Writers
// update a and b with a widened window; a reader or writer that sees them
// move under it counts as torn.
RaceResult race_lock(const LockOps &ops);

}  // namespace tovi::test
