// Memory figures of the machine ("/proc/meminfo"), page sizes, the page
// protection helpers and the page-cache release.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "tovi_mem.h"
#include "tovi_mem.hpp"
#include "tovi_process.hpp"
#define TOVI_LOG_SOURCE "tovi_mem"
#include "tovi_log.hpp"

namespace tovi::mem {

bool meminfo(const char *key, uint64_t *value)
{
    FILE *f = std::fopen("/proc/meminfo", "re");
    if (f == nullptr) {
        TOVI_LOG(log::kError, "Open /proc/meminfo fail, errno<%d>.", errno);
        return false;
    }
    const size_t keylen = std::strlen(key);
    char line[256];
    bool found = false;
    while (!found && std::fgets(line, sizeof line, f) != nullptr) {
        unsigned long long v = 0;
        found = std::strncmp(line, key, keylen) == 0 && line[keylen] == ':' && std::sscanf(line + keylen + 1, "%llu", &v) == 1;
        if (found)
            *value = v;
    }
    std::fclose(f);
    return found;
}

namespace {

uint32_t protect(void *addr, uint64_t len, int prot)
{
    const uint64_t page = tovi_get_sys_page_size();
    const auto start = reinterpret_cast<uintptr_t>(addr);
    if (addr == nullptr || len == 0 || len > UINTPTR_MAX - start - page) {
        TOVI_LOG(log::kError, "Param error: addr(%p) len(%llu).", addr, static_cast<unsigned long long>(len));
        return TOVI_ERR;
    }
    const uintptr_t first = start & ~(page - 1), end = (start + len + page - 1) & ~(page - 1);
    if (mprotect(reinterpret_cast<void *>(first), end - first, prot) != 0) {
        TOVI_LOG(log::kError, "Set memory protection fail, addr(%p) len(%llu) errno(%d).", addr, static_cast<unsigned long long>(len),
                 errno);
        return TOVI_ERR;
    }
    return TOVI_OK;
}

}  // namespace
}  // namespace tovi::mem

using namespace tovi;

extern "C" {

uint64_t tovi_get_total_mem(void)
{
    uint64_t kb = 0;
    return mem::meminfo("MemTotal", &kb) ? kb : 0;
}

uint64_t tovi_get_free_mem(void)
{
    uint64_t kb = 0;
    return mem::meminfo("MemFree", &kb) ? kb : 0;
}

uint32_t tovi_get_available_usage(void)
{
    uint64_t total = 0, available = 0;
    if (!mem::meminfo("MemTotal", &total) || !mem::meminfo("MemAvailable", &available) || total == 0 || available > total)
        return TOVI_ERR;
    return static_cast<uint32_t>((total - available) * 100 / total);
}

uint64_t tovi_get_sys_page_size(void)
{
    long page = sysconf(_SC_PAGESIZE);
    return page > 0 ? static_cast<uint64_t>(page) : 4096;
}

uint32_t tovi_setmemory_ro(void *addr, uint64_t len)
{
    return mem::protect(addr, len, PROT_READ);
}

uint32_t tovi_setmemory_rw(void *addr, uint64_t len)
{
    return mem::protect(addr, len, PROT_READ | PROT_WRITE);
}

int32_t tovi_release_mem(void)
{
    // A fixed command with ';' and '>': the filters are for commands built from arguments.
    static const char kCmd[] = "sync;echo 3 > /proc/sys/vm/drop_caches;";
    const process::Launcher &run = process::launcher();
    int status = -1;
    pid_t pid = run.start(kCmd, -1, 0, -1);
    if (pid < 0 || run.wait(pid, &status) != 0) {
        TOVI_LOG(log::kError, "Release memory fail, errno<%d>.", errno);
        return -1;
    }
    return status;
}

}  // extern "C"
