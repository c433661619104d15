// String helpers: number test, conversions, lower-casing, the tokenizer.
#include <gtest/gtest.h>

#include "log_capture.hpp"
#include "tovi_str.h"

using Texts = std::vector<std::string>;

TEST(Str, IsUintAndConversions)
{
    for (const char *yes : {"", "1234567890", "0x", "0XdeadBEEF"})
        EXPECT_EQ(tovi_str_isuint(yes), 0) << yes;
    for (const char *no : {"12a", "0x1g", "+1", "-1", " 1", "00x1", "1.5"})
        EXPECT_EQ(tovi_str_isuint(no), -1) << no;
    EXPECT_EQ(tovi_str_isuint(nullptr), -22);

    tovi::test::LogCapture log;
    const struct { const char *text; uint64_t u; int64_t s; } values[] = {
        {"42", 42, 42}, {"0x1F", 31, 31}, {"0Xff", 255, 255}, {"010", 10, 10}, {"12abc", 12, 12},
        {"-5", static_cast<uint64_t>(-5), -5}, {"-0x10", 0, -16}, {"18446744073709551615", UINT64_MAX, -1},
    };
    for (const auto &v : values) {
        EXPECT_EQ(tovi_str_tou64(v.text), v.u) << v.text;
        EXPECT_EQ(tovi_str_tos64(v.text), v.s) << v.text;
    }
    EXPECT_EQ(log.texts(), Texts{});
    EXPECT_EQ(tovi_str_tou64("18446744073709551616"), UINT64_MAX);  // logged, clamped value returned
    EXPECT_EQ(tovi_str_tou64(nullptr) + static_cast<uint64_t>(tovi_str_tos64(nullptr)), 0u);
    EXPECT_EQ(log.texts(3), (Texts{"Strtou64 fail because of error 34, Numerical result out of range.",
                                   "Strtou64 fail because pStr is null."}));
    EXPECT_EQ(log.texts(6), Texts{"Strtos64 fail because pStr is null."});

    char text[] = "MiXeD 1 \xc3\x84_Z";
    tovi_str_tolower(text);
    EXPECT_STREQ(text, "mixed 1 \xc3\x84_z");
}

TEST(Str, TokenizerTable)
{
    const struct { const char *text, *delim; Texts tokens; } cases[] = {
        {",a,,b,", ",", {"a", "b"}}, {"abc", ",", {"abc"}},  {"", ",", {""}},
        {",,,", ",", {""}},          {"::x", ":", {"x"}},     {"a b\t\tc", " \t", {"a", "b", "c"}},
        {"a,b", "", {"a,b"}},
    };
    for (const auto &c : cases) {
        tovi::test::LogCapture log;
        std::string text = c.text;
        Texts got;
        for (char *t = tovi_str_tok(text.data(), c.delim); t != nullptr && got.size() < 9; t = tovi_str_tok(nullptr, c.delim))
            got.emplace_back(t);
        EXPECT_EQ(got, c.tokens) << c.text;
        EXPECT_EQ(log.texts(3), Texts{"Param((nil) (nil) )  is null."}) << c.text;
    }
    tovi::test::LogCapture log;
    char first[] = "a,b", second[] = "x;y";
    EXPECT_STREQ(tovi_str_tok(first, ","), "a");
    EXPECT_STREQ(tovi_str_tok(second, ";"), "x");  // a new text drops the saved position
    EXPECT_STREQ(tovi_str_tok(nullptr, ";"), "y");
    EXPECT_EQ(tovi_str_tok(second, nullptr), nullptr);
    EXPECT_EQ(log.texts(3), Texts{"Param((nil))  is null."});
    char *saved = first;
    EXPECT_TRUE(check_parameter(second, &saved, ",") == second && check_parameter(nullptr, &saved, ",") == first);
}
