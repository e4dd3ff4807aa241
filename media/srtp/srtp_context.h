// One direction's SRTP and SRTCP cryptographic context (RFC 3711): session
// keys derived from the master key, and per-SSRC rollover counters, SRTCP
// indexes and replay windows. Packets are protected and checked in place.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "media/srtp/srtp_index.h"
#include "sip/core/crypto.h"

namespace kelsip::srtp {

// The suites of RFC 4568 6.2 we run: AES-CM with a 128-bit key and
// HMAC-SHA1 tags of 80 or 32 bits on SRTP. SRTCP's tag is 80 bits in both.
enum class Suite : uint8_t { AesCm128HmacSha1_80, AesCm128HmacSha1_32 };
// "AES_CM_128_HMAC_SHA1_80", "AES_CM_128_HMAC_SHA1_32".
[[nodiscard]] std::string_view toString(Suite suite);
[[nodiscard]] std::optional<Suite> suiteFromName(std::string_view name);
[[nodiscard]] size_t rtpTagLength(Suite suite);
inline constexpr size_t kRtcpTagLength = 10;
inline constexpr size_t kMasterKeyLength = 16;
inline constexpr size_t kMasterSaltLength = 14;
// The largest MKI we take from a peer's key parameters.
inline constexpr size_t kMaxMkiLength = 4;

struct MasterKey {
    std::array<uint8_t, kMasterKeyLength> key{};
    std::array<uint8_t, kMasterSaltLength> salt{};
    // The master key identifier the sender writes into every packet; empty: none.
    std::vector<uint8_t> mki;

    friend bool operator==(const MasterKey&, const MasterKey&) = default;
};

struct SessionKeys {
    std::array<uint8_t, 16> cipher{};
    std::array<uint8_t, 20> auth{};
    std::array<uint8_t, 14> salt{};
};

// The AES-CM PRF with key derivation rate 0 (RFC 3711 4.3): labels 0, 1, 2
// for SRTP (`rtcp` false) or 3, 4, 5 for SRTCP. False without AES.
[[nodiscard]] bool deriveSessionKeys(const MasterKey& master, bool rtcp, SessionKeys& out);

enum class Status : uint8_t { Ok, Malformed, Unauthentic, Replayed, TooManyStreams, CipherFailed };
// "ok", "malformed packet", "authentication failed", "replayed packet",
// "too many streams", "cipher failed".
[[nodiscard]] std::string_view toString(Status status);

class Context {
public:
    // Streams (SSRCs) a context keeps state for; a packet of one more is refused.
    static constexpr size_t kMaxStreams = 16;

    // Null when the build has no cipher provider.
    [[nodiscard]] static std::unique_ptr<Context> create(Suite suite, const MasterKey& master);

    // Encrypts the payload and appends MKI and tag.
    [[nodiscard]] Status protectRtp(std::vector<uint8_t>& packet);
    // Checks tag and replay, decrypts, and strips MKI and tag. A refused
    // packet leaves the context as it was.
    [[nodiscard]] Status unprotectRtp(std::vector<uint8_t>& packet);
    // Encrypts all after the first report's SSRC, appends E bit with the
    // SRTCP index, MKI and tag.
    [[nodiscard]] Status protectRtcp(std::vector<uint8_t>& packet);
    [[nodiscard]] Status unprotectRtcp(std::vector<uint8_t>& packet);

    [[nodiscard]] Suite suite() const { return suite_; }
    // For tests and diagnostics: a stream's rollover counter, empty if unknown.
    [[nodiscard]] std::optional<uint32_t> rolloverCounter(uint32_t ssrc) const;

private:
    struct Stream {
        RolloverCounter rollover;
        ReplayWindow rtpReplay;
        ReplayWindow rtcpReplay;
        uint32_t nextRtcpIndex = 0;
    };
    struct Keys {
        std::unique_ptr<crypto::AesCounter> cipher;
        std::unique_ptr<crypto::HmacSha1> auth;
        std::array<uint8_t, 14> salt{};
    };

    Context(Suite suite, std::vector<uint8_t> mki) : suite_(suite), mki_(std::move(mki)) {}
    [[nodiscard]] static bool makeKeys(const MasterKey& master, bool rtcp, Keys& out);
    [[nodiscard]] Stream* stream(uint32_t ssrc);
    [[nodiscard]] bool crypt(Keys& keys, uint32_t ssrc, uint64_t index, std::span<uint8_t> data);
    [[nodiscard]] bool tag(Keys& keys, std::span<const uint8_t> message, std::span<const uint8_t> trailer,
                           crypto::Sha1Digest& out);

    const Suite suite_;
    const std::vector<uint8_t> mki_;
    Keys rtp_;
    Keys rtcp_;
    std::map<uint32_t, Stream> streams_;
};

}  // namespace kelsip::srtp
