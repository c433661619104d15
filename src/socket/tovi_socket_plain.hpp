// Bonding queries under another root directory, for tests with fixture files.
#pragma once

#include <string>

#include "tovi_socket_plain.h"

namespace tovi::sock {

int bond_query_at(const std::string &root, const char *ifname, tovi_bond_info_s *info);
int bond_list_at(const std::string &root, char (*names)[TOVI_BOND_IFNAME_LEN], uint32_t max, uint32_t *count);

}  // namespace tovi::sock
