// Internal helpers of the hash table: the bucket arithmetic.
#pragma once

#include <cstdint>

#include "tovi_hash.h"

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
// top `pow` bits of the product (the inline search's, tovi_hash.h).
inline uint32_t hash_func(uint32_t key32, uint64_t key64, uint8_t pow)
{
    return tovi_hash_inl_hash_(key32, key64, pow);
}

}  // namespace tovi::hash
