// WAV files for audio checks: 16-bit PCM in and out, tones to play into a
// call, and the measures that tell what a recording holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kelsip::test {

// 16-bit PCM samples with their format; several channels interleave.
struct WavAudio {
    uint32_t sampleRate = 8000;
    uint16_t channels = 1;
    std::vector<int16_t> samples;

    [[nodiscard]] size_t frames() const { return channels == 0 ? 0 : samples.size() / channels; }
    [[nodiscard]] double seconds() const {
        return sampleRate == 0 ? 0.0 : static_cast<double>(frames()) / sampleRate;
    }
    // The samples of one channel (0 is the first); a mono file's all of them.
    [[nodiscard]] std::vector<int16_t> channel(unsigned index) const;
};

// Writes a canonical 44-byte-header file; false with the reason in `error`.
[[nodiscard]] bool writeWav(const std::filesystem::path& path, const WavAudio& audio, std::string* error = nullptr);

// Reads any RIFF/WAVE file of 16-bit PCM (plain or WAVE_FORMAT_EXTENSIBLE),
// at any rate and channel count, skipping chunks it does not need (LIST,
// fact, ...). A data chunk whose length is 0 or runs past the end is taken
// to the end of the file: recorders that are still writing have not yet
// filled in the length. Any other format is refused, and `error` names it.
[[nodiscard]] std::optional<WavAudio> readWav(const std::filesystem::path& path, std::string* error = nullptr);

// One step of a tone sequence; frequency 0 is silence.
struct Tone {
    double frequency = 0.0;
    double seconds = 0.0;
    // Of full scale; 0.25 leaves G.711 and mixing well away from clipping.
    double amplitude = 0.25;
};

// The steps one after another, each starting at phase 0.
[[nodiscard]] std::vector<int16_t> makeTones(std::span<const Tone> tones, uint32_t sampleRate = 8000);
// A mono file of the steps.
[[nodiscard]] bool writeTones(const std::filesystem::path& path, std::span<const Tone> tones,
                              uint32_t sampleRate = 8000, std::string* error = nullptr);

// The share (0 to 1) of the block's power that lies at `frequency`
// (Goertzel): about 1 for a pure tone there, about 0 for silence or any
// other tone. A block of N samples resolves about 2 x rate / N hertz.
[[nodiscard]] double toneShare(std::span<const int16_t> block, double frequency, uint32_t sampleRate);

// The frequency of the block's strongest component between `lowest` and
// `highest` hertz (highest 0: the Nyquist frequency), to within a few
// hertz for a block of 0.1 s or more; 0 for a silent block. It costs
// N x N / 2 operations: give it blocks of a fraction of a second.
[[nodiscard]] double dominantFrequency(std::span<const int16_t> block, uint32_t sampleRate, double lowest = 20.0,
                                       double highest = 0.0);

// The root mean square of the samples, in sample units.
[[nodiscard]] double rms(std::span<const int16_t> samples);

struct Correlation {
    double value = 0.0;  // -1 to 1; near 1 where `received` holds the reference
    size_t offset = 0;   // where in `received` the best match starts
};

// The normalised cross-correlation of the reference with each stretch of
// `received` it fits on, and the best of them. A stretch that is silent
// counts 0. A `received` shorter than the reference holds no copy of it:
// value 0.
[[nodiscard]] Correlation bestCorrelation(std::span<const int16_t> received, std::span<const int16_t> reference);

}  // namespace kelsip::test
