// The adaptive playout buffer between a call's RTP receive path and the sound
// device: it reorders, drops duplicates and late packets, conceals loss and
// follows the network's jitter and the far end's clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "media/codec/audio_codec.h"

namespace kelsip {

struct JitterBufferConfig {
    uint32_t clockRate = 8000;
    // Bounds of the delay the buffer aims to keep beyond what playout needs.
    uint32_t minDelayMs = 0;
    uint32_t maxDelayMs = 400;
    // Held before the first packet plays, until the network's jitter is known.
    uint32_t initialDelayMs = 20;
};

struct JitterBufferStats {
    uint64_t packetsPushed = 0;
    uint64_t duplicates = 0;
    uint64_t late = 0;              // arrived after their time had been played
    uint64_t samplesPlayed = 0;     // every sample pull handed out
    uint64_t samplesConcealed = 0;  // of those, made up for lost or late audio
    uint64_t samplesDropped = 0;    // removed to shorten the delay
    uint64_t samplesStretched = 0;  // inserted to lengthen it
    double targetDelayMs = 0;       // what the buffer currently aims for
    double currentDelayMs = 0;      // audio held now, ahead of playout
};

// Thread use: `push` from the receive thread, `pull` from the playout thread;
// both only take the buffer's own lock for a short copy, never wait on I/O.
class JitterBuffer {
public:
    JitterBuffer(std::unique_ptr<AudioCodec> decoder, JitterBufferConfig config = {});
    ~JitterBuffer();
    JitterBuffer(const JitterBuffer&) = delete;
    JitterBuffer& operator=(const JitterBuffer&) = delete;

    // One received payload of the negotiated codec. `arrivalUs` is the
    // receiver's steady clock in microseconds.
    void push(uint16_t sequence, uint32_t timestamp, std::span<const uint8_t> payload, int64_t arrivalUs);
    // A telephone event of the same stream, at its RTP timestamp: the sender
    // sends no audio from there until its next audio packet, so running dry
    // meanwhile is no loss and is not counted as concealment.
    void pushEvent(uint32_t timestamp);
    // Fills all of `out` with playout: decoded audio, concealment or silence.
    void pull(std::span<int16_t> out);
    // A new source (SSRC change): forget the old stream's timing and packets.
    void reset();

    [[nodiscard]] JitterBufferStats stats() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kelsip
