// File operations: shell commands, checked wrappers, line reader, record locks, copy, directory reader.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_fileops.h"

using namespace tovi::test;
using Texts = std::vector<std::string>;

namespace {

struct TextFile {  // a seekable descriptor reading `text`
    int fd = memfd_create("text", 0);
    explicit TextFile(const std::string &text) { (void)!write(fd, text.data(), text.size()), lseek(fd, 0, SEEK_SET); }
    ~TextFile() { close(fd); }
    off_t offset() const { return lseek(fd, 0, SEEK_CUR); }
};

Texts read_lines(int fd, int32_t size)
{
    Texts out;
    std::vector<char> buf(static_cast<size_t>(size));
    while (char *line = tovi_readline(fd, buf.data(), size))
        out.emplace_back(line == buf.data() ? line : "<elsewhere>");
    return out;
}

struct TempDir {
    char buf[32] = "/tmp/tovi_fileops_XXXXXX";
    std::string path = mkdtemp(buf) != nullptr ? buf : "/nonexistent";
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string operator/(const std::string &name) const { return path + "/" + name; }
};

// Another process holding a lock until released; release() gives 0 when it took and gave back the lock.
struct LockHolder {
    int go[2], done[2];
    pid_t pid;
    LockHolder(const std::string &path, tovi_lock_req_s req)
    {
        char c = 0;
        if ((void)!pipe(go), (void)!pipe(done), (pid = fork()) == 0) {
            int fd = open(path.c_str(), O_RDWR), ok = tovi_lockfile(fd, &req) == 0;
            (void)!write(done[1], &c, 1), (void)!read(go[0], &c, 1);
            _exit(ok && tovi_unlockfile(fd, &req) == 0 ? 0 : 1);
        }
        (void)!read(done[0], &c, 1);
    }
    int release()
    {
        int st = -1;
        (void)!write(go[1], "g", 1), waitpid(pid, &st, 0);
        for (int fd : {go[0], go[1], done[0], done[1]})
            close(fd);
        return st;
    }
};

}  // namespace

// Carriage returns never stored, cuts at size - 1, a stop just after the line feed, NULL when nothing is stored.
TEST(Readline, LinesCutsAndNothingStored)
{
    TextFile crlf("a=1\r\n\r\nb\r=2\r\r\nlast"), f("abcdefg\nh\n"), g("ab\ncd\n"), x("x\n"), crs("\r\r\r");
    EXPECT_EQ(read_lines(crlf.fd, 64), (Texts{"a=1\n", "\n", "b=2\n", "last"}));
    EXPECT_EQ(read_lines(f.fd, 4), (Texts{"abc", "def", "g\n", "h\n"}));
    char buf[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    ASSERT_EQ(tovi_readline(g.fd, buf, sizeof buf), buf);  // terminated, the last byte too; the next read starts at "cd"
    EXPECT_EQ(std::string(buf, sizeof buf) + std::to_string(g.offset()), std::string("ab\n\0xxx\0", 8) + "3");
    EXPECT_TRUE(!tovi_readline(x.fd, buf, 1) && buf[0] == '\0' && x.offset() == 0);  // room for the terminator only
    EXPECT_TRUE(!tovi_readline(x.fd, buf, 0) && !tovi_readline(x.fd, nullptr, 4) && !tovi_readline(crs.fd, buf, 4) &&
                !tovi_readline(-1, buf, 4));  // a read error ends the line
}

// The commands for real (a failing mkdir seen through its "&>/dev/null"); then each path at 1023 and 1024
// characters, in either place: the shorter runs exactly its template, the longer is refused with its message.
TEST(Commands, RealRunsPathLimitsAndRefusals)
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
    ShellRecorder shell;
    const std::string a = "/tmp/" + std::string(1018, 'd'), b = a + "x", s = "/s";
    const struct { std::function<int32_t(const char *, const char *)> call; bool two; std::string cmd, msg; } cases[] = {
        {tovi_cmd_cp, true, "cp -af " + a + " /s", "File Path is too Long, pSrcFile: (" + b + "), pDestFile: (/s)"},
        {[](auto p, auto) { return tovi_cmd_rm(p); }, false, "rm -rf " + a, "File path too long pSrcFile = " + b},
        {[](auto p, auto q) { return tovi_cmd_tar(p, q, TOVI_TAR_CREATE); }, true, "tar -czf " + a + " /s",
         "File path too long pSrcFile = " + b + ",pDir = /s"},
        {[](auto p, auto q) { return tovi_cmd_tar(p, q, TOVI_TAR_EXTRACT); }, true, "tar -xzf " + a + " -C /s",
         "File path too long pSrcFile = " + b + ",pDir = /s"},
        {[](auto p, auto) { return tovi_cmd_touch(p); }, false, "touch " + a, "File path:(" + b + ") is too long."},
        {tovi_cmd_mv, true, "mv " + a + " /s", "File path too long pSrcFile = " + b + ", pDestFile = /s"},
        {[](auto p, auto) { return tovi_cmd_mkdir(p); }, false, "mkdir -p " + a + " &>/dev/null", "File path too long pFile = " + b},
    };  // two: the second path is checked too
    for (const auto &c : cases) {
        log.clear(), shell.commands.clear();
        EXPECT_EQ((std::vector<int32_t>{c.call(a.c_str(), s.c_str()), c.call(b.c_str(), s.c_str()), c.call(s.c_str(), b.c_str())}),
                  (std::vector<int32_t>{0, -36, c.two ? -36 : 0})) << c.cmd;
        EXPECT_TRUE(shell.commands.size() == (c.two ? 1u : 2u) && shell.commands[0] == c.cmd) << c.cmd;
        EXPECT_TRUE(log.texts(3).size() == (c.two ? 2u : 1u) && log.texts(3)[0] == c.msg) << c.msg;
    }
    shell.commands.clear();
    uint64_t value = 0;
    const struct { std::function<int64_t()> call; int64_t rc; const char *msg; } refusals[] = {
        {[] { return tovi_cmd_cp(nullptr, "b"); }, -22, "SrcFile or DestFile is NULL."},
        {[] { return tovi_cmd_rm(nullptr); }, -22, "File is NULL."}, {[] { return tovi_cmd_mv(nullptr, "b"); }, -22, "Param is NULL."},
        {[] { return tovi_cmd_tar("a", nullptr, 1); }, -22, "Param is NULL."}, {[] { return tovi_copy(nullptr, "/x"); }, -22, "Param is NULL."},
        {[] { return tovi_cmd_mkdir("/tmp/a&>b"); }, -22, "Param error: pFile(/tmp/a&>b) is dangerous."},
        {[] { return tovi_cmd_cp("/tmp/a;reboot", "/b"); }, -29, "Execute cmd(cp -af /tmp/a;reboot /b) Fail(-29)"},
        {[] { return tovi_open(nullptr, O_RDONLY, 0); }, -1, "pFilePath is NULL."}, {[] { return tovi_write(1, nullptr, 1); }, -1, "pBuf is NULL."},
        {[&] { return tovi_statfs("/", TOVI_STATFS_INDEX_MAX, &value); }, -22, "Invalid index (5).\n"},
        {[] { return tovi_stat("/", nullptr); }, -1, "pPath is NULL."}, {[] { return static_cast<int32_t>(tovi_unlockfile(0, nullptr)); }, -22, "Param is NULL."},
        {[] { tovi_lock_req_s req{0, 0, 0}; return tovi_unlockfile(-1, &req); }, 0xFFFFFFFFll, nullptr},
    };
    for (const auto &c : refusals) {
        log.clear();
        EXPECT_EQ(c.call(), c.rc) << (c.msg ? c.msg : "");
        EXPECT_EQ(log.texts(3), c.msg ? Texts{c.msg} : Texts{});
    }
    EXPECT_EQ(shell.commands, Texts{});
}

