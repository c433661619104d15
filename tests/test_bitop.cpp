// Bitmaps, bit searches, population counts, byte order, the loader wrappers,
// CRC32C and CRC16.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <bitset>
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

// A bitmap in a heap block of exactly the bytes that hold its bits, so that
// the sanitizer reports any read past them. Bits at and above `bits` in the
// last byte hold noise, which the searches must ignore.
struct Bitmap {
    uint64_t bits;
    std::unique_ptr<uint8_t[]> bytes;

    Bitmap(std::mt19937_64 &rng, uint64_t nbits, unsigned percent_set)
        : bits(nbits), bytes(new uint8_t[(nbits + 7) / 8])
    {
        std::memset(bytes.get(), 0, (nbits + 7) / 8);
        for (uint64_t i = 0; i < (nbits + 7) / 8 * 8; ++i) {
            bool set = i < nbits ? rng() % 100 < percent_set : rng() % 2 == 0;
            if (set)
                bytes[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
        }
    }

    bool test(uint64_t i) const { return (bytes[i / 8] >> (i % 8)) & 1u; }

    uint64_t naive_next(uint64_t start, bool set) const
    {
        for (uint64_t i = start; i < bits; ++i)
            if (test(i) == set)
                return i;
        return bits;
    }
};

std::vector<uint8_t> random_bytes(size_t n, uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto &b : v)
        b = static_cast<uint8_t>(rng());
    return v;
}

// CRC32C bit by bit from the polynomial: a reference that shares nothing
// with the library's table.
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
    EXPECT_EQ(tovi::bitop::crc32c_dispatch(), nullptr);
    int rc = tovi::test::run_in_child([] {
        if (tovi_Init() != 0)
            return 1;
        return tovi::bitop::crc32c_dispatch() == tovi::bitop::crc32c_hardware_routine() ? 0 : 2;
    });
    EXPECT_EQ(rc, 0);

    EXPECT_EQ(tovi_crc32_init(), 0u);
    EXPECT_EQ(tovi::bitop::crc32c_dispatch(), tovi::bitop::crc32c_hardware_routine());
}

TEST(BitopAtomic, OperationsFollowABitsetModel)
{
    std::mt19937_64 rng(1);
    std::bitset<200> model;
    uint8_t map[25] = {};
    for (int step = 0; step < 20000; ++step) {
        uint64_t nr = rng() % 200;
        switch (rng() % 4) {
        case 0:
            tovi_set_bit(nr, map);
            model.set(nr);
            break;
        case 1:
            tovi_clear_bit(nr, map);
            model.reset(nr);
            break;
        case 2:
            ASSERT_EQ(tovi_test_and_set_bit(nr, map), model.test(nr) ? 1 : 0) << "bit " << nr;
            model.set(nr);
            break;
        default:
            ASSERT_EQ(tovi_test_and_clear_bit(nr, map), model.test(nr) ? 1 : 0) << "bit " << nr;
            model.reset(nr);
            break;
        }
        if (step % 97 == 0) {
            for (uint64_t i = 0; i < 200; ++i)
                ASSERT_EQ((map[i / 8] >> (i % 8)) & 1, model.test(i) ? 1 : 0) << "bit " << i << " at step " << step;
        }
    }
}

TEST(BitopAtomic, ConcurrentUpdatesOfSharedBytesAreNeverLost)
{
    // Each thread owns two bits of every byte and flips them back and forth:
    // a non-atomic read-modify-write would drop another thread's change and
    // show up as a wrong previous value.
    constexpr unsigned kThreads = 4;
    constexpr int kRounds = 4000;
    uint8_t map[8] = {};
    std::vector<std::thread> threads;
    std::vector<int> errors(kThreads, 0);
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&map, &errors, t] {
            for (int r = 0; r < kRounds; ++r)
                for (uint64_t byte = 0; byte < sizeof map; ++byte) {
                    uint64_t a = byte * 8 + t, b = byte * 8 + t + kThreads;
                    tovi_set_bit(a, map);
                    errors[t] += tovi_test_and_set_bit(b, map) != 0;
                    errors[t] += tovi_test_and_clear_bit(a, map) != 1;
                    tovi_clear_bit(b, map);
                }
            for (uint64_t byte = 0; byte < sizeof map; ++byte)
                tovi_set_bit(byte * 8 + t, map);
        });
    for (auto &th : threads)
        th.join();
    for (unsigned t = 0; t < kThreads; ++t)
        EXPECT_EQ(errors[t], 0) << "thread " << t;
    for (uint8_t b : map)
        EXPECT_EQ(b, 0x0F);
}

