// tovictl threads / mem: the thread registry, the tracked memory and the
// shared memory of a process that starts the library, a few threads and a pool.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "tovi_init.h"
#include "tovi_mem.h"
#include "tovi_sched.h"
#include "tovi_shm.h"
#include "tovi_thread.h"

namespace {

std::atomic<bool> g_stop{false};
std::atomic<int> g_started{0};

void *named_worker(void *arg)
{
    tovi_thrd_setname("%s", static_cast<const char *>(arg));
    ++g_started;
    while (!g_stop.load())
        tovi_msleep(10);
    return nullptr;
}

bool start_threads()
{
    if (tovi_Init() != 0) {
        std::fprintf(stderr, "tovictl: the library failed to start (see the log above)\n");
        return false;
    }
    static const char *const names[] = {"demo_io", "demo_flush", "demo_watch"};
    for (const char *name : names) {
        pthread_t id;
        if (create_thread_raw(named_worker, const_cast<char *>(name), &id) != 0) {
            std::fprintf(stderr, "tovictl: cannot start thread %s\n", name);
            return false;
        }
    }
    tovi_thread_pool_create(4);
    while (g_started.load() < 3)
        tovi_msleep(1);
    tovi_msleep(50);  // let the pool threads park
    return true;
}

}  // namespace

int tovictl_threads(int argc, char **argv)
{
    if (argc != 0) {
        std::fprintf(stderr, "tovictl: threads: takes no arguments, got '%s'\n", argv[0]);
        return 2;
    }
    if (!start_threads())
        return 1;
    std::fflush(stdout);
    tovi_thrd_list();
    g_stop = true;
    return 0;
}

int tovictl_mem(int argc, char **argv)
{
    if (argc != 0) {
        std::fprintf(stderr, "tovictl: mem: takes no arguments, got '%s'\n", argv[0]);
        return 2;
    }
    if (!start_threads())
        return 1;
    void *block = TOVI_MALLOC(200, 4096);  // a module's own tracked table
    tovi_mem_show(std::printf);
    TOVI_FREE(block);
    tovi_shm_show(std::printf);
    g_stop = true;
    return 0;
}
