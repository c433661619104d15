// Command runners: the metacharacter filters, tovi_system's own filter,
// statuses, streams and their pid table, the shell's "&>" semantics, child
// hygiene, descriptors on failed paths, execv_s, the argv runner and the
// processor-speed reader built on them.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_process.h"
#include "tovi_process.hpp"
#include "tovi_time.h"

using tovi::test::LogCapture;
using tovi::test::ShellRecorder;
using Texts = std::vector<std::string>;

namespace {

constexpr unsigned kError = 3;
constexpr unsigned kInfo = 6;
const std::string kForbidden = "|;&$<>!\n`";

int open_fds()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (dirent *e = readdir(d))
        n += e->d_name[0] != '.';
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

std::string read_all(FILE *f)
{
    std::string out;
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    return out;
}

std::string run_read(const char *cmd)
{
    FILE *f = tovi_popen(cmd, "r");
    if (f == nullptr)
        return "<null>";
    std::string out = read_all(f);
    tovi_pclose(f);
    return out;
}

}  // namespace

TEST(Filter, ExactlyNineForbiddenCharacters)
{
    std::string found;
    for (int c = 1; c < 256; ++c) {
        char ch = static_cast<char>(c);
        if (isBlackChar(&ch) != 0)
            found += ch;
    }
    EXPECT_EQ(std::set<char>(found.begin(), found.end()), std::set<char>(kForbidden.begin(), kForbidden.end()));
    EXPECT_EQ(found.size(), 9u);
    char ch = '|';
    EXPECT_EQ(isWhiteChar(&ch, nullptr), 0);
    EXPECT_EQ(isWhiteChar(&ch, ""), 0);
    EXPECT_EQ(isWhiteChar(&ch, "a|"), 1);
}

// Every forbidden character alone, at the end of a command and in its
// middle: dangerous unless the allow list names it; other allowed
// characters do not help, and harmless quoting characters never count.
TEST(Filter, EachForbiddenCharacterAloneAtTheEndAndAllowed)
{
    for (char c : kForbidden) {
        const std::string alone(1, c);
        const std::string shapes[] = {alone, "ls -l" + alone, "echo a" + alone + "b", alone + alone};
        std::string others = kForbidden;
        others.erase(others.find(c), 1);
        for (const std::string &cmd : shapes) {
            SCOPED_TRACE(testing::Message() << "cmd=[" << cmd << "]");
            EXPECT_EQ(isDangerousCmd(cmd.c_str(), nullptr), 1);
            EXPECT_EQ(isDangerousCmd(cmd.c_str(), ""), 1);
            EXPECT_EQ(isDangerousCmd(cmd.c_str(), others.c_str()), 1);
            EXPECT_EQ(isDangerousCmd(cmd.c_str(), alone.c_str()), 0);
            EXPECT_EQ(tovi_system_s(cmd.c_str(), nullptr), -29);
            EXPECT_EQ(system_s(cmd.c_str(), others.c_str()), -29);
            EXPECT_EQ(tovi_popen_s(cmd.c_str(), "r", nullptr), nullptr);
            EXPECT_EQ(popen_s(cmd.c_str(), "r", nullptr), nullptr);
            int32_t pid = -7;
            EXPECT_EQ(tovi_popen_s_with_pid(cmd.c_str(), "r", others.c_str(), &pid), nullptr);
            EXPECT_EQ(pid, -7);
        }
    }
    EXPECT_EQ(isDangerousCmd("cp -af '/a b' \"c\" (d) {e} *?[f] \\g ~h #i %j", nullptr), 0);
    EXPECT_EQ(isDangerousCmd("", nullptr), 0);
}

