// SRTP and SRTCP protection (RFC 3711 3, 4): AES-CM with the session salt,
// SSRC and index in the counter, HMAC-SHA1 over the packet and the rollover
// counter or SRTCP index.
#include "media/srtp/srtp_context.h"

#include <algorithm>

namespace kelsip::srtp {

namespace {

constexpr size_t kRtpHeader = 12;
constexpr size_t kRtcpClearPart = 8;  // header and the sender's SSRC stay readable
constexpr uint32_t kEncryptedFlag = 0x80000000u;

uint32_t readU32(std::span<const uint8_t> b, size_t at) {
    return (uint32_t{b[at]} << 24) | (uint32_t{b[at + 1]} << 16) | (uint32_t{b[at + 2]} << 8) | b[at + 3];
}

std::array<uint8_t, 4> be32(uint32_t v) {
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
            static_cast<uint8_t>(v)};
}

void appendU32(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(static_cast<uint8_t>(v >> 24));
    out.push_back(static_cast<uint8_t>(v >> 16));
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

// Length of the RTP header with CSRCs and extension; empty if it does not fit.
std::optional<size_t> rtpHeaderLength(std::span<const uint8_t> packet) {
    if (packet.size() < kRtpHeader || (packet[0] >> 6) != 2) return std::nullopt;
    size_t length = kRtpHeader + 4 * size_t{static_cast<uint8_t>(packet[0] & 0x0f)};
    if ((packet[0] & 0x10) != 0) {
        if (packet.size() < length + 4) return std::nullopt;
        length += 4 + 4 * ((size_t{packet[length + 2]} << 8) | packet[length + 3]);
    }
    if (length > packet.size()) return std::nullopt;
    return length;
}

// Tags are compared without an early exit, so timing tells nothing of them.
bool sameTag(std::span<const uint8_t> a, std::span<const uint8_t> b) {
    uint8_t diff = 0;
    for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<uint8_t>(a[i] ^ b[i]);
    return diff == 0;
}

// x = (master salt XOR label << 48) * 2^16: RFC 3711 4.3.1 with r = 0.
bool prf(crypto::AesCounter& aes, std::span<const uint8_t, kMasterSaltLength> salt, uint8_t label,
         std::span<uint8_t> out) {
    crypto::Block iv{};
    std::copy(salt.begin(), salt.end(), iv.begin());
    iv[7] ^= label;
    std::fill(out.begin(), out.end(), uint8_t{0});
    return aes.apply(iv, out);
}

}  // namespace

std::string_view toString(Suite suite) {
    switch (suite) {
        case Suite::AesCm128HmacSha1_80: return "AES_CM_128_HMAC_SHA1_80";
        case Suite::AesCm128HmacSha1_32: return "AES_CM_128_HMAC_SHA1_32";
    }
    return "AES_CM_128_HMAC_SHA1_80";
}

std::optional<Suite> suiteFromName(std::string_view name) {
    for (const Suite s : {Suite::AesCm128HmacSha1_80, Suite::AesCm128HmacSha1_32}) {
        if (toString(s) == name) return s;
    }
    return std::nullopt;
}

size_t rtpTagLength(Suite suite) { return suite == Suite::AesCm128HmacSha1_32 ? 4 : 10; }

std::string_view toString(Status status) {
    switch (status) {
        case Status::Ok: return "ok";
        case Status::Malformed: return "malformed packet";
        case Status::Unauthentic: return "authentication failed";
        case Status::Replayed: return "replayed packet";
        case Status::TooManyStreams: return "too many streams";
        case Status::CipherFailed: return "cipher failed";
    }
    return "cipher failed";
}

bool deriveSessionKeys(const MasterKey& master, bool rtcp, SessionKeys& out) {
    auto aes = crypto::AesCounter::create(master.key);
    if (!aes) return false;
    const uint8_t first = rtcp ? 3 : 0;
    return prf(*aes, master.salt, first, out.cipher) && prf(*aes, master.salt, first + 1, out.auth) &&
           prf(*aes, master.salt, first + 2, out.salt);
}

bool Context::makeKeys(const MasterKey& master, bool rtcp, Keys& out) {
    SessionKeys keys;
    if (!deriveSessionKeys(master, rtcp, keys)) return false;
    out.cipher = crypto::AesCounter::create(keys.cipher);
    out.auth = crypto::HmacSha1::create(keys.auth);
    out.salt = keys.salt;
    return out.cipher && out.auth;
}

std::unique_ptr<Context> Context::create(Suite suite, const MasterKey& master) {
    if (master.mki.size() > kMaxMkiLength) return nullptr;
    std::unique_ptr<Context> context(new Context(suite, master.mki));
    if (!makeKeys(master, false, context->rtp_) || !makeKeys(master, true, context->rtcp_)) return nullptr;
    return context;
}

std::optional<uint32_t> Context::rolloverCounter(uint32_t ssrc) const {
    const auto it = streams_.find(ssrc);
    if (it == streams_.end()) return std::nullopt;
    return it->second.rollover.roc();
}

Context::Stream* Context::stream(uint32_t ssrc) {
    if (auto it = streams_.find(ssrc); it != streams_.end()) return &it->second;
    if (streams_.size() >= kMaxStreams) return nullptr;
    return &streams_[ssrc];
}

// IV = (k_s * 2^16) XOR (SSRC * 2^64) XOR (i * 2^16), RFC 3711 4.1.1.
bool Context::crypt(Keys& keys, uint32_t ssrc, uint64_t index, std::span<uint8_t> data) {
    if (data.empty()) return true;
    crypto::Block iv{};
    std::copy(keys.salt.begin(), keys.salt.end(), iv.begin());
    for (size_t i = 0; i < 4; ++i) iv[4 + i] ^= static_cast<uint8_t>(ssrc >> (24 - 8 * i));
    for (size_t i = 0; i < 6; ++i) iv[8 + i] ^= static_cast<uint8_t>(index >> (40 - 8 * i));
    return keys.cipher->apply(iv, data);
}

bool Context::tag(Keys& keys, std::span<const uint8_t> message, std::span<const uint8_t> trailer,
                  crypto::Sha1Digest& out) {
    const std::span<const uint8_t> parts[] = {message, trailer};
    return keys.auth->compute(parts, out);
}

Status Context::protectRtp(std::vector<uint8_t>& packet) {
    const auto header = rtpHeaderLength(packet);
    if (!header) return Status::Malformed;
    const uint16_t sequence = static_cast<uint16_t>((packet[2] << 8) | packet[3]);
    const uint32_t ssrc = readU32(packet, 8);
    Stream* s = stream(ssrc);
    if (s == nullptr) return Status::TooManyStreams;
    const auto index = s->rollover.estimate(sequence);
    if (!index) return Status::Malformed;
    if (!crypt(rtp_, ssrc, *index, std::span(packet).subspan(*header))) return Status::CipherFailed;
    s->rollover.commit(*index);
    const size_t authenticated = packet.size();
    const auto roc = be32(static_cast<uint32_t>(*index >> 16));
    crypto::Sha1Digest digest{};
    if (!tag(rtp_, std::span(packet).first(authenticated), roc, digest)) return Status::CipherFailed;
    packet.insert(packet.end(), mki_.begin(), mki_.end());
    packet.insert(packet.end(), digest.begin(), digest.begin() + static_cast<ptrdiff_t>(rtpTagLength(suite_)));
    return Status::Ok;
}

Status Context::unprotectRtp(std::vector<uint8_t>& packet) {
    const size_t tagLength = rtpTagLength(suite_);
    if (packet.size() < kRtpHeader + mki_.size() + tagLength) return Status::Malformed;
    const size_t authenticated = packet.size() - mki_.size() - tagLength;
    const std::span<const uint8_t> body = std::span(packet).first(authenticated);
    const auto header = rtpHeaderLength(body);
    if (!header) return Status::Malformed;
    if (!std::equal(mki_.begin(), mki_.end(), packet.begin() + static_cast<ptrdiff_t>(authenticated))) {
        return Status::Unauthentic;  // a key we do not hold
    }
    const uint16_t sequence = static_cast<uint16_t>((packet[2] << 8) | packet[3]);
    const uint32_t ssrc = readU32(packet, 8);
    const auto found = streams_.find(ssrc);
    const Stream fresh;
    const Stream& known = found != streams_.end() ? found->second : fresh;
    const auto index = known.rollover.estimate(sequence);
    if (!index) return Status::Replayed;
    if (known.rtpReplay.seen(*index)) return Status::Replayed;
    const auto roc = be32(static_cast<uint32_t>(*index >> 16));
    crypto::Sha1Digest digest{};
    if (!tag(rtp_, body, roc, digest)) return Status::CipherFailed;
    if (!sameTag(std::span(digest).first(tagLength), std::span(packet).last(tagLength))) return Status::Unauthentic;
    Stream* s = stream(ssrc);
    if (s == nullptr) return Status::TooManyStreams;
    if (!crypt(rtp_, ssrc, *index, std::span(packet).subspan(*header, authenticated - *header))) {
        return Status::CipherFailed;
    }
    s->rollover.commit(*index);
    s->rtpReplay.accept(*index);
    packet.resize(authenticated);
    return Status::Ok;
}

Status Context::protectRtcp(std::vector<uint8_t>& packet) {
    if (packet.size() < kRtcpClearPart || (packet[0] >> 6) != 2) return Status::Malformed;
    const uint32_t ssrc = readU32(packet, 4);
    Stream* s = stream(ssrc);
    if (s == nullptr) return Status::TooManyStreams;
    const uint32_t index = s->nextRtcpIndex;
    if (!crypt(rtcp_, ssrc, index, std::span(packet).subspan(kRtcpClearPart))) return Status::CipherFailed;
    s->nextRtcpIndex = (index + 1) & 0x7fffffffu;
    appendU32(packet, kEncryptedFlag | index);
    crypto::Sha1Digest digest{};
    if (!tag(rtcp_, packet, {}, digest)) return Status::CipherFailed;
    packet.insert(packet.end(), mki_.begin(), mki_.end());
    packet.insert(packet.end(), digest.begin(), digest.begin() + kRtcpTagLength);
    return Status::Ok;
}

Status Context::unprotectRtcp(std::vector<uint8_t>& packet) {
    const size_t trailer = 4 + mki_.size() + kRtcpTagLength;
    if (packet.size() < kRtcpClearPart + trailer || (packet[0] >> 6) != 2) return Status::Malformed;
    const size_t authenticated = packet.size() - mki_.size() - kRtcpTagLength;
    if (!std::equal(mki_.begin(), mki_.end(), packet.begin() + static_cast<ptrdiff_t>(authenticated))) {
        return Status::Unauthentic;
    }
    const uint32_t ssrc = readU32(packet, 4);
    const uint32_t word = readU32(packet, authenticated - 4);
    const uint32_t index = word & 0x7fffffffu;
    const auto found = streams_.find(ssrc);
    if (found != streams_.end() && found->second.rtcpReplay.seen(index)) return Status::Replayed;
    crypto::Sha1Digest digest{};
    if (!tag(rtcp_, std::span(packet).first(authenticated), {}, digest)) return Status::CipherFailed;
    if (!sameTag(std::span(digest).first(kRtcpTagLength), std::span(packet).last(kRtcpTagLength))) {
        return Status::Unauthentic;
    }
    Stream* s = stream(ssrc);
    if (s == nullptr) return Status::TooManyStreams;
    const size_t end = authenticated - 4;
    if ((word & kEncryptedFlag) != 0 &&
        !crypt(rtcp_, ssrc, index, std::span(packet).subspan(kRtcpClearPart, end - kRtcpClearPart))) {
        return Status::CipherFailed;
    }
    s->rtcpReplay.accept(index);
    packet.resize(end);
    return Status::Ok;
}

}  // namespace kelsip::srtp
