// fuzz-seconds: 30
// Throws byte streams at a live private-system-call server on loopback, in a
// network namespace of its own (port 5583 of the host is never touched).
// Each input is one connection: the bytes are sent, the sending side shut,
// and whatever the server answers is read until it closes. The invariants:
// no crash or sanitizer report, every reply header is well-formed (a known
// command answered, 4 zero bytes, a payload within the server's buffer), and
// a well-formed client keeps getting its echo afterwards.
// libFuzzer's watchdog (-timeout) raises SIGALRM every few seconds on
// whichever thread it lands: an interrupted connect is called again (it goes
// on where it was) and an interrupted wait goes on for the time that is left.
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tovi_syscall.h"
#include "tovi_syscall.hpp"
#include "vrlog.h"

namespace {

bool g_ready;

int32_t echo(uint32_t cmd, tovi_syscall_call_s *c)
{
    const uint32_t n = c->uiInLen < c->uiOutBufLen ? c->uiInLen : c->uiOutBufLen;
    std::memcpy(c->pucOutBuf, c->pucInBuf, n);
    c->uiOutLen = cmd == 0x1f02 ? c->uiOutBufLen + 1 : n;  // 0x1f02 overstates its output
    return static_cast<int32_t>(n);
}

const tovi_syscall_entry_s kCalls[] = {{0x1f01, TOVI_SYSCALL_INDIRECT, echo}, {0x1f02, TOVI_SYSCALL_DIRECT, echo}};

bool private_loopback()
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    ifreq ifr{};
    std::strcpy(ifr.ifr_name, "lo");
    ifr.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    const bool up = s >= 0 && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    if (s >= 0)
        close(s);
    return up;
}

void check_client()
{
    uint8_t in[3] = {7, 8, 9}, out[8] = {};
    tovi_syscall_call_s call{3, sizeof out, 0, in, out};
    if (NUBO_SysCall(0x1f01, &call) != 3 || call.uiOutLen != 3 || std::memcmp(in, out, 3) != 0) {
        std::fprintf(stderr, "the well-formed client is no longer served\n");
        std::abort();
    }
}

// Whether fd has something to read (or has closed) within 15 s.
bool readable(int fd)
{
    using namespace std::chrono;
    const auto deadline = steady_clock::now() + seconds(15);
    for (;;) {
        const auto left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
        pollfd p{fd, POLLIN, 0};
        const int ready = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
        if (ready >= 0 || errno != EINTR)
            return ready == 1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    vrlog_loglevel_set(381, 0);  // the server's refusals would flood the output
    if (!private_loopback()) {
        std::fprintf(stderr, "fuzz_syscall_server: no private network namespace here, nothing is fuzzed\n");
        return 0;
    }
    if (NUBO_RegSysCall(0x1f, kCalls, 2) != 0 || NUBO_PrivateSysCallInit() != 0)
        std::abort();
    check_client();
    g_ready = true;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (!g_ready)
        return 0;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(TOVI_SYSCALL_PORT);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int ret;
    do
        ret = fd < 0 ? -1 : connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    while (ret != 0 && errno == EINTR);
    if (ret != 0) {
        std::fprintf(stderr, "connect: errno %d\n", errno);
        std::abort();
    }
    // The server may close early (a refused length): what it did not read is dropped.
    (void)tovi::syscall::send_all(fd, data, size);
    shutdown(fd, SHUT_WR);
    // Replies: headers with their payloads, until the server closes.
    static unsigned char buf[1 << 16];
    size_t have = 0;
    for (;;) {
        if (!readable(fd)) {
            std::fprintf(stderr, "the server neither answered nor closed\n");
            std::abort();
        }
        ssize_t n = recv(fd, buf + have, sizeof buf - have, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        have += static_cast<size_t>(n);
        size_t at = 0;
        while (have - at >= tovi::syscall::kWireHeaderLen) {
            const tovi::syscall::WireHeader h = tovi::syscall::decode(buf + at);
            uint32_t zero;
            std::memcpy(&zero, buf + at + 4, 4);
            // Only the echo group answers anything but -1, and never more than the buffer.
            const bool result_ok = h.result == -1 || (h.cmd >> 8 == 0x1f && h.result >= 0 && h.result <= TOVI_SYSCALL_BUF_LEN);
            if (zero != 0 || h.len > TOVI_SYSCALL_BUF_LEN || !result_ok) {
                std::fprintf(stderr, "malformed reply header\n");
                std::abort();
            }
            if (have - at < tovi::syscall::kWireHeaderLen + h.len)
                break;
            at += tovi::syscall::kWireHeaderLen + h.len;
        }
        std::memmove(buf, buf + at, have - at);
        have -= at;
    }
    close(fd);
    check_client();
    return 0;
}
