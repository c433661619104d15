// Jiffies with the kernel companion: the UIO device is required. Devices are
// made up inside a private mount namespace of a child process.
// test-env: TOVI_COMPANION=kernel
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_companion.h"
#include "tovi_companion.hpp"
#include "tovi_init.h"
#include "tovi_jiffies.h"
#include "tovi_time.h"

using tovi::test::LogCapture;
using Texts = std::vector<std::string>;

namespace {

constexpr int kSkip = 77;
constexpr uint64_t kPublished = 123456789;

bool write_file(const std::string &path, const std::string &text)
{
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        return false;
    bool ok = std::fputs(text.c_str(), f) >= 0;
    return std::fclose(f) == 0 && ok;
}

// A device page with the counter at offset 8.
bool make_device(const std::string &path)
{
    std::vector<uint64_t> page(512, 0);
    page[1] = kPublished;
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        return false;
    bool ok = std::fwrite(page.data(), sizeof(uint64_t), page.size(), f) == page.size();
    return std::fclose(f) == 0 && ok;
}

// Gives this process its own /sys/devices/platform and /dev with a jiffies
// device "uio3"; `files` says which sysfs map files exist.
bool fake_platform(const std::vector<std::string> &files, bool with_device)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    if (mount("tmpfs", "/sys/devices/platform", "tmpfs", 0, nullptr) != 0 ||
        mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
        return false;
    std::string dir = "/sys/devices/platform/jiffies_uio/uio/uio3/maps/map0/";
    for (std::string p : {"/sys/devices/platform/jiffies_uio", "/sys/devices/platform/jiffies_uio/uio",
                          "/sys/devices/platform/jiffies_uio/uio/uio3",
                          "/sys/devices/platform/jiffies_uio/uio/uio3/maps", dir.c_str()})
        mkdir(p.c_str(), 0755);
    const std::pair<std::string, std::string> values[] = {
        {"addr", "0x12340000\n"}, {"size", "0x1000\n"}, {"offset", "0x8\n"}};
    for (const auto &[name, value] : values)
        for (const auto &f : files)
            if (f == name && !write_file(dir + name, value))
                return false;
    return !with_device || make_device("/dev/uio3");
}

}  // namespace

// Runs first, while nothing is mapped.
TEST(JiffiesKernel, InitFailsWithoutTheDevice)
{
    LogCapture cap;
    EXPECT_STREQ(tovi_companion_name(), "kernel");
    EXPECT_EQ(tovi_Init(), 0xFFFFFFFFu);
    EXPECT_EQ(cap.texts(), (Texts{"Tovi init start.", "Tovi jiffies get child dir () failed, errno=2.",
                                  "Get jiffies usr addr failed.", "Tovi init end ret -1."}));
    EXPECT_EQ(g_jiffies_uio.jiffies, nullptr);

    // Jiffies still run from the clock.
    uint64_t ns0 = tovi_time_getnanosec();
    uint64_t j = tovi_get_jiffies();
    EXPECT_GE(j, ns0 / 4000000);

    // Nothing was kept: the next start runs the whole sequence again.
    cap.clear();
    EXPECT_EQ(tovi_Init(), 0xFFFFFFFFu);
    EXPECT_EQ(cap.count("Tovi init start."), 1u);
}

TEST(JiffiesKernel, MapsThePublishedCounter)
{
    int rc = tovi::test::run_in_child([] {
        if (!fake_platform({"addr", "size", "offset"}, true))
            return kSkip;
        LogCapture cap;
        if (jiffies_usr_main() != 0)
            return 1;
        if (g_jiffies_uio.phys_addr != 0x12340000u || g_jiffies_uio.size != 0x1000u)
            return 2;
        if (g_jiffies_uio.jiffies == nullptr || *g_jiffies_uio.jiffies != kPublished)
            return 3;
        if (tovi_get_jiffies() != kPublished)
            return 4;
        if (g_jiffies_uio.dev_fd < 0 || g_jiffies_uio.offset_fd < 0)
            return 5;
        if (!cap.texts().empty())
            return 6;
        // Mapped once: a second call changes nothing.
        volatile uint64_t *mapped = g_jiffies_uio.jiffies;
        if (jiffies_usr_main() != 0 || g_jiffies_uio.jiffies != mapped)
            return 7;
        return 0;
    });
    if (rc == kSkip)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(rc, 0);
}

TEST(JiffiesKernel, ReportsEachMissingMapFile)
{
    struct Case {
        std::vector<std::string> files;
        const char *message;
    };
    const Case cases[] = {
        {{"size", "offset"}, "Tovi jiffies open addr_fd map failed, errno=2."},
        {{"addr", "offset"}, "Tovi jiffies open size_fd map failed, errno=2."},
        {{"addr", "size"}, "Tovi jiffies open map failed, errno=2."},
    };
    for (const Case &c : cases) {
        int rc = tovi::test::run_in_child([&c] {
            if (!fake_platform(c.files, true))
                return kSkip;
            LogCapture cap;
            if (jiffies_usr_main() != 0xFFFFFFFFu)
                return 1;
            if (cap.texts() != Texts{c.message})
                return 2;
            return g_jiffies_uio.jiffies == nullptr ? 0 : 3;
        });
        if (rc == kSkip)
            GTEST_SKIP() << "no private mount namespace here";
        EXPECT_EQ(rc, 0) << c.message;
    }
}

TEST(JiffiesKernel, MissingDeviceNodeFailsWithoutAMessage)
{
    int rc = tovi::test::run_in_child([] {
        if (!fake_platform({"addr", "size", "offset"}, false))
            return kSkip;
        LogCapture cap;
        if (jiffies_usr_main() != 0xFFFFFFFFu)
            return 1;
        return cap.texts().empty() ? 0 : 2;
    });
    if (rc == kSkip)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(rc, 0);
}

// ---- the device name in failure reports ----

TEST(JiffiesKernel, ChildDirFailureReportsAnEmptyNameWhateverTheBufferHeld)
{
    LogCapture cap;
    char child[128] = "stale";
    EXPECT_EQ(tovi::companion::kernel::tovi_get_child_dir(child, sizeof child), 0xFFFFFFFFu);
    EXPECT_EQ(cap.texts(), (Texts{"Tovi jiffies get child dir () failed, errno=2."}));
}
