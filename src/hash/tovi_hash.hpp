// Internal helpers of the hash table: the bucket arithmetic.
#pragma once

#include <cstdint>

namespace tovi::hash {

// floor(log2(count)); 0 for count below 2.
constexpr uint8_t hash_get_pow(uint32_t count)
{
    uint8_t pow = 0;
    while (count > 1) {
        count >>= 1;
        ++pow;
    }
    return pow;
}

// 2^p for p below 31, else 0.
constexpr uint32_t hash_pow(uint8_t p)
{
    return p < 31 ? uint32_t{1} << p : 0;
}

// Multiplicative hash of key32 (high half) and the low half of key64: the
// top `pow` bits of the product. With pow 0 the shift is 0 and the whole low
// half of the product comes back, so the table masks it to its bucket count.
constexpr uint32_t hash_func(uint32_t key32, uint64_t key64, uint8_t pow)
{
    uint64_t word = (uint64_t{key32} << 32) | (key64 & 0xFFFFFFFFu);
    return static_cast<uint32_t>((word * 0x9e37fffffffc0001ULL) >> ((64u - pow) & 63u));
}

}  // namespace tovi::hash
