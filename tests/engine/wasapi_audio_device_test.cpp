// The Windows sound device where there may be no sound card (Wine): it keeps
// trying to open its streams and says why it cannot, or, where an endpoint
// works, moves 10 ms blocks; either way stop is prompt and final.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <regex>

#include "engine/audio/wasapi_audio_device.h"
#include "support/wait.h"

namespace kelsoftphone {
namespace {

using namespace std::chrono_literals;
using kelsip::test::waitFor;

// What the device may log: why an open failed, an opened stream, a lost one.
const std::regex kFailure(
    "(MMDeviceEnumerator|GetDefaultAudioEndpoint|GetDevice|Activate IAudioClient|GetMixFormat|IAudioClient::Initialize|"
    "GetBufferSize|CreateEvent|SetEventHandle|IAudioRenderClient|IAudioCaptureClient): 0x[0-9A-F]{8}|"
    "unsupported mix format");
const std::regex kOpenedOrLost(
    "(playout|capture) (\".*\" \\d+ Hz x\\d+ (f32|s16), period [\\d.]+ ms, buffer [\\d.]+ ms.*|device removed|error: .*)");
const std::regex kDescription(
    "playout (not open|\".*\" \\d+ Hz x\\d+ .*); capture (not open|\".*\" \\d+ Hz x\\d+ .*)");

struct Recorder {
    std::mutex mutex;
    std::vector<std::string> lines;
    std::atomic<int> playoutBlocks{0}, captureBlocks{0}, wrongSizes{0};

    void attach(AudioDevice& device) {
        device.setLog([this](const std::string& line) {
            const std::lock_guard lock(mutex);
            lines.push_back(line);
        });
    }
    bool start(AudioDevice& device) {
        return device.start(
            8000, [this](const int16_t*, size_t count) { count == 80 ? ++captureBlocks : ++wrongSizes; },
            [this](int16_t*, size_t count) { count == 80 ? ++playoutBlocks : ++wrongSizes; });
    }
    int failures(const std::string& prefix = {}) {
        const std::lock_guard lock(mutex);
        return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return std::regex_match(line, kFailure) && line.starts_with(prefix);
        }));
    }
    // Each direction either moves blocks or has failed to open more than
    // once since `before` failures; `log` holds the lines when not this.
    bool settled(const std::string& prefix = {}, Recorder* log = nullptr, int before = 0) {
        const int failing = (playoutBlocks < 20) + (captureBlocks < 20);
        return failing == 0 || (log ? log : this)->failures(prefix) - before >= 2 * failing;
    }
    int callbacks() const { return playoutBlocks + captureBlocks + wrongSizes; }
};

// Stops the device, which must be prompt, and checks nothing is called after.
void stopPromptly(AudioDevice& device, Recorder& recorder) {
    const auto before = std::chrono::steady_clock::now();
    device.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 200ms);
    EXPECT_FALSE(device.running());
    const int calls = recorder.callbacks();
    EXPECT_FALSE(waitFor([&] { return recorder.callbacks() != calls; }, 300ms)) << "called after stop";
}

TEST(WasapiAudioDevice, RetriesOrRunsAndStopsPromptly) {
    for (const bool named : {false, true}) {
        SystemAudioOptions options;
        if (named) options.playoutDevice = options.captureDevice = "no such endpoint";
        const std::string prefix = named ? "GetDevice: " : "";
        WasapiAudioDevice device(options);
        Recorder recorder;
        recorder.attach(device);
        EXPECT_EQ(device.description(), "playout not open; capture not open");
        ASSERT_TRUE(recorder.start(device));
        EXPECT_TRUE(device.running());

        ASSERT_TRUE(waitFor([&] { return recorder.settled(prefix); }, 10s)) << "neither blocks nor retries";
        EXPECT_TRUE(std::regex_match(device.description(), kDescription)) << device.description();
        EXPECT_EQ(recorder.wrongSizes, 0);
        if (recorder.playoutBlocks < 20 && recorder.captureBlocks < 20) {
            EXPECT_EQ(device.glitches(), 0);
        }
        stopPromptly(device, recorder);

        const std::lock_guard lock(recorder.mutex);
        for (const std::string& line : recorder.lines) {
            EXPECT_TRUE(std::regex_match(line, kFailure) || std::regex_match(line, kOpenedOrLost)) << line;
        }
    }
}

TEST(WasapiAudioDevice, StartingAgainReplacesTheRunningStreams) {
    WasapiAudioDevice device;
    Recorder first, second;
    first.attach(device);
    ASSERT_TRUE(first.start(device));
    ASSERT_TRUE(waitFor([&] { return first.settled(); }, 10s));

    ASSERT_TRUE(second.start(device));  // the log stays with the first
    const int firstCalls = first.callbacks(), before = first.failures();
    ASSERT_TRUE(waitFor([&] { return second.settled({}, &first, before); }, 10s));
    EXPECT_EQ(first.callbacks(), firstCalls) << "the first start's functions outlived the second start";
    stopPromptly(device, second);
    device.stop();  // a second stop is harmless
    EXPECT_FALSE(device.start(50, {}, {}));
}

TEST(WasapiAudioDevice, ListsBothDirections) {
    const std::vector<std::string> lines = listWasapiAudioDevices();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), "playout:");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "capture:"), 1);
    for (const std::string& line : lines) {
        EXPECT_TRUE(line == "playout:" || line == "capture:" || (line.starts_with("  ") && line.size() > 2)) << line;
    }
    EXPECT_NE(createSystemAudioDevice(), nullptr);
}

}  // namespace
}  // namespace kelsoftphone
