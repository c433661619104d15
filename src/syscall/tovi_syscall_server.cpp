// The loopback server of the private system calls: one thread accepts on
// 127.0.0.1:5583, one worker per connection serves its requests.
//
// Hardening (the peer may be hostile or broken):
//  - a request larger than the worker's buffers (payload or asked output
//    capacity above 510 bytes) is answered -1 without calling anything; its
//    payload is read and dropped up to 1 MiB, beyond that the connection is
//    closed; a handler's output beyond the buffer is never sent;
//  - a worker holds no lock while it reads: a peer that stalls only holds
//    its own connection, and loses it after SYSCALL_STALL_MS (10 s) of
//    silence inside a message;
//  - at most SYSCALL_MAX_CONNECTIONS connections are served at once;
//  - only sockets of the server's own effective user are served unless
//    SYSCALL_ALLOW_OTHER_USERS is 1; each worker looks its peer up before it
//    reads, so the accept thread only accepts, counts and starts workers.
//
// g_server.mutex guards the state below; the accept thread and the workers
// take it only to count themselves and to file or drop their descriptors,
// never across a read, a write or a handler. The exit shuts every filed
// descriptor down (which wakes the blocked accept and reads) and waits until
// the thread count is 0; a worker drops its descriptor from the table before
// closing it, so the exit never shuts down a reused number.
#include <arpa/inet.h>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "tovi_cfg.hpp"
#include "tovi_scope.hpp"
#include "tovi_str.h"
#include "tovi_syscall.hpp"
#include "tovi_thread.h"
#define TOVI_LOG_SOURCE "nubo_syscall_kernel"
#include "tovi_log.hpp"

