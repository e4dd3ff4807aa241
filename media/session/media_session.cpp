// The media session's set-up, its send path (capture to RTP) and playout,
// and what the call side changes while the call runs.
#include "media/session/media_session.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "media/codec/codec_registry.h"
#include "media/session/media_session_state.h"
#include "media/rtp/rtp_packet.h"
#include "sip/core/log.h"
#include "sip/core/system.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "media";

template <typename T>
T randomValue() {
    T value{};
    if (!platform::secureRandom(&value, sizeof value)) {
        // Without the system's generator the values only need to differ
        // between calls, which the clock gives.
        value = static_cast<T>(std::chrono::steady_clock::now().time_since_epoch().count());
    }
    return value;
}

bool sends(MediaDirection d) { return d == MediaDirection::SendRecv || d == MediaDirection::SendOnly; }
bool plays(MediaDirection d) { return d == MediaDirection::SendRecv || d == MediaDirection::RecvOnly; }

uint32_t frameSamplesOf(const NegotiatedCodec& codec) {
    const uint32_t ptime = codec.ptime ? codec.ptime : 20;
    return std::max<uint32_t>(1, codec.clockRate * ptime / 1000);
}

// Seconds 1900-1970 that NTP time counts in addition to the Unix epoch.
constexpr uint64_t kNtpUnixOffset = 2208988800ULL;

uint64_t ntpNow() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(since).count();
    const uint64_t seconds = static_cast<uint64_t>(us / 1000000) + kNtpUnixOffset;
    const uint64_t fraction = (static_cast<uint64_t>(us % 1000000) << 32) / 1000000;
    return (seconds << 32) | fraction;
}

}  // namespace

std::unique_ptr<MediaSession> MediaSession::create(MediaSessionConfig config, std::unique_ptr<MediaTransport> transport,
                                                   std::string* error) {
    const auto fail = [&](const char* text) -> std::unique_ptr<MediaSession> {
        if (error) *error = text;
        return nullptr;
    };
    if (!transport) return fail("no media transport");
    if (config.codec.clockRate == 0 || config.codec.payloadType < 0 || config.codec.payloadType > 127) {
        return fail("no negotiated codec");
    }
    if (!CodecRegistry::instance().create(config.codec.name)) {
        log::warn(kTag, "codec not available: " + config.codec.name);
        return fail("codec not supported");
    }
    std::unique_ptr<MediaSession> session(new MediaSession(std::move(config), std::move(transport)));
    session->transport_->attach(session.get());
    return session;
}

MediaSession::MediaSession(MediaSessionConfig config, std::unique_ptr<MediaTransport> transport)
    : transport_(std::move(transport)),
      send_(std::make_unique<SendSide>()),
      receive_(std::make_unique<ReceiveSide>()),
      control_(std::make_unique<Control>()) {
    Control& c = *control_;
    c.config = std::move(config);
    c.clock = c.config.clock ? c.config.clock : &c.steady;
    c.direction = c.config.direction;
    c.startUs = nowUs();
    c.ntpAtStart = ntpNow();
    c.random.seed(c.config.randomSeed ? *c.config.randomSeed : randomValue<uint64_t>());
    if (c.config.cname.empty()) {
        char name[32];
        std::snprintf(name, sizeof name, "%08x@velmora", static_cast<unsigned>(randomValue<uint32_t>()));
        c.config.cname = name;
    }

    SendSide& s = *send_;
    s.ssrc = c.config.ssrc ? *c.config.ssrc : randomValue<uint32_t>();
    s.sequence = c.config.initialSequence ? *c.config.initialSequence : randomValue<uint16_t>();
    s.timestamp = c.config.initialTimestamp ? *c.config.initialTimestamp : randomValue<uint32_t>();
    s.lastTimestamp = s.timestamp;
    // create() made sure the registry runs this codec.
    (void)setCodec(c.config.codec);
    scheduleNextReport(c.startUs, true, false);

    char line[160];
    std::snprintf(line, sizeof line, "call %d: media %s/%u ptime %u, SSRC %08x", c.config.call,
                  c.config.codec.name.c_str(), static_cast<unsigned>(c.config.codec.clockRate),
                  static_cast<unsigned>(c.config.codec.ptime), static_cast<unsigned>(s.ssrc));
    log::info(kTag, line);
}

MediaSession::~MediaSession() { close(); }

