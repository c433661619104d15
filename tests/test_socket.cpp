// Addresses, routes, rules and VLANs: every command line against its
// template through the recording shell, the refusals that never reach a
// shell, the listings over a fake ip-ext in a private mount namespace, and
// the link commands against a real `ip` in a private network namespace.
#include <gtest/gtest.h>

#include <functional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_socket.h"

using tovi::test::LogCapture;
using tovi::test::report_from_child;
using tovi::test::read_file;
using tovi::test::write_file;
using tovi::test::ShellRecorder;
using Texts = std::vector<std::string>;

namespace {

tovi_ip_route_cfg_s route(uint32_t family, const char *dst, const char *via, const char *src, const char *dev = "eth0")
{
    tovi_ip_route_cfg_s r{};
    r.family = family, r.table = 100, r.prefix = family == 10 ? 64 : 24;
    strncpy(r.dst, dst, sizeof r.dst - 1), strncpy(r.via, via, sizeof r.via - 1);
    strncpy(r.src, src, sizeof r.src - 1), strncpy(r.dev, dev, sizeof r.dev - 1);
    return r;
}

tovi_ip_rule_cfg_s rule(uint32_t family, uint32_t type, uint32_t priority, const char *src)
{
    tovi_ip_rule_cfg_s r{};
    r.family = family, r.type = type, r.table = 200, r.priority = priority;
    strncpy(r.src, src, sizeof r.src - 1);
    return r;
}

std::string shell_out(const std::string &cmd)
{
    std::string out;
    FILE *f = popen(cmd.c_str(), "r");
    for (int c; f != nullptr && (c = fgetc(f)) != EOF;)
        out += static_cast<char>(c);
    if (f != nullptr)
        pclose(f);
    return out;
}

}  // namespace

