// tovictl work: runs a sample load on the scheduled-work pool and the
// high-resolution timers of this process and prints their counters.
//
//   tovictl work [-n COUNT]
//
// COUNT works (default 10000) are queued from two producers, each handler
// spinning a few microseconds; then 200 high-resolution timers of 100 us
// and 1 ms are fired one after another.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "tovi_hr_timer.h"
#include "tovi_schedwork.h"
#include "tovi_time.h"

namespace {

std::atomic<unsigned long> g_done{0};

void handler(tovi_sched_work *w)
{
    static_cast<std::atomic<bool> *>(w->pData)->store(false, std::memory_order_release);
    const uint64_t until = tovi_time_getnanosec() + 2000;
    while (tovi_time_getnanosec() < until) {
    }
    g_done.fetch_add(1, std::memory_order_relaxed);
}

std::atomic<bool> g_fired{false};
void fired(uint64_t)
{
    g_fired.store(true, std::memory_order_release);
}

double us(uint64_t ns)
{
    return static_cast<double>(ns) / 1000.0;
}

}  // namespace

int tovictl_work(int argc, char **argv)
{
    unsigned long count = 10000;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "-n") == 0 && i + 1 < argc) {
            char *end = nullptr;
            count = std::strtoul(argv[++i], &end, 10);
            if (end == argv[i] || *end != '\0' || count == 0 || count > 10000000) {
                std::fprintf(stderr, "tovictl work: bad count '%s'\n", argv[i]);
                return 2;
            }
        } else {
            std::fprintf(stderr, "usage: tovictl work [-n COUNT]\n");
            return 2;
        }
    }
    if (sched_work_init() != 0) {
        std::fprintf(stderr, "tovictl work: the work pool did not start\n");
        return 1;
    }
    // Each producer reuses a small ring of records, waiting until a
    // record's handler has taken it before queueing it again.
    constexpr unsigned kRing = 64;
    struct Slot {
        tovi_sched_work work;
        std::atomic<bool> queued{false};
    };
    auto produce = [count](unsigned long share) {
        std::vector<Slot> slots(kRing);
        for (auto &s : slots)
            tovi_sched_init_work(&s.work, handler, &s.queued);
        for (unsigned long i = 0; i < share; ++i) {
            Slot &s = slots[i % kRing];
            while (s.queued.load(std::memory_order_acquire))
                std::this_thread::yield();
            s.queued.store(true, std::memory_order_relaxed);
            if (tovi_sched_add_work(&s.work) != 0)
                std::exit(1);
        }
        // Records must outlive their handlers.
        while (g_done.load() < count)
            std::this_thread::yield();
    };
    const uint64_t t0 = tovi_time_getnanosec();
    std::thread a(produce, count / 2), b(produce, count - count / 2);
    a.join();
    b.join();
    const uint64_t elapsed = tovi_time_getnanosec() - t0;

    tovi_sched_work_stats_s s{};
    tovi_sched_work_stats(&s);
    std::printf("scheduled work\n");
    std::printf("  queued %llu, started %llu, finished %llu, overruns %llu (%.0f works/s)\n",
                static_cast<unsigned long long>(s.queued), static_cast<unsigned long long>(s.started),
                static_cast<unsigned long long>(s.finished), static_cast<unsigned long long>(s.overruns),
                static_cast<double>(count) * 1e9 / static_cast<double>(elapsed));
    std::printf("  queue wait: p50 %.1f us, p99 %.1f us, max %.1f us (%llu measured)\n", us(s.waitP50Ns),
                us(s.waitP99Ns), us(s.waitMaxNs), static_cast<unsigned long long>(s.waitSamples));
    std::printf("  workers: %d alive, %d idle (idle limits %u..%u)\n", s.threadsAlive, s.threadsIdle, s.freeNumMin,
                s.freeNumMax);

    for (unsigned i = 0; i < 200; ++i) {
        tovi_timer t{};
        tovi_timer_set(&t, i % 2 == 0 ? 100000 : 1000000, 0, fired);
        g_fired.store(false);
        if (tovi_timer_add_ns(&t) != 0) {
            std::fprintf(stderr, "tovictl work: arming a high-resolution timer failed\n");
            return 1;
        }
        while (!g_fired.load(std::memory_order_acquire))
            std::this_thread::yield();
        tovi_timer_delete_sync(&t);
    }
    tovi_hr_timer_stats_s h{};
    tovi_hr_timer_stats(&h);
    std::printf("high-resolution timers\n");
    std::printf("  fired %llu, lateness: p50 %.1f us, p99 %.1f us, max %.1f us\n",
                static_cast<unsigned long long>(h.fired), us(h.lateP50Ns), us(h.lateP99Ns), us(h.lateMaxNs));
    return 0;
}