void MediaSession::setListener(std::shared_ptr<MediaSessionListener> listener) {
    const std::lock_guard lock(control_->listenerMutex);
    control_->listener = std::move(listener);
}

int64_t MediaSession::nowUs() const { return control_->clock->nowNs() / 1000; }

uint64_t MediaSession::ntpAt(int64_t us) const {
    const int64_t elapsed = us - control_->startUs;
    // 2^32 units per second: microseconds times 2^32 / 10^6, split to stay in range.
    const int64_t seconds = elapsed / 1000000;
    const int64_t rest = elapsed % 1000000;
    return control_->ntpAtStart + (static_cast<uint64_t>(seconds) << 32) +
           static_cast<uint64_t>((rest << 32) / 1000000);
}

bool MediaSession::setCodec(const NegotiatedCodec& codec) {
    {
        // A re-offer that kept the codec keeps the stream and the playout buffer.
        const std::lock_guard lock(receive_->mutex);
        if (receive_->buffer && receive_->codec == codec) return true;
    }
    auto encoder = CodecRegistry::instance().create(codec.name);
    auto decoder = CodecRegistry::instance().create(codec.name);
    if (!encoder || !decoder) log::warn(kTag, "codec not available: " + codec.name);
    if (!encoder || !decoder || codec.clockRate == 0) return false;
    JitterBufferConfig jitter = control_->config.jitter;
    jitter.clockRate = codec.clockRate;
    auto buffer = std::make_shared<JitterBuffer>(std::move(decoder), jitter);
    {
        const std::lock_guard lock(send_->mutex);
        SendSide& s = *send_;
        s.encoder = std::move(encoder);
        s.payloadType = codec.payloadType;
        s.eventPayloadType = codec.telephoneEventPayloadType;
        s.clockRate = codec.clockRate;
        s.frameSamples = frameSamplesOf(codec);
        s.frame.clear();
        s.frame.reserve(s.frameSamples);
        s.events = TelephoneEventSender({codec.clockRate, codec.ptime ? codec.ptime : 20, 50, 40});
        s.talkspurtStart = true;
    }
    {
        const std::lock_guard lock(receive_->mutex);
        ReceiveSide& r = *receive_;
        r.buffer = std::move(buffer);
        r.payloadType = codec.payloadType;
        r.eventPayloadType = codec.telephoneEventPayloadType;
        r.clockRate = codec.clockRate;
        r.jitter.setClockRate(codec.clockRate);
        r.codec = codec;
    }
    return true;
}

void MediaSession::setDirection(MediaDirection direction) {
    const MediaDirection before = control_->direction.exchange(direction);
    if (!plays(before) && plays(direction)) {
        // What the buffer held from before a hold is stale: playout starts
        // afresh with the packets that come now.
        const std::lock_guard lock(receive_->mutex);
        if (receive_->buffer) receive_->buffer->reset();
    }
    if (sends(before) && !sends(direction)) {
        const std::lock_guard lock(send_->mutex);
        send_->events.clear();  // digits do not wait out a hold
        send_->talkspurtStart = true;
    }
}

MediaDirection MediaSession::direction() const { return control_->direction.load(); }

void MediaSession::setMuted(bool muted) { send_->muted = muted; }

bool MediaSession::sendDigit(char digit, std::optional<uint32_t> durationMs) {
    if (control_->closed || !sends(control_->direction.load())) return false;
    const std::lock_guard lock(send_->mutex);
    if (send_->eventPayloadType < 0) return false;
    return send_->events.enqueue(digit, durationMs.value_or(control_->config.dtmfDurationMs));
}

void MediaSession::pushCapture(std::span<const int16_t> samples) {
    if (control_->closed) return;
    const std::lock_guard lock(send_->mutex);
    SendSide& s = *send_;
    while (!samples.empty()) {
        const size_t take = std::min(samples.size(), s.frameSamples - s.frame.size());
        s.frame.insert(s.frame.end(), samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(take));
        samples = samples.subspan(take);
        if (s.frame.size() == s.frameSamples) {
            if (s.muted) std::fill(s.frame.begin(), s.frame.end(), int16_t{0});
            sendFrame(s.frame);
            s.frame.clear();
        }
    }
}

