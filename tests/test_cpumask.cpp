// CPU lists parsed into 1024-bit CPU sets.
#include <gtest/gtest.h>

#include <algorithm>
#include <bitset>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_cpumask.h"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

struct Set {
    uint64_t words[16] = {};

    std::bitset<1024> bits() const
    {
        std::bitset<1024> b;
        for (unsigned cpu = 0; cpu < 1024; ++cpu)
            b[cpu] = (words[cpu / 64] >> (cpu % 64) & 1) != 0;
        return b;
    }
};

std::bitset<1024> cpus(std::initializer_list<std::pair<unsigned, unsigned>> ranges)
{
    std::bitset<1024> b;
    for (auto [first, last] : ranges)
        for (unsigned cpu = first; cpu <= last; ++cpu)
            b[cpu] = true;
    return b;
}

}  // namespace

TEST(Cpumask, NumbersAndRangesAreOredIntoTheSet)
{
    LogCapture cap;
    Set set;
    set.words[1] = 1ULL << 36;  // CPU 100, already there
    EXPECT_EQ(tovi_cpum_parse_cpumask("0-3,8,12-13,63-65", set.words), 0);
    EXPECT_EQ(set.bits(), cpus({{0, 3}, {8, 8}, {12, 13}, {63, 65}, {100, 100}}));
    EXPECT_EQ(set.words[0], 0x800000000000310FULL);
    EXPECT_EQ(set.words[1], (1ULL << 36) | 3ULL);

    Set single;
    EXPECT_EQ(tovi_cpum_parse_cpumask("1023", single.words), 0);
    EXPECT_EQ(single.words[15], 1ULL << 63);
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Cpumask, RangeEndsAreCutAt1023)
{
    LogCapture cap;
    Set set;
    EXPECT_EQ(tovi_cpum_parse_cpumask("1020-5000", set.words), 0);
    EXPECT_EQ(set.bits(), cpus({{1020, 1023}}));
    // A start beyond the set applies (the list is good) but names no CPU.
    Set beyond;
    EXPECT_EQ(tovi_cpum_parse_cpumask("2000", beyond.words), 0);
    EXPECT_EQ(tovi_cpum_parse_cpumask("1500-1600", beyond.words), 0);
    EXPECT_TRUE(beyond.bits().none());
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Cpumask, BadItemsAreLoggedAndSkipped)
{
    LogCapture cap;
    Set set;
    EXPECT_EQ(tovi_cpum_parse_cpumask("1,x,5-3,7", set.words), 0);
    EXPECT_EQ(set.bits(), cpus({{1, 1}, {7, 7}}));
    EXPECT_EQ(cap.texts(6), (Texts{"Parse cpu mask fail, invalid format:x",
                                   "Parse cpu mask 5-3 fail, end:3 is less than start:5"}));
    cap.clear();
    Set none;
    EXPECT_EQ(tovi_cpum_parse_cpumask("x,9-8", none.words), -1);
    EXPECT_TRUE(none.bits().none());
    EXPECT_EQ(cap.texts(6), (Texts{"Parse cpu mask fail, invalid format:x",
                                   "Parse cpu mask 9-8 fail, end:8 is less than start:9"}));
}

TEST(Cpumask, EmptyListsAndNullsApplyNothing)
{
    LogCapture cap;
    Set set;
    EXPECT_EQ(tovi_cpum_parse_cpumask("", set.words), -1);
    EXPECT_EQ(tovi_cpum_parse_cpumask(",,", set.words), -1);
    EXPECT_EQ(tovi_cpum_parse_cpumask(nullptr, set.words), -1);
    EXPECT_EQ(tovi_cpum_parse_cpumask("1", nullptr), -1);
    EXPECT_TRUE(set.bits().none());
    // Empty items between good ones are no items.
    EXPECT_EQ(tovi_cpum_parse_cpumask(",2,,4,", set.words), 0);
    EXPECT_EQ(set.bits(), cpus({{2, 2}, {4, 4}}));
    // A second number that does not scan leaves a single CPU.
    EXPECT_EQ(tovi_cpum_parse_cpumask("6-y", set.words), 0);
    EXPECT_EQ(set.bits(), cpus({{2, 2}, {4, 4}, {6, 6}}));
    EXPECT_TRUE(cap.texts().empty());
}

TEST(Cpumask, PartitionReferencesDoNotResolveYet)
{
    LogCapture cap;
    Set set;
    EXPECT_EQ(tovi_cpum_parse_cpumask("GROUP_0/io,12", set.words), 0);
    EXPECT_EQ(set.bits(), cpus({{12, 12}}));
    EXPECT_EQ(tovi_cpum_parse_cpumask("GROUP_1/poll", set.words), -1);
    EXPECT_EQ(cap.texts(6), (Texts{"Parse cpu mask fail, invalid format:GROUP_0/io",
                                   "Parse cpu mask fail, invalid format:GROUP_1/poll"}));
}

// Random lists of good, reversed and junk items against a plain model.
TEST(Cpumask, RandomListsMatchAModel)
{
    LogCapture cap;
    std::mt19937 rng(20240611);
    for (int round = 0; round < 400; ++round) {
        Set set;
        std::bitset<1024> model;
        bool applied = false;
        size_t bad = 0;
        std::string list;
        const int items = static_cast<int>(rng() % 6);
        for (int i = 0; i < items; ++i) {
            if (i != 0)
                list += ',';
            const unsigned a = rng() % 1100;
            const unsigned b = rng() % 1100;
            switch (rng() % 4) {
            case 0:
                list += std::to_string(a);
                if (a < 1024)
                    model[a] = true;
                applied = true;
                break;
            case 1:
                list += std::to_string(a) + "-" + std::to_string(b);
                if (b < a) {
                    ++bad;
                    break;
                }
                for (unsigned cpu = a; cpu <= std::min(b, 1023u); ++cpu)
                    model[cpu] = true;
                applied = true;
                break;
            case 2:
                list += "cpu" + std::to_string(a);
                ++bad;
                break;
            default:
                break;  // an empty item
            }
        }
        cap.clear();
        EXPECT_EQ(tovi_cpum_parse_cpumask(list.c_str(), set.words), applied ? 0 : -1) << list;
        EXPECT_EQ(set.bits(), model) << list;
        EXPECT_EQ(cap.texts(6).size(), bad) << list;
    }
}
