// Between a sound card's stream format (any rate, any channel count, 32-bit
// float or 16-bit integer, interleaved) and the calls' 16-bit mono at the
// media rate, exchanged in 10 ms blocks. Both directions filter through the
// band-limited resampler; channels are averaged on the way in and copied to
// every channel on the way out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/audio/resampler.h"

namespace kelsoftphone {

enum class SampleKind { Float32, Int16 };
// "f32", "s16".
[[nodiscard]] const char* toString(SampleKind kind);

struct StreamFormat {
    uint32_t rate = 48000;
    uint32_t channels = 2;
    SampleKind kind = SampleKind::Float32;
    [[nodiscard]] size_t bytesPerFrame() const { return channels * (kind == SampleKind::Float32 ? 4u : 2u); }
};

// Card to calls: whatever the card delivers comes out as whole 10 ms blocks.
class CaptureConverter {
public:
    using Deliver = std::function<void(const int16_t* samples, size_t count)>;
    // Nothing for a zero rate or channel count.
    [[nodiscard]] static std::optional<CaptureConverter> create(const StreamFormat& card, uint32_t mediaRate);

    // `frames` interleaved frames of the card's format; `deliver` gets every
    // block they complete. Null `data` stands for silence (the system said so).
    void push(const void* data, size_t frames, const Deliver& deliver);
    void reset();
    [[nodiscard]] size_t blockSamples() const { return block_; }

private:
    CaptureConverter(const StreamFormat& card, Resampler resampler, size_t block);

    StreamFormat card_;
    Resampler resampler_;
    size_t block_;
    std::vector<float> in_;
    std::vector<float> out_;  // converted, not yet delivered
    std::vector<int16_t> blockBuffer_;
};

// Calls to card: fills what the card asks for, pulling 10 ms blocks from
// the calls as it needs them.
class RenderConverter {
public:
    using Pull = std::function<void(int16_t* buffer, size_t count)>;
    [[nodiscard]] static std::optional<RenderConverter> create(const StreamFormat& card, uint32_t mediaRate);

    // Writes `frames` interleaved frames of the card's format to `data`.
    void fill(void* data, size_t frames, const Pull& pull);
    void reset();
    [[nodiscard]] size_t blockSamples() const { return block_; }
    // Card frames converted and waiting: the latency this side adds.
    [[nodiscard]] size_t pendingFrames() const { return (ready_.size() - readPos_) / card_.channels; }

private:
    RenderConverter(const StreamFormat& card, Resampler resampler, size_t block);

    StreamFormat card_;
    Resampler resampler_;
    size_t block_;
    std::vector<int16_t> pulled_;
    std::vector<float> pulledFloat_;
    std::vector<float> ready_;  // interleaved card frames
    size_t readPos_ = 0;
};

}  // namespace kelsoftphone
