// aarch64: the generic timer's virtual counter, LSE atomics and the CRC
// extension (the build selects armv8.1-a+crc).
#pragma once

#include <arm_acle.h>
#include <arm_neon.h>
#include <asm/hwcap.h>
#include <sys/auxv.h>

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

// The generic timer is already counter_read(), with its frequency in a
// register: no second counter needs calibrating here.
inline uint64_t cycle_counter_read()
{
    return counter_read();
}

inline bool cycle_counter_trusted()
{
    return false;
}

inline void cpu_relax()
{
    asm volatile("yield" ::: "memory");
}

// The lock-free structures place a full barrier (dmb ish) where they need
// acquire or release ordering between plain accesses. The lighter dmb ishld /
// ishst forms would do for today's pairs; the full barrier orders loads and
// stores in both directions, so a fence stays correct when an access is added
// on its other side, and costs little beside the atomics it sits with.
inline void fence_acquire()
{
    asm volatile("dmb ish" ::: "memory");
}

inline void fence_release()
{
    asm volatile("dmb ish" ::: "memory");
}

inline void fence_full()
{
    asm volatile("dmb ish" ::: "memory");
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

// CRC32C with the instruction alone: eight 8-byte steps per 64-byte block,
// then the tail in 8-, 4-, 2- and 1-byte steps.
inline uint32_t crc32c_serial(uint32_t crc, const uint8_t *p, uint64_t n)
{
    uint64_t w;
    for (; n >= 64; p += 64, n -= 64)
#pragma GCC unroll 8
        for (unsigned i = 0; i < 64; i += 8) {
            __builtin_memcpy(&w, p + i, 8);
            crc = __crc32cd(crc, w);
        }
    for (; n >= 8; p += 8, n -= 8) {
        __builtin_memcpy(&w, p, 8);
        crc = __crc32cd(crc, w);
    }
    if (n & 4) {
        uint32_t v;
        __builtin_memcpy(&v, p, 4);
        crc = __crc32cw(crc, v);
        p += 4;
    }
    if (n & 2) {
        uint16_t v;
        __builtin_memcpy(&v, p, 2);
        crc = __crc32ch(crc, v);
        p += 2;
    }
    if (n & 1)
        crc = __crc32cb(crc, *p);
    return crc;
}

// Carry-less-multiply folding with PMULL (see tovi_arch.hpp). Below this many
// bytes the serial instruction loop is taken: the folding needs 128 bytes and
// pays for joining its lanes (a cautious bound, not measured on the platform).
inline constexpr uint64_t kCrc32cFoldMin = 256;

namespace crc32c_a64 {

__attribute__((target("+crypto"))) inline uint64x2_t keys128(Crc32cFoldKeys k)
{
    return vcombine_u64(vcreate_u64(k.lead), vcreate_u64(k.trail));
}

// x moved d bits on (the multipliers of d in k).
__attribute__((target("+crypto"))) inline uint64x2_t fold(uint64x2_t x, uint64x2_t k)
{
    poly128_t lead =
        vmull_p64(static_cast<poly64_t>(vgetq_lane_u64(x, 0)), static_cast<poly64_t>(vgetq_lane_u64(k, 0)));
    poly128_t trail = vmull_high_p64(vreinterpretq_p64_u64(x), vreinterpretq_p64_u64(k));
    return veorq_u64(vreinterpretq_u64_p128(lead), vreinterpretq_u64_p128(trail));
}

__attribute__((target("+crypto"))) inline uint64x2_t load(const uint8_t *p)
{
    return vreinterpretq_u64_u8(vld1q_u8(p));
}

constexpr unsigned kLanes = 8;
constexpr unsigned kRoundBytes = 16 * kLanes;

// Eight 16-byte lanes, 128 bytes a round; then the lanes are joined, the
// remaining 16-byte blocks folded in, and the folded block reduced: its CRC
// from 0 is the CRC of everything folded into it.
__attribute__((target("+crypto"))) inline uint32_t fold_pmull(uint32_t crc, const uint8_t *p, uint64_t n)
{
    constexpr Crc32cFoldKeys kRound = crc32c_fold_keys(8 * kRoundBytes);
    constexpr Crc32cFoldKeys kBlock = crc32c_fold_keys(128);
    uint64x2_t x[kLanes];
#pragma GCC unroll 8
    for (unsigned i = 0; i < kLanes; ++i)
        x[i] = load(p + 16 * i);
    // The running CRC enters as an XOR into the first four bytes.
    x[0] = veorq_u64(x[0], vcombine_u64(vcreate_u64(crc), vcreate_u64(0)));
    p += kRoundBytes;
    n -= kRoundBytes;
    const uint64x2_t k = keys128(kRound);
    for (; n >= kRoundBytes; p += kRoundBytes, n -= kRoundBytes)
#pragma GCC unroll 8
        for (unsigned i = 0; i < kLanes; ++i)
            x[i] = veorq_u64(fold(x[i], k), load(p + 16 * i));
    const uint64x2_t k128 = keys128(kBlock);
    uint64x2_t acc = x[0];
#pragma GCC unroll 8
    for (unsigned i = 1; i < kLanes; ++i)
        acc = veorq_u64(fold(acc, k128), x[i]);
    for (; n >= 16; p += 16, n -= 16)
        acc = veorq_u64(fold(acc, k128), load(p));
    return __crc32cd(__crc32cd(0, vgetq_lane_u64(acc, 0)), vgetq_lane_u64(acc, 1));
}

}  // namespace crc32c_a64

// Every folding routine this processor can run, widest first; the count.
inline unsigned crc32c_fold_routines(Crc32cFold *out, unsigned max)
{
    if (max == 0 || (getauxval(AT_HWCAP) & HWCAP_PMULL) == 0)
        return 0;
    out[0] = crc32c_a64::fold_pmull;
    return 1;
}

// The widest folding routine, or nullptr when the processor has none.
inline Crc32cFold crc32c_fold_routine()
{
    Crc32cFold best = nullptr;
    return crc32c_fold_routines(&best, 1) == 1 ? best : nullptr;
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

inline uint64_t signal_context_flags(const ucontext_t *uc)
{
    return uc->uc_mcontext.pstate;
}

// R0 to R30 (R29 the frame pointer, R30 the link register) are the general
// ones; SP, PC and PSTATE follow.
inline void signal_context_registers(const ucontext_t *uc, RegisterSet *set)
{
    static const char *const names[] = {
        "R0",  "R1",  "R2",  "R3",  "R4",  "R5",  "R6",  "R7",  "R8",  "R9",  "R10", "R11",
        "R12", "R13", "R14", "R15", "R16", "R17", "R18", "R19", "R20", "R21", "R22", "R23",
        "R24", "R25", "R26", "R27", "R28", "R29", "R30", "SP",  "PC",  "PSTATE"};
    set->names = names;
    set->count = sizeof names / sizeof names[0];
    set->general = 31;
    for (unsigned i = 0; i < 31; ++i)
        set->values[i] = uc->uc_mcontext.regs[i];
    set->values[31] = uc->uc_mcontext.sp;
    set->values[32] = uc->uc_mcontext.pc;
    set->values[33] = uc->uc_mcontext.pstate;
}

// Hypervisor identification (virtual-machine detection): the processor
// offers no CPUID; the device tree and DMI tell instead.
inline constexpr bool kHasCpuid = false;

inline bool hypervisor_vendor(char vendor[13])
{
    vendor[0] = '\0';
    return false;
}

}  // namespace tovi::arch
