// Scheduled work inside the library: the pool state and the checks that
// work on it. The exported functions use the one process-wide root; the
// checks take a root and the current jiffies as arguments, so that tests
// drive a root of their own through minutes of jiffies without waiting.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "tovi_histogram.hpp"
#include "tovi_lock.h"
#include "tovi_schedwork.h"
#include "tovi_semaphore.h"

namespace tovi::schedwork {

inline constexpr int32_t kMaxThreads = TOVI_SCHED_WORK_MAX_THREADS;
inline constexpr uint32_t kSlots = TOVI_SCHED_WORK_TIMEOUT_SLOTS;
inline constexpr int32_t kDestroyBias = 1024;  // added to totalThreads while destroying
inline constexpr uint32_t kDefaultFreeMin = 4;
inline constexpr uint32_t kDefaultFreeMax = 8;
inline constexpr uint64_t kAllStuckJiffies = 44999;  // more than this: all workers stuck
inline constexpr uint32_t kMaxStuckDumps = 4;
inline constexpr int64_t kWaitMs = 10000;  // a worker's wait for work, between destroy checks

struct TimeoutEntry {
    uint64_t startJiffies;  // atomic; 0: no handler being watched
    pthread_mutex_t mutex;
    uint8_t inUse;            // atomic
    uint32_t timeoutJiffies;  // atomic
    uint32_t tid;             // kernel thread id of the owning worker
    uint32_t pid;             // pid of the work being run
};

// The queue's head, with room on both sides: a head shown as a work record
// (after a failed link check) is read within the root.
struct QueueHead {
    uint64_t before;
    tovi_list_head_s head;
    uint64_t after[2];
};

// Enqueue times of queued works, in queue order, for the queue-wait counter
// (the work record has no room for one). Guarded by queueLock. A work that
// found the ring full is not measured; a deleted work's sample is cleared.
struct WaitRing {
    static constexpr uint32_t kSize = 1024;
    struct Sample {
        const tovi_sched_work *work;
        uint64_t ns;
    };
    Sample samples[kSize];
    uint32_t head;  // oldest sample
    uint32_t count;
};

struct SchedWorkRoot {
    pthread_mutex_t initMutex = PTHREAD_MUTEX_INITIALIZER;
    uint32_t inited;      // atomic
    uint32_t started;     // atomic
    tovi_spinlock_s stateLock;
    uint32_t destroying;  // under stateLock
    int32_t totalThreads; // atomic
    int32_t idleThreads;  // atomic
    uint64_t startedCount;   // atomic
    uint64_t finishedCount;  // atomic
    tovi_spinlock_s queueLock;
    QueueHead queue;
    tovi_sem_enhance_s sem;
    uint32_t generation;  // atomic
    uint32_t freeNumMin;  // atomic
    uint32_t freeNumMax;  // atomic
    // All-stuck detector (heal checks are serialised by the framework).
    uint64_t lastCheck;
    uint64_t lastStarted;
    tovi_heal_task_s healTask;
    TimeoutEntry timeoutTable[kSlots];
    // Operator counters beyond the pool's own.
    uint64_t queuedCount;  // atomic
    uint64_t overruns;     // atomic
    WaitRing waits;
    stats::Histogram waitNs;
};

// The process-wide root.
SchedWorkRoot &root();

// Sets up the static parts of a root (locks, queue, semaphore, entries,
// heal record); what sched_work_init does once.
void root_setup(SchedWorkRoot &r);

// The overrun check and the all-stuck detector on a root at jiffies `now`.
int32_t timeout_check(SchedWorkRoot &r, uint64_t now);
int32_t all_work_timeout(SchedWorkRoot &r, uint64_t now);

// Writes the health word of a framework record from root `r`.
void heal_check(SchedWorkRoot &r, void *record, uint64_t now);

// Where stack dumps of stuck workers go; tests replace it to see them.
using DumpFn = void (*)(uint32_t tid);
DumpFn set_dump_hook(DumpFn fn);

}  // namespace tovi::schedwork