// Each function's command line byte for byte, its result rule (exit status
// for routes and rules, raw status otherwise) and its refusals, which
// reach no shell.
TEST(Socket, CommandLinesResultsAndRefusals)
{
    const tovi_ip_route_cfg_s v6 = route(10, "fd00::", "", ""), v4 = route(2, "10.0.0.0", "10.0.0.1", "10.0.0.2"),
                              odd = route(7, "10.0.0.0", "", ""), evil = route(2, "1.1.1.1;reboot", "", "");
    tovi_ip_rule_cfg_s uni = rule(2, 1, 1, "10.0.0.0/24"), unreach = rule(10, 3, 32765, "fd00::/64"),
                       prio0 = rule(2, 2, 0, "1.2.3.4"), prio_max = rule(2, 4, 32766, "1.2.3.4"),
                       fam = rule(3, 1, 9, "1.2.3.4"), type6 = rule(2, 6, 9, "1.2.3.4"), empty = rule(2, 5, 9, ""),
                       full = rule(2, 1, 5, ""), evil_src = rule(2, 5, 9, "1.2.3.4`id`");
    memset(full.src, '1', sizeof full.src);
    uint32_t n = 1;
    tovi_ip_addr_s addrs[1];
    char out[8];
    struct Case {
        std::function<int32_t()> call;
        int32_t status, rc;  // raw wait status of the command, result
        std::string cmd;     // "" when nothing may run
        std::string message = "";  // else "Cmd <cmd>." at level 6
    };
#define CALL(e) [&] { return e; }
    const Case cases[] = {
        {CALL(tovi_ip_route_add_cfg(&v6)), 0x100, 1,
         "ip-ext route add_save -6 fd00::/64 table 100 via :: dev eth0 src :: &> /dev/null"},
        {CALL(tovi_ip_route_del_cfg(&v4)), 0, 0,
         "ip-ext route del_save -4 10.0.0.0/24 table 100 via 10.0.0.1 dev eth0 src 10.0.0.2 &> /dev/null"},
        {CALL(tovi_ip_route_add_cfg(&odd)), 0, 0,
         "ip-ext route add_save -0 10.0.0.0/24 table 100 via 0.0.0.0 dev eth0 src 0.0.0.0 &> /dev/null"},
        {CALL(tovi_ip_route_add_cfg(&evil)), 0, -22, "",
         "Param error: cmdtemp(1.1.1.1;reboot 0.0.0.0 eth0 0.0.0.0) is dangerous."},
        {CALL(tovi_ip_route_del_cfg(nullptr)), 0, -22, "", "Param error: null pointer."},
        {CALL(tovi_ip_route_flush(3)), 0x300, 3, "ip -4 route flush table 3 &>/dev/null"},
        {CALL(tovi_ip_route_flush_v6(4)), 0, 0, "ip -6 route flush table 4 &>/dev/null"},
        {CALL(tovi_ip_route_add_src(7, "10.0.0.0", 8, "10.0.0.1", "eth0", "10.0.0.2")), 0x200, 2,
         "ip -4 route add 10.0.0.0/8  via 10.0.0.1 dev eth0 src 10.0.0.2 table 7 &>/dev/null"},
        {CALL(tovi_ip_route_add_src_v6(7, "fd00::", 64, nullptr, "eth0", "")), 0, 0,
         "ip -6 route add fd00::/64  dev eth0 table 7 &>/dev/null"},
        {CALL(tovi_ip_route_add_src(7, nullptr, 8, nullptr, nullptr, nullptr)), 0, -22, "",
         "Param error: null pointer,dst_net((nil)), if_name((nil))."},
        {CALL(tovi_ip_route_add_src(7, "10.0.0.0", 8, "a|b", "eth0", nullptr)), 0, -22, "",
         "Param error: cmd(ip -4 route add 10.0.0.0/8  via a|b dev eth0) is dangerous."},
        {CALL(tovi_ip_rule_add_cfg(&uni)), 0x100, 1,
         "ip-ext rule add_save -4 from 10.0.0.0/24 type unicast table 200 priority 1 &> /dev/null"},
        {CALL(tovi_ip_rule_del_cfg(&unreach)), 0, 0,
         "ip-ext rule del_save -6 from fd00::/64 type unreachable priority 32765 &> /dev/null"},
        {CALL(tovi_ip_rule_add_cfg(&prio0)), 0, -22, "", "Param error: priority is 0."},
        {CALL(tovi_ip_rule_add_cfg(&prio_max)), 0, -22, "", "Param error: priority is 32766."},
        {CALL(tovi_ip_rule_add_cfg(&fam)), 0, -22, "", "Param error: family is 3."},
        {CALL(tovi_ip_rule_del_cfg(&type6)), 0, -22, "", "Param error: type is 6."},
        {CALL(tovi_ip_rule_add_cfg(&empty)), 0, -22, "", "Param error: src_addr is invalid."},
        {CALL(tovi_ip_rule_add_cfg(&full)), 0, -22, "", "Param error: src_addr is invalid."},
        {CALL(tovi_ip_rule_add_cfg(&evil_src)), 0, -22, "", "Param error: src_addr(1.2.3.4`id`) is dangerous."},
        {CALL(tovi_ip_addr_add_cfg("eth0", "1.2.3.4", 24)), 0x200, 0x200,
         "ip-ext addr add_save -4 ip 1.2.3.4/24 dev eth0 &>/dev/null"},
        {CALL(tovi_ip_addr_add_cfg(nullptr, nullptr, 24)), 0, -22, "",
         "Param error: null pointer, if_name((nil)), ip_addr((nil))."},
        {CALL(tovi_ip_addr_add_cfg("eth0", "1.2.3.4>x", 24)), 0, -22, "",
         "Param error: file_v6(1.2.3.4>x) or if_name(eth0) is dangerous."},
        {CALL(tovi_ip_addr_del_cfg("eth0", "1.2.3.4", 24)), 0, 0, "ip-ext addr del_save -4 ip 1.2.3.4/24 dev eth0 &>/dev/null"},
        {CALL(tovi_ip_addr_del_cfg(nullptr, "1.2.3.4", 24)), 0, -22, "", "Param error: null pointer."},
        {CALL(tovi_ip_addr_del_cfg("eth0", "1.2.3.4$x", 24)), 0, -22, "",
         "Param error: pFile(eth0) or ip_addr(1.2.3.4$x) is dangerous."},
        {CALL(tovi_ip_addr_add_cfg_v6("eth0", "fd00::1", 64)), 0, 0, "ip-ext addr add_save -6 ip fd00::1/64 dev eth0 &>/dev/null"},
        {CALL(tovi_ip_addr_del_cfg_v6("eth0", "fd00::1", 64)), 0, 0, "ip-ext addr del_save -6 ip fd00::1/64 dev eth0 &>/dev/null"},
        {CALL(tovi_ip_addr_add_v6("eth0", "fd00::1", 64)), 0, 0, "ip -6 addr add fd00::1/64 dev eth0 &>/dev/null"},
        {CALL(tovi_ip_addr_del_v6("eth0", "fd00::1", 64)), 0x100, 0x100, "ip -6 addr del fd00::1/64 dev eth0 &>/dev/null"},
        {CALL(tovi_ip_addr_del_v6("eth0", "fd00::1;x", 64)), 0, -22, "",
         "Param error: ip_addr(fd00::1;x) or if_name(eth0) is dangerous."},
        {CALL(tovi_ip_restore_cfg("eth0")), 0, 0, "ip-ext net restore eth0 &>/dev/null"},
        {CALL(tovi_ip_restore_cfg(nullptr)), 0, -22, "", "Param error: null pointer, if_name((nil))."},
        {CALL(tovi_set_mtu("eth0", 9000)), 0x100, 0x100, "ip link set eth0 mtu 9000 &>/dev/null"},
        {CALL(tovi_set_mtu("eth0&", 9000)), 0, -22, "", "Param error: if_name(eth0&) is dangerous."},
        {CALL(tovi_ip_link_up("eth0")), 0, 0, "ip link set eth0 up &>/dev/null"},
        {CALL(tovi_add_vlan("eth0.1", "eth0", 1)), 0x100, 0x100, "ip link add dev eth0.1 link eth0 type vlan id 1 &>/dev/null",
         "ip link add dev eth0.1 link eth0 type vlan id 1 &>/dev/null fail, ret: 256"},
        {CALL(tovi_add_vlan("eth0.4094", "eth0", 4094)), 0, 0,
         "ip link add dev eth0.4094 link eth0 type vlan id 4094 &>/dev/null"},
        {CALL(tovi_add_vlan("eth0.0", "eth0", 0)), 0, -22, "", "Param error: vlan 0 is not in (0,4095)."},
        {CALL(tovi_add_vlan("eth0.x", "eth0", 4095)), 0, -22, "", "Param error: vlan 4095 is not in (0,4095)."},
        {CALL(tovi_add_vlan("v|x", "eth0", 5)), 0, -22, "", "Param error: vlan_if_name(v|x) or if_name(eth0) is dangerous."},
        {CALL(tovi_del_vlan("eth0.5")), 0, 0, "ip link del dev eth0.5 &>/dev/null"},
        {CALL(tovi_del_vlan(nullptr)), 0, -22, "", "Param error: null pointer, vlan_if_name((nil)) ."},
        {CALL(tovi_set_vlan_ingress_qos_map("eth0.5", 3, 5)), 0, 0,
         "ip link set dev eth0.5 type vlan ingress-qos-map 5:3 &>/dev/null"},
        {CALL(tovi_set_vlan_egress_qos_map("eth0.5", 3, 7)), 0, 0, "ip link set dev eth0.5 type vlan egress-qos-map 3:7 &>/dev/null",
         "Cmd ip link set dev eth0.5 type vlan egress-qos-map 3:7 &>/dev/null"},
        {CALL(tovi_set_vlan_egress_qos_map("eth0.5", 3, 8)), 0, -22, "", "Param error: valn_qos 8 is not in [0,7]."},
        {CALL(tovi_set_vlan_ingress_qos_map("", 3, 1)), 0, -22, "", "Param error: empty vlan_if_name."},
        {CALL(tovi_set_vlan_ingress_qos_map("a;b", 3, 1)), 0, -22, "", "Param error: vlan_if_name(a;b) is dangerous."},
        {CALL(tovi_ip_addr_count_cfg_v6("eth0|x", &n)), 0, -22, "", "Param error: if_name(eth0|x) or file_v6 is dangerous."},
        {CALL(tovi_ip_addr_count_v6("a`b", &n)), 0, -22, "", "Param error: if_name(a`b) is dangerous."},
        {CALL(tovi_ip_addr_show_cfg("a&b", addrs, &n)), 0, -22, "", "Param error: if_name(a&b) is dangerous."},
        {CALL(tovi_ip_addr_show_v6("a>b", addrs, &n)), 0, -22, "", "or if_name(a>b) is dangerous."},
        {CALL(tovi_execute_result("echo a; reboot", out, sizeof out)), 0, -29, "", "Cmd echo a; reboot >/tmp/"},
    };
#undef CALL
    for (const Case &c : cases) {
        ShellRecorder shell;
        LogCapture cap;
        shell.status[c.cmd] = c.status;
        EXPECT_EQ(c.call(), c.rc) << c.cmd << c.message;
        EXPECT_EQ(shell.commands, c.cmd.empty() ? Texts{} : Texts{c.cmd}) << c.message;
        const std::string expect = !c.message.empty() ? c.message : "Cmd " + c.cmd + ".";
        const unsigned level = c.message.empty() || c.message.starts_with("Cmd ") ? 6 : 3;
        bool found = false;
        for (const auto &r : cap.records())
            found |= r.text.find(expect) != std::string::npos && r.module == 381 && r.level == level;
        EXPECT_TRUE(found) << expect << "\n got: " << testing::PrintToString(cap.texts());
    }
}