TEST(BitopAtomic, TestAndSetHasExactlyOneWinnerPerBit)
{
    constexpr unsigned kThreads = 4;
    constexpr uint64_t kBits = 4096;
    std::vector<uint8_t> map(kBits / 8, 0);
    std::vector<uint64_t> wins(kThreads, 0);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&map, &wins, t] {
            for (uint64_t i = 0; i < kBits; ++i)
                wins[t] += tovi_test_and_set_bit((i * 7 + t * 1031) % kBits, map.data()) == 0;
        });
    for (auto &th : threads)
        th.join();
    uint64_t total = 0;
    for (uint64_t w : wins)
        total += w;
    EXPECT_EQ(total, kBits);
    EXPECT_TRUE(std::all_of(map.begin(), map.end(), [](uint8_t b) { return b == 0xFF; }));
}

TEST(BitopSearch, AgreesWithANaiveScanOnRandomBitmaps)
{
    std::mt19937_64 rng(7);
    const unsigned densities[] = {0, 1, 50, 99, 100};
    for (int round = 0; round < 400; ++round) {
        uint64_t size = round < 10 ? static_cast<uint64_t>(round) : rng() % 300;
        Bitmap m(rng, size, densities[round % 5]);
        const void *map = m.bytes.get();
        SCOPED_TRACE("size " + std::to_string(size) + " density " + std::to_string(densities[round % 5]));

        ASSERT_EQ(find_first_bit(map, size), m.naive_next(0, true));
        ASSERT_EQ(find_first_zero_bit(map, size), m.naive_next(0, false));
        for (uint64_t start = 0; start <= size + 2; ++start) {
            ASSERT_EQ(find_next_bit(map, size, start), start >= size ? size : m.naive_next(start, true))
                << "start " << start;
            ASSERT_EQ(tovi_find_next_zero_bit(map, size, start), start >= size ? size : m.naive_next(start, false))
                << "start " << start;
        }

        uint64_t bit = 12345;
        uint64_t first_set = m.naive_next(0, true), first_clear = m.naive_next(0, false);
        ASSERT_EQ(tovi_bitop_findfirstsetbit(map, size, &bit), first_set < size ? 1u : 0u);
        if (first_set < size) {
            ASSERT_EQ(bit, first_set);
        }
        ASSERT_EQ(tovi_bitop_findfirstclrbit(map, size, &bit), first_clear < size ? 1u : 0u);
        if (first_clear < size) {
            ASSERT_EQ(bit, first_clear);
        }

        std::vector<uint64_t> visited, expected;
        for (uint64_t b = 0; tovi_bitop_findnextsetbit(map, size, &b); ++b)
            visited.push_back(b);
        for (uint64_t i = 0; i < size; ++i)
            if (m.test(i))
                expected.push_back(i);
        ASSERT_EQ(visited, expected);
    }
}

