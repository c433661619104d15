// Detection under another root directory and with a given CPUID vendor,
// for tests with fixture trees.
#pragma once

#include <string>

#include "tovi_virtual.h"

namespace tovi::virt {

// `cpuid_vendor`: the hypervisor signature, or nullptr when the hypervisor bit is clear.
int detect_at(const std::string &root, const char *cpuid_vendor, tovi_virt_info_s *info);

}  // namespace tovi::virt
