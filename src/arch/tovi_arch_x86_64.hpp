// x86_64: the host build for development and tests.
#pragma once

#include <ctime>
#include <immintrin.h>

namespace tovi::arch {

inline constexpr const char *kProcessorName = "x86_64";

// No platform kernel here: number 259 is mknodat and must never be called.
inline constexpr bool kPlatformSyscall = false;

// The counter is CLOCK_MONOTONIC read through the vDSO, a 1 GHz counter. The
// time stamp counter would be cheaper by a few nanoseconds, but it runs above
// 1 GHz, so the integer nanoseconds-per-tick factor would truncate to 0, and
// its rate is not published by the kernel. The vDSO read is the fastest
// source whose frequency divides 10^9 (factor 1) and needs no system call.
inline uint64_t counter_read()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

inline uint64_t counter_frequency()
{
    return 1000000000ULL;
}

inline void cpu_relax()
{
    _mm_pause();
}

inline bool crc32c_hw_available()
{
    return __builtin_cpu_supports("sse4.2");
}

// Callers check crc32c_hw_available() first.
__attribute__((target("sse4.2"))) inline uint32_t crc32c_u8(uint32_t crc, uint8_t v)
{
    return _mm_crc32_u8(crc, v);
}

__attribute__((target("sse4.2"))) inline uint32_t crc32c_u64(uint32_t crc, uint64_t v)
{
    return static_cast<uint32_t>(_mm_crc32_u64(crc, v));
}

inline uint64_t signal_context_pc(const ucontext_t *uc)
{
    return static_cast<uint64_t>(uc->uc_mcontext.gregs[REG_RIP]);
}

inline uint64_t signal_context_sp(const ucontext_t *uc)
{
    return static_cast<uint64_t>(uc->uc_mcontext.gregs[REG_RSP]);
}

inline uint64_t signal_context_fp(const ucontext_t *uc)
{
    return static_cast<uint64_t>(uc->uc_mcontext.gregs[REG_RBP]);
}

inline void signal_context_registers(const ucontext_t *uc, RegisterSet *set)
{
    // Order of the kernel's general-register block (REG_R8 .. REG_CR2).
    static const char *const names[] = {"r8",  "r9",  "r10", "r11",    "r12", "r13",    "r14",
                                        "r15", "rdi", "rsi", "rbp",    "rbx", "rdx",    "rax",
                                        "rcx", "rsp", "rip", "eflags", "csgsfs", "err", "trapno",
                                        "oldmask", "cr2"};
    set->names = names;
    set->count = sizeof names / sizeof names[0];
    for (unsigned i = 0; i < set->count; ++i)
        set->values[i] = static_cast<uint64_t>(uc->uc_mcontext.gregs[i]);
}

}  // namespace tovi::arch