TEST(BitopSearch, EmptyAndOutOfRangeSearches)
{
    const uint8_t zeros[13] = {};
    EXPECT_EQ(find_first_bit(zeros, 100), 100u);
    EXPECT_EQ(find_first_zero_bit(zeros, 100), 0u);
    const uint8_t ones[13] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(find_first_zero_bit(ones, 100), 100u);
    EXPECT_EQ(find_first_bit(ones, 0), 0u);
    EXPECT_EQ(find_next_bit(ones, 100, 100), 100u);
    EXPECT_EQ(find_next_bit(ones, 100, 1u << 20), 100u);
    EXPECT_EQ(find_next_bit(ones, 100, 99), 99u);

    uint64_t bit = 77;
    EXPECT_EQ(tovi_bitop_findfirstsetbit(nullptr, 100, &bit), 0u);
    EXPECT_EQ(tovi_bitop_findfirstsetbit(ones, 100, nullptr), 0u);
    EXPECT_EQ(tovi_bitop_findfirstclrbit(nullptr, 100, &bit), 0u);
    EXPECT_EQ(tovi_bitop_findfirstclrbit(zeros, 100, nullptr), 0u);
    EXPECT_EQ(tovi_bitop_findnextsetbit(nullptr, 100, &bit), 0u);
    EXPECT_EQ(tovi_bitop_findnextsetbit(ones, 100, nullptr), 0u);
    EXPECT_EQ(tovi_bitop_findfirstsetbit(ones, 0, &bit), 0u);
    EXPECT_EQ(bit, 77u) << "nothing found leaves the output alone";
    EXPECT_EQ(tovi_bitop_findfirstclrbit(ones, 100, &bit), 0u);
    EXPECT_EQ(tovi_bitop_findfirstsetbit(zeros, 100, &bit), 0u);
    EXPECT_EQ(bit, 77u);
}

TEST(BitopHweight, CountsMatchPopcount)
{
    EXPECT_EQ(tovi_hweight32(0), 0u);
    EXPECT_EQ(tovi_hweight32(0xFFFFFFFFu), 32u);
    EXPECT_EQ(tovi_hweight64(0), 0u);
    EXPECT_EQ(tovi_hweight64(~uint64_t{0}), 64u);
    EXPECT_EQ(tovi_hweight64(0x8000000000000001u), 2u);
    std::mt19937_64 rng(3);
    for (int i = 0; i < 10000; ++i) {
        uint64_t v = rng() & rng();
        ASSERT_EQ(tovi_hweight64(v), static_cast<uint32_t>(std::popcount(v))) << std::hex << v;
        auto v32 = static_cast<uint32_t>(v >> 7);
        ASSERT_EQ(tovi_hweight32(v32), static_cast<uint32_t>(std::popcount(v32))) << std::hex << v32;
    }
}

TEST(Crc32c, Rfc3720Vectors)
{
    tovi_crc32_init();
    uint8_t buf[48] = {};
    struct Case {
        const char *name;
        size_t len;
        uint32_t crc;
    };
    auto check = [&buf](const Case &c) {
        EXPECT_EQ(tovi_crc32c(buf, static_cast<uint32_t>(c.len)), c.crc) << c.name;
        EXPECT_EQ(tovi_crc32c_soft(buf, static_cast<uint32_t>(c.len)), c.crc) << c.name;
        EXPECT_EQ(~tovi_crc32cContinueHard(0xFFFFFFFFu, buf, static_cast<uint32_t>(c.len)), c.crc) << c.name;
    };
    check({"32 bytes of zeros", 32, 0x8A9136AAu});
    std::memset(buf, 0xFF, 32);
    check({"32 bytes of ones", 32, 0x62A8AB43u});
    for (int i = 0; i < 32; ++i)
        buf[i] = static_cast<uint8_t>(i);
    check({"32 incrementing bytes", 32, 0x46DD794Eu});
    for (int i = 0; i < 32; ++i)
        buf[i] = static_cast<uint8_t>(31 - i);
    check({"32 decrementing bytes", 32, 0x113FDB5Cu});
    const uint8_t pdu[48] = {0x01, 0xc0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x14, 0, 0, 0, 0, 0, 0x04, 0,
                             0, 0, 0, 0x14, 0, 0, 0, 0x18, 0x28, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 0, 0};
    std::memcpy(buf, pdu, sizeof pdu);
    check({"iSCSI read command PDU", 48, 0xD9963A56u});
}

