// DNS messages: queries written and responses read byte by byte.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "sip/net/socket_address.h"

namespace kelsip::dns {

// Record types by their wire number; a value without a name here (from a
// server's answer) is kept as its number.
enum class RecordType : uint16_t {
    A = 1,
    NS = 2,
    CNAME = 5,
    SOA = 6,
    PTR = 12,
    AAAA = 28,
    SRV = 33,
    NAPTR = 35,
    OPT = 41,
};

// "A", "SRV", ...; "TYPE99" for a type without a name.
[[nodiscard]] std::string recordTypeName(RecordType type);

inline constexpr uint16_t kClassIn = 1;

// Response codes; values past Refused are kept as their number.
enum class Rcode : uint8_t {
    NoError = 0,
    FormatError = 1,
    ServerFailure = 2,
    NameError = 3,  // the name does not exist (NXDOMAIN)
    NotImplemented = 4,
    Refused = 5,
};

struct Question {
    std::string name;
    RecordType type = RecordType::A;
    uint16_t recordClass = kClassIn;
};

struct SrvData {
    uint16_t priority = 0;
    uint16_t weight = 0;
    uint16_t port = 0;
    std::string target;  // "." when the service is not offered

    friend bool operator==(const SrvData&, const SrvData&) = default;
};

struct NaptrData {
    uint16_t order = 0;
    uint16_t preference = 0;
    std::string flags;
    std::string services;
    std::string regexp;
    std::string replacement;  // "." for none
};

struct SoaData {
    std::string primary;
    std::string mailbox;
    uint32_t serial = 0;
    uint32_t refresh = 0;
    uint32_t retry = 0;
    uint32_t expire = 0;
    uint32_t minimum = 0;  // the zone's negative-answer lifetime
};

struct ResourceRecord {
    std::string name;
    RecordType type = RecordType::A;
    uint16_t recordClass = kClassIn;
    uint32_t ttl = 0;
    // A and AAAA: the address (port 0); CNAME, NS, PTR: the name it points
    // to; SRV, NAPTR, SOA: their fields; any other type: nothing (its data
    // is skipped).
    std::variant<std::monostate, net::SocketAddress, std::string, SrvData, NaptrData, SoaData> data;

    [[nodiscard]] const net::SocketAddress* address() const { return std::get_if<net::SocketAddress>(&data); }
    [[nodiscard]] const std::string* target() const { return std::get_if<std::string>(&data); }
    [[nodiscard]] const SrvData* srv() const { return std::get_if<SrvData>(&data); }
    [[nodiscard]] const NaptrData* naptr() const { return std::get_if<NaptrData>(&data); }
    [[nodiscard]] const SoaData* soa() const { return std::get_if<SoaData>(&data); }
};

struct Header {
    uint16_t id = 0;
    bool isResponse = false;
    uint8_t opcode = 0;
    bool authoritative = false;
    bool truncated = false;
    bool recursionDesired = false;
    bool recursionAvailable = false;
    Rcode rcode = Rcode::NoError;
    uint16_t questionCount = 0;
    uint16_t answerCount = 0;
    uint16_t authorityCount = 0;
    uint16_t additionalCount = 0;
};

struct Message {
    Header header;
    std::vector<Question> questions;
    std::vector<ResourceRecord> answers;
    std::vector<ResourceRecord> authority;
    std::vector<ResourceRecord> additional;
};

// Names in text form are dotted labels without the final dot ("." for the
// root). A label byte that would read ambiguously is escaped the way zone
// files do: "\." and "\\", and "\DDD" (three decimal digits) for a byte
// outside printable ASCII.

// A standard query for one name and type, class IN. Fails with "empty
// label", "label too long", "name too long" or "bad escape".
[[nodiscard]] std::optional<std::vector<uint8_t>> encodeQuery(uint16_t id, std::string_view name, RecordType type,
                                                              bool recursionDesired = true,
                                                              std::string* error = nullptr);

// The fixed part of a message alone: enough to match an answer to its query
// and see truncation even when the records after it are cut short.
[[nodiscard]] std::optional<Header> decodeHeader(std::span<const uint8_t> bytes, std::string* error = nullptr);

// A whole message. Bytes after the last record are ignored. Fails with one
// of: "truncated header", "truncated name", "bad label type", "name too
// long", "compression pointer loop", "forward compression pointer",
// "compression pointer out of range", "truncated question", "truncated
// record", "bad address length", "bad record data".
[[nodiscard]] std::optional<Message> decodeMessage(std::span<const uint8_t> bytes, std::string* error = nullptr);

// Names compare without regard to ASCII case; one final dot is ignored.
[[nodiscard]] bool sameName(std::string_view a, std::string_view b);
// Lower-case, without the final dot: the form names are cached under.
[[nodiscard]] std::string canonicalName(std::string_view name);

}  // namespace kelsip::dns
