// The per-CPU frequency table, for the tests.
#pragma once

#include <cstdint>

namespace tovi::cpufreq {

inline constexpr uint32_t kMaxCpus = 256;
inline constexpr uint32_t kMaxFreqs = 30;
inline constexpr uint32_t kGovernorLen = 20;

struct Entry {
    uint32_t lowest;                // kHz
    uint32_t highest;               // kHz
    uint32_t freqs[kMaxFreqs];      // highest first; unused entries 0
    char governor[kGovernorLen];    // NUL-terminated in its last byte at least
};

// The entry of CPU `cpu` (below kMaxCpus), or nullptr.
const Entry *entry(uint32_t cpu);

}  // namespace tovi::cpufreq
