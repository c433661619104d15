// The thread watch table: a thread registers a time-out for what it is
// about to do, and a monitor reads which entries are overdue.
#include <mutex>

#include <safe_mem_lib.h>

#include "tovi_jiffies.h"
#define TOVI_LOG_SOURCE "tovi_thrd"
#include "tovi_log.hpp"
#include "tovi_thread.hpp"

namespace {

using tovi::log::kError;

struct ThreadWatch {
    std::mutex mutex;
    tovi_thread_watch_s entries[TOVI_THREAD_WATCH_MAX];
} g_thread_watch;

}  // namespace

extern "C" {

int32_t tovi_thread_watch_add(uint32_t timeout)
{
    const int32_t tid = tovi_thrd_gettid_accl();
    char name[TOVI_THREAD_NAME_LEN];
    tovi::thrd::current_name(name);
    std::lock_guard<std::mutex> guard(g_thread_watch.mutex);
    int32_t index = -1;
    for (uint32_t i = 0; i < TOVI_THREAD_WATCH_MAX; ++i) {
        const int32_t owner = g_thread_watch.entries[i].tid;
        if (owner == tid) {
            index = static_cast<int32_t>(i);
            break;
        }
        if (owner == 0 && index < 0)
            index = static_cast<int32_t>(i);
    }
    if (index < 0) {
        TOVI_LOG(kError, "Thread watch table toviThreadWatch is full, tid:%d.", tid);
        return -1;
    }
    tovi_thread_watch_s &e = g_thread_watch.entries[index];
    e.tid = tid;
    e.timeout = timeout;
    e.start_jiffies = tovi_get_jiffies();
    e.overdue = 0;
    memcpy_s(e.name, sizeof e.name, name, sizeof name);
    return index;
}

uint32_t tovi_thread_watch_del(void)
{
    const int32_t tid = tovi_thrd_gettid_accl();
    std::lock_guard<std::mutex> guard(g_thread_watch.mutex);
    for (tovi_thread_watch_s &e : g_thread_watch.entries) {
        if (e.tid == tid) {
            memset_s(&e, sizeof e, 0, sizeof e);
            return 0;
        }
    }
    return TOVI_ERR;
}

uint32_t tovi_thread_watch_get(uint32_t index, tovi_thread_watch_s *out)
{
    if (out == nullptr || index >= TOVI_THREAD_WATCH_MAX)
        return TOVI_ERR;
    const uint64_t now = tovi_get_jiffies();
    std::lock_guard<std::mutex> guard(g_thread_watch.mutex);
    const tovi_thread_watch_s &e = g_thread_watch.entries[index];
    if (e.tid == 0)
        return TOVI_ERR;
    *out = e;
    out->overdue = now - e.start_jiffies > e.timeout ? 1 : 0;
    return 0;
}

}  // extern "C"
