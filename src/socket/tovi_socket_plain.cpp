// Plain sockets with time-outs: every wait is a poll bounded by what is
// left of the caller's time-out, the operation itself never blocks.
#include "tovi_socket_plain.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#define TOVI_LOG_SOURCE "tovi_socket"
#include "tovi_log.hpp"

namespace {

using Clock = std::chrono::steady_clock;

struct Address {
    sockaddr_storage ss{};
    socklen_t len = 0;
    int family = AF_UNSPEC;
};

// Numeric IPv4 or IPv6 text; NULL or "" is every IPv4 address.
bool parse_ip(const char *text, uint16_t port, Address *a)
{
    if (text == nullptr || text[0] == '\0')
        text = "0.0.0.0";
    auto *v4 = reinterpret_cast<sockaddr_in *>(&a->ss);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&a->ss);
    if (inet_pton(AF_INET, text, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        a->len = sizeof *v4;
    } else if (inet_pton(AF_INET6, text, &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        a->len = sizeof *v6;
    } else {
        TOVI_LOG(tovi::log::kError, "sock: '%s' is not a numeric address.", text);
        return false;
    }
    a->family = a->ss.ss_family;
    return true;
}

bool parse_unix(const char *path, Address *a)
{
    auto *un = reinterpret_cast<sockaddr_un *>(&a->ss);
    const size_t len = path != nullptr ? strnlen(path, sizeof un->sun_path) : 0;
    if (len == 0 || len >= sizeof un->sun_path) {
        TOVI_LOG(tovi::log::kError, "sock: bad Unix socket path.");
        return false;
    }
    un->sun_family = AF_UNIX;
    std::memcpy(un->sun_path, path, len + 1);
    a->len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len + 1);
    a->family = AF_UNIX;
    return true;
}

// Milliseconds left of `timeout_ms` since `start`, as poll takes them.
int left_ms(Clock::time_point start, uint32_t timeout_ms)
{
    if (timeout_ms == TOVI_SOCK_WAIT_FOREVER)
        return -1;
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    if (spent >= timeout_ms)
        return 0;
    // Beyond INT_MAX, poll would take the count as negative: no bound at all.
    return timeout_ms - spent > INT_MAX ? INT_MAX : static_cast<int>(timeout_ms - spent);
}

// Waits for `events` on fd: 0 when ready, -ETIMEDOUT, or a negated errno.
int wait_for(int fd, short events, Clock::time_point start, uint32_t timeout_ms)
{
    for (;;) {
        pollfd p{fd, events, 0};
        const int n = poll(&p, 1, left_ms(start, timeout_ms));
        if (n > 0)
            return 0;
        if (n == 0)
            return -ETIMEDOUT;
        if (errno != EINTR)
            return -errno;
    }
}

int make_socket(int family, int type)
{
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    return fd >= 0 ? fd : -errno;
}

int connect_to(const Address &a, uint32_t timeout_ms)
{
    const auto start = Clock::now();
    const int fd = make_socket(a.family, SOCK_STREAM | SOCK_NONBLOCK);
    if (fd < 0)
        return fd;
    int rc = 0;
    while (connect(fd, reinterpret_cast<const sockaddr *>(&a.ss), a.len) != 0) {
        if (errno == EAGAIN && a.family == AF_UNIX) {
            // The listener's backlog is full and nothing is under way (poll
            // would report the bare socket ready): try again shortly.
            const int left = left_ms(start, timeout_ms);
            if (left == 0) {
                rc = -ETIMEDOUT;
                break;
            }
            poll(nullptr, 0, left < 0 || left > 10 ? 10 : left);
            continue;
        }
        // EAGAIN from TCP means no local port is free: a failure, not a wait.
        rc = errno == EINPROGRESS ? wait_for(fd, POLLOUT, start, timeout_ms) : -errno;
        int err = 0;
        socklen_t len = sizeof err;
        if (rc == 0 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err != 0)
            rc = -err;
        break;
    }
    if (rc == 0 && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)
        rc = -errno;
    if (rc != 0) {
        close(fd);
        return rc;
    }
    return fd;
}

int bind_socket(const Address &a, int type, int backlog)
{
    const int fd = make_socket(a.family, type);
    if (fd < 0)
        return fd;
    const int one = 1;
    if ((a.family != AF_UNIX && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) ||
        bind(fd, reinterpret_cast<const sockaddr *>(&a.ss), a.len) != 0 ||
        ((type & SOCK_STREAM) != 0 && listen(fd, backlog) != 0)) {
        const int err = errno;
        close(fd);
        return -err;
    }
    return fd;
}

}  // namespace

