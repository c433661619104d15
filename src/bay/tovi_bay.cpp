// The bay description: a strict reader over the XML module. Every rule of
// the schema in tovi_bay.h is checked before the caller's records count as
// read; the first broken rule is the one reported.
#include "tovi_bay.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tovi_bay.hpp"
#include "tovi_scope.hpp"
#include "tovi_xml.h"

#define TOVI_LOG_SOURCE "tovi_bay"
#include "tovi_log.hpp"

namespace tovi::bay {
namespace {

constexpr off_t kMaxFile = 1 << 20;

struct TypeName {
    uint32_t type;
    const char *name;
};
constexpr TypeName kTypes[] = {{TOVI_BAY_SAS, "sas"}, {TOVI_BAY_SATA, "sata"}, {TOVI_BAY_NVME, "nvme"}};

// Comments and processing instructions load as elements named "!--..." and "?xml ...".
bool is_markup(tovi_xml_node_s *e)
{
    const char *name = tovi_xml_element_getname(e);
    return name != nullptr && (name[0] == '!' || name[0] == '?');
}

tovi_xml_node_s *next_real(tovi_xml_node_s *e)
{
    while (e != nullptr && is_markup(e))
        e = tovi_xml_element_next(e);
    return e;
}

__attribute__((format(printf, 2, 3))) int malformed(const char *label, const char *fmt, ...)
{
    char reason[160];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(reason, sizeof reason, fmt, ap);
    va_end(ap);
    TOVI_LOG(tovi::log::kError, "bay: %s: %s.", label, reason);
    return -EINVAL;
}

bool parse_slot(const char *text, uint32_t *slot)
{
    uint32_t v = 0;
    size_t n = 0;
    for (; text[n] != '\0'; ++n) {
        if (text[n] < '0' || text[n] > '9' || n >= 4)
            return false;
        v = v * 10 + static_cast<uint32_t>(text[n] - '0');
    }
    *slot = v;
    return n != 0 && v <= TOVI_BAY_SLOT_MAX;
}

// Fills `bay` from the element's attributes; a message and -EINVAL when one is wrong.
int read_bay(const char *label, uint32_t n, tovi_xml_node_s *e, tovi_bay_s *bay)
{
    bool have_slot = false, have_type = false;
    std::memset(bay, 0, sizeof *bay);
    bay->enabled = 1;
    const int attrs = tovi_xml_element_attrcount(e);
    for (int i = 0; i < attrs; ++i) {
        const char *name = nullptr;
        const char *value = tovi_xml_element_attrat(e, i, &name);
        if (name == nullptr || value == nullptr)
            return malformed(label, "bay %u: attribute without a value", n);
        if (std::strcmp(name, "slot") == 0) {
            if (!parse_slot(value, &bay->slot))
                return malformed(label, "bay %u: slot '%.32s' is not a number from 0 to %u", n, value,
                                 TOVI_BAY_SLOT_MAX);
            have_slot = true;
        } else if (std::strcmp(name, "type") == 0) {
            for (const TypeName &t : kTypes)
                if (std::strcmp(value, t.name) == 0)
                    bay->type = t.type;
            if (bay->type == 0)
                return malformed(label, "bay %u: type '%.32s' is not sas, sata or nvme", n, value);
            have_type = true;
        } else if (std::strcmp(name, "location") == 0) {
            const size_t len = strnlen(value, TOVI_BAY_LOCATION_LEN);
            if (len >= TOVI_BAY_LOCATION_LEN)
                return malformed(label, "bay %u: location longer than %d bytes", n, TOVI_BAY_LOCATION_LEN - 1);
            std::memcpy(bay->location, value, len + 1);
        } else if (std::strcmp(name, "enabled") == 0) {
            if (std::strcmp(value, "yes") != 0 && std::strcmp(value, "no") != 0)
                return malformed(label, "bay %u: enabled '%.32s' is not yes or no", n, value);
            bay->enabled = value[0] == 'y' ? 1 : 0;
        } else {
            return malformed(label, "bay %u: unknown attribute '%.32s'", n, name);
        }
    }
    if (!have_slot || !have_type)
        return malformed(label, "bay %u: no %s", n, have_slot ? "type" : "slot");
    return 0;
}

int parse_tree(tovi_xml_node_s *doc, const char *label, tovi_bay_s *bays, uint32_t max, uint32_t *count)
{
    tovi_xml_node_s *root = next_real(tovi_xml_element_first(doc));
    const char *version = tovi_xml_element_getattr(root, "version");
    if (root == nullptr || std::strcmp(tovi_xml_element_getname(root), "bays") != 0 || version == nullptr ||
        std::strcmp(version, "1") != 0 || tovi_xml_element_attrcount(root) != 1)
        return malformed(label, "the root element is not <bays version=\"1\">");
    if (next_real(tovi_xml_element_next(root)) != nullptr)
        return malformed(label, "more than one root element");
    uint64_t seen[(TOVI_BAY_SLOT_MAX + 64) / 64] = {};
    std::vector<tovi_bay_s> read;  // the caller's records change only once the whole file passed
    uint32_t n = 0;
    for (tovi_xml_node_s *e = next_real(tovi_xml_element_first(root)); e != nullptr;
         e = next_real(tovi_xml_element_next(e))) {
        ++n;
        if (std::strcmp(tovi_xml_element_getname(e), "bay") != 0)
            return malformed(label, "unexpected element <%.32s>", tovi_xml_element_getname(e));
        if (next_real(tovi_xml_element_first(e)) != nullptr)
            return malformed(label, "bay %u: has child elements", n);
        tovi_bay_s bay;
        if (int rc = read_bay(label, n, e, &bay); rc != 0)
            return rc;
        uint64_t &word = seen[bay.slot / 64];
        if ((word & (1ull << (bay.slot % 64))) != 0)
            return malformed(label, "bay %u: slot %u appears twice", n, bay.slot);
        word |= 1ull << (bay.slot % 64);
        if (n <= max)
            read.push_back(bay);
    }
    if (!read.empty())
        std::memcpy(bays, read.data(), read.size() * sizeof read[0]);
    *count = n;
    if (n > max) {
        TOVI_LOG(tovi::log::kError, "bay: %s: %u bays, room for %u.", label, n, max);
        return -E2BIG;
    }
    return 0;
}

}  // namespace

int parse_fd(int fd, const char *label, tovi_bay_s *bays, uint32_t max, uint32_t *count)
{
    if (bays == nullptr && max != 0)
        return -EINVAL;
    *count = 0;
    tovi_xml_node_s *doc = tovi_xml_loadfd(fd);
    if (doc == nullptr)
        return malformed(label, "not well-formed XML");
    tovi::ScopeExit free_doc([doc] { tovi_xml_free(doc); });
    return parse_tree(doc, label, bays, max, count);
}

}  // namespace tovi::bay

