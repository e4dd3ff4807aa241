// RTP data packets: header parsing with every length checked against the
// datagram, and the matching writer.
#include "media/rtp/rtp_packet.h"

#include <algorithm>

#include "media/rtp/wire_bytes.h"

namespace kelsip {

namespace {

bool fail(std::string* error, const char* text) {
    if (error) *error = text;
    return false;
}

}  // namespace

std::optional<RtpPacket> RtpPacket::parse(std::span<const uint8_t> bytes, std::string* error) {
    const auto reject = [error](const char* text) {
        if (error) *error = text;
        return std::nullopt;
    };
    if (bytes.size() < kFixedHeaderSize) return reject("rtp packet too short");
    const uint8_t first = bytes[0];
    if ((first >> 6) != 2) return reject("unsupported rtp version");
    const bool padded = (first & 0x20) != 0;
    const bool extended = (first & 0x10) != 0;
    const size_t csrcCount = first & 0x0f;

    RtpPacket p;
    p.marker = (bytes[1] & 0x80) != 0;
    p.payloadType = bytes[1] & 0x7f;
    p.sequence = wire::get16(bytes, 2);
    p.timestamp = wire::get32(bytes, 4);
    p.ssrc = wire::get32(bytes, 8);

    size_t pos = kFixedHeaderSize;
    if (bytes.size() - pos < csrcCount * 4) return reject("truncated csrc list");
    for (size_t i = 0; i < csrcCount; ++i, pos += 4) p.csrcs.push_back(wire::get32(bytes, pos));

    if (extended) {
        if (bytes.size() - pos < 4) return reject("truncated header extension");
        RtpHeaderExtension ext;
        ext.profile = wire::get16(bytes, pos);
        const size_t length = size_t{wire::get16(bytes, pos + 2)} * 4;
        pos += 4;
        if (bytes.size() - pos < length) return reject("truncated header extension");
        ext.data.assign(bytes.begin() + static_cast<std::ptrdiff_t>(pos),
                        bytes.begin() + static_cast<std::ptrdiff_t>(pos + length));
        pos += length;
        p.extension = std::move(ext);
    }

    size_t end = bytes.size();
    if (padded) {
        // The count includes itself, so zero is as wrong as a count that
        // reaches back into the header.
        const uint8_t count = bytes[end - 1];
        if (count == 0 || count > end - pos) return reject("bad rtp padding length");
        p.paddingLength = count;
        end -= count;
    }
    p.payload = bytes.subspan(pos, end - pos);
    return p;
}

bool RtpPacket::writeTo(std::vector<uint8_t>& out, std::string* error) const {
    if (payloadType > 127) return fail(error, "rtp payload type above 127");
    if (csrcs.size() > kMaxCsrcs) return fail(error, "too many csrcs");
    if (extension && (extension->data.size() % 4 != 0 || extension->data.size() / 4 > 0xffff)) {
        return fail(error, "bad header extension length");
    }
    out.clear();
    out.reserve(kFixedHeaderSize + csrcs.size() * 4 + (extension ? 4 + extension->data.size() : 0) + payload.size() +
                paddingLength);
    wire::put8(out, 0x80u | (paddingLength ? 0x20u : 0u) | (extension ? 0x10u : 0u) | static_cast<unsigned>(csrcs.size()));
    wire::put8(out, (marker ? 0x80u : 0u) | payloadType);
    wire::put16(out, sequence);
    wire::put32(out, timestamp);
    wire::put32(out, ssrc);
    for (const uint32_t c : csrcs) wire::put32(out, c);
    if (extension) {
        wire::put16(out, extension->profile);
        wire::put16(out, static_cast<uint32_t>(extension->data.size() / 4));
        out.insert(out.end(), extension->data.begin(), extension->data.end());
    }
    out.insert(out.end(), payload.begin(), payload.end());
    if (paddingLength) {
        out.insert(out.end(), paddingLength - 1u, uint8_t{0});
        out.push_back(paddingLength);
    }
    return true;
}

bool operator==(const RtpPacket& a, const RtpPacket& b) {
    return a.marker == b.marker && a.payloadType == b.payloadType && a.sequence == b.sequence &&
           a.timestamp == b.timestamp && a.ssrc == b.ssrc && a.csrcs == b.csrcs && a.extension == b.extension &&
           a.paddingLength == b.paddingLength && std::ranges::equal(a.payload, b.payload);
}

}  // namespace kelsip