namespace tovi::syscall {
namespace {

struct Server {
    std::mutex mutex;
    std::condition_variable ended;  // threads fell to 0
    bool running = false;
    bool stopping = false;
    int listen_fd = -1;
    uint32_t threads = 0;           // the accept thread and the workers alive
    std::vector<int> connections;   // descriptors of the workers
    ServerLimits limits;
};

Server g_server;

constexpr int kBacklog = 10;
constexpr size_t kDiscardPiece = 64;

// Counts a thread out; the last one wakes the exit.
void thread_done()
{
    std::lock_guard<std::mutex> guard(g_server.mutex);
    if (--g_server.threads == 0)
        g_server.ended.notify_all();
}

void drop_connection(int fd)
{
    {
        std::lock_guard<std::mutex> guard(g_server.mutex);
        std::erase(g_server.connections, fd);
    }
    close(fd);
}

bool reply(int fd, const WireHeader &request, int64_t result, const void *payload, uint32_t len)
{
    unsigned char head[kWireHeaderLen];
    encode(WireHeader{request.cmd, len, 0, result}, head);
    if (send_all(fd, head, sizeof head) == 0 && (len == 0 || send_all(fd, payload, len) == 0))
        return true;
    TOVI_LOG(log::kError, "hdr.cmd=%x, hdr.len = %lu\n", request.cmd, static_cast<unsigned long>(request.len));
    return false;
}

// Serves one request whose header has come. False ends the connection.
bool serve(int fd, const WireHeader &h, uint8_t *in, uint8_t *out, int stall_ms)
{
    if (h.len > TOVI_SYSCALL_BUF_LEN || h.out_cap > TOVI_SYSCALL_BUF_LEN) {
        TOVI_LOG(log::kError, "Syscall request refused, cmd = (0x%x), len = %llu, outlen = %llu.", h.cmd,
                 static_cast<unsigned long long>(h.len), static_cast<unsigned long long>(h.out_cap));
        if (h.len > TOVI_SYSCALL_REPLY_MAX)
            return false;
        for (uint64_t left = h.len; left > 0;) {
            size_t piece = left < kDiscardPiece ? static_cast<size_t>(left) : kDiscardPiece;
            if (recv_all(fd, in, piece, stall_ms) != 0)
                return false;
            left -= piece;
        }
        return reply(fd, h, -1, nullptr, 0);
    }
    if (h.len > 0 && recv_all(fd, in, static_cast<size_t>(h.len), stall_ms) != 0)
        return false;
    const tovi_syscall_entry_s *entry = find(h.cmd);
    if (entry == nullptr || entry->pfnSysCall == nullptr) {
        TOVI_LOG_RATELIMITED(log::kError, "Syscall not registered usr, cmd = (0x%x).", h.cmd);
        return reply(fd, h, -1, nullptr, 0);
    }
    tovi_syscall_call_s call{static_cast<uint32_t>(h.len), static_cast<uint32_t>(h.out_cap), 0, in, out};
    const int32_t result = entry->pfnSysCall(h.cmd, &call);
    if (call.uiOutLen > TOVI_SYSCALL_REPLY_MAX)
        return false;
    if (call.uiOutLen > TOVI_SYSCALL_BUF_LEN) {
        TOVI_LOG(log::kError, "Syscall reply refused, cmd = (0x%x), outlen = %u.", h.cmd, call.uiOutLen);
        return reply(fd, h, -1, nullptr, 0);
    }
    return reply(fd, h, result, out, call.uiOutLen);
}

// Whether the peer at the other end of fd may call. Logs a refusal.
bool peer_allowed(int fd, const ServerLimits &limits)
{
    if (limits.allow_other_users)
        return true;
    uid_t uid = 0;
    if (int err = peer_uid(fd, &uid); err != 0) {
        TOVI_LOG_RATELIMITED(log::kError, "Syscall peer lookup failed, ret = %d.", err);
        return false;
    }
    if (uid != geteuid()) {
        TOVI_LOG_RATELIMITED(log::kError, "Syscall connection of uid %u refused.", static_cast<unsigned>(uid));
        return false;
    }
    return true;
}

void *worker(void *arg)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    ScopeExit done([fd] {
        drop_connection(fd);
        thread_done();
    });
    tovi_thrd_setname("syscall_do_thr");
    ServerLimits limits;
    {
        std::lock_guard<std::mutex> guard(g_server.mutex);
        limits = g_server.limits;
    }
    // Here rather than on the accept thread: the lookup may read the whole
    // connection table, and a flood of connections must not hold up accepting.
    if (!peer_allowed(fd, limits))
        return nullptr;
    const int stall_ms = limits.stall_ms;
    auto *in = static_cast<uint8_t *>(std::malloc(TOVI_SYSCALL_BUF_LEN));
    auto *out = static_cast<uint8_t *>(std::malloc(TOVI_SYSCALL_BUF_LEN));
    ScopeExit release([in, out] {
        std::free(in);
        std::free(out);
    });
    if (in == nullptr || out == nullptr) {
        TOVI_LOG(log::kError, "Param error: null pointer.\n");
        return nullptr;
    }
    for (;;) {
        unsigned char head[kWireHeaderLen];
        if (recv_all(fd, head, sizeof head, stall_ms, true) != 0 || !serve(fd, decode(head), in, out, stall_ms))
            return nullptr;
    }
}

// Files an accepted connection and starts its worker, or closes it.
void admit(int fd)
{
    {
        std::lock_guard<std::mutex> guard(g_server.mutex);
        if (g_server.stopping) {
            close(fd);
            return;
        }
        if (g_server.connections.size() >= g_server.limits.max_connections) {
            TOVI_LOG_RATELIMITED(log::kWarning, "Syscall connection refused, %u connections served already.",
                                 static_cast<unsigned>(g_server.connections.size()));
            close(fd);
            return;
        }
        g_server.connections.push_back(fd);
        ++g_server.threads;
    }
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (uint32_t ret = create_thread_raw(worker, reinterpret_cast<void *>(static_cast<intptr_t>(fd)), nullptr); ret != 0) {
        TOVI_LOG(log::kError, "creat syscall thrd failed, ret = %d.\n", static_cast<int>(ret));
        drop_connection(fd);
        thread_done();
    }
}

void *accept_loop(void *arg)
{
    const int listen_fd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    ScopeExit done(thread_done);
    tovi_thrd_setname("syscall_thr");
    for (;;) {
        int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            admit(fd);
            continue;
        }
        const int err = errno;
        {
            std::lock_guard<std::mutex> guard(g_server.mutex);
            if (g_server.stopping)
                return nullptr;
        }
        if (err == EINTR || err == ECONNABORTED)
            continue;
        if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
            // Out of descriptors or memory for now: the service goes on when they come back.
            TOVI_LOG_RATELIMITED(log::kError, "accept errno = %d\n", err);
            usleep(10000);
            continue;
        }
        TOVI_LOG(log::kError, "accept errno = %d\n", err);
        return nullptr;
    }
}

