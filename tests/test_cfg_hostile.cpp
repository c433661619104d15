// Configuration files against read errors, special, linked or oversized files and failed flushes or
// renames: the file on disk stays as it was (or is edited whole) and the loaded copy agrees with it.
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "child.hpp"
#include "io_faults.hpp"
#include "log_capture.hpp"
#include "tovi_cfg.h"

using tovi::test::LogCapture;

static std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

static void spit(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// More than one read block (64 KiB), the items an edit touches at the front.
static std::string big_text()
{
    std::string text = "[A]\nk=old\ngone=1\n[B]\n";
    for (int i = 0; text.size() < 200000; ++i)
        text += "item" + std::to_string(i) + "=" + std::string(40, 'v') + "\n";
    return text + "[Z]\nlast=end\n";
}

// Every call that reads a file, each as it would be used on it.
const std::pair<const char *, std::function<int32_t(const char *)>> kOps[] = {
    {"init_ex", [](const char *p) { return tovi_cfg_init_ex(p); }},
    {"getItemFromFile", [](const char *p) { CfgItemResult r{}; return tovi_cfg_getItemFromFile(p, "Z", "last", &r); }},
    {"setItemValue", [](const char *p) { return tovi_cfg_file_setItemValue(p, "A", "k", "new"); }},
    {"addItem", [](const char *p) { return tovi_cfg_file_addItem(p, "A", "added", "1"); }},
    {"delItem", [](const char *p) { return tovi_cfg_file_delItem(p, "A", "gone"); }},
    {"delSection", [](const char *p) { return tovi_cfg_file_delSection(p, "A"); }},
    {"write_item_to_file", [](const char *p) { return tovi_cfg_write_item_to_file(p, "A", "k", "new"); }},
};

struct CfgHostile : ::testing::Test {
    void TearDown() override
    {
        tovi::test::clear_faults();
        tovi_cfg_destroy();
        std::filesystem::remove_all(dir_);
    }

    char tmpl_[32] = "/tmp/tovi_cfg_hostile.XXXXXX";
    const std::string dir_ = mkdtemp(tmpl_);
    const std::string path_ = dir_ + "/app.ini";
};

TEST_F(CfgHostile, ReadErrorsFailTheCallAndLeaveTheFileAsItWas)
{
    const std::string text = big_text();
    const std::string said = "Read file (" + path_ + ") failed, errno " + std::to_string(EIO) + ".";
    for (const auto &[name, op] : kOps) {
        spit(path_, text);
        LogCapture log;
        tovi::test::fail_read(path_, 2, EIO);  // the second block
        EXPECT_EQ(op(path_.c_str()), -1) << name;
        tovi::test::clear_faults();
        EXPECT_TRUE(slurp(path_) == text && !std::filesystem::exists(path_ + ".temp")) << name;  // too long to print
        EXPECT_EQ(log.count(said), 1u) << name;
    }
    // An interrupted read is only retried.
    spit(path_, text);
    tovi::test::fail_read(path_, 2, EINTR);
    EXPECT_EQ(tovi_cfg_file_setItemValue(path_.c_str(), "A", "k", "new"), 0);
    EXPECT_TRUE(slurp(path_) == std::string(text).replace(text.find("k=old"), 5, "k=new"));
}

TEST_F(CfgHostile, SpecialAndOversizedFilesAreRefusedUntouchedWithoutBlocking)
{
    // Each kind, made at a path, and how the refusal goes on after "Config file (<path>) is ".
    const std::pair<std::function<bool(const char *)>, std::string> kinds[] = {
        {[](const char *p) { return mkdir(p, 0700) == 0; }, "not a regular file, mode 0"},
        {[](const char *p) { return mkfifo(p, 0600) == 0; }, "not a regular file, mode 0"},
        {[](const char *p) { return symlink("/dev/zero", p) == 0; }, "not a regular file, mode 020666."},
        {[](const char *p) { return mknod(p, S_IFCHR | 0600, makedev(1, 3)) == 0; }, "not a regular file, mode 020600."},
        {[](const char *p) { return spit(p, "[A]\n"), truncate(p, TOVI_CFG_FILE_MAX + 1LL) == 0; },
         "too large, size " + std::to_string(TOVI_CFG_FILE_MAX + 1LL) + " limit " + std::to_string(TOVI_CFG_FILE_MAX) + "."},
    };
    for (size_t i = 0; i < std::size(kinds); ++i) {
        const auto &[make, refusal] = kinds[i];
        const std::string p = dir_ + "/" + std::to_string(i) + ".ini";
        struct stat before {};
        ASSERT_TRUE(make(p.c_str()) && lstat(p.c_str(), &before) == 0) << p << ": " << errno;
        const std::string said = "Config file (" + p + ") is " + refusal;
        for (const auto &[name, op] : kOps) {
            // In a child with an alarm: a call that blocks fails the row, not the run.
            int status = tovi::test::run_in_child([&] {
                alarm(10);
                LogCapture log;
                if (op(p.c_str()) != -1)
                    return 1;
                for (const std::string &t : log.texts(3))  // a directory cannot even be opened for writing
                    if (t.compare(0, said.size(), said) == 0 || (S_ISDIR(before.st_mode) && t.find(p) != t.npos))
                        return 0;
                return 2;
            });
            EXPECT_EQ(status, 0) << p << " " << name;
            struct stat after {};
            EXPECT_TRUE(lstat(p.c_str(), &after) == 0 && after.st_mode == before.st_mode && after.st_ino == before.st_ino &&
                        after.st_size == before.st_size && !std::filesystem::exists(p + ".temp")) << p << " " << name;
        }
    }
    LogCapture log;  // a directory was once loaded as an empty configuration
    EXPECT_EQ(tovi_cfg_init_ex((dir_ + "/0.ini").c_str()), -1);
    EXPECT_TRUE(log.contains("Parse config file " + dir_ + "/0.ini failed."));
}

TEST_F(CfgHostile, EditsThroughASymbolicLinkEditItsTarget)
{
    const std::string target = dir_ + "/real.ini", link = dir_ + "/link.ini";
    ASSERT_EQ(symlink("real.ini", link.c_str()), 0);
    const char *after[] = {"[A]\nk=new\ngone=1\n", "[A]\nk=old\ngone=1\nadded=1\n", "[A]\nk=old\n", ""};
    for (int i = 0; i < 4; ++i) {
        const auto &[name, op] = kOps[2 + i];  // the edits
        spit(target, "[A]\nk=old\ngone=1\n");
        ASSERT_EQ(chmod(target.c_str(), 0640), 0);
        EXPECT_EQ(op(link.c_str()), 0) << name;
        struct stat l {}, t {};
        ASSERT_EQ(lstat(link.c_str(), &l) | stat(target.c_str(), &t), 0);
        EXPECT_TRUE(S_ISLNK(l.st_mode) && (t.st_mode & 07777) == 0640) << name;
        EXPECT_EQ(slurp(target), after[i]) << name;
        EXPECT_FALSE(std::filesystem::exists(target + ".temp") || std::filesystem::exists(link + ".temp")) << name;
    }
}

TEST_F(CfgHostile, AFailedFlushOrRenamePutsTheLoadedCopyBack)
{
    const std::tuple<void (*)(unsigned, int), unsigned, int, std::string> cases[] = {
        {tovi::test::fail_fsync, 1, EIO, "Fsync file(" + path_ + ".temp) failed, errno(5)."},
        {tovi::test::fail_rename, 1, EXDEV, "Rename file(" + path_ + ".temp) to (" + path_ + ") failed, errno(18)."},
        {tovi::test::fail_fsync, 2, EIO, "Fsync directory(" + dir_ + ") failed, errno(5)."},  // of the directory
    };
    for (const auto &[fail, nth, err, said] : cases) {
        spit(path_, "[A]\nk=old\n");
        ASSERT_EQ(tovi_cfg_init_ex(path_.c_str()), 0);
        LogCapture log;
        fail(nth, err);
        EXPECT_EQ(tovi_cfg_file_setItemValue(path_.c_str(), "A", "k", "new"), -1) << said;
        tovi::test::clear_faults();
        EXPECT_TRUE(log.contains(said)) << said;
        EXPECT_TRUE(slurp(path_) == "[A]\nk=old\n" && !std::filesystem::exists(path_ + ".temp")) << said;
        char value[16] = {};
        EXPECT_EQ(tovi_cfg_getItemValue_ex(path_.c_str(), "A", "k", value, sizeof value), 0) << said;
        EXPECT_STREQ(value, "old") << said;
        tovi_cfg_destroy_ex(path_.c_str());
    }
    // The in-place writer flushes before it reports success.
    LogCapture log;
    tovi::test::fail_fsync(1, EIO);
    EXPECT_EQ(tovi_cfg_write_item_to_file(path_.c_str(), "A", "k", "new"), -1);
    EXPECT_TRUE(log.contains("Fsync file(" + path_ + ") failed, errno(5)."));
    tovi::test::clear_faults();
    EXPECT_EQ(tovi_cfg_write_item_to_file(path_.c_str(), "A", "k", "new"), 0);
    EXPECT_EQ(tovi::test::fsync_calls(), 1u);
}

// A FIFO renamed over the file while a writer waits for its lock is refused by its kind, not read.
TEST_F(CfgHostile, AFifoRenamedOverTheLockedFileIsRefused)
{
    spit(path_, "[A]\nk=old\n");
    const int holder = open(path_.c_str(), O_RDWR);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    LogCapture log;
    int32_t rc = 0;
    std::thread writer([&] { rc = tovi_cfg_write_item_to_file(path_.c_str(), "A", "k", "new"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the writer waits for the lock by now
    ASSERT_TRUE(mkfifo((dir_ + "/f").c_str(), 0600) == 0 && rename((dir_ + "/f").c_str(), path_.c_str()) == 0);
    close(holder);
    writer.join();
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(log.contains("Config file (" + path_ + ") is not a regular file, mode 010600."));
}
