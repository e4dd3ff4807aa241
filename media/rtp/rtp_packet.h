// RTP data packets (RFC 3550 section 5.1): the fixed header, CSRCs, header
// extension and padding, read from and written to bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelsip {

// The header extension as RFC 3550 frames it: a profile-defined 16-bit word
// and data whose length is a whole number of 32-bit words.
struct RtpHeaderExtension {
    uint16_t profile = 0;
    std::vector<uint8_t> data;

    friend bool operator==(const RtpHeaderExtension&, const RtpHeaderExtension&) = default;
};

struct RtpPacket {
    static constexpr size_t kFixedHeaderSize = 12;
    static constexpr size_t kMaxCsrcs = 15;

    bool marker = false;
    uint8_t payloadType = 0;  // 0..127
    uint16_t sequence = 0;
    uint32_t timestamp = 0;
    uint32_t ssrc = 0;
    std::vector<uint32_t> csrcs;  // at most 15
    std::optional<RtpHeaderExtension> extension;
    // A view of the payload: into the parsed buffer after parse, or into
    // whatever the sender points it at before writeTo. Padding is not part of it.
    std::span<const uint8_t> payload;
    // Padding octets after the payload, counting the final count octet;
    // 0 means the P bit is clear.
    uint8_t paddingLength = 0;

    // Reads a datagram. The payload views `bytes`, which must outlive the
    // packet. On failure writes one fixed text into `error`.
    [[nodiscard]] static std::optional<RtpPacket> parse(std::span<const uint8_t> bytes, std::string* error = nullptr);

    // Replaces `out` with the packet's wire form; false (with the reason) when
    // a field cannot be carried: a payload type above 127, more than 15
    // CSRCs, or extension data that is not whole 32-bit words or too long.
    [[nodiscard]] bool writeTo(std::vector<uint8_t>& out, std::string* error = nullptr) const;

    // Fields and payload bytes compare; where the payload lives does not.
    friend bool operator==(const RtpPacket& a, const RtpPacket& b);
};

}  // namespace kelsip
