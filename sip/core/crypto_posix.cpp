// The crypto primitives from OpenSSL's libcrypto.
#include <algorithm>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include "sip/core/crypto.h"

namespace kelsip::crypto {

namespace {

struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
struct MacFree {
    void operator()(EVP_MAC* mac) const { EVP_MAC_free(mac); }
};
struct MacCtxFree {
    void operator()(EVP_MAC_CTX* ctx) const { EVP_MAC_CTX_free(ctx); }
};

// Counter mode is done over ECB blocks (crypto_common.cpp) rather than through OpenSSL's CTR:
// SRTP wants the counter to wrap within its low 16 bits, where OpenSSL's
// carries into the whole block.
class OpenSslAesCounter final : public AesCounter {
public:
    explicit OpenSslAesCounter(std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx) : ctx_(std::move(ctx)) {}

    bool encryptBlocks(const uint8_t* in, uint8_t* out, size_t bytes) override {
        int outLength = 0;
        return EVP_EncryptUpdate(ctx_.get(), out, &outLength, in, static_cast<int>(bytes)) == 1 &&
               outLength == static_cast<int>(bytes);
    }

private:
    std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx_;
};

class OpenSslHmacSha1 final : public HmacSha1 {
public:
    OpenSslHmacSha1(std::unique_ptr<EVP_MAC, MacFree> mac, std::unique_ptr<EVP_MAC_CTX, MacCtxFree> ctx)
        : mac_(std::move(mac)), ctx_(std::move(ctx)) {}

    bool compute(std::span<const std::span<const uint8_t>> parts, Sha1Digest& out) override {
        // A null key starts again with the key the context was set up with.
        if (EVP_MAC_init(ctx_.get(), nullptr, 0, nullptr) != 1) return false;
        for (const auto& part : parts) {
            if (!part.empty() && EVP_MAC_update(ctx_.get(), part.data(), part.size()) != 1) return false;
        }
        size_t length = 0;
        return EVP_MAC_final(ctx_.get(), out.data(), &length, out.size()) == 1 && length == out.size();
    }

private:
    std::unique_ptr<EVP_MAC, MacFree> mac_;
    std::unique_ptr<EVP_MAC_CTX, MacCtxFree> ctx_;
};

}  // namespace

bool available() { return true; }

std::unique_ptr<AesCounter> AesCounter::create(std::span<const uint8_t> key) {
    const EVP_CIPHER* cipher = nullptr;
    switch (key.size()) {
        case 16: cipher = EVP_aes_128_ecb(); break;
        case 24: cipher = EVP_aes_192_ecb(); break;
        case 32: cipher = EVP_aes_256_ecb(); break;
        default: return nullptr;
    }
    std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
    if (!ctx || EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, key.data(), nullptr) != 1) return nullptr;
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    return std::make_unique<OpenSslAesCounter>(std::move(ctx));
}

std::unique_ptr<HmacSha1> HmacSha1::create(std::span<const uint8_t> key) {
    std::unique_ptr<EVP_MAC, MacFree> mac(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
    if (!mac) return nullptr;
    std::unique_ptr<EVP_MAC_CTX, MacCtxFree> ctx(EVP_MAC_CTX_new(mac.get()));
    if (!ctx) return nullptr;
    char digest[] = "SHA1";
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                 OSSL_PARAM_construct_end()};
    // An empty key is a valid HMAC key; OpenSSL wants a non-null pointer for it.
    static const uint8_t kNoKey = 0;
    if (EVP_MAC_init(ctx.get(), key.empty() ? &kNoKey : key.data(), key.size(), params) != 1) return nullptr;
    return std::make_unique<OpenSslHmacSha1>(std::move(mac), std::move(ctx));
}

}  // namespace kelsip::crypto
