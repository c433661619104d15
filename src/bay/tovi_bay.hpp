// The bay reader over an open descriptor, for the fuzz target and tests.
#pragma once

#include "tovi_bay.h"

namespace tovi::bay {

// Parses the XML read from `fd` (to its end) as tovi_bay_read does; `label`
// names it in messages.
int parse_fd(int fd, const char *label, tovi_bay_s *bays, uint32_t max, uint32_t *count);

}  // namespace tovi::bay
