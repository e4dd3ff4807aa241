// RTCP compound packets (RFC 3550 section 6): sender and receiver reports,
// SDES CNAME and BYE, read from and written to bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace kelsip {

// One reception report block, as carried in SR and RR packets.
struct RtcpReportBlock {
    static constexpr int32_t kMinCumulativeLost = -0x800000;
    static constexpr int32_t kMaxCumulativeLost = 0x7fffff;

    uint32_t ssrc = 0;  // the source this block reports on
    uint8_t fractionLost = 0;
    int32_t cumulativeLost = 0;  // signed 24-bit on the wire; duplicates make it negative
    uint32_t extendedHighestSequence = 0;
    uint32_t jitter = 0;            // timestamp units
    uint32_t lastSenderReport = 0;  // middle 32 bits of the last SR's NTP time (LSR)
    uint32_t delaySinceLastSenderReport = 0;  // units of 1/65536 s (DLSR)

    friend bool operator==(const RtcpReportBlock&, const RtcpReportBlock&) = default;
};

struct RtcpSenderReport {
    uint32_t ssrc = 0;
    uint64_t ntpTimestamp = 0;  // 32.32 fixed point seconds since 1900
    uint32_t rtpTimestamp = 0;
    uint32_t packetCount = 0;
    uint32_t octetCount = 0;
    std::vector<RtcpReportBlock> reports;  // at most 31

    friend bool operator==(const RtcpSenderReport&, const RtcpSenderReport&) = default;
};

struct RtcpReceiverReport {
    uint32_t ssrc = 0;
    std::vector<RtcpReportBlock> reports;  // at most 31

    friend bool operator==(const RtcpReceiverReport&, const RtcpReceiverReport&) = default;
};

// One SDES chunk; of its items only the CNAME is kept. An empty CNAME is
// written as a chunk without items.
struct RtcpSdesChunk {
    uint32_t ssrc = 0;
    std::string cname;  // at most 255 bytes

    friend bool operator==(const RtcpSdesChunk&, const RtcpSdesChunk&) = default;
};

struct RtcpSdes {
    std::vector<RtcpSdesChunk> chunks;  // at most 31

    friend bool operator==(const RtcpSdes&, const RtcpSdes&) = default;
};

struct RtcpBye {
    std::vector<uint32_t> ssrcs;  // at most 31
    std::string reason;           // at most 255 bytes; empty: none written

    friend bool operator==(const RtcpBye&, const RtcpBye&) = default;
};

using RtcpPacket = std::variant<RtcpSenderReport, RtcpReceiverReport, RtcpSdes, RtcpBye>;

// The packets of one compound datagram, in order. Packet types this stack
// does not use (APP, feedback, XR) are skipped when reading.
struct RtcpCompound {
    static constexpr size_t kMaxCount = 31;
    static constexpr size_t kMaxItemLength = 255;

    std::vector<RtcpPacket> packets;

    // On failure writes one fixed text into `error`.
    [[nodiscard]] static std::optional<RtcpCompound> parse(std::span<const uint8_t> bytes,
                                                           std::string* error = nullptr);

    // Replaces `out` with the compound's wire form; false (with the reason)
    // when a count or text does not fit its field. A cumulative loss outside
    // the signed 24-bit range is clamped, as RFC 3550 has senders do.
    [[nodiscard]] bool writeTo(std::vector<uint8_t>& out, std::string* error = nullptr) const;

    friend bool operator==(const RtcpCompound&, const RtcpCompound&) = default;
};

}  // namespace kelsip
