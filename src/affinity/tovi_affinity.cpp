// The affinity level of the timer threads.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "tovi_affinity.h"
#include "tovi_cfg.h"
#define TOVI_LOG_SOURCE "tovi_affinity"
#include "tovi_log.hpp"
#include "tovi_thread.h"

namespace {

using tovi::log::kInfo;

constexpr const char *kLevel1 = "affinity_level_1";
constexpr const char *kItem = "THREAD_CPU_AFFINITY_LIST";
constexpr const char *kProcess = "app_data";
constexpr uint32_t kSetBits = 1024;
constexpr size_t kValueMax = 256;

std::mutex g_mutex;
std::atomic<uint32_t> g_inited{0};

}  // namespace

extern "C" {

tovi_affinity_level_s g_affinityLevel_1;

int32_t tovi_affinity_init(void)
{
    if (g_inited.load(std::memory_order_acquire) != 0)  // pairs with the release below
        return 0;
    std::lock_guard<std::mutex> guard(g_mutex);
    if (g_inited.load(std::memory_order_relaxed) != 0)
        return 0;
    char name[32] = {};
    if (tovi_get_process_name(name) != 0) {
        TOVI_LOG(kInfo, "tovi_get_process_name failed, can't set affinity.");
        return -1;
    }
    // Only the data process is placed by level; a level that cannot be read
    // leaves its threads where the system puts them.
    if (std::strcmp(name, kProcess) == 0)
        tovi_parse_affinity_level(kLevel1, &g_affinityLevel_1);
    g_inited.store(1, std::memory_order_release);  // publishes g_affinityLevel_1
    return 0;
}

int32_t tovi_affinity_exit(void)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    memset_s(&g_affinityLevel_1, sizeof g_affinityLevel_1, 0, sizeof g_affinityLevel_1);
    g_inited.store(0, std::memory_order_release);
    return 0;
}

uint32_t tovi_parse_affinity_level(const char *name, tovi_affinity_level_s *level)
{
    if (name == nullptr || level == nullptr)
        return TOVI_ERR;
    memset_s(level->cpuSet, sizeof level->cpuSet, 0, sizeof level->cpuSet);
    char value[kValueMax] = {};
    if (tovi_cst_getItem(name, kItem, value, sizeof value) != 0) {
        // The arguments stand the other way round from the words; kept so
        // that the platform's log readers find the line they know.
        TOVI_LOG(kInfo, "Can not find the item(%s) in section(%s).", name, kItem);
        return TOVI_ERR;
    }
    if (strncpy_s(level->affinityLevelName, sizeof level->affinityLevelName, name,
                  sizeof level->affinityLevelName - 1) != 0) {
        TOVI_LOG(kInfo, "strncpy_s to affinitySet.affinityLevelName from %s failed.", name);
        return TOVI_ERR;
    }
    tovi_parse_affinity_value(value, level);
    return 0;
}

void tovi_parse_affinity_value(const char *text, tovi_affinity_level_s *level)
{
    if (text == nullptr || level == nullptr)
        return;
    for (const char *p = text;;) {
        // An empty piece (an empty list, ",," or a trailing ',') names no
        // CPU: read as a number it would bind the level to CPU 0 alone.
        unsigned long cpu = *p != ',' && *p != '\0' ? std::strtoul(p, nullptr, 10) : kSetBits;
        if (cpu < kSetBits)
            level->cpuSet[cpu / 64] |= 1ULL << (cpu % 64);
        const char *comma = std::strchr(p, ',');
        if (comma == nullptr)
            break;
        p = comma + 1;
    }
}

tovi_affinity_level_s *tovi_get_affinity_entity(const char *name)
{
    // The level is complete once the flag is up (acquire pairs with init).
    if (name == nullptr || g_inited.load(std::memory_order_acquire) == 0 ||
        g_affinityLevel_1.affinityLevelName[0] == '\0' ||
        std::strcmp(name, g_affinityLevel_1.affinityLevelName) != 0)
        return nullptr;
    return &g_affinityLevel_1;
}

uint32_t tovi_set_thread_affinity(pthread_t thread, const char *name)
{
    if (name == nullptr)
        return TOVI_ERR;
    const tovi_affinity_level_s *level = tovi_get_affinity_entity(name);
    if (level == nullptr)
        return 0;
    if (tovi_thrd_setbindcpu(thread, level->cpuSet) != 0) {
        TOVI_LOG(kInfo, "tovi_thrd_setbindcpu for tid(%lu) with(%s) failed.", static_cast<unsigned long>(thread),
                 name);
        return TOVI_ERR;
    }
    return 0;
}

}  // extern "C"
