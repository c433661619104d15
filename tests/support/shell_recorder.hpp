// A fake shell for the command runners: it records every command that
// reaches the point of starting a shell and starts nothing. A command may be
// given canned output (written to the pipe of a read stream), an exit
// status, or made to fail to start.
#pragma once

#include <cerrno>
#include <map>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

#include "tovi_process.hpp"

namespace tovi::test {

class ShellRecorder {
public:
    ShellRecorder()
    {
        current() = this;
        tovi::process::set_launcher(&kLauncher);
    }
    ~ShellRecorder()
    {
        tovi::process::set_launcher(nullptr);
        current() = nullptr;
    }
    ShellRecorder(const ShellRecorder &) = delete;
    ShellRecorder &operator=(const ShellRecorder &) = delete;

    std::vector<std::string> commands;          // in order
    std::map<std::string, std::string> output;  // printed by a read stream's command
    std::map<std::string, int> status;          // raw wait status, 0 when not named
    std::vector<std::string> fail_to_start;     // substrings of commands that cannot start

private:
    static ShellRecorder *&current()
    {
        static ShellRecorder *self = nullptr;
        return self;
    }

    static pid_t start(const char *cmd, int child_fd, int target_fd, int)
    {
        ShellRecorder *self = current();
        std::string c(cmd);
        for (const std::string &f : self->fail_to_start)
            if (c.find(f) != std::string::npos) {
                errno = EAGAIN;
                return -1;
            }
        self->commands.push_back(c);
        auto out = self->output.find(c);
        if (child_fd >= 0 && target_fd == STDOUT_FILENO && out != self->output.end())
            (void)!write(child_fd, out->second.data(), out->second.size());
        self->pending_.push_back(c);
        return static_cast<pid_t>(1000000 + self->pending_.size());
    }

    static int wait(pid_t pid, int *st)
    {
        ShellRecorder *self = current();
        size_t i = static_cast<size_t>(pid - 1000000 - 1);
        if (i >= self->pending_.size())
            return -1;
        auto s = self->status.find(self->pending_[i]);
        *st = s == self->status.end() ? 0 : s->second;
        return 0;
    }

    static constexpr tovi::process::Launcher kLauncher{start, wait};
    std::vector<std::string> pending_;
};

}  // namespace tovi::test
