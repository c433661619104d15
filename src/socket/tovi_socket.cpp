// Interfaces, addresses, routes, rules and VLANs through `ip` and the
// platform's `ip-ext`: command lines built in fixed buffers, checked, logged
// and run by tovi_system_s; listings read the files those tools write.
#include <arpa/inet.h>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <safe_str_lib.h>

#define TOVI_LOG_SOURCE "tovi_socket_rule_route"
#include "tovi_fileops.h"
#include "tovi_format.hpp"
#include "tovi_log.hpp"
#include "tovi_process.h"
#include "tovi_socket.h"

namespace {

using tovi::log::kError;
using tovi::log::kInfo;

constexpr size_t kCmdSize = 256;
constexpr size_t kLineSize = 512;
constexpr const char *kQuiet = "&>";       // "&>/dev/null"
constexpr const char *kToFile = ">|";      // "cmd >file", cmd may be a pipeline
constexpr const char *kRemove = "&>|";

struct Cmd {
    char text[kCmdSize];
};

// Formats into a command buffer; a line that does not fit is never run.
template <typename... Args>
bool format(char *buf, size_t size, const char *fmt, Args... args)
{
    if (!tovi::formatted(snprintf_s(buf, size, fmt, args...), size)) {
        TOVI_LOG(kError, "sprintf_s secure function failed, destMax<%lu>.", static_cast<unsigned long>(size));
        return false;
    }
    return true;
}

int32_t run(const char *cmd, const char *allow)
{
    TOVI_LOG(kInfo, "Cmd %s.", cmd);
    return tovi_system_s(cmd, allow);
}

// The route and rule functions report the shell's exit status.
int32_t exit_status(int32_t raw)
{
    return raw >> 8;
}

bool dangerous(const char *s)
{
    return isDangerousCmd(s, nullptr) != 0;
}

// A field of a caller's record, which need not be terminated.
std::string field(const char *p, size_t size)
{
    return std::string(p, strnlen(p, size));
}

uint32_t version(uint32_t family)
{
    return family == AF_INET ? 4u : family == AF_INET6 ? 6u : 0u;
}

// A temporary file named by an address, as the C library prints "%p"
// ("0x7ffd..."), which is also how the address appears in the log.
bool temp_name(char (&buf)[64], const char *fmt, const void *p)
{
    int n = std::snprintf(buf, sizeof buf, fmt, p);
    return n > 0 && static_cast<size_t>(n) < sizeof buf;
}

void remove_file(const char *path)
{
    Cmd rm;
    if (format(rm.text, sizeof rm.text, "rm -f %s &>/dev/null", path))
        (void)run(rm.text, kRemove);
}

int32_t route_cfg(const tovi_ip_route_cfg_s *route, const char *verb)
{
    if (route == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer.");
        return -22;
    }
    const char *any = route->family == AF_INET6 ? "::" : "0.0.0.0";
    std::string dst = field(route->dst, sizeof route->dst), dev = field(route->dev, sizeof route->dev);
    std::string via = field(route->via, sizeof route->via), src = field(route->src, sizeof route->src);
    if (via.empty())
        via = any;
    if (src.empty())
        src = any;
    Cmd temp, cmd;
    if (!format(temp.text, sizeof temp.text, "%s %s %s %s", dst.c_str(), via.c_str(), dev.c_str(), src.c_str()))
        return -22;
    if (dangerous(temp.text)) {
        TOVI_LOG(kError, "Param error: cmdtemp(%s) is dangerous.", temp.text);
        return -22;
    }
    if (!format(cmd.text, sizeof cmd.text, "ip-ext route %s -%u %s/%u table %u via %s dev %s src %s &> /dev/null",
                verb, version(route->family), dst.c_str(), route->prefix, route->table, via.c_str(), dev.c_str(),
                src.c_str()))
        return -22;
    return exit_status(run(cmd.text, kQuiet));
}

int32_t route_add_src(unsigned ver, uint32_t table, const char *dst_net, uint32_t prefix, const char *via,
                      const char *if_name, const char *src)
{
    if (dst_net == nullptr || if_name == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer,dst_net(%p), if_name(%p).", static_cast<const void *>(dst_net),
                 static_cast<const void *>(if_name));
        return -22;
    }
    Cmd cmd;
    std::string line;
    if (!format(cmd.text, sizeof cmd.text, "ip -%u route add %s/%u ", ver, dst_net, prefix))
        return -22;
    line = cmd.text;
    const std::pair<const char *, const char *> parts[] = {{" via %s", via}, {" dev %s", if_name}, {" src %s", src}};
    for (const auto &[fmt, value] : parts) {
        if (value == nullptr || value[0] == '\0')
            continue;
        if (!format(cmd.text, sizeof cmd.text, fmt, value))
            return -22;
        line += cmd.text;
    }
    if (line.size() >= kCmdSize) {
        TOVI_LOG(kError, "sprintf_s secure function failed, destMax<%lu>.", static_cast<unsigned long>(kCmdSize));
        return -22;
    }
    if (dangerous(line.c_str())) {
        TOVI_LOG(kError, "Param error: cmd(%s) is dangerous.", line.c_str());
        return -22;
    }
    if (!format(cmd.text, sizeof cmd.text, "%s table %u &>/dev/null", line.c_str(), table))
        return -22;
    return exit_status(run(cmd.text, kQuiet));
}

