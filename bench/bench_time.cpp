// Clock reads against the system clock they must not be slower than.
#include <benchmark/benchmark.h>
#include <ctime>

#include "tovi_jiffies.h"
#include "tovi_time.h"

static void BM_clock_gettime_monotonic(benchmark::State &state)
{
    timespec ts;
    for (auto _ : state) {
        clock_gettime(CLOCK_MONOTONIC, &ts);
        benchmark::DoNotOptimize(ts);
    }
}
BENCHMARK(BM_clock_gettime_monotonic);

static void BM_tovi_time_getnanosec(benchmark::State &state)
{
    tovi_gettime_init();
    for (auto _ : state)
        benchmark::DoNotOptimize(tovi_time_getnanosec());
}
BENCHMARK(BM_tovi_time_getnanosec);

static void BM_tovi_get_jiffies(benchmark::State &state)
{
    jiffies_Init();
    for (auto _ : state)
        benchmark::DoNotOptimize(tovi_get_jiffies());
}
BENCHMARK(BM_tovi_get_jiffies);

static void BM_tovi_time_getmillisec(benchmark::State &state)
{
    tovi_gettime_init();
    for (auto _ : state)
        benchmark::DoNotOptimize(tovi_time_getmillisec());
}
BENCHMARK(BM_tovi_time_getmillisec);