extern "C" {

TOVI_API int tovi_sock_tcp_connect(const char *addr, uint16_t port, uint32_t timeout_ms)
{
    Address a;
    if (addr == nullptr || addr[0] == '\0' || port == 0) {
        TOVI_LOG(tovi::log::kError, "sock: bad TCP destination.");
        return -EINVAL;
    }
    if (!parse_ip(addr, port, &a))
        return -EINVAL;
    return connect_to(a, timeout_ms);
}

TOVI_API int tovi_sock_tcp_listen(const char *addr, uint16_t port, int backlog)
{
    Address a;
    if (!parse_ip(addr, port, &a))
        return -EINVAL;
    return bind_socket(a, SOCK_STREAM | SOCK_NONBLOCK, backlog);
}

TOVI_API int tovi_sock_udp_open(const char *addr, uint16_t port)
{
    Address a;
    if (!parse_ip(addr, port, &a))
        return -EINVAL;
    return bind_socket(a, SOCK_DGRAM, 0);
}

TOVI_API int tovi_sock_unix_listen(const char *path, int backlog)
{
    Address a;
    if (!parse_unix(path, &a))
        return -EINVAL;
    struct stat st;
    if (lstat(path, &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            TOVI_LOG(tovi::log::kError, "sock: %s exists and is not a socket.", path);
            return -EEXIST;
        }
        unlink(path);  // left behind by an earlier listener
    }
    return bind_socket(a, SOCK_STREAM | SOCK_NONBLOCK, backlog);
}

TOVI_API int tovi_sock_unix_connect(const char *path, uint32_t timeout_ms)
{
    Address a;
    if (!parse_unix(path, &a))
        return -EINVAL;
    return connect_to(a, timeout_ms);
}

TOVI_API int tovi_sock_accept(int fd, uint32_t timeout_ms)
{
    const auto start = Clock::now();
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0)
        return -errno;
    // Our listeners are non-blocking: a connection reset between poll and
    // accept sends us back to waiting instead of blocking past the time-out.
    // A blocking one made elsewhere is accepted from only once poll saw a
    // connection, else its accept would wait without bound.
    for (bool wait = (flags & O_NONBLOCK) == 0;; wait = true) {
        if (int rc = wait ? wait_for(fd, POLLIN, start, timeout_ms) : 0; rc != 0)
            return rc;
        const int c = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (c >= 0)
            return c;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED)
            return -errno;
    }
}

TOVI_API int64_t tovi_sock_send(int fd, const void *buf, size_t len, uint32_t timeout_ms)
{
    if (buf == nullptr && len != 0) {
        TOVI_LOG(tovi::log::kError, "sock: bad buffer.");
        return -EINVAL;
    }
    const auto start = Clock::now();
    size_t done = 0;
    while (done < len) {
        const ssize_t n = send(fd, static_cast<const char *>(buf) + done, len - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return -errno;
        if (int rc = wait_for(fd, POLLOUT, start, timeout_ms); rc != 0)
            return rc;
    }
    return static_cast<int64_t>(len);
}

TOVI_API int64_t tovi_sock_recv(int fd, void *buf, size_t len, uint32_t timeout_ms)
{
    if (buf == nullptr || len == 0) {
        TOVI_LOG(tovi::log::kError, "sock: bad buffer.");
        return -EINVAL;
    }
    const auto start = Clock::now();
    for (;;) {
        const ssize_t n = recv(fd, buf, len, MSG_DONTWAIT);
        if (n >= 0)
            return n;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return -errno;
        if (int rc = wait_for(fd, POLLIN, start, timeout_ms); rc != 0)
            return rc;
    }
}

TOVI_API int64_t tovi_sock_sendto(int fd, const void *buf, size_t len, const char *addr, uint16_t port)
{
    Address a;
    if ((buf == nullptr && len != 0) || addr == nullptr || addr[0] == '\0') {
        TOVI_LOG(tovi::log::kError, "sock: bad datagram or destination.");
        return -EINVAL;
    }
    if (!parse_ip(addr, port, &a))
        return -EINVAL;
    const ssize_t n = sendto(fd, buf, len, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&a.ss), a.len);
    return n >= 0 ? n : -errno;
}

TOVI_API int tovi_sock_local_port(int fd)
{
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len) != 0)
        return -errno;
    if (ss.ss_family == AF_INET)
        return ntohs(reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
    if (ss.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port);
    return -EAFNOSUPPORT;
}

}  // extern "C"