const char *const kRuleTypes[] = {"", "unicast", "blackhole", "unreachable", "prohibit", "nat"};

// The checks add and delete share.
int32_t ip_rule_deal_cfg(const tovi_ip_rule_cfg_s *rule)
{
    if (rule == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer.");
        return -22;
    }
    if (rule->family != AF_INET && rule->family != AF_INET6) {
        TOVI_LOG(kError, "Param error: family is %u.", rule->family);
        return -22;
    }
    if (rule->type < 1 || rule->type > 5) {
        TOVI_LOG(kError, "Param error: type is %u.", rule->type);
        return -22;
    }
    if (rule->priority < 1 || rule->priority > 32765) {
        TOVI_LOG(kError, "Param error: priority is %u.", rule->priority);
        return -22;
    }
    size_t n = strnlen(rule->src, sizeof rule->src);
    if (n == 0 || n >= sizeof rule->src) {
        TOVI_LOG(kError, "Param error: src_addr is invalid.");
        return -22;
    }
    if (dangerous(rule->src)) {
        TOVI_LOG(kError, "Param error: src_addr(%s) is dangerous.", rule->src);
        return -22;
    }
    return 0;
}

int32_t rule_cfg(const tovi_ip_rule_cfg_s *rule, const char *verb)
{
    if (int32_t ret = ip_rule_deal_cfg(rule); ret != 0)
        return ret;
    Cmd cmd;
    bool ok = rule->type == 1
                  ? format(cmd.text, sizeof cmd.text, "ip-ext rule %s -%u from %s type %s table %u priority %u &> /dev/null",
                           verb, version(rule->family), rule->src, kRuleTypes[1], rule->table, rule->priority)
                  : format(cmd.text, sizeof cmd.text, "ip-ext rule %s -%u from %s type %s priority %u &> /dev/null", verb,
                           version(rule->family), rule->src, kRuleTypes[rule->type], rule->priority);
    return ok ? exit_status(run(cmd.text, kQuiet)) : -22;
}

// The address commands' null check; the deletion of a recorded IPv4
// address reports it without naming the pointers.
bool either_null(const char *if_name, const char *ip_addr, bool short_message)
{
    if (if_name != nullptr && ip_addr != nullptr)
        return false;
    if (short_message)
        TOVI_LOG(kError, "Param error: null pointer.");
    else
        TOVI_LOG(kError, "Param error: null pointer, if_name(%p), ip_addr(%p).", static_cast<const void *>(if_name),
                 static_cast<const void *>(ip_addr));
    return true;
}

