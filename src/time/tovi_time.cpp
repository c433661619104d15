// The clock base. Readers take no lock: the factor is written once, before
// the ready flag is released.
#include <atomic>
#include <ctime>
#include <mutex>

#include "tovi_arch.hpp"
#include "tovi_time.hpp"
#define TOVI_LOG_SOURCE "tovi_time"
#include "tovi_log.hpp"
#include "tovi_time.h"

double currCpuGHz = 2.6;

namespace {

constexpr uint64_t kNsPerSec = 1000000000ULL;
constexpr uint64_t kRateStep = 10000000ULL;

uint64_t g_ns_per_tick;
std::atomic<uint32_t> g_time_ready{0};
std::mutex g_time_mutex;

uint64_t raw_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * kNsPerSec + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace

namespace tovi::clock {

uint64_t round_rate(uint64_t rate)
{
    uint64_t down = rate / kRateStep * kRateStep;
    uint64_t up = down == rate ? rate : down + kRateStep;
    return up - rate <= rate - down ? up : down;
}

}  // namespace tovi::clock

extern "C" {

uint32_t tovi_CheckCurrCpu(void)
{
    currCpuGHz = 2.6;
    uint64_t freq = tovi::arch::counter_frequency();
    g_ns_per_tick = freq == 0 ? 0 : kNsPerSec / freq;
    return 0;
}

uint32_t tovi_gettime_init(void)
{
    if (g_time_ready.load(std::memory_order_acquire) == 1)
        return 0;
    std::lock_guard<std::mutex> guard(g_time_mutex);
    if (g_time_ready.load(std::memory_order_relaxed) == 1)
        return 0;
    uint32_t ret = tovi_CheckCurrCpu();
    if (ret == 0)
        g_time_ready.store(1, std::memory_order_release);  // publishes the factor
    return ret;
}

uint64_t tovi_time_cycles2ns(uint64_t cycles)
{
    if (g_time_ready.load(std::memory_order_acquire) != 1) [[unlikely]]
        tovi_gettime_init();
    return cycles * g_ns_per_tick;
}

uint64_t tovi_time_getnanosec(void)
{
    return tovi_time_cycles2ns(tovi::arch::counter_read());
}

uint64_t tovi_time_getmillisec(void)
{
    return tovi_time_getnanosec() / 1000000ULL;
}

void tovi_estimate_tsc_freq(void)
{
    uint64_t ns0 = raw_ns();
    uint64_t c0 = tovi::arch::counter_read();
    timespec pause{0, 50000000};
    nanosleep(&pause, nullptr);
    uint64_t ns1 = raw_ns();
    uint64_t c1 = tovi::arch::counter_read();

    double seconds = static_cast<double>(ns1 - ns0) / 1e9;
    auto rate = static_cast<uint64_t>(static_cast<double>(c1 - c0) / seconds);
    currCpuGHz = static_cast<double>(tovi::clock::round_rate(rate)) / 1e9;
    TOVI_LOG(tovi::log::kInfo, "cpu standard hz is %f.", currCpuGHz);
}

}  // extern "C"