// tovi_system's own filter, kept with its quirks, beside the safe forms;
// refused commands never reach a shell.
TEST(Filter, SystemFilterTableThroughARecordingShell)
{
    const struct {
        const char *cmd;
        bool system_runs;  // tovi_system
        bool safe_runs;    // tovi_system_s with no allow list
    } cases[] = {
        {"ls;", true, false},      {";", true, false},        {"|", true, false},
        {"ls;pwd", false, false},  {";;", false, false},      {"a||b", false, false},
        {"||", false, false},      {"a|b", true, false},      {"ls -l", true, true},
        {"a | b | c", true, false}, {"x&&y", true, false},    {"", true, true},
        {"echo $HOME", true, false},
    };
    ShellRecorder shell;
    shell.status["ls -l"] = 3 << 8;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.cmd);
        shell.commands.clear();
        int32_t rc = tovi_system(c.cmd);
        EXPECT_EQ(rc, c.system_runs ? shell.status[c.cmd] : -1);
        EXPECT_EQ(tovi_cmd_exec(c.cmd), rc);
        EXPECT_EQ(tovi_system_s(c.cmd, nullptr), c.safe_runs ? rc : -29);
        size_t runs = (c.system_runs ? 2u : 0u) + (c.safe_runs ? 1u : 0u);
        EXPECT_EQ(shell.commands, Texts(runs, c.cmd));
    }
    // An allow list lets a character through the safe filter only.
    shell.commands.clear();
    EXPECT_EQ(tovi_system_s("echo $HOME", "$"), 0);
    EXPECT_EQ(tovi_system_s("ls;pwd", ";"), -1);  // allowed, but tovi_system's filter still refuses
    EXPECT_EQ(tovi_system_s("a||b", "|"), -1);
    EXPECT_EQ(shell.commands, Texts{"echo $HOME"});

    EXPECT_EQ(tovi_system(nullptr), -22);
    EXPECT_EQ(tovi_cmd_exec(nullptr), -22);
    EXPECT_EQ(tovi_system_s(nullptr, "$"), -22);
    EXPECT_EQ(system_s(nullptr, nullptr), -22);
    EXPECT_EQ(tovi_popen_s(nullptr, "r", nullptr), nullptr);
    EXPECT_TRUE(shell.commands.size() == 1);
}

TEST(Shell, ChoiceTable)
{
    const struct {
        const char *sh_target;
        bool have_bash;
        const char *shell;
    } cases[] = {
        {"/usr/bin/bash", true, "/bin/sh"},  {"/bin/bash", false, "/bin/sh"},
        {"/usr/bin/dash", true, "/bin/bash"}, {"/bin/busybox", true, "/bin/bash"},
        {"/usr/bin/dash", false, "/bin/sh"},  {nullptr, true, "/bin/bash"},
        {nullptr, false, "/bin/sh"},
    };
    for (const auto &c : cases)
        EXPECT_STREQ(tovi::process::choose_shell(c.sh_target, c.have_bash), c.shell)
            << (c.sh_target ? c.sh_target : "(none)") << " bash=" << c.have_bash;
}

// The templates' "&>" must redirect both streams and keep the command's
// status; a POSIX sh would background the command and report 0.
TEST(Shell, AmpersandRedirectionKeepsTheStatus)
{
    EXPECT_EQ(tovi_system_s("false &>/dev/null", "&>"), 1 << 8);
    EXPECT_EQ(tovi_system_s("ls /nonexistent/tovi &>/dev/null", "&>"), 2 << 8);
    EXPECT_EQ(run_read("{ echo out; echo err >&2; } &>/dev/stdout"), "out\nerr\n");
}

TEST(Run, ExitStatusesAreRawWaitStatuses)
{
    const struct {
        const char *cmd;
        int32_t status;
    } cases[] = {
        {"exit 0", 0},
        {"exit 3", 3 << 8},
        {"exit 255", 255 << 8},
        {"/nonexistent/tovi/program 2>/dev/null", 127 << 8},
        {"kill -TERM $$", SIGTERM},
        {"kill -KILL $$", SIGKILL},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.cmd);
        EXPECT_EQ(tovi_system(c.cmd), c.status);
        FILE *f = tovi_popen(c.cmd, "r");
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(tovi_pclose(f), c.status);
        int32_t pid = 0;
        f = tovi_popen_with_pid(c.cmd, "r", &pid);
        ASSERT_NE(f, nullptr);
        fclose(f);
        int st = -1;
        ASSERT_EQ(waitpid(pid, &st, 0), pid);
        EXPECT_EQ(st, c.status);
    }
    EXPECT_EQ(system_s("exit 4", nullptr), 4 << 8);
}

