// Bitmaps, population counts, byte order and the dynamic-loading wrappers.
#include <bit>
#include <cstring>
#include <dlfcn.h>

#include "tovi_bitop.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "bitmaps are read as little-endian words");

namespace {

inline volatile uint8_t *byte_of(uint64_t nr, volatile void *bitmap)
{
    return static_cast<volatile uint8_t *>(bitmap) + nr / 8;
}

inline uint8_t mask_of(uint64_t nr)
{
    return static_cast<uint8_t>(1u << (nr % 8));
}

// Word `word` of the bitmap (bits 64 * word and up) with the bits at or above
// `size` cleared and, for a search of clear bits, the bits inverted first.
// Only the bytes that hold bits below `size` are read: a bitmap need not be
// padded to whole words.
template <bool kSet>
uint64_t load_word(const uint8_t *map, uint64_t word, uint64_t size)
{
    const uint64_t bits = size - word * 64;
    uint64_t v = 0;
    std::memcpy(&v, map + word * 8, bits >= 64 ? 8 : (bits + 7) / 8);
    if (!kSet)
        v = ~v;
    return bits >= 64 ? v : v & ((uint64_t{1} << bits) - 1);
}

// Scans whole words from `start` while none qualifies, then takes the lowest
// qualifying bit of the word that has one.
template <bool kSet>
uint64_t search(const void *bitmap, uint64_t size, uint64_t start)
{
    if (start >= size)
        return size;
    const auto *map = static_cast<const uint8_t *>(bitmap);
    uint64_t word = start / 64;
    uint64_t v = load_word<kSet>(map, word, size) & (~uint64_t{0} << (start % 64));
    while (v == 0) {
        if (++word * 64 >= size)
            return size;
        v = load_word<kSet>(map, word, size);
    }
    return word * 64 + static_cast<uint64_t>(std::countr_zero(v));
}

template <bool kSet>
uint32_t checked_search(const void *bitmap, uint64_t size, uint64_t start, uint64_t *bit)
{
    uint64_t found = search<kSet>(bitmap, size, start);
    if (found >= size)
        return 0;
    *bit = found;
    return 1;
}

}  // namespace

extern "C" {

// The bit operations below are atomic on their byte and order nothing else,
// as the kernel's: they pair with no other access (callers that hand data
// over through a bit add their own ordering).

void tovi_set_bit(uint64_t nr, volatile void *bitmap)
{
    __atomic_fetch_or(byte_of(nr, bitmap), mask_of(nr), __ATOMIC_RELAXED);  // unordered, see above
}

void tovi_clear_bit(uint64_t nr, volatile void *bitmap)
{
    __atomic_fetch_and(byte_of(nr, bitmap), static_cast<uint8_t>(~mask_of(nr)), __ATOMIC_RELAXED);  // unordered
}

int tovi_test_and_set_bit(uint64_t nr, volatile void *bitmap)
{
    uint8_t old = __atomic_fetch_or(byte_of(nr, bitmap), mask_of(nr), __ATOMIC_RELAXED);  // unordered
    return (old & mask_of(nr)) != 0;
}

int tovi_test_and_clear_bit(uint64_t nr, volatile void *bitmap)
{
    uint8_t old = __atomic_fetch_and(byte_of(nr, bitmap), static_cast<uint8_t>(~mask_of(nr)),
                                     __ATOMIC_RELAXED);  // unordered
    return (old & mask_of(nr)) != 0;
}

uint64_t find_first_bit(const void *bitmap, uint64_t size)
{
    return search<true>(bitmap, size, 0);
}

uint64_t find_first_zero_bit(const void *bitmap, uint64_t size)
{
    return search<false>(bitmap, size, 0);
}

uint64_t find_next_bit(const void *bitmap, uint64_t size, uint64_t start)
{
    return search<true>(bitmap, size, start);
}

uint64_t tovi_find_next_zero_bit(const void *bitmap, uint64_t size, uint64_t start)
{
    return search<false>(bitmap, size, start);
}

uint32_t tovi_bitop_findfirstsetbit(const void *bitmap, uint64_t size, uint64_t *bit)
{
    if (bitmap == nullptr || bit == nullptr)
        return 0;
    return checked_search<true>(bitmap, size, 0, bit);
}

uint32_t tovi_bitop_findfirstclrbit(const void *bitmap, uint64_t size, uint64_t *bit)
{
    if (bitmap == nullptr || bit == nullptr)
        return 0;
    return checked_search<false>(bitmap, size, 0, bit);
}

uint32_t tovi_bitop_findnextsetbit(const void *bitmap, uint64_t size, uint64_t *bit)
{
    if (bitmap == nullptr || bit == nullptr)
        return 0;
    return checked_search<true>(bitmap, size, *bit, bit);
}

uint64_t tovi_bitop_read_u64(const void *bitmap, uint32_t nbits)
{
    if (bitmap == nullptr || nbits == 0)
        return 0;
    uint64_t v = 0;
    if (nbits >= 64) {
        std::memcpy(&v, bitmap, sizeof v);
        return v;
    }
    std::memcpy(&v, bitmap, (nbits + 7) / 8);
    return nbits % 8 == 0 ? v : v & ((uint64_t{1} << nbits) - 1);
}

uint32_t tovi_hweight32(uint32_t value)
{
    uint32_t r = value - ((value >> 1) & 0x55555555u);
    r = (r & 0x33333333u) + ((r >> 2) & 0x33333333u);
    r = (r + (r >> 4)) & 0x0F0F0F0Fu;
    r += r >> 8;
    r += r >> 16;
    return r & 0xFFu;
}

uint32_t tovi_hweight64(uint64_t value)
{
    uint64_t r = value - ((value >> 1) & 0x5555555555555555ull);
    r = (r & 0x3333333333333333ull) + ((r >> 2) & 0x3333333333333333ull);
    r = (r + (r >> 4)) & 0x0F0F0F0F0F0F0F0Full;
    r += r >> 8;
    r += r >> 16;
    r += r >> 32;
    return static_cast<uint32_t>(r & 0xFFu);
}

uint16_t tovi_endian_cputolittle16(uint16_t value)
{
    return value;
}

uint32_t tovi_endian_cputolittle32(uint32_t value)
{
    return value;
}

uint64_t tovi_endian_cputolittle64(uint64_t value)
{
    return value;
}

uint16_t tovi_endian_littletocpu16(uint16_t value)
{
    return value;
}

uint32_t tovi_endian_littletocpu32(uint32_t value)
{
    return value;
}

uint64_t tovi_endian_littletocpu64(uint64_t value)
{
    return value;
}

uint16_t tovi_endian_cputobig16(uint16_t value)
{
    return __builtin_bswap16(value);
}

uint32_t tovi_endian_cputobig32(uint32_t value)
{
    return __builtin_bswap32(value);
}

uint64_t tovi_endian_cputobig64(uint64_t value)
{
    return __builtin_bswap64(value);
}

uint16_t tovi_endian_bigtocpu16(uint16_t value)
{
    return __builtin_bswap16(value);
}

uint32_t tovi_endian_bigtocpu32(uint32_t value)
{
    return __builtin_bswap32(value);
}

uint64_t tovi_endian_bigtocpu64(uint64_t value)
{
    return __builtin_bswap64(value);
}

void *tovi_dlopen(const char *file, int mode)
{
    return dlopen(file, mode);
}

void *tovi_dlsym(void *handle, const char *name)
{
    return dlsym(handle, name);
}

char *tovi_dlerror(void)
{
    return dlerror();
}

int tovi_dlclose(void *handle)
{
    return dlclose(handle);
}

}  // extern "C"
