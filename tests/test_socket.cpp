// Addresses, routes, rules, VLANs: through the recording shell, over a fake ip-ext, and a real `ip` in a private namespace.
#include <gtest/gtest.h>

#include <algorithm>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child.hpp"
#include "log_capture.hpp"
#include "shell_recorder.hpp"
#include "tovi_socket.h"

using namespace tovi::test;
using Texts = std::vector<std::string>;

TEST(Socket, CommandLinesResultsRefusalsAndParsers)
{
    const tovi_ip_route_cfg_s v6{10, 100, "fd00::", 64, "eth0", "", ""}, v4{2, 100, "10.0.0.0", 24, "eth0", "10.0.0.1", "10.0.0.2"},
        odd{7, 100, "10.0.0.0", 24, "eth0", "", ""}, evil{2, 100, "1.1.1.1;reboot", 24, "eth0", "", ""};
    tovi_ip_rule_cfg_s uni{2, 1, 200, 1, "10.0.0.0/24"}, unreach{10, 3, 200, 32765, "fd00::/64"}, full{2, 1, 200, 5, ""}, empty{2, 5, 200, 9, ""},
        prio0{2, 2, 200, 0, "1.2.3.4"}, prio_max{2, 4, 200, 32766, "1.2.3.4"}, fam{3, 1, 200, 9, "1.2.3.4"}, type6{2, 6, 200, 9, "1.2.3.4"},
        evil_src{2, 5, 200, 9, "1.2.3.4`id`"};
    memset(full.src, '1', sizeof full.src);
    uint32_t n = 1;
    tovi_ip_addr_s addrs[1];
    const std::string q = " &>/dev/null", rq = " &> /dev/null";  // the routes' and rules' recorded forms
    // rc: the exit status for routes and rules, else the raw wait status; cmd "": nothing may run; message "": "Cmd <cmd>." at 6
    struct Case { std::function<int32_t()> call; int32_t status, rc; std::string cmd, message = ""; };
#define CALL(e) [&] { return e; }
#define OK(e, cmd) {CALL(e), 0, 0, cmd}
#define REFUSE(e, text) {CALL(e), 0, -22, "", "Param error: " text}
    const Case cases[] = {
        {CALL(tovi_ip_route_add_cfg(&v6)), 0x100, 1, "ip-ext route add_save -6 fd00::/64 table 100 via :: dev eth0 src ::" + rq},
        OK(tovi_ip_route_del_cfg(&v4), "ip-ext route del_save -4 10.0.0.0/24 table 100 via 10.0.0.1 dev eth0 src 10.0.0.2" + rq),
        OK(tovi_ip_route_add_cfg(&odd), "ip-ext route add_save -0 10.0.0.0/24 table 100 via 0.0.0.0 dev eth0 src 0.0.0.0" + rq),
        {CALL(tovi_ip_route_flush(3)), 0x300, 3, "ip -4 route flush table 3" + q}, OK(tovi_ip_route_flush_v6(4), "ip -6 route flush table 4" + q),
        {CALL(tovi_ip_route_add_src(7, "10.0.0.0", 8, "10.0.0.1", "eth0", "10.0.0.2")), 0x200, 2,
         "ip -4 route add 10.0.0.0/8  via 10.0.0.1 dev eth0 src 10.0.0.2 table 7" + q},
        OK(tovi_ip_route_add_src_v6(7, "fd00::", 64, nullptr, "eth0", ""), "ip -6 route add fd00::/64  dev eth0 table 7" + q),
        {CALL(tovi_ip_rule_add_cfg(&uni)), 0x100, 1, "ip-ext rule add_save -4 from 10.0.0.0/24 type unicast table 200 priority 1" + rq},
        OK(tovi_ip_rule_del_cfg(&unreach), "ip-ext rule del_save -6 from fd00::/64 type unreachable priority 32765" + rq),
        {CALL(tovi_ip_addr_add_cfg("eth0", "1.2.3.4", 24)), 0x200, 0x200, "ip-ext addr add_save -4 ip 1.2.3.4/24 dev eth0" + q},
        OK(tovi_ip_addr_del_cfg("eth0", "1.2.3.4", 24), "ip-ext addr del_save -4 ip 1.2.3.4/24 dev eth0" + q),
        OK(tovi_ip_addr_add_cfg_v6("eth0", "fd00::1", 64), "ip-ext addr add_save -6 ip fd00::1/64 dev eth0" + q),
        OK(tovi_ip_addr_del_cfg_v6("eth0", "fd00::1", 64), "ip-ext addr del_save -6 ip fd00::1/64 dev eth0" + q),
        OK(tovi_ip_addr_add_v6("eth0", "fd00::1", 64), "ip -6 addr add fd00::1/64 dev eth0" + q),
        {CALL(tovi_ip_addr_del_v6("eth0", "fd00::1", 64)), 0x100, 0x100, "ip -6 addr del fd00::1/64 dev eth0" + q},
        OK(tovi_ip_restore_cfg("eth0"), "ip-ext net restore eth0" + q), OK(tovi_ip_link_up("eth0"), "ip link set eth0 up" + q),
        {CALL(tovi_set_mtu("eth0", 9000)), 0x100, 0x100, "ip link set eth0 mtu 9000" + q}, OK(tovi_del_vlan("eth0.5"), "ip link del dev eth0.5" + q),
        {CALL(tovi_add_vlan("eth0.1", "eth0", 1)), 0x100, 0x100, "ip link add dev eth0.1 link eth0 type vlan id 1" + q,
         "ip link add dev eth0.1 link eth0 type vlan id 1" + q + " fail, ret: 256"},
        OK(tovi_add_vlan("eth0.4094", "eth0", 4094), "ip link add dev eth0.4094 link eth0 type vlan id 4094" + q),
        OK(tovi_set_vlan_ingress_qos_map("eth0.5", 3, 5), "ip link set dev eth0.5 type vlan ingress-qos-map 5:3" + q),
        {CALL(tovi_set_vlan_egress_qos_map("eth0.5", 3, 7)), 0, 0, "ip link set dev eth0.5 type vlan egress-qos-map 3:7" + q,
         "Cmd ip link set dev eth0.5 type vlan egress-qos-map 3:7" + q},  // no full stop in this one
        {CALL(tovi_ip_addr_show_v6("a>b", addrs, &n)), 0, -22, "", "or if_name(a>b) is dangerous."},
        {CALL(tovi_execute_result("echo a; reboot", addrs[0].addr, 8)), 0, -29, "", "Cmd echo a; reboot >/tmp/"},
        REFUSE(tovi_ip_route_add_cfg(&evil), "cmdtemp(1.1.1.1;reboot 0.0.0.0 eth0 0.0.0.0) is dangerous."),
        REFUSE(tovi_ip_route_del_cfg(nullptr), "null pointer."), REFUSE(tovi_ip_rule_add_cfg(&prio0), "priority is 0."),
        REFUSE(tovi_ip_route_add_src(7, nullptr, 8, nullptr, nullptr, nullptr), "null pointer,dst_net((nil)), if_name((nil))."),
        REFUSE(tovi_ip_route_add_src(7, "10.0.0.0", 8, "a|b", "eth0", nullptr), "cmd(ip -4 route add 10.0.0.0/8  via a|b dev eth0) is dangerous."),
        REFUSE(tovi_ip_rule_add_cfg(&prio_max), "priority is 32766."), REFUSE(tovi_ip_rule_add_cfg(&fam), "family is 3."),
        REFUSE(tovi_ip_rule_del_cfg(&type6), "type is 6."), REFUSE(tovi_ip_rule_add_cfg(&empty), "src_addr is invalid."),
        REFUSE(tovi_ip_rule_add_cfg(&full), "src_addr is invalid."), REFUSE(tovi_ip_rule_add_cfg(&evil_src), "src_addr(1.2.3.4`id`) is dangerous."),
        REFUSE(tovi_ip_addr_add_cfg(nullptr, nullptr, 24), "null pointer, if_name((nil)), ip_addr((nil))."),
        REFUSE(tovi_ip_addr_add_cfg("eth0", "1.2.3.4>x", 24), "file_v6(1.2.3.4>x) or if_name(eth0) is dangerous."),
        REFUSE(tovi_ip_addr_del_cfg(nullptr, "1.2.3.4", 24), "null pointer."), REFUSE(tovi_ip_restore_cfg(nullptr), "null pointer, if_name((nil))."),
        REFUSE(tovi_ip_addr_del_cfg("eth0", "1.2.3.4$x", 24), "pFile(eth0) or ip_addr(1.2.3.4$x) is dangerous."),
        REFUSE(tovi_ip_addr_del_v6("eth0", "fd00::1;x", 64), "ip_addr(fd00::1;x) or if_name(eth0) is dangerous."),
        REFUSE(tovi_set_mtu("eth0&", 9000), "if_name(eth0&) is dangerous."), REFUSE(tovi_add_vlan("eth0.0", "eth0", 0), "vlan 0 is not in (0,4095)."),
        REFUSE(tovi_add_vlan("eth0.x", "eth0", 4095), "vlan 4095 is not in (0,4095)."),
        REFUSE(tovi_add_vlan("v|x", "eth0", 5), "vlan_if_name(v|x) or if_name(eth0) is dangerous."),
        REFUSE(tovi_del_vlan(nullptr), "null pointer, vlan_if_name((nil)) ."), REFUSE(tovi_set_vlan_ingress_qos_map("", 3, 1), "empty vlan_if_name."),
        REFUSE(tovi_set_vlan_egress_qos_map("eth0.5", 3, 8), "valn_qos 8 is not in [0,7]."),
        REFUSE(tovi_set_vlan_ingress_qos_map("a;b", 3, 1), "vlan_if_name(a;b) is dangerous."),
        REFUSE(tovi_ip_addr_count_cfg_v6("eth0|x", &n), "if_name(eth0|x) or file_v6 is dangerous."),
        REFUSE(tovi_ip_addr_count_v6("a`b", &n), "if_name(a`b) is dangerous."),
        REFUSE(tovi_ip_addr_show_cfg("a&b", addrs, &n), "if_name(a&b) is dangerous."),
    };
    for (const Case &c : cases) {
        ShellRecorder shell;
        LogCapture cap;
        shell.status[c.cmd] = c.status;
        EXPECT_TRUE(c.call() == c.rc && shell.commands == (c.cmd.empty() ? Texts{} : Texts{c.cmd})) << c.cmd << c.message;
        const std::string expect = !c.message.empty() ? c.message : "Cmd " + c.cmd + ".";
        const unsigned level = c.message.empty() || c.message.starts_with("Cmd ") ? 6 : 3;
        EXPECT_TRUE(std::ranges::any_of(cap.records(), [&](const auto &r) {
            return r.text.find(expect) != std::string::npos && r.module == 381 && r.level == level;
        })) << expect << "\n got: " << testing::PrintToString(cap.texts());
    }
    const std::pair<const char *, int32_t> masks[] = {{"255.255.255.0", 24}, {"255.255.255.255", 32}, {"0.0.0.0", 0}, {"255.0.255.0", -22},
        {"128.0.0.0", 1}, {"255.255.254.0", 23}, {"0.0.0.1", -22}, {"255.255.255", -22}, {"256.0.0.0", -22}, {"", -22}, {nullptr, -22}};
    LogCapture cap;
    for (const auto &[mask, prefix] : masks)
        EXPECT_EQ(tovi_netmask_to_prefix(mask), prefix) << (mask ? mask : "NULL");
    EXPECT_EQ(cap.texts(3), Texts{"Param error: null pointer, netmask((nil)) ."});
    const struct { const char *s; uint32_t base, value; int64_t used; } convs[] = {{"42 x", 0, 42, 2}, {"0x1fz", 0, 31, 4},
        {"017", 0, 15, 3}, {"ff", 16, 255, 2}, {"0xFF", 16, 255, 4}, {"0x", 0, 0, 1}, {"19", 8, 1, 1}, {"", 10, 0, 0}};
    char *end = nullptr;
    for (const auto &c : convs)  // a braced list is evaluated in order: the value first, then where it ended
        EXPECT_EQ((std::vector<int64_t>{tovi_simple_strtoul(c.s, &end, c.base), end - c.s}), (std::vector<int64_t>{c.value, c.used})) << c.s;
}

