// A lock-free latency histogram for operator counters: writers add one
// value with a relaxed fetch-add, readers sum the buckets without a lock.
//
// Buckets are log-linear: values below 16 have a bucket each; above, every
// power of two is split into 8 equal buckets, so a percentile is reported
// within 12.5 % (as the upper bound of its bucket). The buckets are only
// counters: a reader that races a writer sees the value a moment early or
// late, never a torn one.
#pragma once

#include <atomic>
#include <cstdint>

namespace tovi::stats {

class Histogram {
public:
    static constexpr uint32_t kLinear = 16;
    static constexpr uint32_t kSub = 8;  // buckets per power of two
    static constexpr uint32_t kBuckets = kLinear + (64 - 4) * kSub;

    static uint32_t bucket_of(uint64_t v)
    {
        if (v < kLinear)
            return static_cast<uint32_t>(v);
        const uint32_t e = 63u - static_cast<uint32_t>(__builtin_clzll(v));  // 4..63
        const uint32_t sub = static_cast<uint32_t>(v >> (e - 3)) & (kSub - 1);
        return kLinear + (e - 4) * kSub + sub;
    }

    // The largest value that falls into bucket b.
    static uint64_t upper_bound(uint32_t b)
    {
        if (b < kLinear)
            return b;
        const uint32_t e = (b - kLinear) / kSub + 4;
        const uint64_t sub = (b - kLinear) % kSub;
        const uint64_t lo = (uint64_t{1} << e) + (sub << (e - 3));
        return lo + (uint64_t{1} << (e - 3)) - 1;
    }

    void add(uint64_t v)
    {
        // Relaxed: the counters order nothing; readers only sum them.
        buckets_[bucket_of(v)].fetch_add(1, std::memory_order_relaxed);
        uint64_t max = max_.load(std::memory_order_relaxed);
        while (v > max && !max_.compare_exchange_weak(max, v, std::memory_order_relaxed))
        {
        }
    }

    uint64_t count() const
    {
        uint64_t n = 0;
        for (const auto &b : buckets_)
            n += b.load(std::memory_order_relaxed);
        return n;
    }

    uint64_t max() const { return max_.load(std::memory_order_relaxed); }

    // The upper bound of the bucket that holds the p-th permille (0 when empty).
    uint64_t percentile(uint32_t permille) const
    {
        uint64_t counts[kBuckets];
        uint64_t n = 0;
        for (uint32_t i = 0; i < kBuckets; ++i)
            n += counts[i] = buckets_[i].load(std::memory_order_relaxed);
        if (n == 0)
            return 0;
        const uint64_t rank = (n * permille + 999) / 1000;  // 1-based, rounded up
        uint64_t seen = 0;
        for (uint32_t i = 0; i < kBuckets; ++i) {
            seen += counts[i];
            if (seen >= rank && counts[i] != 0) {
                const uint64_t ub = upper_bound(i);
                return ub < max() ? ub : max();
            }
        }
        return max();
    }

private:
    std::atomic<uint64_t> buckets_[kBuckets]{};
    std::atomic<uint64_t> max_{0};
};

}  // namespace tovi::stats
