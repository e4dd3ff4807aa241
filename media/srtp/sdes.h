// SDP security descriptions for SRTP (RFC 4568): the crypto attribute's
// value "tag suite inline:key-salt[|lifetime][|MKI:length]", fresh keys of
// ours, and the choice of an offered line to answer.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "media/srtp/srtp_context.h"

namespace kelsip::srtp {

struct CryptoAttribute {
    uint32_t tag = 0;
    Suite suite = Suite::AesCm128HmacSha1_80;
    MasterKey key;  // with the MKI the sender of this key writes in its packets

    friend bool operator==(const CryptoAttribute&, const CryptoAttribute&) = default;
};

// A lifetime is accepted and ignored (our calls end long before one runs
// out). Refused, with a fixed error text: an unknown suite, a key of the
// wrong length, more than one key, an MKI longer than kMaxMkiLength, and
// any session parameter.
[[nodiscard]] std::optional<CryptoAttribute> parseCryptoAttribute(std::string_view value,
                                                                  std::string* error = nullptr);
// "tag suite inline:key-salt", with "|value:length" when there is an MKI.
[[nodiscard]] std::string formatCryptoAttribute(const CryptoAttribute& attribute);

// A fresh master key and salt from the system's secure random source;
// empty when it fails.
[[nodiscard]] std::optional<CryptoAttribute> newCryptoAttribute(uint32_t tag, Suite suite);

// The suites we offer, in order of preference.
[[nodiscard]] std::vector<Suite> offeredSuites();

struct CryptoAnswer {
    CryptoAttribute remote;  // the offered line we took: the peer's key
    CryptoAttribute local;   // ours: same tag and suite, a fresh key
};

// For an answer: the first offered value we can run. Empty when none is
// usable (or no key could be made).
[[nodiscard]] std::optional<CryptoAnswer> answerCrypto(const std::vector<std::string>& offered);

// Base64 (RFC 4648) with padding, as the inline key is written.
[[nodiscard]] std::string base64Encode(std::span<const uint8_t> bytes);
[[nodiscard]] std::optional<std::vector<uint8_t>> base64Decode(std::string_view text);

}  // namespace kelsip::srtp