extern "C" {

TOVI_API int tovi_bay_read(const char *path, tovi_bay_s *bays, uint32_t max, uint32_t *count)
{
    if (path == nullptr)
        path = TOVI_BAY_CONFIG_PATH;
    if (count == nullptr || (bays == nullptr && max != 0)) {
        TOVI_LOG(tovi::log::kError, "bay: %s: bad argument.", path);
        return -EINVAL;
    }
    *count = 0;
    // Non-blocking open: a FIFO in the file's place must not hang the caller.
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        const int err = errno;
        TOVI_LOG(tovi::log::kError, "bay: %s: cannot open (%s).", path, std::strerror(err));
        return err == ENOENT ? -ENOENT : -EIO;
    }
    struct stat st;
    int rc;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > tovi::bay::kMaxFile) {
        TOVI_LOG(tovi::log::kError, "bay: %s: not a regular file of at most 1 MiB.", path);
        rc = -EIO;
    } else {
        try {
            rc = tovi::bay::parse_fd(fd, path, bays, max, count);
        } catch (...) {
            rc = -ENOMEM;
        }
    }
    close(fd);
    return rc;
}

TOVI_API const char *tovi_bay_type_name(uint32_t type)
{
    for (const auto &t : tovi::bay::kTypes)
        if (t.type == type)
            return t.name;
    return "unknown";
}

}  // extern "C"
