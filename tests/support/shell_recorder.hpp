// A fake shell for the command runners: it records each command that gets
// as far as starting a shell and starts nothing. A command may be given
// output (written to a read stream's pipe) or a raw wait status; one that
// contains a `fail_to_start` text cannot start.
#pragma once

#include <cerrno>
#include <dirent.h>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "tovi_process.hpp"

namespace tovi::test {

class ShellRecorder {
public:
    ShellRecorder() { self() = this, tovi::process::set_launcher(&kLauncher); }
    ~ShellRecorder() { tovi::process::set_launcher(nullptr); }
    std::vector<std::string> commands, fail_to_start;
    std::map<std::string, std::string> output;
    std::map<std::string, int> status;

private:
    std::vector<std::string> started_;  // by fake pid, kept when a test clears `commands`
    static ShellRecorder *&self()
    {
        static ShellRecorder *current = nullptr;
        return current;
    }
    static pid_t start(const char *cmd, int child_fd, int target_fd, int)
    {
        for (const std::string &f : self()->fail_to_start)
            if (std::string(cmd).find(f) != std::string::npos)
                return errno = EAGAIN, -1;
        self()->commands.emplace_back(cmd), self()->started_.emplace_back(cmd);
        if (const std::string &out = self()->output[cmd]; target_fd == STDOUT_FILENO)
            (void)!write(child_fd, out.data(), out.size());
        return static_cast<pid_t>(999999 + self()->started_.size());  // no process of ours
    }
    static int wait(pid_t pid, int *st) { return *st = self()->status[self()->started_.at(pid - 1000000u)], 0; }
    static constexpr tovi::process::Launcher kLauncher{start, wait};
};

// Descriptors open in this process.
inline int open_fds()
{
    int n = -1;  // the directory's own
    DIR *d = opendir("/proc/self/fd");
    while (dirent *e = readdir(d))
        n += e->d_name[0] != '.';
    return closedir(d), n;
}

}  // namespace tovi::test
