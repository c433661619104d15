// The sshd port: reading it, a change's command sequence through the recording shell, real edits under a private root.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_sshd.h"

using namespace tovi::test;
using Texts = std::vector<std::string>;

namespace {

// A root of this child's own: the host's directories, an empty /tmp, /etc/ssh holding `config`, "/startup_disk/conf/
// conf_local/", and PATH=/fakebin: cat, grep, sed, cp, maybe a netstat that sees port 22 listening, maybe fsync.
bool private_root(const std::string &config, bool netstat, bool fsync)
{
    DIR *d = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0 && mkdir("/tmp/root", 0755) == 0 ? opendir("/") : nullptr;
    bool ok = d != nullptr;
    struct stat st;
    while (dirent *e = ok ? readdir(d) : nullptr) {  // a symbolic link is bound as its target
        std::string name = e->d_name, from = "/" + name, to = "/tmp/root/" + name;
        if (name != "." && name != ".." && name != "tmp" && stat(from.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            ok = mkdir(to.c_str(), 0755) == 0 && mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
    }
    ok = ok && closedir(d) == 0;
    for (const char *dir : {"tmp", "fakebin", "startup_disk", "startup_disk/conf", "startup_disk/conf/conf_local"})
        ok = ok && mkdir((std::string("/tmp/root/") + dir).c_str(), 0755) == 0;
    for (const char *tool : {"cat", "grep", "sed", "cp"})
        ok = ok && symlink((std::string("/usr/bin/") + tool).c_str(), (std::string("/tmp/root/fakebin/") + tool).c_str()) == 0;
    ok = ok && (!netstat || write_file("/tmp/root/fakebin/netstat", "#!/bin/sh\necho 'tcp 0 0 0.0.0.0:22 0.0.0.0:* LISTEN'\n", 0755));
    // An emulated build's tool cannot run from the host's shell: coreutils' sync stands in.
    ok = ok && (!fsync || (system(TOVI_FSYNC_TOOL " /dev/null >/dev/null 2>&1") == 0 ? symlink(TOVI_FSYNC_TOOL, "/tmp/root/fakebin/fsync") == 0
                           : write_file("/tmp/root/fakebin/fsync", "#!/bin/sh\nexec /bin/sync -- \"$@\"\n", 0755)));
    return ok && mount("tmpfs", "/tmp/root/etc/ssh", "tmpfs", 0, nullptr) == 0 && chroot("/tmp/root") == 0 &&
           chdir("/") == 0 && setenv("PATH", "/fakebin", 1) == 0 &&
           (config == "<none>" || write_file("/etc/ssh/sshd_config", config));
}

Texts module0(const LogCapture &cap)  // as "level text"
{
    Texts out;
    for (const auto &r : cap.records())
        if (r.module == 0)
            out.push_back(std::to_string(r.level) + " " + r.text);
    return out;
}

void in_private_root(const std::string &config, bool netstat, bool fsync, const std::function<std::string()> &body)
{
    std::string failure = report_from_child([&]() { return private_root(config, netstat, fsync) ? body() : "SKIP"; });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(failure, "") << config;
}

}  // namespace


// Which edit a port change chooses, where a failure stops it, what it returns and logs.
TEST(Sshd, PortChangeCommands)
{
    const std::string netstat = "netstat -nl | grep \":2222 \" &>/dev/null", file = " /etc/ssh/sshd_config",
                      has_port = "cat" + file + " | grep -w \"^Port\" &>/dev/null",
                      has_commented = "cat" + file + " | grep -w \"^#*Port\" &>/dev/null",
                      sed = "sed -i \"/^Port / s/.*/Port\\ 2222/g\"" + file + " &>/dev/null",
                      sed_commented = "sed -i \"/^#*Port / s/.*/Port\\ 2222/g\"" + file + " &>/dev/null",
                      append = "echo \"Port 2222\" >>/etc/ssh/sshd_config 2>/dev/null",
                      echo = "echo 2222 > /tmp/sshd_port.conf 2>/dev/null", kept = "/startup_disk/conf/conf_local/sshd_port.conf",
                      cp = "cp -af /tmp/sshd_port.conf " + kept + " 2>/dev/null", fsync = "fsync " + kept + " 2>/dev/null",
                      ok = "6 tovi_set_sshd_port:set Port(2222) success.\n", fail = "3 tovi_set_sshd_port:Execute cmd(";
    const struct { const char *config; std::map<std::string, int> status; int32_t rc; Texts commands, messages; } cases[] = {
        {"Port 2200\n", {{netstat, 0x100}}, 0, {netstat, has_port, sed, echo, cp, fsync}, {ok}},
        {"#Port 22\n", {{netstat, 0x100}, {has_port, 0x100}}, 0, {netstat, has_port, has_commented, sed_commented, echo, cp, fsync}, {ok}},
        {"", {{netstat, 0x100}, {has_port, 0x100}, {has_commented, 0x100}}, 0, {netstat, has_port, has_commented, append, echo, cp, fsync}, {ok}},
        {"Port 2200\n", {}, -98, {netstat}, {"3 tovi_set_sshd_port:Port 2222 is already in use.\n"}},
        {"Port 2222\n", {}, -98, {netstat}, {"4 tovi_set_sshd_port:Port 2222 is already in use sshd service.\n",
                                             "3 tovi_set_sshd_port:Port 2222 is already in use.\n"}},
        {"Port 2200\n", {{netstat, 0x100}, {sed, 0x400}}, 0x400, {netstat, has_port, sed}, {fail + sed + ") fail(1024).\n"}},
        {"", {{netstat, 0x100}, {has_port, 0x100}, {has_commented, 0x100}, {append, 0x100}}, 0x100,
         {netstat, has_port, has_commented, append}, {fail + append + ") fail(256).\n"}},
        {"Port 2200\n", {{netstat, 0x100}, {cp, 0x100}}, 0x100, {netstat, has_port, sed, echo, cp}, {fail + cp + ") fail(256).\n"}},
        {"Port 2200\n", {{netstat, 0x100}, {fsync, 0x7f00}}, 0x7f00, {netstat, has_port, sed, echo, cp, fsync}, {fail + fsync + ") fail(32512).\n"}},
    };
    for (const auto &c : cases)
        in_private_root(c.config, false, false, [&c] {
            ShellRecorder shell;
            LogCapture cap;
            shell.status = c.status;
            CHILD_CHECK(tovi_set_sshd_port(2222) == c.rc && shell.commands == c.commands);
            return module0(cap) == c.messages ? "" : testing::PrintToString(module0(cap));
        });
    ShellRecorder shell;  // restart: systemctl where there is one, else the init script
    LogCapture cap;
    const std::string cmd = access("/usr/bin/systemctl", F_OK) == 0 ? "/usr/bin/systemctl restart sshd &>/dev/null"
                                                                     : "/bin/sh /etc/init.d/sshd restart &>/dev/null";
    shell.status[cmd] = 0x300;
    EXPECT_TRUE(tovi_restart_sshd() == 0x300 && shell.commands == Texts{cmd});
    EXPECT_EQ(module0(cap), Texts{"6 " + cmd});
}

// Reading the port, then real edits: the configuration and the kept copy, with and without netstat and fsync.
TEST(Sshd, ReadsAndEditsTheFilesUnderAPrivateRoot)
{
    in_private_root("<none>", false, false, [] {
        LogCapture cap;
        uint16_t got = 0;
        CHILD_CHECK(tovi_get_sshd_port(&got) == -1 && tovi_get_sshd_port(nullptr) == -22);
        CHILD_CHECK(module0(cap) == (Texts{"3 tovi_get_sshd_port:tovi_open /etc/ssh/sshd_config fail, -1\n",
                                           "3 tovi_get_sshd_port:Param error: null pointer.\n"}));
        const std::pair<const char *, uint16_t> cases[] = {{"Port 2200\n", 2200}, {"#Port 22\n", 22},
            {"\nProtocol 2\nPort 7\nPort 8\n", 7}, {"Port 99 # old\nPort 100\n", 100}, {"  Port 1\nPortal 5\n", 22},
            {"", 22}, {"Port 65537\n", 1}};
        for (const auto &[config, port] : cases)
            if (!write_file("/etc/ssh/sshd_config", config) || tovi_get_sshd_port(&got) != 0 || got != port)
                return std::string(config) + " gave " + std::to_string(got);
        return std::string();
    });
    const struct { const char *config; bool netstat, fsync; uint16_t port; int32_t rc; const char *after, *kept; } cases[] = {
        {"#Port 22\nPermitRootLogin no\n", true, true, 2222, 0, "Port 2222\nPermitRootLogin no\n", "2222\n"},
        {"Port 22\nUsePAM yes\n", true, true, 2222, 0, "Port 2222\nUsePAM yes\n", "2222\n"},
        {"UsePAM yes\n", true, false, 2222, 0x7f00, "UsePAM yes\nPort 2222\n", "2222\n"},  // appended; no fsync
        {"Port 22\n", true, true, 22, -98, "Port 22\n", "<none>"},     // sshd's own port, listening: refused
        {"Port 2200\n", false, true, 22, 0, "Port 22\n", "22\n"},      // no netstat: nothing seen listening
    };
    for (const auto &c : cases)
        in_private_root(c.config, c.netstat, c.fsync, [&c] {
            uint16_t port = 0;
            CHILD_CHECK(tovi_set_sshd_port(c.port) == c.rc && read_file("/etc/ssh/sshd_config") == c.after &&
                        read_file("/startup_disk/conf/conf_local/sshd_port.conf") == c.kept);
            CHILD_CHECK(tovi_get_sshd_port(&port) == 0 && port == c.port);
            return std::string();
        });
}
