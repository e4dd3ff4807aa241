// The WAV helpers the audio checks rely on: files as recorders really write
// them, and measures that must not pass on the wrong audio.
#include "support/wav.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "support/temp_dir.h"

namespace kelsip::test {
namespace {

// Builds RIFF files chunk by chunk, to write what our writer never would.
class RiffBuilder {
public:
    RiffBuilder& chunk(const char* tag, const std::vector<uint8_t>& body, std::optional<uint32_t> declared = {}) {
        body_.insert(body_.end(), tag, tag + 4);
        put32(declared.value_or(static_cast<uint32_t>(body.size())));
        body_.insert(body_.end(), body.begin(), body.end());
        // A chunk cut short (declared longer than it is) ends the file unpadded.
        if (body.size() % 2 == 1 && !declared) body_.push_back(0);
        return *this;
    }
    [[nodiscard]] std::string bytes() const {
        std::string out = "RIFF";
        const auto size = static_cast<uint32_t>(body_.size() + 4);
        for (int shift = 0; shift < 32; shift += 8) out += static_cast<char>((size >> shift) & 0xFF);
        out += "WAVE";
        out.append(body_.begin(), body_.end());
        return out;
    }

    static std::vector<uint8_t> format(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits,
                                       bool extensible = false) {
        std::vector<uint8_t> f;
        auto p16 = [&](uint16_t v) {
            f.push_back(static_cast<uint8_t>(v & 0xFF));
            f.push_back(static_cast<uint8_t>(v >> 8));
        };
        auto p32 = [&](uint32_t v) {
            p16(static_cast<uint16_t>(v & 0xFFFF));
            p16(static_cast<uint16_t>(v >> 16));
        };
        p16(extensible ? 0xFFFE : tag);
        p16(channels);
        p32(rate);
        p32(rate * channels * bits / 8);
        p16(static_cast<uint16_t>(channels * bits / 8));
        p16(bits);
        if (extensible) {
            p16(22);                                  // extra bytes
            p16(bits);                                // valid bits
            p32(channels == 2 ? 3 : 4);               // channel mask
            p16(tag);                                 // sub-format GUID, first two bytes
            for (int i = 0; i < 14; ++i) f.push_back(static_cast<uint8_t>(i));
        }
        return f;
    }
    static std::vector<uint8_t> pcm(const std::vector<int16_t>& samples) {
        std::vector<uint8_t> d;
        for (const int16_t s : samples) {
            d.push_back(static_cast<uint8_t>(static_cast<uint16_t>(s) & 0xFF));
            d.push_back(static_cast<uint8_t>(static_cast<uint16_t>(s) >> 8));
        }
        return d;
    }

private:
    void put32(uint32_t v) {
        for (int shift = 0; shift < 32; shift += 8) body_.push_back(static_cast<uint8_t>((v >> shift) & 0xFF));
    }
    std::vector<uint8_t> body_;
};

class WavTest : public ::testing::Test {
protected:
    std::optional<WavAudio> readBytes(const std::string& bytes, std::string* error = nullptr) {
        const auto path = dir.file("file.wav");
        EXPECT_TRUE(writeTextFile(path, bytes));
        return readWav(path, error);
    }
    TempDir dir{"velmora-wav"};
};

TEST_F(WavTest, WritesAndReadsBackEverySampleValue) {
    WavAudio audio;
    audio.sampleRate = 16000;
    audio.samples = {0, 1, -1, 32767, -32768, 12345, -12345};
    ASSERT_TRUE(writeWav(dir.file("round.wav"), audio));
    EXPECT_EQ(std::filesystem::file_size(dir.file("round.wav")), 44u + 2u * audio.samples.size());
    const auto back = readWav(dir.file("round.wav"));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->sampleRate, 16000u);
    EXPECT_EQ(back->channels, 1u);
    EXPECT_EQ(back->samples, audio.samples);
}

TEST_F(WavTest, ReadsFilesAsOtherRecordersWriteThem) {
    const std::vector<int16_t> stereo = {1, -1, 2, -2, 3, -3};
    struct Case {
        const char* name;
        std::string bytes;
        uint32_t rate;
        uint16_t channels;
        std::vector<int16_t> samples;
    };
    const std::vector<Case> cases = {
        {"LIST and an odd-length chunk before the data",
         RiffBuilder()
             .chunk("fmt ", RiffBuilder::format(1, 1, 8000, 16))
             .chunk("LIST", std::vector<uint8_t>(27, 'x'))
             .chunk("fact", {4, 0, 0, 0})
             .chunk("data", RiffBuilder::pcm({5, 6, 7}))
             .bytes(),
         8000, 1, {5, 6, 7}},
        {"48 kHz stereo, WAVE_FORMAT_EXTENSIBLE",
         RiffBuilder().chunk("fmt ", RiffBuilder::format(1, 2, 48000, 16, true)).chunk("data", RiffBuilder::pcm(stereo)).bytes(),
         48000, 2, stereo},
        {"a recorder still writing: data length 0",
         RiffBuilder().chunk("fmt ", RiffBuilder::format(1, 1, 8000, 16)).chunk("data", RiffBuilder::pcm({9, 8}), 0).bytes(),
         8000, 1, {9, 8}},
        {"a data length past the end, and half a sample",
         RiffBuilder().chunk("fmt ", RiffBuilder::format(1, 1, 8000, 16)).chunk("data", {1, 0, 2, 0, 3}, 1000).bytes(),
         8000, 1, {1, 2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        const auto audio = readBytes(c.bytes, &error);
        ASSERT_TRUE(audio) << error;
        EXPECT_EQ(audio->sampleRate, c.rate);
        EXPECT_EQ(audio->channels, c.channels);
        EXPECT_EQ(audio->samples, c.samples);
    }

    const auto both = readBytes(cases[1].bytes);
    ASSERT_TRUE(both);
    EXPECT_EQ(both->frames(), 3u);
    EXPECT_EQ(both->channel(0), (std::vector<int16_t>{1, 2, 3}));
    EXPECT_EQ(both->channel(1), (std::vector<int16_t>{-1, -2, -3}));
}

TEST_F(WavTest, RefusesWhatIsNot16BitPcmAndSaysWhatItIs) {
    struct Case {
        std::string bytes;
        const char* named;
    };
    const std::vector<Case> cases = {
        {RiffBuilder().chunk("fmt ", RiffBuilder::format(3, 2, 48000, 32)).chunk("data", {0, 0, 0, 0}).bytes(),
         "IEEE float, 32 bits, 2 channels, 48000 Hz"},
        {RiffBuilder().chunk("fmt ", RiffBuilder::format(3, 1, 48000, 32, true)).chunk("data", {0, 0, 0, 0}).bytes(),
         "IEEE float"},
        {RiffBuilder().chunk("fmt ", RiffBuilder::format(7, 1, 8000, 8)).chunk("data", {0, 0}).bytes(), "mu-law"},
        {RiffBuilder().chunk("fmt ", RiffBuilder::format(1, 1, 8000, 8)).chunk("data", {0, 0}).bytes(), "8 bits"},
        {RiffBuilder().chunk("data", {0, 0}).bytes(), "data chunk before the fmt chunk"},
        {RiffBuilder().chunk("fmt ", RiffBuilder::format(1, 1, 8000, 16)).bytes(), "no data chunk"},
        {"RIFX\0\0\0\0WAVE", "not a RIFF/WAVE file"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(readBytes(c.bytes, &error)) << c.named;
        EXPECT_NE(error.find(c.named), std::string::npos) << error;
    }
}

TEST(WavAnalysisTest, ToneShareSeesOnlyTheToneAsked) {
    const std::vector<Tone> twoTones = {{440, 0.5}};
    const auto a440 = makeTones(twoTones);
    const auto a1000 = makeTones(std::vector<Tone>{{1000, 0.5}});
    std::vector<int16_t> mixed(a440.size());
    for (size_t i = 0; i < mixed.size(); ++i) mixed[i] = static_cast<int16_t>(a440[i] / 2 + a1000[i] / 2);
    const std::vector<int16_t> silence(4000, 0);

    EXPECT_GT(toneShare(a440, 440, 8000), 0.95);
    EXPECT_LT(toneShare(a440, 1000, 8000), 0.01);
    EXPECT_LT(toneShare(a440, 450, 8000), 0.05);  // 10 Hz off, with 2 Hz resolution
    EXPECT_NEAR(toneShare(mixed, 440, 8000), 0.5, 0.05);
    EXPECT_NEAR(toneShare(mixed, 1000, 8000), 0.5, 0.05);
    EXPECT_EQ(toneShare(silence, 440, 8000), 0.0);
    // The same tone at another rate is still the same frequency.
    EXPECT_GT(toneShare(makeTones(std::vector<Tone>{{440, 0.1}}, 48000), 440, 48000), 0.95);
}

TEST(WavAnalysisTest, DominantFrequencyFindsTheStrongestComponent) {
    struct Case {
        double frequency;
        uint32_t rate;
        double seconds;
    };
    for (const Case c : {Case{300, 8000, 0.25}, Case{440, 8000, 0.5}, Case{1000, 8000, 0.1}, Case{3333, 8000, 0.25},
                         Case{697.3, 8000, 0.5}, Case{1000, 48000, 0.1}}) {
        const auto block = makeTones(std::vector<Tone>{{c.frequency, c.seconds}}, c.rate);
        EXPECT_NEAR(dominantFrequency(block, c.rate), c.frequency, 2.0) << c.frequency << " Hz at " << c.rate;
    }
    // A strong hum below the range does not hide the tone inside it.
    const auto hum = makeTones(std::vector<Tone>{{50, 0.5, 0.6}});
    const auto tone = makeTones(std::vector<Tone>{{1200, 0.5, 0.1}});
    std::vector<int16_t> both(hum.size());
    for (size_t i = 0; i < both.size(); ++i) both[i] = static_cast<int16_t>(hum[i] + tone[i]);
    EXPECT_NEAR(dominantFrequency(both, 8000), 50, 2.0);
    EXPECT_NEAR(dominantFrequency(both, 8000, 100), 1200, 2.0);
    EXPECT_EQ(dominantFrequency(std::vector<int16_t>(800, 0), 8000), 0.0);
}

TEST(WavAnalysisTest, ToneSequencesFollowOneAnother) {
    const std::vector<Tone> steps = {{440, 0.1}, {0, 0.05}, {1000, 0.1}};
    const auto samples = makeTones(steps);
    ASSERT_EQ(samples.size(), 2000u);
    const std::span<const int16_t> all(samples);
    EXPECT_NEAR(dominantFrequency(all.subspan(0, 800), 8000), 440, 2.0);
    EXPECT_EQ(rms(all.subspan(800, 400)), 0.0);
    EXPECT_NEAR(dominantFrequency(all.subspan(1200, 800), 8000), 1000, 2.0);
    // 0.25 of full scale, as a sine's RMS.
    EXPECT_NEAR(rms(all.subspan(0, 800)), 0.25 * 32767 / std::sqrt(2.0), 50);
}

TEST(WavAnalysisTest, CorrelationFindsTheClipWhereItIsAndNowhereElse) {
    std::mt19937 random(7);
    std::normal_distribution<double> noise(0.0, 3000.0);
    std::vector<int16_t> clip(1600);
    for (int16_t& s : clip) s = static_cast<int16_t>(std::clamp(noise(random), -32000.0, 32000.0));

    // A quieter copy of the clip in a recording of faint noise, after
    // silence: what a call's recording of a played clip looks like.
    std::vector<int16_t> recording(8000, 0);
    std::normal_distribution<double> faint(0.0, 100.0);
    for (size_t i = 3000; i < recording.size(); ++i) recording[i] = static_cast<int16_t>(faint(random));
    for (size_t i = 0; i < clip.size(); ++i) recording[4321 + i] = static_cast<int16_t>(recording[4321 + i] + clip[i] / 2);

    const Correlation found = bestCorrelation(recording, clip);
    EXPECT_GT(found.value, 0.95);
    EXPECT_EQ(found.offset, 4321u);

    std::vector<int16_t> other(1600);
    for (int16_t& s : other) s = static_cast<int16_t>(std::clamp(noise(random), -32000.0, 32000.0));
    EXPECT_LT(bestCorrelation(recording, other).value, 0.2);

    std::vector<int16_t> inverted(recording.size());
    for (size_t i = 0; i < recording.size(); ++i) inverted[i] = static_cast<int16_t>(-recording[i]);
    EXPECT_LT(bestCorrelation(inverted, clip).value, 0.2);

    EXPECT_EQ(bestCorrelation(std::span<const int16_t>(recording).first(1000), clip).value, 0.0);
    EXPECT_EQ(bestCorrelation(std::vector<int16_t>(4000, 0), clip).value, 0.0);
}

}  // namespace
}  // namespace kelsip::test
