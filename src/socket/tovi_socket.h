/**
 * @file
 * Interfaces, addresses, routes, policy rules and VLANs, changed by running
 * the system's `ip` tool (live, lost at reboot) or the platform's `ip-ext`
 * tool (whose "add_save"/"del_save" verbs also record the change so that
 * "ip-ext net restore" replays it). Every command is logged ("Cmd %s.") and
 * runs through tovi_system_s; strings that reach a command line must pass
 * isDangerousCmd first.
 *
 * Results: 0 on success, -22 for a bad argument (nothing runs), otherwise
 * the command's result: the exit status (tovi_system_s's raw wait status
 * shifted right by 8) for the route and rule functions, the raw wait status
 * for all others.
 *
 * Files the listing functions read:
 *  - address queries: "ip-ext addr query -4|-6 file F dev D" writes F, one
 *    address a line, "IPADDR=<address> PREFIX=<length>" (IPv4) or
 *    "IPV6ADDR=<address> PREFIX=<length>" (IPv6); other lines are ignored.
 *  - recorded rules and routes of an interface D: TOVI_IP_RECORD_DIR
 *    "rule-D" and "route-D", one record a line, fields separated by blanks
 *    in the order of the print formats: a rule "family table from type
 *    priority" ("%u %u %s %s %u"), a route "table destination prefix
 *    gateway device source" ("%u %s %u %s %s %s"); blank lines and lines
 *    starting with '#' are skipped, as are lines that do not parse.
 */
#ifndef TOVI_SOCKET_H
#define TOVI_SOCKET_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_IP_RECORD_DIR "/var/lib/ip-ext/"  /**< where ip-ext records the rules and routes of each interface */
#define TOVI_IP_DST_LEN 48  /**< buffer of a destination network */
#define TOVI_IP_ADDR_LEN 46  /**< buffer of an address (IPv6 text and NUL) */
#define TOVI_IF_NAME_LEN 16  /**< buffer of an interface name */
#define TOVI_IP_TYPE_LEN 16  /**< buffer of a rule type name */

/** A route for tovi_ip_route_add_cfg and tovi_ip_route_del_cfg. */
typedef struct tovi_ip_route_cfg_s {
    uint32_t family; /**< 2 (IPv4) or 10 (IPv6); else version digit 0 */
    uint32_t table;  /**< routing table */
    char dst[TOVI_IP_DST_LEN];  /**< destination network */
    uint32_t prefix;  /**< its prefix length */
    char dev[TOVI_IF_NAME_LEN];  /**< outgoing interface */
    char via[TOVI_IP_ADDR_LEN]; /**< empty: "0.0.0.0" or "::" */
    char src[TOVI_IP_ADDR_LEN]; /**< empty: "0.0.0.0" or "::" */
} tovi_ip_route_cfg_s;

/** A policy rule for tovi_ip_rule_add_cfg and tovi_ip_rule_del_cfg. */
typedef struct tovi_ip_rule_cfg_s {
    uint32_t family;   /**< 2 or 10 */
    uint32_t type;     /**< 1 unicast, 2 blackhole, 3 unreachable, 4 prohibit, 5 nat */
    uint32_t table;    /**< used for unicast only */
    uint32_t priority; /**< 1 ... 32765 */
    char src[TOVI_IP_ADDR_LEN];  /**< source address */
} tovi_ip_rule_cfg_s;

/** One recorded rule, as printed "%u %u %s %s %u\n". */
typedef struct tovi_ip_rule_entry_s {
    uint32_t family;  /**< 2 (IPv4) or 10 (IPv6) */
    uint32_t table;  /**< routing table */
    char from[TOVI_IP_ADDR_LEN];  /**< source address */
    char type[TOVI_IP_TYPE_LEN];  /**< type name */
    uint32_t priority;  /**< priority */
} tovi_ip_rule_entry_s;

/** One recorded route, as printed "%u %s %u %s %s %s\n". */
typedef struct tovi_ip_route_entry_s {
    uint32_t table;  /**< routing table */
    char dst[TOVI_IP_DST_LEN];  /**< destination network */
    uint32_t prefix;  /**< prefix length */
    char via[TOVI_IP_ADDR_LEN];  /**< gateway */
    char dev[TOVI_IF_NAME_LEN];  /**< outgoing interface */
    char src[TOVI_IP_ADDR_LEN];  /**< source address */
} tovi_ip_route_entry_s;

/** One address with its prefix length. */
typedef struct tovi_ip_addr_s {
    char addr[TOVI_IP_ADDR_LEN];  /**< address text */
    uint32_t prefix;  /**< prefix length */
} tovi_ip_addr_s;

/** Adds (and records) a route with "ip-ext route add_save". */
TOVI_API int32_t tovi_ip_route_add_cfg(const tovi_ip_route_cfg_s *route);
/** Deletes a route and its record with "ip-ext route del_save". */
TOVI_API int32_t tovi_ip_route_del_cfg(const tovi_ip_route_cfg_s *route);
/** Empties an IPv4 routing table ("ip -4 route flush table N"). */
TOVI_API int32_t tovi_ip_route_flush(uint32_t table);
/** Empties an IPv6 routing table ("ip -6 route flush table N"). */
TOVI_API int32_t tovi_ip_route_flush_v6(uint32_t table);
/** @{ */
/** Adds a live route to dst_net/prefix in table through if_name ("ip route
 * add"); via and src are optional (NULL or empty). */
