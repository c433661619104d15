// AES over EVP: one context per direction, set up once with the key and
// padding off, so a block costs one EVP_CipherUpdate. EVP_CIPHER_CTX_free
// cleanses the key schedule; the record itself is wiped with
// OPENSSL_cleanse, which the compiler cannot drop as a dead store.
#include "tovi_crypt.h"

#include <cerrno>

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

int one_block(void *ctx, const uint8_t *in, uint8_t *out)
{
    if (ctx == nullptr || in == nullptr || out == nullptr)
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
    EVP_CIPHER_CTX_free(static_cast<EVP_CIPHER_CTX *>(key->enc));
    EVP_CIPHER_CTX_free(static_cast<EVP_CIPHER_CTX *>(key->dec));
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
    key->enc = make_ctx(cipher, raw, 1, &rc);
    if (key->enc != nullptr)
        key->dec = make_ctx(cipher, raw, 0, &rc);
    if (rc != 0) {
        tovi_aes_release(key);
        return rc;
    }
    key->bits = bits;
    return 0;
}

TOVI_API int tovi_aes_encrypt(const tovi_aes_key_s *key, const uint8_t *in, uint8_t *out)
{
    return key == nullptr ? -EINVAL : one_block(key->enc, in, out);
}

TOVI_API int tovi_aes_decrypt(const tovi_aes_key_s *key, const uint8_t *in, uint8_t *out)
{
    return key == nullptr ? -EINVAL : one_block(key->dec, in, out);
}

}  // extern "C"
