// Internals of the thread module shared by its source files and reachable
// from the tests.
#pragma once

#include <cstdint>

#include "tovi_thread.h"

// A registry slot. `refs` is 0 for a free slot and changes only by
// compare-and-swap; `state` holds the TOVI_THREAD_* bits; `record` stays
// attached once allocated and is reused by the next claim.
struct tovi_thread_slot_s {
    uint32_t refs;
    uint32_t state;
    tovi_thread_s *record;
};

// Thread-locals. The signal handlers read them, so they use the
// initial-exec model: reaching them never calls into the dynamic loader.
#define TOVI_TLS_IE __attribute__((tls_model("initial-exec")))
extern __thread tovi_thread_s *m_current_thread TOVI_TLS_IE;
extern __thread int32_t my_core TOVI_TLS_IE;
extern __thread uint32_t my_numa TOVI_TLS_IE;

namespace tovi::thrd {

inline constexpr uint32_t kPoolStackSize = 131072;
// "Not known yet" in a record's CPU and NUMA fields.
inline constexpr uint64_t kUnknown64 = ~0ULL;
inline constexpr uint32_t kUnknown32 = ~0U;

// Claims a slot (or, with none free, makes a record without one) and resets
// its record for fn(arg). Null when memory ran out (logged).
tovi_thread_s *claim(tovi_thread_fn fn, void *arg);

// Takes a reference on a live slot's record, or null.
tovi_thread_s *get_live(uint32_t index);

// Sets a record's slot state (nothing for a record without slot).
void set_state(tovi_thread_s *rec, uint32_t state);
// Moves the slot state from `from` to `to`; false when it was not `from`.
bool move_state(tovi_thread_s *rec, uint32_t from, uint32_t to);
uint32_t slot_state(const tovi_thread_s *rec);

// What a thread does with its record when it starts: becomes its current
// record, learns its kernel tid and stack bounds, installs the signal stack
// and adopts strategy 0. With `map_now` the stack pages are populated.
void adopt(tovi_thread_s *rec, bool map_now);

// What it does when it ends: state finished, signal stack off, record
// given back.
void leave(tovi_thread_s *rec);

// The creation primitive with the record's preempt flag.
uint32_t create(tovi_thread_fn fn, void *arg, void *(*trampoline)(void *), pthread_t *id, pthread_attr_t *attr,
                uint32_t preempt);

// The two trampolines: plain, and with the stack mapped at once.
void *entry(void *record);
void *entry_instant(void *record);

// Sets the record name and the kernel name; false when the kernel refused.
bool set_names(tovi_thread_s *rec, const char *name);
// Copies a record's name that another thread may be changing.
void read_name(const tovi_thread_s *rec, char out[TOVI_THREAD_NAME_LEN]);
// Stores a whole name into a record that other threads may be reading.
void write_name(tovi_thread_s *rec, const char (&name)[TOVI_THREAD_NAME_LEN]);
// The calling thread's name: its record's, else the kernel's.
void current_name(char (&out)[TOVI_THREAD_NAME_LEN]);

// Learns the calling thread's stack bounds into its record; with `map_now`
// the stack pages are populated at once.
void fill_os_stack(tovi_thread_s *rec, bool map_now);

// The registered light-weight-thread stack hook, or null.
const tovi_lwt_stack_ops_s *lwt_stack_ops();

// Sets the stack size of a pool or instant-map attribute.
void set_small_stack(pthread_attr_t *attr);

// Configured CPUs as set bytes for the affinity calls: (count + 7) / 8, at
// most 128; taken once.
uint32_t cpuset_bytes();

// For the tests: slots with no reference, and the pool's thread count.
uint32_t free_slots();
uint32_t pool_size();

}  // namespace tovi::thrd