// Lock modes between two processes (bit 0 exclusive, bit 1 no waiting); a
// waiting request sleeps through a signal until the holder lets go.
TEST(RecordLock, ModesBetweenTwoProcesses)
{
    TempDir dir;
    std::ofstream(dir / "lock") << std::string(100, 'x');
    int fd = open((dir / "lock").c_str(), O_RDWR);
    const struct { tovi_lock_req_s held, asked; int32_t rc; } cases[] = {
        {{0, 0, 10}, {2, 0, 10}, 0}, {{0, 0, 10}, {3, 0, 10}, -1}, {{1, 0, 10}, {2, 5, 10}, -1},
        {{1, 0, 10}, {3, 9, 1}, -1}, {{1, 0, 10}, {3, 10, 5}, 0},  {{3, 20, 0}, {3, 99, 1}, -1},
    };
    for (const auto &c : cases) {
        LockHolder holder(dir / "lock", c.held);
        EXPECT_EQ(tovi_lockfile(fd, &c.asked), c.rc) << c.held.mode << " " << c.asked.mode << " " << c.asked.start;
        EXPECT_TRUE((c.rc != 0 || tovi_unlockfile(fd, &c.asked) == 0) && holder.release() == 0);
    }
    struct sigaction sa {}, old {};
    sa.sa_handler = [](int) {};  // no SA_RESTART: the wait is interrupted
    sigaction(SIGALRM, &sa, &old);
    LockHolder holder(dir / "lock", {1, 0, 0});
    std::atomic<int> got{-2};  // the waiter's result
    std::thread waiter([&] { tovi_lock_req_s req{1, 0, 0}; got = tovi_lockfile(fd, &req); });
    usleep(100000);
    pthread_kill(waiter.native_handle(), SIGALRM);
    usleep(100000);
    EXPECT_EQ(got, -2);
    EXPECT_EQ(holder.release(), 0);
    waiter.join();
    EXPECT_EQ(got, 0);
    sigaction(SIGALRM, &old, nullptr);
    close(fd);
}

// The copy and its failures (no descriptor left open), file-system figures, the per-thread directory slot.
TEST(Copy, ContentFailuresFiguresAndReaddir)
{
    TempDir dir;
    std::string src = dir / "src", dst = dir / "dst", data;
    for (int i = 0; i < 200000; ++i)
        data += static_cast<char>(i * 7 + i / 256);
    std::ofstream(src, std::ios::binary) << data;
    std::ofstream(dst) << std::string(300000, 'o');  // longer: truncated
    EXPECT_EQ(tovi_copy(src.c_str(), dst.c_str()), 0);
    std::ifstream in(dst, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), data);
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
        EXPECT_TRUE(tovi_copy(f[0].c_str(), f[1].c_str()) == -1 && log.texts(3) == Texts{f[2]}) << f[2];
    }
    EXPECT_EQ(open_fds(), before);
    struct statvfs vfs {};
    uint64_t total = 0, inodes = 0;
    EXPECT_EQ(tovi_statfs(dir.path.c_str(), 0, &total) + tovi_statfs(dir.path.c_str(), 3, &inodes) + statvfs(dir.path.c_str(), &vfs), 0);
    EXPECT_TRUE(total == vfs.f_blocks * vfs.f_frsize && inodes == vfs.f_files);
    std::filesystem::remove(dst);
    DIR *d = opendir(dir.path.c_str());
    std::set<std::string> names;
    for (dirent *e = tovi_readdir_new(d), *first = e; e != nullptr; e = tovi_readdir_new(d))
        names.insert(e == first ? e->d_name : "<elsewhere>");
    closedir(d);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "src"}));
}
