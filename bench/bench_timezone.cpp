// Calendar arithmetic and the local-time read against the C library's.
#include <benchmark/benchmark.h>

#include <ctime>

#include "tovi_timezone.h"

namespace {

constexpr uint64_t kSpan = 2145916800;  // instants up to 2038

void BM_tovi_time_gmtime(benchmark::State &state)
{
    uint64_t t = 1;
    TOVI_DATE_TIME_S r{};
    for (auto _ : state) {
        t = (t * 6364136223846793005ULL + 1442695040888963407ULL) % kSpan;
        tovi_time_gmtime(&t, &r);
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(BM_tovi_time_gmtime);

void BM_gmtime_r(benchmark::State &state)
{
    uint64_t t = 1;
    std::tm tm{};
    for (auto _ : state) {
        t = (t * 6364136223846793005ULL + 1442695040888963407ULL) % kSpan;
        time_t tt = static_cast<time_t>(t);
        benchmark::DoNotOptimize(gmtime_r(&tt, &tm));
    }
}
BENCHMARK(BM_gmtime_r);

// Through the companion (on the user companion without a pushed table: the
// process's zone, so this is localtime_r plus the call's cost).
void BM_tovi_time_getlocal_fromutc(benchmark::State &state)
{
    uint64_t t = 1;
    for (auto _ : state) {
        t = (t * 6364136223846793005ULL + 1442695040888963407ULL) % kSpan;
        benchmark::DoNotOptimize(tovi_time_getlocal_fromutc(t));
    }
}
BENCHMARK(BM_tovi_time_getlocal_fromutc);

}  // namespace
