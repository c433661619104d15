// Bitmaps, bit searches, population counts, byte order, the loader wrappers,
// CRC32C and CRC16.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "child.hpp"
#include "tovi_arch.hpp"
#include "tovi_bitop.h"
#include "tovi_bitop.hpp"
#include "tovi_init.h"

namespace {

std::vector<uint8_t> random_bytes(size_t n, uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto &b : v)
        b = static_cast<uint8_t>(rng());
    return v;
}

// Bit-by-bit references from the polynomials: they share nothing with the
// library's tables.
uint32_t crc32c_bitwise(uint32_t crc, const uint8_t *p, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0x82F63B78u & (0u - (crc & 1u)));
    }
    return crc;
}

uint16_t crc16_bitwise(uint16_t crc, const uint8_t *p, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        crc ^= static_cast<uint16_t>(p[i] << 8);
        for (int k = 0; k < 8; ++k)
            crc = static_cast<uint16_t>((crc & 0x8000u) != 0 ? (crc << 1) ^ 0x8BB7u : crc << 1);
    }
    return crc;
}

const char kDigits[] = "123456789";

}  // namespace

// Runs first: nothing has touched the dispatch yet.
TEST(Crc32cDispatch, EmptyUntilStartUpPointsItAtTheHardwareRoutine)
{
    using tovi::bitop::crc32c_dispatch, tovi::bitop::crc32c_hardware_routine;
    EXPECT_EQ(crc32c_dispatch(), nullptr);
    auto started = [] { return tovi_Init() != 0 ? 1 : crc32c_dispatch() == crc32c_hardware_routine() ? 0 : 2; };
    EXPECT_EQ(tovi::test::run_in_child(started), 0);
    EXPECT_EQ(tovi_crc32_init(), 0u);
    EXPECT_EQ(crc32c_dispatch(), crc32c_hardware_routine());
}

TEST(BitopAtomic, ConcurrentUpdatesAreNeverLostAndEachBitHasOneWinner)
{
    // Each thread flips two bits of every byte: a non-atomic read-modify-write
    // would drop another thread's change. Then all race for every bit of `big`.
    constexpr unsigned kThreads = 4;
    uint8_t map[8] = {};
    std::vector<uint8_t> big(512, 0);
    std::vector<uint64_t> errors(kThreads, 0), wins(kThreads, 0);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int r = 0; r < 4000; ++r)
                for (uint64_t byte = 0; byte < sizeof map; ++byte) {
                    uint64_t a = byte * 8 + t, b = byte * 8 + t + kThreads;
                    tovi_set_bit(a, map);
                    errors[t] += tovi_test_and_set_bit(b, map) != 0;
                    errors[t] += tovi_test_and_clear_bit(a, map) != 1;
                    tovi_clear_bit(b, map);
                }
            for (uint64_t byte = 0; byte < sizeof map; ++byte)
                tovi_set_bit(byte * 8 + t, map);
            for (uint64_t i = 0; i < 4096; ++i)
                wins[t] += tovi_test_and_set_bit((i * 7 + t * 1031) % 4096, big.data()) == 0;
        });
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(errors, std::vector<uint64_t>(kThreads, 0));
    EXPECT_TRUE(std::all_of(std::begin(map), std::end(map), [](uint8_t b) { return b == 0x0F; }));
    EXPECT_EQ(wins[0] + wins[1] + wins[2] + wins[3], 4096u);
    EXPECT_TRUE(std::all_of(big.begin(), big.end(), [](uint8_t b) { return b == 0xFF; }));
}

