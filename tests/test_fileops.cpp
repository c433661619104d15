// File operations: the shell commands and their path limits, the checked
// wrappers, the line reader, record locks between processes, the copy, the
// per-thread directory reader and file-system figures.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_fileops.h"

using tovi::test::LogCapture;
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

constexpr unsigned kError = 3;

class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/tovi_fileops_XXXXXX";
        path_ = mkdtemp(tmpl) != nullptr ? tmpl : "";
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// A path of exactly `len` characters under dir, made of short components
// so that only its total length matters.
std::string path_of_length(const std::string &dir, size_t len)
{
    std::string p = dir;
    while (p.size() + 3 < len)
        p += "/d";
    while (p.size() < len)
        p += "x";
    return p.substr(0, len);
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

int open_fds()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (dirent *e = readdir(d))
        n += e->d_name[0] != '.';
    closedir(d);
    return n - 1;
}

}  // namespace

// Every member at 1023 and 1024 characters: the shorter runs exactly its
// template, the longer is refused with the member's message and never runs.
TEST(Commands, PathLimitsAndTemplates)
{
    const std::string a = path_of_length("/tmp/tovi_limit", 1023);
    const std::string b = path_of_length("/tmp/tovi_limit", 1024);
    const char *s = "/tmp/short";
    const struct {
        const char *name;
        std::function<int32_t(const char *, const char *)> call;
        bool second_checked;
        std::string cmd;  // for the 1023-character path in first place
        std::string msg;  // with the 1024-character path in first place
    } cases[] = {
        {"cp", tovi_cmd_cp, true, "cp -af " + a + " " + s,
         "File Path is too Long, pSrcFile: (" + b + "), pDestFile: (" + s + ")"},
        {"rm", [](const char *p, const char *) { return tovi_cmd_rm(p); }, false, "rm -rf " + a,
         "File path too long pSrcFile = " + b},
        {"tar c", [](const char *p, const char *q) { return tovi_cmd_tar(p, q, TOVI_TAR_CREATE); }, true,
         "tar -czf " + a + " " + s, "File path too long pSrcFile = " + b + ",pDir = " + s},
        {"tar x", [](const char *p, const char *q) { return tovi_cmd_tar(p, q, TOVI_TAR_EXTRACT); }, true,
         "tar -xzf " + a + " -C " + s, "File path too long pSrcFile = " + b + ",pDir = " + s},
        {"touch", [](const char *p, const char *) { return tovi_cmd_touch(p); }, false, "touch " + a,
         "File path:(" + b + ") is too long."},
        {"mv", tovi_cmd_mv, true, "mv " + a + " " + s,
         "File path too long pSrcFile = " + b + ", pDestFile = " + s},
        {"mkdir", [](const char *p, const char *) { return tovi_cmd_mkdir(p); }, false,
         "mkdir -p " + a + " &>/dev/null", "File path too long pFile = " + b},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        ShellRecorder shell;
        EXPECT_EQ(c.call(a.c_str(), s), 0);
        EXPECT_EQ(c.call(b.c_str(), s), -36);
        if (c.second_checked) {
            EXPECT_EQ(c.call(s, b.c_str()), -36);
            EXPECT_EQ(c.call(s, a.c_str()), 0);
        }
        EXPECT_EQ(shell.commands.size(), c.second_checked ? 2u : 1u);
        EXPECT_EQ(shell.commands.at(0), c.cmd);
        ASSERT_GE(log.texts(kError).size(), 1u);
        EXPECT_EQ(log.texts(kError)[0], c.msg);
    }
}

TEST(Commands, NullArgumentsAndRefusals)
{
    ShellRecorder shell;
    LogCapture log;
    const struct {
        std::function<int32_t()> call;
        int32_t rc;
        const char *msg;
    } cases[] = {
        {[] { return tovi_cmd_cp(nullptr, "b"); }, -22, "SrcFile or DestFile is NULL."},
        {[] { return tovi_cmd_cp("a", nullptr); }, -22, "SrcFile or DestFile is NULL."},
        {[] { return tovi_cmd_rm(nullptr); }, -22, "File is NULL."},
        {[] { return tovi_cmd_tar(nullptr, "d", 0); }, -22, "Param is NULL."},
        {[] { return tovi_cmd_tar("a", nullptr, 1); }, -22, "Param is NULL."},
        {[] { return tovi_cmd_touch(nullptr); }, -22, "File is NULL."},
        {[] { return tovi_cmd_mv(nullptr, "b"); }, -22, "Param is NULL."},
        {[] { return tovi_cmd_mkdir(nullptr); }, -22, "File is NULL."},
        {[] { return tovi_cmd_mkdir("/tmp/a&>b"); }, -22, "Param error: pFile(/tmp/a&>b) is dangerous."},
        {[] { return tovi_cmd_cp("/tmp/a;reboot", "/tmp/b"); }, -29, "Execute cmd(cp -af /tmp/a;reboot /tmp/b) Fail(-29)"},
        {[] { return tovi_cmd_rm("/tmp/$(x)"); }, -29, "Execute cmd(rm -rf /tmp/$(x)) Fail(-29)"},
        {[] { return tovi_cmd_mv("a", "b|c"); }, -29, "Execute cmd(mv a b|c) Fail(-29)"},
    };
    for (const auto &c : cases) {
        log.clear();
        EXPECT_EQ(c.call(), c.rc);
        EXPECT_EQ(log.texts(kError), Texts{c.msg});
    }
    EXPECT_TRUE(shell.commands.empty());
}

