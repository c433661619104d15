// The clock base. Readers take no lock: the conversion is written once per
// set-up, before the ready flag is released.
//
// Two sources. Where the processor seam trusts its cycle counter (an
// invariant time stamp counter), the clock reads it and scales it by a rate
// measured against CLOCK_MONOTONIC at set-up, anchored to a CLOCK_MONOTONIC
// reading so that both clocks agree then. Otherwise it reads the seam's
// counter and multiplies by whole nanoseconds per tick. Both are one formula:
//   ns = base_ns + (ticks - base_ticks) * mult / 2^32
// with base 0 and mult = factor * 2^32 for the whole-nanosecond counter.
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

constexpr unsigned kMultShift = 32;
// Calibration: the counter is measured against the clock over this window,
// each end read kSamples times, keeping the read bracketed most tightly.
constexpr long kCalibrateNs = 20000000;
constexpr unsigned kSamples = 7;

// Read by every clock read, written by set-up only: one line of its own.
struct alignas(64) Conversion {
    bool cycles;  // the cycle counter, not counter_read()
    uint64_t base_ticks;
    uint64_t base_ns;
    uint64_t mult;  // nanoseconds per tick, times 2^32
};
Conversion g_conv;
std::atomic<uint32_t> g_time_ready{0};
std::mutex g_time_mutex;

uint64_t raw_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * kNsPerSec + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t mono_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * kNsPerSec + static_cast<uint64_t>(ts.tv_nsec);
}

struct Sample {
    uint64_t ticks;
    uint64_t ns;
};

// A clock reading and the cycle count at its middle: the tightest bracket of
// kSamples tries, so that a preemption between the reads does not count.
Sample sample()
{
    Sample best{};
    uint64_t best_gap = UINT64_MAX;
    for (unsigned i = 0; i < kSamples; ++i) {
        const uint64_t t0 = tovi::arch::cycle_counter_read();
        const uint64_t ns = mono_ns();
        const uint64_t gap = tovi::arch::cycle_counter_read() - t0;
        if (gap < best_gap) {
            best_gap = gap;
            best = {t0 + gap / 2, ns};
        }
    }
    return best;
}

// The cycle counter's conversion, measured over kCalibrateNs; false when the
// counter is not trusted or did not move.
bool calibrate_cycles(Conversion &c)
{
    if (!tovi::arch::cycle_counter_trusted())
        return false;
    const Sample a = sample();
    timespec pause{0, kCalibrateNs};
    nanosleep(&pause, nullptr);
    const Sample b = sample();
    if (b.ticks <= a.ticks || b.ns <= a.ns)
        return false;
    const auto mult = (static_cast<unsigned __int128>(b.ns - a.ns) << kMultShift) / (b.ticks - a.ticks);
    if (mult == 0 || mult > UINT64_MAX)
        return false;
    c = {true, b.ticks, b.ns, static_cast<uint64_t>(mult)};
    return true;
}

uint64_t scale(uint64_t ticks, uint64_t mult)
{
    return static_cast<uint64_t>((static_cast<unsigned __int128>(ticks) * mult) >> kMultShift);
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
    Conversion c{};
    if (!calibrate_cycles(c)) {
        const uint64_t freq = tovi::arch::counter_frequency();
        c.mult = (freq == 0 ? 0 : kNsPerSec / freq) << kMultShift;
    }
    // Relaxed stores: a reader either ran set-up itself or acquired the ready
    // flag released after them; a second set-up only rewrites the fields.
    __atomic_store_n(&g_conv.cycles, c.cycles, __ATOMIC_RELAXED);
    __atomic_store_n(&g_conv.base_ticks, c.base_ticks, __ATOMIC_RELAXED);
    __atomic_store_n(&g_conv.base_ns, c.base_ns, __ATOMIC_RELAXED);
    __atomic_store_n(&g_conv.mult, c.mult, __ATOMIC_RELAXED);
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
    return scale(cycles, __atomic_load_n(&g_conv.mult, __ATOMIC_RELAXED));
}

uint64_t tovi_time_getnanosec(void)
{
    if (g_time_ready.load(std::memory_order_acquire) != 1) [[unlikely]]
        tovi_gettime_init();
    const bool cycles = __atomic_load_n(&g_conv.cycles, __ATOMIC_RELAXED);
    const uint64_t ticks = cycles ? tovi::arch::cycle_counter_read() : tovi::arch::counter_read();
    // Signed: a processor whose counter lags the one that took the base by a
    // few ticks reads a little before the base, not 2^64 after it.
    const auto delta = static_cast<int64_t>(ticks - __atomic_load_n(&g_conv.base_ticks, __ATOMIC_RELAXED));
    const auto ns = (static_cast<__int128>(delta) * __atomic_load_n(&g_conv.mult, __ATOMIC_RELAXED)) >> kMultShift;
    return __atomic_load_n(&g_conv.base_ns, __ATOMIC_RELAXED) + static_cast<uint64_t>(static_cast<int64_t>(ns));
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
