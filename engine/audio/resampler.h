// Sample-rate conversion between a sound card and the calls: a polyphase
// windowed-sinc filter (Kaiser window) for the reduced ratio L/M of the two
// rates, built once per converter. It keeps its history between calls, so
// the output does not depend on how the input is cut into blocks, and over
// any run N input frames give N*L/M output frames (rounded up) with no drift.
//
// Channels: many to one are averaged before filtering (down-mix), one to
// many are copied after filtering (up-mix), equal counts are filtered each
// on its own. Frames are interleaved on both sides.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kelsoftphone {

struct ResamplerConfig {
    uint32_t inRate = 48000;
    uint32_t outRate = 8000;
    uint32_t inChannels = 1;
    uint32_t outChannels = 1;
};

class Resampler {
public:
    // Nothing for a zero rate or channel count, or for channel counts that
    // are neither equal nor one of them 1.
    [[nodiscard]] static std::optional<Resampler> create(const ResamplerConfig& config);

    // Appends to `out` every output frame that `inFrames` more input frames
    // complete. Samples in [-1, 1] are full scale.
    void process(const float* in, size_t inFrames, std::vector<float>& out);
    // The same for 16-bit samples; the output is rounded and clamped.
    void process(const int16_t* in, size_t inFrames, std::vector<int16_t>& out);
    // Forgets the history: the next input starts as on a new converter.
    void reset();

    [[nodiscard]] const ResamplerConfig& config() const { return config_; }
    [[nodiscard]] uint32_t upFactor() const { return up_; }      // L
    [[nodiscard]] uint32_t downFactor() const { return down_; }  // M
    [[nodiscard]] size_t tapsPerPhase() const { return taps_; }
    // How far the output lags the input, in output frames.
    [[nodiscard]] double delayFrames() const;

private:
    explicit Resampler(const ResamplerConfig& config);
    void filter(std::vector<float>& out);

    ResamplerConfig config_;
    uint32_t up_ = 1;
    uint32_t down_ = 1;
    size_t taps_ = 0;
    size_t filterChannels_ = 1;
    // Phase p's taps, time-reversed so that they meet the input window
    // oldest first: coefficients_[p * taps_ + k].
    std::vector<float> coefficients_;
    // Per filtered channel: the last taps_ - 1 frames of earlier calls, then
    // this call's frames.
    std::vector<std::vector<float>> history_;
    size_t next_ = 0;    // history_ index of the newest frame the next output sees
    uint32_t phase_ = 0;  // that output's phase, 0 .. L-1
    std::vector<float> scratchIn_;  // the 16-bit path's conversions
    std::vector<float> scratchOut_;
};

}  // namespace kelsoftphone
