// The sshd port: reading the configuration, the command sequence of a port
// change through the recording shell, and real edits of a temporary
// "/etc/ssh/sshd_config" under a private root with fake netstat and with
// and without an `fsync` command.
#include <gtest/gtest.h>

#include <dirent.h>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_sshd.h"

using tovi::test::LogCapture;
using tovi::test::read_file;
using tovi::test::report_from_child;
using tovi::test::write_file;
using tovi::test::ShellRecorder;
using Texts = std::vector<std::string>;

namespace {

constexpr const char *kKept = "/startup_disk/conf/conf_local/sshd_port.conf";

// A root of this child's own: the host's directories bound in, an empty
// /tmp, "/startup_disk/conf/conf_local/", a private /etc/ssh with `config`,
// and PATH=/fakebin holding cat, grep, sed and cp, a netstat that reports a
// listener on port 22 (when `netstat`) and the library's fsync tool (when
// `fsync`).
bool private_root(const std::string &config, bool netstat, bool fsync)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0 || mkdir("/tmp/root", 0755) != 0)
        return false;
    DIR *d = opendir("/");
    bool ok = d != nullptr;
    while (dirent *e = ok ? readdir(d) : nullptr) {
        std::string name = e->d_name, from = "/" + name, to = "/tmp/root/" + name;
        struct stat st;
        if (name == "." || name == ".." || name == "tmp" || lstat(from.c_str(), &st) != 0)
            continue;
        char link[256];
        ssize_t n;
        if (S_ISLNK(st.st_mode))
            ok = (n = readlink(from.c_str(), link, sizeof link - 1)) > 0 &&
                 symlink(std::string(link, static_cast<size_t>(n)).c_str(), to.c_str()) == 0;
        else if (S_ISDIR(st.st_mode))
            ok = mkdir(to.c_str(), 0755) == 0 && mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
    }
    if (d != nullptr)
        closedir(d);
    for (const char *dir : {"/tmp/root/tmp", "/tmp/root/fakebin", "/tmp/root/startup_disk",
                            "/tmp/root/startup_disk/conf", "/tmp/root/startup_disk/conf/conf_local"})
        ok = ok && mkdir(dir, 0755) == 0;
    for (const char *tool : {"cat", "grep", "sed", "cp"})
        ok = ok && symlink((std::string("/usr/bin/") + tool).c_str(), (std::string("/tmp/root/fakebin/") + tool).c_str()) == 0;
    if (netstat)
        ok = ok && write_file("/tmp/root/fakebin/netstat",
                              "#!/bin/sh\necho 'tcp        0      0 0.0.0.0:22              0.0.0.0:*               LISTEN'\n",
                              0755);
    // An emulated build's tool cannot run from the host's shell: coreutils' sync stands in.
    if (fsync && system(TOVI_FSYNC_TOOL " /dev/null >/dev/null 2>&1") == 0)
        ok = ok && symlink(TOVI_FSYNC_TOOL, "/tmp/root/fakebin/fsync") == 0;
    else if (fsync)
        ok = ok && write_file("/tmp/root/fakebin/fsync", "#!/bin/sh\nexec /bin/sync -- \"$@\"\n", 0755);
    return ok && mount("tmpfs", "/tmp/root/etc/ssh", "tmpfs", 0, nullptr) == 0 && chroot("/tmp/root") == 0 &&
           chdir("/") == 0 && setenv("PATH", "/fakebin", 1) == 0 &&
           (config == "<none>" || write_file("/etc/ssh/sshd_config", config));
}

// The module-0 messages, as "level text".
Texts module0(const LogCapture &cap)
{
    Texts out;
    for (const auto &r : cap.records())
        if (r.module == 0)
            out.push_back(std::to_string(r.level) + " " + r.text);
    return out;
}

}  // namespace

