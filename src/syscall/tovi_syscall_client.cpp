// The client of the private system calls: every call of the process goes
// over one loopback connection to the server, one call at a time under one
// mutex. The connection is made at the first call and dropped after an
// error, so the next call connects again.
#include <arpa/inet.h>
#include <cerrno>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tovi_syscall.hpp"
#define TOVI_LOG_SOURCE "nubo_syscall_linux_user"
#include "tovi_log.hpp"

namespace tovi::syscall {
namespace {

constexpr size_t kDiscardPiece = 16;

std::mutex g_client_mutex;
int g_client_fd = -1;  // guarded by g_client_mutex

int connect_server()
{
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
        TOVI_LOG(log::kError, "errno = %d\n", errno);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

void drop_client()
{
    close(g_client_fd);
    g_client_fd = -1;
}

int32_t recv_failed(void *buf, size_t len)
{
    TOVI_LOG(log::kError, "recv error, err=%d, buf=%p, len=%d", errno, buf, static_cast<int>(len));
    drop_client();
    return -1;
}

int32_t call_locked(uint32_t cmd, tovi_syscall_call_s *call)
{
    const uint32_t in_len = call != nullptr ? call->uiInLen : 0;
    const uint32_t cap = call != nullptr ? call->uiOutBufLen : 0;
    if ((in_len > 0 && call->pucInBuf == nullptr) || (cap > 0 && call->pucOutBuf == nullptr))
        return -1;
    if (g_client_fd < 0 && (g_client_fd = connect_server()) < 0)
        return -1;
    // The server's output buffer is the most a reply can carry.
    const uint32_t asked = cap < TOVI_SYSCALL_BUF_LEN ? cap : TOVI_SYSCALL_BUF_LEN;
    unsigned char head[kWireHeaderLen];
    encode(WireHeader{cmd, in_len, asked, 0}, head);
    if (send_all(g_client_fd, head, sizeof head) != 0 || (in_len > 0 && send_all(g_client_fd, call->pucInBuf, in_len) != 0)) {
        TOVI_LOG(log::kError, "send_all fail\n");
        drop_client();
        return -1;
    }
    if (recv_all(g_client_fd, head, sizeof head) != 0)
        return recv_failed(head, sizeof head);
    const WireHeader r = decode(head);
    if (call != nullptr)
        call->uiOutLen = 0;
    if (r.len == 0)
        return static_cast<int32_t>(r.result);
    if (r.len > cap) {
        TOVI_LOG(log::kError, "syscall_user: buffer length too small, hdr.len=%d uiOutBufLen=%u", static_cast<int>(r.len), cap);
        if (r.len > TOVI_SYSCALL_REPLY_MAX) {  // no server of ours sends that much: the stream is lost
            drop_client();
            return -1;
        }
        unsigned char piece[kDiscardPiece];
        for (uint64_t left = r.len; left > 0;) {
            size_t n = left < sizeof piece ? static_cast<size_t>(left) : sizeof piece;
            if (recv_all(g_client_fd, piece, n) != 0)
                return recv_failed(piece, n);
            left -= n;
        }
        return -1;
    }
    if (recv_all(g_client_fd, call->pucOutBuf, static_cast<size_t>(r.len)) != 0)
        return recv_failed(call->pucOutBuf, static_cast<size_t>(r.len));
    call->uiOutLen = static_cast<uint32_t>(r.len);
    return static_cast<int32_t>(r.result);
}

}  // namespace
}  // namespace tovi::syscall

extern "C" int32_t NUBO_SysCall(uint32_t cmd, tovi_syscall_call_s *call)
{
    try {
        std::lock_guard<std::mutex> guard(tovi::syscall::g_client_mutex);
        return tovi::syscall::call_locked(cmd, call);
    } catch (...) {
        return -1;
    }
}
