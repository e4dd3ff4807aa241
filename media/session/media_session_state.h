// The three parts of a media session's state, each with its own lock: what
// the capture thread sends, what the receive thread takes in, and the RTCP
// and control state the transport's ticks and the call side share.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <vector>

#include "media/session/media_session.h"
#include "media/rtp/rtp_statistics.h"
#include "media/session/telephone_event.h"

namespace kelsip {

struct MediaSession::SendSide {
    std::mutex mutex;
    std::unique_ptr<AudioCodec> encoder;
    int payloadType = 0;
    int eventPayloadType = -1;
    uint32_t clockRate = 8000;
    uint32_t frameSamples = 160;  // one packet time
    std::vector<int16_t> frame;   // captured samples waiting for a whole packet

    uint32_t ssrc = 0;
    uint16_t sequence = 0;
    uint32_t timestamp = 0;      // of the next packet interval
    bool talkspurtStart = true;  // the next audio packet carries the marker bit
    std::atomic<bool> muted{false};
    TelephoneEventSender events;
    std::vector<TelephoneEventSender::Packet> eventPackets;
    std::vector<uint8_t> payload;
    std::vector<uint8_t> wire;

    // Read by the RTCP side without the lock.
    std::atomic<uint64_t> packets{0};
    std::atomic<uint64_t> octets{0};
    std::atomic<uint32_t> lastTimestamp{0};
    std::atomic<int64_t> lastSendUs{0};
    std::atomic<uint64_t> digits{0};
};

struct MediaSession::ReceiveSide {
    std::mutex mutex;
    std::shared_ptr<JitterBuffer> buffer;
    NegotiatedCodec codec;
    int payloadType = 0;
    int eventPayloadType = -1;
    uint32_t clockRate = 8000;

    std::optional<uint32_t> ssrc;  // the source we play
    uint32_t candidateSsrc = 0;    // a new source that may be taking over
    int candidatePackets = 0;
    RtpSequenceTracker sequence;
    InterarrivalJitter jitter;
    TelephoneEventReceiver events;

    uint64_t packets = 0;
    uint64_t octets = 0;
    uint64_t discarded = 0;
    uint64_t digits = 0;
    uint8_t lastFractionLost = 0;
    bool remoteBye = false;
};

struct MediaSession::Control {
    MediaSessionConfig config;
    std::atomic<MediaDirection> direction{MediaDirection::SendRecv};
    std::atomic<bool> closed{false};
    SteadyClock steady;
    const Clock* clock = nullptr;
    int64_t startUs = 0;
    uint64_t ntpAtStart = 0;

    std::mutex listenerMutex;
    std::shared_ptr<MediaSessionListener> listener;

    // RTCP: the transport's thread, and statistics readers, under this lock.
    mutable std::mutex rtcpMutex;
    std::mt19937_64 random;
    int64_t nextReportUs = 0;
    bool reportedOnce = false;
    double averageRtcpSize = 100;
    uint64_t packetsAtLastReport = 0;
    uint64_t rtcpSent = 0;
    uint64_t rtcpReceived = 0;
    uint32_t lastSenderReport = 0;  // LSR: middle 32 bits of the last SR's NTP time
    int64_t lastSenderReportUs = 0;
    std::optional<double> remoteFractionLost;
    std::optional<int64_t> remotePacketsLost;
    std::optional<double> remoteJitterMs;
    std::optional<double> roundTripMs;
};

}  // namespace kelsip
