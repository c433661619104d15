// Bonding queries: the driver's proc report, "Key: value" lines in blocks,
// the master's block first and one block per slave starting at "Slave
// Interface:". Lines we do not know are skipped, so newer drivers that add
// lines still read.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tovi_socket_plain.h"
#include "tovi_socket_plain.hpp"

#define TOVI_LOG_SOURCE "tovi_socket"
#include "tovi_log.hpp"

namespace tovi::sock {
namespace {

struct ModeName {
    const char *proc_text;  // as the driver writes it after "Bonding Mode: "
    const char *name;
};
// Indexed by mode number.
constexpr ModeName kModes[] = {
    {"load balancing (round-robin)", "balance-rr"},
    {"fault-tolerance (active-backup)", "active-backup"},
    {"load balancing (xor)", "balance-xor"},
    {"fault-tolerance (broadcast)", "broadcast"},
    {"IEEE 802.3ad Dynamic link aggregation", "802.3ad"},
    {"transmit load balancing", "balance-tlb"},
    {"adaptive load balancing", "balance-alb"},
};

bool valid_ifname(const char *name)
{
    const size_t len = name != nullptr ? strnlen(name, TOVI_BOND_IFNAME_LEN) : 0;
    return len > 0 && len < TOVI_BOND_IFNAME_LEN && std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
           std::strcmp(name, "..") != 0;
}

// The value of "key: value" when `line` starts with `key`, else nullptr.
const char *value_of(const char *line, const char *key)
{
    const size_t n = std::strlen(key);
    if (std::strncmp(line, key, n) != 0 || line[n] != ':')
        return nullptr;
    line += n + 1;
    while (*line == ' ')
        ++line;
    return line;
}

// Truncates, never overflows.
void copy(char *dst, size_t size, const char *src)
{
    const size_t n = strnlen(src, size - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

}  // namespace

int bond_query_at(const std::string &root, const char *ifname, tovi_bond_info_s *info)
{
    if (info == nullptr || !valid_ifname(ifname)) {
        TOVI_LOG(tovi::log::kError, "bond: bad interface name.");
        return -EINVAL;
    }
    const std::string path = root + "/proc/net/bonding/" + ifname;
    FILE *f = std::fopen(path.c_str(), "re");
    if (f == nullptr) {
        const int err = errno;
        if (err == ENOENT)
            return -ENOENT;
        TOVI_LOG(tovi::log::kError, "bond: cannot read %s (%s).", path.c_str(), std::strerror(err));
        return -EIO;
    }
    std::memset(info, 0, sizeof *info);
    info->mode = -1;
    tovi_bond_slave_s *slave = nullptr;  // the block being read; null for the master's
    uint32_t listed = 0;
    char line[256];
    while (std::fgets(line, sizeof line, f) != nullptr) {
        // The rest of an over-long line is dropped, not read as a line of its own.
        if (std::strchr(line, '\n') == nullptr)
            for (int c = std::fgetc(f); c != EOF && c != '\n';)
                c = std::fgetc(f);
        line[std::strcspn(line, "\r\n")] = '\0';
        const char *v;
        if ((v = value_of(line, "Slave Interface")) != nullptr) {
            ++listed;
            slave = listed <= TOVI_BOND_SLAVE_MAX ? &info->slaves[listed - 1] : nullptr;
            if (slave != nullptr)
                copy(slave->name, sizeof slave->name, v);
        } else if (listed > TOVI_BOND_SLAVE_MAX) {
            continue;  // a block beyond what the record holds
        } else if ((v = value_of(line, "MII Status")) != nullptr) {
            (slave != nullptr ? slave->link_up : info->link_up) = std::strcmp(v, "up") == 0 ? 1 : 0;
        } else if (slave != nullptr && (v = value_of(line, "Link Failure Count")) != nullptr) {
            slave->link_failures = static_cast<uint32_t>(std::strtoul(v, nullptr, 10));
        } else if (slave == nullptr && (v = value_of(line, "Bonding Mode")) != nullptr) {
            copy(info->mode_text, sizeof info->mode_text, v);
            info->mode = -1;  // a later mode line stands alone
            for (size_t m = 0; m < sizeof kModes / sizeof kModes[0]; ++m)
                if (std::strncmp(v, kModes[m].proc_text, std::strlen(kModes[m].proc_text)) == 0)
                    info->mode = static_cast<int32_t>(m);
        } else if (slave == nullptr && (v = value_of(line, "Currently Active Slave")) != nullptr) {
            copy(info->active, sizeof info->active, std::strcmp(v, "None") == 0 ? "" : v);
        }
    }
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed)
        return -EIO;
    info->slave_count = listed < TOVI_BOND_SLAVE_MAX ? listed : TOVI_BOND_SLAVE_MAX;
    if (info->mode_text[0] == '\0') {
        TOVI_LOG(tovi::log::kError, "bond: %s has no bonding mode.", path.c_str());
        return -EIO;
    }
    return 0;
}

int bond_list_at(const std::string &root, char (*names)[TOVI_BOND_IFNAME_LEN], uint32_t max, uint32_t *count)
{
    if (count == nullptr || (names == nullptr && max != 0))
        return -EINVAL;
    *count = 0;
    const std::string path = root + "/sys/class/net/bonding_masters";
    FILE *f = std::fopen(path.c_str(), "re");
    if (f == nullptr)
        return 0;  // no bonding driver, no masters
    char word[64];
    while (std::fscanf(f, "%63s", word) == 1) {
        // A word longer than the buffer comes in pieces: its tail is no name of its own.
        bool whole = true;
        for (int c = std::fgetc(f); c != EOF && std::isspace(c) == 0; c = std::fgetc(f))
            whole = false;
        if (!whole || !valid_ifname(word))
            continue;
        if (*count < max)
            copy(names[*count], TOVI_BOND_IFNAME_LEN, word);
        ++*count;
    }
    std::fclose(f);
    return 0;
}

}  // namespace tovi::sock

extern "C" {

TOVI_API int tovi_bond_query(const char *ifname, tovi_bond_info_s *info)
{
    try {
        return tovi::sock::bond_query_at("", ifname, info);
    } catch (...) {
        return -ENOMEM;
    }
}

TOVI_API const char *tovi_bond_mode_name(int32_t mode)
{
    constexpr int32_t n = sizeof tovi::sock::kModes / sizeof tovi::sock::kModes[0];
    return mode >= 0 && mode < n ? tovi::sock::kModes[mode].name : "unknown";
}

TOVI_API int tovi_bond_list(char (*names)[TOVI_BOND_IFNAME_LEN], uint32_t max, uint32_t *count)
{
    try {
        return tovi::sock::bond_list_at("", names, max, count);
    } catch (...) {
        return -ENOMEM;
    }
}

}  // extern "C"