// The address commands: `fmt` takes address, prefix and interface.
int32_t addr_cmd(const char *if_name, const char *ip_addr, uint32_t prefix, const char *fmt, bool short_null,
                 int which_message)
{
    if (either_null(if_name, ip_addr, short_null))
        return -22;
    if (dangerous(if_name) || dangerous(ip_addr)) {
        if (which_message == 0)
            TOVI_LOG(kError, "Param error: file_v6(%s) or if_name(%s) is dangerous.", ip_addr, if_name);
        else if (which_message == 1)
            TOVI_LOG(kError, "Param error: pFile(%s) or ip_addr(%s) is dangerous.", if_name, ip_addr);
        else
            TOVI_LOG(kError, "Param error: ip_addr(%s) or if_name(%s) is dangerous.", ip_addr, if_name);
        return -22;
    }
    Cmd cmd;
    if (!format(cmd.text, sizeof cmd.text, fmt, ip_addr, prefix, if_name))
        return -22;
    return run(cmd.text, kQuiet);
}

// Checks of the link commands that take one interface name.
bool bad_if_name(const char *if_name)
{
    if (if_name == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, if_name(%p).", static_cast<const void *>(if_name));
        return true;
    }
    if (dangerous(if_name)) {
        TOVI_LOG(kError, "Param error: if_name(%s) is dangerous.", if_name);
        return true;
    }
    return false;
}

int32_t qos_map(const char *vlan_if_name, uint32_t priority, uint32_t qos, bool ingress)
{
    if (vlan_if_name == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, vlan_if_name(%p).", static_cast<const void *>(vlan_if_name));
        return -22;
    }
    if (vlan_if_name[0] == '\0') {
        TOVI_LOG(kError, "Param error: empty vlan_if_name.");
        return -22;
    }
    if (qos > 7) {
        TOVI_LOG(kError, "Param error: valn_qos %u is not in [0,7].", qos);
        return -22;
    }
    if (dangerous(vlan_if_name)) {
        TOVI_LOG(kError, "Param error: vlan_if_name(%s) is dangerous.", vlan_if_name);
        return -22;
    }
    Cmd cmd;
    int first = static_cast<int>(ingress ? qos : priority), second = static_cast<int>(ingress ? priority : qos);
    if (!format(cmd.text, sizeof cmd.text, "ip link set dev %s type vlan %s-qos-map %d:%d &>/dev/null", vlan_if_name,
                ingress ? "ingress" : "egress", first, second))
        return -22;
    if (ingress)
        TOVI_LOG(kInfo, "Cmd %s.", cmd.text);
    else
        TOVI_LOG(kInfo, "Cmd %s", cmd.text);
    return tovi_system_s(cmd.text, kQuiet);
}

// Runs an "ip-ext addr query" into `file`; the caller removes the file.
int32_t query_addrs(unsigned ver, const char *file, const char *if_name)
{
    Cmd cmd;
    if (!format(cmd.text, sizeof cmd.text, "ip-ext addr query -%u file %s dev %s &>/dev/null", ver, file, if_name))
        return -22;
    return run(cmd.text, kQuiet);
}

int32_t addr_count_cfg(unsigned ver, const char *if_name, uint32_t *count)
{
    char file[64];
    Cmd temp, grep;
    if (!temp_name(file, "/tmp/ifcfg-%p", count) ||
        !format(temp.text, sizeof temp.text, " %s %s ", file, if_name))
        return -22;
    if (dangerous(temp.text)) {
        if (ver == 4)
            TOVI_LOG(kError, "Param error: cmdtemp(%s) is dangerous.", temp.text);
        else
            TOVI_LOG(kError, "Param error: if_name(%s) or file_v6 is dangerous.", if_name);
        return -22;
    }
    int32_t ret = query_addrs(ver, file, if_name);
    char out[32] = {};
    if (ret == 0 && format(grep.text, sizeof grep.text, "grep -E \"^%s\" %s | wc -l", ver == 4 ? "IPADDR" : "IPV6ADDR",
                           file)) {
        ret = tovi_execute_result(grep.text, out, sizeof out);
        if (ret == 0)
            *count = static_cast<uint32_t>(std::strtoul(out, nullptr, 0));
    }
    remove_file(file);
    return ret;
}

