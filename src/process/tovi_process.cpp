// Shell commands behind metacharacter filters: the pipe opener with its
// per-descriptor pid table, the runner, their safe forms, the guarded execv
// and the link-time wrappers.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <unistd.h>

#define TOVI_LOG_SOURCE "tovi_str"
#include "tovi_log.hpp"
#include "tovi_process.h"
#include "tovi_process.hpp"

namespace {

// Child pids of tovi_popen's streams, one entry per possible descriptor,
// made once and never freed: a stream's entry is written by the thread that
// opens it and cleared by the one that closes it, so entries need no lock.
struct PidTable {
    int32_t size;
    std::atomic<int32_t> *pids;
};

std::atomic<PidTable *> g_pid_table{nullptr};

PidTable *pid_table()
{
    PidTable *table = g_pid_table.load(std::memory_order_acquire);  // pairs with the CAS below
    if (table != nullptr)
        return table;
    int size = getdtablesize();
    if (size < 1)
        return nullptr;
    auto *fresh = new (std::nothrow) PidTable{size, new (std::nothrow) std::atomic<int32_t>[size]()};
    if (fresh == nullptr || fresh->pids == nullptr) {
        if (fresh != nullptr)
            delete fresh;
        return nullptr;
    }
    // Release: the zeroed entries are visible to whoever loads the pointer.
    if (g_pid_table.compare_exchange_strong(table, fresh, std::memory_order_acq_rel,
                                            std::memory_order_acquire))
        return fresh;
    delete[] fresh->pids;  // another thread installed its table first
    delete fresh;
    return table;
}

bool mode_is_r_or_w(const char *mode)
{
    return mode != nullptr && (mode[0] == 'r' || mode[0] == 'w') && mode[1] == '\0';
}

// Pipe, child, stream: mode "r" reads the child's standard output, any
// other its standard input. On failure nothing stays open and a started
// child is reaped.
FILE *open_stream(const char *cmd, const char *mode, pid_t *pid_out)
{
    const tovi::process::Launcher &run = tovi::process::launcher();
    bool reading = mode[0] == 'r';
    int pdes[2];
    if (pipe2(pdes, O_CLOEXEC) != 0)
        return nullptr;
    int parent_fd = reading ? pdes[0] : pdes[1];
    int child_fd = reading ? pdes[1] : pdes[0];
    pid_t pid = run.start(cmd, child_fd, reading ? STDOUT_FILENO : STDIN_FILENO, parent_fd);
    if (pid < 0) {
        close(pdes[0]);
        close(pdes[1]);
        return nullptr;
    }
    close(child_fd);
    FILE *stream = fdopen(parent_fd, mode);
    if (stream == nullptr) {
        int err = errno;
        TOVI_LOG(tovi::log::kInfo, "Iop is NULL, modes:(%s), pdes[0]=(%d), pdes[1]=(%d), errno:(%d).",
                 mode, pdes[0], pdes[1], err);
        close(parent_fd);  // the child sees end of file or a broken pipe and ends
        int status;
        run.wait(pid, &status);
        return nullptr;
    }
    *pid_out = pid;
    return stream;
}

}  // namespace

namespace tovi::process {

bool system_refuses(const char *cmd)
{
    size_t len = std::strlen(cmd);
    if (len == 1)
        return false;
    for (size_t i = 0; i < len; ++i) {
        if (cmd[i] == ';' && i + 1 < len)
            return true;  // a trailing ';' passes
        if (cmd[i] == '|' && cmd[i + 1] == '|')
            return true;
    }
    return false;
}

}  // namespace tovi::process

