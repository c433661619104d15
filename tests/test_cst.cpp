// Custom setting items through the user-space companion, which keeps them in
// an ini file of its own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_cfg.h"

using namespace tovi::test;
using Texts = std::vector<std::string>;

TEST(Cst, RefusedBeforeSendingThenSetGetAndReload)
{
    char dir[] = "/tmp/tovi_cst_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/cst.ini";
    setenv(TOVI_CST_FILE_ENV, file.c_str(), 1);
    LogCapture cap;
    const std::string s35(35, 's'), i33(33, 'i'), v257(257, 'v'), v256(256, 'w');
    struct {
        const char *section, *item, *value;
        std::string said;
    } refused[] = {
        {s35.c_str(), "i", "v", "Copy section name fail, " + s35},
        {"s", i33.c_str(), "v", "Copy item name fail, " + i33},
        {"s", "i", v257.c_str(), "Copy item value fail, " + v257},
        {"s", nullptr, "v", "Null pointer found, section = 0x1, item name = (nil), value = 0x2."},
        {s35.c_str() + 1, i33.c_str() + 1, v257.c_str() + 1, ""},  // the longest that fit
    };
    for (const auto &r : refused) {
        cap.clear();
        const bool nulls = r.item == nullptr;
        EXPECT_EQ(tovi_cst_setItem(nulls ? reinterpret_cast<const char *>(1) : r.section, r.item,
                                   nulls ? reinterpret_cast<const char *>(2) : r.value),
                  r.said.empty() ? 0 : -1);
        EXPECT_EQ(cap.texts(3), r.said.empty() ? Texts{} : Texts{r.said});
        EXPECT_EQ(access(file.c_str(), F_OK) == 0, r.said.empty()) << r.said;  // nothing sent: no file
    }
    cap.clear();
    char value[257];
    EXPECT_EQ(tovi_cst_getItem(s35.c_str() + 1, i33.c_str() + 1, value, sizeof value), 0);
    EXPECT_EQ(std::string(value), v257.substr(1));
    EXPECT_EQ(tovi_cst_setItem("affinity_level_1", "THREAD_CPU_AFFINITY_LIST", "2,3"), 0);
    EXPECT_EQ(tovi_cst_setItem("affinity_level_2", "THREAD_CPU_AFFINITY_LIST", "5"), 0);
    EXPECT_EQ(tovi_cst_setItem("affinity_level_1", "THREAD_CPU_AFFINITY_LIST", v256.c_str()), 0);
    EXPECT_EQ(read_file(file), "[" + s35.substr(1) + "]\n" + i33.substr(1) + "=" + v257.substr(1) +
                                   "\n[affinity_level_1]\nTHREAD_CPU_AFFINITY_LIST=" + v256 +
                                   "\n[affinity_level_2]\nTHREAD_CPU_AFFINITY_LIST=5\n");
    EXPECT_EQ(tovi_cst_getItem("affinity_level_1", "THREAD_CPU_AFFINITY_LIST", value, 257), 0);  // exactly its size
    EXPECT_EQ(std::string(value), v256);
    EXPECT_EQ(tovi_cst_getItem("affinity_level_1", "THREAD_CPU_AFFINITY_LIST", value, 256), -1);  // silently
    EXPECT_EQ(tovi_cst_reloadConfig(), 0);
    EXPECT_EQ(cap.texts(3), Texts{});
    // The backend's refusals come back as the ioctl's errno.
    EXPECT_EQ(tovi_cst_getItem("affinity_level_2", "OTHER", value, sizeof value), -1);
    EXPECT_EQ(tovi_cst_setItem("a b", "x", "v"), -1);
    EXPECT_EQ(tovi_cst_setItem("s", "x", "two\nlines"), -1);
    const char *item = "x";
    EXPECT_EQ(tovi_cst_getItem(nullptr, item, value, sizeof value), -1);
    char nulls[160];
    snprintf(nulls, sizeof nulls, "Null pointer found, section = (nil), itemname = %p, item = %p.",
             static_cast<const void *>(item), static_cast<void *>(value));
    EXPECT_EQ(cap.texts(3), (Texts{"Ioctl failed, errno 2", "Get item failed, section(affinity_level_2) item name(OTHER), "
                                  "cmd(256).", "Ioctl failed, errno 22", "Set item failed, section(a b) itemName(x) "
                                  "itemValue(v)", "Ioctl failed, errno 22", "Set item failed, section(s) itemName(x) "
                                  "itemValue(two\nlines)", nulls}));
    // A FIFO where the file belongs is refused, not held open for a reader.
    const std::string fifo = std::string(dir) + "/fifo";
    setenv(TOVI_CST_FILE_ENV, fifo.c_str(), 1);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(run_in_child([] { alarm(10); return tovi_cst_setItem("s", "x", "v") == -1 ? 0 : 1; }), 0);  // SIGALRM: 142
    std::filesystem::remove_all(dir);
}
