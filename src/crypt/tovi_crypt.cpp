// AES over EVP: one context per direction, set up once with the key and
// padding off, so a block costs one EVP_CipherUpdate. EVP_CIPHER_CTX_free
// cleanses the key schedule; the record itself is wiped with
// OPENSSL_cleanse, which the compiler cannot drop as a dead store.
#include "tovi_crypt.h"

#include <cerrno>
#include <cstdint>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#define TOVI_LOG_SOURCE "tovi_crypt"
#include "tovi_log.hpp"

namespace {

const EVP_CIPHER *cipher_for(uint32_t bits)
{
    switch (bits) {
    case 128: return EVP_aes_128_ecb();
    case 192: return EVP_aes_192_ecb();
    case 256: return EVP_aes_256_ecb();
    default: return nullptr;
    }
}

EVP_CIPHER_CTX *make_ctx(const EVP_CIPHER *cipher, const uint8_t *raw, int enc, int *rc)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    if (ctx == nullptr) {
        *rc = -ENOMEM;
        return nullptr;
    }
    if (EVP_CipherInit_ex2(ctx, cipher, raw, nullptr, enc, nullptr) != 1 || EVP_CIPHER_CTX_set_padding(ctx, 0) != 1) {
        TOVI_LOG(tovi::log::kError, "aes: %s key set-up refused.", enc != 0 ? "encryption" : "decryption");
        EVP_CIPHER_CTX_free(ctx);
        *rc = -EIO;
        return nullptr;
    }
    return ctx;
}

// A record holds a key only when its check matches its fields, so stack
// garbage in a record never set up is not taken for contexts to free or use.
uint32_t check_of(const tovi_aes_key_s *key)
{
    const uint64_t mix = (reinterpret_cast<uintptr_t>(key->enc) * 0x9E3779B97F4A7C15ull) ^
                         reinterpret_cast<uintptr_t>(key->dec) ^ key->bits;
    return static_cast<uint32_t>(mix >> 32) ^ static_cast<uint32_t>(mix) ^ 0x5A3C96E1u;
}

bool holds_key(const tovi_aes_key_s *key)
{
    return key->enc != nullptr && key->dec != nullptr && key->check == check_of(key);
}

int one_block(const tovi_aes_key_s *key, void *ctx, const uint8_t *in, uint8_t *out)
{
    if (key == nullptr || !holds_key(key) || in == nullptr || out == nullptr)
        return -EINVAL;
    int len = 0;
    if (EVP_CipherUpdate(static_cast<EVP_CIPHER_CTX *>(ctx), out, &len, in, TOVI_AES_BLOCK) != 1 ||
        len != TOVI_AES_BLOCK) {
        TOVI_LOG(tovi::log::kError, "aes: block operation refused.");
        return -EIO;
    }
    return 0;
}

}  // namespace

extern "C" {

TOVI_API void tovi_aes_release(tovi_aes_key_s *key)
{
    if (key == nullptr)
        return;
    if (holds_key(key)) {
        EVP_CIPHER_CTX_free(static_cast<EVP_CIPHER_CTX *>(key->enc));
        EVP_CIPHER_CTX_free(static_cast<EVP_CIPHER_CTX *>(key->dec));
    }
    OPENSSL_cleanse(key, sizeof *key);
}

TOVI_API int tovi_aes_setkey(tovi_aes_key_s *key, const uint8_t *raw, uint32_t bits)
{
    const EVP_CIPHER *cipher = cipher_for(bits);
    if (key == nullptr || raw == nullptr || cipher == nullptr) {
        TOVI_LOG(tovi::log::kError, "aes: bad key (%u bits).", bits);
        return -EINVAL;
    }
    tovi_aes_release(key);
    int rc = 0;
    EVP_CIPHER_CTX *enc = make_ctx(cipher, raw, 1, &rc);
    EVP_CIPHER_CTX *dec = enc != nullptr ? make_ctx(cipher, raw, 0, &rc) : nullptr;
    if (rc != 0) {
        EVP_CIPHER_CTX_free(enc);
        return rc;
    }
    key->enc = enc;
    key->dec = dec;
    key->bits = bits;
    key->check = check_of(key);
    return 0;
}

TOVI_API int tovi_aes_encrypt(const tovi_aes_key_s *key, const uint8_t *in, uint8_t *out)
{
    return one_block(key, key != nullptr ? key->enc : nullptr, in, out);
}

TOVI_API int tovi_aes_decrypt(const tovi_aes_key_s *key, const uint8_t *in, uint8_t *out)
{
    return one_block(key, key != nullptr ? key->dec : nullptr, in, out);
}

}  // extern "C"
