// The sample-rate converter: a tone survives the trip to 8000 Hz and back,
// nothing above 4000 Hz folds into the call, and the output depends neither
// on the block size nor drifts in length.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "engine/audio/resampler.h"

namespace kelsoftphone {
namespace {

std::vector<float> tone(double frequency, double rate, size_t frames, uint32_t channels = 1, double amplitude = 1.0) {
    std::vector<float> samples;
    for (size_t n = 0; n < frames; ++n) {
        const double x = amplitude * std::sin(2.0 * std::numbers::pi * frequency * static_cast<double>(n) / rate);
        samples.insert(samples.end(), channels, static_cast<float>(x));
    }
    return samples;
}

std::vector<float> convert(const ResamplerConfig& config, const std::vector<float>& in, size_t block) {
    Resampler resampler(config);
    std::vector<float> out;
    const size_t frames = in.size() / config.inChannels;
    for (size_t at = 0; at < frames; at += block) {
        resampler.process(in.data() + at * config.inChannels, std::min(block, frames - at), out);
    }
    return out;
}

// Signal to residual in dB after a least-squares fit of a sine and a cosine
// at `frequency` to samples [from, to).
double sineSnrDb(const std::vector<float>& y, double frequency, double rate, size_t from, size_t to) {
    double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0;
    for (size_t n = from; n < to; ++n) {
        const double w = 2.0 * std::numbers::pi * frequency * static_cast<double>(n) / rate;
        const double s = std::sin(w), c = std::cos(w), v = static_cast<double>(y[n]);
        ss += s * s, cc += c * c, sc += s * c, ys += v * s, yc += v * c;
    }
    const double det = ss * cc - sc * sc, a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
    double signal = 0, residual = 0;
    for (size_t n = from; n < to; ++n) {
        const double w = 2.0 * std::numbers::pi * frequency * static_cast<double>(n) / rate;
        const double fit = a * std::sin(w) + b * std::cos(w);
        signal += fit * fit;
        residual += (static_cast<double>(y[n]) - fit) * (static_cast<double>(y[n]) - fit);
    }
    return 10.0 * std::log10(signal / residual);
}

TEST(Resampler, ToneKeepsItsQualityAndAliasesStayOut) {
    // A 1 kHz tone to 8000 Hz and back, stereo at the card.
    const std::vector<float> down = convert({48000, 8000, 2, 1}, tone(1000, 48000, 48000, 2, 0.5), 480);
    const std::vector<float> back = convert({8000, 48000, 1, 2}, down, 80);
    std::vector<float> left;
    for (size_t i = 0; i < back.size(); i += 2) left.push_back(back[i]);
    EXPECT_GE(sineSnrDb(left, 1000, 48000, 4800, left.size()), 60.0);

    const struct { uint32_t rate; double frequency; } aliases[] = {
        {48000, 4500}, {48000, 6000}, {48000, 9000}, {48000, 15000}, {48000, 20000},
        {44100, 4600}, {44100, 11025}, {96000, 5000}, {96000, 40000},
    };
    for (const auto& [rate, frequency] : aliases) {
        const std::vector<float> out = convert({rate, 8000, 1, 1}, tone(frequency, rate, rate), 441);
        double power = 0;
        for (size_t n = 800; n < out.size(); ++n) power += static_cast<double>(out[n]) * static_cast<double>(out[n]);
        const double db = 10.0 * std::log10(power / static_cast<double>(out.size() - 800) / 0.5);
        EXPECT_LE(db, -60.0) << frequency << " Hz at " << rate;
    }
}

TEST(Resampler, OutputDependsNeitherOnBlockSizeNorDrifts) {
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
        for (const size_t block : {size_t{1}, size_t{7}, size_t{480}}) {
            EXPECT_EQ(convert(config, in, block), whole) << config.inRate << " to " << config.outRate << " by " << block;
        }
    }
}

}  // namespace
}  // namespace kelsoftphone
