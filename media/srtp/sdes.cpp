// Crypto attribute parsing and formatting, fresh keys and the answer's choice.
#include "media/srtp/sdes.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "sip/core/system.h"

namespace kelsip::srtp {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kInline = "inline:";

int base64Value(char c) {
    const size_t at = kAlphabet.find(c);
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

template <typename T>
bool parseNumber(std::string_view text, T& out) {
    if (text.empty() || text.size() > 18) return false;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

std::optional<CryptoAttribute> failWith(std::string* error, const char* text) {
    if (error != nullptr) *error = text;
    return std::nullopt;
}

// "2^20" or a plain number.
bool validLifetime(std::string_view text) {
    uint64_t value = 0;
    if (text.starts_with("2^")) return parseNumber(text.substr(2), value) && value < 64;
    return parseNumber(text, value);
}

}  // namespace

std::string base64Encode(std::span<const uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t n = std::min<size_t>(3, bytes.size() - i);
        uint32_t v = uint32_t{bytes[i]} << 16;
        if (n > 1) v |= uint32_t{bytes[i + 1]} << 8;
        if (n > 2) v |= bytes[i + 2];
        for (size_t k = 0; k < 4; ++k) out.push_back(k <= n ? kAlphabet[(v >> (18 - 6 * k)) & 0x3f] : '=');
    }
    return out;
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::vector<uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        size_t pad = 0;
        uint32_t v = 0;
        for (size_t k = 0; k < 4; ++k) {
            const char c = text[i + k];
            if (c == '=' && last && k >= 2) {
                ++pad;
                v <<= 6;
                continue;
            }
            const int d = base64Value(c);
            if (d < 0 || pad > 0) return std::nullopt;
            v = (v << 6) | static_cast<uint32_t>(d);
        }
        out.push_back(static_cast<uint8_t>(v >> 16));
        if (pad < 2) out.push_back(static_cast<uint8_t>(v >> 8));
        if (pad < 1) out.push_back(static_cast<uint8_t>(v));
    }
    return out;
}

std::optional<CryptoAttribute> parseCryptoAttribute(std::string_view value, std::string* error) {
    CryptoAttribute out;
    const size_t tagEnd = value.find(' ');
    if (tagEnd == std::string_view::npos || tagEnd > 9 || !parseNumber(value.substr(0, tagEnd), out.tag)) {
        return failWith(error, "bad crypto tag");
    }
    value.remove_prefix(tagEnd + 1);
    const size_t suiteEnd = value.find(' ');
    if (suiteEnd == std::string_view::npos) return failWith(error, "no key parameters");
    const auto suite = suiteFromName(value.substr(0, suiteEnd));
    if (!suite) return failWith(error, "unknown crypto suite");
    out.suite = *suite;
    value.remove_prefix(suiteEnd + 1);
    const size_t paramsEnd = value.find(' ');
    if (paramsEnd != std::string_view::npos && value.find_first_not_of(' ', paramsEnd) != std::string_view::npos) {
        return failWith(error, "unsupported session parameter");
    }
    std::string_view params = value.substr(0, paramsEnd);
    if (params.find(';') != std::string_view::npos) return failWith(error, "more than one key");
    if (!params.starts_with(kInline)) return failWith(error, "bad key parameters");
    params.remove_prefix(kInline.size());
    const size_t keyEnd = params.find('|');
    const auto keySalt = base64Decode(params.substr(0, keyEnd));
    if (!keySalt || keySalt->size() != kMasterKeyLength + kMasterSaltLength) return failWith(error, "bad key length");
    std::copy_n(keySalt->begin(), kMasterKeyLength, out.key.key.begin());
    std::copy_n(keySalt->begin() + kMasterKeyLength, kMasterSaltLength, out.key.salt.begin());
    std::string_view rest = keyEnd == std::string_view::npos ? std::string_view() : params.substr(keyEnd + 1);
    bool lifetimeSeen = false;
    while (keyEnd != std::string_view::npos) {
        const size_t end = rest.find('|');
        const std::string_view field = rest.substr(0, end);
        const size_t colon = field.find(':');
        if (colon == std::string_view::npos) {
            // A lifetime comes before the MKI and only once.
            if (lifetimeSeen || !out.key.mki.empty() || !validLifetime(field)) return failWith(error, "bad key lifetime");
            lifetimeSeen = true;
        } else {
            uint64_t mki = 0;
            size_t length = 0;
            if (!out.key.mki.empty() || !parseNumber(field.substr(0, colon), mki) ||
                !parseNumber(field.substr(colon + 1), length) || length == 0 || length > 128) {
                return failWith(error, "bad mki");
            }
            if (length > kMaxMkiLength || (length < 8 && mki >> (8 * length) != 0)) {
                return failWith(error, "unsupported mki");
            }
            for (size_t i = length; i-- > 0;) out.key.mki.push_back(static_cast<uint8_t>(mki >> (8 * i)));
        }
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 1);
    }
    return out;
}

std::string formatCryptoAttribute(const CryptoAttribute& attribute) {
    std::array<uint8_t, kMasterKeyLength + kMasterSaltLength> keySalt{};
    std::copy(attribute.key.key.begin(), attribute.key.key.end(), keySalt.begin());
    std::copy(attribute.key.salt.begin(), attribute.key.salt.end(), keySalt.begin() + kMasterKeyLength);
    std::string out = std::to_string(attribute.tag) + ' ' + std::string(toString(attribute.suite)) + ' ' +
                      std::string(kInline) + base64Encode(keySalt);
    if (!attribute.key.mki.empty()) {
        uint64_t mki = 0;
        for (const uint8_t b : attribute.key.mki) mki = (mki << 8) | b;
        out += '|' + std::to_string(mki) + ':' + std::to_string(attribute.key.mki.size());
    }
    return out;
}

std::optional<CryptoAttribute> newCryptoAttribute(uint32_t tag, Suite suite) {
    CryptoAttribute out;
    out.tag = tag;
    out.suite = suite;
    if (!platform::secureRandom(out.key.key.data(), out.key.key.size()) ||
        !platform::secureRandom(out.key.salt.data(), out.key.salt.size())) {
        return std::nullopt;
    }
    return out;
}

std::vector<Suite> offeredSuites() { return {Suite::AesCm128HmacSha1_80, Suite::AesCm128HmacSha1_32}; }

std::optional<CryptoAnswer> answerCrypto(const std::vector<std::string>& offered) {
    for (const std::string& value : offered) {
        auto remote = parseCryptoAttribute(value);
        if (!remote) continue;
        auto local = newCryptoAttribute(remote->tag, remote->suite);
        if (!local) return std::nullopt;
        return CryptoAnswer{std::move(*remote), std::move(*local)};
    }
    return std::nullopt;
}

}  // namespace kelsip::srtp
