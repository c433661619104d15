#include "child.hpp"

#include <sys/wait.h>
#include <unistd.h>

namespace tovi::test {

int run_in_child(const std::function<int()> &body)
{
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0)
        _exit(body());
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace tovi::test
