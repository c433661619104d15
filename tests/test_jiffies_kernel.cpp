// Jiffies with the kernel companion: the UIO device is required. Devices are
// made up inside a private mount namespace of a child process.
// test-env: TOVI_COMPANION=kernel
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
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

constexpr int kSkip = 77;
constexpr uint64_t kPublished = 123456789;

static bool write_file(const std::string &path, const std::string &data)
{
    return static_cast<bool>(std::ofstream(path, std::ios::binary) << data << std::flush);
}

// Gives this process its own /sys/devices/platform and /dev with a jiffies
// device "uio3" (a page with the counter at offset 8); `files` says which
// sysfs map files exist.
static bool fake_platform(const std::vector<std::string> &files, bool with_device)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/sys/devices/platform", "tmpfs", 0, nullptr) != 0 ||
        mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
        return false;
    std::string dir = "/sys/devices/platform";
    for (const char *d : {"/jiffies_uio", "/uio", "/uio3", "/maps", "/map0"})
        mkdir((dir += d).c_str(), 0755);
    const std::pair<std::string, std::string> values[] = {
        {"addr", "0x12340000\n"}, {"size", "0x1000\n"}, {"offset", "0x8\n"}};
    for (const auto &[name, value] : values)
        for (const auto &f : files)
            if (f == name && !write_file(dir + "/" + name, value))
                return false;
    std::string page(4096, '\0');
    std::memcpy(&page[8], &kPublished, sizeof kPublished);
    return !with_device || write_file("/dev/uio3", page);
}

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
    EXPECT_GE(tovi_get_jiffies(), ns0 / 4000000);
    // Nothing was kept: the next start runs the whole sequence again.
    cap.clear();
    EXPECT_EQ(tovi_Init(), 0xFFFFFFFFu);
    EXPECT_EQ(cap.count("Tovi init start."), 1u);
    // The failure names an empty device whatever the buffer held.
    cap.clear();
    char child[128] = "stale";
    EXPECT_EQ(tovi::companion::kernel::tovi_get_child_dir(child, sizeof child), 0xFFFFFFFFu);
    EXPECT_EQ(cap.texts(), (Texts{"Tovi jiffies get child dir () failed, errno=2."}));
}

TEST(JiffiesKernel, MapsThePublishedCounterOrReportsWhatIsMissing)
{
    struct Case {
        std::vector<std::string> files;
        bool device;
        uint32_t rc;
        Texts said;
    };
    const Case cases[] = {
        {{"addr", "size", "offset"}, true, 0, {}},
        {{"size", "offset"}, true, 0xFFFFFFFFu, {"Tovi jiffies open addr_fd map failed, errno=2."}},
        {{"addr", "offset"}, true, 0xFFFFFFFFu, {"Tovi jiffies open size_fd map failed, errno=2."}},
        {{"addr", "size"}, true, 0xFFFFFFFFu, {"Tovi jiffies open map failed, errno=2."}},
        {{"addr", "size", "offset"}, false, 0xFFFFFFFFu, {}},  // no device node: no message either
    };
    for (const Case &c : cases) {
        int rc = tovi::test::run_in_child([&c] {
            if (!fake_platform(c.files, c.device))
                return kSkip;
            LogCapture cap;
            if (jiffies_usr_main() != c.rc || cap.texts() != c.said)
                return 1;
            if (c.rc != 0)
                return g_jiffies_uio.jiffies == nullptr ? 0 : 2;
            const auto &u = g_jiffies_uio;
            if (u.phys_addr != 0x12340000u || u.size != 0x1000u || u.dev_fd < 0 || u.offset_fd < 0)
                return 3;
            if (u.jiffies == nullptr || *u.jiffies != kPublished || tovi_get_jiffies() != kPublished)
                return 4;
            // Mapped once: a second call changes nothing.
            volatile uint64_t *mapped = u.jiffies;
            return jiffies_usr_main() == 0 && u.jiffies == mapped && cap.texts().empty() ? 0 : 5;
        });
        if (rc == kSkip)
            GTEST_SKIP() << "no private mount namespace here";
        EXPECT_EQ(rc, 0) << c.said.size() << " " << c.files.size() << c.device;
    }
}
