// The media session's receive path (RTP into the playout buffer, RFC 4733
// digits) and its RTCP: reports at RFC 3550 intervals, what the far end's
// reports say about our stream, and the round-trip time.
#include <algorithm>
#include <cstdio>
#include <variant>

#include "media/session/media_session.h"
#include "media/session/media_session_state.h"
#include "media/rtp/rtcp_packet.h"
#include "media/session/rtcp_schedule.h"
#include "media/rtp/rtp_packet.h"
#include "sip/core/log.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "media";
// A new SSRC takes over once it has sent this many packets in a row with
// nothing from the old one between them: a re-INVITE to another media
// server switches at once, while a stray packet of a forked early dialog
// does not.
constexpr int kSourceSwitchPackets = 3;
// RTP/AVP with G.711 at 20 ms: 64 kbit/s plus 40 header octets 50 times a
// second is 10000 octets/s, of which RTCP may use 5 %.
constexpr double kRtcpBandwidth = 500;
constexpr double kUdpIpOverhead = 28;

bool plays(MediaDirection d) { return d == MediaDirection::SendRecv || d == MediaDirection::RecvOnly; }

}  // namespace

void MediaSession::onPacket(MediaTransport::Channel channel, std::span<const uint8_t> bytes, int64_t arrivalUs) {
    if (control_->closed) return;
    if (channel == MediaTransport::Channel::Rtp) {
        // RTCP multiplexed on the RTP port (RFC 5761) is told apart by its
        // packet types 200..204 in the second byte.
        if (bytes.size() >= 2 && bytes[1] >= 200 && bytes[1] <= 204) {
            receiveRtcp(bytes, arrivalUs);
        } else {
            receiveRtp(bytes, arrivalUs);
        }
    } else {
        receiveRtcp(bytes, arrivalUs);
    }
}

void MediaSession::receiveRtp(std::span<const uint8_t> bytes, int64_t arrivalUs) {
    const auto packet = RtpPacket::parse(bytes);
    std::optional<char> digit;
    std::optional<uint32_t> eventAt;  // an event packet's timestamp, for the playout buffer
    std::shared_ptr<JitterBuffer> buffer;
    {
        const std::lock_guard lock(receive_->mutex);
        ReceiveSide& r = *receive_;
        if (!packet || (packet->payloadType != r.payloadType && packet->payloadType != r.eventPayloadType)) {
            ++r.discarded;
            return;
        }
        if (!r.ssrc) {
            r.ssrc = packet->ssrc;
        } else if (packet->ssrc != *r.ssrc) {
            r.candidatePackets = packet->ssrc == r.candidateSsrc ? r.candidatePackets + 1 : 1;
            r.candidateSsrc = packet->ssrc;
            if (r.candidatePackets < kSourceSwitchPackets && !r.remoteBye) {
                ++r.discarded;
                return;
            }
            char line[96];
            std::snprintf(line, sizeof line, "call %d: remote SSRC changed to %08x", control_->config.call,
                          static_cast<unsigned>(packet->ssrc));
            log::info(kTag, line);
            r.ssrc = packet->ssrc;
            r.sequence.reset();
            r.jitter.reset();
            r.events.reset();
            r.remoteBye = false;
            r.buffer->reset();
            // The packets that proved the new source were dropped; their
            // audio is concealed like any loss.
        } else {
            r.candidatePackets = 0;
        }
        if (r.sequence.update(packet->sequence) == RtpSequenceTracker::Verdict::Rejected) {
            ++r.discarded;
            return;
        }
        ++r.packets;
        r.octets += packet->payload.size();
        if (packet->payloadType == r.eventPayloadType) {
            if (const auto event = TelephoneEvent::parse(packet->payload)) {
                digit = r.events.onPacket(packet->ssrc, packet->timestamp, packet->marker, *event);
                if (digit) ++r.digits;
                eventAt = packet->timestamp;
                if (plays(control_->direction.load())) buffer = r.buffer;
            }
        } else {
            // Event packets repeat one timestamp, so only audio feeds the jitter.
            r.jitter.update(packet->timestamp, arrivalUs);
            if (plays(control_->direction.load())) buffer = r.buffer;
        }
    }
    if (buffer && eventAt) {
        buffer->pushEvent(*eventAt);
    } else if (buffer) {
        buffer->push(packet->sequence, packet->timestamp, packet->payload, arrivalUs);
    }
    if (digit) {
        std::shared_ptr<MediaSessionListener> listener;
        {
            const std::lock_guard lock(control_->listenerMutex);
            listener = control_->listener;
        }
        if (listener) listener->onDigit(*digit);
    }
}

