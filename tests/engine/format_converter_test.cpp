// The card formats: a call's tone survives the trip to any supported card
// format and back, the block counts follow the card's frames exactly, and
// only the mix formats the converters take are accepted.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "engine/audio/format_converter.h"
#include "engine/audio/mix_format.h"

namespace kelsoftphone {
namespace {

constexpr double kAmplitude = 0.5;

// The fitted amplitude of a sine at `frequency` (cycles per sample) in
// y[from..], and the signal to residual ratio in dB.
struct SineFit {
    double amplitude, snrDb;
};
SineFit fitSine(const std::vector<int16_t>& y, double frequency, size_t from) {
    double ss = 0, cc = 0, sc = 0, ys = 0, yc = 0, yy = 0;
    for (size_t n = from; n < y.size(); ++n) {
        const double w = 2 * std::numbers::pi * frequency * static_cast<double>(n), v = y[n] / 32768.0;
        ss += std::sin(w) * std::sin(w), cc += std::cos(w) * std::cos(w), sc += std::sin(w) * std::cos(w);
        ys += v * std::sin(w), yc += v * std::cos(w), yy += v * v;
    }
    const double det = ss * cc - sc * sc, a = (ys * cc - yc * sc) / det, b = (yc * ss - ys * sc) / det;
    const double signal = a * a * ss + b * b * cc + 2 * a * b * sc;
    return {std::hypot(a, b), 10 * std::log10(signal / (yy - signal))};
}

// A card buffer's sample at (frame, channel) as a float, whatever its kind.
float sampleAt(const std::vector<uint8_t>& card, const StreamFormat& format, size_t frame, uint32_t channel) {
    const size_t index = frame * format.channels + channel;
    if (format.kind == SampleKind::Float32) return reinterpret_cast<const float*>(card.data())[index];
    return static_cast<float>(reinterpret_cast<const int16_t*>(card.data())[index]) / 32768.0f;
}

TEST(FormatConverter, ToneSurvivesEveryCardFormatWithExactBlockCounts) {
    for (const SampleKind kind : {SampleKind::Float32, SampleKind::Int16}) {
        for (const uint32_t rate : {44100u, 48000u, 96000u}) {
            for (uint32_t channels = 1; channels <= 8; ++channels) {
                const StreamFormat format{rate, channels, kind};
                const std::string where = std::string(toString(kind)) + " " + std::to_string(rate) + " Hz x" + std::to_string(channels);
                auto render = RenderConverter::create(format, 8000);
                auto capture = CaptureConverter::create(format, 8000);
                ASSERT_TRUE(render && capture) << where;

                // One second of card frames in odd pieces, as a card asks for them.
                const size_t frames = rate, piece = 331;
                std::vector<uint8_t> card(frames * format.bytesPerFrame());
                size_t pulled = 0;
                const auto pull = [&](int16_t* block, size_t count) {
                    for (size_t i = 0; i < count; ++i, ++pulled)
                        block[i] = static_cast<int16_t>(std::lround(kAmplitude * 32767 * std::sin(2 * std::numbers::pi * 1000 * static_cast<double>(pulled) / 8000)));
                };
                for (size_t at = 0; at < frames; at += piece)
                    render->fill(card.data() + at * format.bytesPerFrame(), std::min(piece, frames - at), pull);
                const double expected = static_cast<double>(frames) * 8000 / rate;
                EXPECT_NEAR(static_cast<double>(pulled), expected, 80) << where;

                // Every channel carries the call; then the tone is left in the
                // last channel only, which the capture side must average in.
                bool same = true;
                const size_t sampleBytes = format.bytesPerFrame() / channels;
                for (size_t f = 0; f < frames; ++f) {
                    for (uint32_t c = 1; c < channels; ++c) same = same && sampleAt(card, format, f, c) == sampleAt(card, format, f, 0);
                    std::fill_n(card.data() + f * format.bytesPerFrame(), (channels - 1) * sampleBytes, uint8_t{0});
                }
                EXPECT_TRUE(same) << where;

                std::vector<int16_t> heard;
                bool wholeBlocks = true;
                for (size_t at = 0; at < frames; at += piece) {
                    capture->push(card.data() + at * format.bytesPerFrame(), std::min(piece, frames - at), [&](const int16_t* block, size_t count) {
                        wholeBlocks = wholeBlocks && count == 80;
                        heard.insert(heard.end(), block, block + count);
                    });
                }
                EXPECT_TRUE(wholeBlocks) << where;
                EXPECT_NEAR(static_cast<double>(heard.size()), expected, 80) << where;
                const SineFit fit = fitSine(heard, 1000.0 / 8000, 800);  // past both filters' delay
                EXPECT_GE(fit.snrDb, 60.0) << where;
                EXPECT_NEAR(fit.amplitude, kAmplitude / channels, 0.01 / channels) << where;
            }
        }
    }
}

TEST(MixFormat, OnlyFloat32AndInt16AreAccepted) {
    using Sub = MixFormatFields::SubFormat;
    const struct { uint16_t tag, bits; Sub sub; std::optional<SampleKind> kind; } cases[] = {
        {kWaveFormatIeeeFloat, 32, Sub::Other, SampleKind::Float32},
        {kWaveFormatPcm, 16, Sub::Other, SampleKind::Int16},
        {kWaveFormatExtensible, 32, Sub::IeeeFloat, SampleKind::Float32},
        {kWaveFormatExtensible, 16, Sub::Pcm, SampleKind::Int16},
        {kWaveFormatIeeeFloat, 32, Sub::Pcm, SampleKind::Float32},  // the sub-format means nothing without the tag
        {kWaveFormatPcm, 24, Sub::Other, std::nullopt},
        {kWaveFormatPcm, 32, Sub::Other, std::nullopt},
        {kWaveFormatIeeeFloat, 64, Sub::Other, std::nullopt},
        {kWaveFormatExtensible, 24, Sub::Pcm, std::nullopt},
        {kWaveFormatExtensible, 64, Sub::IeeeFloat, std::nullopt},
        {kWaveFormatExtensible, 16, Sub::IeeeFloat, std::nullopt},
        {kWaveFormatExtensible, 32, Sub::Other, std::nullopt},
        {0x0002, 16, Sub::Other, std::nullopt},  // ADPCM
    };
    for (const auto& c : cases) {
        std::string error;
        const auto format = streamFormatOf({c.tag, c.bits, 6, 44100, c.sub}, &error);
        const std::string where = std::to_string(c.tag) + " " + std::to_string(c.bits) + " bits";
        ASSERT_EQ(format.has_value(), c.kind.has_value()) << where;
        if (format) {
            EXPECT_TRUE(format->kind == *c.kind && format->rate == 44100 && format->channels == 6) << where;
        } else {
            EXPECT_EQ(error, "unsupported mix format") << where;
        }
    }
    EXPECT_FALSE(streamFormatOf({kWaveFormatPcm, 16, 0, 48000, Sub::Other}, nullptr));
    EXPECT_FALSE(streamFormatOf({kWaveFormatPcm, 16, 2, 0, Sub::Other}, nullptr));
}

TEST(MixFormat, LowLatencyPeriodIsWholeFundamentalsWithinTheLimits) {
    // Periods as default, fundamental, minimum, maximum.
    const struct { int ms; uint32_t rate; EnginePeriods periods; uint32_t frames; } cases[] = {
        {3, 48000, {480, 32, 32, 480}, 160},      // 144 rounded up
        {4, 48000, {480, 32, 32, 480}, 192},      // already whole
        {20, 48000, {480, 32, 32, 480}, 480},     // above the maximum
        {0, 48000, {480, 32, 32, 480}, 32},       // below the minimum
        {5, 48000, {480, 128, 256, 1024}, 256},   // 240 rounds to 256
        {1, 48000, {480, 128, 256, 1024}, 256},   // 128 is below the minimum
        {2, 44100, {441, 441, 441, 441}, 441},    // 88 rounds up to one fundamental
        {30, 96000, {960, 96, 96, 4800}, 2880},
        {3, 48000, {480, 0, 0, 1000}, 144},       // no fundamental reported: no rounding
    };
    for (const auto& c : cases) EXPECT_EQ(lowLatencyPeriodFrames(c.ms, c.rate, c.periods), c.frames) << c.ms << " ms at " << c.rate;
}

}  // namespace
}  // namespace kelsoftphone
