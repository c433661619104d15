// A program linked with -Wl,--wrap=popen,--wrap=pclose,--wrap=system, as
// callers link to divert those calls to the library: each call below can
// only give its result when it reached the library's version.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tovi_process.h"

TEST(Wrap, SystemReachesTheLibrary)
{
    // The library's own filter refuses "||"; the C library's system would run it.
    EXPECT_EQ(system("true || true"), -1);
    // bash semantics for "&>", whatever /bin/sh is.
    EXPECT_EQ(system("false &>/dev/null"), 1 << 8);
    EXPECT_EQ(system("exit 3"), 3 << 8);
}

TEST(Wrap, PopenAndPcloseReachTheLibrary)
{
    EXPECT_EQ(popen("true", "re"), nullptr);  // the C library accepts "e", the library only "r" or "w"
    FILE *f = popen("echo wrapped; exit 2", "r");
    ASSERT_NE(f, nullptr);
    char line[32] = {};
    ASSERT_NE(fgets(line, sizeof line, f), nullptr);
    EXPECT_STREQ(line, "wrapped\n");
    EXPECT_EQ(pclose(f), 2 << 8);

    // A stream of tovi_popen closed with the wrapped pclose is waited for.
    FILE *own = tovi_popen("exit 5", "r");
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(pclose(own), 5 << 8);
}
