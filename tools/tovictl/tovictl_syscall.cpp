// tovictl syscall: calls one private system call on the loopback server of
// a running process of this user and prints the reply.
//
//   tovictl syscall CMD [HEX]
//
// CMD is the command number (decimal or 0x...), HEX the input as pairs of
// hex digits (at most 510 bytes). Prints the result and the reply's bytes
// in hex.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tovi_syscall.h"

namespace {

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = static_cast<char>(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Whether a server listens, asked directly so that the answer is one line of ours.
bool server_listens()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(TOVI_SYSCALL_PORT);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    const int err = errno;
    if (fd >= 0)
        close(fd);
    if (!ok)
        std::fprintf(stderr, "tovictl: syscall: no server on 127.0.0.1 port %u: %s\n", TOVI_SYSCALL_PORT, std::strerror(err));
    return ok;
}

}  // namespace

int tovictl_syscall(int argc, char **argv)
{
    if (argc < 1 || argc > 2) {
        std::fprintf(stderr, "tovictl: syscall: usage: tovictl syscall CMD [HEX]\n");
        return 2;
    }
    char *end = nullptr;
    errno = 0;
    const unsigned long cmd = std::strtoul(argv[0], &end, 0);
    if (argv[0][0] < '0' || argv[0][0] > '9' || *end != '\0' || errno != 0 || cmd >= TOVI_SYSCALL_GROUPS << 8) {
        std::fprintf(stderr, "tovictl: syscall: CMD must be a number below 0x2000, not '%s'\n", argv[0]);
        return 2;
    }
    static uint8_t in[TOVI_SYSCALL_BUF_LEN], out[TOVI_SYSCALL_BUF_LEN];
    const char *hex = argc == 2 ? argv[1] : "";
    const size_t digits = std::strlen(hex);
    bool hex_ok = digits % 2 == 0 && digits / 2 <= sizeof in;
    for (size_t i = 0; hex_ok && i < digits; i += 2) {
        const int hi = hex_digit(hex[i]), lo = hex_digit(hex[i + 1]);
        hex_ok = hi >= 0 && lo >= 0;
        in[i / 2] = static_cast<uint8_t>(hi << 4 | lo);
    }
    if (!hex_ok) {
        std::fprintf(stderr, "tovictl: syscall: HEX must be pairs of hex digits, at most %u bytes, not '%s'\n", TOVI_SYSCALL_BUF_LEN, hex);
        return 2;
    }
    if (!server_listens())
        return 1;
    tovi_syscall_call_s call{static_cast<uint32_t>(digits / 2), sizeof out, 0, in, out};
    const int32_t result = NUBO_SysCall(static_cast<uint32_t>(cmd), &call);
    std::printf("command 0x%lx: result %d, %u reply bytes\n", cmd, result, call.uiOutLen);
    for (uint32_t i = 0; i < call.uiOutLen; ++i)
        std::printf("%02x%s", out[i], i + 1 == call.uiOutLen || (i + 1) % 32 == 0 ? "\n" : "");
    return 0;
}
