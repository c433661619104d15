// File operations: the shell commands and their path limits, the checked
// wrappers, the line reader, record locks between processes, the copy, the
// per-thread directory reader and file-system figures.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_fileops.h"

using tovi::test::LogCapture;
using tovi::test::open_fds;
using tovi::test::ShellRecorder;
using Texts = std::vector<std::string>;

namespace {

// A descriptor reading `text` from a pipe-free, seekable temporary file.
class TextFile {
public:
    explicit TextFile(const std::string &text)
    {
        char name[] = "/tmp/tovi_fileops_XXXXXX";
        fd_ = mkstemp(name);
        unlink(name);
        if (fd_ >= 0) {
            EXPECT_EQ(write(fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
            lseek(fd_, 0, SEEK_SET);
        }
    }
    ~TextFile() { close(fd_); }
    int fd() const { return fd_; }
    off_t offset() const { return lseek(fd_, 0, SEEK_CUR); }

private:
    int fd_ = -1;
};

std::vector<std::string> read_lines(int fd, int32_t size)
{
    std::vector<std::string> out;
    std::vector<char> buf(static_cast<size_t>(size));
    while (char *line = tovi_readline(fd, buf.data(), size)) {
        EXPECT_EQ(line, buf.data());
        out.emplace_back(line);
    }
    return out;
}

}  // namespace

TEST(Readline, DropsCarriageReturnsAndKeepsLineFeeds)
{
    TextFile f("a=1\r\n\r\nb\r=2\r\r\nlast");
    EXPECT_EQ(read_lines(f.fd(), 64), (std::vector<std::string>{"a=1\n", "\n", "b=2\n", "last"}));
}

TEST(Readline, StopsJustAfterTheLineFeed)
{
    TextFile f("one\ntwo\n");
    char buf[16];
    ASSERT_NE(tovi_readline(f.fd(), buf, sizeof buf), nullptr);
    EXPECT_EQ(f.offset(), 4);  // the next reader of the descriptor starts at "two"
}

TEST(Readline, CutsALineAtSizeMinusOneAndTerminatesTheLastByte)
{
    TextFile f("abcdefg\nh\n");
    char buf[4];
    std::memset(buf, 'x', sizeof buf);
    ASSERT_NE(tovi_readline(f.fd(), buf, 4), nullptr);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(read_lines(f.fd(), 4), (std::vector<std::string>{"def", "g\n", "h\n"}));

    TextFile g("ab\n");
    char wide[8];
    std::memset(wide, 'x', sizeof wide);
    ASSERT_NE(tovi_readline(g.fd(), wide, sizeof wide), nullptr);
    EXPECT_EQ(std::string(wide, 3), "ab\n");
    EXPECT_EQ(wide[3], '\0');
    EXPECT_EQ(wide[4], 'x');  // untouched between the terminator and the last byte
    EXPECT_EQ(wide[7], '\0');
}

TEST(Readline, NothingStoredIsNull)
{
    TextFile f("x\n");
    char buf[4] = {'q', 'q', 'q', 'q'};
    EXPECT_EQ(tovi_readline(f.fd(), buf, 1), nullptr);  // room for the terminator only
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(f.offset(), 0);
    EXPECT_EQ(tovi_readline(f.fd(), buf, 0), nullptr);
    EXPECT_EQ(tovi_readline(f.fd(), nullptr, 4), nullptr);

    TextFile crs("\r\r\r");
    EXPECT_EQ(tovi_readline(crs.fd(), buf, sizeof buf), nullptr);  // carriage returns are never stored
    EXPECT_EQ(tovi_readline(-1, buf, sizeof buf), nullptr);          // a read error ends the line
}

namespace {

struct TempDir {
    std::string path = [] {
        char t[] = "/tmp/tovi_fileops_XXXXXX";
        return std::string(mkdtemp(t) != nullptr ? t : "/nonexistent");
    }();
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string operator/(const std::string &name) const { return path + "/" + name; }
};

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

// Each member at 1023 and 1024 characters (in either place): the shorter
// runs exactly its template, the longer is refused with the member's message.
TEST(Commands, PathLimitsAndTemplates)
{
    std::string a = "/tmp", b, s = "/s";
    while (a.size() < 1023)
        a += a.size() % 8 == 0 ? "/" : "d";
    b = a + "x";
    const struct {
        std::function<int32_t(const char *, const char *)> call;
        bool two;  // the second path is checked too
        std::string cmd, msg;
    } cases[] = {
        {tovi_cmd_cp, true, "cp -af " + a + " /s", "File Path is too Long, pSrcFile: (" + b + "), pDestFile: (/s)"},
        {[](auto p, auto) { return tovi_cmd_rm(p); }, false, "rm -rf " + a, "File path too long pSrcFile = " + b},
        {[](auto p, auto q) { return tovi_cmd_tar(p, q, TOVI_TAR_CREATE); }, true, "tar -czf " + a + " /s",
         "File path too long pSrcFile = " + b + ",pDir = /s"},
        {[](auto p, auto q) { return tovi_cmd_tar(p, q, TOVI_TAR_EXTRACT); }, true, "tar -xzf " + a + " -C /s",
         "File path too long pSrcFile = " + b + ",pDir = /s"},
        {[](auto p, auto) { return tovi_cmd_touch(p); }, false, "touch " + a, "File path:(" + b + ") is too long."},
        {tovi_cmd_mv, true, "mv " + a + " /s", "File path too long pSrcFile = " + b + ", pDestFile = /s"},
        {[](auto p, auto) { return tovi_cmd_mkdir(p); }, false, "mkdir -p " + a + " &>/dev/null",
         "File path too long pFile = " + b},
    };
    for (const auto &c : cases) {
        LogCapture log;
        ShellRecorder shell;
        EXPECT_EQ(c.call(a.c_str(), s.c_str()), 0);
        EXPECT_EQ(c.call(b.c_str(), s.c_str()), -36);
        EXPECT_EQ(c.call(s.c_str(), b.c_str()), c.two ? -36 : 0);
        ASSERT_EQ(shell.commands.size(), c.two ? 1u : 2u) << c.cmd;
        EXPECT_EQ(shell.commands[0], c.cmd);
        ASSERT_EQ(log.texts(3).size(), c.two ? 2u : 1u);
        EXPECT_EQ(log.texts(3)[0], c.msg);
    }
}

TEST(Commands, NullArgumentsAndRefusalsTable)
{
    ShellRecorder shell;
    LogCapture log;
    uint64_t value = 0;
    const struct {
        std::function<int64_t()> call;
        int64_t rc;
        const char *msg;
    } cases[] = {
        {[] { return tovi_cmd_cp(nullptr, "b"); }, -22, "SrcFile or DestFile is NULL."},
        {[] { return tovi_cmd_rm(nullptr); }, -22, "File is NULL."},
        {[] { return tovi_cmd_tar("a", nullptr, 1); }, -22, "Param is NULL."},
        {[] { return tovi_cmd_mv(nullptr, "b"); }, -22, "Param is NULL."},
        {[] { return tovi_cmd_mkdir("/tmp/a&>b"); }, -22, "Param error: pFile(/tmp/a&>b) is dangerous."},
        {[] { return tovi_cmd_cp("/tmp/a;reboot", "/b"); }, -29, "Execute cmd(cp -af /tmp/a;reboot /b) Fail(-29)"},
        {[] { return tovi_open(nullptr, O_RDONLY, 0); }, -1, "pFilePath is NULL."},
        {[] { return tovi_write(1, nullptr, 1); }, -1, "pBuf is NULL."},
        {[] { return tovi_stat("/", nullptr); }, -1, "pPath is NULL."},
        {[&] { return tovi_statfs("/", TOVI_STATFS_INDEX_MAX, &value); }, -22, "Invalid index (5).\n"},
        {[] { return static_cast<int32_t>(tovi_unlockfile(0, nullptr)); }, -22, "Param is NULL."},
        {[] { return tovi_copy(nullptr, "/tmp/x"); }, -22, "Param is NULL."},
        {[] { tovi_lock_req_s req{0, 0, 0}; return tovi_unlockfile(-1, &req); }, 0xFFFFFFFFll, nullptr},
    };
    for (const auto &c : cases) {
        log.clear();
        EXPECT_EQ(c.call(), c.rc) << (c.msg ? c.msg : "");
        EXPECT_EQ(log.texts(3), c.msg ? Texts{c.msg} : Texts{});
    }
    EXPECT_EQ(shell.commands, Texts{});
}

// The commands for real; a failing mkdir must be seen through its
// "&>/dev/null".
TEST(Commands, RealRunsAndAmpersandFailure)
{
    TempDir dir;
    LogCapture log;
    EXPECT_EQ(tovi_cmd_mkdir((dir / "tree/sub").c_str()) + tovi_cmd_touch((dir / "tree/f").c_str()), 0);
    EXPECT_EQ(tovi_cmd_tar((dir / "t.tgz").c_str(), (dir / "tree").c_str(), TOVI_TAR_CREATE), 0);
    EXPECT_EQ(tovi_cmd_tar((dir / "t.tgz").c_str(), (dir / "tree/sub").c_str(), TOVI_TAR_EXTRACT), 0);
    EXPECT_TRUE(std::filesystem::exists(dir.path + "/tree/sub" + dir.path + "/tree/f"));
    std::string blocked = dir / "tree/f/sub";  // under a regular file
    EXPECT_EQ(tovi_cmd_mkdir(blocked.c_str()), 1 << 8);
    EXPECT_EQ(log.texts(3), Texts{"Execute cmd(mkdir -p " + blocked + " &>/dev/null) Fail(256)"});
}

namespace {

// Another process holding a lock until released; release() gives its exit
// status: 0 when it took and gave back the lock.
struct LockHolder {
    int pipes[2][2];
    pid_t pid;
    LockHolder(const std::string &path, tovi_lock_req_s req)
    {
        (void)!pipe(pipes[0]), (void)!pipe(pipes[1]);
        char c = 0;
        if ((pid = fork()) == 0) {
            int fd = open(path.c_str(), O_RDWR), ok = tovi_lockfile(fd, &req) == 0;
            (void)!write(pipes[0][1], &c, 1), (void)!read(pipes[1][0], &c, 1);
            _exit(ok && tovi_unlockfile(fd, &req) == 0 ? 0 : 1);
        }
        (void)!read(pipes[0][0], &c, 1);
    }
    int release()
    {
        int st = -1;
        (void)!write(pipes[1][1], "g", 1), waitpid(pid, &st, 0);
        for (int fd : {pipes[0][0], pipes[0][1], pipes[1][0], pipes[1][1]})
            close(fd);
        return st;
    }
};

}  // namespace

// Lock modes between two processes: bit 0 exclusive, bit 1 no waiting.
TEST(RecordLock, ModesBetweenTwoProcesses)
{
    TempDir dir;
    std::ofstream(dir / "lock") << std::string(100, 'x');
    int fd = open((dir / "lock").c_str(), O_RDWR);
    const struct {
        tovi_lock_req_s held, asked;
        int32_t rc;
    } cases[] = {
        {{0, 0, 10}, {2, 0, 10}, 0}, {{0, 0, 10}, {3, 0, 10}, -1}, {{1, 0, 10}, {2, 5, 10}, -1},
        {{1, 0, 10}, {3, 9, 1}, -1}, {{1, 0, 10}, {3, 10, 5}, 0},  {{3, 20, 0}, {3, 99, 1}, -1},
    };
    for (const auto &c : cases) {
        LockHolder holder(dir / "lock", c.held);
        EXPECT_EQ(tovi_lockfile(fd, &c.asked), c.rc) << c.held.mode << " " << c.asked.mode << " " << c.asked.start;
        EXPECT_EQ(c.rc == 0 ? tovi_unlockfile(fd, &c.asked) : 0u, 0u);
        EXPECT_EQ(holder.release(), 0);
    }
    // A waiting request sleeps until the holder lets go, through a signal.
    struct sigaction sa {}, old {};
    sa.sa_handler = [](int) {};  // no SA_RESTART: the wait is interrupted
    sigaction(SIGALRM, &sa, &old);
    LockHolder holder(dir / "lock", {1, 0, 0});
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        tovi_lock_req_s req{1, 0, 0};
        EXPECT_EQ(tovi_lockfile(fd, &req), 0);
        got = true;
    });
    usleep(100000);
    pthread_kill(waiter.native_handle(), SIGALRM);
    usleep(100000);
    EXPECT_FALSE(got);
    EXPECT_EQ(holder.release(), 0);
    waiter.join();
    sigaction(SIGALRM, &old, nullptr);
    close(fd);
}

TEST(Copy, ContentFailuresAndFigures)
{
    TempDir dir;
    std::string src = dir / "src", dst = dir / "dst", data;
    for (int i = 0; i < 200000; ++i)
        data += static_cast<char>(i * 7 + i / 256);
    std::ofstream(src, std::ios::binary) << data;
    std::ofstream(dst) << std::string(300000, 'o');  // longer: truncated
    EXPECT_EQ(tovi_copy(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(slurp(dst), data);

    LogCapture log;
    int before = open_fds();
    const std::string failures[][3] = {
        {dir / "none", dst, "Open srcFile " + dir / "none" + " error."},
        {src, dir / "no/dir", "Open pDestFile " + dir / "no/dir" + " error."},
        {dir.path, dst, "copydata read from srcFile=" + dir.path + " to destfile=" + dst + " error."},
        {src, "/dev/full", "copydata WRITE from srcFile=" + src + " to destfile=/dev/full error."},
    };
    for (const auto &f : failures) {
        log.clear();
        EXPECT_EQ(tovi_copy(f[0].c_str(), f[1].c_str()), -1);
        EXPECT_EQ(log.texts(3), Texts{f[2]});
    }
    EXPECT_EQ(open_fds(), before);

    struct statvfs vfs {};
    uint64_t total = 0, inodes = 0;
    EXPECT_EQ(tovi_statfs(dir.path.c_str(), 0, &total) + tovi_statfs(dir.path.c_str(), 3, &inodes) + statvfs(dir.path.c_str(), &vfs), 0);
    EXPECT_TRUE(total == vfs.f_blocks * vfs.f_frsize && inodes == vfs.f_files);
}

// Entries land in the calling thread's own slot.
TEST(Readdir, PerThreadSlot)
{
    TempDir dir;
    std::ofstream(dir / "a") << "a";
    DIR *d = opendir(dir.path.c_str());
    std::set<std::string> names;
    for (dirent *e = tovi_readdir_new(d), *first = e; e != nullptr; e = tovi_readdir_new(d))
        names.insert(e == first ? e->d_name : "<elsewhere>");
    closedir(d);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a"}));
}
