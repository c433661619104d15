// The exception chain's try-lock, the watchdog hook, printk, panic and the
// platform requests a stock host refuses.
#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

#include "log_capture.hpp"
#include "tovi_exception.h"
#include "tovi_reboot.h"

using tovi::test::LogCapture;

namespace {

int32_t g_inner = 0;
ToviExceptionData g_seen;

// A second fault while the chain runs: the nested walk must not wait.
int32_t nested(ToviNotifierBlock *, uint64_t, void *data)
{
    g_seen = *static_cast<ToviExceptionData *>(data);
    g_inner = tovi_exception_call_chain(1, nullptr, nullptr, 0, 0, 11);
    return 0x21;
}

int32_t watchdog(uint32_t v) { return static_cast<int32_t>(v) + 1; }

TEST(Exception, SecondWalkDoesNotWaitForTheFirst)
{
    LogCapture log;
    ToviNotifierBlock block{nested, nullptr, 3};
    ASSERT_EQ(tovi_exception_chain_register(&block), 0);
    ToviExceptionRegs regs{};
    int info = 0;
    EXPECT_TRUE(tovi_exception_call_chain(0, &info, &regs, 64, 32, 6) == 0x21 && g_inner == -1);
    EXPECT_TRUE(g_seen.regs == &regs && g_seen.siginfo == &info && g_seen.arg64 == 64 && g_seen.arg32 == 32 &&
                g_seen.sig == 6);
    EXPECT_TRUE(log.contains("Exception notifier tovi_exception_chain call end: trylock fail, owner=" +
                             std::to_string(gettid()) + "."));
    EXPECT_TRUE(log.contains("Exception notifier tovi_exception_chain call end: ret 33."));
    EXPECT_TRUE(tovi_exception_chain_unregister(&block) == 0 && tovi_exception_chain_unregister(&block) == -2);
}

TEST(Exception, WatchdogAndInitArguments)
{
    LogCapture log;
    EXPECT_TRUE(tovi_exception_watchdog_timer_reset(4) == 0 && log.texts().empty());
    tovi_exception_watchdog_timer_func_register(watchdog);
    EXPECT_TRUE(tovi_exception_watchdog_timer_reset(4) == 5 && log.contains("Tovi_exception_watchdog_timer_reset=4"));
    uint32_t list[] = {12};
    EXPECT_TRUE(tovi_exception_init_with_list(nullptr, list, 0) == -1 && tovi_exception_init_with_list(nullptr, nullptr, 3) == -1);
    EXPECT_EQ(log.count("parm is invaild, sigList is null or sigNum is not bigger than 0(0)."), 1u);
    tovi_exception_watchdog_timer_func_register(nullptr);
}

// The user-space companion refuses every platform request: the callers
// report failure with their own messages, and nothing reboots.
TEST(Reboot, PlatformRequestsAreRefusedOnAStockHost)
{
    LogCapture log;
    EXPECT_EQ(printk("%s=%d", "x", 42), 4);
    EXPECT_EQ(panic("disk %d gone", 3), 0);
    EXPECT_TRUE(tovi_Reboot(5, 381, "xyz") == -1 && tovi_Reboot(6, 2, nullptr) == -1);
    EXPECT_TRUE(tovi_ResetLocalBoard() == TOVI_ERR && tovi_get_reboot_count(0) == TOVI_ERR);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               "x=42", "Panic info = disk 3 gone\n", "Syscall for tovi_Reboot failed.errno 1",
                               "Usrspace reboot: reason:5, mid:381, xyz.", "Syscall for tovi_Reboot failed.",
                               "Usrspace reboot: reason:6, mid:2.", "Syscall for tovi_Reboot failed.",
                               "Syscall for tovi_ResetLocalBoard failed.", "Syscall for tovi_get_reboot_count failed."}));
    EXPECT_EQ(panic("%s", std::string(300, 'p').c_str()), 0);  // too long: cut, not lost
    EXPECT_TRUE(log.contains("Panic info = " + std::string(255, 'p') + "\n"));
}

}  // namespace