int32_t ip_addr_show_cfg_param_check(const char *if_name, const tovi_ip_addr_s *result, const uint32_t *count)
{
    if (if_name == nullptr || result == nullptr || count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer.");
        return -22;
    }
    if (dangerous(if_name)) {
        TOVI_LOG(kError, "Param error: if_name(%s) is dangerous.", if_name);
        return -22;
    }
    return 0;
}

// Reads the lines of `file` into `take`; -1 when the file cannot be opened.
template <typename Take>
int32_t each_line(const char *file, Take take)
{
    int32_t fd = tovi_open(file, O_RDONLY, 0);
    if (fd < 0)
        return -1;
    char line[kLineSize];
    while (tovi_readline(fd, line, sizeof line) != nullptr)
        take(line);
    (void)tovi_close(fd);
    return 0;
}

void copy_text(char *dst, size_t size, const std::string &src)
{
    (void)strncpy_s(dst, size, src.c_str(), size - 1);
}

int32_t addr_show_cfg(unsigned ver, const char *if_name, tovi_ip_addr_s *result, uint32_t *count)
{
    if (int32_t ret = ip_addr_show_cfg_param_check(if_name, result, count); ret != 0)
        return ret;
    char file[64];
    if (!temp_name(file, "/tmp/ifcfg-%p", result))
        return -22;
    int32_t ret = query_addrs(ver, file, if_name);
    uint32_t cap = *count, n = 0;
    if (ret == 0) {
        const char *scan = ver == 4 ? "IPADDR=%45s PREFIX=%d" : "IPV6ADDR=%45s PREFIX=%d";
        ret = each_line(file, [&](const char *line) {
            char addr[TOVI_IP_ADDR_LEN];
            int prefix = 0;
            if (n < cap && std::sscanf(line, scan, addr, &prefix) == 2) {
                copy_text(result[n].addr, sizeof result[n].addr, addr);
                result[n++].prefix = static_cast<uint32_t>(prefix);
            }
        });
        if (ret != 0)
            TOVI_LOG(kError, "Tovi open %s fail.", file);
        else
            *count = n;
    }
    remove_file(file);
    return ret;
}

// Recorded rules or routes of an interface: the file's path, or "" for a
// name that cannot be one.
std::string record_file(const char *kind, const char *dev)
{
    if (dev[0] == '\0' || std::strchr(dev, '/') != nullptr || strnlen(dev, TOVI_IF_NAME_LEN) >= TOVI_IF_NAME_LEN)
        return "";
    return std::string(TOVI_IP_RECORD_DIR) + kind + "-" + dev;
}

// Calls take(line) for each record line of the file; 0 or a negated errno.
template <typename Take>
int32_t each_record(const std::string &path, Take take)
{
    if (path.empty()) {
        TOVI_LOG(kError, "Param error: null dev_name.");
        return -22;
    }
    if (access(path.c_str(), F_OK) != 0) {
        TOVI_LOG(kError, "File not exists: %s.", path.c_str());
        return -2;
    }
    int32_t fd = tovi_open(path.c_str(), O_RDONLY, 0);
    if (fd < 0) {
        TOVI_LOG(kError, "Open file failed ,File not exists: %s.", path.c_str());
        return -2;
    }
    char *line = static_cast<char *>(std::malloc(kLineSize));
    if (line == nullptr) {
        TOVI_LOG(kError, "Internal error: cannot alloc memory.");
        (void)tovi_close(fd);
        return -12;
    }
    while (tovi_readline(fd, line, kLineSize) != nullptr) {
        const char *p = line;
        while (*p == ' ' || *p == '\t')
            ++p;
        if (*p != '#' && *p != '\n' && *p != '\0')
            take(p);
    }
    std::free(line);
    (void)tovi_close(fd);
    return 0;
}

