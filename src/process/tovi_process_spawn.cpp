// Starting children: the shell choice, the launcher behind the shell-command
// runners, and the argv runner that uses no shell.
//
// Child hygiene. The parent blocks every signal around vfork so that no
// handler can run in the child while it still shares the parent's memory;
// the child sets every signal back to its default action, then unblocks
// them all, and executes. Library threads block or catch signals of their
// own (the wake-up signal, the dump signals); a command must start as a
// fresh program would.
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <safe_str_lib.h>

#include "tovi_format.hpp"
#include "tovi_process.h"
#include "tovi_process.hpp"

extern char **environ;

namespace tovi::process {

namespace {

void reset_signals_in_child()
{
    struct sigaction dfl;
    std::memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig = 1; sig < NSIG; ++sig)
        if (sig != SIGKILL && sig != SIGSTOP)
            sigaction(sig, &dfl, nullptr);  // the C library's own signals refuse: harmless
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Runs in the vfork child: only descriptor calls, signal calls and exec.
[[noreturn]] void exec_shell(const char *shell, const char *cmd, int child_fd, int target_fd,
                             int parent_fd)
{
    if (parent_fd >= 0)
        close(parent_fd);
    if (child_fd >= 0) {
        if (child_fd != target_fd) {
            dup2(child_fd, target_fd);  // the copy is not close-on-exec
            close(child_fd);
        } else {
            fcntl(child_fd, F_SETFD, 0);  // already in place: keep it across exec
        }
    }
    reset_signals_in_child();
    execl(shell, "sh", "-c", cmd, static_cast<char *>(nullptr));
    _exit(127);
}

pid_t real_start(const char *cmd, int child_fd, int target_fd, int parent_fd)
{
    const char *shell = shell_path();
    sigset_t all;
    sigset_t old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pid_t pid = vfork();
    if (pid == 0)
        exec_shell(shell, cmd, child_fd, target_fd, parent_fd);
    int err = errno;
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = err;
    return pid;
}

int real_wait(pid_t pid, int *status)
{
    while (waitpid(pid, status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return 0;
}

constexpr Launcher kRealLauncher{real_start, real_wait};
std::atomic<const Launcher *> g_launcher{&kRealLauncher};

const char *decide_shell()
{
    char target[PATH_MAX];
    const char *resolved = realpath("/bin/sh", target);
    return choose_shell(resolved, access("/bin/bash", X_OK) == 0);
}

uint64_t now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// Waits for pid at most timeout_ms: 1 when it ended (status stored), 0 on
// time-out, -1 when waitpid failed.
int wait_bounded(pid_t pid, uint32_t timeout_ms, int *status)
{
    uint64_t deadline = now_ms() + timeout_ms;
    uint64_t step_ms = 1;
    for (;;) {
        pid_t r = waitpid(pid, status, WNOHANG);
        if (r == pid)
            return 1;
        if (r < 0 && errno != EINTR)
            return -1;
        uint64_t now = now_ms();
        if (now >= deadline)
            return 0;
        uint64_t nap = deadline - now < step_ms ? deadline - now : step_ms;
        timespec ts{static_cast<time_t>(nap / 1000), static_cast<long>(nap % 1000) * 1000000L};
        nanosleep(&ts, nullptr);
        step_ms = step_ms < 32 ? step_ms * 2 : 50;  // quick commands are seen quickly
    }
}

// The program a path names: itself when it holds '/', else the first
// executable file of that name in PATH. Resolved here rather than left to
// the spawn so that a missing program is reported the same way everywhere
// (an emulator that turns vfork into fork cannot report a failed exec).
int resolve_program(const char *path, char (&out)[PATH_MAX])
{
    if (std::strchr(path, '/') != nullptr) {
        if (access(path, X_OK) != 0)
            return errno;
        return tovi::formatted(snprintf_s(out, sizeof out, "%s", path), sizeof out) ? 0 : ENAMETOOLONG;
    }
    const char *dirs = std::getenv("PATH");
    if (dirs == nullptr || *dirs == '\0')
        dirs = "/bin:/usr/bin";
    int err = ENOENT;
    for (const char *d = dirs;; ++d) {
        const char *end = std::strchr(d, ':');
        size_t len = end != nullptr ? static_cast<size_t>(end - d) : std::strlen(d);
        // An empty entry is the current directory.
        if (tovi::formatted(snprintf_s(out, sizeof out, "%.*s%s%s", static_cast<int>(len), d, len != 0 ? "/" : "", path),
                 sizeof out)) {
            struct stat st;
            if (access(out, X_OK) == 0 && stat(out, &st) == 0 && S_ISREG(st.st_mode))
                return 0;
            if (errno == EACCES)
                err = EACCES;
        }
        if (end == nullptr)
            return err;
        d = end;
    }
}

}  // namespace

const char *choose_shell(const char *sh_target, bool have_bash)
{
    if (sh_target != nullptr) {
        const char *slash = std::strrchr(sh_target, '/');
        const char *base = slash != nullptr ? slash + 1 : sh_target;
        if (std::strncmp(base, "bash", 4) == 0)
            return "/bin/sh";
    }
    return have_bash ? "/bin/bash" : "/bin/sh";
}

const char *shell_path()
{
    static const char *const shell = decide_shell();
    return shell;
}

const Launcher &launcher()
{
    return *g_launcher.load(std::memory_order_acquire);  // pairs with set_launcher's store
}

void set_launcher(const Launcher *replacement)
{
    g_launcher.store(replacement != nullptr ? replacement : &kRealLauncher, std::memory_order_release);
}

}  // namespace tovi::process

extern "C" {

int32_t tovi_spawn_argv(const char *path, char *const argv[], uint32_t timeout_ms, int32_t *status)
{
    if (path == nullptr || argv == nullptr)
        return -22;
    posix_spawnattr_t attr;
    if (posix_spawnattr_init(&attr) != 0)
        return -12;
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    if (timeout_ms > 0) {
        flags |= POSIX_SPAWN_SETPGROUP;  // the kill on time-out reaches what it started
        posix_spawnattr_setpgroup(&attr, 0);
    }
    posix_spawnattr_setflags(&attr, flags);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setsigmask(&attr, &none);
    char found[PATH_MAX];
    int err = tovi::process::resolve_program(path, found);
    pid_t pid = -1;
    if (err == 0)
        err = posix_spawn(&pid, found, nullptr, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    if (err != 0)
        return -err;

    int st = 0;
    int32_t ret = 0;
    if (timeout_ms == 0) {
        if (tovi::process::real_wait(pid, &st) != 0)
            return -errno;
    } else {
        int r = tovi::process::wait_bounded(pid, timeout_ms, &st);
        if (r < 0)
            return -errno;
        if (r == 0) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            tovi::process::real_wait(pid, &st);
            ret = -61;
        }
    }
    if (status != nullptr)
        *status = st;
    return ret;
}

}  // extern "C"
