// CPU lists parsed into 1024-bit CPU sets.
#include <gtest/gtest.h>

#include <algorithm>
#include <bitset>
#include <random>

#include "log_capture.hpp"
#include "tovi_cpumask.h"

using tovi::test::LogCapture;
using Cpus = std::bitset<1024>;

static Cpus bits(const uint64_t (&words)[16])
{
    Cpus b;
    for (unsigned cpu = 0; cpu < 1024; ++cpu)
        b[cpu] = (words[cpu / 64] >> (cpu % 64) & 1) != 0;
    return b;
}

static Cpus cpus(std::initializer_list<std::pair<unsigned, unsigned>> ranges)
{
    Cpus b;
    for (auto [first, last] : ranges)
        for (unsigned cpu = first; cpu <= last; ++cpu)
            b[cpu] = true;
    return b;
}

TEST(Cpumask, ListsAreOredIntoTheSetAndBadItemsLoggedAndSkipped)
{
    const auto bad = [](const std::string &item) { return "Parse cpu mask fail, invalid format:" + item; };
    struct Case {
        const char *list;
        int32_t rc;
        Cpus want;  // besides CPU 100, there before
        std::vector<std::string> said;
    };
    const Case cases[] = {
        {"0-3,8,12-13,63-65", 0, cpus({{0, 3}, {8, 8}, {12, 13}, {63, 65}}), {}},
        {"1023", 0, cpus({{1023, 1023}}), {}},
        {"1020-5000", 0, cpus({{1020, 1023}}), {}},  // range ends are cut at 1023
        {"2000,1500-1600", 0, {}, {}},               // beyond the set: good, but names no CPU
        {"1,x,5-3,7", 0, cpus({{1, 1}, {7, 7}}), {bad("x"), "Parse cpu mask 5-3 fail, end:3 is less than start:5"}},
        {"x,9-8", -1, {}, {bad("x"), "Parse cpu mask 9-8 fail, end:8 is less than start:9"}},
        {"", -1, {}, {}},
        {",,", -1, {}, {}},
        {",2,,4,", 0, cpus({{2, 2}, {4, 4}}), {}},  // empty items are no items
        {"6-y", 0, cpus({{6, 6}}), {}},             // a second number that does not scan: one CPU
        {"GROUP_0/io,12", 0, cpus({{12, 12}}), {bad("GROUP_0/io")}},  // partitions do not resolve yet
        {"GROUP_1/poll", -1, {}, {bad("GROUP_1/poll")}},
    };
    for (const Case &c : cases) {
        LogCapture cap;
        uint64_t words[16] = {};
        words[1] = 1ULL << 36;
        EXPECT_EQ(tovi_cpum_parse_cpumask(c.list, words), c.rc) << c.list;
        EXPECT_EQ(bits(words), c.want | cpus({{100, 100}})) << c.list;
        EXPECT_EQ(cap.texts(6), c.said) << c.list;
        EXPECT_EQ(cap.texts().size(), c.said.size()) << c.list;
    }
    uint64_t words[16] = {};
    EXPECT_EQ(tovi_cpum_parse_cpumask(nullptr, words), -1);
    EXPECT_EQ(tovi_cpum_parse_cpumask("1", nullptr), -1);
    EXPECT_TRUE(bits(words).none());
}

// Random lists of good, reversed and junk items against a plain model.
TEST(Cpumask, RandomListsMatchAModel)
{
    std::mt19937 rng(20240611);
    for (int round = 0; round < 400; ++round) {
        LogCapture cap;
        uint64_t words[16] = {};
        Cpus model;
        bool applied = false;
        size_t bad = 0;
        std::string list;
        for (int i = 0, items = static_cast<int>(rng() % 6); i < items; ++i) {
            list += i != 0 ? "," : "";
            const unsigned a = rng() % 1100, b = rng() % 1100;
            switch (rng() % 4) {
            case 0:
                list += std::to_string(a);
                if (a < 1024)
                    model[a] = true;
                applied = true;
                break;
            case 1:
                list += std::to_string(a) + "-" + std::to_string(b);
                bad += b < a;
                applied = applied || b >= a;
                for (unsigned cpu = a; cpu <= std::min(b, 1023u); ++cpu)
                    model[cpu] = true;
                break;
            case 2:
                list += "cpu" + std::to_string(a);
                ++bad;
                break;
            }  // otherwise an empty item
        }
        EXPECT_EQ(tovi_cpum_parse_cpumask(list.c_str(), words), applied ? 0 : -1) << list;
        EXPECT_EQ(bits(words), model) << list;
        EXPECT_EQ(cap.texts(6).size(), bad) << list;
    }
}
