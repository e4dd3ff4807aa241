// The ALSA device against a test PCM that keeps time like a card
// (alsa_test_pcm.cpp): blocks at the card's pace, tones both ways, an xrun
// recovered, a missing device retried.

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <numbers>

#include "engine/audio/alsa_audio_device.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsoftphone {
namespace {

using namespace std::chrono_literals;
using kelsip::test::waitFor;
using Samples = std::vector<int16_t>;

struct Card {
    const char* pcm;
    const char* format;  // as the description gives it
    uint32_t rate, channels;
    bool isFloat;
};
const Card kCards[] = {
    {"velmora_f32", "48000 Hz x2 f32", 48000, 2, true},
    {"velmora_s16", "44100 Hz x1 s16", 44100, 1, false},
};

kelsip::test::TempDir& folder() {
    static kelsip::test::TempDir dir("velmora-alsa");
    return dir;
}

// The test PCMs on top of the system's configuration. ALSA reads its
// configuration once, at the process's first PCM, so before any device.
[[maybe_unused]] const bool configured = [] {
    std::string text = "</usr/share/alsa/alsa.conf>\npcm_type.velmoratest { lib \"" VELMORA_ALSA_TEST_PCM_LIB "\" }\n";
    for (const Card& card : kCards) {
        text += std::string("pcm.") + card.pcm + " { type velmoratest rate " + std::to_string(card.rate) + " channels " +
                std::to_string(card.channels) + " format " + (card.isFloat ? "FLOAT_LE" : "S16_LE") + " file \"" +
                folder().file(std::string(card.pcm) + ".raw").string() + "\" hint { show on description \"Test card\" } }\n";
    }
    const auto path = folder().file("alsa.conf");
    return kelsip::test::writeTextFile(path, text) && ::setenv("ALSA_CONFIG_PATH", path.c_str(), 1) == 0;
}();

// What the device did, as its functions and its log saw it.
struct Recorder {
    std::atomic<int> captured{0}, played{0}, wrongSizes{0};
    std::mutex mutex;
    Samples heard;
    std::vector<std::string> lines;
    std::atomic<int> stallAt{-1};  // the playout block that holds its thread 200 ms

    void start(AlsaAudioDevice& device) {
        device.setLog([this](const std::string& line) {
            const std::lock_guard lock(mutex);
            lines.push_back(line);
        });
        ASSERT_TRUE(device.start(
            8000,
            [this](const int16_t* samples, size_t count) {
                if (count != 80) ++wrongSizes;
                const std::lock_guard lock(mutex);
                heard.insert(heard.end(), samples, samples + count);
                ++captured;
            },
            [this](int16_t* buffer, size_t count) {
                if (count != 80) ++wrongSizes;
                const int block = played++;
                for (size_t i = 0; i < count; ++i) {
                    const double n = static_cast<double>(static_cast<size_t>(block) * count + i);
                    buffer[i] = static_cast<int16_t>(8000 * std::sin(2 * std::numbers::pi * 600 * n / 8000));
                }
                // A stall of the call's side, not a wait for a result.
                if (block == stallAt) std::this_thread::sleep_for(200ms);
            }));
    }
    [[nodiscard]] int linesWith(const std::string& text) {
        const std::lock_guard lock(mutex);
        return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                              [&](const std::string& l) { return l.find(text) != std::string::npos; }));
    }
};

