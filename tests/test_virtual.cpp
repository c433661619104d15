// Virtual-machine detection over fixture trees: each source alone, their
// precedence, and containers on top of a hypervisor.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "child.hpp"
#include "tovi_virtual.h"
#include "tovi_virtual.hpp"

TEST(Virtual, FixtureTrees)
{
    using Files = std::vector<std::pair<std::string, std::string>>;
    const std::string dmi = "/sys/class/dmi/id/", dt = "/proc/device-tree/";
    const std::string arm_dt("linux,dummy-virt\0arm,armv8\0", 27);
    const struct { const char *what; const char *cpuid; Files files; uint32_t kind; const char *hv, *source, *container; } cases[] = {
        {"bare metal", nullptr, {{dmi + "sys_vendor", "Supermicro\n"}, {"/proc/1/cgroup", "0::/init.scope\n"}},
         TOVI_VIRT_BARE_METAL, "", "", ""},
        {"cpuid wins over dmi", "KVMKVMKVM\0\0\0", {{dmi + "sys_vendor", "QEMU\n"}}, TOVI_VIRT_VM, "kvm", "cpuid", ""},
        {"unknown signature, dmi names it", "ZZZZZZZZZZZZ", {{dmi + "sys_vendor", "VMware, Inc.\n"}}, TOVI_VIRT_VM, "vmware", "dmi", ""},
        {"unknown signature alone", "ZZZZZZZZZZZZ", {}, TOVI_VIRT_VM, "unknown", "cpuid", ""},
        {"dmi product", nullptr, {{dmi + "sys_vendor", "Microsoft Corporation\n"}, {dmi + "product_name", "Virtual Machine\n"}},
         TOVI_VIRT_VM, "hyperv", "dmi", ""},
        {"aarch64 qemu device tree", nullptr, {{dt + "compatible", arm_dt}}, TOVI_VIRT_VM, "qemu", "device-tree", ""},
        {"aarch64 xen", nullptr, {{dt + "hypervisor/compatible", std::string("xen,xen-4.17\0xen,xen\0", 22)}},
         TOVI_VIRT_VM, "xen", "device-tree", ""},
        {"sysfs hypervisor type", nullptr, {{"/sys/hypervisor/type", "xen\n"}}, TOVI_VIRT_VM, "xen", "sysfs", ""},
        {"environ names the container", nullptr, {{"/proc/1/environ", std::string("PATH=/bin\0container=systemd-nspawn\0", 36)}},
         TOVI_VIRT_CONTAINER, "", "", "systemd-nspawn"},
        {"docker marker in a kvm guest", "KVMKVMKVM\0\0\0", {{"/.dockerenv", ""}}, TOVI_VIRT_CONTAINER, "kvm", "cpuid", "docker"},
        {"kubernetes cgroup", nullptr, {{"/proc/1/cgroup", "0::/kubepods/besteffort/pod1/abc\n"}}, TOVI_VIRT_CONTAINER, "", "",
         "kubernetes"},
    };
    for (const auto &c : cases) {
        char dir[] = "/tmp/tovi_virt_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        for (const auto &[path, text] : c.files) {
            const std::string full = dir + path;
            ASSERT_EQ(system(("mkdir -p " + full.substr(0, full.rfind('/'))).c_str()), 0);
            ASSERT_TRUE(tovi::test::write_file(full, text));
        }
        tovi_virt_info_s info;
        ASSERT_EQ(tovi::virt::detect_at(dir, c.cpuid, &info), 0);
        EXPECT_EQ(std::to_string(info.kind) + " " + info.hypervisor + "/" + info.source + "/" + info.container,
                  std::to_string(c.kind) + " " + c.hv + "/" + c.source + "/" + c.container) << c.what;
        EXPECT_EQ(system((std::string("rm -rf ") + dir).c_str()), 0);
    }
}
