// Internals of the notifier chains shared with the exception chain, which
// takes the chain lock itself (without waiting) before it walks.
#pragma once

#include "tovi_notifier.h"

namespace tovi::notifier {

// The walk itself; the caller holds the chain's lock.
int32_t call_chain_locked(ToviAtomicNotifierHead *head, uint64_t action, void *data, int32_t nrToCall,
                          int32_t *nrCalls);

// The chain lock, recording the holder; try_lock returns false when another
// thread (or this one) holds it.
void lock(ToviAtomicNotifierHead *head);
bool try_lock(ToviAtomicNotifierHead *head);
void unlock(ToviAtomicNotifierHead *head);
// The holder's kernel thread id, TOVI_LOCK_NO_OWNER when free.
uint64_t owner(const ToviAtomicNotifierHead *head);

}  // namespace tovi::notifier