TEST(Stream, ReadWriteModesAndForeignStreams)
{
    EXPECT_EQ(run_read("echo one; echo two"), "one\ntwo\n");

    char dir[] = "/tmp/tovi_process_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string out = std::string(dir) + "/out";
    FILE *w = tovi_popen(("cat > " + out).c_str(), "w");
    ASSERT_NE(w, nullptr);
    fputs("written\n", w);
    EXPECT_EQ(tovi_pclose(w), 0);
    std::ifstream in(out);
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "written");
    unlink(out.c_str());
    rmdir(dir);

    FILE *p = popen_s("echo platform", "r", nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(read_all(p), "platform\n");
    EXPECT_EQ(tovi_pclose(p), -1);  // not one of ours: nothing waited for, stream left open
    EXPECT_EQ(pclose(p), 0);

    FILE *file = fopen("/dev/null", "r");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(tovi_pclose(file), -1);
    EXPECT_EQ(fclose(file), 0);
    EXPECT_EQ(tovi_pclose(nullptr), -1);

    int32_t pid = 0;
    FILE *s = tovi_popen_s_with_pid("echo $0", "r", "$", &pid);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(read_all(s), "sh\n");  // every shell is started as "sh"
    fclose(s);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(Stream, ModesTable)
{
    ShellRecorder shell;
    int32_t pid = 0;
    for (const char *mode : {"", "rw", "r+", "x", "R", "we"}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(tovi_popen("true", mode), nullptr);
        EXPECT_EQ(tovi_popen_s("true", mode, nullptr), nullptr);
        EXPECT_EQ(popen_s("true", mode, nullptr), nullptr);
        EXPECT_EQ(tovi_popen_s_with_pid("true", mode, "", &pid), nullptr);
    }
    EXPECT_EQ(tovi_popen("true", nullptr), nullptr);
    EXPECT_EQ(popen_s("true", nullptr, nullptr), nullptr);
    EXPECT_EQ(tovi_popen_s_with_pid("true", "r", nullptr, &pid), nullptr);  // every pointer is required
    EXPECT_EQ(tovi_popen_s_with_pid("true", "r", "", nullptr), nullptr);
    EXPECT_TRUE(shell.commands.empty());
}

// A failed fdopen, pipe or start leaves no descriptor open and no child
// behind.
TEST(Stream, FailedPathsLeakNoDescriptor)
{
    LogCapture log;
    int before = open_fds();
    int32_t pid = 0;
    EXPECT_EQ(tovi_popen_with_pid("cat", "x", &pid), nullptr);  // the mode is not checked: fdopen fails
    EXPECT_EQ(tovi_popen_with_pid("echo hi", "r+", &pid), nullptr);
    EXPECT_EQ(open_fds(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // both children were reaped
    Texts info = log.texts(kInfo);
    ASSERT_EQ(info.size(), 2u);
    EXPECT_EQ(info[0].rfind("Iop is NULL, modes:(x), pdes[0]=(", 0), 0u) << info[0];
    EXPECT_NE(info[0].find("), errno:(22)."), std::string::npos) << info[0];

    {
        ShellRecorder shell;
        shell.fail_to_start = {"cat"};
        EXPECT_EQ(tovi_popen("cat", "r"), nullptr);
        EXPECT_EQ(tovi_popen("cat", "w"), nullptr);
        EXPECT_EQ(tovi_system("cat"), -1);
        EXPECT_EQ(open_fds(), before);
    }

    // Out of descriptors: the pipe cannot be made.
    int rc = tovi::test::run_in_child([] {
        int top = 0;
        DIR *d = opendir("/proc/self/fd");
        while (dirent *e = readdir(d))
            top = std::max(top, atoi(e->d_name));
        closedir(d);
        rlimit lim{static_cast<rlim_t>(top + 8), static_cast<rlim_t>(top + 8)};
        setrlimit(RLIMIT_NOFILE, &lim);
        std::vector<int> hold;
        for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
            hold.push_back(fd);
        close(hold.back());  // one free number: a pipe needs two
        int left = open_fds();
        if (tovi_popen("true", "r") != nullptr)
            return 1;
        return open_fds() == left ? 0 : 2;
    });
    EXPECT_EQ(rc, 0);
}

// Descriptors the library opens never reach a child, and the child starts
// with default signal actions and nothing blocked whatever the caller set.
TEST(Child, CloseOnExecAndCleanSignals)
{
    FILE *held = tovi_popen("cat >/dev/null", "w");
    ASSERT_NE(held, nullptr);
    std::string probe = "test -e /proc/self/fd/" + std::to_string(fileno(held)) + " && echo leaked || echo clean";
    EXPECT_EQ(run_read(probe.c_str()), "clean\n");
    EXPECT_EQ(tovi_pclose(held), 0);

    struct sigaction ign {};
    struct sigaction old_pipe {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &old_pipe);
    sigset_t block;
    sigset_t old_mask;
    sigemptyset(&block);
    sigaddset(&block, SIGUSR2);
    sigaddset(&block, SIGRTMAX - 4);
    pthread_sigmask(SIG_BLOCK, &block, &old_mask);

    std::string sigs = run_read("grep -E '^Sig(Blk|Ign)' /proc/self/status");
    EXPECT_EQ(sigs, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    EXPECT_EQ(tovi_system("grep -q '^SigIgn:.0000000000000000' /proc/self/status"), 0);
    char *const argv[] = {const_cast<char *>("grep"), const_cast<char *>("-q"),
                          const_cast<char *>("^SigBlk:.0000000000000000"),
                          const_cast<char *>("/proc/self/status"), nullptr};
    int32_t st = -1;
    EXPECT_EQ(tovi_spawn_argv("grep", argv, 0, &st), 0);
    EXPECT_EQ(st, 0);

    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    sigaction(SIGPIPE, &old_pipe, nullptr);
}

namespace {

int32_t refuse_all(const char *, int32_t, char *const[])
{
    return 0x100;  // only the low byte counts
}

int32_t accept_all(const char *, int32_t, char *const[])
{
    return 1;
}

}  // namespace

TEST(Execv, RefusalsAndExec)
{
    LogCapture log;
    char sh[] = "sh", c[] = "-c", ok[] = "exit 7", bad[] = "exit 7; echo never";
    char *const safe[] = {sh, c, ok, nullptr};
    char *const danger[] = {sh, c, bad, nullptr};
    const struct {
        const char *path;
        int32_t argc;
        char *const *argv;
        const char *allow;
        tovi_execv_check_fn check;
        int32_t rc;
    } cases[] = {
        {nullptr, 3, safe, nullptr, nullptr, -22},
        {"/bin/sh", 3, nullptr, nullptr, nullptr, -22},
        {"/bin/sh", 3, danger, nullptr, nullptr, -29},
        {"/bin/sh", 3, danger, "&", accept_all, -29},
        {"/bin/sh", 3, safe, nullptr, refuse_all, -29},
        {"/nonexistent/tovi", 3, safe, nullptr, accept_all, -1},  // execv failed and returned
    };
    for (const auto &k : cases)
        EXPECT_EQ(execv_s(k.path, k.argc, k.argv, k.allow, k.check), k.rc);
    EXPECT_EQ(log.texts(kError), Texts(2, "execv cmd is dangerous, argv[2] is: exit 7; echo never."));

    // Allowed, or beyond argc: the program replaces the child.
    EXPECT_EQ(tovi::test::run_in_child([&] { return execv_s("/bin/sh", 3, danger, ";", accept_all); }), 7);
    EXPECT_EQ(tovi::test::run_in_child([&] { return execv_s("/bin/sh", 2, danger, nullptr, nullptr); }), 7);
}

TEST(SpawnArgv, NoShellStatusesAndTimeOut)
{
    char *const literal[] = {const_cast<char *>("test"), const_cast<char *>("a;b|$c"),
                             const_cast<char *>("="), const_cast<char *>("a;b|$c"), nullptr};
    char *const exit5[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                           const_cast<char *>("exit 5"), nullptr};
    int32_t st = -1;
    EXPECT_EQ(tovi_spawn_argv("test", literal, 0, &st), 0);  // found in PATH, arguments taken literally
    EXPECT_EQ(st, 0);
    EXPECT_EQ(tovi_spawn_argv("/bin/sh", exit5, 5000, &st), 0);
    EXPECT_EQ(st, 5 << 8);
    EXPECT_EQ(tovi_spawn_argv("/nonexistent/tovi", exit5, 0, &st), -2);
    EXPECT_EQ(tovi_spawn_argv("tovi-no-such-program", exit5, 0, nullptr), -2);
    EXPECT_EQ(tovi_spawn_argv(nullptr, exit5, 0, &st), -22);
    EXPECT_EQ(tovi_spawn_argv("/bin/sh", nullptr, 0, &st), -22);

    // The time-out kills the child and what it started.
    char dir[] = "/tmp/tovi_spawn_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string pidfile = std::string(dir) + "/pid";
    std::string script = "sleep 30 & echo $! > " + pidfile + "; wait";
    char *const slow[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), script.data(), nullptr};
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(tovi_spawn_argv("/bin/sh", slow, 500, &st), -61);
    auto elapsed = std::chrono::steady_clock::now() - t0;
    EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL) << st;
    EXPECT_GE(elapsed, std::chrono::milliseconds(450));
    EXPECT_LT(elapsed, std::chrono::seconds(10));
    int grandchild = 0;
    std::ifstream(pidfile) >> grandchild;
    ASSERT_GT(grandchild, 0);
    bool gone = false;
    for (int i = 0; i < 200 && !gone; ++i) {
        std::ifstream stat("/proc/" + std::to_string(grandchild) + "/stat");
        std::string pid, comm, state;
        gone = !(stat >> pid >> comm >> state) || state == "Z";
        if (!gone)
            usleep(10000);
    }
    EXPECT_TRUE(gone) << "the background sleep survived the time-out";
    unlink(pidfile.c_str());
    rmdir(dir);
}

// The processor speed comes from two filtered commands.
TEST(TscFreq, FromTheProcessorDescription)
{
    const char *kFlags = "cat /proc/cpuinfo | grep -o constant_tsc | uniq";
    const char *kModel = "cat /proc/cpuinfo | grep @ | uniq | awk '{print $NF}'";
    const struct {
        const char *flags;
        const char *model;
        const char *fail;  // a command that cannot start
        uint32_t rc;
        double ghz;  // < 0: estimated
        const char *msg;
    } cases[] = {
        {"constant_tsc\n", "2.40GHz\n", nullptr, 0, 2.4, nullptr},
        {"constant_tsc\n", "3.5\n", nullptr, 0, 3.5, nullptr},
        {"constant_tsc\n", "", nullptr, 0, -1, nullptr},
        {"", "2.40GHz\n", nullptr, TOVI_ERR, 9.0, "There is no constant_tsc flag in /proc/cpuinfo"},
        {"\n", "2.40GHz\n", nullptr, TOVI_ERR, 9.0, "There is no constant_tsc flag in /proc/cpuinfo"},
        {"constant_tsc\n", "2.40GHz\n", "constant_tsc", TOVI_ERR, 9.0, "Cat /proc/cpuinfo for constant_tsc fail"},
        {"constant_tsc\n", "2.40GHz\n", "awk", TOVI_ERR, 9.0, "Cat /proc/cpuinfo fail for cpufreq fail"},
    };
    double saved = currCpuGHz;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.flags + std::string("/") + c.model);
        LogCapture log;
        ShellRecorder shell;
        shell.output[kFlags] = c.flags;
        shell.output[kModel] = c.model;
        if (c.fail != nullptr)
            shell.fail_to_start = {c.fail};
        currCpuGHz = 9.0;
        EXPECT_EQ(tovi_get_tsc_freq(), c.rc);
        if (c.ghz >= 0) {
            EXPECT_DOUBLE_EQ(currCpuGHz, c.ghz);
        } else {
            EXPECT_NE(currCpuGHz, 9.0);
        }
        EXPECT_EQ(log.texts(kError), c.msg ? Texts{c.msg} : Texts{});
        if (c.rc == 0) {
            EXPECT_EQ(shell.commands, (Texts{kFlags, kModel}));
        }
    }
    currCpuGHz = saved;
}