TEST(Socket, NetmaskAndStrtoul)
{
    const std::pair<const char *, int32_t> masks[] = {
        {"255.255.255.0", 24}, {"255.255.255.255", 32}, {"0.0.0.0", 0}, {"255.0.255.0", -22},
        {"128.0.0.0", 1},      {"255.255.254.0", 23},   {"0.0.0.1", -22}, {"255.255.255", -22},
        {"256.0.0.0", -22},    {"", -22},
    };
    for (const auto &[mask, prefix] : masks)
        EXPECT_EQ(tovi_netmask_to_prefix(mask), prefix) << mask;
    LogCapture cap;
    EXPECT_EQ(tovi_netmask_to_prefix(nullptr), -22);
    EXPECT_EQ(cap.texts(3), Texts{"Param error: null pointer, netmask((nil)) ."});

    struct Conv {
        const char *s;
        uint32_t base, value;
        size_t used;
    };
    const Conv convs[] = {{"42 x", 0, 42, 2}, {"0x1fz", 0, 31, 4}, {"017", 0, 15, 3}, {"ff", 16, 255, 2},
                          {"0xFF", 16, 255, 4}, {"0x", 0, 0, 1},    {"19", 8, 1, 1},   {"", 10, 0, 0}};
    for (const Conv &c : convs) {
        char *end = nullptr;
        EXPECT_EQ(tovi_simple_strtoul(c.s, &end, c.base), c.value) << c.s;
        EXPECT_EQ(static_cast<size_t>(end - c.s), c.used) << c.s;
    }
}

