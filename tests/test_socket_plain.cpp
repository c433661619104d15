// Plain sockets on the loopback: a TCP and a Unix exchange with
// close-on-exec descriptors, every time-out, refusals; UDP datagrams; and
// bonding reports read from fixture files (the kernel may lack the driver).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_socket_plain.h"
#include "tovi_socket_plain.hpp"

namespace {

bool cloexec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

// Sends "ping" from `a`, receives it on `b`, then b's idle time-out and a's end of stream.
void exchange(int a, int b)
{
    char buf[16] = {};
    EXPECT_EQ(tovi_sock_send(a, "ping", 4, 1000), 4);
    EXPECT_EQ(tovi_sock_recv(b, buf, sizeof buf, 1000), 4);
    EXPECT_STREQ(buf, "ping");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tovi_sock_recv(b, buf, sizeof buf, 50), -ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    close(b);
    EXPECT_EQ(tovi_sock_recv(a, buf, sizeof buf, 1000), 0);
    close(a);
}

}  // namespace

TEST(SocketPlain, TcpAndUnixStreams)
{
    const int l = tovi_sock_tcp_listen("127.0.0.1", 0, 4);
    ASSERT_GE(l, 0);
    const int port = tovi_sock_local_port(l);
    ASSERT_GT(port, 0);
    EXPECT_EQ(tovi_sock_accept(l, 20), -ETIMEDOUT);
    const int c = tovi_sock_tcp_connect("127.0.0.1", static_cast<uint16_t>(port), 1000);
    ASSERT_GE(c, 0);
    const int s = tovi_sock_accept(l, 1000);
    ASSERT_GE(s, 0);
    EXPECT_TRUE(cloexec(l) && cloexec(c) && cloexec(s));
    EXPECT_EQ(fcntl(c, F_GETFL) & O_NONBLOCK, 0);
    exchange(c, s);
    close(l);
    EXPECT_EQ(tovi_sock_tcp_connect("127.0.0.1", static_cast<uint16_t>(port), 1000), -ECONNREFUSED);

    // A peer that never reads: the send gives up after its time-out.
    const int l2 = tovi_sock_tcp_listen("::1", 0, 4);
    ASSERT_GE(l2, 0);
    const int c2 = tovi_sock_tcp_connect("::1", static_cast<uint16_t>(tovi_sock_local_port(l2)), 1000);
    std::vector<char> big(64 << 20);
    EXPECT_EQ(tovi_sock_send(c2, big.data(), big.size(), 100), -ETIMEDOUT);
    close(c2);
    close(l2);

    char dir[] = "/tmp/tovi_sock_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/ctl.sock", plain = std::string(dir) + "/file";
    for (int round = 0; round < 2; ++round) {  // the second listener replaces the first one's socket file
        const int ul = tovi_sock_unix_listen(path.c_str(), 4);
        ASSERT_GE(ul, 0);
        const int uc = tovi_sock_unix_connect(path.c_str(), 1000);
        const int us = tovi_sock_accept(ul, 1000);
        ASSERT_GE(uc, 0);
        ASSERT_GE(us, 0);
        EXPECT_TRUE(cloexec(uc) && cloexec(us));
        exchange(uc, us);
        close(ul);
    }
    ASSERT_TRUE(tovi::test::write_file(plain, "keep"));
    EXPECT_EQ(tovi_sock_unix_listen(plain.c_str(), 4), -EEXIST);
    EXPECT_EQ(tovi::test::read_file(plain), "keep");
    unlink(path.c_str());
    unlink(plain.c_str());
    rmdir(dir);
}