bool parse_rule(const char *line, tovi_ip_rule_entry_s *r)
{
    tovi_ip_rule_entry_s e{};
    if (std::sscanf(line, "%u %u %45s %15s %u", &e.family, &e.table, e.from, e.type, &e.priority) != 5)
        return false;
    return r != nullptr ? (*r = e, true) : true;
}

bool parse_route(const char *line, tovi_ip_route_entry_s *r)
{
    tovi_ip_route_entry_s e{};
    if (std::sscanf(line, "%u %47s %u %45s %15s %45s", &e.table, e.dst, &e.prefix, e.via, e.dev, e.src) != 6)
        return false;
    return r != nullptr ? (*r = e, true) : true;
}

template <typename Entry, typename Parse>
int32_t show_records(const char *kind, const char *dev, Entry *out, uint32_t *count, Parse parse)
{
    uint32_t cap = out != nullptr ? *count : 0, n = 0;
    int32_t ret = each_record(record_file(kind, dev), [&](const char *line) {
        if (out == nullptr ? parse(line, nullptr) : n < cap && parse(line, &out[n]))
            ++n;
    });
    if (ret == 0)
        *count = n;
    return ret;
}

}  // namespace

extern "C" {

int32_t tovi_ip_route_add_cfg(const tovi_ip_route_cfg_s *route)
{
    return route_cfg(route, "add_save");
}

int32_t tovi_ip_route_del_cfg(const tovi_ip_route_cfg_s *route)
{
    return route_cfg(route, "del_save");
}

int32_t tovi_ip_route_flush(uint32_t table)
{
    Cmd cmd;
    return format(cmd.text, sizeof cmd.text, "ip -4 route flush table %u &>/dev/null", table)
               ? exit_status(run(cmd.text, kQuiet))
               : -22;
}

int32_t tovi_ip_route_flush_v6(uint32_t table)
{
    Cmd cmd;
    return format(cmd.text, sizeof cmd.text, "ip -6 route flush table %u &>/dev/null", table)
               ? exit_status(run(cmd.text, kQuiet))
               : -22;
}

int32_t tovi_ip_route_add_src(uint32_t table, const char *dst_net, uint32_t prefix, const char *via,
                              const char *if_name, const char *src)
{
    return route_add_src(4, table, dst_net, prefix, via, if_name, src);
}

int32_t tovi_ip_route_add_src_v6(uint32_t table, const char *dst_net, uint32_t prefix, const char *via,
                                 const char *if_name, const char *src)
{
    return route_add_src(6, table, dst_net, prefix, via, if_name, src);
}

int32_t tovi_ip_rule_add_cfg(const tovi_ip_rule_cfg_s *rule)
{
    return rule_cfg(rule, "add_save");
}

int32_t tovi_ip_rule_del_cfg(const tovi_ip_rule_cfg_s *rule)
{
    return rule_cfg(rule, "del_save");
}

int32_t tovi_ip_addr_add_cfg(const char *if_name, const char *ip_addr, uint32_t prefix)
{
    return addr_cmd(if_name, ip_addr, prefix, "ip-ext addr add_save -4 ip %s/%u dev %s &>/dev/null", false, 0);
}

int32_t tovi_ip_addr_del_cfg(const char *if_name, const char *ip_addr, uint32_t prefix)
{
    return addr_cmd(if_name, ip_addr, prefix, "ip-ext addr del_save -4 ip %s/%u dev %s &>/dev/null", true, 1);
}

int32_t tovi_ip_addr_add_cfg_v6(const char *if_name, const char *ip_addr, uint32_t prefix)
{
    return addr_cmd(if_name, ip_addr, prefix, "ip-ext addr add_save -6 ip %s/%u dev %s &>/dev/null", false, 0);
}

int32_t tovi_ip_addr_del_cfg_v6(const char *if_name, const char *ip_addr, uint32_t prefix)
{
    return addr_cmd(if_name, ip_addr, prefix, "ip-ext addr del_save -6 ip %s/%u dev %s &>/dev/null", false, 0);
}

int32_t tovi_ip_addr_add_v6(const char *if_name, const char *ip_addr, uint32_t prefix)
{
    return addr_cmd(if_name, ip_addr, prefix, "ip -6 addr add %s/%u dev %s &>/dev/null", false, 2);
}

int32_t tovi_ip_addr_del_v6(const char *if_name, const char *ip_addr, uint32_t prefix)
{
    return addr_cmd(if_name, ip_addr, prefix, "ip -6 addr del %s/%u dev %s &>/dev/null", false, 2);
}

int32_t tovi_ip_restore_cfg(const char *if_name)
{
    Cmd cmd;
    if (bad_if_name(if_name) || !format(cmd.text, sizeof cmd.text, "ip-ext net restore %s &>/dev/null", if_name))
        return -22;
    return run(cmd.text, kQuiet);
}

int32_t tovi_set_mtu(const char *if_name, uint32_t mtu)
{
    Cmd cmd;
    if (bad_if_name(if_name) || !format(cmd.text, sizeof cmd.text, "ip link set %s mtu %u &>/dev/null", if_name, mtu))
        return -22;
    return run(cmd.text, kQuiet);
}

int32_t tovi_ip_link_up(const char *if_name)
{
    Cmd cmd;
    if (bad_if_name(if_name) || !format(cmd.text, sizeof cmd.text, "ip link set %s up &>/dev/null", if_name))
        return -22;
    return run(cmd.text, kQuiet);
}

int32_t tovi_add_vlan(const char *vlan_if_name, const char *if_name, uint32_t vlan)
{
    if (if_name == nullptr || vlan_if_name == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, if_name(%p),vlan_if_name(%p) .",
                 static_cast<const void *>(if_name), static_cast<const void *>(vlan_if_name));
        return -22;
    }
    if (vlan == 0 || vlan >= 4095) {
        TOVI_LOG(kError, "Param error: vlan %u is not in (0,4095).", vlan);
        return -22;
    }
    if (dangerous(vlan_if_name) || dangerous(if_name)) {
        TOVI_LOG(kError, "Param error: vlan_if_name(%s) or if_name(%s) is dangerous.", vlan_if_name, if_name);
        return -22;
    }
    Cmd cmd;
    if (!format(cmd.text, sizeof cmd.text, "ip link add dev %s link %s type vlan id %u &>/dev/null", vlan_if_name,
                if_name, vlan))
        return -22;
    int32_t ret = run(cmd.text, kQuiet);
    if (ret != 0)
        TOVI_LOG(kError, "%s fail, ret: %d", cmd.text, ret);
    return ret;
}