namespace {

// A private /tmp and /var/lib (where the recorded rules and routes live),
// and a fake ip-ext first on PATH: it logs its arguments to /tmp/ip-ext.log,
// answers "addr query -4|-6 file F dev D" by copying /tmp/query-4 or
// /tmp/query-6 to F, and exits with the number in /tmp/status (else 0).
bool fake_ip_ext()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0 || mount("tmpfs", "/var/lib", "tmpfs", 0, nullptr) != 0)
        return false;
    const char *script = "#!/bin/sh\necho \"$*\" >>/tmp/ip-ext.log\n"
                         "if [ \"$1 $2\" = \"addr query\" ]; then cat /tmp/query$3 >\"$5\"; fi\n"
                         "exit $(cat /tmp/status 2>/dev/null || echo 0)\n";
    std::string path = std::string("/tmp/bin:") + (getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin");
    return mkdir("/tmp/bin", 0755) == 0 && write_file("/tmp/bin/ip-ext", script, 0755) &&
           mkdir("/var/lib/ip-ext", 0755) == 0 && setenv("PATH", path.c_str(), 1) == 0;
}

std::string ptr(const void *p)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

}  // namespace

// The address queries, the temporary files they leave behind (none), the
// recorded rule and route files, and a failing query.
TEST(Socket, ListingsOverAFakeIpExt)
{
    std::string failure = report_from_child([]() -> std::string {
        if (!fake_ip_ext())
            return "SKIP";
        CHILD_CHECK(write_file("/tmp/query-4", "IPADDR=10.0.0.5 PREFIX=24\nGATEWAY=1.1.1.1\nIPADDR=10.0.0.6 PREFIX=16\n") &&
                    write_file("/tmp/query-6", "# recorded\nIPV6ADDR=fd00::5 PREFIX=64\n"));
        CHILD_CHECK(write_file("/var/lib/ip-ext/rule-eth0", "# family table from type priority\n2 100 10.0.0.0/24 "
                                                            "unicast 10\n\nbroken\n10 0 fd00::/64 unreachable 20\n") &&
                    write_file("/var/lib/ip-ext/route-eth0", "100 10.1.0.0 16 10.0.0.1 eth0 10.0.0.5\n"));
        LogCapture cap;
        uint32_t n = 0;
        CHILD_CHECK(tovi_ip_addr_count_cfg("eth0", &n) == 0 && n == 2);
        const std::string file = "/tmp/ifcfg-" + ptr(&n);
        CHILD_CHECK(cap.texts(6).front() == "Cmd ip-ext addr query -4 file " + file + " dev eth0 &>/dev/null." &&
                    cap.texts(6).back() == "Cmd rm -f " + file + " &>/dev/null.");
        CHILD_CHECK(tovi_ip_addr_count_cfg_v6("eth0", &n) == 0 && n == 1);
        std::vector<tovi_ip_addr_s> got(3);
        n = 3;
        CHILD_CHECK(tovi_ip_addr_show_cfg("eth0", got.data(), &n) == 0 && n == 2 && got[1].prefix == 16 &&
                    std::string(got[0].addr) + "/" + std::to_string(got[0].prefix) == "10.0.0.5/24");
        n = 1;
        CHILD_CHECK(tovi_ip_addr_show_cfg_v6("eth0", got.data(), &n) == 0 && n == 1 &&
                    std::string(got[0].addr) == "fd00::5" && got[0].prefix == 64);
        CHILD_CHECK(read_file("/tmp/ip-ext.log") == "addr query -4 file " + file + " dev eth0\naddr query -6 file " +
                                                        file + " dev eth0\naddr query -4 file /tmp/ifcfg-" +
                                                        ptr(got.data()) + " dev eth0\naddr query -6 file /tmp/ifcfg-" +
                                                        ptr(got.data()) + " dev eth0\n");
        // A failing query gives its raw status and removes its file too.
        CHILD_CHECK(write_file("/tmp/status", "3\n"));
        CHILD_CHECK(tovi_ip_addr_count_cfg("eth0", &n) == 0x300 && tovi_ip_addr_show_cfg("eth0", got.data(), &n) == 0x300);
        CHILD_CHECK(unlink("/tmp/status") == 0);
        char out[4];
        CHILD_CHECK(tovi_execute_result("echo hello", out, sizeof out) == 0 && std::string(out) == "hel");
        CHILD_CHECK(tovi_execute_result("exit 3", out, sizeof out) == 0x300 && tovi_execute_result("true", out, 4) == -1);
        CHILD_CHECK(cap.contains("Tovi readline /tmp/" + ptr(out) + "_mtu fail."));
        CHILD_CHECK(shell_out("ls /tmp") == "bin\nip-ext.log\nquery-4\nquery-6\n");

        tovi_ip_rule_entry_s rules[4];
        tovi_ip_route_entry_s routes[2];
        CHILD_CHECK(tovi_ip_rule_count_cfg("eth0", &n) == 0 && n == 2);
        n = 4;
        CHILD_CHECK(tovi_ip_rule_show_cfg("eth0", rules, &n) == 0 && n == 2 && rules[1].family == 10 &&
                    rules[1].table == 0 && std::string(rules[1].from) == "fd00::/64" &&
                    std::string(rules[1].type) == "unreachable" && rules[1].priority == 20);
        CHILD_CHECK(tovi_ip_route_count_cfg("eth0", &n) == 0 && n == 1);
        n = 2;
        CHILD_CHECK(tovi_ip_route_show_cfg("eth0", routes, &n) == 0 && n == 1 && routes[0].table == 100 &&
                    routes[0].prefix == 16 && std::string(routes[0].dst) + routes[0].via + routes[0].dev +
                                                      routes[0].src == "10.1.0.010.0.0.1eth010.0.0.5");
        cap.clear();
        CHILD_CHECK(tovi_ip_rule_count_cfg("eth9", &n) == -2 && tovi_ip_route_show_cfg("eth9", routes, &n) == -2 &&
                    tovi_ip_rule_show_cfg("../x", rules, &n) == -22 && tovi_ip_rule_count_cfg("eth0", nullptr) == -22);
        CHILD_CHECK(cap.texts(3) == (Texts{"File not exists: /var/lib/ip-ext/rule-eth9.",
                                           "File not exists: /var/lib/ip-ext/route-eth9.", "Param error: null dev_name.",
                                           "Param error: null pointer, count((nil))."}));
        return "";
    });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(failure, "");
}