TEST(Sshd, ReadsTheFirstUncommentedPortLine)
{
    std::string failure = report_from_child([]() -> std::string {
        if (!private_root("<none>", false, false))
            return "SKIP";
        LogCapture cap;
        uint16_t got = 0;
        CHILD_CHECK(tovi_get_sshd_port(&got) == -1 && tovi_get_sshd_port(nullptr) == -22);
        CHILD_CHECK(module0(cap) == (Texts{"3 tovi_get_sshd_port:tovi_open /etc/ssh/sshd_config fail, -1\n",
                                           "3 tovi_get_sshd_port:Param error: null pointer.\n"}));
        const std::pair<const char *, uint16_t> cases[] = {
            {"Port 2200\n", 2200}, {"#Port 22\n", 22}, {"\nProtocol 2\nPort 7\nPort 8\n", 7},
            {"Port 99 # old\nPort 100\n", 100}, {"  Port 1\nPortal 5\n", 22}, {"", 22}, {"Port 65537\n", 1},
        };
        for (const auto &[config, port] : cases)
            if (!write_file("/etc/ssh/sshd_config", config) || tovi_get_sshd_port(&got) != 0 || got != port)
                return std::string(config) + " gave " + std::to_string(got);
        return "";
    });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(failure, "");
}

// The command sequence of a port change: which edit is chosen, where a
// failure stops it and what it returns and logs.
TEST(Sshd, PortChangeCommands)
{
    const std::string netstat = "netstat -nl | grep \":2222 \" &>/dev/null",
                      has_port = "cat /etc/ssh/sshd_config | grep -w \"^Port\" &>/dev/null",
                      has_commented = "cat /etc/ssh/sshd_config | grep -w \"^#*Port\" &>/dev/null",
                      sed = "sed -i \"/^Port / s/.*/Port\\ 2222/g\" /etc/ssh/sshd_config &>/dev/null",
                      sed_commented = "sed -i \"/^#*Port / s/.*/Port\\ 2222/g\" /etc/ssh/sshd_config &>/dev/null",
                      append = "echo \"Port 2222\" >>/etc/ssh/sshd_config 2>/dev/null",
                      echo = "echo 2222 > /tmp/sshd_port.conf 2>/dev/null",
                      cp = "cp -af /tmp/sshd_port.conf /startup_disk/conf/conf_local/sshd_port.conf 2>/dev/null",
                      fsync = "fsync /startup_disk/conf/conf_local/sshd_port.conf 2>/dev/null";
    const std::string ok = "6 tovi_set_sshd_port:set Port(2222) success.\n";
    struct Case {
        const char *config;
        std::map<std::string, int> status;
        int32_t rc;
        Texts commands, messages;
    };
    const Case cases[] = {
        {"Port 2200\n", {{netstat, 0x100}}, 0, {netstat, has_port, sed, echo, cp, fsync}, {ok}},
        {"#Port 22\n", {{netstat, 0x100}, {has_port, 0x100}}, 0,
         {netstat, has_port, has_commented, sed_commented, echo, cp, fsync}, {ok}},
        {"", {{netstat, 0x100}, {has_port, 0x100}, {has_commented, 0x100}}, 0,
         {netstat, has_port, has_commented, append, echo, cp, fsync}, {ok}},
        {"Port 2200\n", {}, -98, {netstat}, {"3 tovi_set_sshd_port:Port 2222 is already in use.\n"}},
        {"Port 2222\n", {}, -98, {netstat},
         {"4 tovi_set_sshd_port:Port 2222 is already in use sshd service.\n",
          "3 tovi_set_sshd_port:Port 2222 is already in use.\n"}},
        {"Port 2200\n", {{netstat, 0x100}, {sed, 0x400}}, 0x400, {netstat, has_port, sed},
         {"3 tovi_set_sshd_port:Execute cmd(" + sed + ") fail(1024).\n"}},
        {"", {{netstat, 0x100}, {has_port, 0x100}, {has_commented, 0x100}, {append, 0x100}}, 0x100,
         {netstat, has_port, has_commented, append}, {"3 tovi_set_sshd_port:Execute cmd(" + append + ") fail(256).\n"}},
        {"Port 2200\n", {{netstat, 0x100}, {cp, 0x100}}, 0x100, {netstat, has_port, sed, echo, cp},
         {"3 tovi_set_sshd_port:Execute cmd(" + cp + ") fail(256).\n"}},
        {"Port 2200\n", {{netstat, 0x100}, {fsync, 0x7f00}}, 0x7f00, {netstat, has_port, sed, echo, cp, fsync},
         {"3 tovi_set_sshd_port:Execute cmd(" + fsync + ") fail(32512).\n"}},
    };
    for (const Case &c : cases) {
        std::string failure = report_from_child([&c]() -> std::string {
            if (!private_root(c.config, false, false))
                return "SKIP";
            ShellRecorder shell;
            LogCapture cap;
            shell.status = c.status;
            CHILD_CHECK(tovi_set_sshd_port(2222) == c.rc);
            CHILD_CHECK(shell.commands == c.commands);
            return module0(cap) == c.messages ? "" : testing::PrintToString(module0(cap));
        });
        if (failure == "SKIP")
            GTEST_SKIP() << "no private mount namespace here";
        EXPECT_EQ(failure, "") << c.config << c.rc;
    }
}

