// The call recorder: the file it leaves, what it mixes, and a header that
// is right while the file grows.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/record/wav_recorder.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace kelsoftphone {
namespace {

using namespace std::chrono_literals;
using Samples = std::vector<int16_t>;

struct Wav {
    uint32_t riffSize = 0;
    uint32_t dataSize = 0;
    Samples samples;
    size_t bytes = 0;
};

Wav readWav(const std::filesystem::path& path) {
    const std::string text = kelsip::test::readTextFile(path);
    Wav w;
    w.bytes = text.size();
    if (text.size() < WavRecorder::kHeaderBytes || text.compare(0, 4, "RIFF") != 0 || text.compare(8, 8, "WAVEfmt ") != 0 ||
        text.compare(36, 4, "data") != 0) {
        return w;
    }
    std::memcpy(&w.riffSize, text.data() + 4, 4);  // the machines we build for are little-endian
    std::memcpy(&w.dataSize, text.data() + 40, 4);
    for (size_t at = WavRecorder::kHeaderBytes; at + 1 < text.size(); at += 2) {
        int16_t s = 0;
        std::memcpy(&s, text.data() + at, 2);
        w.samples.push_back(s);
    }
    return w;
}

TEST(WavRecorderTest, MixesBothDirectionsWithClampingAndKeepsTheUnpairedAtClose) {
    const struct {
        const char* name;
        Samples nearEnd;
        Samples farEnd;
        Samples written;
    } cases[] = {
        {"nothing", {}, {}, {}},
        {"sums clamp", {30000, -30000, 100, 0}, {10000, -10000, 200, -5}, {32767, -32768, 300, -5}},
        // The far end's last words after the microphone stopped, against silence.
        {"unpaired kept", {1, 2}, {10, 20, 30, 40}, {11, 22, 30, 40}},
    };
    kelsip::test::TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto path = dir.file(std::string(c.name) + ".wav");
        auto recorder = WavRecorder::create(path.string());
        ASSERT_TRUE(recorder);
        recorder->addSamples(c.nearEnd.data(), c.nearEnd.size(), RecordDirection::NearEnd);
        recorder->addSamples(c.farEnd.data(), c.farEnd.size(), RecordDirection::FarEnd);
        recorder->close();
        const Wav wav = readWav(path);
        EXPECT_EQ(wav.samples, c.written);
        EXPECT_EQ(wav.dataSize, c.written.size() * 2);
        EXPECT_EQ(wav.riffSize, wav.dataSize + 36);
        EXPECT_EQ(wav.bytes, 44 + c.written.size() * 2);
    }
    EXPECT_FALSE(WavRecorder::create(dir.file("no/such/folder.wav").string()));
}

TEST(WavRecorderTest, TheHeaderIsRightWhileTheFileGrowsAndOneSilentDirectionHoldsTheOther) {
    kelsip::test::TempDir dir;
    const auto path = dir.file("call.wav");
    auto recorder = WavRecorder::create(path.string());
    ASSERT_TRUE(recorder);
    const Samples tone(160, 1000);
    for (int packet = 0; packet < 5; ++packet) {
        recorder->addSamples(tone.data(), tone.size(), RecordDirection::NearEnd);
        recorder->addSamples(tone.data(), tone.size(), RecordDirection::FarEnd);
    }
    // Not closed (as after a crash): the writer's next pass makes the file whole.
    EXPECT_TRUE(kelsip::test::waitFor([&] { return readWav(path).dataSize == 1600; }, 2s));
    EXPECT_EQ(readWav(path).samples, Samples(800, 2000));
    // The far end alone: nothing more until the near end delivers again.
    recorder->addSamples(tone.data(), tone.size(), RecordDirection::FarEnd);
    recorder->addSamples(tone.data(), 80, RecordDirection::NearEnd);
    EXPECT_TRUE(kelsip::test::waitFor([&] { return readWav(path).dataSize == 1760; }, 2s));
    recorder->close();
    EXPECT_EQ(readWav(path).dataSize, 1920u);  // the 80 unpaired at close
}

}  // namespace
}  // namespace kelsoftphone