// The link commands against the kernel, in a network namespace of the
// test's own with a veth pair (dummy links where the kernel has them).
TEST(Socket, LinksAndLiveAddressesInAPrivateNetworkNamespace)
{
    std::string failure = report_from_child([]() -> std::string {
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0)
            return "SKIP";
        if (system("ip link add t0 type dummy 2>/dev/null || ip link add t0 type veth peer name t1") != 0)
            return "SKIP";
        LogCapture cap;
        CHILD_CHECK(tovi_set_mtu("t0", 1400) == 0 && tovi_ip_link_up("t0") == 0);
        std::string link = shell_out("ip -o link show t0");
        CHILD_CHECK(link.find("mtu 1400") != std::string::npos && link.find(",UP") != std::string::npos);
        CHILD_CHECK(tovi_set_mtu("nosuch0", 1400) == 0x100);

        int32_t ret = tovi_add_vlan("t0.10", "t0", 10);
        if (ret == 0) {
            CHILD_CHECK(tovi_set_vlan_ingress_qos_map("t0.10", 3, 5) == 0 && tovi_set_vlan_egress_qos_map("t0.10", 3, 7) == 0);
            link = shell_out("ip -d -o link show t0.10");
            CHILD_CHECK(link.find("vlan protocol 802.1Q id 10") != std::string::npos);
            CHILD_CHECK(link.find("ingress-qos-map { 5:3 }") != std::string::npos);
            CHILD_CHECK(link.find("egress-qos-map { 3:7 }") != std::string::npos);
            CHILD_CHECK(tovi_del_vlan("t0.10") == 0 && shell_out("ip -o link show t0.10 2>/dev/null").empty());
        } else {  // a kernel without VLANs: the failure is reported with its raw status
            CHILD_CHECK(cap.contains("ip link add dev t0.10 link t0 type vlan id 10 &>/dev/null fail, ret: " +
                               std::to_string(ret)));
        }
        CHILD_CHECK(tovi_ip_addr_add_v6("t0", "fd00::5", 64) == 0);
        uint32_t n = 0;
        CHILD_CHECK(tovi_ip_addr_count_v6("t0", &n) == 0 && n >= 1);
        tovi_ip_addr_s addrs[8] = {};
        uint32_t cap_n = 8;
        CHILD_CHECK(tovi_ip_addr_show_v6("t0", addrs, &cap_n) == 0 && cap_n == n);
        bool seen = false;
        for (uint32_t i = 0; i < cap_n; ++i)
            seen |= std::string(addrs[i].addr) == "fd00::5" && addrs[i].prefix == 64;
        CHILD_CHECK(seen);
        CHILD_CHECK(tovi_ip_addr_add_v6("t0", "fd00::5", 64) == 0x200);  // exists: ip exits 2
        CHILD_CHECK(tovi_ip_addr_del_v6("t0", "fd00::5", 64) == 0);
        CHILD_CHECK(tovi_ip_addr_count_v6("t0", &n) == 0 && shell_out("ip -6 -o addr show dev t0").find("fd00::5") ==
                                                          std::string::npos);
        CHILD_CHECK(shell_out("ls /tmp").empty());
        return "";
    });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private network namespace here";
    EXPECT_EQ(failure, "");
}
