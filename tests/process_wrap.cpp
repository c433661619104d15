// A program linked with -Wl,--wrap=popen,--wrap=pclose,--wrap=system, as
// callers link to divert those calls to the library: each result below
// comes only from the library's versions.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "tovi_process.h"

TEST(Wrap, PopenPcloseAndSystemReachTheLibrary)
{
    EXPECT_EQ(system("true || true"), -1);           // the library's own filter refuses "||"
    EXPECT_EQ(system("false &>/dev/null"), 1 << 8);  // bash semantics whatever /bin/sh is
    EXPECT_EQ(popen("true", "re"), nullptr);         // the C library accepts "e", the library only "r" or "w"
    FILE *f = popen("echo wrapped; exit 2", "r");
    char line[32] = {};
    EXPECT_STREQ(fgets(line, sizeof line, f), "wrapped\n");
    EXPECT_EQ(pclose(f), 2 << 8);
    EXPECT_EQ(pclose(tovi_popen("exit 5", "r")), 5 << 8);  // the C library's pclose would not wait
}
