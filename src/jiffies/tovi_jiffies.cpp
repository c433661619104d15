// Jiffies. The mapping is made once and never unmapped; readers take no lock.
#include <atomic>
#include <cstring>
#include <mutex>
#include <unistd.h>

#include "tovi_companion.hpp"
#include "tovi_jiffies.h"
#include "tovi_time.h"

tovi_jiffies_uio_s g_jiffies_uio;

namespace {

constexpr uint64_t kNsPerJiffy = 1000000000ULL / TOVI_HZ;

std::mutex g_map_mutex;
uint32_t g_mapped;
std::mutex g_init_mutex;
std::atomic<uint32_t> g_jiffies_ready{0};

}  // namespace

extern "C" {

uint32_t jiffies_uio_adp_open(void)
{
    return tovi::companion::jiffies_map(&g_jiffies_uio);
}

int jiffies_uio_adp_close(void)
{
    return close(g_jiffies_uio.dev_fd);
}

uint32_t jiffies_usr_main(void)
{
    std::lock_guard<std::mutex> guard(g_map_mutex);
    if (g_mapped == 1)
        return 0;
    std::memset(&g_jiffies_uio, 0, sizeof g_jiffies_uio);
    uint32_t ret = jiffies_uio_adp_open();
    if (ret == 0)
        g_mapped = 1;
    return ret == 0 ? 0 : TOVI_ERR;
}

void jiffies_Init(void)
{
    std::lock_guard<std::mutex> guard(g_init_mutex);
    if (g_jiffies_ready.load(std::memory_order_relaxed) == 1)
        return;
    uint32_t mapped = jiffies_usr_main();
    uint32_t clock = tovi_gettime_init();
    if (mapped == 0 || clock == 0)
        g_jiffies_ready.store(1, std::memory_order_release);  // publishes the mapping
}

uint64_t tovi_get_jiffies(void)
{
    if (g_jiffies_ready.load(std::memory_order_acquire) != 1) [[unlikely]]
        jiffies_Init();
    const volatile uint64_t *counter = g_jiffies_uio.jiffies;
    if (counter != nullptr)
        return *counter;
    return tovi_time_getnanosec() / kNsPerJiffy;
}

uint64_t jiffies_fini(uint64_t value)
{
    return value;
}

tovi_jiffies_uio_s *jiffies_uio_get(void)
{
    return &g_jiffies_uio;
}

}  // extern "C"
