// Virtual-machine detection: a few small files, each matched against a
// table of known names; the first source that names a hypervisor wins.
#include "tovi_virtual.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tovi_arch.hpp"
#include "tovi_virtual.hpp"

namespace tovi::virt {
namespace {

struct Match {
    const char *needle;
    const char *name;
};

constexpr Match kCpuid[] = {
    {"KVMKVMKVM", "kvm"},       {"TCGTCGTCGTCG", "qemu"}, {"VMwareVMware", "vmware"}, {"Microsoft Hv", "hyperv"},
    {"XenVMMXenVMM", "xen"},    {"VBoxVBoxVBox", "virtualbox"}, {"bhyve bhyve ", "bhyve"},
    {"ACRNACRNACRN", "acrn"},   {" lrpepyh  vr", "parallels"},
};
// DMI vendor or product text; the first match in table order.
constexpr Match kDmi[] = {
    {"KVM", "kvm"},         {"QEMU", "qemu"},        {"VMware", "vmware"},        {"innotek GmbH", "virtualbox"},
    {"VirtualBox", "virtualbox"}, {"Xen", "xen"},    {"Amazon EC2", "amazon"},    {"Google", "google"},
    {"Parallels", "parallels"}, {"BHYVE", "bhyve"},  {"Virtual Machine", "hyperv"},
};
constexpr Match kDeviceTree[] = {{"xen,xen", "xen"}, {"linux,dummy-virt", "qemu"}, {"kvm", "kvm"}};
constexpr Match kCgroup[] = {{"kubepods", "kubernetes"}, {"/docker", "docker"}, {"/libpod", "podman"}, {"/lxc", "lxc"}};

// The first 4 KiB of a file; NUL bytes (device-tree lists, environ) become '\n'.
std::string slurp(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return "";
    char buf[4096];
    ssize_t n;
    do {
        n = read(fd, buf, sizeof buf);
    } while (n < 0 && errno == EINTR);
    close(fd);
    std::string text(buf, n > 0 ? static_cast<size_t>(n) : 0);
    for (char &c : text)
        if (c == '\0')
            c = '\n';
    return text;
}

const char *match(const std::string &text, const Match *table, size_t n)
{
    for (size_t i = 0; i < n && !text.empty(); ++i)
        if (text.find(table[i].needle) != std::string::npos)
            return table[i].name;
    return nullptr;
}

template <size_t N>
const char *match(const std::string &text, const Match (&table)[N])
{
    return match(text, table, N);
}

void put(char *dst, size_t size, const char *src)
{
    const size_t n = strnlen(src, size - 1);
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

const char *container_of(const std::string &root)
{
    static thread_local char from_environ[32];
    const std::string environ = "\n" + slurp(root + "/proc/1/environ");
    if (const size_t at = environ.find("\ncontainer="); at != std::string::npos) {
        const size_t start = at + 11, end = environ.find('\n', start);
        const std::string name = environ.substr(start, end - start);
        if (!name.empty()) {
            put(from_environ, sizeof from_environ, name.c_str());
            return from_environ;
        }
    }
    if (access((root + "/.dockerenv").c_str(), F_OK) == 0)
        return "docker";
    if (access((root + "/run/.containerenv").c_str(), F_OK) == 0)
        return "podman";
    return match(slurp(root + "/proc/1/cgroup"), kCgroup);
}

}  // namespace

int detect_at(const std::string &root, const char *cpuid_vendor, tovi_virt_info_s *info)
{
    if (info == nullptr)
        return -EINVAL;
    std::memset(info, 0, sizeof *info);
    const char *hv = nullptr, *source = "";
    if (cpuid_vendor != nullptr) {
        hv = match(cpuid_vendor, kCpuid);
        source = "cpuid";
    }
    struct { std::string path; const Match *table; size_t n; const char *source; } const files[] = {
        {"/sys/class/dmi/id/sys_vendor", kDmi, std::size(kDmi), "dmi"},
        {"/sys/class/dmi/id/product_name", kDmi, std::size(kDmi), "dmi"},
        {"/proc/device-tree/hypervisor/compatible", kDeviceTree, std::size(kDeviceTree), "device-tree"},
        {"/proc/device-tree/compatible", kDeviceTree, std::size(kDeviceTree), "device-tree"},
    };
    for (const auto &f : files) {
        if (hv != nullptr)
            break;
        if ((hv = match(slurp(root + f.path), f.table, f.n)) != nullptr)
            source = f.source;
    }
    if (hv == nullptr) {
        std::string type = slurp(root + "/sys/hypervisor/type");
        type.erase(type.find_last_not_of(" \n") + 1);
        if (!type.empty()) {
            hv = type == "xen" ? "xen" : "unknown";
            source = "sysfs";
        }
    }
    if (hv == nullptr && cpuid_vendor != nullptr)
        hv = "unknown";
    if (hv != nullptr) {
        put(info->hypervisor, sizeof info->hypervisor, hv);
        put(info->source, sizeof info->source, source);
        info->kind = TOVI_VIRT_VM;
    }
    if (const char *c = container_of(root); c != nullptr) {
        put(info->container, sizeof info->container, c);
        info->kind = TOVI_VIRT_CONTAINER;
    }
    return 0;
}

}  // namespace tovi::virt

extern "C" TOVI_API int tovi_virt_detect(tovi_virt_info_s *info)
{
    char vendor[13];
    try {
        return tovi::virt::detect_at("", tovi::arch::hypervisor_vendor(vendor) ? vendor : nullptr, info);
    } catch (...) {
        return -ENOMEM;
    }
}
