// tovictl net IFNAME: the read-only network queries for one interface (live
// and recorded addresses, recorded rules and routes) and the sshd port.
#include <cinttypes>
#include <cstdio>
#include <vector>

#include "tovi_socket.h"
#include "tovi_sshd.h"

namespace {

constexpr uint32_t kMaxEntries = 64;

void print_addrs(const char *what, const char *ifname, int32_t ret, const tovi_ip_addr_s *addrs, uint32_t n)
{
    if (ret != 0) {
        std::printf("%s on %s: unavailable (%d)\n", what, ifname, ret);
        return;
    }
    std::printf("%s on %s: %u\n", what, ifname, n);
    for (uint32_t i = 0; i < n; ++i)
        std::printf("  %s/%u\n", addrs[i].addr, addrs[i].prefix);
}

}  // namespace

int tovictl_net(int argc, char **argv)
{
    if (argc != 1) {
        std::fprintf(stderr, "usage: tovictl net IFNAME\n");
        return 2;
    }
    const char *ifname = argv[0];
    std::vector<tovi_ip_addr_s> addrs(kMaxEntries);
    uint32_t n = kMaxEntries;
    int32_t ret = tovi_ip_addr_show_v6(ifname, addrs.data(), &n);
    if (ret == -22)
        return std::fprintf(stderr, "tovictl: net: bad interface name '%s'\n", ifname), 2;
    print_addrs("live IPv6 addresses", ifname, ret, addrs.data(), n);
    n = kMaxEntries;
    ret = tovi_ip_addr_show_cfg(ifname, addrs.data(), &n);
    print_addrs("recorded IPv4 addresses", ifname, ret, addrs.data(), n);
    n = kMaxEntries;
    ret = tovi_ip_addr_show_cfg_v6(ifname, addrs.data(), &n);
    print_addrs("recorded IPv6 addresses", ifname, ret, addrs.data(), n);

    std::vector<tovi_ip_rule_entry_s> rules(kMaxEntries);
    n = kMaxEntries;
    if ((ret = tovi_ip_rule_show_cfg(ifname, rules.data(), &n)) == 0) {
        std::printf("recorded rules: %u\n", n);
        for (uint32_t i = 0; i < n; ++i)
            std::printf("  %u %u %s %s %u\n", rules[i].family, rules[i].table, rules[i].from, rules[i].type,
                        rules[i].priority);
    } else {
        std::printf("recorded rules: none (%d)\n", ret);
    }
    std::vector<tovi_ip_route_entry_s> routes(kMaxEntries);
    n = kMaxEntries;
    if ((ret = tovi_ip_route_show_cfg(ifname, routes.data(), &n)) == 0) {
        std::printf("recorded routes: %u\n", n);
        for (uint32_t i = 0; i < n; ++i)
            std::printf("  %u %s %u %s %s %s\n", routes[i].table, routes[i].dst, routes[i].prefix, routes[i].via,
                        routes[i].dev, routes[i].src);
    } else {
        std::printf("recorded routes: none (%d)\n", ret);
    }
    uint16_t port = 0;
    if ((ret = tovi_get_sshd_port(&port)) == 0)
        std::printf("sshd port: %u\n", static_cast<unsigned>(port));
    else
        std::printf("sshd port: unavailable (%d)\n", ret);
    return 0;
}
