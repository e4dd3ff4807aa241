// RTCP compound packets: each packet's length, counts and padding checked
// against the datagram before a field is read; the matching writer.
#include "media/rtp/rtcp_packet.h"

#include <algorithm>
#include <type_traits>

#include "media/rtp/wire_bytes.h"

namespace kelsip {

namespace {

constexpr uint8_t kSenderReport = 200;
constexpr uint8_t kReceiverReport = 201;
constexpr uint8_t kSourceDescription = 202;
constexpr uint8_t kGoodbye = 203;
constexpr uint8_t kSdesCname = 1;
constexpr size_t kReportBlockSize = 24;

bool fail(std::string* error, const char* text) {
    if (error) *error = text;
    return false;
}

size_t alignedTo4(size_t n) { return (n + 3) & ~size_t{3}; }

std::string textAt(std::span<const uint8_t> body, size_t at, size_t length) {
    return std::string(reinterpret_cast<const char*>(body.data() + at), length);
}

RtcpReportBlock readReportBlock(std::span<const uint8_t> b, size_t at) {
    RtcpReportBlock r;
    r.ssrc = wire::get32(b, at);
    const uint32_t lossWord = wire::get32(b, at + 4);
    r.fractionLost = static_cast<uint8_t>(lossWord >> 24);
    const auto lost = static_cast<int32_t>(lossWord & 0xffffff);
    r.cumulativeLost = (lost & 0x800000) ? lost - 0x1000000 : lost;
    r.extendedHighestSequence = wire::get32(b, at + 8);
    r.jitter = wire::get32(b, at + 12);
    r.lastSenderReport = wire::get32(b, at + 16);
    r.delaySinceLastSenderReport = wire::get32(b, at + 20);
    return r;
}

// Reads `count` report blocks from `at`; whatever follows them is a profile
// extension and is skipped.
bool readReportBlocks(std::span<const uint8_t> body, size_t at, size_t count, std::vector<RtcpReportBlock>& out,
                      std::string* error) {
    if ((body.size() - at) / kReportBlockSize < count) return fail(error, "truncated report block");
    for (size_t i = 0; i < count; ++i) out.push_back(readReportBlock(body, at + i * kReportBlockSize));
    return true;
}

bool readSdes(std::span<const uint8_t> body, size_t count, RtcpSdes& sdes, std::string* error) {
    size_t at = 0;
    for (size_t i = 0; i < count; ++i) {
        if (body.size() - at < 4) return fail(error, "truncated sdes chunk");
        RtcpSdesChunk chunk;
        chunk.ssrc = wire::get32(body, at);
        at += 4;
        bool haveCname = false;
        for (;;) {
            if (at >= body.size()) return fail(error, "truncated sdes chunk");
            const uint8_t type = body[at];
            if (type == 0) break;
            if (body.size() - at < 2 || body.size() - at - 2 < body[at + 1]) {
                return fail(error, "truncated sdes item");
            }
            const size_t length = body[at + 1];
            if (type == kSdesCname && !haveCname) {
                chunk.cname = textAt(body, at + 2, length);
                haveCname = true;
            }
            at += 2 + length;
        }
        // The null item ends the list; the null octets after it only pad the
        // chunk to a 32-bit boundary (chunks start on one).
        at = std::min(alignedTo4(at + 1), body.size());
        sdes.chunks.push_back(std::move(chunk));
    }
    return true;
}

bool readBye(std::span<const uint8_t> body, size_t count, RtcpBye& bye, std::string* error) {
    if (body.size() / 4 < count) return fail(error, "truncated bye");
    for (size_t i = 0; i < count; ++i) bye.ssrcs.push_back(wire::get32(body, i * 4));
    const size_t at = count * 4;
    if (at < body.size()) {
        const size_t length = body[at];
        if (body.size() - at - 1 < length) return fail(error, "truncated bye reason");
        bye.reason = textAt(body, at + 1, length);
    }
    return true;
}

void writeReportBlock(std::vector<uint8_t>& out, const RtcpReportBlock& r) {
    const int32_t lost =
        std::clamp(r.cumulativeLost, RtcpReportBlock::kMinCumulativeLost, RtcpReportBlock::kMaxCumulativeLost);
    wire::put32(out, r.ssrc);
    wire::put32(out, (uint32_t{r.fractionLost} << 24) | (static_cast<uint32_t>(lost) & 0xffffff));
    wire::put32(out, r.extendedHighestSequence);
    wire::put32(out, r.jitter);
    wire::put32(out, r.lastSenderReport);
    wire::put32(out, r.delaySinceLastSenderReport);
}

// Checks what the writer cannot carry before any byte is written.
bool fits(const RtcpPacket& packet, std::string* error) {
    return std::visit(
        [error](const auto& p) {
            using T = std::decay_t<decltype(p)>;
            if constexpr (std::is_same_v<T, RtcpSenderReport> || std::is_same_v<T, RtcpReceiverReport>) {
                if (p.reports.size() > RtcpCompound::kMaxCount) return fail(error, "too many report blocks");
            } else if constexpr (std::is_same_v<T, RtcpSdes>) {
                if (p.chunks.size() > RtcpCompound::kMaxCount) return fail(error, "too many sdes chunks");
                for (const RtcpSdesChunk& c : p.chunks) {
                    if (c.cname.size() > RtcpCompound::kMaxItemLength) return fail(error, "cname too long");
                }
            } else {
                if (p.ssrcs.size() > RtcpCompound::kMaxCount) return fail(error, "too many bye sources");
                if (p.reason.size() > RtcpCompound::kMaxItemLength) return fail(error, "bye reason too long");
            }
            return true;
        },
        packet);
}

void padTo4(std::vector<uint8_t>& out, size_t start) {
    while ((out.size() - start) % 4 != 0) out.push_back(0);
}

void writeBody(std::vector<uint8_t>& out, const RtcpSenderReport& sr) {
    wire::put32(out, sr.ssrc);
    wire::put32(out, static_cast<uint32_t>(sr.ntpTimestamp >> 32));
    wire::put32(out, static_cast<uint32_t>(sr.ntpTimestamp));
    wire::put32(out, sr.rtpTimestamp);
    wire::put32(out, sr.packetCount);
    wire::put32(out, sr.octetCount);
    for (const RtcpReportBlock& r : sr.reports) writeReportBlock(out, r);
}

void writeBody(std::vector<uint8_t>& out, const RtcpReceiverReport& rr) {
    wire::put32(out, rr.ssrc);
    for (const RtcpReportBlock& r : rr.reports) writeReportBlock(out, r);
}

void writeBody(std::vector<uint8_t>& out, const RtcpSdes& sdes) {
    for (const RtcpSdesChunk& c : sdes.chunks) {
        const size_t start = out.size();
        wire::put32(out, c.ssrc);
        if (!c.cname.empty()) {
            wire::put8(out, kSdesCname);
            wire::put8(out, static_cast<unsigned>(c.cname.size()));
            out.insert(out.end(), c.cname.begin(), c.cname.end());
        }
        out.push_back(0);  // the null item that ends the list
        padTo4(out, start);
    }
}

void writeBody(std::vector<uint8_t>& out, const RtcpBye& bye) {
    const size_t start = out.size();
    for (const uint32_t s : bye.ssrcs) wire::put32(out, s);
    if (!bye.reason.empty()) {
        wire::put8(out, static_cast<unsigned>(bye.reason.size()));
        out.insert(out.end(), bye.reason.begin(), bye.reason.end());
        padTo4(out, start);
    }
}

struct Header {
    size_t count;
    uint8_t type;
};

Header headerOf(const RtcpPacket& packet) {
    return std::visit(
        [](const auto& p) -> Header {
            using T = std::decay_t<decltype(p)>;
            if constexpr (std::is_same_v<T, RtcpSenderReport>) return {p.reports.size(), kSenderReport};
            if constexpr (std::is_same_v<T, RtcpReceiverReport>) return {p.reports.size(), kReceiverReport};
            if constexpr (std::is_same_v<T, RtcpSdes>) return {p.chunks.size(), kSourceDescription};
            if constexpr (std::is_same_v<T, RtcpBye>) return {p.ssrcs.size(), kGoodbye};
        },
        packet);
}

}  // namespace

std::optional<RtcpCompound> RtcpCompound::parse(std::span<const uint8_t> bytes, std::string* error) {
    const auto reject = [error](const char* text) {
        if (error) *error = text;
        return std::nullopt;
    };
    if (bytes.empty()) return reject("empty rtcp packet");
    RtcpCompound compound;
    size_t pos = 0;
    while (pos < bytes.size()) {
        if (bytes.size() - pos < 4) return reject("truncated rtcp header");
        const uint8_t first = bytes[pos];
        if ((first >> 6) != 2) return reject("unsupported rtcp version");
        const size_t count = first & 0x1f;
        const uint8_t type = bytes[pos + 1];
        const size_t length = (size_t{wire::get16(bytes, pos + 2)} + 1) * 4;
        if (length > bytes.size() - pos) return reject("rtcp length exceeds packet");
        std::span<const uint8_t> body = bytes.subspan(pos + 4, length - 4);
        pos += length;
        if (first & 0x20) {
            const size_t padding = body.empty() ? 0 : body.back();
            if (padding == 0 || padding > body.size()) return reject("bad rtcp padding length");
            body = body.first(body.size() - padding);
        }

        switch (type) {
            case kSenderReport: {
                if (body.size() < 24) return reject("truncated sender report");
                RtcpSenderReport sr;
                sr.ssrc = wire::get32(body, 0);
                sr.ntpTimestamp = (uint64_t{wire::get32(body, 4)} << 32) | wire::get32(body, 8);
                sr.rtpTimestamp = wire::get32(body, 12);
                sr.packetCount = wire::get32(body, 16);
                sr.octetCount = wire::get32(body, 20);
                if (!readReportBlocks(body, 24, count, sr.reports, error)) return std::nullopt;
                compound.packets.emplace_back(std::move(sr));
                break;
            }
            case kReceiverReport: {
                if (body.size() < 4) return reject("truncated receiver report");
                RtcpReceiverReport rr;
                rr.ssrc = wire::get32(body, 0);
                if (!readReportBlocks(body, 4, count, rr.reports, error)) return std::nullopt;
                compound.packets.emplace_back(std::move(rr));
                break;
            }
            case kSourceDescription: {
                RtcpSdes sdes;
                if (!readSdes(body, count, sdes, error)) return std::nullopt;
                compound.packets.emplace_back(std::move(sdes));
                break;
            }
            case kGoodbye: {
                RtcpBye bye;
                if (!readBye(body, count, bye, error)) return std::nullopt;
                compound.packets.emplace_back(std::move(bye));
                break;
            }
            default:
                break;  // a type we do not use; its length still framed it
        }
    }
    return compound;
}

bool RtcpCompound::writeTo(std::vector<uint8_t>& out, std::string* error) const {
    for (const RtcpPacket& p : packets) {
        if (!fits(p, error)) return false;
    }
    out.clear();
    for (const RtcpPacket& p : packets) {
        const Header h = headerOf(p);
        const size_t start = out.size();
        wire::put8(out, 0x80u | static_cast<unsigned>(h.count));
        wire::put8(out, h.type);
        wire::put16(out, 0);
        std::visit([&out](const auto& body) { writeBody(out, body); }, p);
        wire::set16(out, start + 2, static_cast<uint32_t>((out.size() - start) / 4 - 1));
    }
    return true;
}

}  // namespace kelsip
