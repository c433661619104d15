// Internals of the private system calls: the wire header, whole-buffer
// socket I/O shared by the server and the client, the registry's quiet entry
// points for the companion, and the peer-owner lookup.
#pragma once

#include <cstddef>
#include <cstdint>
#include <endian.h>
#include <sys/types.h>

#include "tovi_syscall.h"

namespace tovi::syscall {

// The 32-byte header of a request or a reply, in host order. On the wire
// every field is little-endian and bytes 4 to 7 are zero.
struct WireHeader {
    uint32_t cmd = 0;
    uint64_t len = 0;      // payload bytes that follow
    uint64_t out_cap = 0;  // request: capacity of the caller's output buffer
    int64_t result = 0;    // reply: the handler's result, -1 for an unknown command
};
inline constexpr size_t kWireHeaderLen = 32;

void encode(const WireHeader &h, unsigned char out[kWireHeaderLen]);
WireHeader decode(const unsigned char in[kWireHeaderLen]);

// Sends or receives exactly `len` bytes, retrying after signals; sending
// never raises SIGPIPE. 0, or -1 with errno (0 when the peer closed first).
// A positive `stall_ms` bounds the wait for each piece (with `idle_first`:
// for each piece after the first byte, so that a connection may idle between
// messages): a peer that stalls inside a message fails with ETIMEDOUT.
int send_all(int fd, const void *buf, size_t len);
int recv_all(int fd, void *buf, size_t len, int stall_ms = 0, bool idle_first = false);

// The registry without its progress messages, for the companion, which
// registers its groups at its own first use. Same results as the exported
// functions.
int32_t register_group(uint32_t group, const tovi_syscall_entry_s *calls, uint32_t count, bool verbose);
// The entry of cmd or nullptr, without a message.
const tovi_syscall_entry_s *find(uint32_t cmd);

// The owner of the TCP socket at the other end of the connected socket fd,
// asked of the kernel's socket diagnostics, or read from /proc/net/tcp when
// they cannot be opened or `from_proc` asks for it (both ends in this network
// namespace). 0, or a negated errno.
int peer_uid(int fd, uid_t *uid, bool from_proc = false);

// The server's bounds, read from section "TOVI" when the server starts.
struct ServerLimits {
    uint32_t max_connections = TOVI_SYSCALL_MAX_CONNECTIONS;
    bool allow_other_users = false;
    int stall_ms = 10000;
};
ServerLimits server_limits();

}  // namespace tovi::syscall
