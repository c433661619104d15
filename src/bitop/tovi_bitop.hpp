// Internal view of the checksum routines, for the tests.
#pragma once

#include <cstdint>

namespace tovi::bitop {

using Crc32cRoutine = uint32_t (*)(uint32_t crc, const uint8_t *p, uint64_t n);

// The 256-entry tables of the table paths.
const uint32_t *crc32c_table();
const uint16_t *crc16_table();

// The hardware routine (the table routine without the CRC32C instructions),
// and what the dispatch holds now (nullptr before tovi_crc32_init).
Crc32cRoutine crc32c_hardware_routine();
Crc32cRoutine crc32c_dispatch();

}  // namespace tovi::bitop
