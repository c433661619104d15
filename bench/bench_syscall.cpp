// Round trip of NUBO_SysCall over loopback, for an empty command and a
// 400-byte payload echoed back, from 1 and 2 client threads, against the
// floor: a plain loopback TCP echo written the same way (32-byte header and
// payload each way, one worker thread per connection on the server side,
// one socket and one mutex on the client side). Each run reports ns per
// call, calls per second and, for NUBO_SysCall, the ratio to the floor of
// the same shape ("x_floor", the echo runs first).
//
// Everything runs in a network namespace of the process's own (port 5583 of
// the host is never touched); without one the benchmarks are skipped.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "tovi_syscall.h"

namespace {

constexpr uint16_t kEchoPort = 5584;
constexpr uint32_t kEcho = 0x1e01;

int32_t echo(uint32_t, tovi_syscall_call_s *c)
{
    const uint32_t n = c->uiInLen < c->uiOutBufLen ? c->uiInLen : c->uiOutBufLen;
    std::memcpy(c->pucOutBuf, c->pucInBuf, n);
    c->uiOutLen = n;
    return 0;
}

bool io_all(int fd, void *buf, size_t len, bool sending)
{
    auto *p = static_cast<char *>(buf);
    while (len > 0) {
        ssize_t n = sending ? send(fd, p, len, MSG_NOSIGNAL) : recv(fd, p, len, 0);
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

struct Header {
    uint32_t cmd, zero;
    uint64_t len, cap;
    int64_t result;
};

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// The floor's server: one thread accepts, one thread per connection echoes.
void echo_server(int listen_fd)
{
    for (int fd; (fd = accept(listen_fd, nullptr, nullptr)) >= 0;) {
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::thread([fd] {
            Header h;
            char buf[512];
            while (io_all(fd, &h, sizeof h, false) && h.len <= sizeof buf && io_all(fd, buf, h.len, false) &&
                   io_all(fd, &h, sizeof h, true) && io_all(fd, buf, h.len, true)) {
            }
            close(fd);
        }).detach();
    }
}

// The floor's client: one socket and one mutex for the process.
std::mutex g_echo_mutex;
int g_echo_fd = -1;

bool echo_call(const void *in, uint32_t len, void *out)
{
    std::lock_guard<std::mutex> guard(g_echo_mutex);
    Header h{kEcho, 0, len, 510, 0};
    return io_all(g_echo_fd, &h, sizeof h, true) && io_all(g_echo_fd, const_cast<void *>(in), len, true) &&
           io_all(g_echo_fd, &h, sizeof h, false) && io_all(g_echo_fd, out, h.len, false);
}

// Set up once, before the benchmark threads start: the namespace, both servers, the floor's connection.
bool g_ready = [] {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    ifreq ifr{};
    std::strcpy(ifr.ifr_name, "lo");
    ifr.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0 || ioctl(s, SIOCSIFFLAGS, &ifr) != 0)
        return false;
    close(s);
    static const tovi_syscall_entry_s calls[] = {{kEcho, TOVI_SYSCALL_INDIRECT, echo}};
    if (NUBO_RegSysCall(kEcho >> 8, calls, 1) != 0 || NUBO_PrivateSysCallInit() != 0)
        return false;
    int l = socket(AF_INET, SOCK_STREAM, 0), on = 1;
    sockaddr_in a = loopback(kEchoPort);
    setsockopt(l, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(l, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(l, 10) != 0)
        return false;
    std::thread(echo_server, l).detach();
    g_echo_fd = socket(AF_INET, SOCK_STREAM, 0);
    setsockopt(g_echo_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connect(g_echo_fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
}();

std::mutex g_floor_mutex;
std::map<std::pair<int64_t, int>, double> g_floor_ns;  // (payload, threads) -> ns per call

template <bool Nubo>
void round_trip(benchmark::State &state)
{
    if (!g_ready) {
        state.SkipWithError("no private network namespace here");
        return;
    }
    const auto len = static_cast<uint32_t>(state.range(0));
    uint8_t in[512] = {1, 2, 3}, out[512];
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        bool ok;
        if constexpr (Nubo) {
            tovi_syscall_call_s call{len, sizeof out, 0, in, out};
            ok = NUBO_SysCall(kEcho, &call) == 0 && call.uiOutLen == len;
        } else {
            ok = echo_call(in, len, out);
        }
        if (!ok) {
            state.SkipWithError("call failed");
            break;
        }
    }
    const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() /
                      static_cast<double>(state.iterations() > 0 ? state.iterations() : 1);
    state.counters["calls_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    if (state.thread_index() != 0)
        return;
    // ns per call of this thread, with every thread's calls sharing the one connection.
    const double per_call = ns / state.threads();
    state.counters["ns_per_call"] = per_call;
    std::lock_guard<std::mutex> guard(g_floor_mutex);
    const auto key = std::make_pair(state.range(0), state.threads());
    if constexpr (Nubo) {
        if (auto it = g_floor_ns.find(key); it != g_floor_ns.end())
            state.counters["x_floor"] = per_call / it->second;
    } else {
        g_floor_ns[key] = per_call;
    }
}

}  // namespace

BENCHMARK(round_trip<false>)->Name("plain_echo")->Arg(0)->Arg(400)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(round_trip<true>)->Name("NUBO_SysCall")->Arg(0)->Arg(400)->Threads(1)->Threads(2)->UseRealTime();
