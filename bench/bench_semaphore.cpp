// Semaphore hand-off latency: two threads pass a unit back and forth, so
// every iteration is two hand-offs (up on one thread to the return of down
// on the other), against POSIX semaphores.
#include <benchmark/benchmark.h>

#include <atomic>
#include <semaphore.h>
#include <thread>

#include "tovi_semaphore.h"

namespace {

template <typename Sem>
void ping_pong(benchmark::State &state, Sem &ping, Sem &pong, void (*up)(Sem &), void (*down)(Sem &))
{
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            down(ping);
            if (stop.load(std::memory_order_acquire))
                break;
            up(pong);
        }
    });
    for (auto _ : state) {
        up(ping);
        down(pong);
    }
    stop.store(true, std::memory_order_release);
    up(ping);
    partner.join();
    state.counters["handoff_ns"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * 2,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void tovi_up(tovi_sem_enhance_s &s) { tovi_sem_enhance_up(&s); }
void tovi_down(tovi_sem_enhance_s &s) { tovi_sem_enhance_down(&s); }
void posix_up(sem_t &s) { sem_post(&s); }
void posix_down(sem_t &s) { sem_wait(&s); }

}  // namespace

static void BM_tovi_sem_enhance_handoff(benchmark::State &state)
{
    tovi_sem_enhance_s ping, pong;
    tovi_sem_enhance_init(&ping, 0);
    tovi_sem_enhance_init(&pong, 0);
    ping_pong(state, ping, pong, tovi_up, tovi_down);
}
BENCHMARK(BM_tovi_sem_enhance_handoff)->UseRealTime();

static void BM_posix_sem_handoff(benchmark::State &state)
{
    sem_t ping, pong;
    sem_init(&ping, 0, 0);
    sem_init(&pong, 0, 0);
    ping_pong(state, ping, pong, posix_up, posix_down);
    sem_destroy(&ping);
    sem_destroy(&pong);
}
BENCHMARK(BM_posix_sem_handoff)->UseRealTime();