TOVI_API int32_t tovi_ip_route_add_src(uint32_t table, const char *dst_net, uint32_t prefix, const char *via,
                                       const char *if_name, const char *src);
TOVI_API int32_t tovi_ip_route_add_src_v6(uint32_t table, const char *dst_net, uint32_t prefix,
                                          const char *via, const char *if_name, const char *src);
/** @} */
/** Adds (and records) a policy rule with "ip-ext rule add_save". */
TOVI_API int32_t tovi_ip_rule_add_cfg(const tovi_ip_rule_cfg_s *rule);
/** Deletes a policy rule and its record with "ip-ext rule del_save". */
TOVI_API int32_t tovi_ip_rule_del_cfg(const tovi_ip_rule_cfg_s *rule);

/** @{ */
/** Adds or deletes an address of if_name and its record ("ip-ext addr
 * add_save|del_save -4|-6"). */
TOVI_API int32_t tovi_ip_addr_add_cfg(const char *if_name, const char *ip_addr, uint32_t prefix);
TOVI_API int32_t tovi_ip_addr_del_cfg(const char *if_name, const char *ip_addr, uint32_t prefix);
TOVI_API int32_t tovi_ip_addr_add_cfg_v6(const char *if_name, const char *ip_addr, uint32_t prefix);
TOVI_API int32_t tovi_ip_addr_del_cfg_v6(const char *if_name, const char *ip_addr, uint32_t prefix);
/** @} */
/** @{ */
/** Adds or deletes a live IPv6 address of if_name, not recorded ("ip -6 addr
 * add|del"). */
TOVI_API int32_t tovi_ip_addr_add_v6(const char *if_name, const char *ip_addr, uint32_t prefix);
TOVI_API int32_t tovi_ip_addr_del_v6(const char *if_name, const char *ip_addr, uint32_t prefix);
/** @} */
/** Replays the recorded addresses, rules and routes of if_name ("ip-ext net
 * restore"). */
TOVI_API int32_t tovi_ip_restore_cfg(const char *if_name);

/** Sets the MTU of if_name ("ip link set IF mtu N"). */
TOVI_API int32_t tovi_set_mtu(const char *if_name, uint32_t mtu);
/** Brings if_name up ("ip link set IF up"). */
TOVI_API int32_t tovi_ip_link_up(const char *if_name);
/** @{ */
/** vlan 1 ... 4094. */
TOVI_API int32_t tovi_add_vlan(const char *vlan_if_name, const char *if_name, uint32_t vlan);
TOVI_API int32_t tovi_del_vlan(const char *vlan_if_name);
/** @} */
/** @{ */
/** qos 0 ... 7; ingress maps qos to priority, egress priority to qos. */
TOVI_API int32_t tovi_set_vlan_ingress_qos_map(const char *vlan_if_name, uint32_t priority, uint32_t qos);
TOVI_API int32_t tovi_set_vlan_egress_qos_map(const char *vlan_if_name, uint32_t priority, uint32_t qos);
/** @} */

/** Runs cmd with its standard output in a temporary file and copies the
 * first line (line feed kept, at most len - 1 bytes) into out. 0, -1 when
 * the file cannot be read, or the command's raw status. */
TOVI_API int32_t tovi_execute_result(const char *cmd, char *out, uint32_t len);

/** @{ */
/** Numbers of recorded (ip-ext) and live IPv6 addresses of an interface. */
TOVI_API int32_t tovi_ip_addr_count_cfg(const char *if_name, uint32_t *count);
TOVI_API int32_t tovi_ip_addr_count_cfg_v6(const char *if_name, uint32_t *count);
TOVI_API int32_t tovi_ip_addr_count_v6(const char *if_name, uint32_t *count);
/** @} */

/** @{ */
/** Listings: *count holds the capacity of result on entry and the number of
 * entries stored on return (entries beyond the capacity are dropped). */
TOVI_API int32_t tovi_ip_addr_show_cfg(const char *if_name, tovi_ip_addr_s *result, uint32_t *count);
TOVI_API int32_t tovi_ip_addr_show_cfg_v6(const char *if_name, tovi_ip_addr_s *result, uint32_t *count);
TOVI_API int32_t tovi_ip_addr_show_v6(const char *if_name, tovi_ip_addr_s *result, uint32_t *count);
TOVI_API int32_t tovi_ip_rule_count_cfg(const char *dev_name, uint32_t *count);
TOVI_API int32_t tovi_ip_rule_show_cfg(const char *dev_name, tovi_ip_rule_entry_s *rules, uint32_t *count);
TOVI_API int32_t tovi_ip_route_count_cfg(const char *dev_name, uint32_t *count);
TOVI_API int32_t tovi_ip_route_show_cfg(const char *dev_name, tovi_ip_route_entry_s *routes, uint32_t *count);
/** @} */

/** Unsigned conversion as the listing parsers use it: base 0 detects a
 * "0x" or "0" prefix; *end (may be NULL) gets the first byte not used. */
TOVI_API uint32_t tovi_simple_strtoul(const char *s, char **end, uint32_t base);

/** Dotted IPv4 mask to prefix length: -22 for NULL, unparsable text or bits
 * that are not contiguous from the top. */
TOVI_API int32_t tovi_netmask_to_prefix(const char *netmask);

TOVI_EXTERN_C_END

#endif