int32_t tovi_del_vlan(const char *vlan_if_name)
{
    if (vlan_if_name == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, vlan_if_name(%p) .", static_cast<const void *>(vlan_if_name));
        return -22;
    }
    if (dangerous(vlan_if_name)) {
        TOVI_LOG(kError, "Param error: vlan_if_name(%s) is dangerous.", vlan_if_name);
        return -22;
    }
    Cmd cmd;
    if (!format(cmd.text, sizeof cmd.text, "ip link del dev %s &>/dev/null", vlan_if_name))
        return -22;
    return run(cmd.text, kQuiet);
}

int32_t tovi_set_vlan_ingress_qos_map(const char *vlan_if_name, uint32_t priority, uint32_t qos)
{
    return qos_map(vlan_if_name, priority, qos, true);
}

int32_t tovi_set_vlan_egress_qos_map(const char *vlan_if_name, uint32_t priority, uint32_t qos)
{
    return qos_map(vlan_if_name, priority, qos, false);
}

int32_t tovi_execute_result(const char *cmd, char *out, uint32_t len)
{
    if (cmd == nullptr || out == nullptr || len == 0) {
        TOVI_LOG(kError, "Param error: null pointer.");
        return -22;
    }
    char file[64];
    Cmd full;
    if (!temp_name(file, "/tmp/%p_mtu", out) ||
        !format(full.text, sizeof full.text, "%s >%s 2>/dev/null", cmd, file))
        return -22;
    int32_t ret = run(full.text, kToFile);
    if (ret == -29)
        return ret;  // refused: no shell ran, no file to remove
    if (ret == 0) {
        int32_t fd = tovi_open(file, O_RDONLY, 0);
        if (fd < 0) {
            TOVI_LOG(kError, "Tovi open %s fail.", file);
            ret = -1;
        } else {
            int32_t size = len > 0x7fffffffu ? 0x7fffffff : static_cast<int32_t>(len);
            if (tovi_readline(fd, out, size) == nullptr) {
                TOVI_LOG(kError, "Tovi readline %s fail.", file);
                ret = -1;
            }
            (void)tovi_close(fd);
        }
    }
    remove_file(file);
    return ret;
}

