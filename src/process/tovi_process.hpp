// Internals of the command runners: the shell choice and the launcher that
// starts and reaps shell children, replaceable so that tests and fuzzers can
// record commands instead of running them.
#pragma once

#include <sys/types.h>

namespace tovi::process {

// The shell for `-c` commands: `sh_target` is what "/bin/sh" resolves to
// (NULL when it does not resolve), `have_bash` whether "/bin/bash" can be
// executed. bash semantics wherever possible: "/bin/sh" when it is bash,
// else "/bin/bash", else "/bin/sh" as the last resort.
const char *choose_shell(const char *sh_target, bool have_bash);

// choose_shell for this host, decided once.
const char *shell_path();

// Starts and reaps shell children. `start` runs `<shell> -c cmd`; when
// child_fd is not -1 it becomes the child's descriptor target_fd (0 or 1)
// and parent_fd is closed in the child. It returns the pid, or -1 with
// errno set. `wait` waits for that pid, retrying on EINTR: 0 with the raw
// status stored, or -1.
struct Launcher {
    pid_t (*start)(const char *cmd, int child_fd, int target_fd, int parent_fd);
    int (*wait)(pid_t pid, int *status);
};

// The launcher in use (the real one unless replaced).
const Launcher &launcher();

// Replaces the launcher; nullptr restores the real one. Not for use while
// commands run on other threads.
void set_launcher(const Launcher *replacement);

// tovi_system's own filter: true when cmd is refused.
bool system_refuses(const char *cmd);

}  // namespace tovi::process
