// Plain sockets on the loopback with their time-outs and refusals; bonding
// reports from fixture files (the test kernel may lack the bonding driver).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_socket_plain.h"
#include "tovi_socket_plain.hpp"

namespace {

bool cloexec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

// Listener `l` and a connected `c`: accept, "ping" across, the idle time-out, the end of stream.
void exchange(int l, int c)
{
    const int s = tovi_sock_accept(l, 1000);
    ASSERT_GE(c, 0);
    ASSERT_GE(s, 0);
    EXPECT_TRUE(cloexec(l) && cloexec(c) && cloexec(s));
    EXPECT_EQ(fcntl(c, F_GETFL) & O_NONBLOCK, 0);
    char buf[16] = {};
    EXPECT_EQ(tovi_sock_send(c, "ping", 4, 1000), 4);
    EXPECT_EQ(tovi_sock_recv(s, buf, sizeof buf, 1000), 4);
    EXPECT_STREQ(buf, "ping");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tovi_sock_recv(s, buf, sizeof buf, 50), -ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    close(s);
    EXPECT_EQ(tovi_sock_recv(c, buf, sizeof buf, 1000), 0);
    close(c);
    close(l);
}

}  // namespace

TEST(SocketPlain, Streams)
{
    int l = tovi_sock_tcp_listen("127.0.0.1", 0, 4);
    const int port = tovi_sock_local_port(l);
    ASSERT_GT(port, 0);
    EXPECT_EQ(tovi_sock_accept(l, 20), -ETIMEDOUT);
    ASSERT_EQ(fcntl(l, F_SETFL, 0), 0);  // blocking, as one made elsewhere may be: the time-out still holds
    EXPECT_EQ(tovi_sock_accept(l, 20), -ETIMEDOUT);
    exchange(l, tovi_sock_tcp_connect("127.0.0.1", static_cast<uint16_t>(port), 1000));
    EXPECT_EQ(tovi_sock_tcp_connect("127.0.0.1", static_cast<uint16_t>(port), 1000), -ECONNREFUSED);

    l = tovi_sock_tcp_listen("::1", 0, 4);  // a peer that never reads: the send gives up in time
    const int c = tovi_sock_tcp_connect("::1", static_cast<uint16_t>(tovi_sock_local_port(l)), 1000);
    std::vector<char> big(64 << 20);
    EXPECT_EQ(tovi_sock_send(c, big.data(), big.size(), 100), -ETIMEDOUT);
    EXPECT_EQ(close(c) | close(l), 0);

    char dir[] = "/tmp/tovi_sock_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/ctl.sock", plain = std::string(dir) + "/file";
    for (int round = 0; round < 2; ++round) {  // the second listener replaces the first one's socket file
        l = tovi_sock_unix_listen(path.c_str(), 4);
        exchange(l, tovi_sock_unix_connect(path.c_str(), 1000));
    }
    l = tovi_sock_unix_listen(path.c_str(), 0);  // a full backlog is waited out, not a descriptor never connected
    const int first = tovi_sock_unix_connect(path.c_str(), 1000);
    EXPECT_EQ(tovi_sock_unix_connect(path.c_str(), 50), -ETIMEDOUT);
    EXPECT_EQ(close(first) | close(l), 0);
    ASSERT_TRUE(tovi::test::write_file(plain, "keep"));
    EXPECT_EQ(tovi_sock_unix_listen(plain.c_str(), 4), -EEXIST);
    EXPECT_EQ(tovi::test::read_file(plain), "keep");
    EXPECT_EQ(system((std::string("rm -rf ") + dir).c_str()), 0);
}

TEST(SocketPlain, UdpAndRefusals)
{
    const int a = tovi_sock_udp_open("127.0.0.1", 0), b = tovi_sock_udp_open(nullptr, 0);
    EXPECT_EQ(tovi_sock_sendto(b, "dgram", 5, "127.0.0.1", static_cast<uint16_t>(tovi_sock_local_port(a))), 5);
    char buf[8] = {};
    EXPECT_EQ(tovi_sock_recv(a, buf, sizeof buf, 1000), 5);
    EXPECT_STREQ(buf, "dgram");
    EXPECT_EQ(close(a) | close(b), 0);

    tovi::test::LogCapture log;  // the calls below run in order under it
    const std::string long_path(120, 'p');
    const struct { int rc; const char *message; } cases[] = {
        {tovi_sock_tcp_connect("ctl.example", 80, 10), "sock: 'ctl.example' is not a numeric address."},
        {tovi_sock_tcp_connect("127.0.0.1", 0, 10), "sock: bad TCP destination."},
        {tovi_sock_tcp_listen("256.1.1.1", 0, 1), "sock: '256.1.1.1' is not a numeric address."},
        {tovi_sock_unix_connect(long_path.c_str(), 10), "sock: bad Unix socket path."},
    };
    std::vector<std::string> want;
    for (const auto &c : cases) {
        EXPECT_EQ(c.rc, -EINVAL) << c.message;
        want.push_back(c.message);
    }
    EXPECT_EQ(log.texts(3), want);
    EXPECT_EQ(tovi_sock_unix_connect("/nonexistent/ctl.sock", 10), -ENOENT);
}

TEST(Bonding, FixtureReports)
{
    char root[] = "/tmp/tovi_bond_XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    const std::string r = root;
    ASSERT_EQ(system(("mkdir -p " + r + "/proc/net/bonding " + r + "/sys/class/net && cp " TOVI_TEST_DATA
                      "/bonding/bond0 " + r + "/proc/net/bonding/").c_str()), 0);
    ASSERT_TRUE(tovi::test::write_file(r + "/proc/net/bonding/bond1", "Bonding Mode: IEEE 802.3ad Dynamic link aggregation\n" +
                                                                      std::string(255, '#') + "Slave Interface: tail\n"
                                                                      "MII Status: down\n802.3ad info\n"));
    ASSERT_TRUE(tovi::test::write_file(r + "/sys/class/net/bonding_masters", "bond0 bond1 bond-with-a-far-too-long-name " +
                                                                        std::string(63, 'x') + "bond9\n"));
    ASSERT_TRUE(tovi::test::write_file(r + "/proc/net/bonding/bond2", "Ethernet Channel Bonding Driver: v6.1.0\n"));

    tovi_bond_info_s info;
    ASSERT_EQ(tovi::sock::bond_query_at(r, "bond0", &info), 0);
    std::string seen = std::string(tovi_bond_mode_name(info.mode)) + " " + info.active + " " + std::to_string(info.link_up);
    for (uint32_t i = 0; i < info.slave_count; ++i)
        seen += std::string(" ") + info.slaves[i].name + "/" + std::to_string(info.slaves[i].link_up) + "/" +
                std::to_string(info.slaves[i].link_failures);
    EXPECT_EQ(seen, "active-backup ens2f1 1 ens2f0/0/3 ens2f1/1/0");
    ASSERT_EQ(tovi::sock::bond_query_at(r, "bond1", &info), 0);
    EXPECT_EQ(info.mode, 4);
    EXPECT_STREQ(info.mode_text, "IEEE 802.3ad Dynamic link aggregation");
    EXPECT_EQ(info.link_up + info.slave_count + static_cast<unsigned>(info.active[0]), 0u);

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
    EXPECT_EQ(system(("rm -rf " + r).c_str()), 0);
}
