// The engine on devices the test drives by hand: gain and its clamping, the
// audio test's loopback bound and pre-roll, mute, a device that will not
// start, the voicemail package filter, recording edges and the bounded
// shutdown against a registrar that stops answering.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "engine/engine_impl.h"
#include "sip/core/log.h"
#include "support/log_capture.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsoftphone {
namespace {

using namespace std::chrono_literals;
using kelsip::test::waitFor;

// A device whose capture and playout the test calls itself, on its own thread.
class HandDevice final : public AudioDevice {
public:
    explicit HandDevice(bool startable = true) : startable_(startable) {}
    bool start(int, CaptureFunction capture, PlayoutFunction playout) override {
        if (!startable_) return false;
        const std::lock_guard lock(mutex_);
        capture_ = std::move(capture);
        playout_ = std::move(playout);
        running_ = true;
        return true;
    }
    void stop() override {
        const std::lock_guard lock(mutex_);
        capture_ = nullptr;
        playout_ = nullptr;
        running_ = false;
    }
    bool running() const override { return running_; }
    std::string description() const override { return "hand"; }
    int64_t glitches() const override { return 0; }

    void fail(const std::string& line) { logFailure(line); }
    bool waitRunning() {
        return waitFor([&] { return running_.load(); }, 5s);
    }
    void capture(std::vector<int16_t> samples) {
        const std::lock_guard lock(mutex_);
        if (capture_) capture_(samples.data(), samples.size());
    }
    std::vector<int16_t> play(size_t count) {
        std::vector<int16_t> out(count, 12345);
        const std::lock_guard lock(mutex_);
        if (playout_) playout_(out.data(), count);
        return out;
    }

private:
    const bool startable_;
    std::mutex mutex_;
    CaptureFunction capture_;
    PlayoutFunction playout_;
    std::atomic<bool> running_{false};
};

struct Events final : SoftphoneListener {
    void onAudioError(const std::string& text) override { add("audio error: " + text); }
    void onVoicemail(bool waiting, int n, int o, const std::string& account) override {
        add("voicemail " + std::to_string(waiting) + " " + std::to_string(n) + "/" + std::to_string(o) + " " + account);
    }
    void onRecordingFinished(bool ok, const std::string& path) override { add("recording " + std::to_string(ok) + " " + path); }
    void onRegistrationState(int, int state, int code, const std::string&) override {
        add("registration " + std::to_string(state) + " " + std::to_string(code));
    }
    void add(const std::string& e) {
        const std::lock_guard lock(mutex);
        seen.push_back(e);
    }
    bool has(const std::string& e) {
        const std::lock_guard lock(mutex);
        return std::find(seen.begin(), seen.end(), e) != seen.end();
    }
    std::vector<std::string> all() {
        const std::lock_guard lock(mutex);
        return seen;
    }
    std::mutex mutex;
    std::vector<std::string> seen;
};

class EngineTest : public ::testing::Test {
protected:
    std::shared_ptr<Events> events = std::make_shared<Events>();
    std::shared_ptr<HandDevice> device = std::make_shared<HandDevice>();
    std::unique_ptr<SoftphoneEngine> engine = std::make_unique<SoftphoneEngine>(SoftphoneConfig{}, events, device);
    kelsip::test::TempDir dir;
};

std::vector<int16_t> ramp(int from, size_t count) {
    std::vector<int16_t> v(count);
    for (size_t i = 0; i < count; ++i) v[i] = static_cast<int16_t>(from + static_cast<int>(i));
    return v;
}

TEST_F(EngineTest, AudioTestPlaysBackAfterThePreRollAndKeepsAtMostTwoSeconds) {
    engine->audioTest(true);
    ASSERT_TRUE(device->waitRunning());
    // 200 ms of pre-roll: 1600 samples must stand behind a block before it plays.
    device->capture(ramp(1, 1600));
    EXPECT_EQ(device->play(80), std::vector<int16_t>(80, 0)) << "played before the pre-roll filled";
    device->capture(ramp(1601, 80));
    EXPECT_EQ(device->play(80), ramp(1, 80));

    // Five seconds captured while the render side stalls: only the newest
    // 16000 samples survive, so playback resumes 16000 samples back.
    for (int block = 0; block < 500; ++block) device->capture(ramp(10000 + block * 80 % 20000, 80));
    std::vector<int16_t> heard;
    for (int i = 0; i < 300; ++i) {
        const auto out = device->play(80);
        heard.insert(heard.end(), out.begin(), out.end());
    }
    const size_t played = static_cast<size_t>(std::count_if(heard.begin(), heard.end(), [](int16_t s) { return s != 0; }));
    EXPECT_EQ(played, 16000U - 1600U) << "the loopback held more than 16000 samples, or lost its pre-roll";

    engine->audioTest(false);
    EXPECT_TRUE(waitFor([&] { return !device->running(); }, 5s)) << "the device runs on without a reason";
}

TEST_F(EngineTest, GainIsClampedAndMuteSilencesTheRecordedMicrophone) {
    // The table: gain, microphone sample, recorded sample.
    struct Case {
        float gain;
        int16_t in;
        int16_t out;
    };
    const Case cases[] = {{2.0f, 20000, 32767}, {2.0f, -20000, -32768}, {0.5f, 1001, 501}, {1.0f, -7, -7}, {0.0f, 30000, 0}};
    auto impl = std::make_shared<SoftphoneEngine::Impl>(SoftphoneConfig{}, events, nullptr);
    const std::string table = (dir.path() / "table.wav").string();
    ASSERT_TRUE(impl->startRecording(table));
    for (const Case& c : cases) {
        impl->setMicrophoneGain(c.gain);
        std::vector<int16_t> in(80, c.in), out(80);
        impl->onCapture(in.data(), in.size());
        impl->onPlayout(out.data(), out.size());  // no call: silence from the far end
    }
    impl->muteMicrophone(true);
    impl->setMicrophoneGain(1.0f);
    std::vector<int16_t> loud(80, 9000), out(80);
    impl->onCapture(loud.data(), loud.size());
    impl->onPlayout(out.data(), out.size());
    impl->stopRecording();

    const auto wav = kelsip::test::readWav(table);
    ASSERT_TRUE(wav);
    ASSERT_EQ(wav->samples.size(), 80U * 6);
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(wav->samples[i * 80 + 40], cases[i].out) << "gain " << cases[i].gain;
    EXPECT_EQ(wav->samples[5 * 80 + 40], 0) << "a muted microphone was recorded";
    EXPECT_TRUE(events->has("recording 1 " + table));
}

TEST_F(EngineTest, AMutedSpeakerSilencesTheAudioTestToo) {
    auto impl = std::make_shared<SoftphoneEngine::Impl>(SoftphoneConfig{}, events, nullptr);
    impl->audioTest(true);
    std::vector<int16_t> in(1700, 3000), out(80, 1);
    impl->onCapture(in.data(), in.size());
    impl->muteSpeaker(true);
    impl->onPlayout(out.data(), out.size());
    EXPECT_EQ(out, std::vector<int16_t>(80, 0));
}

TEST_F(EngineTest, RecordingEdges) {
    engine->stopRecording();  // never started: nothing to report
    EXPECT_FALSE(engine->startRecording((dir.path() / "no" / "such" / "folder.wav").string()));
    const std::string first = (dir.path() / "a.wav").string(), second = (dir.path() / "b.wav").string();
    ASSERT_TRUE(engine->startRecording(first));
    ASSERT_TRUE(engine->startRecording(second));  // finishes the first
    engine->stopRecording();
    EXPECT_EQ(events->all(), (std::vector<std::string>{"recording 1 " + first, "recording 1 " + second}));
}

TEST_F(EngineTest, OnlyTheMessageSummaryPackageReachesTheVoicemailBox) {
    auto impl = std::make_shared<SoftphoneEngine::Impl>(SoftphoneConfig{}, events, nullptr);
    const std::string body = "Messages-Waiting: yes\r\nMessage-Account: sip:box@example.com\r\nVoice-Message: 3/7\r\n";
    for (const char* other : {"message-summary2", "Message-Summary", "message-summar", "presence", ""}) {
        impl->onSubscriptionBody(0, other, body);
    }
    impl->onSubscriptionBody(0, "message-summary", "no summary here");
    EXPECT_TRUE(events->all().empty());
    impl->onSubscriptionBody(7, "message-summary", body);
    EXPECT_EQ(events->all(), std::vector<std::string>{"voicemail 1 3/7 sip:box@example.com"});
}

TEST(EngineDevice, TheVirtualDeviceKeepsTheClocksPaceInBlocksOf80) {
    std::atomic<int> blocks{0}, played{0}, wrongSize{0};
    std::atomic<int16_t> heard{0};
    VirtualAudioDevice device([](int16_t* b, size_t n) { std::fill_n(b, n, int16_t{7}); },
                              [&](const int16_t* s, size_t) { heard = s[0], ++played; });
    const auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(device.start(8000, [&](const int16_t* s, size_t n) { wrongSize += n != 80 || s[0] != 7, ++blocks; },
                             [](int16_t* b, size_t n) { std::fill_n(b, n, int16_t{9}); }));
    ASSERT_TRUE(waitFor([&] { return blocks >= 200; }, 10s));
    // Deadlines are absolute: a late block is caught up, never run ahead of.
    EXPECT_GE(std::chrono::steady_clock::now() - started, 1980ms);
    device.stop();
    const int after = blocks;
    EXPECT_EQ(wrongSize, 0);
    EXPECT_EQ(heard, 9);
    EXPECT_EQ(played, after);
    EXPECT_EQ(blocks, after) << "a callback ran after stop returned";
}

TEST_F(EngineTest, AFailingStreamIsReportedOncePerStart) {
    engine->audioTest(true);
    ASSERT_TRUE(device->waitRunning());
    device->fail("capture cannot open: No such device");
    device->fail("capture cannot open: No such device, attempt 2");
    engine->audioTest(false);
    ASSERT_TRUE(waitFor([&] { return !device->running(); }, 5s));
    engine->audioTest(true);
    ASSERT_TRUE(device->waitRunning());
    device->fail("playout device removed");
    EXPECT_EQ(events->all(), (std::vector<std::string>{"audio error: capture cannot open: No such device",
                                                       "audio error: playout device removed"}));
}

TEST(EngineDevice, ADeviceThatWillNotStartIsReportedOnceForEachNeed) {
    auto events = std::make_shared<Events>();
    SoftphoneEngine engine(SoftphoneConfig{}, events, std::make_shared<HandDevice>(false));
    engine.audioTest(true);
    ASSERT_TRUE(waitFor([&] { return events->has("audio error: audio device failed to start"); }, 5s));
    engine.audioTest(false);
    engine.audioTest(true);
    ASSERT_TRUE(waitFor([&] { return events->all().size() >= 2; }, 5s));
    EXPECT_EQ(events->all().size(), 2U) << "the engine retries a failed device in a loop";
}

TEST(EngineShutdown, ARegistrarThatStopsAnsweringHoldsDestroyForThreeSecondsAtMost) {
    kelsip::test::ScriptedPeer registrar;
    kelsip::test::LogCapture logs;
    auto events = std::make_shared<Events>();
    SoftphoneConfig config;
    config.bindAddress = "127.0.0.1";
    config.sipPort = 0;
    auto engine = std::make_unique<SoftphoneEngine>(config, events, std::make_shared<HandDevice>());
    ASSERT_TRUE(engine->start({"alice", "secret", registrar.hostPort(), "", "", "", "", AccountTransport::Udp}));
    const auto reg = registrar.expect("REGISTER", nullptr);
    ASSERT_TRUE(reg);
    registrar.answer(*reg, 200, "Contact: " + reg->header("Contact").value_or("") + ";expires=3600\r\n");
    ASSERT_TRUE(waitFor([&] { return events->has("registration 2 200"); }, 5s));

    const auto before = std::chrono::steady_clock::now();
    engine.reset();  // the un-REGISTER goes unanswered
    const auto took = std::chrono::steady_clock::now() - before;
    EXPECT_GE(took, 2900ms);
    EXPECT_LT(took, 4500ms);
    EXPECT_TRUE(logs.has("no answer to the un-REGISTER within 3000 ms"));
    EXPECT_TRUE(logs.has("un-registering before shutdown"));
}

}  // namespace
}  // namespace kelsoftphone
