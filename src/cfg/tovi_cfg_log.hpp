// Logging of the configuration module: every file of it logs under the
// module's one source name, "tovi_cfg".
#pragma once

#include "tovi_log.hpp"

#undef TOVI_LOG_FILE
#define TOVI_LOG_FILE "tovi_cfg"
