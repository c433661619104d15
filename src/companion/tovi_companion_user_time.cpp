// User-space companion: the kernel clocks and the zone table. Local time
// comes from the table last pushed with ioctl 902 (the offset in effect is
// found by binary search over its transitions); until one is pushed, from
// the process's own zone. The table's offsets include DST, so the
// DST-adjusted reads (0x103, 0x104) equal the local ones here.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>

#include "tovi_companion.hpp"
#include "tovi_timezone.h"

namespace tovi::companion::user {
namespace {

std::mutex g_table_mutex;
tovi_tz_table_s g_table;
bool g_have_table = false;

int64_t offset_at(int64_t utc)
{
    {
        std::lock_guard<std::mutex> hold(g_table_mutex);
        if (g_have_table && g_table.noTransition != 0)
            return g_table.gmtoff;
        if (g_have_table && g_table.count > 0) {
            const tovi_tz_transition_s *first = g_table.transition, *last = first + g_table.count;
            const tovi_tz_transition_s *next =
                std::upper_bound(first, last, utc, [](int64_t t, const tovi_tz_transition_s &e) { return t < e.utc; });
            return next == first ? first->gmtoff : (next - 1)->gmtoff;
        }
    }
    time_t t = static_cast<time_t>(utc);
    std::tm tm{};
    return localtime_r(&t, &tm) != nullptr ? tm.tm_gmtoff : 0;
}

// Local seconds of utc: the sum wraps as the kernel's unsigned arithmetic
// does, rather than overflowing for an input near the top of the range.
uint64_t local_of(int64_t utc) { return static_cast<uint64_t>(utc) + static_cast<uint64_t>(offset_at(utc)); }

int64_t now_utc()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec;
}

}  // namespace

long time_utc(long a1, long, long)
{
    auto *out = reinterpret_cast<uint64_t *>(a1);
    if (out == nullptr)
        return errno = EFAULT, -1;
    *out = static_cast<uint64_t>(now_utc());
    return 0;
}

long time_local(long a1, long, long)
{
    auto *out = reinterpret_cast<uint64_t *>(a1);
    if (out == nullptr)
        return errno = EFAULT, -1;
    *out = local_of(now_utc());
    return 0;
}

long time_local_from_utc(long a1, long a2, long)
{
    auto *in = reinterpret_cast<const uint64_t *>(a1);
    auto *out = reinterpret_cast<uint64_t *>(a2);
    if (in == nullptr || out == nullptr)
        return errno = EFAULT, -1;
    *out = local_of(static_cast<int64_t>(*in));
    return 0;
}

long timezone_table_store(void *arg)
{
    const auto *table = static_cast<const tovi_tz_table_s *>(arg);
    if (table == nullptr || table->count > TOVI_TZ_TABLE_MAX)
        return errno = EINVAL, -1;
    std::lock_guard<std::mutex> hold(g_table_mutex);
    std::memcpy(&g_table, table, sizeof g_table);
    g_have_table = true;
    return 0;
}

void timezone_table_reset()
{
    std::lock_guard<std::mutex> hold(g_table_mutex);
    g_have_table = false;
}

}  // namespace tovi::companion::user
