// The playout buffer's state, shared by its packet store, its playout and its interface.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "media/session/jitter_buffer.h"
#include "media/session/jitter_buffer_delay.h"

namespace kelsip {

// Counts are in samples of the RTP clock unless a name says otherwise.

constexpr size_t kMaxPackets = 128;       // held at once; the delay cap keeps far fewer
constexpr size_t kRecentSequences = 64;   // played or dropped, for telling duplicates
constexpr size_t kChunk = 160;            // a pull is rendered in pieces of at most this
constexpr size_t kReserve = 4096;         // decode and concealment room that steady play never outgrows
constexpr double kLoudRate = 1.0 / 50;    // time-scale change while the audio is loud...
constexpr double kQuietRate = 1.0 / 16;   // ...and while it is quiet
constexpr size_t kStretchSpan = 24;       // output samples over which one sample is added or removed
constexpr double kQuietFloor = 64;        // mean magnitude below which audio counts as quiet anyway
constexpr double kFadeInStep = 1.0 / 64;  // gain regained per sample after a faded loss
constexpr int64_t kStallUs = 100000;      // arrivals while the playout clock stood still this long are not judged

inline JitterBufferConfig sane(JitterBufferConfig config) {
    if (config.clockRate == 0) config.clockRate = 8000;
    config.maxDelayMs = std::max(config.maxDelayMs, config.minDelayMs);
    return config;
}

inline int64_t samplesIn(const JitterBufferConfig& config, double ms) {
    return static_cast<int64_t>(std::llround(ms * config.clockRate / 1000.0));
}

inline int16_t toSample(double value) {
    return static_cast<int16_t>(std::clamp(std::lround(value), -32768L, 32767L));
}

inline double meanMagnitude(const int16_t* samples, size_t count) {
    double sum = 0;
    for (size_t i = 0; i < count; ++i) sum += std::abs(static_cast<double>(samples[i]));
    return count ? sum / static_cast<double>(count) : 0;
}
struct JitterBuffer::Impl {
    Impl(std::unique_ptr<AudioCodec> decoder, const JitterBufferConfig& cfg);

    [[nodiscard]] int64_t samplesOf(double ms) const { return samplesIn(config, ms); }
    [[nodiscard]] double toMs(double samples) const { return samples * 1000.0 / config.clockRate; }
    // How much more delay the buffer holds than the target asks; negative: less.
    [[nodiscard]] double excess() const {
        return lateness.ready() ? lateness.headOffset() - static_cast<double>(head - played) : 0;
    }

    void push(uint16_t sequence, uint32_t timestamp, std::span<const uint8_t> payload, int64_t arrivalUs);
    void pushEvent(uint32_t timestamp);
    [[nodiscard]] int64_t unwrap(uint32_t timestamp) const {
        return latestTimestamp + static_cast<int32_t>(timestamp - static_cast<uint32_t>(latestTimestamp));
    }
    [[nodiscard]] bool inEvent(int64_t position) const {
        return eventKnown && position >= eventFrom && position < eventTo;
    }
    void render(std::span<int16_t> out);
    void clear();

    // Receiving.
    [[nodiscard]] bool isDuplicate(uint16_t sequence, int64_t timestamp) const;
    void rememberSequence(uint16_t sequence);
    void store(uint16_t sequence, int64_t timestamp, size_t samples, std::span<const uint8_t> payload);
    void recycleFront();
    void skipAfterUnderrun(int64_t timestamp);
    void restartAt(int64_t timestamp);

    // Playing.
    [[nodiscard]] bool decodeNext();
    size_t decodeAhead(size_t wanted);
    void skipTo(int64_t timestamp);
    void capDelay();
    [[nodiscard]] int64_t planAdjustment(size_t count);
    void produce(int16_t* out, size_t count);
    void adjustInto(int16_t* out, size_t count, int64_t change);
    void emitDecoded(int16_t* out, size_t count);
    void concealInto(int16_t* out, size_t count);
    void fadeIn(int16_t* samples, size_t count);
    [[nodiscard]] double lossGain(size_t position) const;

    struct Packet {
        int64_t timestamp;
        size_t samples;
        uint16_t sequence;
        std::vector<uint8_t> payload;
    };
    enum class Adjustment : uint8_t { None, Shorten, Lengthen };

    mutable std::mutex mutex;
    std::unique_ptr<AudioCodec> codec;
    const JitterBufferConfig config;
    const int64_t initialDelay;
    const int64_t fullLevelFor = samplesOf(10);  // a loss plays at full level this long...
    const int64_t silentFrom = samplesOf(60);    // ...and has faded out by here
    // Concealment laid over a cut, so the codec can blend across it.
    const size_t bridgeLength = static_cast<size_t>(samplesOf(5));
    // Excess delay (samples) at which shortening starts and stops; lengthening
    // starts below zero and stops here.
    const double shortenFrom = static_cast<double>(samplesOf(2));
    const double settled = static_cast<double>(samplesOf(0.25));

    std::vector<Packet> packets;  // by timestamp, none before decodedEnd
    std::vector<std::vector<uint8_t>> spare;
    std::array<uint16_t, kRecentSequences> recent{};
    size_t recentCount = 0;
    size_t recentNext = 0;

    bool started = false;      // a packet has anchored the timeline
    bool playing = false;      // the playout clock runs
    bool playedAudio = false;  // real audio has been played since the start
    int64_t latestTimestamp = 0;  // extended, of the latest packet: the unwrap reference
    int64_t head = 0;             // timestamp of the next sample handed out
    int64_t decodedEnd = 0;       // end of what was decoded or concealed
    int64_t played = 0;           // samples handed out: the playout clock
    int64_t playedAtLastPush = -1;
    int64_t playedMovedUs = 0;
    std::vector<int16_t> decoded;  // [head, decodedEnd) from decodedPos on
    size_t decodedPos = 0;
    std::vector<int16_t> scratch;

    size_t lossRun = 0;  // samples concealed since real audio last played
    int64_t lossFrom = 0;       // where that run began
    uint64_t runConcealed = 0;  // of it, counted as concealed
    // A telephone event owns the stream from eventFrom until the next audio.
    bool eventKnown = false;
    int64_t eventFrom = 0;
    int64_t eventTo = 0;
    double gain = 1;     // level of the last sample handed out, for the fade back in
    size_t bridge = 0;
    Adjustment adjustment = Adjustment::None;
    double adjustCredit = 0;
    double level = 0;  // running mean magnitude of played audio

    LatenessWindow lateness;
    JitterBufferStats stats;
};

}  // namespace kelsip
