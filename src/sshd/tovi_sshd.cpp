// The SSH daemon's port: read from its configuration, edited there with sed
// and kept beside the system disk, daemon restarted on request.
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <safe_str_lib.h>

#define TOVI_LOG_SOURCE "tovi_sshd"
#include "tovi_fileops.h"
#include "tovi_format.hpp"
#include "tovi_log.hpp"
#include "tovi_process.h"
#include "tovi_sshd.h"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;
using tovi::log::kWarning;

constexpr const char *kConfig = "/etc/ssh/sshd_config";
constexpr const char *kPortTemp = "/tmp/sshd_port.conf";
constexpr const char *kPortKept = "/startup_disk/conf/conf_local/sshd_port.conf";
constexpr size_t kCmdSize = 128;
constexpr size_t kLineSize = 128;

template <typename... Args>
bool format_cmd(char (&cmd)[kCmdSize], const char *fmt, Args... args)
{
    return tovi::formatted(snprintf_s(cmd, sizeof cmd, fmt, args...), sizeof cmd);
}

// A test command whose failure only means "no".
template <typename... Args>
bool succeeds(const char *allow, const char *fmt, Args... args)
{
    char cmd[kCmdSize];
    return format_cmd(cmd, fmt, args...) && tovi_system_s(cmd, allow) == 0;
}

}  // namespace

// Runs one command of the port change; a failure is logged in the caller's
// name and its status returned from the caller.
#define SSHD_RUN_OR_RETURN(allow, fmt, ...)                                                    \
    do {                                                                                       \
        char cmd_[kCmdSize];                                                                   \
        if (!format_cmd(cmd_, fmt, __VA_ARGS__)) {                                             \
            TOVI_LOG_MODULE0(kError, "sprintf_s secure function failed, destMax<%lu>.\n",     \
                             static_cast<unsigned long>(kCmdSize));                            \
            return -22;                                                                        \
        }                                                                                      \
        if (int32_t ret_ = tovi_system_s(cmd_, allow); ret_ != 0) {                            \
            TOVI_LOG_MODULE0(kError, "Execute cmd(%s) fail(%d).\n", cmd_, ret_);              \
            return ret_;                                                                       \
        }                                                                                      \
    } while (0)

extern "C" {

int32_t tovi_get_sshd_port(uint16_t *port)
{
    if (port == nullptr) {
        TOVI_LOG_MODULE0(kError, "Param error: null pointer.\n");
        return -22;
    }
    int32_t fd = tovi_open(kConfig, O_RDONLY, 0);
    if (fd < 0) {
        TOVI_LOG_MODULE0(kError, "tovi_open %s fail, %d\n", kConfig, fd);
        return fd;
    }
    uint16_t found = 22;
    char line[kLineSize];
    while (tovi_readline(fd, line, sizeof line) != nullptr) {
        if (line[0] == '\n' || std::strchr(line, '#') != nullptr)
            continue;
        int value = 0;
        if (std::strncmp(line, "Port ", 5) == 0 && std::sscanf(line + 5, "%d", &value) == 1) {
            found = static_cast<uint16_t>(value);
            break;
        }
    }
    (void)tovi_close(fd);
    *port = found;
    return 0;
}

int32_t tovi_set_sshd_port(uint16_t port)
{
    unsigned p = port;
    uint16_t current = 0;
    if (tovi_get_sshd_port(&current) == 0 && current == port)
        TOVI_LOG_MODULE0(kWarning, "Port %d is already in use sshd service.\n", static_cast<int>(port));
    if (succeeds("|&>", "netstat -nl | grep \":%u \" &>/dev/null", p)) {
        TOVI_LOG_MODULE0(kError, "Port %d is already in use.\n", static_cast<int>(port));
        return -98;
    }
    if (succeeds("|&>", "cat %s | grep -w \"^Port\" &>/dev/null", kConfig))
        SSHD_RUN_OR_RETURN("&>", "sed -i \"/^Port / s/.*/Port\\ %u/g\" %s &>/dev/null", p, kConfig);
    else if (succeeds("|&>", "cat %s | grep -w \"^#*Port\" &>/dev/null", kConfig))
        SSHD_RUN_OR_RETURN("&>", "sed -i \"/^#*Port / s/.*/Port\\ %u/g\" %s &>/dev/null", p, kConfig);
    else
        SSHD_RUN_OR_RETURN(">", "echo \"Port %u\" >>%s 2>/dev/null", p, kConfig);
    SSHD_RUN_OR_RETURN(">", "echo %u > %s 2>/dev/null", p, kPortTemp);
    SSHD_RUN_OR_RETURN(">", "cp -af %s %s 2>/dev/null", kPortTemp, kPortKept);
    SSHD_RUN_OR_RETURN(">", "fsync %s 2>/dev/null", kPortKept);
    TOVI_LOG_MODULE0(kInfo, "set Port(%d) success.\n", static_cast<int>(port));
    return 0;
}

int32_t tovi_restart_sshd(void)
{
    const char *cmd = access("/usr/bin/systemctl", F_OK) == 0 ? "/usr/bin/systemctl restart sshd &>/dev/null"
                                                               : "/bin/sh /etc/init.d/sshd restart &>/dev/null";
    TOVI_LOG_AT(0u, kInfo, "%s", cmd);
    return tovi_system_s(cmd, "&>");
}

}  // extern "C"