extern "C" {

int32_t isBlackChar(const char *c)
{
    if (c == nullptr)
        return 0;
    switch (*c) {
    case '|':
    case ';':
    case '&':
    case '$':
    case '<':
    case '>':
    case '!':
    case '\n':
    case '`':
        return 1;
    default:
        return 0;
    }
}

int32_t isWhiteChar(const char *c, const char *allow)
{
    if (c == nullptr || allow == nullptr || *allow == '\0' || *c == '\0')
        return 0;
    return std::strchr(allow, *c) != nullptr ? 1 : 0;
}

int32_t isDangerousCmd(const char *cmd, const char *allow)
{
    for (const char *p = cmd; *p != '\0'; ++p)
        if (isBlackChar(p) != 0 && isWhiteChar(p, allow) == 0)
            return 1;
    return 0;
}

FILE *tovi_popen(const char *cmd, const char *mode)
{
    if (cmd == nullptr || !mode_is_r_or_w(mode))
        return nullptr;
    PidTable *table = pid_table();
    if (table == nullptr)
        return nullptr;
    pid_t pid = 0;
    FILE *stream = open_stream(cmd, mode, &pid);
    if (stream == nullptr)
        return nullptr;
    int fd = fileno(stream);
    if (fd >= table->size) {
        // The descriptor limit was raised after the table was made.
        fclose(stream);
        int status;
        tovi::process::launcher().wait(pid, &status);
        return nullptr;
    }
    table->pids[fd].store(pid, std::memory_order_relaxed);
    return stream;
}

FILE *tovi_popen_s(const char *cmd, const char *mode, const char *allow)
{
    if (cmd == nullptr || isDangerousCmd(cmd, allow) != 0)
        return nullptr;
    return tovi_popen(cmd, mode);
}

FILE *tovi_popen_with_pid(const char *cmd, const char *mode, int32_t *pid)
{
    if (cmd == nullptr || mode == nullptr || pid == nullptr)
        return nullptr;
    pid_t child = 0;
    FILE *stream = open_stream(cmd, mode, &child);
    if (stream != nullptr)
        *pid = child;
    return stream;
}

FILE *tovi_popen_s_with_pid(const char *cmd, const char *mode, const char *allow, int32_t *pid)
{
    if (cmd == nullptr || mode == nullptr || allow == nullptr || pid == nullptr)
        return nullptr;
    if (!mode_is_r_or_w(mode) || isDangerousCmd(cmd, allow) != 0)
        return nullptr;
    return tovi_popen_with_pid(cmd, mode, pid);
}

int32_t tovi_pclose(FILE *stream)
{
    PidTable *table = g_pid_table.load(std::memory_order_acquire);
    if (stream == nullptr || table == nullptr)
        return -1;
    int fd = fileno(stream);
    if (fd < 0 || fd >= table->size)
        return -1;
    pid_t pid = table->pids[fd].exchange(0, std::memory_order_relaxed);
    if (pid == 0)
        return -1;
    fclose(stream);

    // A terminal's interrupt must not cut the wait short.
    sigset_t block;
    sigset_t old;
    sigemptyset(&block);
    sigaddset(&block, SIGHUP);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGQUIT);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    int status = 0;
    int ret = tovi::process::launcher().wait(pid, &status);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return ret == 0 ? status : -1;
}

int32_t tovi_system(const char *cmd)
{
    if (cmd == nullptr)
        return -22;
    if (tovi::process::system_refuses(cmd))
        return -1;
    const tovi::process::Launcher &run = tovi::process::launcher();
    pid_t pid = run.start(cmd, -1, -1, -1);
    if (pid < 0)
        return -1;
    int status = 0;
    return run.wait(pid, &status) == 0 ? status : -1;
}

int32_t tovi_cmd_exec(const char *cmd)
{
    return cmd == nullptr ? -22 : tovi_system(cmd);
}

int32_t tovi_system_s(const char *cmd, const char *allow)
{
    if (cmd == nullptr)
        return -22;
    if (isDangerousCmd(cmd, allow) != 0)
        return -29;
    return tovi_system(cmd);
}

FILE *popen_s(const char *cmd, const char *mode, const char *allow)
{
    if (cmd == nullptr || isDangerousCmd(cmd, allow) != 0 || !mode_is_r_or_w(mode))
        return nullptr;
    return popen(cmd, mode);
}

int32_t system_s(const char *cmd, const char *allow)
{
    if (cmd == nullptr)
        return -22;
    if (isDangerousCmd(cmd, allow) != 0)
        return -29;
    return system(cmd);
}

int32_t execv_s(const char *path, int32_t argc, char *const argv[], const char *allow,
                tovi_execv_check_fn check)
{
    if (path == nullptr || argv == nullptr)
        return -22;
    for (int32_t i = 0; i < argc; ++i) {
        if (argv[i] != nullptr && isDangerousCmd(argv[i], allow) != 0) {
            TOVI_LOG(tovi::log::kError, "execv cmd is dangerous, argv[%d] is: %s.", i, argv[i]);
            return -29;
        }
    }
    if (check != nullptr && (check(path, argc, argv) & 0xFF) == 0)
        return -29;
    return execv(path, argv);
}

FILE *__wrap_popen(const char *cmd, const char *mode)
{
    return tovi_popen(cmd, mode);
}

int __wrap_pclose(FILE *stream)
{
    return tovi_pclose(stream);
}

int __wrap_system(const char *cmd)
{
    return tovi_system(cmd);
}

}  // extern "C"
