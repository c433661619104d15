// The symbol table.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <string>
#include <thread>
#include <unistd.h>

#include "tovi_symbol.h"

extern "C" __attribute__((noinline, used)) TOVI_API int tovi_test_marker_function(int x)
{
    asm volatile("" ::: "memory");
    return x * 3 + 1;
}

namespace {

uint64_t addr_of(int (*fn)(int))
{
    return reinterpret_cast<uint64_t>(fn);
}

}  // namespace

TEST(Symbol, FindsFunctionsOfTheProgramAndOfSharedObjects)
{
    ASSERT_EQ(tovi_symbol_init(), 0u);
    EXPECT_EQ(tovi_symbol_init(), 0u) << "a second build is a no-op";

    tovi_symbol_s rec{};
    uint64_t fn = addr_of(tovi_test_marker_function);
    ASSERT_EQ(tovi_symbol_find(fn + 4, &rec), 0);
    EXPECT_STREQ(rec.name, "tovi_test_marker_function");
    EXPECT_EQ(rec.addr, fn);
    EXPECT_EQ(rec.type, 2u);
    EXPECT_NE(std::string(rec.file).find("test_symbol"), std::string::npos) << rec.file;

    // A function of a shared object, through its dynamic symbols.
    auto *lib_fn = reinterpret_cast<void *>(&ldiv);
    Dl_info info{};
    ASSERT_NE(dladdr(lib_fn, &info), 0);
    ASSERT_EQ(tovi_symbol_find(reinterpret_cast<uint64_t>(lib_fn), &rec), 0);
    EXPECT_STREQ(rec.file, info.dli_fname);
    EXPECT_EQ(rec.addr, reinterpret_cast<uint64_t>(info.dli_saddr));
}

TEST(Symbol, AddressesBecomeFunctionPlusOffsetText)
{
    ASSERT_EQ(tovi_symbol_init(), 0u);
    char buf[64];
    uint64_t fn = addr_of(tovi_test_marker_function);
    EXPECT_EQ(tovi_symbol_addr_to_string(fn + 0x2, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "tovi_test_marker_function+0x2");

    EXPECT_EQ(tovi_symbol_addr_to_string(0x10, buf, sizeof buf), -1);
    EXPECT_STREQ(buf, "0x10");

    char small[8];
    EXPECT_EQ(tovi_symbol_addr_to_string(fn, small, sizeof small), 0);
    EXPECT_STREQ(small, "tovi_te") << "cut to fit, always terminated";
    EXPECT_EQ(tovi_symbol_addr_to_string(fn, nullptr, 8), -1);

    tovi_symbol_s rec{};
    EXPECT_EQ(tovi_symbol_find(0x10, &rec), -1);
    EXPECT_EQ(tovi_symbol_find(fn, nullptr), -1);
}

TEST(Symbol, FiniWaitsForLookupsAndEmptiesTheTable)
{
    ASSERT_EQ(tovi_symbol_init(), 0u);
    std::atomic<bool> stop{false};
    std::atomic<long> found{0};
    std::thread reader([&] {
        char buf[64];
        while (!stop.load())
            found += tovi_symbol_addr_to_string(addr_of(tovi_test_marker_function), buf, sizeof buf) == 0;
    });
    // At least 20 rebuilds, and on until the reader has resolved something.
    for (int i = 0; i < 20 || (found.load() == 0 && i < 2000); ++i) {
        tovi_symbol_fini();
        ASSERT_EQ(tovi_symbol_init(), 0u);
        if (i >= 20)
            usleep(1000);
    }
    stop = true;
    reader.join();
    EXPECT_GT(found.load(), 0);

    tovi_symbol_fini();
    tovi_symbol_s rec{};
    EXPECT_EQ(tovi_symbol_find(addr_of(tovi_test_marker_function), &rec), -1);
}
