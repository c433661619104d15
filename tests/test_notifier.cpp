// Notifier chains: priority order, the stop bit, counted walks, and a
// callback that takes itself off the chain during the walk.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tovi_notifier.h"

using tovi::test::LogCapture;

namespace {

struct Probe {
    ToviNotifierBlock block;
    int id;
    int32_t status;
    bool leave;  // unregisters itself when called
};

ToviAtomicNotifierHead g_chain = TOVI_ATOMIC_NOTIFIER_HEAD_INIT("test_chain");
std::vector<int> g_called;

int32_t record(ToviNotifierBlock *b, uint64_t, void *)
{
    auto *p = reinterpret_cast<Probe *>(b);
    g_called.push_back(p->id);
    if (p->leave) {
        EXPECT_EQ(tovi_atomic_notifier_chain_unregister(&g_chain, b), 0);
    }
    return p->status;
}

TEST(Notifier, WalkOrderStopAndCounts)
{
    LogCapture log;
    Probe p[4] = {{{record, nullptr, 5}, 1, 0, false},
                  {{record, nullptr, 10}, 2, 0, false},
                  {{record, nullptr, 5}, 3, 0x8001, false},
                  {{record, nullptr, 1}, 4, 0, false}};
    for (Probe &x : p)
        ASSERT_EQ(tovi_atomic_notifier_chain_register(&g_chain, &x.block), 0);
    char want[256];
    snprintf(want, sizeof want, "Notifier chain test_chain register (%s:%d, %p, %p, 5), ret=0", __FILE__, __LINE__ - 2,
             static_cast<void *>(&p[0].block), reinterpret_cast<void *>(record));
    EXPECT_EQ(log.texts(6)[0], want);
    EXPECT_EQ(tovi_atomic_notifier_chain_register(&g_chain, &p[0].block), 0);  // again: stays where it is
    struct Case {
        int32_t nrToCall;
        std::vector<int> called;
        int32_t ret;
    } cases[] = {{-1, {2, 1, 3}, 0x8001}, {2, {2, 1}, 0}, {0, {}, 0}};
    for (const Case &c : cases) {
        g_called.clear();
        int32_t calls = 0;
        EXPECT_EQ(tovi_atomic_notifier_call_chain__(&g_chain, 7, nullptr, c.nrToCall, &calls), c.ret);
        EXPECT_EQ(g_called, c.called) << c.nrToCall;
        EXPECT_EQ(calls, static_cast<int32_t>(c.called.size()));
    }
    // A callback leaves during the walk: the walk goes on to its successor.
    p[1].leave = true;
    p[2].status = 0;
    g_called.clear();
    log.clear();
    EXPECT_EQ(tovi_atomic_notifier_call_chain(&g_chain, 3, nullptr), 0);
    EXPECT_EQ(g_called, (std::vector<int>{2, 1, 3, 4}));
    EXPECT_EQ(log.texts(6)[0], "Chain name test_chain call chain start: action=3, data=(nil), nrToCall=-1, nrCalls=(nil).");
    g_called.clear();
    tovi_atomic_notifier_call_chain(&g_chain, 3, nullptr);
    EXPECT_EQ(g_called, (std::vector<int>{1, 3, 4}));
    EXPECT_EQ(tovi_atomic_notifier_chain_unregister(&g_chain, &p[1].block), -2);
    EXPECT_TRUE(tovi_atomic_notifier_chain_unregister(&g_chain, nullptr) == 0 &&
                tovi_atomic_notifier_chain_register(nullptr, &p[1].block) == 0);
    for (int i : {0, 2, 3})
        EXPECT_EQ(tovi_atomic_notifier_chain_unregister(&g_chain, &p[i].block), 0);
    EXPECT_EQ(tovi_atomic_notifier_chain_unregister(&g_chain, &p[0].block), -2);  // empty chain
}

}  // namespace
