// Internals shared by the signal handlers and the stack dumps. Everything
// here runs in signal handlers: no allocation, no lock, raw log lines only.
#pragma once

#include <cstdint>

namespace tovi::thrd::dump {

// The calling thread's kernel id, asked of the kernel (a forked child's
// cached id would be its parent's).
int32_t self_tid();

// Whether the 8 bytes at `addr` can be read without faulting (guard pages,
// unmapped ranges). Asks the kernel once per page through `cache`.
struct PageProbe {
    uint64_t page = ~0ULL;  // last page found readable
    bool readable(uint64_t addr);
};

// The heuristic call trace over the stack range holding sp (see the .cpp).
void call_trace(int32_t tid, uint64_t sp, uint64_t fp, uint64_t start, uint64_t end);

}  // namespace tovi::thrd::dump