TEST(Crc32c, HardwareEqualsTableOverLengthsAndAlignments)
{
    tovi_crc32_init();
    std::vector<uint8_t> data = random_bytes(70000, 11);
    std::mt19937 rng(5);
    auto compare = [&](size_t len, size_t align) {
        uint32_t init = rng();
        const uint8_t *p = data.data() + align;
        uint32_t soft = tovi_crc32cContinueSoft(init, p, static_cast<uint32_t>(len));
        ASSERT_EQ(tovi_crc32cContinueHard(init, p, static_cast<uint32_t>(len)), soft)
            << "length " << len << " alignment " << align;
        ASSERT_EQ(tovi_crc32cContinue(init, p, static_cast<uint32_t>(len)), soft)
            << "length " << len << " alignment " << align;
    };
    for (size_t len = 0; len <= 1200; ++len)
        compare(len, len % 16);
    for (size_t align = 0; align < 16; ++align)
        for (size_t len : {63u, 64u, 127u, 128u, 129u, 255u, 256u, 257u, 703u, 704u, 4095u, 4096u, 4097u})
            compare(len, align);
    for (size_t len : {11264u, 11265u, 11280u, 22528u, 30000u, 65536u + 13u})
        compare(len, 3);
}

TEST(Crc32c, EveryFoldingRoutineMatchesTheTable)
{
    tovi::arch::Crc32cFold routines[8];
    unsigned count = tovi::arch::crc32c_fold_routines(routines, 8);
    if (count == 0)
        GTEST_SKIP() << "no carry-less multiply on this processor";
    std::vector<uint8_t> data = random_bytes(40000, 12);
    std::mt19937 rng(6);
    std::vector<uint64_t> lengths;
    for (uint64_t n = tovi::arch::kCrc32cFoldMin; n <= 3072; n += 16)
        lengths.push_back(n);
    for (uint64_t n : {4096u, 11264u, 11264u + 352u, 12288u, 23232u, 39984u})
        lengths.push_back(n);
    for (unsigned r = 0; r < count; ++r)
        for (uint64_t n : lengths) {
            uint32_t init = rng();
            const uint8_t *p = data.data() + n % 7;
            ASSERT_EQ(routines[r](init, p, n), crc32c_bitwise(init, p, n)) << "routine " << r << " length " << n;
        }
}

TEST(Crc32c, CopyVariantCopiesAndContinues)
{
    std::vector<uint8_t> src = random_bytes(20000, 14);
    std::mt19937 rng(9);
    for (uint32_t len : {1u, 7u, 64u, 300u, 4095u, 4096u, 4097u, 12345u, 20000u}) {
        std::vector<uint8_t> dst(len + 2, 0xEE);
        uint32_t init = rng();
        EXPECT_EQ(tovi_crc32cContinue_with_cpy(init, src.data(), len, dst.data() + 1),
                  tovi_crc32cContinueSoft(init, src.data(), len))
            << len;
        EXPECT_EQ(std::memcmp(dst.data() + 1, src.data(), len), 0) << len;
        EXPECT_EQ(dst[0], 0xEE);
        EXPECT_EQ(dst[len + 1], 0xEE) << "nothing written past the length";
    }
    uint8_t dst[4] = {1, 2, 3, 4};
    EXPECT_EQ(tovi_crc32cContinue_with_cpy(0xABCDu, nullptr, 4, dst), 0xABCDu);
    EXPECT_EQ(tovi_crc32cContinue_with_cpy(0xABCDu, kDigits, 4, nullptr), 0xABCDu);
    EXPECT_EQ(tovi_crc32cContinue_with_cpy(0xABCDu, kDigits, 0, dst), 0xABCDu);
    EXPECT_EQ(dst[0], 1);
}

TEST(Crc16, CheckValueOnBothPaths)
{
    EXPECT_EQ(tovi_crc16(0, kDigits, 9), 0xD0DBu);
    EXPECT_EQ(tovi_crc16_soft(0, kDigits, 9), 0xD0DBu);
}

