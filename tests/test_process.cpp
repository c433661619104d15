// Command runners: filters, raw statuses, "&>", child hygiene, failed paths,
// execv_s, the argv runner and the processor-speed reader.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <sys/wait.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_process.h"
#include "tovi_time.h"

using tovi::test::LogCapture;
using tovi::test::ShellRecorder;
using Texts = std::vector<std::string>;

static std::string run_read(const char *cmd, const char *mode = "r")
{
    FILE *f = tovi_popen(cmd, mode);
    std::string out;
    for (int c; f != nullptr && (c = fgetc(f)) != EOF;)
        out += static_cast<char>(c);
    return f == nullptr ? "<null>" : out + "|" + std::to_string(tovi_pclose(f));
}

// Forbidden characters are refused unless allowed; tovi_system's own filter lets a trailing ';' pass.
TEST(Filter, ForbiddenCharactersAllowListsAndSystemFilter)
{
    ShellRecorder shell;
    std::string found, all = "|;&$<>!\n`";
    for (char ch = 1; ch != 0; ++ch)
        found += isBlackChar(&ch) != 0 ? std::string(1, ch) : "";
    EXPECT_EQ(found, "\n!$&;<>`|");
    for (char c : all) {
        std::string alone(1, c), others = all;
        others.erase(others.find(c), 1);
        for (const std::string &cmd : {alone, "ls -l" + alone, "a" + alone + alone + "b"}) {
            const char *p = cmd.c_str();
            int32_t pid = 0;
            EXPECT_EQ(isDangerousCmd(p, nullptr) + isDangerousCmd(p, "") + isDangerousCmd(p, others.c_str()) +
                          4 * isDangerousCmd(p, alone.c_str()) + tovi_system_s(p, others.c_str()) + system_s(p, nullptr), 3 - 58) << p;
            EXPECT_TRUE(!tovi_popen_s(p, "r", others.c_str()) && !popen_s(p, "w", nullptr) &&
                        !tovi_popen_s_with_pid(p, "r", "", &pid)) << p;
        }
    }
    EXPECT_EQ(isDangerousCmd("cp '/a b' \"c\" (d) {e} *?[f] \\g ~h #i %j", nullptr), 0);
    EXPECT_EQ(shell.commands, Texts{});
    const struct { const char *cmd; bool system_runs, safe_runs; } cases[] = {  // tovi_system, tovi_system_s
        {"ls;", true, false}, {";", true, false}, {"|", true, false}, {"ls;pwd", false, false}, {";;", false, false},
        {"a||b", false, false}, {"||", false, false}, {"a|b", true, false}, {"ls -l", true, true}, {"", true, true}};
    shell.status["ls -l"] = 3 << 8;
    for (const auto &c : cases) {
        shell.commands.clear();
        int32_t rc = c.system_runs ? shell.status[c.cmd] : -1;
        EXPECT_EQ((std::vector<int32_t>{tovi_system(c.cmd), tovi_cmd_exec(c.cmd), tovi_system_s(c.cmd, nullptr)}),
                  (std::vector<int32_t>{rc, rc, c.safe_runs ? rc : -29})) << c.cmd;
        EXPECT_EQ(shell.commands, Texts((c.system_runs ? 2u : 0u) + (c.safe_runs ? 1u : 0u), c.cmd));
    }
    shell.commands.clear();
    EXPECT_EQ(tovi_system_s("echo $HOME", "$"), 0);
    EXPECT_EQ(tovi_system_s("ls;pwd", ";"), -1);  // allowed, but tovi_system's filter still refuses
    EXPECT_EQ(tovi_system(nullptr) + tovi_cmd_exec(nullptr) + tovi_system_s(nullptr, "") + system_s(nullptr, ""), -88);
    EXPECT_EQ(shell.commands, Texts{"echo $HOME"});
}

