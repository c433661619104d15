// Console output switching with dup/dup2: the originals live on in
// close-on-exec duplicates so that programs started meanwhile do not
// inherit them.
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
    int fd = open(device, O_WRONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0 && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
        const int err = errno;
        close(fd);
        fd = -1;
        errno = err;
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
    const int out = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int err = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    int rc = 0;
    if (out < 0 || err < 0 || dup2_retry(fd, STDOUT_FILENO) < 0 || dup2_retry(fd, STDERR_FILENO) < 0) {
        rc = -errno;
        if (out >= 0)
            dup2_retry(out, STDOUT_FILENO);
        if (err >= 0)
            dup2_retry(err, STDERR_FILENO);
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
    int rc = dup2_retry(saved->out, STDOUT_FILENO) < 0 ? -errno : 0;
    if (dup2_retry(saved->err, STDERR_FILENO) < 0 && rc == 0)
        rc = -errno;
    close(saved->out);
    close(saved->err);
    *saved = {};
    if (rc != 0)
        TOVI_LOG(tovi::log::kError, "tty: cannot put the output back (%s).", std::strerror(-rc));
    else
        TOVI_LOG(tovi::log::kInfo, "tty: output restored.");
    return rc;
}

}  // extern "C"
