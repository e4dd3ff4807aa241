// The cipher primitives SRTP and STUN are built on, taken from the platform:
// AES in counter mode and HMAC-SHA1. A build without a crypto provider has
// none (`available()` is false) and every `create` returns null.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>

namespace kelsip::crypto {

using Block = std::array<uint8_t, 16>;
using Sha1Digest = std::array<uint8_t, 20>;

// Whether this build has the primitives at all.
[[nodiscard]] bool available();

// AES (128, 192 or 256-bit key) as a keystream generator: the counter
// mode of SRTP (RFC 3711 4.1.1) and of its key derivation. One object keeps
// its expanded key; it is not shared between threads.
class AesCounter {
public:
    // Null when the key length is not 16, 24 or 32 bytes or the build has no AES.
    [[nodiscard]] static std::unique_ptr<AesCounter> create(std::span<const uint8_t> key);
    virtual ~AesCounter() = default;
    // XORs `data` in place with the keystream whose first block is the
    // encryption of `counter`; the low 16 bits of the counter step by one
    // per block (wrapping within those bits, as SRTP requires).
    [[nodiscard]] bool apply(const Block& counter, std::span<uint8_t> data);

protected:
    // The platform's part: AES of whole blocks (ECB), `bytes` a multiple of 16.
    [[nodiscard]] virtual bool encryptBlocks(const uint8_t* in, uint8_t* out, size_t bytes) = 0;
};

// HMAC-SHA1 with one key, computed over a message given in parts (SRTP
// authenticates the packet and then the rollover counter). Not shared
// between threads.
class HmacSha1 {
public:
    [[nodiscard]] static std::unique_ptr<HmacSha1> create(std::span<const uint8_t> key);
    virtual ~HmacSha1() = default;
    [[nodiscard]] virtual bool compute(std::span<const std::span<const uint8_t>> parts, Sha1Digest& out) = 0;
    [[nodiscard]] bool compute(std::span<const uint8_t> message, Sha1Digest& out) {
        const std::span<const uint8_t> parts[] = {message};
        return compute(parts, out);
    }
};

// The CRC-32 of IEEE 802.3 (STUN's FINGERPRINT): no provider needed.
[[nodiscard]] uint32_t crc32(std::span<const uint8_t> data);

}  // namespace kelsip::crypto
