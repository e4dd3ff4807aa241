// The crypto primitives from CNG (BCrypt).
#include <windows.h>
#include <bcrypt.h>

#include <algorithm>
#include <vector>

#include "sip/core/crypto.h"

namespace kelsip::crypto {

namespace {

struct AlgorithmCloser {
    void operator()(BCRYPT_ALG_HANDLE h) const { ::BCryptCloseAlgorithmProvider(h, 0); }
};
struct KeyDestroyer {
    void operator()(BCRYPT_KEY_HANDLE h) const { ::BCryptDestroyKey(h); }
};
struct HashDestroyer {
    void operator()(BCRYPT_HASH_HANDLE h) const { ::BCryptDestroyHash(h); }
};
using Algorithm = std::unique_ptr<void, AlgorithmCloser>;
using Key = std::unique_ptr<void, KeyDestroyer>;
using Hash = std::unique_ptr<void, HashDestroyer>;

// Counter mode over ECB blocks: CNG has no CTR mode, and SRTP's counter
// wraps within its low 16 bits anyway.
class CngAesCounter final : public AesCounter {
public:
    CngAesCounter(Algorithm algorithm, std::vector<uint8_t> keyObject, Key key)
        : algorithm_(std::move(algorithm)), keyObject_(std::move(keyObject)), key_(std::move(key)) {}

    bool encryptBlocks(const uint8_t* in, uint8_t* out, size_t bytes) override {
        ULONG written = 0;
        return BCRYPT_SUCCESS(::BCryptEncrypt(key_.get(), const_cast<PUCHAR>(in), static_cast<ULONG>(bytes), nullptr,
                                              nullptr, 0, out, static_cast<ULONG>(bytes), &written, 0)) &&
               written == bytes;
    }

private:
    Algorithm algorithm_;
    std::vector<uint8_t> keyObject_;  // CNG keeps the expanded key here
    Key key_;
};

// A keyed hash made once; each message hashes a duplicate of it, so the
// key schedule is not redone per packet.
class CngHmacSha1 final : public HmacSha1 {
public:
    CngHmacSha1(Algorithm algorithm, ULONG objectSize, std::vector<uint8_t> templateObject, Hash keyed)
        : algorithm_(std::move(algorithm)),
          objectSize_(objectSize),
          templateObject_(std::move(templateObject)),
          keyed_(std::move(keyed)),
          workObject_(objectSize) {}

    bool compute(std::span<const std::span<const uint8_t>> parts, Sha1Digest& out) override {
        BCRYPT_HASH_HANDLE raw = nullptr;
        if (!BCRYPT_SUCCESS(::BCryptDuplicateHash(keyed_.get(), &raw, workObject_.data(), objectSize_, 0))) {
            return false;
        }
        Hash work(raw);
        for (const auto& part : parts) {
            if (part.empty()) continue;
            if (!BCRYPT_SUCCESS(::BCryptHashData(work.get(), const_cast<PUCHAR>(part.data()),
                                                 static_cast<ULONG>(part.size()), 0))) {
                return false;
            }
        }
        return BCRYPT_SUCCESS(::BCryptFinishHash(work.get(), out.data(), static_cast<ULONG>(out.size()), 0));
    }

private:
    Algorithm algorithm_;
    ULONG objectSize_;
    std::vector<uint8_t> templateObject_;
    Hash keyed_;
    std::vector<uint8_t> workObject_;
};

Algorithm openAlgorithm(LPCWSTR id, ULONG flags) {
    BCRYPT_ALG_HANDLE raw = nullptr;
    if (!BCRYPT_SUCCESS(::BCryptOpenAlgorithmProvider(&raw, id, nullptr, flags))) return nullptr;
    return Algorithm(raw);
}

ULONG objectLength(BCRYPT_ALG_HANDLE algorithm) {
    DWORD size = 0;
    ULONG got = 0;
    if (!BCRYPT_SUCCESS(::BCryptGetProperty(algorithm, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&size),
                                            sizeof size, &got, 0))) {
        return 0;
    }
    return size;
}

}  // namespace

bool available() { return true; }

std::unique_ptr<AesCounter> AesCounter::create(std::span<const uint8_t> key) {
    if (key.size() != 16 && key.size() != 24 && key.size() != 32) return nullptr;
    Algorithm algorithm = openAlgorithm(BCRYPT_AES_ALGORITHM, 0);
    if (!algorithm) return nullptr;
    const wchar_t mode[] = BCRYPT_CHAIN_MODE_ECB;
    if (!BCRYPT_SUCCESS(::BCryptSetProperty(algorithm.get(), BCRYPT_CHAINING_MODE,
                                            reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(mode)), sizeof mode, 0))) {
        return nullptr;
    }
    const ULONG size = objectLength(algorithm.get());
    if (size == 0) return nullptr;
    std::vector<uint8_t> object(size);
    BCRYPT_KEY_HANDLE raw = nullptr;
    if (!BCRYPT_SUCCESS(::BCryptGenerateSymmetricKey(algorithm.get(), &raw, object.data(), size,
                                                     const_cast<PUCHAR>(key.data()), static_cast<ULONG>(key.size()),
                                                     0))) {
        return nullptr;
    }
    Key handle(raw);
    return std::make_unique<CngAesCounter>(std::move(algorithm), std::move(object), std::move(handle));
}

std::unique_ptr<HmacSha1> HmacSha1::create(std::span<const uint8_t> key) {
    Algorithm algorithm = openAlgorithm(BCRYPT_SHA1_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    if (!algorithm) return nullptr;
    const ULONG size = objectLength(algorithm.get());
    if (size == 0) return nullptr;
    std::vector<uint8_t> object(size);
    static uint8_t noKey = 0;
    BCRYPT_HASH_HANDLE raw = nullptr;
    if (!BCRYPT_SUCCESS(::BCryptCreateHash(algorithm.get(), &raw, object.data(), size,
                                           key.empty() ? &noKey : const_cast<PUCHAR>(key.data()),
                                           static_cast<ULONG>(key.size()), 0))) {
        return nullptr;
    }
    Hash keyed(raw);
    return std::make_unique<CngHmacSha1>(std::move(algorithm), size, std::move(object), std::move(keyed));
}

}  // namespace kelsip::crypto