TEST(Crc16, VectorRoutineEqualsTableAndChains)
{
    std::vector<uint8_t> data = random_bytes(20000, 15);
    std::mt19937 rng(10);
    auto compare = [&](size_t len, size_t align) {
        auto init = static_cast<uint16_t>(rng());
        const uint8_t *p = data.data() + align;
        uint16_t soft = tovi_crc16_soft(init, p, len);
        ASSERT_EQ(soft, crc16_bitwise(init, p, len)) << len;
        ASSERT_EQ(tovi_crc16(init, p, len), soft) << "length " << len << " alignment " << align;
    };
    for (size_t len = 0; len <= 600; ++len)
        compare(len, len % 16);
    for (size_t len : {4095u, 4096u, 4097u, 19000u})
        compare(len, 5);

    uint16_t whole = tovi_crc16(0x1D0F, data.data(), 5000);
    EXPECT_EQ(tovi_crc16(tovi_crc16(0x1D0F, data.data(), 1234), data.data() + 1234, 5000 - 1234), whole);
    EXPECT_EQ(tovi_crc16_soft(tovi_crc16_soft(0x1D0F, data.data(), 17), data.data() + 17, 5000 - 17), whole);
}

TEST(BitopReadU64, ReadsOnlyTheBytesHoldingTheBits)
{
    auto exact = [](std::initializer_list<uint8_t> bytes) {
        auto p = std::make_unique<uint8_t[]>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), p.get());
        return p;
    };
    auto two = exact({0xFF, 0xFF});
    EXPECT_EQ(tovi_bitop_read_u64(two.get(), 12), 0xFFFu);
    EXPECT_EQ(tovi_bitop_read_u64(two.get(), 16), 0xFFFFu);
    EXPECT_EQ(tovi_bitop_read_u64(two.get(), 0), 0u);
    EXPECT_EQ(tovi_bitop_read_u64(nullptr, 12), 0u);
    auto one = exact({0xA5});
    EXPECT_EQ(tovi_bitop_read_u64(one.get(), 3), 0x5u);
    EXPECT_EQ(tovi_bitop_read_u64(one.get(), 8), 0xA5u);

    auto nine = exact({1, 2, 3, 4, 5, 6, 7, 8, 9});
    EXPECT_EQ(tovi_bitop_read_u64(nine.get(), 64), 0x0807060504030201u);
    EXPECT_EQ(tovi_bitop_read_u64(nine.get(), 1000), 0x0807060504030201u) << "64 bits or more: the first word";
    for (uint32_t n = 1; n < 64; ++n)
        EXPECT_EQ(tovi_bitop_read_u64(nine.get(), n), 0x0807060504030201u & ((uint64_t{1} << n) - 1)) << n;
}

TEST(BitopEndian, LittleIsIdentityBigIsASwap)
{
    EXPECT_EQ(tovi_endian_cputolittle16(0x1234), 0x1234);
    EXPECT_EQ(tovi_endian_cputolittle32(0x12345678u), 0x12345678u);
    EXPECT_EQ(tovi_endian_cputolittle64(0x0102030405060708u), 0x0102030405060708u);
    EXPECT_EQ(tovi_endian_littletocpu16(0x1234), 0x1234);
    EXPECT_EQ(tovi_endian_littletocpu32(0x12345678u), 0x12345678u);
    EXPECT_EQ(tovi_endian_littletocpu64(0x0102030405060708u), 0x0102030405060708u);
    EXPECT_EQ(tovi_endian_cputobig16(0x1234), 0x3412);
    EXPECT_EQ(tovi_endian_cputobig32(0x12345678u), 0x78563412u);
    EXPECT_EQ(tovi_endian_cputobig64(0x0102030405060708u), 0x0807060504030201u);
    EXPECT_EQ(tovi_endian_bigtocpu16(0x1234), 0x3412);
    EXPECT_EQ(tovi_endian_bigtocpu32(0x12345678u), 0x78563412u);
    EXPECT_EQ(tovi_endian_bigtocpu64(0x0102030405060708u), 0x0807060504030201u);

    uint32_t wire = tovi_endian_cputobig32(0xCAFEF00Du);
    uint8_t bytes[4];
    std::memcpy(bytes, &wire, 4);
    EXPECT_EQ(bytes[0], 0xCA) << "big-endian puts the high byte first in memory";
    EXPECT_EQ(bytes[3], 0x0D);
}