// Called with the send lock held, once per packet time of captured audio.
void MediaSession::sendFrame(std::span<const int16_t> frame) {
    SendSide& s = *send_;
    const uint32_t position = s.timestamp;
    s.timestamp += s.frameSamples;  // the stream's clock runs on through holds and digits
    if (!sends(control_->direction.load())) {
        s.talkspurtStart = true;
        return;
    }

    const auto sendPacket = [&](int payloadType, bool marker, uint32_t timestamp) {
        RtpPacket packet;
        packet.payloadType = static_cast<uint8_t>(payloadType);
        packet.marker = marker;
        packet.sequence = s.sequence++;
        packet.timestamp = timestamp;
        packet.ssrc = s.ssrc;
        packet.payload = s.payload;
        if (!packet.writeTo(s.wire)) return;
        // A failed send (no remote yet, a full socket buffer) drops this
        // packet only; the stream's numbering stays continuous for the receiver.
        (void)transport_->send(MediaTransport::Channel::Rtp, s.wire);
        s.packets.fetch_add(1, std::memory_order_relaxed);
        s.octets.fetch_add(s.payload.size(), std::memory_order_relaxed);
        s.lastTimestamp.store(timestamp, std::memory_order_relaxed);
        s.lastSendUs.store(nowUs(), std::memory_order_relaxed);
    };

    s.eventPackets.clear();
    if (s.eventPayloadType >= 0 && s.events.advance(position, s.eventPackets)) {
        for (const auto& e : s.eventPackets) {
            s.payload.clear();
            e.event.writeTo(s.payload);
            sendPacket(s.eventPayloadType, e.marker, e.timestamp);
            if (e.marker) s.digits.fetch_add(1, std::memory_order_relaxed);
        }
        s.talkspurtStart = true;  // audio after a digit starts anew
        return;
    }
    s.payload.clear();
    if (!s.encoder->encode(frame.data(), frame.size(), s.payload)) return;
    sendPacket(s.payloadType, s.talkspurtStart, position);
    s.talkspurtStart = false;
}

void MediaSession::pullPlayout(std::span<int16_t> out) {
    std::shared_ptr<JitterBuffer> buffer;
    if (!control_->closed && plays(control_->direction.load())) {
        const std::lock_guard lock(receive_->mutex);
        buffer = receive_->buffer;
    }
    if (buffer) {
        buffer->pull(out);
    } else {
        std::fill(out.begin(), out.end(), int16_t{0});
    }
}

MediaStatistics MediaSession::statistics() const {
    MediaStatistics st;
    const Control& c = *control_;
    st.localSsrc = send_->ssrc;
    st.packetsSent = send_->packets.load();
    st.octetsSent = send_->octets.load();
    st.digitsSent = send_->digits.load();
    std::shared_ptr<JitterBuffer> buffer;
    {
        const std::lock_guard lock(receive_->mutex);
        const ReceiveSide& r = *receive_;
        st.codec = r.codec.name;
        st.payloadType = r.codec.payloadType;
        st.ptimeMs = r.codec.ptime;
        st.remoteSsrc = r.ssrc.value_or(0);
        st.packetsReceived = r.packets;
        st.octetsReceived = r.octets;
        st.packetsDiscarded = r.discarded;
        st.packetsLost = std::max<int64_t>(0, r.sequence.cumulativeLost());
        st.fractionLost = r.lastFractionLost / 256.0;
        st.jitterMs = r.jitter.milliseconds();
        st.digitsReceived = r.digits;
        st.remoteBye = r.remoteBye;
        buffer = r.buffer;
    }
    {
        const std::lock_guard lock(c.rtcpMutex);
        st.remoteFractionLost = c.remoteFractionLost;
        st.remotePacketsLost = c.remotePacketsLost;
        st.remoteJitterMs = c.remoteJitterMs;
        st.roundTripMs = c.roundTripMs;
        st.rtcpSent = c.rtcpSent;
        st.rtcpReceived = c.rtcpReceived;
    }
    if (buffer) st.playout = buffer->stats();
    return st;
}

void MediaSession::close() {
    if (control_->closed.exchange(true)) return;
    // The capture thread may be inside sendFrame: once we hold its lock it
    // has left, and the closed flag keeps it out.
    { const std::lock_guard lock(send_->mutex); }
    transport_->detach();
    const std::vector<uint8_t> bye = buildReport(nowUs(), true);
    transport_->close(bye);
    char line[96];
    std::snprintf(line, sizeof line, "call %d: media closed", control_->config.call);
    log::info(kTag, line);
}

}  // namespace kelsip