// Bitmaps in heap blocks of exactly the bytes that hold their bits, so that
// the sanitizer reports any read past them; bits above the size hold noise.
TEST(BitopSearch, AgreesWithANaiveScanOnRandomBitmaps)
{
    std::mt19937_64 rng(7);
    const unsigned densities[] = {0, 1, 50, 99, 100};
    for (int round = 0; round < 400; ++round) {
        uint64_t size = round < 10 ? static_cast<uint64_t>(round) : rng() % 300;
        unsigned pct = densities[round % 5];
        auto bytes = std::make_unique<uint8_t[]>((size + 7) / 8);
        std::vector<bool> bits;
        for (uint64_t i = 0; i < (size + 7) / 8 * 8; ++i) {
            bool set = i < size ? rng() % 100 < pct : rng() % 2 == 0;
            bytes[i / 8] = static_cast<uint8_t>(bytes[i / 8] | (set ? 1u << (i % 8) : 0u));
            if (i < size)
                bits.push_back(set);
        }
        auto naive = [&](uint64_t start, bool set) {
            return start >= size ? size : static_cast<uint64_t>(std::find(bits.begin() + start, bits.end(), set) - bits.begin());
        };
        const void *map = bytes.get();
        SCOPED_TRACE("size " + std::to_string(size) + " density " + std::to_string(pct));
        ASSERT_EQ(find_first_bit(map, size), naive(0, true));
        ASSERT_EQ(find_first_zero_bit(map, size), naive(0, false));
        for (uint64_t start = 0; start <= size + 2; ++start) {
            ASSERT_EQ(find_next_bit(map, size, start), naive(start, true)) << start;
            ASSERT_EQ(tovi_find_next_zero_bit(map, size, start), naive(start, false)) << start;
        }
        uint64_t bit = 12345, set = naive(0, true), clear = naive(0, false);
        ASSERT_EQ(tovi_bitop_findfirstsetbit(map, size, &bit), set < size ? 1u : 0u);
        ASSERT_EQ(bit, set < size ? set : 12345u) << "nothing found leaves the output alone";
        ASSERT_EQ(tovi_bitop_findfirstclrbit(map, size, &bit), clear < size ? 1u : 0u);
        ASSERT_EQ(bit, clear < size ? clear : set < size ? set : 12345u);
        std::vector<uint64_t> visited, expected;
        for (uint64_t b = 0; tovi_bitop_findnextsetbit(map, size, &b); ++b)
            visited.push_back(b);
        for (uint64_t i = 0; i < size; ++i)
            if (bits[i])
                expected.push_back(i);
        ASSERT_EQ(visited, expected);
    }
    const uint8_t ones[2] = {0xFF, 0xFF};
    uint64_t bit = 77;  // refused calls find nothing and leave it
    EXPECT_EQ(find_next_bit(ones, 16, 1u << 20), 16u);
    EXPECT_EQ(tovi_bitop_findfirstsetbit(nullptr, 16, &bit) + tovi_bitop_findfirstsetbit(ones, 16, nullptr) + tovi_bitop_findfirstclrbit(nullptr, 16, &bit) +
                  tovi_bitop_findnextsetbit(nullptr, 16, &bit) + tovi_bitop_findnextsetbit(ones, 16, nullptr) + bit, 77u);
}

