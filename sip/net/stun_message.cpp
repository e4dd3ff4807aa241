// STUN messages: bytes in, bytes out, and the checks that guard them.
#include "sip/net/stun_message.h"

#include <algorithm>

#include "sip/core/crypto.h"
#include "sip/core/system.h"

namespace kelsip::stun {

namespace {

constexpr uint32_t kFingerprintXor = 0x5354554E;
constexpr size_t kIntegrityBytes = 20;

uint16_t read16(std::span<const uint8_t> b, size_t at) { return static_cast<uint16_t>(b[at] << 8 | b[at + 1]); }

uint32_t read32(std::span<const uint8_t> b, size_t at) {
    return static_cast<uint32_t>(b[at]) << 24 | static_cast<uint32_t>(b[at + 1]) << 16 |
           static_cast<uint32_t>(b[at + 2]) << 8 | b[at + 3];
}

void put16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

void put32(std::vector<uint8_t>& out, uint32_t v) {
    put16(out, static_cast<uint16_t>(v >> 16));
    put16(out, static_cast<uint16_t>(v));
}

void set16(std::vector<uint8_t>& out, size_t at, uint16_t v) {
    out[at] = static_cast<uint8_t>(v >> 8);
    out[at + 1] = static_cast<uint8_t>(v);
}

uint16_t messageType(Method method, Class cls) {
    const auto m = static_cast<uint16_t>(method);
    const auto c = static_cast<uint16_t>(cls);
    return static_cast<uint16_t>((m & 0x000F) | (m & 0x0070) << 1 | (m & 0x0F80) << 2 | (c & 1) << 4 | (c & 2) << 7);
}

void putAttribute(std::vector<uint8_t>& out, uint16_t type, std::span<const uint8_t> value) {
    put16(out, type);
    put16(out, static_cast<uint16_t>(value.size()));
    out.insert(out.end(), value.begin(), value.end());
    while (out.size() % 4 != 0) out.push_back(0);
}

// Where each attribute starts, walking a datagram already known to be whole.
template <typename F>
void walk(std::span<const uint8_t> bytes, F&& visit) {
    size_t at = kHeaderBytes;
    while (at + 4 <= bytes.size()) {
        const uint16_t type = read16(bytes, at);
        const uint16_t length = read16(bytes, at + 2);
        if (at + 4 + length > bytes.size()) return;
        if (!visit(type, at, bytes.subspan(at + 4, length))) return;
        at += 4 + ((length + 3U) & ~3U);
    }
}

bool sameBytes(std::span<const uint8_t> a, std::span<const uint8_t> b) {
    if (a.size() != b.size()) return false;
    uint8_t diff = 0;  // no early exit: the time says nothing about where they differ
    for (size_t i = 0; i < a.size(); ++i) diff = static_cast<uint8_t>(diff | (a[i] ^ b[i]));
    return diff == 0;
}

// The HMAC of everything before the attribute at `at`, the header's length
// counting up to the end of a MESSAGE-INTEGRITY there.
std::optional<crypto::Sha1Digest> integrityOver(std::span<const uint8_t> bytes, size_t at,
                                                std::span<const uint8_t> key) {
    auto hmac = crypto::HmacSha1::create(key);
    if (!hmac) return std::nullopt;
    std::vector<uint8_t> head(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(kHeaderBytes));
    set16(head, 2, static_cast<uint16_t>(at + 4 + kIntegrityBytes - kHeaderBytes));
    const std::span<const uint8_t> parts[] = {head, bytes.subspan(kHeaderBytes, at - kHeaderBytes)};
    crypto::Sha1Digest digest{};
    if (!hmac->compute(parts, digest)) return std::nullopt;
    return digest;
}

}  // namespace

Message Message::request(Method method) {
    Message m;
    m.method = method;
    m.messageClass = Class::Request;
    if (!platform::secureRandom(m.transaction.data(), m.transaction.size())) {
        // Without the system's generator a transaction still needs an id
        // that differs from the last one; uniqueness, not secrecy, matters.
        static uint64_t counter = 0;
        const uint64_t n = ++counter;
        for (size_t i = 0; i < 8; ++i) m.transaction[i] = static_cast<uint8_t>(n >> (8 * i));
    }
    return m;
}

Message Message::responseTo(const Message& request, Class cls) {
    Message m;
    m.method = request.method;
    m.messageClass = cls;
    m.transaction = request.transaction;
    return m;
}

const Attribute* Message::find(uint16_t type) const {
    for (const Attribute& a : attributes) {
        if (a.type == type) return &a;
    }
    return nullptr;
}

void Message::add(uint16_t type, std::span<const uint8_t> value) {
    attributes.push_back({type, std::vector<uint8_t>(value.begin(), value.end())});
}

void Message::addText(uint16_t type, std::string_view text) {
    add(type, {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

void Message::addUint32(uint16_t type, uint32_t value) {
    std::vector<uint8_t> v;
    put32(v, value);
    add(type, v);
}

void Message::addUint64(uint16_t type, uint64_t value) {
    std::vector<uint8_t> v;
    put32(v, static_cast<uint32_t>(value >> 32));
    put32(v, static_cast<uint32_t>(value));
    add(type, v);
}

void Message::addXorAddress(uint16_t type, const net::SocketAddress& address) {
    std::vector<uint8_t> v{0, static_cast<uint8_t>(address.isV4() ? 1 : 2)};
    put16(v, static_cast<uint16_t>(address.port() ^ (kMagicCookie >> 16)));
    std::array<uint8_t, 16> mask{};
    for (size_t i = 0; i < 4; ++i) mask[i] = static_cast<uint8_t>(kMagicCookie >> (24 - 8 * i));
    std::copy(transaction.begin(), transaction.end(), mask.begin() + 4);
    for (size_t i = 0; i < address.byteCount(); ++i) v.push_back(static_cast<uint8_t>(address.bytes()[i] ^ mask[i]));
    add(type, v);
}

void Message::addErrorCode(int code, std::string_view reason) {
    std::vector<uint8_t> v{0, 0, static_cast<uint8_t>(code / 100), static_cast<uint8_t>(code % 100)};
    v.insert(v.end(), reason.begin(), reason.end());
    add(attr::kErrorCode, v);
}

std::optional<std::string> Message::text(uint16_t type) const {
    const Attribute* a = find(type);
    if (a == nullptr) return std::nullopt;
    return std::string(a->value.begin(), a->value.end());
}

std::optional<uint32_t> Message::uint32(uint16_t type) const {
    const Attribute* a = find(type);
    if (a == nullptr || a->value.size() != 4) return std::nullopt;
    return read32(a->value, 0);
}

std::optional<uint64_t> Message::uint64(uint16_t type) const {
    const Attribute* a = find(type);
    if (a == nullptr || a->value.size() != 8) return std::nullopt;
    return static_cast<uint64_t>(read32(a->value, 0)) << 32 | read32(a->value, 4);
}

std::optional<net::SocketAddress> Message::address(uint16_t type) const {
    const Attribute* a = find(type);
    if (a == nullptr || a->value.size() < 4) return std::nullopt;
    const std::vector<uint8_t>& v = a->value;
    const bool xored = type != attr::kMappedAddress;
    std::array<uint8_t, 16> mask{};
    if (xored) {
        for (size_t i = 0; i < 4; ++i) mask[i] = static_cast<uint8_t>(kMagicCookie >> (24 - 8 * i));
        std::copy(transaction.begin(), transaction.end(), mask.begin() + 4);
    }
    const auto port = static_cast<uint16_t>(read16(v, 2) ^ (xored ? kMagicCookie >> 16 : 0));
    if (v[1] == 1 && v.size() == 8) {
        std::array<uint8_t, 4> ip{};
        for (size_t i = 0; i < 4; ++i) ip[i] = static_cast<uint8_t>(v[4 + i] ^ mask[i]);
        return net::SocketAddress::v4(ip, port);
    }
    if (v[1] == 2 && v.size() == 20) {
        std::array<uint8_t, 16> ip{};
        for (size_t i = 0; i < 16; ++i) ip[i] = static_cast<uint8_t>(v[4 + i] ^ mask[i]);
        return net::SocketAddress::v6(ip, port);
    }
    return std::nullopt;
}

std::optional<ErrorCode> Message::errorCode() const {
    const Attribute* a = find(attr::kErrorCode);
    if (a == nullptr || a->value.size() < 4) return std::nullopt;
    const int cls = a->value[2] & 0x07;
    const int number = a->value[3];
    if (cls < 3 || number > 99) return std::nullopt;
    return ErrorCode{cls * 100 + number, std::string(a->value.begin() + 4, a->value.end())};
}

bool looksLikeStun(std::span<const uint8_t> bytes) {
    return bytes.size() >= kHeaderBytes && (bytes[0] & 0xC0) == 0 && read16(bytes, 2) % 4 == 0 &&
           read32(bytes, 4) == kMagicCookie;
}

std::optional<Message> parse(std::span<const uint8_t> bytes, std::string* error) {
    auto fail = [error](const char* text) -> std::optional<Message> {
        if (error != nullptr) *error = text;
        return std::nullopt;
    };
    if (bytes.size() < kHeaderBytes) return fail("stun message too short");
    if (!looksLikeStun(bytes)) return fail("not a stun message");
    if (kHeaderBytes + read16(bytes, 2) != bytes.size()) return fail("bad stun length");
    Message m;
    const uint16_t type = read16(bytes, 0);
    m.method = static_cast<Method>((type & 0x000F) | (type & 0x00E0) >> 1 | (type & 0x3E00) >> 2);
    m.messageClass = static_cast<Class>((type >> 4 & 1) | (type >> 7 & 2));
    std::copy(bytes.begin() + 8, bytes.begin() + 20, m.transaction.begin());
    size_t at = kHeaderBytes;
    while (at < bytes.size()) {
        if (at + 4 > bytes.size()) return fail("truncated stun attribute");
        const uint16_t attrType = read16(bytes, at);
        const size_t length = read16(bytes, at + 2);
        const size_t padded = (length + 3) & ~size_t{3};
        if (at + 4 + padded > bytes.size()) return fail("truncated stun attribute");
        if (attrType != attr::kMessageIntegrity && attrType != attr::kFingerprint) {
            m.add(attrType, bytes.subspan(at + 4, length));
        }
        at += 4 + padded;
        if (attrType == attr::kFingerprint) break;
    }
    return m;
}

std::vector<uint8_t> encode(const Message& message, const EncodeOptions& options) {
    std::vector<uint8_t> out;
    out.reserve(256);
    put16(out, messageType(message.method, message.messageClass));
    put16(out, 0);
    put32(out, kMagicCookie);
    out.insert(out.end(), message.transaction.begin(), message.transaction.end());
    for (const Attribute& a : message.attributes) putAttribute(out, a.type, a.value);
    if (!options.integrityKey.empty()) {
        const size_t at = out.size();
        const auto digest = integrityOver(out, at, options.integrityKey);
        if (!digest) return {};
        putAttribute(out, attr::kMessageIntegrity, *digest);
    }
    if (options.fingerprint) {
        set16(out, 2, static_cast<uint16_t>(out.size() + 8 - kHeaderBytes));
        std::vector<uint8_t> value;
        put32(value, crypto::crc32(out) ^ kFingerprintXor);
        putAttribute(out, attr::kFingerprint, value);
    }
    set16(out, 2, static_cast<uint16_t>(out.size() - kHeaderBytes));
    return out;
}

bool checkIntegrity(std::span<const uint8_t> bytes, std::span<const uint8_t> key) {
    if (!parse(bytes)) return false;
    bool ok = false;
    walk(bytes, [&](uint16_t type, size_t at, std::span<const uint8_t> value) {
        if (type != attr::kMessageIntegrity) return true;
        if (value.size() == kIntegrityBytes) {
            const auto digest = integrityOver(bytes, at, key);
            ok = digest && sameBytes(*digest, value);
        }
        return false;
    });
    return ok;
}

bool checkFingerprint(std::span<const uint8_t> bytes) {
    if (!parse(bytes) || bytes.size() < kHeaderBytes + 8) return false;
    const size_t at = bytes.size() - 8;
    if (read16(bytes, at) != attr::kFingerprint || read16(bytes, at + 2) != 4) return false;
    return (crypto::crc32(bytes.first(at)) ^ kFingerprintXor) == read32(bytes, at + 4);
}

std::string describe(const Message& message) {
    std::string name;
    switch (message.method) {
        case Method::Binding: name = "Binding"; break;
        case Method::Allocate: name = "Allocate"; break;
        case Method::Refresh: name = "Refresh"; break;
        case Method::Send: name = "Send"; break;
        case Method::Data: name = "Data"; break;
        case Method::CreatePermission: name = "CreatePermission"; break;
        case Method::ChannelBind: name = "ChannelBind"; break;
        default: name = "Method " + std::to_string(static_cast<int>(message.method)); break;
    }
    switch (message.messageClass) {
        case Class::Request: return name + " Request";
        case Class::Indication: return name + " Indication";
        case Class::Success: return name + " Success Response";
        case Class::Error: return name + " Error Response";
    }
    return name;
}

}  // namespace kelsip::stun
