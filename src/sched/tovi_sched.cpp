// Sleeping and waking.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <pthread.h>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>

#include "tovi_companion.hpp"
#define TOVI_LOG_SOURCE "tovi_sched"
#include "tovi_log.hpp"
#include "tovi_sched.h"
#include "tovi_thread.h"
#include "tovi_time.h"

namespace {

constexpr long kUsPerSec = 1000000;

// Non-zero until the wake-up handler is installed.
std::atomic<uint32_t> g_must_install{TOVI_ERR};
uint32_t g_sched_init_result = TOVI_ERR;
pthread_once_t g_sched_once = PTHREAD_ONCE_INIT;

int wakeup_signal()
{
    return SIGRTMAX - 4;
}

void wakeup_handler(int)
{
    // Nothing to do: delivery alone ends the receiver's sleep.
}

uint32_t install_wakeup_signal()
{
    if (g_must_install.load(std::memory_order_acquire) == 0)
        return 0;
    struct sigaction sa {};
    sa.sa_handler = wakeup_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    if (sigaction(wakeup_signal(), &sa, nullptr) != 0) {
        TOVI_LOG(tovi::log::kError, "signal SIGWAKEUP(%d) fail errno(%d)", wakeup_signal(), errno);
        return TOVI_ERR;
    }
    g_must_install.store(0, std::memory_order_release);
    return 0;
}

void sched_init_once()
{
    g_sched_init_result = install_wakeup_signal();
}

void select_sleep(long sec, long usec)
{
    timeval tv{sec, usec};
    select(0, nullptr, nullptr, nullptr, &tv);
}

}  // namespace

extern "C" {

void tovi_10msleep(uint32_t count)
{
    select_sleep(count / 100, static_cast<long>(count % 100) * 10000);
}

void tovi_msleep(uint32_t ms)
{
    select_sleep(ms / 1000, static_cast<long>(ms % 1000) * 1000);
}

void tovi_usleep(uint32_t us)
{
    select_sleep(us / kUsPerSec, static_cast<long>(us % kUsPerSec));
}

void tovi_schedule(void)
{
    timespec ts{0, 1000000};
    nanosleep(&ts, nullptr);
}

int tovi_yield(void)
{
    return sched_yield();
}

uint64_t tovi_mdelay(uint32_t ms)
{
    const auto limit = static_cast<uint64_t>(static_cast<double>(ms) * 1000000.0);
    const uint64_t start = tovi_time_getnanosec();
    uint64_t elapsed;
    do {
        elapsed = tovi_time_getnanosec() - start;
    } while (elapsed <= limit);
    return elapsed;
}

uint32_t tovi_sched_setaffinity(uint64_t cpu)
{
    long count = sysconf(_SC_NPROCESSORS_CONF);
    if (cpu >= static_cast<uint64_t>(count)) {
        TOVI_LOG(tovi::log::kError, "cpu num overstep, current only has %ld cpu", count);
        return TOVI_ERR;
    }
    cpu_set_t set;  // 1024 bits
    CPU_ZERO(&set);
    if (cpu < CPU_SETSIZE)
        CPU_SET(cpu, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        TOVI_LOG(tovi::log::kError, "set affinity fail, errno:%d", errno);
        return TOVI_ERR;
    }
    tovi_thrd_core_set(static_cast<int32_t>(cpu));
    return 0;
}

uint32_t tovi_set_process_name(const char *name)
{
    if (name == nullptr) {
        TOVI_LOG(tovi::log::kError, "Process name is NULL.");
        return TOVI_ERR;
    }
    tovi_thrd_setname("%s", name);
    return 0;
}

uint32_t tovi_sched_init(void)
{
    pthread_once(&g_sched_once, sched_init_once);
    if (g_sched_init_result != 0) {
        TOVI_LOG(tovi::log::kError, "sched init fail s_sched_init(%d)", g_sched_init_result);
        return TOVI_ERR;
    }
    return 0;
}

int64_t tovi_wait_comm(uint32_t *word, int64_t timeout)
{
    if (word == nullptr) {
        TOVI_LOG(tovi::log::kError, "Wait word is NULL.");
        return -1;
    }
    if (g_must_install.load(std::memory_order_acquire) != 0)
        install_wakeup_signal();
    if (timeout <= 0)
        return 0;
    int64_t result = 0;
    long ret = tovi::companion::syscall(tovi::companion::kCmdWait, reinterpret_cast<long>(word),
                                        reinterpret_cast<long>(&timeout), reinterpret_cast<long>(&result));
    return ret == 0 ? 0 : result;
}

uint32_t tovi_wait_interruptible(uint32_t *word)
{
    return tovi_wait_comm(word, TOVI_HZ) != 0 ? TOVI_ERR : 0;
}

uint32_t tovi_wake_up_process(int32_t tid)
{
    if (g_must_install.load(std::memory_order_acquire) != 0)
        install_wakeup_signal();
    if (tgkill(getpid(), tid, wakeup_signal()) != 0)
        return static_cast<uint32_t>(errno);
    return 0;
}

}  // extern "C"
