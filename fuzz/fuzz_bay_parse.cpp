// Fuzzes the bay reader and the XML walk under it: any bytes either load
// into records that keep every rule of the schema or are refused with
// -EINVAL / -E2BIG; walking any loaded tree touches only what it holds.
// fuzz-seconds: 30
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tovi_bay.hpp"
#include "tovi_xml.h"
#include "vrlog.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    vrlog_loglevel_set(VRLOG_ALL_MODULES, 0);  // refusals are logged; the fuzzer needs none of it
    return 0;
}

namespace {

int memory_file(const uint8_t *data, size_t size)
{
    int fd = memfd_create("bay", MFD_CLOEXEC);
    if (fd < 0 || (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) || lseek(fd, 0, SEEK_SET) != 0)
        abort();
    return fd;
}

size_t walk(tovi_xml_node_s *node, int depth)
{
    size_t bytes = 0;
    for (tovi_xml_node_s *e = tovi_xml_element_first(node); e != nullptr; e = tovi_xml_element_next(e)) {
        bytes += std::strlen(tovi_xml_element_getname(e)) + std::strlen(tovi_xml_element_gettext(e));
        for (int i = 0; i < tovi_xml_element_attrcount(e); ++i) {
            const char *name = nullptr;
            const char *value = tovi_xml_element_attrat(e, i, &name);
            bytes += (name != nullptr ? std::strlen(name) : 0) + (value != nullptr ? std::strlen(value) : 0);
        }
        if (depth < 64)
            bytes += walk(e, depth + 1);
    }
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int fd = memory_file(data, size);
    if (tovi_xml_node_s *doc = tovi_xml_loadfd(fd); doc != nullptr) {
        if (walk(doc, 0) > 64 * size + 64)
            abort();
        tovi_xml_free(doc);
    }
    lseek(fd, 0, SEEK_SET);
    tovi_bay_s bays[8];
    uint32_t count = 99;
    const int rc = tovi::bay::parse_fd(fd, "fuzz", bays, 8, &count);
    close(fd);
    if (rc != 0 && rc != -EINVAL && rc != -E2BIG)
        abort();
    if (rc == -E2BIG && count <= 8)
        abort();
    if (rc != 0)
        return 0;
    uint64_t seen[16] = {};
    for (uint32_t i = 0; i < count && i < 8; ++i) {
        const tovi_bay_s &b = bays[i];
        if (b.slot > TOVI_BAY_SLOT_MAX || (seen[b.slot / 64] >> (b.slot % 64) & 1) != 0 || b.type < TOVI_BAY_SAS ||
            b.type > TOVI_BAY_NVME || b.enabled > 1 || memchr(b.location, '\0', sizeof b.location) == nullptr)
            abort();
        seen[b.slot / 64] |= 1ull << (b.slot % 64);
    }
    return 0;
}
