// The processor seam: everything that depends on the instruction set lives
// under this directory, one header per processor with the same functions.
//
//   counter_read()          free-running 64-bit counter
//   counter_frequency()     its ticks per second
//   cpu_relax()             spin-wait hint
//   fence_acquire()         earlier loads before later loads and stores
//   fence_release()         earlier loads and stores before later stores
//   crc32c_hw_available()   whether the CRC32C instructions may be used
//   crc32c_u8/_u64()        one CRC32C instruction step (reflected, no inversion)
//   frame_pointer()         the caller's frame record
//   signal_context_pc/sp/fp() and register names of a signal context
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

// Register names in the order signal_context_registers() fills them.
struct RegisterSet {
    static constexpr unsigned kMax = 40;
    const char *const *names;
    unsigned count;
    uint64_t values[kMax];
};

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
