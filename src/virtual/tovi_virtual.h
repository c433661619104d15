/**
 * @file
 * Virtual-machine and container detection: is the process on bare metal,
 * in a virtual machine (and whose), or in a container (and which)?
 *
 * The hypervisor comes from, in order: the processor (x86_64: CPUID's
 * hypervisor bit and vendor signature), DMI ("/sys/class/dmi/id/sys_vendor"
 * and "product_name"), the device tree ("/proc/device-tree/hypervisor/
 * compatible", "/proc/device-tree/compatible"; aarch64 machines) and
 * "/sys/hypervisor/type". A hypervisor bit with a signature we do not know
 * is reported as "unknown" unless a later source names it.
 * The container comes from "/proc/1/environ" ("container=<name>"), the
 * marker files "/.dockerenv" and "/run/.containerenv", then
 * "/proc/1/cgroup". Unreadable sources are skipped silently.
 *
 * Results: 0, or -22 for a NULL argument. The answer does not change while
 * the process runs; callers may keep it.
 */
#ifndef TOVI_VIRTUAL_H
#define TOVI_VIRTUAL_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Where the process runs. */
typedef enum tovi_virt_kind_e {
    TOVI_VIRT_BARE_METAL = 0,
    TOVI_VIRT_VM = 1,        /**< under a hypervisor, not in a container */
    TOVI_VIRT_CONTAINER = 2, /**< in a container (perhaps also in a virtual machine) */
} tovi_virt_kind_e;

/** What tovi_virt_detect found. */
typedef struct tovi_virt_info_s {
    uint32_t kind;        /**< a tovi_virt_kind_e */
    char hypervisor[32];  /**< "kvm", "qemu", "vmware", "hyperv", "xen", "virtualbox", "amazon",
                               "google", "parallels", "bhyve", "acrn", "unknown"; "" for none */
    char source[16];      /**< where it was seen: "cpuid", "dmi", "device-tree", "sysfs"; "" */
    char container[32];   /**< "docker", "podman", "lxc", "kubernetes", the environ's name; "" */
} tovi_virt_info_s;

/** Fills `*info` for the running process: 0 or -22. */
TOVI_API int tovi_virt_detect(tovi_virt_info_s *info);

TOVI_EXTERN_C_END

#endif
