// A call's audio between the sound device and the network: packetising and
// encoding what is captured, receiving into the playout buffer, RFC 4733
// digits both ways, and RTCP reports with the call's statistics.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "media/session/jitter_buffer.h"
#include "media/rtp/media_transport.h"
#include "media/codec/negotiation.h"
#include "media/sdp/sdp.h"
#include "sip/core/clock.h"

namespace kelsip {

// Called on the transport's thread (an RTP worker); keep it short.
class MediaSessionListener {
public:
    virtual ~MediaSessionListener() = default;
    // One call per RFC 4733 event, however many packets carried it.
    virtual void onDigit(char digit) { (void)digit; }
    // The far end said RTCP BYE for the source we play.
    virtual void onRemoteBye() {}
};

struct MediaSessionConfig {
    int call = 0;  // names the log lines: "call N: ..."
    NegotiatedCodec codec;
    MediaDirection direction = MediaDirection::SendRecv;  // ours, as our SDP says
    std::string cname;  // RTCP SDES CNAME; empty: one is made up
    JitterBufferConfig jitter;
    // The clock RTCP and the send side read; null: the steady clock. The
    // transport's arrival and tick times must be on the same scale.
    const Clock* clock = nullptr;
    // Random by default; tests pin them.
    std::optional<uint32_t> ssrc;
    std::optional<uint16_t> initialSequence;
    std::optional<uint32_t> initialTimestamp;
    std::optional<uint64_t> randomSeed;  // RTCP interval spread
    uint32_t dtmfDurationMs = 100;
};

struct MediaStatistics {
    std::string codec;
    int payloadType = -1;
    uint32_t ptimeMs = 0;
    uint32_t localSsrc = 0;
    uint32_t remoteSsrc = 0;

    uint64_t packetsSent = 0;
    uint64_t octetsSent = 0;  // payload octets, as a sender report counts them
    uint64_t packetsReceived = 0;
    uint64_t octetsReceived = 0;
    uint64_t packetsDiscarded = 0;  // wrong version, payload type or source
    int64_t packetsLost = 0;        // expected minus received (RFC 3550)
    double fractionLost = 0;        // 0..1, over the last report interval
    double jitterMs = 0;            // interarrival jitter of what we receive

    // The far end's view of our stream, from its reports.
    std::optional<double> remoteFractionLost;
    std::optional<int64_t> remotePacketsLost;
    std::optional<double> remoteJitterMs;
    std::optional<double> roundTripMs;

    uint64_t rtcpSent = 0;
    uint64_t rtcpReceived = 0;
    uint64_t digitsSent = 0;
    uint64_t digitsReceived = 0;
    bool remoteBye = false;

    JitterBufferStats playout;
};

class MediaSession : private MediaTransport::Sink {
public:
    // Starts at once: the transport delivers to the session from now on.
    // Fails (null) when the codec is not one we run.
    [[nodiscard]] static std::unique_ptr<MediaSession> create(MediaSessionConfig config,
                                                              std::unique_ptr<MediaTransport> transport,
                                                              std::string* error = nullptr);
    ~MediaSession() override;
    MediaSession(const MediaSession&) = delete;
    MediaSession& operator=(const MediaSession&) = delete;

    void setListener(std::shared_ptr<MediaSessionListener> listener);

    // The sound device's threads. Neither waits on the network or on the
    // event loop: capture encodes and hands packets to a non-blocking send,
    // playout only reads the playout buffer.
    void pushCapture(std::span<const int16_t> samples);
    void pullPlayout(std::span<int16_t> out);

    // The call side (event-loop thread).
    void setDirection(MediaDirection direction);
    [[nodiscard]] MediaDirection direction() const;
    // Sends silence instead of what is captured (a call we hold: the far end
    // must not hear our room), keeping the stream and its timing.
    void setMuted(bool muted);
    // A re-negotiation that changed the codec or payload types.
    [[nodiscard]] bool setCodec(const NegotiatedCodec& codec);
    // Queues an RFC 4733 digit; false when no telephone-event was agreed,
    // the character is no digit, or we may not send.
    [[nodiscard]] bool sendDigit(char digit, std::optional<uint32_t> durationMs = std::nullopt);
    [[nodiscard]] MediaStatistics statistics() const;
    [[nodiscard]] MediaTransport& transport() { return *transport_; }
    // Sends the final report with BYE and ends the transport. Later audio
    // calls do nothing.
    void close();

private:
    struct SendSide;
    struct ReceiveSide;
    struct Control;

    MediaSession(MediaSessionConfig config, std::unique_ptr<MediaTransport> transport);

    void onPacket(MediaTransport::Channel channel, std::span<const uint8_t> bytes, int64_t arrivalUs) override;
    void onTick(int64_t nowUs) override;
    void receiveRtp(std::span<const uint8_t> bytes, int64_t arrivalUs);
    void receiveRtcp(std::span<const uint8_t> bytes, int64_t arrivalUs);
    void sendFrame(std::span<const int16_t> frame);
    void sendReport(int64_t nowUs, bool bye);
    [[nodiscard]] std::vector<uint8_t> buildReport(int64_t nowUs, bool bye);
    void scheduleNextReport(int64_t nowUs, bool initial, bool weSent);
    [[nodiscard]] int64_t nowUs() const;
    [[nodiscard]] uint64_t ntpAt(int64_t us) const;

    std::unique_ptr<MediaTransport> transport_;
    std::unique_ptr<SendSide> send_;
    std::unique_ptr<ReceiveSide> receive_;
    std::unique_ptr<Control> control_;
};

}  // namespace kelsip