uint64_t setting(const char *item, uint64_t fallback)
{
    char buf[256] = {};
    return cfg::library_setting(item, buf, sizeof buf) == 0 && buf[0] != '\0' ? tovi_str_tou64(buf) : fallback;
}

int open_listener()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        TOVI_LOG(log::kError, "Create socket %d fail!.\n", fd);
        return -1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(TOVI_SYSCALL_PORT);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, kBacklog) != 0) {
        TOVI_LOG(log::kError, "Listen socket %d fail!, error is %d.\n", fd, errno);
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

ServerLimits server_limits()
{
    ServerLimits limits;
    const uint64_t max = setting("SYSCALL_MAX_CONNECTIONS", TOVI_SYSCALL_MAX_CONNECTIONS);
    limits.max_connections = max == 0 || max > 4096 ? TOVI_SYSCALL_MAX_CONNECTIONS : static_cast<uint32_t>(max);
    limits.allow_other_users = setting("SYSCALL_ALLOW_OTHER_USERS", 0) == 1;
    const uint64_t stall = setting("SYSCALL_STALL_MS", 10000);
    limits.stall_ms = stall < 100 || stall > 600000 ? 10000 : static_cast<int>(stall);
    return limits;
}

}  // namespace tovi::syscall

using namespace tovi;
using syscall::g_server;

extern "C" {

int32_t NUBO_PrivateSysCallIntfInit(void)
{
    try {
        const syscall::ServerLimits limits = syscall::server_limits();
        std::lock_guard<std::mutex> guard(g_server.mutex);
        if (g_server.running)
            return 0;
        g_server.connections.clear();
        g_server.connections.reserve(limits.max_connections);  // admit never allocates
        int fd = syscall::open_listener();
        if (fd < 0)
            return -1;
        g_server.limits = limits;
        g_server.listen_fd = fd;
        g_server.threads = 1;
        if (uint32_t ret = create_thread_raw(syscall::accept_loop, reinterpret_cast<void *>(static_cast<intptr_t>(fd)), nullptr);
            ret != 0) {
            TOVI_LOG(log::kError, "creat syscall thrd failed, ret = %d.\n", static_cast<int>(ret));
            g_server.threads = 0;
            g_server.listen_fd = -1;
            close(fd);
            return -1;
        }
        g_server.running = true;
        return 0;
    } catch (...) {
        return -1;
    }
}

int32_t NUBO_PrivateSysCallInit(void)
{
    if (NUBO_PrivateSysCallIntfInit() != 0) {
        TOVI_LOG(log::kError, "Initial syscall interface fail.");
        return -1;
    }
    return 0;
}

int32_t NUBO_SyscallInit(void)
{
    return NUBO_PrivateSysCallInit();
}

void NUBO_PrivateSysCallIntfExit(void)
try {
    std::unique_lock<std::mutex> lock(g_server.mutex);
    if (!g_server.running || g_server.stopping)
        return;
    g_server.stopping = true;
    shutdown(g_server.listen_fd, SHUT_RDWR);  // wakes the accept
    for (int fd : g_server.connections)
        shutdown(fd, SHUT_RDWR);  // wakes each worker's read
    g_server.ended.wait(lock, [] { return g_server.threads == 0; });
    close(g_server.listen_fd);
    g_server.listen_fd = -1;
    g_server.running = false;
    g_server.stopping = false;
} catch (...) {
}

}  // extern "C"