TEST(Sshd, RestartRunsSystemctlOrTheInitScript)
{
    ShellRecorder shell;
    LogCapture cap;
    const std::string cmd = access("/usr/bin/systemctl", F_OK) == 0 ? "/usr/bin/systemctl restart sshd &>/dev/null"
                                                                     : "/bin/sh /etc/init.d/sshd restart &>/dev/null";
    shell.status[cmd] = 0x300;
    EXPECT_EQ(tovi_restart_sshd(), 0x300);
    EXPECT_EQ(shell.commands, Texts{cmd});
    EXPECT_EQ(module0(cap), Texts{"6 " + cmd});
}

// Real edits under a private root: the configuration and the kept copy
// afterwards, with and without netstat and fsync.
TEST(Sshd, PortChangeEditsTheFilesUnderAPrivateRoot)
{
    struct Case {
        const char *config;
        bool netstat, fsync;
        uint16_t port;
        int32_t rc;
        const char *after, *kept;
    };
    const Case cases[] = {
        // Only a commented Port line: uncommented and rewritten.
        {"#Port 22\nPermitRootLogin no\n", true, true, 2222, 0, "Port 2222\nPermitRootLogin no\n", "2222\n"},
        {"Port 22\nUsePAM yes\n", true, true, 2222, 0, "Port 2222\nUsePAM yes\n", "2222\n"},
        // No Port line: appended; without fsync the change fails after the copy.
        {"UsePAM yes\n", true, false, 2222, 0x7f00, "UsePAM yes\nPort 2222\n", "2222\n"},
        // sshd's own port, listening: refused, nothing changed.
        {"Port 22\n", true, true, 22, -98, "Port 22\n", "<none>"},
        // Without netstat nothing is seen listening: the grep decides.
        {"Port 2200\n", false, true, 22, 0, "Port 22\n", "22\n"},
    };
    for (const Case &c : cases) {
        std::string failure = report_from_child([&c]() -> std::string {
            if (!private_root(c.config, c.netstat, c.fsync))
                return "SKIP";
            CHILD_CHECK(tovi_set_sshd_port(c.port) == c.rc);
            CHILD_CHECK(read_file("/etc/ssh/sshd_config") == c.after);
            CHILD_CHECK(read_file(kKept) == c.kept);
            uint16_t port = 0;
            CHILD_CHECK(tovi_get_sshd_port(&port) == 0 && port == c.port);
            return "";
        });
        if (failure == "SKIP")
            GTEST_SKIP() << "no private mount namespace here";
        EXPECT_EQ(failure, "") << c.config;
    }
}
