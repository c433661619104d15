// Who owns the other end of a loopback connection: the kernel's socket
// diagnostics look the peer's socket up by its exact address pair and
// report its owner. Where that interface cannot be opened (an emulator that
// does not pass it through) the same answer is read from /proc/net/tcp.
// Both ends live in this network namespace. The netlink lookup costs the
// same however many sockets exist; the file is read whole and grows with
// every socket of the namespace (closed ones waiting out TIME_WAIT too), so
// a read of it gives up after kProcBudget, and one read runs at a time: side
// by side, the workers of a flood of connections would each take longer than
// the budget and every connection would be refused.
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tovi_scope.hpp"
#include "tovi_syscall.hpp"

namespace tovi::syscall {
namespace {

constexpr auto kProcBudget = std::chrono::seconds(1);
std::mutex g_proc_mutex;  // one read of /proc/net/tcp at a time

// The line of /proc/net/tcp whose local end is `own` and remote end `other`
// (addresses as the kernel prints them: the raw 32-bit word in hex).
int uid_from_proc(const sockaddr_in &own, const sockaddr_in &other, uid_t *uid)
{
    std::lock_guard<std::mutex> one_at_a_time(g_proc_mutex);
    FILE *f = std::fopen("/proc/net/tcp", "re");
    if (f == nullptr)
        return -errno;
    ScopeExit close_f([f] { std::fclose(f); });
    const auto give_up = std::chrono::steady_clock::now() + kProcBudget;
    char line[512];
    for (unsigned n = 1; std::fgets(line, sizeof line, f) != nullptr; ++n) {
        if (n % 256 == 0 && std::chrono::steady_clock::now() > give_up)
            return -ETIMEDOUT;
        unsigned la, lp, ra, rp, owner;
        if (std::sscanf(line, " %*u: %8X:%4X %8X:%4X %*X %*X:%*X %*X:%*X %*X %u", &la, &lp, &ra, &rp, &owner) == 5 &&
            la == own.sin_addr.s_addr && lp == ntohs(own.sin_port) && ra == other.sin_addr.s_addr && rp == ntohs(other.sin_port)) {
            *uid = owner;
            return 0;
        }
    }
    return -ENOENT;
}

}  // namespace

int peer_uid(int fd, uid_t *uid, bool from_proc)
{
    sockaddr_in local{}, peer{};
    socklen_t llen = sizeof local, plen = sizeof peer;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &llen) != 0 ||
        getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &plen) != 0)
        return -errno;
    if (local.sin_family != AF_INET || peer.sin_family != AF_INET)
        return -EAFNOSUPPORT;
    int nl = from_proc ? -1 : socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (nl < 0)
        return uid_from_proc(peer, local, uid);
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