TEST(SocketPlain, UdpAndRefusals)
{
    const int a = tovi_sock_udp_open("127.0.0.1", 0), b = tovi_sock_udp_open(nullptr, 0);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(tovi_sock_sendto(b, "dgram", 5, "127.0.0.1", static_cast<uint16_t>(tovi_sock_local_port(a))), 5);
    char buf[8] = {};
    EXPECT_EQ(tovi_sock_recv(a, buf, sizeof buf, 1000), 5);
    EXPECT_STREQ(buf, "dgram");
    EXPECT_EQ(tovi_sock_recv(a, buf, sizeof buf, 0), -ETIMEDOUT);
    close(a);
    close(b);

    // Evaluated in order under the capture: each refusal and its message.
    tovi::test::LogCapture log;
    const std::string long_path(120, 'p');
    const struct { int rc; int expected; const char *message; } cases[] = {
        {tovi_sock_tcp_connect("ctl.example", 80, 10), -EINVAL, "sock: 'ctl.example' is not a numeric address."},
        {tovi_sock_tcp_connect("127.0.0.1", 0, 10), -EINVAL, "sock: bad TCP destination."},
        {tovi_sock_tcp_listen("256.1.1.1", 0, 1), -EINVAL, "sock: '256.1.1.1' is not a numeric address."},
        {tovi_sock_unix_connect(long_path.c_str(), 10), -EINVAL, "sock: bad Unix socket path."},
        {tovi_sock_unix_listen("", 1), -EINVAL, "sock: bad Unix socket path."},
        {tovi_sock_unix_connect("/nonexistent/ctl.sock", 10), -ENOENT, nullptr},
    };
    std::vector<std::string> want;
    for (const auto &c : cases) {
        EXPECT_EQ(c.rc, c.expected) << (c.message != nullptr ? c.message : "");
        if (c.message != nullptr)
            want.push_back(c.message);
    }
    EXPECT_EQ(log.texts(3), want);
}

TEST(Bonding, FixtureReports)
{
    char root[] = "/tmp/tovi_bond_XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    const std::string r = root;
    ASSERT_EQ(system(("mkdir -p " + r + "/proc/net/bonding " + r + "/sys/class/net && cp " TOVI_TEST_DATA
                      "/bonding/bond0 " TOVI_TEST_DATA "/bonding/bond1 " + r + "/proc/net/bonding/").c_str()), 0);
    ASSERT_TRUE(tovi::test::write_file(r + "/sys/class/net/bonding_masters", "bond0 bond1 bond-with-a-far-too-long-name\n"));
    ASSERT_TRUE(tovi::test::write_file(r + "/proc/net/bonding/bond2", "Ethernet Channel Bonding Driver: v6.1.0\n"));

    tovi_bond_info_s info;
    ASSERT_EQ(tovi::sock::bond_query_at(r, "bond0", &info), 0);
    EXPECT_EQ(info.mode, 1);
    EXPECT_STREQ(tovi_bond_mode_name(info.mode), "active-backup");
    EXPECT_STREQ(info.active, "ens2f1");
    EXPECT_EQ(info.link_up, 1u);
    ASSERT_EQ(info.slave_count, 2u);
    EXPECT_STREQ(info.slaves[0].name, "ens2f0");
    EXPECT_EQ(info.slaves[0].link_up, 0u);
    EXPECT_EQ(info.slaves[0].link_failures, 3u);
    EXPECT_EQ(info.slaves[1].link_up, 1u);

    ASSERT_EQ(tovi::sock::bond_query_at(r, "bond1", &info), 0);
    EXPECT_EQ(info.mode, 4);
    EXPECT_STREQ(info.mode_text, "IEEE 802.3ad Dynamic link aggregation");
    EXPECT_STREQ(info.active, "");
    EXPECT_EQ(info.link_up, 0u);
    EXPECT_EQ(info.slave_count, 0u);

    tovi::test::LogCapture log;
    EXPECT_EQ(tovi::sock::bond_query_at(r, "eth9", &info), -ENOENT);
    EXPECT_EQ(tovi::sock::bond_query_at(r, "../bonding_masters", &info), -EINVAL);
    EXPECT_EQ(tovi::sock::bond_query_at(r, "bond2", &info), -EIO);
    EXPECT_EQ(log.texts(3), (std::vector<std::string>{"bond: bad interface name.",
                                                       "bond: " + r + "/proc/net/bonding/bond2 has no bonding mode."}));
    char names[1][TOVI_BOND_IFNAME_LEN];
    uint32_t n = 0;
    ASSERT_EQ(tovi::sock::bond_list_at(r, names, 1, &n), 0);
    EXPECT_EQ(n, 2u);
    EXPECT_STREQ(names[0], "bond0");
    ASSERT_EQ(tovi::sock::bond_list_at(r + "/none", names, 1, &n), 0);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(system(("rm -rf " + r).c_str()), 0);
}
