// The processor seam.
#include <gtest/gtest.h>

#include <cstring>
#include <strings.h>
#include <pthread.h>
#include <ucontext.h>

#include "tovi_arch.hpp"

namespace {

// Walks up `depth` records from the deepest of `depth` nested calls: each
// returns into recurse() at the same place.
__attribute__((noinline)) bool recurse(int depth, int walk, const void **seen)
{
    if (depth > 0) {
        bool ok = recurse(depth - 1, walk, seen);
        asm volatile("" ::: "memory");  // keeps the call from becoming a jump
        return ok;
    }
    pthread_attr_t attr;
    void *stack = nullptr;
    size_t size = 0;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstack(&attr, &stack, &size);
    pthread_attr_destroy(&attr);
    auto top = reinterpret_cast<uintptr_t>(stack) + size;
    const tovi::arch::FrameRecord *f = tovi::arch::frame_pointer();
    for (int i = 0; i < walk; ++i) {
        if (f == nullptr)
            return false;
        seen[i] = f->return_address;
        f = tovi::arch::next_frame(f, top);
    }
    return true;
}

}  // namespace

TEST(Arch, CounterIsMonotonicAtItsFrequency)
{
    uint64_t a = tovi::arch::counter_read();
    uint64_t b = tovi::arch::counter_read();
    EXPECT_GE(b, a);
    EXPECT_GT(tovi::arch::counter_frequency(), 0u);
    EXPECT_EQ(1000000000u % tovi::arch::counter_frequency(), 0u)
        << "the integer nanoseconds-per-tick factor is exact on supported processors";
}

TEST(Arch, Crc32cStepsGiveTheCheckValue)
{
    if (!tovi::arch::crc32c_hw_available())
        GTEST_SKIP() << "no CRC32C instructions";
    const char digits[] = "123456789";
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < 9; ++i)
        crc = tovi::arch::crc32c_u8(crc, static_cast<uint8_t>(digits[i]));
    EXPECT_EQ(~crc, 0xE3069283u);

    uint64_t word;
    std::memcpy(&word, digits, 8);
    crc = tovi::arch::crc32c_u64(0xFFFFFFFF, word);
    crc = tovi::arch::crc32c_u8(crc, '9');
    EXPECT_EQ(~crc, 0xE3069283u);
}

TEST(Arch, FrameRecordsChainThroughCallers)
{
    const void *seen[5] = {};
    ASSERT_TRUE(recurse(6, 5, seen));
    for (int i = 1; i < 5; ++i)
        EXPECT_EQ(seen[i], seen[0]) << "record " << i;
    EXPECT_NE(seen[0], nullptr);
}

TEST(Arch, SignalContextRegistersAreNamed)
{
    ucontext_t uc;
    ASSERT_EQ(getcontext(&uc), 0);
    tovi::arch::RegisterSet set{};
    tovi::arch::signal_context_registers(&uc, &set);
    ASSERT_GT(set.count, 16u);
    ASSERT_LE(set.count, tovi::arch::RegisterSet::kMax);
    bool found_sp = false;
    for (unsigned i = 0; i < set.count; ++i) {
        if (strcasecmp(set.names[i], "sp") == 0 || strcasecmp(set.names[i], "rsp") == 0) {
            EXPECT_EQ(set.values[i], tovi::arch::signal_context_sp(&uc));
            found_sp = true;
        }
    }
    EXPECT_TRUE(found_sp);
    EXPECT_NE(tovi::arch::signal_context_pc(&uc), 0u);
}
