// The sample-rate converter: a tone survives the trip to 8000 Hz and back,
// nothing above 4000 Hz folds into the call, and the output depends neither
// on the block size nor drifts in length.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <numeric>
#include <random>

#include "engine/audio/resampler.h"

namespace kelsoftphone {
namespace {

std::vector<float> tone(double hz, double rate, size_t frames, uint32_t channels = 1, double gain = 1.0) {
    std::vector<float> samples;
    for (size_t n = 0; n < frames; ++n)
        samples.insert(samples.end(), channels, static_cast<float>(gain * std::sin(2 * std::numbers::pi * hz * static_cast<double>(n) / rate)));
    return samples;
}

std::vector<float> convert(const ResamplerConfig& config, const std::vector<float>& in, size_t block) {
    auto resampler = Resampler::create(config);
    std::vector<float> out;
    const size_t frames = in.size() / config.inChannels;
    for (size_t at = 0; resampler && at < frames; at += block) {
        resampler->process(in.data() + at * config.inChannels, std::min(block, frames - at), out);
    }
    return out;
}

// Signal to residual in dB after a least-squares fit of a sine and a cosine
// at `frequency` (cycles per sample) to y[from..].
double sineSnrDb(const std::vector<float>& y, double frequency, size_t from) {
    double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0, yy = 0;
    for (size_t n = from; n < y.size(); ++n) {
        const double w = 2.0 * std::numbers::pi * frequency * static_cast<double>(n), v = static_cast<double>(y[n]);
        ss += std::sin(w) * std::sin(w), cc += std::cos(w) * std::cos(w), sc += std::sin(w) * std::cos(w);
        ys += v * std::sin(w), yc += v * std::cos(w), yy += v * v;
    }
    const double det = ss * cc - sc * sc, a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
    const double signal = a * a * ss + b * b * cc + 2 * a * b * sc;  // the fit's power; the residual's is yy - signal
    return 10.0 * std::log10(signal / (yy - signal));
}

TEST(Resampler, ToneKeepsItsQualityAndAliasesStayOut) {
    // A 1 kHz tone to 8000 Hz and back, stereo from the card (down-mixed).
    const std::vector<float> down = convert({48000, 8000, 2, 1}, tone(1000, 48000, 48000, 2, 0.5), 480);
    EXPECT_GE(sineSnrDb(convert({8000, 48000, 1, 1}, down, 80), 1000.0 / 48000, 4800), 60.0);

    const struct { uint32_t rate; double frequency; } aliases[] = {{48000, 4500},  {48000, 6000},  {48000, 9000},
        {48000, 15000}, {48000, 20000}, {44100, 4600},  {44100, 11025}, {96000, 5000}, {96000, 40000}};
    for (const auto& [rate, frequency] : aliases) {
        const std::vector<float> out = convert({rate, 8000, 1, 1}, tone(frequency, rate, rate), 441);
        const float power = std::inner_product(out.begin() + 800, out.end(), out.begin() + 800, 0.0f);  // past the onset
        EXPECT_LE(10.0 * std::log10(static_cast<double>(power) / static_cast<double>(out.size() - 800) / 0.5), -60.0)
            << frequency << " Hz at " << rate;  // against a full-scale sine's power
    }
}

TEST(Resampler, OutputDependsNeitherOnBlockSizeNorDrifts) {
    for (const ResamplerConfig refused : {ResamplerConfig{0, 8000, 1, 1}, ResamplerConfig{48000, 8000, 2, 3}}) {
        EXPECT_FALSE(Resampler::create(refused));
    }
    std::mt19937 random(7);
    std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
    const ResamplerConfig configs[] = {{48000, 8000, 2, 1}, {8000, 48000, 1, 2}, {44100, 8000, 1, 1},
                                       {8000, 44100, 1, 1}, {96000, 8000, 1, 1}, {8000, 96000, 1, 1}};
    for (const ResamplerConfig& config : configs) {
        const size_t frames = 2 * config.inRate + 13;
        std::vector<float> in(frames * config.inChannels);
        for (float& x : in) x = noise(random);
        const std::vector<float> whole = convert(config, in, frames);
        const double expected = static_cast<double>(frames) * config.outRate / config.inRate * config.outChannels;
        EXPECT_NEAR(static_cast<double>(whole.size()), expected, config.outChannels) << config.inRate;
        for (const size_t block : {size_t{1}, size_t{7}, size_t{480}})
            EXPECT_EQ(convert(config, in, block), whole) << config.inRate << " to " << config.outRate << " by " << block;
    }
}

}  // namespace
}  // namespace kelsoftphone
