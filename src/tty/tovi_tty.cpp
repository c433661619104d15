// Console output switching with dup/dup2: the originals live on in
// close-on-exec duplicates so that programs started meanwhile do not
// inherit them.
#include "tovi_fileops.hpp"
#include "tovi_tty.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#define TOVI_LOG_SOURCE "tovi_tty"
#include "tovi_log.hpp"

namespace {

int dup2_retry(int from, int to)
{
    int rc;
    do {
        rc = dup2(from, to);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

// What stands at `std_fd`, as a close-on-exec duplicate, or -1 when it is closed.
int keep(int std_fd, int *saved)
{
    *saved = fcntl(std_fd, F_DUPFD_CLOEXEC, 3);
    return *saved >= 0 || errno == EBADF ? 0 : -errno;
}

// Puts `saved` back at `std_fd`; a descriptor that was closed is closed again.
int put_back(int saved, int std_fd)
{
    if (saved < 0)
        return close(std_fd) == 0 || errno == EBADF ? 0 : -errno;
    return dup2_retry(saved, std_fd) < 0 ? -errno : 0;
}

}  // namespace

extern "C" {

TOVI_API int tovi_tty_redirect(const char *device, tovi_tty_saved_s *saved)
{
    if (saved == nullptr)
        return -EINVAL;
    if (saved->active != 0)
        return -EBUSY;
    if (device == nullptr)
        device = TOVI_TTY_CONSOLE;
    // Opened without waiting: a serial line would wait for its carrier and
    // a FIFO for a reader. Blocking again before the switch, as the status
    // flags are shared with descriptors 1 and 2.
    int fd = tovi::fileops::open_nowait(device, O_WRONLY | O_NOCTTY);
    if (fd >= 0 && fd <= STDERR_FILENO) {  // 1 or 2 is closed and the open took its number
        const int high = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        const int e = errno;
        close(fd);
        fd = high;
        errno = e;
    }
    if (fd < 0) {
        const int err = errno;
        TOVI_LOG(tovi::log::kError, "tty: cannot open %s (%s).", device, std::strerror(err));
        return -err;
    }
    if (isatty(fd) == 0) {
        close(fd);
        TOVI_LOG(tovi::log::kError, "tty: %s is not a terminal.", device);
        return -ENOTTY;
    }
    std::fflush(stdout);
    std::fflush(stderr);
    int out = -1, err = -1;
    int rc = keep(STDOUT_FILENO, &out);
    if (rc == 0)
        rc = keep(STDERR_FILENO, &err);
    if (rc == 0 && dup2_retry(fd, STDOUT_FILENO) < 0) {
        rc = -errno;
    } else if (rc == 0 && dup2_retry(fd, STDERR_FILENO) < 0) {
        rc = -errno;
        put_back(out, STDOUT_FILENO);
    }
    close(fd);
    if (rc != 0) {
        if (out >= 0)
            close(out);
        if (err >= 0)
            close(err);
        return rc;
    }
    saved->out = out;
    saved->err = err;
    saved->active = 1;
    TOVI_LOG(tovi::log::kInfo, "tty: output sent to %s.", device);
    return 0;
}

TOVI_API int tovi_tty_restore(tovi_tty_saved_s *saved)
{
    if (saved == nullptr || saved->active == 0)
        return -EINVAL;
    std::fflush(stdout);
    std::fflush(stderr);
    // Both are put back even when one fails: standard error must not stay on
    // the device because standard output's duplicate went missing.
    int rc = put_back(saved->out, STDOUT_FILENO);
    if (const int e = put_back(saved->err, STDERR_FILENO); rc == 0)
        rc = e;
    if (saved->out >= 0)
        close(saved->out);
    if (saved->err >= 0)
        close(saved->err);
    *saved = {};
    if (rc != 0)
        TOVI_LOG(tovi::log::kError, "tty: cannot put the output back (%s).", std::strerror(-rc));
    else
        TOVI_LOG(tovi::log::kInfo, "tty: output restored.");
    return rc;
}

}  // extern "C"