// The commands for real, in one life cycle; a failing mkdir must be seen
// through its "&>/dev/null".
TEST(Commands, LifeCycle)
{
    TempDir dir;
    LogCapture log;
    EXPECT_EQ(tovi_cmd_mkdir((dir / "tree/sub").c_str()), 0);
    EXPECT_EQ(tovi_cmd_touch((dir / "tree/sub/f").c_str()), 0);
    std::ofstream(dir / "tree/g") << "payload";
    EXPECT_EQ(tovi_cmd_cp((dir / "tree").c_str(), (dir / "copy").c_str()), 0);
    EXPECT_EQ(slurp(dir / "copy/g"), "payload");
    EXPECT_EQ(tovi_cmd_mv((dir / "copy/g").c_str(), (dir / "moved").c_str()), 0);
    EXPECT_EQ(slurp(dir / "moved"), "payload");
    EXPECT_EQ(tovi_cmd_tar((dir / "t.tgz").c_str(), (dir / "copy").c_str(), TOVI_TAR_CREATE), 0);
    EXPECT_EQ(tovi_cmd_rm((dir / "copy").c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(dir / "copy"));
    EXPECT_EQ(tovi_cmd_mkdir((dir / "out").c_str()), 0);
    EXPECT_EQ(tovi_cmd_tar((dir / "t.tgz").c_str(), (dir / "out").c_str(), TOVI_TAR_EXTRACT), 0);
    EXPECT_TRUE(std::filesystem::exists(dir.path() + "/out" + dir.path() + "/copy/sub/f"));
    EXPECT_TRUE(log.texts().empty());

    // Under a regular file no directory can be made.
    std::string blocked = dir / "moved/sub";
    EXPECT_EQ(tovi_cmd_mkdir(blocked.c_str()), 1 << 8);
    EXPECT_EQ(tovi_cmd_cp((dir / "none").c_str(), (dir / "x").c_str()), 1 << 8);
    EXPECT_EQ(log.texts(kError),
              (Texts{"Execute cmd(mkdir -p " + blocked + " &>/dev/null) Fail(256)",
                     "Execute cmd(cp -af " + dir / "none" + " " + dir / "x" + ") Fail(256)"}));
}

TEST(Wrappers, NullArgumentsTable)
{
    LogCapture log;
    struct stat st {};
    uint64_t value = 0;
    tovi_lock_req_s req{0, 0, 0};
    const struct {
        std::function<int64_t()> call;
        int64_t rc;
        const char *msg;
    } cases[] = {
        {[] { return tovi_access(nullptr, F_OK); }, -1, "pFilePath is NULL."},
        {[] { return tovi_open(nullptr, O_RDONLY, 0); }, -1, "pFilePath is NULL."},
        {[] { return tovi_read(0, nullptr, 1); }, -1, "pBuf is NULL."},
        {[] { return tovi_write(1, nullptr, 1); }, -1, "pBuf is NULL."},
        {[&] { return tovi_stat(nullptr, &st); }, -1, "pPath is NULL."},
        {[&] { return tovi_statfs(nullptr, 0, &value); }, -22, "pPath is NULL."},
        {[&] { return tovi_statfs("/", TOVI_STATFS_INDEX_MAX, &value); }, -22, "Invalid index (5).\n"},
        {[] { return tovi_lockfile(0, nullptr); }, -22, "Param is NULL."},
        {[] { return static_cast<int32_t>(tovi_unlockfile(0, nullptr)); }, -22, "Param is NULL."},
        {[] { return tovi_copy(nullptr, "/tmp/x"); }, -22, "Param is NULL."},
        {[] { return tovi_readdir_new(nullptr) == nullptr ? -1 : 0; }, -1, "Param is NULL."},
        {[&] { return tovi_unlockfile(-1, &req); }, 0xFFFFFFFFll, nullptr},
        {[&] { return tovi_lockfile(-1, &req); }, -1, nullptr},
    };
    for (const auto &c : cases) {
        log.clear();
        EXPECT_EQ(c.call(), c.rc) << (c.msg ? c.msg : "");
        EXPECT_EQ(log.texts(kError), c.msg ? Texts{c.msg} : Texts{});
    }
}

TEST(Wrappers, DescriptorRoundTripAndFigures)
{
    TempDir dir;
    std::string f = dir / "w";
    int32_t fd = tovi_open(f.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(tovi_write(fd, "line one\r\nline two\r\n", 20), 20);
    EXPECT_EQ(tovi_sync(fd), 0);
    EXPECT_EQ(tovi_lseek(fd, 0, SEEK_SET), 0);
    char line[32];
    ASSERT_NE(tovi_readline(fd, line, sizeof line), nullptr);
    EXPECT_STREQ(line, "line one\n");
    char rest[32] = {};
    EXPECT_EQ(tovi_read(fd, rest, sizeof rest), 10);
    EXPECT_STREQ(rest, "line two\r\n");
    EXPECT_EQ(tovi_close(fd), 0);
    EXPECT_EQ(tovi_access(f.c_str(), R_OK), 0);
    struct stat st {};
    EXPECT_EQ(tovi_stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 20);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    struct statvfs vfs {};
    ASSERT_EQ(statvfs(dir.path().c_str(), &vfs), 0);
    uint64_t v[TOVI_STATFS_INDEX_MAX];
    for (uint32_t i = 0; i < TOVI_STATFS_INDEX_MAX; ++i)
        ASSERT_EQ(tovi_statfs(dir.path().c_str(), i, &v[i]), 0);
    EXPECT_EQ(v[TOVI_STATFS_TOTAL_BYTES], static_cast<uint64_t>(vfs.f_blocks) * vfs.f_frsize);
    EXPECT_EQ(v[TOVI_STATFS_TOTAL_INODES], static_cast<uint64_t>(vfs.f_files));
    EXPECT_LE(v[TOVI_STATFS_AVAIL_BYTES], v[TOVI_STATFS_FREE_BYTES]);
    EXPECT_LE(v[TOVI_STATFS_FREE_BYTES], v[TOVI_STATFS_TOTAL_BYTES]);
    EXPECT_LE(v[TOVI_STATFS_FREE_INODES], v[TOVI_STATFS_TOTAL_INODES]);
    EXPECT_EQ(tovi_statfs((dir / "missing").c_str(), 0, &v[0]), -1);
}

namespace {

// Another process holding a lock on a file until told to let go.
class LockHolder {
public:
    LockHolder(const std::string &path, tovi_lock_req_s req)
    {
        if (pipe(ready_) != 0 || pipe(release_) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open(path.c_str(), O_RDWR);
            char c = tovi_lockfile(fd, &req) == 0 ? 'k' : 'f';
            (void)!write(ready_[1], &c, 1);
            (void)!read(release_[0], &c, 1);
            _exit(tovi_unlockfile(fd, &req) == 0 ? 0 : 1);
        }
        char c = 0;
        (void)!read(ready_[0], &c, 1);
        locked_ = c == 'k';
    }
    ~LockHolder() { release(); }
    bool locked() const { return locked_; }
    int release()
    {
        if (pid_ <= 0)
            return -1;
        (void)!write(release_[1], "r", 1);
        int st = 0;
        waitpid(pid_, &st, 0);
        pid_ = -1;
        for (int fd : {ready_[0], ready_[1], release_[0], release_[1]})
            close(fd);
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }

private:
    int ready_[2] = {-1, -1};
    int release_[2] = {-1, -1};
    pid_t pid_ = -1;
    bool locked_ = false;
};

void on_alarm(int) {}

}  // namespace

// Lock modes between two processes: bit 0 exclusive, bit 1 no waiting.
TEST(RecordLock, ModesBetweenTwoProcesses)
{
    TempDir dir;
    std::string f = dir / "lock";
    std::ofstream(f) << std::string(100, 'x');
    int fd = open(f.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const struct {
        uint32_t held;
        int64_t held_start, held_len;
        uint32_t asked;
        int64_t start, len;
        int32_t rc;
    } cases[] = {
        {0, 0, 10, 2, 0, 10, 0},    // shared + shared
        {0, 0, 10, 3, 0, 10, -1},   // shared held, exclusive refused
        {1, 0, 10, 2, 5, 10, -1},   // exclusive held, shared overlapping refused
        {1, 0, 10, 3, 9, 1, -1},    // last byte of the held range
        {1, 0, 10, 3, 10, 5, 0},    // just after it
        {3, 20, 0, 3, 99, 1, -1},   // a held length of 0 reaches the end of the file
        {3, 20, 0, 2, 0, 20, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "held " << c.held << " asked " << c.asked << " at " << c.start);
        LockHolder holder(f, {c.held, c.held_start, c.held_len});
        ASSERT_TRUE(holder.locked());
        tovi_lock_req_s req{c.asked, c.start, c.len};
        EXPECT_EQ(tovi_lockfile(fd, &req), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(tovi_unlockfile(fd, &req), 0u);
        }
        EXPECT_EQ(holder.release(), 0);
    }

    // A waiting request sleeps until the holder lets go, through a signal.
    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = on_alarm;  // no SA_RESTART: the wait is interrupted
    sigaction(SIGALRM, &sa, &old);
    LockHolder holder(f, {1, 0, 0});
    ASSERT_TRUE(holder.locked());
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        tovi_lock_req_s req{1, 0, 0};
        EXPECT_EQ(tovi_lockfile(fd, &req), 0);
        got = true;
    });
    usleep(100000);
    pthread_kill(waiter.native_handle(), SIGALRM);
    usleep(100000);
    EXPECT_FALSE(got.load());
    EXPECT_EQ(holder.release(), 0);
    waiter.join();
    EXPECT_TRUE(got.load());
    sigaction(SIGALRM, &old, nullptr);
    close(fd);
}

TEST(Copy, ContentModeAndFailures)
{
    TempDir dir;
    std::string src = dir / "src", dst = dir / "dst";
    std::string data;
    for (int i = 0; i < 200000; ++i)
        data += static_cast<char>(i * 7 + i / 256);
    std::ofstream(src, std::ios::binary) << data;
    chmod(src.c_str(), 0640);
    std::ofstream(dst) << std::string(300000, 'o');  // longer: must be truncated
    EXPECT_EQ(tovi_copy(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(slurp(dst), data);
    EXPECT_EQ(tovi_copy(src.c_str(), (dir / "fresh").c_str()), 0);
    struct stat st {};
    stat((dir / "fresh").c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0640u);

    LogCapture log;
    int before = open_fds();
    const struct {
        std::string from, to, msg;
    } failures[] = {
        {dir / "missing", dst, "Open srcFile " + dir / "missing" + " error."},
        {src, dir / "no/dir", "Open pDestFile " + dir / "no/dir" + " error."},
        {dir.path(), dst, "copydata read from srcFile=" + dir.path() + " to destfile=" + dst + " error."},
        {src, "/dev/full", "copydata WRITE from srcFile=" + src + " to destfile=/dev/full error."},
    };
    for (const auto &c : failures) {
        log.clear();
        EXPECT_EQ(tovi_copy(c.from.c_str(), c.to.c_str()), -1);
        EXPECT_EQ(log.texts(kError), Texts{c.msg});
    }
    EXPECT_EQ(open_fds(), before);
}

TEST(Readdir, PerThreadSlots)
{
    TempDir dir;
    for (const char *n : {"a", "b", "c"})
        std::ofstream(dir / n) << n;
    DIR *d = opendir(dir.path().c_str());
    ASSERT_NE(d, nullptr);
    std::set<std::string> names;
    dirent *first = nullptr;
    while (dirent *e = tovi_readdir_new(d)) {
        if (first == nullptr)
            first = e;
        EXPECT_EQ(e, first);  // always the thread's own slot
        names.insert(e->d_name);
    }
    closedir(d);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", "b", "c"}));

    // Every slot taken by a live thread: the next thread is refused; slots of
    // threads that ended are taken over.
    LogCapture log;
    std::atomic<int> ready{0};
    std::atomic<bool> done{false};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < TOVI_READDIR_SLOTS; ++i)
        threads.emplace_back([&] {
            DIR *own = opendir(dir.path().c_str());
            if (tovi_readdir_new(own) == nullptr)
                ++refused;
            ++ready;
            while (!done)
                usleep(1000);
            closedir(own);
        });
    while (ready < TOVI_READDIR_SLOTS)
        usleep(1000);
    // The main thread holds a slot of its own, so exactly one thread lost.
    EXPECT_EQ(refused.load(), 1);
    ASSERT_EQ(log.texts(kError).size(), 1u);
    EXPECT_EQ(log.texts(kError)[0].rfind("can not find spare index for tid ", 0), 0u);
    done = true;
    for (std::thread &t : threads)
        t.join();
    std::thread late([&] {
        DIR *own = opendir(dir.path().c_str());
        EXPECT_NE(tovi_readdir_new(own), nullptr);
        closedir(own);
    });
    late.join();
}