TEST(BitopDl, WrappersForwardToTheLoader)
{
    void *libc = tovi_dlopen("libc.so.6", RTLD_NOW);
    ASSERT_NE(libc, nullptr) << tovi_dlerror();
    auto *len = reinterpret_cast<size_t (*)(const char *)>(tovi_dlsym(libc, "strlen"));
    ASSERT_NE(len, nullptr);
    EXPECT_EQ(len("four"), 4u);
    EXPECT_EQ(tovi_dlsym(libc, "tovi_no_such_symbol"), nullptr);
    const char *err = tovi_dlerror();
    ASSERT_NE(err, nullptr);
    EXPECT_NE(std::strstr(err, "tovi_no_such_symbol"), nullptr) << err;
    EXPECT_EQ(tovi_dlerror(), nullptr) << "reading the error clears it";
    EXPECT_EQ(tovi_dlclose(libc), 0);

    EXPECT_EQ(tovi_dlopen("/nonexistent/libtovi_missing.so", RTLD_NOW), nullptr);
    err = tovi_dlerror();
    ASSERT_NE(err, nullptr);
    EXPECT_NE(std::strstr(err, "libtovi_missing.so"), nullptr) << err;
}

TEST(Crc32c, ChainedPiecesEqualOneCall)
{
    tovi_crc32_init();
    std::vector<uint8_t> data = random_bytes(9000, 13);
    std::mt19937 rng(8);
    for (int round = 0; round < 300; ++round) {
        uint32_t len = rng() % 9000;
        uint32_t whole = tovi_crc32c(data.data(), len);
        uint32_t cut1 = len == 0 ? 0 : rng() % (len + 1);
        uint32_t cut2 = cut1 + (len == cut1 ? 0 : rng() % (len - cut1 + 1));
        uint32_t crc = tovi_crc32cStart(data.data(), cut1);
        crc = tovi_crc32cContinue(crc, data.data() + cut1, cut2 - cut1);
        crc = tovi_crc32cContinueHard(crc, data.data() + cut2, len - cut2);
        ASSERT_EQ(tovi_crc32cEnd(crc), whole) << len << " cut at " << cut1 << ", " << cut2;
        ASSERT_EQ(tovi_crc32c_soft(data.data(), len), whole) << len;
    }
}

TEST(Crc32c, NullOrEmptyBufferLeavesTheCrc)
{
    tovi_crc32_init();
    EXPECT_EQ(tovi_crc32cContinue(0x12345678u, nullptr, 10), 0x12345678u);
    EXPECT_EQ(tovi_crc32cContinue(0x12345678u, kDigits, 0), 0x12345678u);
    EXPECT_EQ(tovi_crc32cContinueHard(0x12345678u, nullptr, 10), 0x12345678u);
    EXPECT_EQ(tovi_crc32cContinueSoft(0x12345678u, nullptr, 10), 0x12345678u);
    EXPECT_EQ(tovi_crc32cContinueSoft(0x12345678u, kDigits, 0), 0x12345678u);
    EXPECT_EQ(tovi_crc32c_soft(nullptr, 10), 0u);
    EXPECT_EQ(tovi_crc32c_soft(kDigits, 0), 0u);
    EXPECT_EQ(tovi_crc32c(nullptr, 0), 0u);
    EXPECT_EQ(tovi_crc32cStart(nullptr, 5), 0xFFFFFFFFu);
}
