/**
 * @file
 * AES block cipher: key set-up and single-block (ECB) encryption and
 * decryption with 128-, 192- and 256-bit keys, over libcrypto's EVP
 * interface.
 *
 * The caller owns the key record; tovi_aes_setkey fills it (releasing what
 * it held before), tovi_aes_release frees the cipher contexts and wipes the
 * record, so no key schedule stays in memory. A record needs no preparation:
 * the functions touch only contexts that the record's check value ties to
 * it, so an uninitialised record reads as one without a key (zeroing it
 * first does no harm). A record given up without tovi_aes_release leaks its
 * contexts, and copies of a record share them: release one copy only. One
 * record may serve one thread at a time; separate records are independent.
 *
 * Results (negated errno family): 0 success, -22 a NULL argument, a key
 * length other than 128, 192 or 256 bits, or a record without a key; -12 no
 * memory; -5 libcrypto refused the operation (logged at level 3).
 */
#ifndef TOVI_CRYPT_H
#define TOVI_CRYPT_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** Bytes in one AES block. */
#define TOVI_AES_BLOCK 16

/** A key set up for both directions; its fields are the library's. */
typedef struct tovi_aes_key_s {
    void *enc;     /**< encryption context */
    void *dec;     /**< decryption context */
    uint32_t bits; /**< 128, 192 or 256; 0 without a key */
    uint32_t check; /**< ties the fields together; a record that does not match holds no key */
} tovi_aes_key_s;

/** Sets up `key` from `bits` / 8 bytes of `raw`: 0, -22, -12 or -5. */
TOVI_API int tovi_aes_setkey(tovi_aes_key_s *key, const uint8_t *raw, uint32_t bits);

/** Encrypts one 16-byte block `in` into `out` (they may be the same): 0, -22 or -5. */
TOVI_API int tovi_aes_encrypt(const tovi_aes_key_s *key, const uint8_t *in, uint8_t *out);

/** Decrypts one 16-byte block `in` into `out` (they may be the same): 0, -22 or -5. */
TOVI_API int tovi_aes_decrypt(const tovi_aes_key_s *key, const uint8_t *in, uint8_t *out);

/** Frees the contexts and wipes the record (all zero afterwards); NULL is ignored. */
TOVI_API void tovi_aes_release(tovi_aes_key_s *key);

TOVI_EXTERN_C_END

#endif
