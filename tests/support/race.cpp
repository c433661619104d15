#include "race.hpp"

namespace tovi::test {

namespace {

thread_local volatile int t_sink;
void widen_window()
{
    for (int i = 0; i < 50; ++i)
        t_sink = i;
}

}  // namespace

RaceResult race_lock(const LockOps &ops)
{
    RaceResult res;
    long a = 0, b = 0;  // plain: only the lock orders them
    std::atomic<long> writes{0}, torn{0}, reads{0}, readers_inside{0};
    Race race;
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w)
        threads.emplace_back([&, w] {
            race.wait();
            for (int i = 0; race.more(i); ++i) {
                if (w == 1) {
                    if (!ops.trylock()) {
                        std::this_thread::yield();  // let the queued holders run
                        continue;
                    }
                } else {
                    ops.lock();
                }
                if (readers_inside.load() != 0)
                    ++torn;
                long seen = a;
                widen_window();
                a = seen + 1;
                ++b;
                ops.unlock();
                ++writes;
            }
        });
    for (int r = 0; r < (ops.read_lock ? 2 : 0); ++r)
        threads.emplace_back([&, r] {
            race.wait();
            for (int i = 0; race.more(i); ++i) {
                if (r == 1) {
                    if (!ops.read_trylock()) {
                        std::this_thread::yield();
                        continue;
                    }
                } else {
                    ops.read_lock();
                }
                readers_inside.fetch_add(1);
                long seen = a;
                widen_window();
                if (a != seen || b != seen)
                    ++torn;
                readers_inside.fetch_sub(1);
                ops.read_unlock();
                ++reads;
            }
        });
    race.run();
    for (auto &t : threads)
        t.join();
    res.writes = writes.load();
    res.a = a;
    res.b = b;
    res.torn = torn.load();
    res.reads = reads.load();
    return res;
}

}  // namespace tovi::test
