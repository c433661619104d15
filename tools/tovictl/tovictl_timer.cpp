// tovictl timers: lists the timers waiting in this process's timer wheel
// and its high-resolution timer tree.
//
//   tovictl timers [-n COUNT]
//
// A fresh process has none of its own, so -n arms COUNT sample timers
// (due 1 s, 2 s, ... from now) first; they are deleted before exit.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tovi_hr_timer.h"
#include "tovi_symbol.h"
#include "tovi_timer.h"

namespace {

void sample_fire(uint64_t) {}

void print_timer(const tovi_timer_info_s &t, uint64_t now)
{
    char sym[128];
    tovi_symbol_addr_to_string(t.func, sym, sizeof sym);
    const long long left = static_cast<long long>(t.expirTime - now);
    std::printf("Timer entry:%#llx, expirTime:%llu (in %lld ms), timeOut:%llu, data:%llu, func:%#llx <%s> "
                "isp:%x flags:%x in funcName:%s file:%s line:%d\n",
                static_cast<unsigned long long>(t.addr), static_cast<unsigned long long>(t.expirTime), left,
                static_cast<unsigned long long>(t.timeOut), static_cast<unsigned long long>(t.data),
                static_cast<unsigned long long>(t.func), sym, static_cast<unsigned>(t.isp),
                static_cast<unsigned>(t.flags), t.funcName != nullptr ? t.funcName : "(null)",
                t.file != nullptr ? t.file : "(null)", t.line);
}

}  // namespace

int tovictl_timers(int argc, char **argv)
{
    unsigned long samples = 0;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "-n") == 0 && i + 1 < argc) {
            char *end = nullptr;
            const char *text = argv[++i];
            samples = std::strtoul(text, &end, 10);
            // strtoul would turn "-1" into a huge count: digits only.
            if (text[0] < '0' || text[0] > '9' || *end != '\0' || samples > 100000) {
                std::fprintf(stderr, "tovictl: timers: COUNT must be a number from 0 to 100000, not '%s'\n", text);
                return 2;
            }
        } else {
            std::fprintf(stderr, "tovictl: timers: unexpected '%s' (usage: tovictl timers [-n COUNT])\n", argv[i]);
            return 2;
        }
    }
    if (tovi_timer_module_init() != 0) {
        std::fprintf(stderr, "tovictl: timers: the timer module did not start\n");
        return 1;
    }
    tovi_symbol_init();
    std::vector<tovi_timer> armed(samples);
    for (unsigned long i = 0; i < samples; ++i) {
        if (tovi_timer_init(&armed[i]) != 0 || tovi_timer_set(&armed[i], 1000 * (i + 1), i, sample_fire) != 0 ||
            tovi_timer_add(&armed[i]) != 0) {
            std::fprintf(stderr, "tovictl: timers: arming sample %lu failed\n", i);
            return 1;
        }
    }
    uint64_t now = 0;
    int64_t count = tovi_timer_list_pending(nullptr, 0, nullptr);
    std::vector<tovi_timer_info_s> info(count > 0 ? static_cast<size_t>(count) + 16 : 16);
    count = tovi_timer_list_pending(info.data(), static_cast<uint32_t>(info.size()), &now);
    int rc = 0;
    if (count < 0) {
        rc = 1;
    } else {
        const auto shown = std::min<size_t>(static_cast<size_t>(count), info.size());
        std::printf("pending timers: %lld (now %llu ms)\n", static_cast<long long>(count),
                    static_cast<unsigned long long>(now));
        for (size_t i = 0; i < shown; ++i)
            print_timer(info[i], now);
    }
    // High-resolution timers (due within 1 ms of arming) of this process.
    count = tovi_hr_timer_list_pending(info.data(), static_cast<uint32_t>(info.size()), &now);
    if (count >= 0) {
        std::printf("pending high-resolution timers: %lld (now %llu ms monotonic)\n", static_cast<long long>(count),
                    static_cast<unsigned long long>(now));
        for (size_t i = 0; i < std::min<size_t>(static_cast<size_t>(count), info.size()); ++i)
            print_timer(info[i], now);
    }
    for (auto &t : armed)
        tovi_timer_delete_sync(&t);
    return rc;
}