TEST(BitopWords, CountsReadsAndByteOrder)
{
    std::mt19937_64 rng(3);
    for (int i = 0; i < 10000; ++i) {
        uint64_t v = i == 0 ? ~uint64_t{0} : i == 1 ? 0 : rng() & rng();
        ASSERT_EQ(tovi_hweight64(v), static_cast<uint32_t>(std::popcount(v))) << std::hex << v;
        auto v32 = static_cast<uint32_t>(i < 2 ? v : v >> 7);
        ASSERT_EQ(tovi_hweight32(v32), static_cast<uint32_t>(std::popcount(v32))) << std::hex << v32;
    }

    // read_u64 gets exactly the bytes holding the bits asked for (nine past 64)
    // so that the sanitizer sees any read past them.
    const uint64_t word = 0xF1E2D3C4B5A69788u;
    for (uint32_t n = 0; n <= 72; ++n) {
        size_t len = n > 64 ? 9 : std::max(1u, (n + 7) / 8);
        auto p = std::make_unique<uint8_t[]>(len);
        std::memcpy(p.get(), &word, std::min<size_t>(len, 8));
        uint64_t expected = n >= 64 ? word : word & ((uint64_t{1} << n) - 1);
        EXPECT_EQ(tovi_bitop_read_u64(p.get(), n == 72 ? 1000 : n), expected) << n;
    }
    EXPECT_EQ(tovi_bitop_read_u64(nullptr, 12), 0u);

    // Byte order: little is the identity here, big a swap.
    const uint64_t v = 0x0102030405060708u, swapped = 0x0807060504030201u;
    EXPECT_EQ((std::vector<uint64_t>{tovi_endian_cputolittle64(v), tovi_endian_littletocpu64(v), tovi_endian_cputobig64(v),
                                     tovi_endian_bigtocpu64(v), tovi_endian_cputolittle32(0x12345678u), tovi_endian_littletocpu32(0x12345678u),
                                     tovi_endian_cputobig32(0x12345678u), tovi_endian_bigtocpu32(0x12345678u), tovi_endian_cputolittle16(0x1234),
                                     tovi_endian_littletocpu16(0x1234), tovi_endian_cputobig16(0x1234), tovi_endian_bigtocpu16(0x1234)}),
              (std::vector<uint64_t>{v, v, swapped, swapped, 0x12345678u, 0x12345678u, 0x78563412u, 0x78563412u, 0x1234, 0x1234, 0x3412, 0x3412}));
}

TEST(BitopDl, WrappersForwardToTheLoader)
{
    void *libc = tovi_dlopen("libc.so.6", RTLD_NOW);
    ASSERT_NE(libc, nullptr) << tovi_dlerror();
    auto *len = reinterpret_cast<size_t (*)(const char *)>(tovi_dlsym(libc, "strlen"));
    ASSERT_NE(len, nullptr);
    EXPECT_EQ(len("four"), 4u);
    auto error = [] { const char *e = tovi_dlerror(); return std::string(e != nullptr ? e : "<none>"); };
    EXPECT_EQ(tovi_dlsym(libc, "tovi_no_such_symbol"), nullptr);
    EXPECT_NE(error().find("tovi_no_such_symbol"), std::string::npos);
    EXPECT_EQ(error(), "<none>") << "reading the error clears it";
    EXPECT_EQ(tovi_dlclose(libc), 0);
    EXPECT_EQ(tovi_dlopen("/nonexistent/libtovi_missing.so", RTLD_NOW), nullptr);
    EXPECT_NE(error().find("libtovi_missing.so"), std::string::npos);
}

// Every path (table, hardware, dispatch, copy, each folding routine on whole
// 16-byte blocks) against
// the bitwise reference, over lengths and alignments around the block sizes.
TEST(Crc32c, EveryPathMatchesTheReference)
{
    tovi_crc32_init();
    EXPECT_EQ(std::make_pair(tovi_crc32c(kDigits, 9), tovi_crc32c_soft(kDigits, 9)), std::make_pair(0xE3069283u, 0xE3069283u));
    std::vector<uint8_t> data = random_bytes(70000, 11);
    std::mt19937 rng(5);
    tovi::arch::Crc32cFold folds[8];
    unsigned nfolds = tovi::arch::crc32c_fold_routines(folds, 8);
    std::vector<uint8_t> dst(70002);
    auto compare = [&](uint32_t len, size_t align) {
        uint32_t init = rng();
        const uint8_t *p = data.data() + align;
        uint32_t ref = crc32c_bitwise(init, p, len);
        SCOPED_TRACE("length " + std::to_string(len) + " alignment " + std::to_string(align));
        ASSERT_EQ((std::vector<uint32_t>{tovi_crc32cContinueSoft(init, p, len), tovi_crc32cContinueHard(init, p, len),
                                         tovi_crc32cContinue(init, p, len)}),
                  std::vector<uint32_t>(3, ref));
        for (unsigned r = 0; r < nfolds && len >= tovi::arch::kCrc32cFoldMin && len % 16 == 0; ++r)
            ASSERT_EQ(folds[r](init, p, len), ref) << "folding routine " << r;
        dst[0] = dst[len + 1] = 0xEE;
        ASSERT_EQ(tovi_crc32cContinue_with_cpy(init, p, len, dst.data() + 1), ref);
        ASSERT_EQ(std::memcmp(dst.data() + 1, p, len), 0);
        ASSERT_EQ(dst[0] + dst[len + 1], 2 * 0xEE) << "nothing written around the copy";
    };
    for (uint32_t len = 0; len <= 1200; ++len)
        compare(len, len % 16);
    for (size_t align = 0; align < 16; ++align)
        for (uint32_t len : {1500u, 2048u, 3072u, 4095u, 4096u, 4097u})
            compare(len, align);
    for (uint32_t len : {11264u, 11265u, 11280u, 11616u, 12288u, 22528u, 23232u, 30000u, 65536u + 13u})
        compare(len, 3);
}

