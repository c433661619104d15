// Light-weight process instances: a whole life cycle with its order of
// constructors and destructors, refusals, and look-ups racing creation.
// test-labels: concurrency
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.hpp"
#include "tovi_lwp.h"

namespace {

std::vector<std::string> g_events;

int ctor(tovi_lwp_inst_s *, void *data, uint32_t ctx, void *arg)
{
    if (arg != nullptr)
        return *static_cast<int *>(arg);
    g_events.push_back("+" + std::to_string(ctx));
    *static_cast<uint32_t *>(data) = ctx * 10;
    return 0;
}

void dtor(tovi_lwp_inst_s *, void *data, uint32_t ctx)
{
    g_events.push_back("-" + std::to_string(ctx) + "/" + std::to_string(*static_cast<uint32_t *>(data)));
}

}  // namespace

TEST(Lwp, LifeCycle)
{
    tovi::test::LogCapture log;
    tovi_lwp_type_s ctl{"controller", 4, ctor, dtor};
    tovi_lwp_type_s io{"io_context", 0, nullptr, nullptr};
    tovi_lwp_type_s twin{"controller", 0, nullptr, nullptr};
    ASSERT_EQ(tovi_lwp_type_register(&ctl) | tovi_lwp_type_register(&io), 0);
    EXPECT_EQ(tovi_lwp_type_register(&twin), -EEXIST);
    uint32_t a = 99, b = 99, c = 99;
    ASSERT_EQ(tovi_lwp_var_define(&ctl, "stats", 24, &a) | tovi_lwp_var_define(&ctl, "flags", 1, &b) |
                  tovi_lwp_var_define(&io, "queue", 8, &c), 0);
    EXPECT_EQ(a * 100 + b * 10 + c, 10u);  // slots count per type

    int refuse = -5;
    struct { tovi_lwp_type_s *type; uint32_t ctx; void *arg; int rc; } steps[] = {
        {&ctl, 1, nullptr, 0}, {&io, 1, nullptr, 0}, {&ctl, 2, nullptr, 0},
        {&ctl, 1, nullptr, -EEXIST}, {&ctl, 3, &refuse, -5}, {&twin, 1, nullptr, -ENOENT},
    };
    for (auto &s : steps)
        EXPECT_EQ(tovi_lwp_create(s.type, s.ctx, s.arg, nullptr), s.rc) << s.type->name << " " << s.ctx;
    EXPECT_EQ(tovi_lwp_find(&ctl, 3), nullptr);
    EXPECT_EQ(tovi_lwp_var_define(&ctl, "late", 8, &a), -EBUSY);
    EXPECT_EQ(tovi_lwp_type_unregister(&ctl), -EBUSY);
    EXPECT_EQ(log.texts(3), (std::vector<std::string>{
                                "lwp: type controller already registered.", "lwp: controller instance of context 1 exists.",
                                "lwp: constructor of controller for context 3 failed (-5).",
                                "lwp: type controller is not registered.",
                                "lwp: variable late defined while type controller has instances.",
                                "lwp: type controller still has 2 instances."}));

    // Variables: distinct, zeroed, per instance; no slot beyond those defined.
    tovi_lwp_inst_s *one = tovi_lwp_find(&ctl, 1), *two = tovi_lwp_find(&ctl, 2);
    ASSERT_TRUE(one != nullptr && two != nullptr);
    EXPECT_TRUE(tovi_lwp_ctx(two) == 2 && *static_cast<uint32_t *>(tovi_lwp_data(two)) == 20);
    auto *stats = static_cast<unsigned char *>(tovi_lwp_var(one, 0));
    auto *flags = static_cast<unsigned char *>(tovi_lwp_var(one, 1));
    ASSERT_EQ(flags - stats, 32);  // 24 bytes rounded up to 16
    EXPECT_EQ(std::count(stats, stats + 24, 0), 24);
    std::memset(stats, 0xAB, 24);
    EXPECT_EQ(*flags, 0);
    EXPECT_NE(tovi_lwp_var(two, 0), stats);
    EXPECT_EQ(tovi_lwp_var(one, 2), nullptr);

    tovi_lwp_info_s info[4];
    ASSERT_EQ(tovi_lwp_list(info, 4), 3u);
    std::string listing;
    for (int i = 0; i < 3; ++i)
        listing += std::string(info[i].type) + "/" + std::to_string(info[i].ctx) + "/" + std::to_string(info[i].vars) + "/" +
                   std::to_string(info[i].bytes) + "/" + std::to_string(info[i].sequence) + " ";
    EXPECT_EQ(listing, "controller/1/2/64/1 io_context/1/1/16/2 controller/2/2/64/3 ");

    // Tear-down: one destroyed alone, then the rest newest first, each once.
    EXPECT_EQ(tovi_lwp_destroy(one), 0);
    EXPECT_EQ(tovi_lwp_destroy(one), -ENOENT);
    EXPECT_EQ(tovi_lwp_create(&ctl, 4, nullptr, nullptr), 0);
    EXPECT_EQ(tovi_lwp_destroy_all(), 3u);
    EXPECT_EQ(g_events, (std::vector<std::string>{"+1", "+2", "-1/10", "+4", "-4/40", "-2/20"}));
    EXPECT_EQ(tovi_lwp_list(nullptr, 0), 0u);
    EXPECT_EQ(tovi_lwp_type_unregister(&ctl) | tovi_lwp_type_unregister(&io), 0);
    EXPECT_EQ(tovi_lwp_type_unregister(&io), -ENOENT);
    EXPECT_EQ(log.texts(3).back(), "lwp: type io_context is not registered.");
}

TEST(Lwp, LookupsRaceCreation)
{
    tovi_lwp_type_s t{"raced", 0, nullptr, nullptr};
    ASSERT_EQ(tovi_lwp_type_register(&t), 0);
    constexpr uint32_t kN = 400;
    std::atomic<bool> bad{false};
    std::thread reader([&] {  // waits for each instance in turn, as creation goes on
        for (uint32_t i = 0; i < kN;)
            if (tovi_lwp_inst_s *p = tovi_lwp_find(&t, i); p != nullptr)
                bad = bad || tovi_lwp_ctx(p) != i++;
    });
    for (uint32_t i = 0; i < kN; ++i)
        EXPECT_EQ(tovi_lwp_create(&t, i, nullptr, nullptr), 0);
    reader.join();
    EXPECT_FALSE(bad);
    EXPECT_EQ(tovi_lwp_destroy_all(), kN);
    EXPECT_EQ(tovi_lwp_type_unregister(&t), 0);
}