// Blocks a second while `count` grows by `blocks`.
double blocksPerSecond(const std::atomic<int>& count, int blocks) {
    const int from = count;
    const auto begin = std::chrono::steady_clock::now();
    if (!waitFor([&] { return count >= from + blocks; }, 5s)) return 0;
    return blocks / std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// The raw playback file as 16-bit mono.
Samples playedFile(const Card& card) {
    const std::string raw = kelsip::test::readTextFile(folder().file(std::string(card.pcm) + ".raw"));
    Samples mono(raw.size() / (card.isFloat ? 4 : 2) / card.channels);
    for (size_t n = 0; n < mono.size(); ++n) {
        float f = 0;
        if (card.isFloat) std::memcpy(&f, raw.data() + n * card.channels * 4, 4);  // the first channel
        else std::memcpy(&mono[n], raw.data() + n * 2, 2);
        if (card.isFloat) mono[n] = static_cast<int16_t>(f * 32767);
    }
    return mono;
}

TEST(AlsaAudioDevice, TonesFlowBothWaysAtTheCardsPaceAndFormat) {
    for (const Card& card : kCards) {
        AlsaAudioDevice device({card.pcm, card.pcm, 20});
        Recorder r;
        r.start(device);
        const std::string format = "\" " + std::string(card.format) + ", period 20 ms, buffer 60 ms";
        const std::string both = std::string("playout \"") + card.pcm + format + "; capture \"" + card.pcm + format;
        EXPECT_TRUE(waitFor([&] { return device.description() == both; }, 2s)) << device.description();
        // 100 a second: a 2x error or a busy loop falls far outside.
        EXPECT_NEAR(blocksPerSecond(r.captured, 150), 100, 20) << card.pcm;
        EXPECT_NEAR(blocksPerSecond(r.played, 150), 100, 20) << card.pcm;
        device.stop();
        const int captured = r.captured, played = r.played;
        EXPECT_EQ(r.wrongSizes, 0);
        EXPECT_EQ(device.glitches(), 0) << card.pcm;

        const Samples heard(r.heard.end() - 4000, r.heard.end());  // past the converter's onset
        EXPECT_NEAR(kelsip::test::dominantFrequency(heard, 8000, 100, 3900), 1000, 10) << card.pcm;
        EXPECT_GT(kelsip::test::toneShare(heard, 1000, 8000), 0.9) << card.pcm;
        const Samples written = playedFile(card);
        ASSERT_GT(written.size(), card.rate) << card.pcm;
        const Samples tail(written.end() - card.rate / 4, written.end());
        EXPECT_NEAR(kelsip::test::dominantFrequency(tail, card.rate, 100, 3900), 600, 10) << card.pcm;
        EXPECT_GT(kelsip::test::toneShare(tail, 600, card.rate), 0.9) << card.pcm;
        EXPECT_GT(kelsip::test::rms(tail), 3000) << card.pcm;
        EXPECT_EQ(r.captured + r.played, captured + played) << "a function ran after stop";
    }
}

TEST(AlsaAudioDevice, StallLongerThanTheBufferIsAnXrunRecovered) {
    AlsaAudioDevice device({"velmora_s16", "velmora_s16", 20});
    Recorder r;
    r.stallAt = 30;
    r.start(device);
    ASSERT_TRUE(waitFor([&] { return r.played > 30; }, 3s));
    EXPECT_TRUE(waitFor([&] { return device.glitches() >= 1 && r.linesWith("playout xrun") >= 1; }, 2s));
    EXPECT_NEAR(blocksPerSecond(r.played, 100), 100, 20);
    EXPECT_NEAR(blocksPerSecond(r.captured, 100), 100, 20);
    EXPECT_EQ(r.linesWith("playout xrun"), 1);
    EXPECT_EQ(r.linesWith("error"), 0);
}

TEST(AlsaAudioDevice, MissingDeviceIsRetriedUntilStopped) {
    AlsaAudioDevice device({"velmora_missing", "velmora_missing", 20});
    Recorder r;
    r.start(device);
    const std::string failure = "playout \"velmora_missing\" cannot open: snd_pcm_open: ";
    ASSERT_TRUE(waitFor([&] { return r.linesWith(failure) >= 2 && r.linesWith("capture \"velmora_missing\" cannot open") >= 2; }, 3s));
    EXPECT_EQ(device.description(), "playout \"velmora_missing\" not open; capture \"velmora_missing\" not open");
    // Stopping just after a failure: the retry's wait must not hold it.
    ASSERT_TRUE(waitFor([&] { return r.linesWith(failure) >= 3; }, 2s));
    const auto begin = std::chrono::steady_clock::now();
    device.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 300ms);
    EXPECT_FALSE(device.running());
    EXPECT_EQ(r.captured + r.played, 0);
}

TEST(AlsaAudioDevice, ListNamesPlayoutAndCaptureDevices) {
    const std::vector<std::string> lines = listAlsaDevices();
    const auto at = [&](const std::string& line) { return std::find(lines.begin(), lines.end(), line) - lines.begin(); };
    const auto capture = at("capture:");
    ASSERT_EQ(at("playout:"), 0);
    ASSERT_LT(capture, static_cast<long>(lines.size()));
    for (const std::string name : {"  velmora_f32 - Test card", "  default  [default]"}) {
        EXPECT_LT(at(name), capture) << name;
        EXPECT_LT(std::find(lines.begin() + capture, lines.end(), name), lines.end()) << name;
    }
}

}  // namespace
}  // namespace kelsoftphone