TEST(Crc32c, PiecesChainAndNullLeavesTheCrc)
{
    tovi_crc32_init();
    std::vector<uint8_t> d = random_bytes(9000, 13);
    uint32_t crc = tovi_crc32cContinueHard(tovi_crc32cStart(d.data(), 1000), d.data() + 1000, 3001);
    EXPECT_EQ(tovi_crc32cEnd(tovi_crc32cContinue(crc, d.data() + 4001, 4999)), tovi_crc32c(d.data(), 9000));
    const uint32_t c = 0x12345678u;
    uint8_t dst[4] = {1, 2, 3, 4};  // nothing to read or nowhere to copy: the crc comes back as given
    for (auto f : {tovi_crc32cContinue, tovi_crc32cContinueHard, tovi_crc32cContinueSoft})
        EXPECT_EQ(std::make_pair(f(c, nullptr, 10), f(c, kDigits, 0)), std::make_pair(c, c));
    EXPECT_EQ(tovi_crc32cContinue_with_cpy(c, nullptr, 4, dst) ^ tovi_crc32cContinue_with_cpy(c, kDigits, 4, nullptr) ^
                  tovi_crc32cContinue_with_cpy(c, kDigits, 0, dst) ^ dst[0], c ^ 1u);
    EXPECT_EQ(tovi_crc32c_soft(nullptr, 10) + tovi_crc32c_soft(kDigits, 0) + tovi_crc32c(nullptr, 0) + tovi_crc32cStart(nullptr, 5), 0xFFFFFFFFu);
}

TEST(Crc16, EveryPathMatchesTheReferenceAndChains)
{
    EXPECT_EQ(std::make_pair(tovi_crc16(0, kDigits, 9), tovi_crc16_soft(0, kDigits, 9)), std::make_pair(uint16_t{0xD0DB}, uint16_t{0xD0DB}));
    EXPECT_EQ(std::make_pair(tovi_crc16(7, nullptr, 9), tovi_crc16_soft(7, nullptr, 9)), std::make_pair(uint16_t{7}, uint16_t{7}));
    std::vector<uint8_t> data = random_bytes(20000, 15);
    std::mt19937 rng(10);
    auto compare = [&](size_t len, size_t align) {
        auto init = static_cast<uint16_t>(rng());
        const uint8_t *p = data.data() + align;
        uint16_t ref = crc16_bitwise(init, p, len);
        ASSERT_EQ(std::make_pair(tovi_crc16_soft(init, p, len), tovi_crc16(init, p, len)), std::make_pair(ref, ref)) << len << " at " << align;
    };
    for (size_t len = 0; len <= 600; ++len)
        compare(len, len % 16);
    for (size_t len : {4095u, 4096u, 4097u, 19000u})
        compare(len, 5);
}