int32_t tovi_ip_addr_count_cfg(const char *if_name, uint32_t *count)
{
    if (if_name == nullptr || count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer.");
        return -22;
    }
    return addr_count_cfg(4, if_name, count);
}

int32_t tovi_ip_addr_count_cfg_v6(const char *if_name, uint32_t *count)
{
    if (if_name == nullptr || count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, if_name(%p), count(%p).\n", static_cast<const void *>(if_name),
                 static_cast<void *>(count));
        return -22;
    }
    return addr_count_cfg(6, if_name, count);
}

int32_t tovi_ip_addr_count_v6(const char *if_name, uint32_t *count)
{
    if (if_name == nullptr || count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, if_name(%p), count(%p).", static_cast<const void *>(if_name),
                 static_cast<void *>(count));
        return -22;
    }
    if (dangerous(if_name)) {
        TOVI_LOG(kError, "Param error: if_name(%s) is dangerous.", if_name);
        return -22;
    }
    Cmd cmd;
    char out[32] = {};
    if (!format(cmd.text, sizeof cmd.text, "ip -6 -o addr show dev %s 2>/dev/null | wc -l", if_name))
        return -22;
    int32_t ret = tovi_execute_result(cmd.text, out, sizeof out);
    if (ret == 0)
        *count = static_cast<uint32_t>(std::strtoul(out, nullptr, 0));
    return ret;
}

int32_t tovi_ip_addr_show_cfg(const char *if_name, tovi_ip_addr_s *result, uint32_t *count)
{
    return addr_show_cfg(4, if_name, result, count);
}

int32_t tovi_ip_addr_show_cfg_v6(const char *if_name, tovi_ip_addr_s *result, uint32_t *count)
{
    return addr_show_cfg(6, if_name, result, count);
}

int32_t tovi_ip_addr_show_v6(const char *if_name, tovi_ip_addr_s *result, uint32_t *count)
{
    if (if_name == nullptr || result == nullptr || count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, if_name(%p), result(%p), count(%p).",
                 static_cast<const void *>(if_name), static_cast<void *>(result), static_cast<void *>(count));
        return -22;
    }
    char file[64];
    Cmd cmd;
    if (!temp_name(file, "/tmp/ifcfg-%p", result))
        return -22;
    if (dangerous(file) || dangerous(if_name)) {
        TOVI_LOG(kError, "Param error: path_v6(%s) or if_name(%s) is dangerous.", file, if_name);
        return -22;
    }
    if (!format(cmd.text, sizeof cmd.text, "ip -6 -o addr show dev %s >%s 2>/dev/null", if_name, file))
        return -22;
    int32_t ret = run(cmd.text, ">");
    uint32_t cap = *count, n = 0;
    if (ret == 0) {
        ret = each_line(file, [&](const char *line) {
            const char *p = std::strstr(line, "inet6 ");
            char addr[64];
            int prefix = 0;
            if (n < cap && p != nullptr && std::sscanf(p + 6, "%63[^/ ]/%d", addr, &prefix) == 2) {
                copy_text(result[n].addr, sizeof result[n].addr, addr);
                result[n++].prefix = static_cast<uint32_t>(prefix);
            }
        });
        if (ret != 0)
            TOVI_LOG(kError, "Func %s error: NUBO_open fail.", __func__);
        else
            *count = n;
    }
    remove_file(file);
    return ret;
}

