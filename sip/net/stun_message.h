// STUN messages (RFC 8489) and the TURN (RFC 8656) and ICE (RFC 8445)
// attributes carried in them: parsing from bytes, building, and the two
// integrity checks (MESSAGE-INTEGRITY with HMAC-SHA1, FINGERPRINT).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sip/net/socket_address.h"

namespace kelsip::stun {

inline constexpr uint32_t kMagicCookie = 0x2112A442;
inline constexpr size_t kHeaderBytes = 20;

enum class Method : uint16_t {
    Binding = 0x001,
    Allocate = 0x003,
    Refresh = 0x004,
    Send = 0x006,
    Data = 0x007,
    CreatePermission = 0x008,
    ChannelBind = 0x009,
};

enum class Class : uint8_t { Request = 0, Indication = 1, Success = 2, Error = 3 };

namespace attr {
inline constexpr uint16_t kMappedAddress = 0x0001;
inline constexpr uint16_t kUsername = 0x0006;
inline constexpr uint16_t kMessageIntegrity = 0x0008;
inline constexpr uint16_t kErrorCode = 0x0009;
inline constexpr uint16_t kUnknownAttributes = 0x000A;
inline constexpr uint16_t kChannelNumber = 0x000C;
inline constexpr uint16_t kLifetime = 0x000D;
inline constexpr uint16_t kXorPeerAddress = 0x0012;
inline constexpr uint16_t kData = 0x0013;
inline constexpr uint16_t kRealm = 0x0014;
inline constexpr uint16_t kNonce = 0x0015;
inline constexpr uint16_t kXorRelayedAddress = 0x0016;
inline constexpr uint16_t kRequestedAddressFamily = 0x0017;
inline constexpr uint16_t kEvenPort = 0x0018;
inline constexpr uint16_t kRequestedTransport = 0x0019;
inline constexpr uint16_t kDontFragment = 0x001A;
inline constexpr uint16_t kXorMappedAddress = 0x0020;
inline constexpr uint16_t kPriority = 0x0024;
inline constexpr uint16_t kUseCandidate = 0x0025;
inline constexpr uint16_t kSoftware = 0x8022;
inline constexpr uint16_t kAlternateServer = 0x8023;
inline constexpr uint16_t kFingerprint = 0x8028;
inline constexpr uint16_t kIceControlled = 0x8029;
inline constexpr uint16_t kIceControlling = 0x802A;
}  // namespace attr

using TransactionId = std::array<uint8_t, 12>;

struct Attribute {
    uint16_t type = 0;
    std::vector<uint8_t> value;  // without padding
};

struct ErrorCode {
    int code = 0;  // 300..699
    std::string reason;
};

// One message as a value. Attributes keep their order; building adds
// MESSAGE-INTEGRITY and FINGERPRINT itself, so they are not listed here.
struct Message {
    Method method = Method::Binding;
    Class messageClass = Class::Request;
    TransactionId transaction{};
    std::vector<Attribute> attributes;

    // A request with a fresh random transaction id.
    [[nodiscard]] static Message request(Method method);
    // A response of `cls` to `request`: same method and transaction.
    [[nodiscard]] static Message responseTo(const Message& request, Class cls);

    [[nodiscard]] const Attribute* find(uint16_t type) const;
    [[nodiscard]] bool has(uint16_t type) const { return find(type) != nullptr; }

    void add(uint16_t type, std::span<const uint8_t> value);
    void addText(uint16_t type, std::string_view text);
    void addUint32(uint16_t type, uint32_t value);
    void addUint64(uint16_t type, uint64_t value);
    void addFlag(uint16_t type) { add(type, {}); }
    // XOR-MAPPED-ADDRESS, XOR-PEER-ADDRESS, XOR-RELAYED-ADDRESS.
    void addXorAddress(uint16_t type, const net::SocketAddress& address);
    void addErrorCode(int code, std::string_view reason);

    [[nodiscard]] std::optional<std::string> text(uint16_t type) const;
    [[nodiscard]] std::optional<uint32_t> uint32(uint16_t type) const;
    [[nodiscard]] std::optional<uint64_t> uint64(uint16_t type) const;
    // An XOR address attribute; MAPPED-ADDRESS (unmasked) for kMappedAddress.
    [[nodiscard]] std::optional<net::SocketAddress> address(uint16_t type) const;
    [[nodiscard]] std::optional<ErrorCode> errorCode() const;
};

// The first check of a demultiplexer: two zero bits, a length that is a
// multiple of four and the magic cookie (RFC 7983: first byte 0..3).
[[nodiscard]] bool looksLikeStun(std::span<const uint8_t> bytes);

// Parses a whole datagram. Fails, with one fixed text, on: "stun message too
// short", "not a stun message", "bad stun length", "truncated stun
// attribute". Unknown attributes are kept; nothing after FINGERPRINT is.
[[nodiscard]] std::optional<Message> parse(std::span<const uint8_t> bytes, std::string* error = nullptr);

struct EncodeOptions {
    // HMAC-SHA1 key of MESSAGE-INTEGRITY: the password (short-term) or
    // MD5(username ":" realm ":" password) (long-term); empty: none.
    std::vector<uint8_t> integrityKey;
    bool fingerprint = false;
};

// The datagram; empty when integrity was asked for and the platform has no HMAC.
[[nodiscard]] std::vector<uint8_t> encode(const Message& message, const EncodeOptions& options = {});

// Whether the datagram's MESSAGE-INTEGRITY is right for `key`; false when it has none.
[[nodiscard]] bool checkIntegrity(std::span<const uint8_t> bytes, std::span<const uint8_t> key);
// Whether the datagram ends in a correct FINGERPRINT; false when it has none.
[[nodiscard]] bool checkFingerprint(std::span<const uint8_t> bytes);

// "Binding Request", "Allocate Error Response" and the like, for log lines.
[[nodiscard]] std::string describe(const Message& message);

}  // namespace kelsip::stun
