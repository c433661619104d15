// The hook through which a light-weight-thread runtime tells the stack
// lookups where its own stacks lie.
#include <atomic>

#include "tovi_thread.hpp"

namespace {

std::atomic<const tovi_lwt_stack_ops_s *> g_lwt_ops{nullptr};

}  // namespace

namespace tovi::thrd {

const tovi_lwt_stack_ops_s *lwt_stack_ops()
{
    // Acquire pairs with the registration's release.
    return g_lwt_ops.load(std::memory_order_acquire);
}

}  // namespace tovi::thrd

extern "C" {

uint32_t register_lwt_stack_ops(const tovi_lwt_stack_ops_s *ops)
{
    if (ops == nullptr || ops->get_stack == nullptr)
        return TOVI_ERR;
    const tovi_lwt_stack_ops_s *none = nullptr;
    // Release publishes the table to the lookups' acquire.
    return g_lwt_ops.compare_exchange_strong(none, ops, std::memory_order_acq_rel) ? 0 : TOVI_ERR;
}

uint32_t unregister_lwt_stack_ops(const tovi_lwt_stack_ops_s *ops)
{
    if (ops == nullptr)
        return TOVI_ERR;
    return g_lwt_ops.compare_exchange_strong(ops, nullptr, std::memory_order_acq_rel) ? 0 : TOVI_ERR;
}

}  // extern "C"
