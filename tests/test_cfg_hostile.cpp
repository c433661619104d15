// Configuration files against a hostile file system: read errors, special
// files, symbolic links, oversized files, and flushes or renames that fail.
// Whatever happens, the file on disk stays as it was (or is edited whole)
// and the loaded copy agrees with it.
// test-env: TOVI_COMPANION=user
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

#include "child.hpp"
#include "io_faults.hpp"
#include "log_capture.hpp"
#include "tovi_cfg.h"

using tovi::test::LogCapture;

namespace {

constexpr unsigned kError = 3;

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void spit(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// More than one read block (64 KiB), the items an edit touches at the front.
std::string big_text()
{
    std::string text = "[A]\nk=old\ngone=1\n[B]\n";
    for (int i = 0; text.size() < 200000; ++i)
        text += "item" + std::to_string(i) + "=" + std::string(40, 'v') + "\n";
    return text + "[Z]\nlast=end\n";
}

using Op = std::function<int32_t(const char *path)>;

struct NamedOp {
    const char *name;
    Op op;
};

// Every call that reads a file, each as it would be used on it.
const std::vector<NamedOp> &all_ops()
{
    static const std::vector<NamedOp> ops = {
        {"tovi_cfg_init_ex", [](const char *p) { return tovi_cfg_init_ex(p); }},
        {"tovi_cfg_getItemFromFile",
         [](const char *p) {
             CfgItemResult r{};
             return tovi_cfg_getItemFromFile(p, "Z", "last", &r);
         }},
        {"tovi_cfg_file_setItemValue", [](const char *p) { return tovi_cfg_file_setItemValue(p, "A", "k", "new"); }},
        {"tovi_cfg_file_addItem", [](const char *p) { return tovi_cfg_file_addItem(p, "A", "added", "1"); }},
        {"tovi_cfg_file_delItem", [](const char *p) { return tovi_cfg_file_delItem(p, "A", "gone"); }},
        {"tovi_cfg_file_delSection", [](const char *p) { return tovi_cfg_file_delSection(p, "A"); }},
        {"tovi_cfg_write_item_to_file",
         [](const char *p) { return tovi_cfg_write_item_to_file(p, "A", "k", "new"); }},
    };
    return ops;
}

class CfgHostile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/tovi_cfg_hostile.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/app.ini";
    }

    void TearDown() override
    {
        tovi::test::clear_faults();
        tovi_cfg_destroy();
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
    }

    bool exists(const std::string &p) const { return access(p.c_str(), F_OK) == 0; }

    std::string dir_;
    std::string path_;
};

}  // namespace

TEST_F(CfgHostile, ReadErrorsFailTheCallAndLeaveTheFileAsItWas)
{
    const std::string text = big_text();
    const std::string said = "Read file (" + path_ + ") failed, errno " + std::to_string(EIO) + ".";
    for (const NamedOp &o : all_ops()) {
        spit(path_, text);
        LogCapture log;
        tovi::test::fail_read(path_, 2, EIO);  // the second block
        EXPECT_EQ(o.op(path_.c_str()), -1) << o.name;
        tovi::test::clear_faults();
        EXPECT_TRUE(slurp(path_) == text) << o.name;  // too long to print
        EXPECT_EQ(log.count(said), 1u) << o.name;
        EXPECT_FALSE(exists(path_ + ".temp")) << o.name;
    }
    // An interrupted read is only retried.
    spit(path_, text);
    tovi::test::fail_read(path_, 2, EINTR);
    EXPECT_EQ(tovi_cfg_file_setItemValue(path_.c_str(), "A", "k", "new"), 0);
    EXPECT_NE(slurp(path_).find("[Z]\nlast=end\n"), std::string::npos);
    EXPECT_NE(slurp(path_).find("k=new\n"), std::string::npos);
}

