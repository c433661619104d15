// AES: the FIPS-197 appendix C and AESAVS GFSbox known answers in both
// directions, in place; a released key leaves nothing behind; refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_crypt.h"

namespace {

std::vector<uint8_t> hex(const std::string &s)
{
    std::vector<uint8_t> v;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        v.push_back(static_cast<uint8_t>(std::stoul(s.substr(i, 2), nullptr, 16)));
    return v;
}

}  // namespace

TEST(Crypt, KnownAnswers)
{
    const struct { uint32_t bits; const char *key, *plain, *cipher; } cases[] = {
        {128, "000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {192, "000102030405060708090a0b0c0d0e0f1011121314151617", "00112233445566778899aabbccddeeff",
         "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {256, "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "00112233445566778899aabbccddeeff",
         "8ea2b7ca516745bfeafc49904b496089"},
        {128, "00000000000000000000000000000000", "f34481ec3cc627bacd5dc3fb08f273e6", "0336763e966d92595a567cc9ce537f5e"},
        {192, "000000000000000000000000000000000000000000000000", "1b077a6af4b7f98229de786d7516b639",
         "275cfc0413d8ccb70513c3859b1d0f72"},
        {256, "0000000000000000000000000000000000000000000000000000000000000000", "014730f80ac625fe84f026c60bfd547d",
         "5c9d844ed46f9885085e5d6a4f94c7d7"},
    };
    tovi::test::LogCapture log;
    tovi_aes_key_s key;
    std::memset(&key, 0xA5, sizeof key);  // never set up: not taken for a key to free
    uint8_t b[16] = {};
    EXPECT_EQ(tovi_aes_encrypt(&key, b, b), -EINVAL);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.key);
        ASSERT_EQ(tovi_aes_setkey(&key, hex(c.key).data(), c.bits), 0);  // replaces the previous key
        std::vector<uint8_t> block = hex(c.plain), out(16);
        ASSERT_EQ(tovi_aes_encrypt(&key, block.data(), out.data()), 0);
        EXPECT_EQ(out, hex(c.cipher));
        ASSERT_EQ(tovi_aes_decrypt(&key, out.data(), out.data()), 0);  // in place
        EXPECT_EQ(out, block);
    }
    tovi_aes_release(&key);
    const tovi_aes_key_s zero{};
    EXPECT_EQ(memcmp(&key, &zero, sizeof key), 0);
    EXPECT_EQ(tovi_aes_encrypt(&key, b, b), -EINVAL);
    EXPECT_EQ(tovi_aes_setkey(&key, b, 64), -EINVAL);
    EXPECT_EQ(tovi_aes_setkey(&key, nullptr, 128), -EINVAL);
    EXPECT_EQ(log.texts(3), (std::vector<std::string>{"aes: bad key (64 bits).", "aes: bad key (128 bits)."}));
}
