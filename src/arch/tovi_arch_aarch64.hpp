// aarch64: the generic timer's virtual counter, LSE atomics and the CRC
// extension (the build selects armv8.1-a+crc).
#pragma once

#include <arm_acle.h>

namespace tovi::arch {

inline constexpr const char *kProcessorName = "aarch64";

// The platform kernel serves the private system call 259 on this processor.
inline constexpr bool kPlatformSyscall = true;

inline uint64_t counter_read()
{
    uint64_t v;
    asm volatile("mrs %0, cntvct_el0" : "=r"(v));
    return v;
}

inline uint64_t counter_frequency()
{
    uint64_t v;
    asm volatile("mrs %0, cntfrq_el0" : "=r"(v));
    return v;
}

inline void cpu_relax()
{
    asm volatile("yield" ::: "memory");
}

inline bool crc32c_hw_available()
{
    return true;
}

inline uint32_t crc32c_u8(uint32_t crc, uint8_t v)
{
    return __crc32cb(crc, v);
}

inline uint32_t crc32c_u64(uint32_t crc, uint64_t v)
{
    return __crc32cd(crc, v);
}

inline uint64_t signal_context_pc(const ucontext_t *uc)
{
    return uc->uc_mcontext.pc;
}

inline uint64_t signal_context_sp(const ucontext_t *uc)
{
    return uc->uc_mcontext.sp;
}

inline uint64_t signal_context_fp(const ucontext_t *uc)
{
    return uc->uc_mcontext.regs[29];
}

inline void signal_context_registers(const ucontext_t *uc, RegisterSet *set)
{
    static const char *const names[] = {
        "x0",  "x1",  "x2",  "x3",  "x4",  "x5",  "x6",  "x7",  "x8",  "x9",  "x10",
        "x11", "x12", "x13", "x14", "x15", "x16", "x17", "x18", "x19", "x20", "x21",
        "x22", "x23", "x24", "x25", "x26", "x27", "x28", "fp",  "lr",  "sp",  "pc", "pstate"};
    set->names = names;
    set->count = sizeof names / sizeof names[0];
    for (unsigned i = 0; i < 31; ++i)
        set->values[i] = uc->uc_mcontext.regs[i];
    set->values[31] = uc->uc_mcontext.sp;
    set->values[32] = uc->uc_mcontext.pc;
    set->values[33] = uc->uc_mcontext.pstate;
}

}  // namespace tovi::arch