void MediaSession::receiveRtcp(std::span<const uint8_t> bytes, int64_t arrivalUs) {
    const auto compound = RtcpCompound::parse(bytes);
    if (!compound) return;
    const uint32_t ourSsrc = send_->ssrc;
    uint32_t remoteSsrc = 0;
    uint32_t clockRate = 0;
    {
        const std::lock_guard lock(receive_->mutex);
        remoteSsrc = receive_->ssrc.value_or(0);
        clockRate = receive_->clockRate;
    }
    bool bye = false;
    const auto readBlocks = [&](const std::vector<RtcpReportBlock>& blocks) {
        Control& c = *control_;
        for (const auto& b : blocks) {
            if (b.ssrc != ourSsrc) continue;
            c.remoteFractionLost = b.fractionLost / 256.0;
            c.remotePacketsLost = b.cumulativeLost;
            c.remoteJitterMs = clockRate ? b.jitter * 1000.0 / clockRate : 0.0;
            if (b.lastSenderReport != 0) {
                // RFC 3550 6.4.1: arrival minus LSR minus DLSR, in 1/65536 s.
                const uint32_t arrival = ntpMiddle32(ntpAt(arrivalUs));
                const auto rtt = static_cast<int32_t>(arrival - b.lastSenderReport - b.delaySinceLastSenderReport);
                if (rtt >= 0) c.roundTripMs = rtt * 1000.0 / 65536.0;
            }
        }
    };
    {
        const std::lock_guard lock(control_->rtcpMutex);
        Control& c = *control_;
        ++c.rtcpReceived;
        c.averageRtcpSize = updateAverageRtcpSize(c.averageRtcpSize, static_cast<double>(bytes.size()) + kUdpIpOverhead);
        for (const auto& p : compound->packets) {
            if (const auto* sr = std::get_if<RtcpSenderReport>(&p)) {
                c.lastSenderReport = ntpMiddle32(sr->ntpTimestamp);
                c.lastSenderReportUs = arrivalUs;
                readBlocks(sr->reports);
            } else if (const auto* rr = std::get_if<RtcpReceiverReport>(&p)) {
                readBlocks(rr->reports);
            } else if (const auto* b = std::get_if<RtcpBye>(&p)) {
                bye = bye || std::find(b->ssrcs.begin(), b->ssrcs.end(), remoteSsrc) != b->ssrcs.end();
            }
        }
    }
    if (bye) {
        {
            const std::lock_guard lock(receive_->mutex);
            receive_->remoteBye = true;
        }
        std::shared_ptr<MediaSessionListener> listener;
        {
            const std::lock_guard lock(control_->listenerMutex);
            listener = control_->listener;
        }
        if (listener) listener->onRemoteBye();
    }
}

void MediaSession::onTick(int64_t nowUs) {
    if (control_->closed) return;
    {
        const std::lock_guard lock(control_->rtcpMutex);
        if (nowUs < control_->nextReportUs) return;
    }
    sendReport(nowUs, false);
}

void MediaSession::scheduleNextReport(int64_t nowUs, bool initial, bool weSent) {
    Control& c = *control_;
    RtcpIntervalInput in;
    in.members = 2;
    in.weSent = weSent;
    in.senders = weSent ? 2 : 1;
    in.rtcpBandwidth = kRtcpBandwidth;
    in.averageRtcpSize = c.averageRtcpSize;
    in.initial = initial;
    const double seconds = rtcpIntervalSeconds(in, std::uniform_real_distribution<double>(0.0, 1.0)(c.random));
    c.nextReportUs = nowUs + static_cast<int64_t>(seconds * 1e6);
}

void MediaSession::sendReport(int64_t nowUs, bool bye) {
    const std::vector<uint8_t> bytes = buildReport(nowUs, bye);
    if (!bytes.empty()) (void)transport_->send(MediaTransport::Channel::Rtcp, bytes);
}

std::vector<uint8_t> MediaSession::buildReport(int64_t nowUs, bool bye) {
    const SendSide& s = *send_;
    const uint64_t sent = s.packets.load();

    std::optional<RtcpReportBlock> block;
    uint32_t clockRate = 0;
    {
        const std::lock_guard lock(receive_->mutex);
        ReceiveSide& r = *receive_;
        clockRate = r.clockRate;
        if (r.ssrc && r.sequence.started()) {
            RtcpReportBlock b;
            b.ssrc = *r.ssrc;
            b.fractionLost = r.lastFractionLost = r.sequence.takeFractionLost();
            b.cumulativeLost = static_cast<int32_t>(std::clamp<int64_t>(
                r.sequence.cumulativeLost(), RtcpReportBlock::kMinCumulativeLost, RtcpReportBlock::kMaxCumulativeLost));
            b.extendedHighestSequence = r.sequence.extendedHighest();
            b.jitter = r.jitter.value();
            block = b;
        }
    }

    const std::lock_guard lock(control_->rtcpMutex);
    Control& c = *control_;
    if (block && c.lastSenderReportUs != 0) {
        block->lastSenderReport = c.lastSenderReport;
        block->delaySinceLastSenderReport = static_cast<uint32_t>((nowUs - c.lastSenderReportUs) * 65536 / 1000000);
    }
    RtcpCompound compound;
    const bool weSent = sent != c.packetsAtLastReport;
    if (weSent || (bye && sent > 0)) {
        RtcpSenderReport sr;
        sr.ssrc = s.ssrc;
        sr.ntpTimestamp = ntpAt(nowUs);
        // The RTP time of this instant, from the last packet sent.
        const int64_t sinceLast = nowUs - s.lastSendUs.load();
        sr.rtpTimestamp = s.lastTimestamp.load() +
                          static_cast<uint32_t>(std::max<int64_t>(0, sinceLast) * clockRate / 1000000);
        sr.packetCount = static_cast<uint32_t>(sent);
        sr.octetCount = static_cast<uint32_t>(s.octets.load());
        if (block) sr.reports.push_back(*block);
        compound.packets.emplace_back(std::move(sr));
    } else {
        RtcpReceiverReport rr;
        rr.ssrc = s.ssrc;
        if (block) rr.reports.push_back(*block);
        compound.packets.emplace_back(std::move(rr));
    }
    compound.packets.emplace_back(RtcpSdes{{RtcpSdesChunk{s.ssrc, c.config.cname}}});
    if (bye) compound.packets.emplace_back(RtcpBye{{s.ssrc}, {}});

    std::vector<uint8_t> bytes;
    if (!compound.writeTo(bytes)) return {};
    c.packetsAtLastReport = sent;
    ++c.rtcpSent;
    c.averageRtcpSize = updateAverageRtcpSize(c.averageRtcpSize, static_cast<double>(bytes.size()) + kUdpIpOverhead);
    if (!bye) scheduleNextReport(nowUs, false, weSent);
    return bytes;
}

}  // namespace kelsip