TEST_F(CfgHostile, SpecialAndOversizedFilesAreRefusedUntouchedWithoutBlocking)
{
    struct Kind {
        const char *name;
        std::function<bool(const std::string &)> make;  // false: not possible here
        std::string said;                                // the refusal, "%s" for the path
        bool open_refuses;                               // opening it for writing already fails
    };
    const std::string not_regular = "Config file (%s) is not a regular file, mode 0";
    const std::vector<Kind> kinds = {
        {"directory", [](const std::string &p) { return mkdir(p.c_str(), 0700) == 0; }, not_regular, true},
        {"fifo", [](const std::string &p) { return mkfifo(p.c_str(), 0600) == 0; }, not_regular, false},
        {"link to /dev/zero", [](const std::string &p) { return symlink("/dev/zero", p.c_str()) == 0; },
         "Config file (%s) is not a regular file, mode 020666.", false},
        {"device", [](const std::string &p) { return mknod(p.c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0; },
         "Config file (%s) is not a regular file, mode 020600.", false},
        {"oversized",
         [](const std::string &p) {
             spit(p, "[A]\nk=old\n");
             return truncate(p.c_str(), TOVI_CFG_FILE_MAX + 1LL) == 0;
         },
         "Config file (%s) is too large, size " + std::to_string(TOVI_CFG_FILE_MAX + 1LL) + " limit " +
             std::to_string(TOVI_CFG_FILE_MAX) + ".",
         false},
    };
    for (const Kind &k : kinds) {
        const std::string p = dir_ + "/" + std::to_string(&k - kinds.data()) + ".ini";
        if (!k.make(p)) {
            ADD_FAILURE() << "cannot make a " << k.name << ": " << errno;
            continue;
        }
        struct stat before {};
        ASSERT_EQ(lstat(p.c_str(), &before), 0);
        std::string said = k.said;
        said.replace(said.find("%s"), 2, p);
        for (const NamedOp &o : all_ops()) {
            // In a child with an alarm: a call that blocks fails the row, not the run.
            int status = tovi::test::run_in_child([&] {
                alarm(10);
                LogCapture log;
                if (o.op(p.c_str()) != -1)
                    return 1;
                for (const std::string &t : log.texts(kError))
                    if (t.compare(0, said.size(), said) == 0 || (k.open_refuses && t.find(p) != std::string::npos))
                        return 0;
                return 2;
            });
            EXPECT_EQ(status, 0) << k.name << " " << o.name;
            struct stat after {};
            ASSERT_EQ(lstat(p.c_str(), &after), 0);
            EXPECT_EQ(after.st_mode, before.st_mode) << k.name << " " << o.name;
            EXPECT_EQ(after.st_ino, before.st_ino) << k.name << " " << o.name;
            EXPECT_EQ(after.st_size, before.st_size) << k.name << " " << o.name;
            EXPECT_FALSE(exists(p + ".temp")) << k.name << " " << o.name;
        }
    }
    // A directory was loaded as an empty configuration.
    const std::string d = dir_ + "/0.ini";
    LogCapture log;
    EXPECT_EQ(tovi_cfg_init_ex(d.c_str()), -1);
    EXPECT_TRUE(log.contains("Parse config file " + d + " failed."));
}

TEST_F(CfgHostile, EditsThroughASymbolicLinkEditItsTarget)
{
    const std::string target = dir_ + "/real.ini";
    const std::string link = dir_ + "/link.ini";
    ASSERT_EQ(symlink("real.ini", link.c_str()), 0);
    struct Case {
        const char *name;
        Op op;
        std::string after;
    };
    const std::vector<Case> cases = {
        {"setItemValue", all_ops()[2].op, "[A]\nk=new\ngone=1\n"},
        {"addItem", all_ops()[3].op, "[A]\nk=old\ngone=1\nadded=1\n"},
        {"delItem", all_ops()[4].op, "[A]\nk=old\n"},
        {"delSection", all_ops()[5].op, ""},
    };
    for (const Case &c : cases) {
        spit(target, "[A]\nk=old\ngone=1\n");
        ASSERT_EQ(chmod(target.c_str(), 0640), 0);
        EXPECT_EQ(c.op(link.c_str()), 0) << c.name;
        struct stat st {};
        ASSERT_EQ(lstat(link.c_str(), &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode)) << c.name;
        ASSERT_EQ(stat(target.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0640u) << c.name;
        EXPECT_EQ(slurp(target), c.after) << c.name;
        EXPECT_FALSE(exists(target + ".temp") || exists(link + ".temp")) << c.name;
    }
}

TEST_F(CfgHostile, AFailedFlushOrRenamePutsTheLoadedCopyBack)
{
    struct Case {
        const char *name;
        std::function<void()> arm;
        std::string said;
    };
    const std::vector<Case> cases = {
        {"fsync of the temporary file", [] { tovi::test::fail_fsync(1, EIO); },
         "Fsync file(" + path_ + ".temp) failed, errno(5)."},
        {"rename", [] { tovi::test::fail_rename(1, EXDEV); },
         "Rename file(" + path_ + ".temp) to (" + path_ + ") failed, errno(18)."},
        {"fsync of the directory", [] { tovi::test::fail_fsync(2, EIO); },
         "Fsync directory(" + dir_ + ") failed, errno(5)."},
    };
    const std::string text = "[A]\nk=old\n";
    for (const Case &c : cases) {
        spit(path_, text);
        ASSERT_EQ(tovi_cfg_init_ex(path_.c_str()), 0);
        LogCapture log;
        c.arm();
        EXPECT_EQ(tovi_cfg_file_setItemValue(path_.c_str(), "A", "k", "new"), -1) << c.name;
        tovi::test::clear_faults();
        EXPECT_TRUE(log.contains(c.said)) << c.name;
        EXPECT_EQ(slurp(path_), text) << c.name;
        EXPECT_FALSE(exists(path_ + ".temp")) << c.name;
        char value[16] = {};
        EXPECT_EQ(tovi_cfg_getItemValue_ex(path_.c_str(), "A", "k", value, sizeof value), 0) << c.name;
        EXPECT_STREQ(value, "old") << c.name;
        tovi_cfg_destroy_ex(path_.c_str());
    }
    // The in-place writer flushes before it reports success.
    spit(path_, text);
    LogCapture log;
    tovi::test::fail_fsync(1, EIO);
    EXPECT_EQ(tovi_cfg_write_item_to_file(path_.c_str(), "A", "k", "new"), -1);
    EXPECT_TRUE(log.contains("Fsync file(" + path_ + ") failed, errno(5)."));
    tovi::test::clear_faults();
    EXPECT_EQ(tovi_cfg_write_item_to_file(path_.c_str(), "A", "k", "new"), 0);
    EXPECT_EQ(tovi::test::fsync_calls(), 1u);
}
