// Who owns the other end of a loopback connection: the kernel's socket
// diagnostics look the peer's socket up by its exact address pair and
// report its owner. Both ends live in this network namespace.
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tovi_scope.hpp"
#include "tovi_syscall.hpp"

namespace tovi::syscall {

int peer_uid(int fd, uid_t *uid)
{
    sockaddr_in local{}, peer{};
    socklen_t llen = sizeof local, plen = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &llen) != 0 ||
        getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &plen) != 0)
        return -errno;
    if (local.sin_family != AF_INET || peer.sin_family != AF_INET)
        return -EAFNOSUPPORT;
    int nl = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (nl < 0)
        return -errno;
    ScopeExit close_nl([nl] { close(nl); });
    timeval tv{2, 0};  // the kernel answers at once; never hang the accept thread
    setsockopt(nl, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);

    struct {
        nlmsghdr nlh;
        inet_diag_req_v2 req;
    } msg{};
    msg.nlh.nlmsg_len = sizeof msg;
    msg.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    msg.nlh.nlmsg_flags = NLM_F_REQUEST;
    msg.nlh.nlmsg_seq = 1;
    msg.req.sdiag_family = AF_INET;
    msg.req.sdiag_protocol = IPPROTO_TCP;
    msg.req.idiag_states = ~0u;
    // The peer's socket: its own address is our peer address.
    msg.req.id.idiag_sport = peer.sin_port;
    msg.req.id.idiag_dport = local.sin_port;
    msg.req.id.idiag_src[0] = peer.sin_addr.s_addr;
    msg.req.id.idiag_dst[0] = local.sin_addr.s_addr;
    msg.req.id.idiag_cookie[0] = msg.req.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(nl, &msg, sizeof msg, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) != sizeof msg)
        return -errno;

    alignas(nlmsghdr) char buf[8192];
    ssize_t n;
    do
        n = recv(nl, buf, sizeof buf, 0);
    while (n < 0 && errno == EINTR);
    if (n < 0)
        return -errno;
    int left = static_cast<int>(n);
    for (auto *h = reinterpret_cast<nlmsghdr *>(buf); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
        if (h->nlmsg_type == NLMSG_ERROR) {
            const auto *e = static_cast<const nlmsgerr *>(NLMSG_DATA(h));
            return h->nlmsg_len >= NLMSG_LENGTH(sizeof *e) && e->error != 0 ? e->error : -EPROTO;
        }
        if (h->nlmsg_type == SOCK_DIAG_BY_FAMILY && h->nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg))) {
            const auto *d = static_cast<const inet_diag_msg *>(NLMSG_DATA(h));
            *uid = d->idiag_uid;
            return 0;
        }
    }
    return -ENOENT;
}

}  // namespace tovi::syscall
