// Huge-page sizes and counters from sysfs; the sizes are kept in one list
// under the module mutex.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <mutex>
#include <string>
#include <vector>

#include "tovi_hugepages.h"
#include "tovi_mem.hpp"
#define TOVI_LOG_SOURCE "tovi_hugepages"
#include "tovi_log.hpp"

namespace tovi::hugepages {
namespace {

std::mutex g_mutex;
std::vector<uint64_t> g_sizes;  // bytes, ascending; guarded by g_mutex

// The size in bytes a directory name "hugepages-<N>kB" stands for, 0 for
// another name.
uint64_t size_of_name(const char *name)
{
    unsigned long long kb = 0;
    int used = 0;
    if (std::sscanf(name, "hugepages-%llukB%n", &kb, &used) != 1 || name[used] != '\0' || kb == 0 || kb > UINT64_MAX / 1024)
        return 0;
    return kb * 1024;
}

bool read_counter(const std::string &dir, const char *file, uint64_t *value)
{
    const std::string path = dir + "/" + file;
    FILE *f = std::fopen(path.c_str(), "re");
    unsigned long long v = 0;
    const bool ok = f != nullptr && std::fscanf(f, "%llu", &v) == 1;
    if (f != nullptr)
        std::fclose(f);
    if (!ok)
        TOVI_LOG(log::kError, "Read huge page file %s fail.", path.c_str());
    *value = v;
    return ok;
}

}  // namespace
}  // namespace tovi::hugepages

using namespace tovi;
using namespace tovi::hugepages;

extern "C" {

uint32_t tovi_huge_page_init(void)
{
    try {
        std::lock_guard<std::mutex> guard(g_mutex);
        if (!g_sizes.empty())
            return TOVI_OK;
        DIR *d = opendir(TOVI_HUGE_PAGE_DIR);
        if (d == nullptr) {
            TOVI_LOG(log::kError, "Open huge page directory %s fail, errno<%d>.", TOVI_HUGE_PAGE_DIR, errno);
            return TOVI_ERR;
        }
        std::vector<uint64_t> sizes;
        for (dirent *e; (e = readdir(d)) != nullptr;)
            if (uint64_t size = size_of_name(e->d_name); size != 0)
                sizes.push_back(size);
        closedir(d);
        std::sort(sizes.begin(), sizes.end());
        g_sizes = std::move(sizes);
        return TOVI_OK;
    } catch (...) {
        return TOVI_ERR;
    }
}

uint64_t tovi_get_page_size(void)
{
    uint64_t kb = 0;
    return mem::meminfo("Hugepagesize", &kb) && kb <= UINT64_MAX / 1024 ? kb * 1024 : 0;
}

uint32_t tovi_get_page_info_from_file(const char *dir, tovi_huge_page_info_s *info)
{
    if (dir == nullptr || info == nullptr) {
        TOVI_LOG(log::kError, "Param error: null pointer.");
        return TOVI_ERR;
    }
    try {
        std::string path(dir);
        while (path.size() > 1 && path.back() == '/')
            path.pop_back();
        const size_t slash = path.rfind('/');
        tovi_huge_page_info_s got{};
        got.size = size_of_name(path.c_str() + (slash == std::string::npos ? 0 : slash + 1));
        if (got.size == 0) {
            TOVI_LOG(log::kError, "Huge page directory %s is not recognized.", dir);
            return TOVI_ERR;
        }
        if (!read_counter(path, "nr_hugepages", &got.total) || !read_counter(path, "free_hugepages", &got.free) ||
            !read_counter(path, "resv_hugepages", &got.reserved) || !read_counter(path, "surplus_hugepages", &got.surplus))
            return TOVI_ERR;
        *info = got;
        return TOVI_OK;
    } catch (...) {
        return TOVI_ERR;
    }
}

uint64_t tovi_get_page_size_from_list(uint32_t index)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    return index < g_sizes.size() ? g_sizes[index] : 0;
}

void tovi_destroy_page_list(void)
{
    std::lock_guard<std::mutex> guard(g_mutex);
    std::vector<uint64_t>().swap(g_sizes);
}

void tovi_huge_page_destroy(void)
{
    tovi_destroy_page_list();
}

}  // extern "C"
