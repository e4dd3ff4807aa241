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

// 16-bit mono PCM.
struct WavAudio {
    uint32_t sampleRate = 8000;
    std::vector<int16_t> samples;

    [[nodiscard]] double seconds() const { return static_cast<double>(samples.size()) / sampleRate; }
};

// A canonical 44-byte-header file; false with the reason in `error`.
[[nodiscard]] bool writeWav(const std::filesystem::path& path, const WavAudio& audio, std::string* error = nullptr);
// A mono 16-bit PCM file. A data length of 0 or past the end is taken to the
// end of the file: a recorder still writing has not filled it in yet.
[[nodiscard]] std::optional<WavAudio> readWav(const std::filesystem::path& path);

// A sine of `frequency` hertz for `seconds` at a quarter of full scale.
[[nodiscard]] bool writeTone(const std::filesystem::path& path, double frequency, double seconds);

// The share (0 to 1) of the block's power at `frequency` (Goertzel): about
// 1 for a pure tone there, about 0 for silence or any other tone.
[[nodiscard]] double toneShare(std::span<const int16_t> block, double frequency, uint32_t sampleRate);
// The strongest frequency between `lowest` and `highest` hertz, to within
// the block's resolution (rate / N); 0 for a silent block.
[[nodiscard]] double dominantFrequency(std::span<const int16_t> block, uint32_t sampleRate, double lowest,
                                       double highest);
[[nodiscard]] double rms(std::span<const int16_t> samples);

struct Correlation {
    double value = 0.0;  // -1 to 1; near 1 where `received` holds the reference
    size_t offset = 0;   // where in `received` the best match starts
};
// The best normalised cross-correlation of the reference with a stretch of
// `received`; a silent stretch counts 0.
[[nodiscard]] Correlation bestCorrelation(std::span<const int16_t> received, std::span<const int16_t> reference);

}  // namespace kelsip::test