TEST(Run, StatusesStreamsChildrenAndArgv)
{
    EXPECT_EQ(std::string(tovi::process::choose_shell("/usr/bin/bash", true)) + tovi::process::choose_shell("/usr/bin/dash", true) +
                  tovi::process::choose_shell(nullptr, false), "/bin/sh/bin/bash/bin/sh");
    EXPECT_EQ(tovi_system_s("false &>/dev/null", "&>"), 1 << 8);  // a POSIX sh would background it and give 0
    EXPECT_EQ(run_read("{ echo out; echo err >&2; } &>/dev/stdout; echo $0"), "out\nerr\nsh\n|0");
    const std::pair<const char *, int32_t> cases[] = {{"exit 3", 3 << 8}, {"exit 255", 255 << 8},
        {"/nonexistent/tovi 2>/dev/null", 127 << 8}, {"kill -TERM $$", SIGTERM}, {"kill -KILL $$", SIGKILL}};
    for (const auto &[cmd, status] : cases)
        EXPECT_EQ(std::to_string(tovi_system(cmd)) + run_read(cmd), std::to_string(status) + "|" + std::to_string(status)) << cmd;
    EXPECT_EQ(run_read("cat >/dev/null", "w"), "|0");
    int32_t own = 0, own_st = 0;  // allowed characters pass; the pid given back is the shell's, for the caller to wait on
    FILE *with_pid = tovi_popen_s_with_pid("echo $$; exit 4", "r", "$;", &own);
    char said[16] = "";
    EXPECT_TRUE(with_pid && fgets(said, sizeof said, with_pid) && said == std::to_string(own) + "\n" && !fclose(with_pid) &&
                waitpid(own, &own_st, 0) == own && own_st == 4 << 8) << said;
    for (const char *mode : {"", "rw", "r+", "x", "we"})
        EXPECT_TRUE(!tovi_popen("true", mode) && !popen_s("true", mode, nullptr)) << mode;
    FILE *p = popen_s("exit 6", "r", nullptr);
    EXPECT_EQ(tovi_pclose(p) + tovi_pclose(nullptr), -2);  // not ours: nothing waited for, the stream left open
    EXPECT_EQ(pclose(p), 6 << 8);
    // A child gets no library descriptor, default signal actions, nothing blocked.
    FILE *held = tovi_popen("cat >/dev/null", "w");
    EXPECT_EQ(run_read(("test -e /proc/self/fd/" + std::to_string(fileno(held))).c_str()), "|256");
    EXPECT_EQ(tovi_pclose(held), 0);
    auto *old_pipe = signal(SIGPIPE, SIG_IGN);
    sigset_t block, old_mask;
    sigemptyset(&block), sigaddset(&block, SIGRTMAX - 4), pthread_sigmask(SIG_BLOCK, &block, &old_mask);
    EXPECT_EQ(run_read("grep -E '^Sig(Blk|Ign)' /proc/self/status"), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n|0");
    const char *argv[] = {"grep", "-qE", "^Sig(Blk|Ign):.[1-9a-f]", "/proc/self/status", nullptr};
    int32_t st = -1;
    EXPECT_TRUE(tovi_spawn_argv("grep", const_cast<char *const *>(argv), 0, &st) == 0 && st == 1 << 8);  // no line
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    signal(SIGPIPE, old_pipe);
    LogCapture log;
    int before = tovi::test::open_fds(), pid = 0;
    EXPECT_TRUE(!tovi_popen_with_pid("cat", "x", &pid) && waitpid(-1, nullptr, WNOHANG) == -1);  // fdopen fails, child reaped
    ASSERT_EQ(log.texts(6).size(), 1u);
    EXPECT_TRUE(log.texts(6)[0].starts_with("Iop is NULL, modes:(x), pdes[0]=(") && log.texts(6)[0].ends_with("), errno:(22)."));
    {
        ShellRecorder shell;
        shell.fail_to_start = {"cat"};
        EXPECT_TRUE(!tovi_popen("cat", "r") && !tovi_popen("cat", "w") && tovi_system("cat") == -1);
    }
    EXPECT_EQ(tovi::test::open_fds(), before);
    log.clear();
    const char *a[] = {"sh", "-c", "exit 7; echo never", nullptr}, *lit[] = {"test", "a;b|$c", "=", "a;b|$c", nullptr},
               *slow[] = {"sh", "-c", "sleep 30 & wait", nullptr};
    auto *bad = const_cast<char *const *>(a);
    tovi_execv_check_fn no = [](const char *, int32_t, char *const[]) { return 0x100; };  // low byte 0
    EXPECT_EQ(execv_s(nullptr, 3, bad, nullptr, nullptr) + execv_s("/bin/sh", 3, nullptr, nullptr, nullptr), -44);
    EXPECT_EQ(execv_s("/bin/sh", 3, bad, "&", nullptr) + execv_s("/bin/sh", 3, bad, ";", no), -58);
    EXPECT_EQ(execv_s("/nonexistent/tovi", 3, bad, ";", nullptr), -1);  // execv failed
    EXPECT_EQ(log.texts(3), Texts{"execv cmd is dangerous, argv[2] is: exit 7; echo never."});
    EXPECT_EQ(tovi::test::run_in_child([&] { return execv_s("/bin/sh", 2, bad, nullptr, nullptr); }), 7);
    EXPECT_TRUE(tovi_spawn_argv("test", const_cast<char *const *>(lit), 5000, &st) == 0 && st == 0);  // PATH, no shell
    EXPECT_EQ(tovi_spawn_argv("/nonexistent/tovi", bad, 0, &st) + tovi_spawn_argv("tovi-none", bad, 0, &st), -4);
    EXPECT_EQ(tovi_spawn_argv(nullptr, bad, 0, &st) + tovi_spawn_argv("/bin/sh", nullptr, 0, &st), -44);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(tovi_spawn_argv("/bin/sh", const_cast<char *const *>(slow), 300, &st), -61);
    EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL) << st;
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(290));
}

TEST(TscFreq, FromTheProcessorDescription)
{
    const Texts cmds{"cat /proc/cpuinfo | grep -o constant_tsc | uniq", "cat /proc/cpuinfo | grep @ | uniq | awk '{print $NF}'"};
    const struct { const char *flags, *model, *fail; uint32_t rc; double ghz; const char *msg; } cases[] = {  // ghz 0: estimated
        {"constant_tsc\n", "2.40GHz\n", "#", 0, 2.4, nullptr}, {"constant_tsc\n", "", "#", 0, 0, nullptr},
        {"\n", "2.4\n", "#", TOVI_ERR, 9, "There is no constant_tsc flag in /proc/cpuinfo"},
        {"constant_tsc\n", "2.4\n", "constant_tsc", TOVI_ERR, 9, "Cat /proc/cpuinfo for constant_tsc fail"},
        {"constant_tsc\n", "2.4\n", "awk", TOVI_ERR, 9, "Cat /proc/cpuinfo fail for cpufreq fail"}};
    double saved = currCpuGHz;
    for (const auto &c : cases) {
        LogCapture log;
        ShellRecorder shell;
        shell.output = {{cmds[0], c.flags}, {cmds[1], c.model}}, shell.fail_to_start = {c.fail}, currCpuGHz = 9;
        EXPECT_EQ(tovi_get_tsc_freq(), c.rc) << c.model;
        EXPECT_TRUE(c.ghz == 0 ? currCpuGHz != 9 : currCpuGHz == c.ghz) << currCpuGHz;
        EXPECT_EQ(log.texts(3), c.msg ? Texts{c.msg} : Texts{});
        EXPECT_TRUE(c.rc != 0 || shell.commands == cmds);
    }
    currCpuGHz = saved;
}
