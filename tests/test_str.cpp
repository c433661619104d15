// String helpers: the unsigned-number test, conversions, lower-casing and
// the process-wide tokenizer.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_str.h"

using tovi::test::LogCapture;

namespace {

constexpr unsigned kError = 3;
constexpr unsigned kInfo = 6;

}  // namespace

TEST(Str, IsUintTable)
{
    const struct {
        const char *text;
        int32_t rc;
    } cases[] = {
        {"", 0},     {"0", 0},      {"1234567890", 0}, {"0x", 0},   {"0X", 0},   {"0xdeadBEEF", 0},
        {"12a", -1}, {"0x1g", -1},  {"+1", -1},        {"-1", -1},  {" 1", -1},  {"1 ", -1},
        {"x12", -1}, {"00x1", -1},  {"1.5", -1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(tovi_str_isuint(c.text), c.rc) << c.text;
    EXPECT_EQ(tovi_str_isuint(nullptr), -22);
}

TEST(Str, ConversionsAndTheirMessages)
{
    LogCapture log;
    const struct {
        const char *text;
        uint64_t u;
        int64_t s;
    } cases[] = {
        {"0", 0, 0},
        {"42", 42, 42},
        {"0x1F", 31, 31},
        {"0Xff", 255, 255},
        {"010", 10, 10},  // no octal: a leading 0 alone is decimal
        {"-5", static_cast<uint64_t>(-5), -5},
        {"-0x10", 0, -16},  // decimal "-0" for tou64; tos64 reads the rest as hexadecimal
        {"18446744073709551615", UINT64_MAX, -1},
        {"12abc", 12, 12},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(tovi_str_tou64(c.text), c.u) << c.text;
        EXPECT_EQ(tovi_str_tos64(c.text), c.s) << c.text;
    }
    EXPECT_TRUE(log.texts().empty());

    // Out of range: logged with the error text, the clamped value returned.
    EXPECT_EQ(tovi_str_tou64("18446744073709551616"), UINT64_MAX);
    EXPECT_EQ(tovi_str_tou64(nullptr), 0u);
    EXPECT_EQ(tovi_str_tos64(nullptr), 0);
    EXPECT_EQ(log.texts(kError), (std::vector<std::string>{
                                     "Strtou64 fail because of error 34, Numerical result out of range.",
                                     "Strtou64 fail because pStr is null."}));
    EXPECT_EQ(log.texts(kInfo), std::vector<std::string>{"Strtos64 fail because pStr is null."});
}

TEST(Str, ToLowerInPlace)
{
    char text[] = "MiXeD 123 ÄB_Z";
    tovi_str_tolower(text);
    EXPECT_STREQ(text, "mixed 123 Äb_z");  // bytes above 127 stay as they are
    tovi_str_tolower(nullptr);
}

// Each case tokenizes one text to the end: the tokens in order, then the
// NULL that follows the last token.
TEST(Str, TokenizerTable)
{
    const struct {
        const char *text;
        const char *delim;
        std::vector<std::string> tokens;
    } cases[] = {
        {",a,,b,", ",", {"a", "b"}},
        {"abc", ",", {"abc"}},
        {"", ",", {""}},
        {",,,", ",", {""}},
        {"a b\t\tc", " \t", {"a", "b", "c"}},
        {"::x", ":", {"x"}},
        {"a,b", "", {"a,b"}},
        {"k=v;w", "=;", {"k", "v", "w"}},
    };
    for (const auto &c : cases) {
        LogCapture log;
        std::string text = c.text;
        std::vector<std::string> got;
        for (char *t = tovi_str_tok(text.data(), c.delim); t != nullptr; t = tovi_str_tok(nullptr, c.delim)) {
            got.emplace_back(t);
            ASSERT_LT(got.size(), 10u) << c.text;
        }
        EXPECT_EQ(got, c.tokens) << c.text;
        // The call after the last token found nothing to continue from.
        EXPECT_EQ(log.texts(kError), std::vector<std::string>{"Param((nil) (nil) )  is null."}) << c.text;
    }
}

TEST(Str, TokenizerArgumentsAndRestart)
{
    LogCapture log;
    char first[] = "a,b,c";
    EXPECT_STREQ(tovi_str_tok(first, ","), "a");
    char second[] = "x;y";
    EXPECT_STREQ(tovi_str_tok(second, ";"), "x");  // a new text drops the saved position
    EXPECT_STREQ(tovi_str_tok(nullptr, ";"), "y");
    EXPECT_EQ(tovi_str_tok(second, nullptr), nullptr);
    EXPECT_EQ(log.texts(kError), std::vector<std::string>{"Param((nil))  is null."});

    char *saved = nullptr;
    char own[] = "own";
    EXPECT_EQ(check_parameter(own, &saved, ","), own);
    saved = own + 1;
    EXPECT_EQ(check_parameter(nullptr, &saved, ","), own + 1);
    EXPECT_EQ(check_parameter(own, &saved, ","), own);  // the text wins over the saved position
}
