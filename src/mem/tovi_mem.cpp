// Tracked allocation. The usage table comes from the kernel-side companion
// once per process; counters are changed with single atomic adds and may be
// read while they change.
#include <atomic>
#include <cstdlib>
#include <mutex>

#include <safe_mem_lib.h>

#include "tovi_companion.hpp"
#define TOVI_LOG_SOURCE "tovi_mem"
#include "tovi_log.hpp"
#include "tovi_mem.h"

namespace {

constexpr uint32_t kAllocType = 1;

std::mutex g_table_mutex;
std::atomic<bool> g_table_tried{false};
uint64_t *g_table;

uint64_t *usage_table()
{
    if (g_table_tried.load(std::memory_order_acquire))
        return g_table;
    std::lock_guard<std::mutex> guard(g_table_mutex);
    if (!g_table_tried.load(std::memory_order_relaxed)) {
        uint64_t *table = nullptr;
        if (tovi::companion::syscall(tovi::companion::kCmdMemTable, reinterpret_cast<long>(&table)) == 0 &&
            table != nullptr) {
            memset_s(table, TOVI_MEM_MODULES * sizeof *table, 0, TOVI_MEM_MODULES * sizeof *table);
            g_table = table;
        }
        g_table_tried.store(true, std::memory_order_release);  // publishes g_table
    }
    return g_table;
}

uint32_t charged_module(uint32_t module)
{
    return module < TOVI_MEM_MODULES ? module : 0;
}

tovi_mem_head_s *head_of(void *ptr)
{
    return reinterpret_cast<tovi_mem_head_s *>(static_cast<char *>(ptr) - sizeof(tovi_mem_head_s));
}

// Reads the magic word before a pointer that may not be a tracked block at
// all: for a block from the platform allocator that word is the allocator's
// own, so the address checker must not object to the read.
__attribute__((no_sanitize_address)) uint32_t magic_before(void *ptr)
{
    return *reinterpret_cast<volatile uint32_t *>(&head_of(ptr)->magic);
}

}  // namespace

extern "C" {

void *tovi_mallocsubproc(uint32_t size, uint32_t *type, uint32_t, uint32_t, const char *)
{
    if (type != nullptr)
        *type = kAllocType;
    return std::malloc(size);
}

void *tovi_mallocsubstandard(uint32_t module, uint32_t size, uint32_t reserved, const char *func, uint32_t)
{
    if (size == 0)
        return nullptr;
    uint32_t type = 0;
    // In 64 bits: a size near 4 GiB must not wrap to a tiny block.
    uint64_t total = uint64_t{size} + sizeof(tovi_mem_head_s);
    void *block = total <= UINT32_MAX
                      ? tovi_mallocsubproc(static_cast<uint32_t>(total), &type, reserved, module, func)
                      : nullptr;
    if (block == nullptr) {
        TOVI_LOG(tovi::log::kError, "Malloc memory fails. PID: (%d), size: (%d), type: (%d).",
                 static_cast<int>(module), static_cast<int>(size), static_cast<int>(type));
        return nullptr;
    }
    auto *head = static_cast<tovi_mem_head_s *>(block);
    tovi_mem_init_head(head, size, module);
    tovi_mem_stat_add(module, size);
    return head + 1;
}

void tovi_freesubproc(void *ptr)
{
    std::free(ptr);
}

void tovi_freesub(void *ptr, const char *func, uint32_t line)
{
    if (ptr == nullptr) {
        TOVI_LOG_RATELIMITED(tovi::log::kError, "ptr  is null, function(%s) line(%u)", func, line);
        return;
    }
    if (magic_before(ptr) != TOVI_MEM_MAGIC) {
        // Memory from the platform allocator passed here by mistake is still released.
        TOVI_LOG(tovi::log::kError, "mem magic is wrong, ptr(%p), function(%s) line(%u)", ptr, func, line);
        tovi_freesubproc(ptr);
        return;
    }
    tovi_mem_head_s *head = head_of(ptr);
    tovi_mem_stat_sub(head->pid, head->size);
    tovi_freesubproc(head);
}

void tovi_mem_init_head(tovi_mem_head_s *head, uint32_t size, uint32_t module)
{
    if (head == nullptr) {
        TOVI_LOG(tovi::log::kError, "Memory head is NULL.");
        return;
    }
    head->magic = TOVI_MEM_MAGIC;
    head->size = size;
    head->pid = module;
    head->reserved = 0;
}

void tovi_mem_stat_add(uint32_t module, uint64_t bytes)
{
    if (uint64_t *table = usage_table())
        __atomic_fetch_add(&table[charged_module(module)], bytes, __ATOMIC_ACQ_REL);  // pairs with readers of the table
}

void tovi_mem_stat_sub(uint32_t module, uint64_t bytes)
{
    if (uint64_t *table = usage_table())
        __atomic_fetch_sub(&table[charged_module(module)], bytes, __ATOMIC_ACQ_REL);  // pairs with readers of the table
}

int tovi_mem_show(tovi_mem_print_fn print)
{
    if (print == nullptr)
        return 0;
    print("Begin to show used memory (Bytes) of all PID.\n");
    for (int i = 0; i < 5; ++i)
        print("| %-6s  %11s ", "PID", "UsedMem");
    print("\n");
    const uint64_t *table = usage_table();
    long long total = 0;
    unsigned shown = 0;
    for (uint32_t m = 0; table != nullptr && m < TOVI_MEM_MODULES; ++m) {
        auto used = static_cast<long long>(__atomic_load_n(&table[m], __ATOMIC_ACQUIRE));
        if (used == 0)
            continue;
        print("| %-6u  %11lld ", m, used);
        if (++shown % 5 == 0)
            print("\n");
        total += used;
    }
    return print("\nTotal used memory: %lld\n", total);
}

uint32_t tovi_mem_stat_dump(void)
{
    return tovi::companion::syscall(tovi::companion::kCmdMemDump) == 0 ? 0 : TOVI_ERR;
}

void *tovi_memset(void *buf, int c, size_t len)
{
    if (buf != nullptr && len != 0)
        memset_s(buf, len, c, len);
    return buf;
}

}  // extern "C"