namespace {

std::string shell_out(const std::string &cmd)
{
    std::string out;
    FILE *f = popen(cmd.c_str(), "r");
    for (int c; f != nullptr && (c = fgetc(f)) != EOF;)
        out += static_cast<char>(c);
    return f != nullptr && pclose(f) != -1 ? out : "<popen failed>";
}

void in_child(int flags, const std::function<std::string()> &body)
{
    std::string failure = report_from_child([&] {
        return unshare(CLONE_NEWNS | flags) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                       mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0 ? body() : "SKIP";
    });
    if (failure == "SKIP")
        GTEST_SKIP() << "no private namespace here";
    EXPECT_EQ(failure, "");
}

}  // namespace

// A fake ip-ext first on PATH logs its arguments to /tmp/ip-ext.log, answers "addr query -4|-6 file F dev D" with
// /tmp/query-4|-6, exits with /tmp/status (else 0); the rules and routes are in a private /var/lib. No file is left.
TEST(Socket, ListingsOverAFakeIpExt)
{
    in_child(0, []() -> std::string {
        const char *script = "#!/bin/sh\necho \"$*\" >>/tmp/ip-ext.log\nif [ \"$1 $2\" = \"addr query\" ]; then cat /tmp/query$3 >\"$5\"; fi\n"
                             "exit $(cat /tmp/status 2>/dev/null || echo 0)\n";
        const std::string path = "/tmp/bin:" + std::string(getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin");
        CHILD_CHECK(mount("tmpfs", "/var/lib", "tmpfs", 0, nullptr) == 0 && mkdir("/tmp/bin", 0755) == 0 && mkdir("/var/lib/ip-ext", 0755) == 0 &&
                    write_file("/tmp/bin/ip-ext", script, 0755) && setenv("PATH", path.c_str(), 1) == 0 &&
                    write_file("/tmp/query-4", "IPADDR=10.0.0.5 PREFIX=24\nGATEWAY=1.1.1.1\nIPADDR=10.0.0.6 PREFIX=16\n") &&
                    write_file("/tmp/query-6", "# recorded\nIPV6ADDR=fd00::5 PREFIX=64\n") &&
                    write_file("/var/lib/ip-ext/rule-eth0", "# family table from type priority\n2 100 10.0.0.0/24 unicast 10\n\nbroken\n"
                                                            "10 0 fd00::/64 unreachable 20\n") &&
                    write_file("/var/lib/ip-ext/route-eth0", "100 10.1.0.0 16 10.0.0.1 eth0 10.0.0.5\n"));
        auto ptr = [](const void *p) { char b[32]; return std::string(b, static_cast<size_t>(snprintf(b, sizeof b, "%p", p))); };
        LogCapture cap;
        uint32_t n = 0;
        std::vector<tovi_ip_addr_s> got(3);
        const std::string file = "/tmp/ifcfg-" + ptr(&n), shown = "/tmp/ifcfg-" + ptr(got.data());
        CHILD_CHECK(tovi_ip_addr_count_cfg("eth0", &n) == 0 && n == 2 && cap.texts(6).front() == "Cmd ip-ext addr query -4 file " + file +
                    " dev eth0 &>/dev/null." && cap.texts(6).back() == "Cmd rm -f " + file + " &>/dev/null.");
        CHILD_CHECK(tovi_ip_addr_show_cfg("eth0", got.data(), &(n = 3)) == 0 && n == 2 && got[1].prefix == 16 &&
                    std::string(got[0].addr) + "/" + std::to_string(got[0].prefix) == "10.0.0.5/24");
        CHILD_CHECK(tovi_ip_addr_count_cfg_v6("eth0", &n) == 0 && n == 1 && tovi_ip_addr_show_cfg_v6("eth0", got.data(), &(n = 1)) == 0 &&
                    n == 1 && std::string(got[0].addr) == "fd00::5" && got[0].prefix == 64);
        CHILD_CHECK(read_file("/tmp/ip-ext.log") == "addr query -4 file " + file + " dev eth0\naddr query -4 file " + shown + " dev eth0\n" +
                                                        "addr query -6 file " + file + " dev eth0\naddr query -6 file " + shown + " dev eth0\n");
        CHILD_CHECK(write_file("/tmp/status", "3\n") && tovi_ip_addr_count_cfg("eth0", &n) == 0x300 &&  // a failing query: raw status
                    tovi_ip_addr_show_cfg("eth0", got.data(), &n) == 0x300 && unlink("/tmp/status") == 0);
        char *out = got[2].addr;  // four bytes of it
        CHILD_CHECK(tovi_execute_result("echo hello", out, 4) == 0 && std::string(out) == "hel");
        CHILD_CHECK(tovi_execute_result("exit 3", out, 4) == 0x300 && tovi_execute_result("true", out, 4) == -1 &&
                    cap.contains("Tovi readline /tmp/" + ptr(out) + "_mtu fail."));
        CHILD_CHECK(shell_out("ls /tmp") == "bin\nip-ext.log\nquery-4\nquery-6\n");
        tovi_ip_rule_entry_s rules[4];
        tovi_ip_route_entry_s routes[2];
        CHILD_CHECK(tovi_ip_rule_count_cfg("eth0", &n) == 0 && n == 2 && tovi_ip_rule_show_cfg("eth0", rules, &(n = 4)) == 0 && n == 2 &&
                    rules[1].family == 10 && rules[1].table == 0 && rules[1].priority == 20 &&
                    std::string(rules[1].from) + " " + rules[1].type == "fd00::/64 unreachable");
        CHILD_CHECK(tovi_ip_route_count_cfg("eth0", &n) == 0 && n == 1 && tovi_ip_route_show_cfg("eth0", routes, &(n = 2)) == 0 && n == 1 &&
                    routes[0].table == 100 && routes[0].prefix == 16 &&
                    std::string(routes[0].dst) + routes[0].via + routes[0].dev + routes[0].src == "10.1.0.010.0.0.1eth010.0.0.5");
        cap.clear();
        CHILD_CHECK(tovi_ip_rule_count_cfg("eth9", &n) == -2 && tovi_ip_route_show_cfg("eth9", routes, &n) == -2 &&
                    tovi_ip_rule_show_cfg("../x", rules, &n) == -22 && tovi_ip_rule_count_cfg("eth0", nullptr) == -22);
        return cap.texts(3) == Texts{"File not exists: /var/lib/ip-ext/rule-eth9.", "File not exists: /var/lib/ip-ext/route-eth9.",
                                     "Param error: null dev_name.", "Param error: null pointer, count((nil))."}
                   ? "" : testing::PrintToString(cap.texts(3));
    });
}

// The link commands against the kernel, in a network namespace of the test's own with a dummy link (else veth).
TEST(Socket, LinksAndLiveAddressesInAPrivateNetworkNamespace)
{
    in_child(CLONE_NEWNET, []() -> std::string {
        if (system("ip link add t0 type dummy 2>/dev/null || ip link add t0 type veth peer name t1") != 0)
            return "SKIP";
        LogCapture cap;
        CHILD_CHECK(tovi_set_mtu("t0", 1400) == 0 && tovi_ip_link_up("t0") == 0 && tovi_set_mtu("nosuch0", 1400) == 0x100);
        std::string link = shell_out("ip -o link show t0");
        CHILD_CHECK(link.find("mtu 1400") != std::string::npos && link.find(",UP") != std::string::npos);
        if (int32_t ret = tovi_add_vlan("t0.10", "t0", 10); ret == 0) {
            CHILD_CHECK(tovi_set_vlan_ingress_qos_map("t0.10", 3, 5) == 0 && tovi_set_vlan_egress_qos_map("t0.10", 3, 7) == 0);
            link = shell_out("ip -d -o link show t0.10");
            CHILD_CHECK(link.find("vlan protocol 802.1Q id 10") != std::string::npos &&
                        link.find("ingress-qos-map { 5:3 }") != std::string::npos && link.find("egress-qos-map { 3:7 }") != std::string::npos);
            CHILD_CHECK(tovi_del_vlan("t0.10") == 0 && shell_out("ip -o link show t0.10 2>/dev/null").empty());
        } else {  // a kernel without VLANs: the failure is reported with its raw status
            CHILD_CHECK(cap.contains("ip link add dev t0.10 link t0 type vlan id 10 &>/dev/null fail, ret: " + std::to_string(ret)));
        }
        uint32_t n = 0, shown = 8;
        tovi_ip_addr_s addrs[8] = {};
        CHILD_CHECK(tovi_ip_addr_add_v6("t0", "fd00::5", 64) == 0 && tovi_ip_addr_count_v6("t0", &n) == 0 && n >= 1);
        CHILD_CHECK(tovi_ip_addr_show_v6("t0", addrs, &shown) == 0 && shown == n &&
                    std::any_of(addrs, addrs + shown, [](const auto &a) { return std::string(a.addr) == "fd00::5" && a.prefix == 64; }));
        CHILD_CHECK(tovi_ip_addr_add_v6("t0", "fd00::5", 64) == 0x200 && tovi_ip_addr_del_v6("t0", "fd00::5", 64) == 0 && tovi_ip_addr_count_v6("t0", &n) == 0 &&
                    shell_out("ip -6 -o addr show dev t0").find("fd00::5") == std::string::npos);
        return shell_out("ls /tmp");  // the exit status 2 above: the address existed; nothing may be left in /tmp
    });
}
