// The processor seam: everything that depends on the instruction set lives
// under this directory, one header per processor with the same functions.
//
//   counter_read()          free-running 64-bit counter
//   counter_frequency()     its ticks per second
//   cycle_counter_read()    a cheaper free-running counter of unpublished rate
//   cycle_counter_trusted() whether that counter may be calibrated into a clock
//   cpu_relax()             spin-wait hint
//   fence_acquire()         earlier loads before later loads and stores
//   fence_release()         earlier loads and stores before later stores
//   fence_full()            earlier loads and stores before later loads and stores
//   crc32c_hw_available()   whether the CRC32C instructions may be used
//   crc32c_u8/_u64()        one CRC32C instruction step (reflected, no inversion)
//   crc32c_serial()         CRC32C over a buffer with the instruction alone
//   crc32c_fold_routine()   the carry-less-multiply folding routine, or nullptr,
//                           for kCrc32cFoldMin bytes and up
//   crc32c_fold_routines()  every folding routine the processor can run
//   frame_pointer()         the caller's frame record
//   signal_context_pc/sp/fp/flags() and the named registers of a signal
//                           context (the general ones first)
//   hypervisor_vendor()     CPUID's hypervisor bit and vendor signature (x86_64 only)
//
// Frame records have the same shape on both processors: the saved frame
// pointer of the caller, then the return address.
#pragma once

#include <cstdint>
#include <ucontext.h>

namespace tovi::arch {

struct FrameRecord {
    const FrameRecord *next;
    const void *return_address;
};

// Register names in the order signal_context_registers() fills them; the
// first `general` are the ones a fault dump prints one per line.
struct RegisterSet {
    static constexpr unsigned kMax = 40;
    const char *const *names;
    unsigned count;
    unsigned general;
    uint64_t values[kMax];
};

// CRC32C by carry-less multiplication folds each 16-byte block d bits further
// down the stream: block * x^d is congruent (mod P) to the block's leading 8
// bytes times (x^(d+64) mod P) plus its trailing 8 bytes times (x^d mod P).
// In the reflected bit order a 64x64 carry-less product comes out one bit
// short and the 32-bit multipliers sit in the low half of their lane (that
// is, times x^32); the exponents below absorb both.

// a * b mod P for the CRC32C polynomial, both reflected (bit 31 - i holds x^i).
constexpr uint32_t crc32c_mulmod(uint32_t a, uint32_t b)
{
    uint32_t r = 0;
    for (uint32_t m = 0x80000000u; m != 0; m >>= 1) {  // b's terms from x^0 up
        if ((b & m) != 0)
            r ^= a;
        a = (a & 1u) != 0 ? (a >> 1) ^ 0x82F63B78u : a >> 1;  // a *= x
    }
    return r;
}

// x^e mod P, reflected.
constexpr uint32_t crc32c_xpow(uint64_t e)
{
    uint32_t r = 0x80000000u;
    for (uint32_t sq = 0x40000000u; e != 0; e >>= 1, sq = crc32c_mulmod(sq, sq))
        if ((e & 1u) != 0)
            r = crc32c_mulmod(r, sq);
    return r;
}

// Multipliers moving a 16-byte block d bits (d >= 64) further down the stream.
struct Crc32cFoldKeys {
    uint64_t lead;   // for the block's first 8 bytes
    uint64_t trail;  // for its last 8 bytes
};

constexpr Crc32cFoldKeys crc32c_fold_keys(unsigned d)
{
    return {crc32c_xpow(d + 31), crc32c_xpow(d - 33)};
}

// A folding routine: CRC32C continued over n bytes, n a multiple of 16 and at
// least kCrc32cFoldMin (both processors' headers define that bound).
using Crc32cFold = uint32_t (*)(uint32_t crc, const uint8_t *p, uint64_t n);

}  // namespace tovi::arch

#if defined(__aarch64__)
#include "tovi_arch_aarch64.hpp"
#elif defined(__x86_64__)
#include "tovi_arch_x86_64.hpp"
#else
#error "libtovi supports aarch64 and x86_64"
#endif

namespace tovi::arch {

// Name of the processor the library was built for.
inline constexpr const char *kName = kProcessorName;

// The calling function's own frame record.
__attribute__((always_inline)) inline const FrameRecord *frame_pointer()
{
    return static_cast<const FrameRecord *>(__builtin_frame_address(0));
}

// The caller's record, or null where the chain ends or stops making sense:
// records lie at increasing, aligned addresses below `stack_top`.
inline const FrameRecord *next_frame(const FrameRecord *f, uintptr_t stack_top)
{
    auto next = reinterpret_cast<uintptr_t>(f->next);
    auto here = reinterpret_cast<uintptr_t>(f);
    if (next <= here || next % alignof(FrameRecord) != 0 || next + sizeof(FrameRecord) > stack_top)
        return nullptr;
    return f->next;
}

}  // namespace tovi::arch
