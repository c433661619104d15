// tovictl lwp: the instance listing of a sample process: two instance types
// (one instance per controller, one per I/O context) with a few variables,
// listed oldest first and torn down newest first.
//
//   tovictl lwp
#include <cstdio>
#include <cstring>

#include "tovi_lwp.h"

namespace {

int sample_ctor(tovi_lwp_inst_s *, void *, uint32_t, void *) { return 0; }
void sample_dtor(tovi_lwp_inst_s *, void *, uint32_t ctx) { std::printf("destroyed context %u\n", ctx); }

}  // namespace

int tovictl_lwp(int argc, char **argv)
{
    if (argc > 0) {
        std::fprintf(stderr, "tovictl: lwp: takes no arguments, got '%s'\n", argv[0]);
        return 2;
    }
    tovi_lwp_type_s ctl{"controller", 64, sample_ctor, sample_dtor};
    tovi_lwp_type_s io{"io_context", 16, sample_ctor, sample_dtor};
    uint32_t slot = 0;
    if (tovi_lwp_type_register(&ctl) != 0 || tovi_lwp_type_register(&io) != 0 ||
        tovi_lwp_var_define(&ctl, "stats", 256, &slot) != 0 || tovi_lwp_var_define(&io, "queue", 1024, &slot) != 0 ||
        tovi_lwp_var_define(&io, "credits", 8, &slot) != 0) {
        std::fprintf(stderr, "tovictl: lwp: the sample types could not be set up\n");
        return 1;
    }
    for (uint32_t c = 0; c < 2; ++c)
        tovi_lwp_create(&ctl, c, nullptr, nullptr);
    for (uint32_t c = 100; c < 104; ++c)
        tovi_lwp_create(&io, c, nullptr, nullptr);
    tovi_lwp_info_s info[16];
    const uint32_t n = tovi_lwp_list(info, 16);
    std::printf("%-4s %-16s %8s %5s %8s\n", "seq", "type", "context", "vars", "bytes");
    for (uint32_t i = 0; i < n && i < 16; ++i)
        std::printf("%-4llu %-16s %8u %5u %8llu\n", static_cast<unsigned long long>(info[i].sequence), info[i].type,
                    info[i].ctx, info[i].vars, static_cast<unsigned long long>(info[i].bytes));
    std::printf("%u instances\n", n);
    tovi_lwp_destroy_all();
    tovi_lwp_type_unregister(&io);
    tovi_lwp_type_unregister(&ctl);
    return 0;
}
