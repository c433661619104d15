/**
 * @file
 * Plain sockets and bonding queries, beside the network administration of
 * tovi_socket.h.
 *
 * Sockets: TCP, UDP and Unix stream sockets opened with close-on-exec, and
 * sends and receives bounded by a time-out in milliseconds
 * (TOVI_SOCK_WAIT_FOREVER waits without bound, 0 only tries). Addresses
 * are numeric IPv4 or IPv6 text ("192.0.2.1", "::1"); names are not
 * resolved, so no call waits for a name server. NULL or "" binds to every
 * IPv4 address. Connected and accepted descriptors are blocking, listeners
 * non-blocking (tovi_sock_accept waits on them); the caller closes them.
 *
 * Bonding: the mode, the active slave and the slaves with their link state
 * of a bonding master, read from "/proc/net/bonding/<if>"; the masters are
 * listed from "/sys/class/net/bonding_masters".
 *
 * Results (negated errno family): a descriptor, a byte count or 0 on
 * success; -22 a bad argument (logged at level 3), -110 the time-out
 * passed, -2 no such bonding master, otherwise the failed system call's
 * negated errno (-111 refused, -104 reset, ...).
 */
#ifndef TOVI_SOCKET_PLAIN_H
#define TOVI_SOCKET_PLAIN_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** A time-out without bound. */
#define TOVI_SOCK_WAIT_FOREVER 0xFFFFFFFFu
/** Room for an interface name and its NUL. */
#define TOVI_BOND_IFNAME_LEN 16
/** Slaves a query reports. */
#define TOVI_BOND_SLAVE_MAX 16

/** Connects a TCP socket to `addr`:`port` within `timeout_ms`: the descriptor or a negated errno. */
TOVI_API int tovi_sock_tcp_connect(const char *addr, uint16_t port, uint32_t timeout_ms);

/** A TCP socket listening on `addr`:`port` (port 0: any free port; SO_REUSEADDR set). */
TOVI_API int tovi_sock_tcp_listen(const char *addr, uint16_t port, int backlog);

/** A UDP socket bound to `addr`:`port` (port 0: any free port). */
TOVI_API int tovi_sock_udp_open(const char *addr, uint16_t port);

/** A Unix stream socket listening at `path`; a socket file left at `path` is replaced, any other file refused (-17). */
TOVI_API int tovi_sock_unix_listen(const char *path, int backlog);

/** Connects a Unix stream socket to `path` within `timeout_ms`. */
TOVI_API int tovi_sock_unix_connect(const char *path, uint32_t timeout_ms);

/** Accepts one connection on a listening socket (also a blocking one made elsewhere) within `timeout_ms`:
 * the new descriptor (close-on-exec). */
TOVI_API int tovi_sock_accept(int fd, uint32_t timeout_ms);

/** Sends all `len` bytes within `timeout_ms` in total: `len`, or a negated errno
 * (-110 when only part went out in time). */
TOVI_API int64_t tovi_sock_send(int fd, const void *buf, size_t len, uint32_t timeout_ms);

/** Receives what is there, up to `len` bytes, waiting at most `timeout_ms`:
 * the count, 0 at the end of the stream, or a negated errno. */
TOVI_API int64_t tovi_sock_recv(int fd, void *buf, size_t len, uint32_t timeout_ms);

/** Sends one datagram to `addr`:`port`: its length or a negated errno. */
TOVI_API int64_t tovi_sock_sendto(int fd, const void *buf, size_t len, const char *addr, uint16_t port);

/** The local port a socket is bound to, or a negated errno. */
TOVI_API int tovi_sock_local_port(int fd);

/** A slave of a bonding master. */
typedef struct tovi_bond_slave_s {
    char name[TOVI_BOND_IFNAME_LEN]; /**< interface name */
    uint32_t link_up;       /**< "MII Status: up" */
    uint32_t link_failures; /**< "Link Failure Count" */
} tovi_bond_slave_s;

/** What a bonding master reports. */
typedef struct tovi_bond_info_s {
    int32_t mode;                      /**< 0 balance-rr ... 6 balance-alb, -1 not recognised */
    char mode_text[64];                /**< the "Bonding Mode" text as written */
    char active[TOVI_BOND_IFNAME_LEN]; /**< the active slave, "" for none */
    uint32_t link_up;                  /**< the master's MII status */
    uint32_t slave_count;              /**< slaves listed (at most TOVI_BOND_SLAVE_MAX) */
    tovi_bond_slave_s slaves[TOVI_BOND_SLAVE_MAX]; /**< the first slave_count are set */
} tovi_bond_info_s;

/** Fills `*info` for bonding master `ifname`: 0, -22, -2 not a bonding master, -5 unreadable. */
TOVI_API int tovi_bond_query(const char *ifname, tovi_bond_info_s *info);

/** The short name of a bonding mode ("active-backup", ...) or "unknown". */
TOVI_API const char *tovi_bond_mode_name(int32_t mode);

/** Copies the names of the bonding masters (up to `max`) into `names` and
 * their number into `*count`: 0 (also with no bonding driver: none), -22. */
TOVI_API int tovi_bond_list(char (*names)[TOVI_BOND_IFNAME_LEN], uint32_t max, uint32_t *count);

TOVI_EXTERN_C_END

#endif
