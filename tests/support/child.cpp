#include "child.hpp"

#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
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

std::string report_from_child(const std::function<std::string()> &body)
{
    int fds[2];
    if (pipe(fds) != 0)
        return "pipe";
    int rc = run_in_child([&] {
        close(fds[0]);
        std::string out = body();
        return write(fds[1], out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : 1;
    });
    close(fds[1]);
    std::string out;
    char buf[512];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    return rc == 0 ? out : out + " (child status " + std::to_string(rc) + ")";
}

bool write_file(const std::string &path, const std::string &text, mode_t mode)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return fd >= 0 && close(fd) == 0 && ok;
}

std::string in_private_mounts(int flags, const std::vector<std::string> &tmpfs, const std::function<std::string()> &body)
{
    return report_from_child([&]() -> std::string {
        if (unshare(CLONE_NEWNS | flags) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return "SKIP";
        for (const std::string &t : tmpfs) {
            const size_t colon = t.find(':');
            const std::string options = colon == std::string::npos ? "" : t.substr(colon + 1);
            if (mount("tmpfs", t.substr(0, colon).c_str(), "tmpfs", 0, options.c_str()) != 0)
                return "SKIP";
        }
        return body();
    });
}

std::string read_file(const std::string &path)
{
    FILE *f = std::fopen(path.c_str(), "re");
    if (f == nullptr)
        return "<none>";
    std::string out;
    for (int c; (c = std::fgetc(f)) != EOF;)
        out += static_cast<char>(c);
    std::fclose(f);
    return out;
}

}  // namespace tovi::test
