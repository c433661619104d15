/**
 * @file
 * Bit operations on bitmaps, byte order, dynamic loading and the two
 * checksums used on data blocks: CRC32C (Castagnoli) and CRC16 T10-DIF.
 *
 * A bitmap is an array of bytes: bit n lives in byte n / 8 at position
 * n % 8 (so, on this little-endian machine, equally an array of 64-bit
 * words). The searches read only the bytes that hold bits below the size.
 *
 * The atomic bit operations change one byte atomically but order nothing
 * around them: a caller that publishes data through a bit orders it itself.
 *
 * The bit operations and the four find_* searches do not check their bitmap
 * for NULL, as the kernel's do not: they sit on hot paths and a NULL bitmap
 * is a caller's bug. The tovi_bitop_* searches, the reads and the checksums
 * do check (see each).
 */
#ifndef TOVI_BITOP_H
#define TOVI_BITOP_H

#include <stddef.h>

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** @{ */
/** Atomically sets / clears bit `nr` of the bitmap. */
TOVI_API void tovi_set_bit(uint64_t nr, volatile void *bitmap);
TOVI_API void tovi_clear_bit(uint64_t nr, volatile void *bitmap);
/** @} */

/** @{ */
/** Atomically sets / clears bit `nr`; returns its previous value, 0 or 1. */
TOVI_API int tovi_test_and_set_bit(uint64_t nr, volatile void *bitmap);
TOVI_API int tovi_test_and_clear_bit(uint64_t nr, volatile void *bitmap);
/** @} */

/** @{ */
/** The first set / clear bit among the `size` bits; `size` when there is none. */
TOVI_API uint64_t find_first_bit(const void *bitmap, uint64_t size);
TOVI_API uint64_t find_first_zero_bit(const void *bitmap, uint64_t size);
/** @} */

/** @{ */
/** The first set / clear bit at or above `start` and below `size`; `size`
 * when there is none (also when `start` is not below `size`). */
TOVI_API uint64_t find_next_bit(const void *bitmap, uint64_t size, uint64_t start);
TOVI_API uint64_t tovi_find_next_zero_bit(const void *bitmap, uint64_t size, uint64_t start);
/** @} */

/** @{ */
/** Checked searches among the `size` bits: 1 with the bit number in *bit when
 * a set (clear) bit exists, else 0; 0 at once when `bitmap` or `bit` is NULL.
 * tovi_bitop_findnextsetbit starts at the value *bit holds on entry, so
 *   for (b = 0; tovi_bitop_findnextsetbit(map, n, &b); ++b) ...
 * visits every set bit. */
TOVI_API uint32_t tovi_bitop_findfirstsetbit(const void *bitmap, uint64_t size, uint64_t *bit);
TOVI_API uint32_t tovi_bitop_findfirstclrbit(const void *bitmap, uint64_t size, uint64_t *bit);
TOVI_API uint32_t tovi_bitop_findnextsetbit(const void *bitmap, uint64_t size, uint64_t *bit);
/** @} */

/** The first `nbits` bits as a number (all 64 when `nbits` is 64 or more);
 * reads only the bytes that hold them. 0 for nbits 0 or a NULL bitmap. */
TOVI_API uint64_t tovi_bitop_read_u64(const void *bitmap, uint32_t nbits);

/** @{ */
/** Number of set bits. */
TOVI_API uint32_t tovi_hweight32(uint32_t value);
TOVI_API uint32_t tovi_hweight64(uint64_t value);
/** @} */

/** @{ */
/** Byte order: identity to and from little-endian, a byte swap to and from
 * big-endian. */
TOVI_API uint16_t tovi_endian_cputolittle16(uint16_t value);
TOVI_API uint32_t tovi_endian_cputolittle32(uint32_t value);
TOVI_API uint64_t tovi_endian_cputolittle64(uint64_t value);
TOVI_API uint16_t tovi_endian_littletocpu16(uint16_t value);
TOVI_API uint32_t tovi_endian_littletocpu32(uint32_t value);
TOVI_API uint64_t tovi_endian_littletocpu64(uint64_t value);
TOVI_API uint16_t tovi_endian_cputobig16(uint16_t value);
TOVI_API uint32_t tovi_endian_cputobig32(uint32_t value);
TOVI_API uint64_t tovi_endian_cputobig64(uint64_t value);
TOVI_API uint16_t tovi_endian_bigtocpu16(uint16_t value);
TOVI_API uint32_t tovi_endian_bigtocpu32(uint32_t value);
TOVI_API uint64_t tovi_endian_bigtocpu64(uint64_t value);
/** @} */

/** @{ */
/** dlopen, dlsym, dlerror and dlclose, with their results. */
TOVI_API void *tovi_dlopen(const char *file, int mode);
TOVI_API void *tovi_dlsym(void *handle, const char *name);
TOVI_API char *tovi_dlerror(void);
TOVI_API int tovi_dlclose(void *handle);
/** @} */

/** Points the CRC32C dispatch at the hardware routine (the table routine on
 * a processor without the CRC32C instructions). 0. Start-up calls it. */
TOVI_API uint32_t tovi_crc32_init(void);

/** Continues a CRC32C over `len` bytes, without inversion, through the
 * dispatch. A NULL buffer or zero length returns `crc` unchanged. */
TOVI_API uint32_t tovi_crc32cContinue(uint32_t crc, const void *buf, uint32_t len);

/** @{ */
/** The same on the hardware path / the table path, callable at any time. */
TOVI_API uint32_t tovi_crc32cContinueHard(uint32_t crc, const void *buf, uint32_t len);
TOVI_API uint32_t tovi_crc32cContinueSoft(uint32_t crc, const void *buf, uint32_t len);
/** @} */

/** Copies `len` bytes from `src` to `dst` (which must not overlap) while
 * continuing the CRC32C over them on the hardware path. A NULL pointer or
 * zero length copies nothing and returns `crc` unchanged. */
TOVI_API uint32_t tovi_crc32cContinue_with_cpy(uint32_t crc, const void *src, uint32_t len, void *dst);

/** tovi_crc32cContinue(0xFFFFFFFF, buf, len). */
TOVI_API uint32_t tovi_crc32cStart(const void *buf, uint32_t len);

/** ~crc: ends a CRC32C begun with tovi_crc32cStart. */
TOVI_API uint32_t tovi_crc32cEnd(uint32_t crc);

/** The CRC32C of a buffer: start, continue and end in one call. */
TOVI_API uint32_t tovi_crc32c(const void *buf, uint32_t len);

/** The same on the table path; 0 for a NULL buffer or zero length. */
TOVI_API uint32_t tovi_crc32c_soft(const void *buf, uint32_t len);

/** Continues a CRC16 T10-DIF (polynomial 0x8BB7, no reflection, no final
 * XOR) from `crc` over `len` bytes with the vector routine. A NULL buffer or
 * zero length returns `crc` unchanged. */
TOVI_API uint16_t tovi_crc16(uint16_t crc, const void *buf, uint64_t len);

/** The same on the table path. */
TOVI_API uint16_t tovi_crc16_soft(uint16_t crc, const void *buf, uint64_t len);

TOVI_EXTERN_C_END

#endif
