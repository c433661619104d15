// Huge-page sizes and counters over a fake sysfs directory and /proc/meminfo
// in a private mount namespace.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_hugepages.h"

using namespace tovi::test;

TEST(HugePages, SizesInOrderAndCountersPerSize)
{
    std::string failure = report_from_child([]() -> std::string {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", TOVI_HUGE_PAGE_DIR, "tmpfs", 0, nullptr) != 0 || mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0)
            return "SKIP";
        const std::string two = TOVI_HUGE_PAGE_DIR "/hugepages-2048kB/", big = TOVI_HUGE_PAGE_DIR "/hugepages-1048576kB";
        CHILD_CHECK(mkdir(two.c_str(), 0755) == 0 && mkdir(big.c_str(), 0755) == 0 && mkdir(TOVI_HUGE_PAGE_DIR "/hugepages-xkB", 0755) == 0);
        const char *counters[] = {"nr_hugepages", "free_hugepages", "resv_hugepages", "surplus_hugepages"};
        for (int i = 0; i < 4; ++i)
            CHILD_CHECK(write_file(two + counters[i], std::to_string(10 - i) + "\n") && (i == 3 || write_file(big + "/" + counters[i], "1\n")));
        CHILD_CHECK(write_file("/tmp/meminfo", "Hugepagesize:    2048 kB\n") &&
                    mount("/tmp/meminfo", "/proc/meminfo", nullptr, MS_BIND, nullptr) == 0 && tovi_get_page_size() == 2097152);
        CHILD_CHECK(tovi_get_page_size_from_list(0) == 0 && tovi_huge_page_init() == 0);
        CHILD_CHECK(tovi_get_page_size_from_list(0) == 2097152 && tovi_get_page_size_from_list(1) == 1073741824ULL &&
                    tovi_get_page_size_from_list(2) == 0);
        tovi_huge_page_info_s info{};
        CHILD_CHECK(tovi_get_page_info_from_file(two.c_str(), &info) == 0);
        CHILD_CHECK(info.size == 2097152 && info.total == 10 && info.free == 9 && info.reserved == 8 && info.surplus == 7);
        LogCapture cap;
        CHILD_CHECK(tovi_get_page_info_from_file(big.c_str(), &info) == TOVI_ERR && info.total == 10);  // untouched on failure
        CHILD_CHECK(tovi_get_page_info_from_file("/tmp", &info) == TOVI_ERR && tovi_get_page_info_from_file(nullptr, &info) == TOVI_ERR);
        CHILD_CHECK(cap.texts(3) == (std::vector<std::string>{"Read huge page file " + big + "/surplus_hugepages fail.",
                                                              "Huge page directory /tmp is not recognized.", "Param error: null pointer."}));
        CHILD_CHECK(mkdir(TOVI_HUGE_PAGE_DIR "/hugepages-64kB", 0755) == 0 && tovi_huge_page_init() == 0 &&
                    tovi_get_page_size_from_list(0) == 2097152);  // read once
        tovi_destroy_page_list();
        CHILD_CHECK(tovi_get_page_size_from_list(0) == 0 && tovi_huge_page_init() == 0 && tovi_get_page_size_from_list(0) == 65536);
        tovi_huge_page_destroy();
        CHILD_CHECK(tovi_get_page_size_from_list(0) == 0 && mount("tmpfs", "/sys", "tmpfs", 0, nullptr) == 0);
        CHILD_CHECK(tovi_huge_page_init() == TOVI_ERR && cap.contains("Open huge page directory " TOVI_HUGE_PAGE_DIR " fail, errno<2>."));
        CHILD_CHECK(write_file("/tmp/meminfo", "MemTotal: 1 kB\n") && tovi_get_page_size() == 0);
        return "";
    });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(failure, "");
}