int32_t tovi_ip_rule_count_cfg(const char *dev_name, uint32_t *count)
{
    if (count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, count(%p).", static_cast<void *>(count));
        return -22;
    }
    if (dev_name == nullptr) {
        TOVI_LOG(kError, "Param error: null dev_name.");
        return -22;
    }
    return show_records<tovi_ip_rule_entry_s>("rule", dev_name, nullptr, count, parse_rule);
}

int32_t tovi_ip_rule_show_cfg(const char *dev_name, tovi_ip_rule_entry_s *rules, uint32_t *count)
{
    if (rules == nullptr || count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, rules(%p), count(%p).", static_cast<void *>(rules),
                 static_cast<void *>(count));
        return -22;
    }
    if (dev_name == nullptr) {
        TOVI_LOG(kError, "Param error: null dev_name.");
        return -22;
    }
    return show_records("rule", dev_name, rules, count, parse_rule);
}

int32_t tovi_ip_route_count_cfg(const char *dev_name, uint32_t *count)
{
    if (dev_name == nullptr || count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer or null dev_name.");
        return -22;
    }
    return show_records<tovi_ip_route_entry_s>("route", dev_name, nullptr, count, parse_route);
}

int32_t tovi_ip_route_show_cfg(const char *dev_name, tovi_ip_route_entry_s *routes, uint32_t *count)
{
    if (dev_name == nullptr || routes == nullptr || count == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer or null dev_name.");
        return -22;
    }
    return show_records("route", dev_name, routes, count, parse_route);
}

uint32_t tovi_simple_strtoul(const char *s, char **end, uint32_t base)
{
    if (s == nullptr) {
        if (end != nullptr)
            *end = nullptr;
        return 0;
    }
    const char *p = s;
    bool hex_prefix = p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && std::isxdigit(static_cast<unsigned char>(p[2]));
    if (base == 0)
        base = hex_prefix ? 16 : p[0] == '0' ? 8 : 10;
    if (base == 16 && hex_prefix)
        p += 2;
    uint32_t value = 0;
    for (;; ++p) {
        unsigned c = static_cast<unsigned char>(*p), digit;
        if (std::isdigit(c))
            digit = c - '0';
        else if (std::isxdigit(c))
            digit = static_cast<unsigned>(std::tolower(static_cast<int>(c)) - 'a' + 10);
        else
            break;
        if (digit >= base)
            break;
        value = value * base + digit;
    }
    if (end != nullptr)
        *end = const_cast<char *>(p);
    return value;
}

int32_t tovi_netmask_to_prefix(const char *netmask)
{
    if (netmask == nullptr) {
        TOVI_LOG(kError, "Param error: null pointer, netmask(%p) .", static_cast<const void *>(netmask));
        return -22;
    }
    in_addr a{};
    if (inet_pton(AF_INET, netmask, &a) != 1)
        return -22;
    uint32_t mask = ntohl(a.s_addr), inv = ~mask;
    if (((inv + 1) & inv) != 0)
        return -22;
    if (mask == 0)
        return 0;
    return 32 - __builtin_ctz(mask);
}

}  // extern "C"
