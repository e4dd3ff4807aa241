// Calls between our user agent and baresip through Kamailio with digest
// authentication, over UDP and over TCP: placed and answered, audio both
// ways, DTMF both ways, hold and resume, hang-up from either side,
// cancellation, refusal, and a run of calls that leaves nothing behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <map>
#include <mutex>
#include <numbers>
#include <thread>

#include "interop/support/interop_test.h"
#include "media/session/media_session.h"
#include "sip/ua/user_agent.h"
#include "support/baresip_peer.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsip {

// Test names and failure messages show the transport by name.
static void PrintTo(TransportKind kind, std::ostream* out) { *out << transportName(kind); }

namespace {

using namespace std::chrono_literals;
using test::BaresipPeer;
using test::waitFor;

constexpr double kOurTone = 440.0;
constexpr double kBaresipTone = 1000.0;
constexpr uint32_t kRate = 8000;

class CallEvents final : public UserAgentListener {
public:
    void onIncomingCall(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        incoming_.push_back(call);
    }
    void onCallState(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        states_[call.id].push_back(call.state);
        last_[call.id] = call;
    }
    void onDtmf(int, char digit, DtmfMethod method) override {
        const std::lock_guard lock(mutex_);
        (method == DtmfMethod::Info ? info_ : events_) += digit;
    }
    void onTransferProgress(int, int statusCode, const std::string&) override {
        const std::lock_guard lock(mutex_);
        transfer_.push_back(statusCode);
    }
    std::vector<int> transfer() {
        const std::lock_guard lock(mutex_);
        return transfer_;
    }
    std::optional<CallInfo> incoming() {
        const std::lock_guard lock(mutex_);
        if (incoming_.empty()) return std::nullopt;
        return incoming_.back();
    }
    std::vector<std::string> states(int call) {
        const std::lock_guard lock(mutex_);
        return states_[call];
    }
    CallInfo last(int call) {
        const std::lock_guard lock(mutex_);
        return last_[call];
    }
    std::string digits(DtmfMethod method) {
        const std::lock_guard lock(mutex_);
        return method == DtmfMethod::Info ? info_ : events_;
    }

private:
    std::mutex mutex_;
    std::vector<CallInfo> incoming_;
    std::map<int, std::vector<std::string>> states_;
    std::map<int, CallInfo> last_;
    std::string info_;
    std::string events_;
    std::vector<int> transfer_;
};

// The call's sound card: every 10 ms it captures a period of our tone and
// plays a period of what arrived, and keeps what it played.
class SoundCard {
public:
    SoundCard(std::shared_ptr<MediaSession> media, double hz) : media_(std::move(media)), hz_(hz) {
        thread_ = std::thread([this] { run(); });
    }
    ~SoundCard() {
        stop_ = true;
        thread_.join();
    }
    SoundCard(const SoundCard&) = delete;
    SoundCard& operator=(const SoundCard&) = delete;

    // The last tenth of a second played, or nothing before there is one.
    std::vector<int16_t> lastPlayed() {
        const std::lock_guard lock(mutex_);
        if (played_.size() < kRate / 10) return {};
        return {played_.end() - kRate / 10, played_.end()};
    }
    // The last tenth of a second played is loud and its strongest component
    // is within 5 % of `hz`. The playout buffer steers its delay by small
    // time-scale changes, which move a pure tone's pitch by a few percent
    // while they last, so a measure of one exact frequency would miss it.
    bool hears(double hz) {
        const std::vector<int16_t> block = lastPlayed();
        return !block.empty() && test::rms(block) > 1000.0 &&
               std::abs(test::dominantFrequency(block, kRate, 100.0, 3000.0) - hz) < 0.05 * hz;
    }
    // The last tenth of a second played holds no tone worth the name.
    bool quiet() {
        const std::vector<int16_t> block = lastPlayed();
        return !block.empty() && test::rms(block) < 100.0;
    }
    std::string describe() {
        const std::vector<int16_t> block = lastPlayed();
        if (block.empty()) return "nothing played yet";
        return "last 0.1 s played: rms " + std::to_string(test::rms(block)) + ", strongest at " +
               std::to_string(test::dominantFrequency(block, kRate, 100.0, 3000.0)) + " Hz";
    }

private:
    void run() {
        std::vector<int16_t> in(kRate / 100);
        std::vector<int16_t> out(kRate / 100);
        uint64_t n = 0;
        auto next = std::chrono::steady_clock::now();
        while (!stop_) {
            for (auto& x : in) {
                x = static_cast<int16_t>(8000 * std::sin(2 * std::numbers::pi * hz_ * static_cast<double>(n++) / kRate));
            }
            media_->pushCapture(in);
            media_->pullPlayout(out);
            {
                const std::lock_guard lock(mutex_);
                played_.insert(played_.end(), out.begin(), out.end());
            }
            next += 10ms;  // the pace of a sound card's period
            std::this_thread::sleep_until(next);
        }
    }

    std::shared_ptr<MediaSession> media_;
    double hz_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<int16_t> played_;
    std::thread thread_;
};

// Seconds of audio in the peer's newest recording so far.
double recordedSeconds(const BaresipPeer& peer) {
    const auto files = peer.recordings();
    if (files.empty()) return 0.0;
    std::error_code ec;
    const auto size = std::filesystem::file_size(files.back(), ec);
    return ec || size < 44 ? 0.0 : static_cast<double>(size - 44) / (2.0 * kRate);
}

// The share of the quarter-second blocks in the first `seconds` of the
// recording whose strongest component is `hz` and that hold little else.
double blocksHolding(const test::WavAudio& audio, double hz, double seconds) {
    const std::vector<int16_t> samples = audio.channel(0);
    const size_t block = audio.sampleRate / 4;
    const size_t end = std::min(samples.size(), static_cast<size_t>(seconds * audio.sampleRate));
    size_t blocks = 0;
    size_t holding = 0;
    for (size_t at = 0; at + block <= end; at += block, ++blocks) {
        const std::span<const int16_t> b(samples.data() + at, block);
        if (std::abs(test::dominantFrequency(b, audio.sampleRate) - hz) < 5.0 &&
            test::toneShare(b, hz, audio.sampleRate) > 0.9) {
            ++holding;
        }
    }
    return blocks == 0 ? 0.0 : static_cast<double>(holding) / static_cast<double>(blocks);
}

// Kamailio as registrar and proxy, baresip registered there as bob playing
// 1000 Hz, and our user agent registered as alice with Kamailio as its
// outbound proxy; all of them over the test's transport.
class CallInteropTest : public test::InteropTest, public ::testing::WithParamInterface<TransportKind> {
protected:
    void SetUp() override {
        InteropTest::SetUp();
        if (IsSkipped()) return;
        kamailio_ = startKamailio();
        ASSERT_TRUE(kamailio_);
    }

    void TearDown() override {
        card_.reset();
        if (HasFailure() && bob_) {
            std::cerr << "---- " << bob_->name() << " ----\n" << bob_->log() << "-- events --\n";
            for (const test::BaresipEvent& e : bob_->events()) std::cerr << e.json << '\n';
            std::cerr << "----\n";
        }
        InteropTest::TearDown();
    }

    // Bob answers by himself unless `autoAnswer` is off.
    void startBob(bool autoAnswer = true) {
        test::BaresipOptions options;
        options.user = "bob";
        options.password = "bobsecret";
        options.domain = kamailio_->hostPort();
        options.registrar = kamailio_->hostPort();
        options.transport = GetParam() == TransportKind::Tcp ? test::BaresipTransport::Tcp : test::BaresipTransport::Udp;
        options.autoAnswer = autoAnswer;
        options.audioSource = files_.file("bob.wav");
        const std::vector<test::Tone> tone = {{kBaresipTone, 30.0}};
        ASSERT_TRUE(test::writeTones(options.audioSource, tone));
        bob_ = std::make_unique<BaresipPeer>();
        std::string error;
        ASSERT_TRUE(bob_->start(options, &error)) << error;
        ASSERT_EQ(bob_->waitForRegistration(), true);
    }

    void startAlice() {
        UserAgentConfig config = loopbackConfig();
        // Away from the default range, which a benchmark on the same machine may hold.
        config.rtpPortMin = 52000;
        config.rtpPortMax = 53999;
        ua_ = startLoopbackUserAgent(config, events_);
        ASSERT_TRUE(ua_);
        line_ = registerAlice(*ua_, *kamailio_, GetParam());
        ASSERT_GT(line_, 0);
    }

    void startBoth(bool autoAnswer = true) {
        ASSERT_NO_FATAL_FAILURE(startBob(autoAnswer));
        ASSERT_NO_FATAL_FAILURE(startAlice());
    }

    bool reaches(int call, const std::string& state, std::chrono::milliseconds timeout = 5s) {
        return waitFor([&] { return events_->last(call).state == state; }, timeout);
    }

    // Calls bob and waits until both ends have the call up.
    int callBob() {
        const int call = ua_->makeCall(line_, "bob");
        EXPECT_GT(call, 0);
        EXPECT_TRUE(reaches(call, "Connected")) << testing::PrintToString(events_->states(call));
        EXPECT_TRUE(bob_->waitForEvent("CALL_ESTABLISHED"));
        return call;
    }

    // Our tone into the call from now on, and what arrives played.
    void startSoundCard(int call) {
        auto media = ua_->callMedia(call);
        ASSERT_TRUE(media);
        card_ = std::make_unique<SoundCard>(media, kOurTone);
    }

    // Bob's recording holds our tone and nothing of his own.
    void expectBobHeardUs(double seconds) {
        const auto files = bob_->recordings();
        ASSERT_EQ(files.size(), 1u);
        std::string error;
        const auto audio = test::readWav(files.front(), &error);
        ASSERT_TRUE(audio) << error;
        ASSERT_GE(audio->seconds(), seconds);
        EXPECT_GE(blocksHolding(*audio, kOurTone, seconds), 0.9);
        EXPECT_EQ(blocksHolding(*audio, kBaresipTone, seconds), 0.0);
    }

    bool weHearBob() { return card_->hears(kBaresipTone); }

    // What our side heard and received, for a failure message.
    std::string hearingReport(int call) {
        std::string text = card_->describe();
        if (const auto media = ua_->callMedia(call)) {
            const MediaStatistics s = media->statistics();
            text += "; RTP received " + std::to_string(s.packetsReceived) + ", discarded " +
                    std::to_string(s.packetsDiscarded) + ", lost " + std::to_string(s.packetsLost) + "; playout pushed " +
                    std::to_string(s.playout.packetsPushed) + ", late " + std::to_string(s.playout.late) +
                    ", concealed " + std::to_string(s.playout.samplesConcealed) + " of " +
                    std::to_string(s.playout.samplesPlayed) + " samples, delay " +
                    std::to_string(s.playout.currentDelayMs) + " ms aiming at " +
                    std::to_string(s.playout.targetDelayMs) + " ms";
        }
        return text;
    }

    test::KamailioServer* kamailio_ = nullptr;
    std::unique_ptr<BaresipPeer> bob_;
    std::shared_ptr<CallEvents> events_ = std::make_shared<CallEvents>();
    std::unique_ptr<UserAgent> ua_;
    int line_ = 0;
    std::unique_ptr<SoundCard> card_;

private:
    test::TempDir files_{"velmora-call-audio"};
};

TEST_P(CallInteropTest, BlindTransferSendsBaresipOnToAThirdPhone) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    // Carol: a phone of ours that is reached directly; Kamailio relays
    // baresip's INVITE to her address.
    UserAgentConfig config = loopbackConfig();
    config.rtpPortMin = 54000;
    config.rtpPortMax = 54999;
    auto carolEvents = std::make_shared<CallEvents>();
    const auto carolAgent = startLoopbackUserAgent(config, carolEvents);
    ASSERT_TRUE(carolAgent);
    UserAgent& carol = *carolAgent;
    LineConfig line;
    line.user = "carol";
    (void)carol.addLine(line);

    const int call = callBob();
    std::string target = "sip:carol@" + carol.localAddress(GetParam()).toString();
    if (GetParam() == TransportKind::Tcp) target += ";transport=tcp";
    ASSERT_TRUE(ua_->transferCall(call, target));
    ASSERT_TRUE(waitFor([&] { return carolEvents->incoming().has_value(); }, 10s))
        << testing::PrintToString(events_->transfer());
    const CallInfo offered = *carolEvents->incoming();
    EXPECT_NE(offered.remoteUri.find("bob"), std::string::npos) << offered.remoteUri;
    ASSERT_TRUE(carol.answerCall(offered.id));
    // Bob tells us how the new call went: 200 at last.
    EXPECT_TRUE(waitFor([&] {
        const auto t = events_->transfer();
        return !t.empty() && t.back() == 200;
    }, 10s)) << testing::PrintToString(events_->transfer());
    EXPECT_TRUE(waitFor([&] { return carolEvents->last(offered.id).state == "Connected"; }, 5s));
    (void)carol.hangupCall(offered.id);
    (void)ua_->hangupCall(call);
}

INSTANTIATE_TEST_SUITE_P(Transports, CallInteropTest, ::testing::Values(TransportKind::Udp, TransportKind::Tcp),
                         [](const auto& p) { return std::string(transportName(p.param)); });

TEST_P(CallInteropTest, OurCallIsAuthenticatedAndCarriesAudioAndDigitsBothWays) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int call = callBob();
    ASSERT_FALSE(HasFailure());
    // Kamailio challenged the INVITE; the retry with credentials got through.
    EXPECT_EQ(kamailio_->requestsSeen("INVITE", "alice"), 2);
    // Kamailio's 100, then baresip's 180 unless its 200 overtook it in
    // Kamailio's workers (a 1xx after the final answer is not forwarded).
    const std::vector<std::string> states = events_->states(call);
    EXPECT_TRUE(states == (std::vector<std::string>{"Calling", "Proceeding", "Ringing", "Connected"}) ||
                states == (std::vector<std::string>{"Calling", "Proceeding", "Connected"}))
        << testing::PrintToString(states);
    ASSERT_NO_FATAL_FAILURE(startSoundCard(call));

    EXPECT_TRUE(waitFor([&] { return weHearBob(); }, 5s)) << hearingReport(call);
    ASSERT_TRUE(waitFor([&] { return recordedSeconds(*bob_) >= 1.5; }, 5s)) << recordedSeconds(*bob_) << " s recorded";

    ASSERT_TRUE(ua_->sendDtmf(call, "12#", DtmfMethod::Rfc4733));
    EXPECT_TRUE(waitFor([&] { return bob_->receivedDigits() == "12#"; }, 5s)) << bob_->receivedDigits();
    ASSERT_TRUE(ua_->sendDtmf(call, "9*", DtmfMethod::Info));
    EXPECT_TRUE(waitFor([&] { return bob_->receivedDigits() == "12#9*"; }, 5s)) << bob_->receivedDigits();
    std::string error;
    ASSERT_TRUE(bob_->sendDigits("4D", &error)) << error;
    EXPECT_TRUE(waitFor([&] { return events_->digits(DtmfMethod::Rfc4733) == "4D"; }, 5s))
        << events_->digits(DtmfMethod::Rfc4733);

    // Bob hangs up: his BYE comes back through Kamailio.
    ASSERT_TRUE(bob_->hangup(&error)) << error;
    EXPECT_EQ(bob_->waitForClosed(), "Connection reset by user");
    ASSERT_TRUE(reaches(call, "Terminated"));
    EXPECT_EQ(events_->last(call).reason, "Remote hangup");
    EXPECT_TRUE(waitFor([&] { return ua_->calls().empty(); }, 5s));
    expectBobHeardUs(1.5);
}

TEST_P(CallInteropTest, BaresipsCallReachesUsAndWeAnswerAndHangUp) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    std::string error;
    ASSERT_TRUE(bob_->dial("sip:alice@" + kamailio_->hostPort(), &error)) << error;
    ASSERT_TRUE(waitFor([&] { return events_->incoming().has_value(); }, 5s));
    const CallInfo offered = *events_->incoming();
    EXPECT_EQ(offered.remoteUri, bob_->aor());
    EXPECT_TRUE(offered.incoming);
    // Kamailio challenged bob's INVITE before it found our binding.
    EXPECT_EQ(kamailio_->requestsSeen("INVITE", "bob"), 2);
    ASSERT_TRUE(bob_->waitForEvent("CALL_RINGING"));

    ASSERT_TRUE(ua_->answerCall(offered.id));
    ASSERT_TRUE(bob_->waitForEvent("CALL_ESTABLISHED"));
    ASSERT_NO_FATAL_FAILURE(startSoundCard(offered.id));
    EXPECT_TRUE(waitFor([&] { return weHearBob(); }, 5s)) << hearingReport(offered.id);
    ASSERT_TRUE(waitFor([&] { return recordedSeconds(*bob_) >= 1.5; }, 5s)) << recordedSeconds(*bob_) << " s recorded";

    ASSERT_TRUE(ua_->hangupCall(offered.id));
    EXPECT_EQ(bob_->waitForClosed(), "Connection reset by peer");
    ASSERT_TRUE(reaches(offered.id, "Terminated"));
    EXPECT_EQ(events_->states(offered.id),
              (std::vector<std::string>{"Incoming", "Connected", "Disconnecting", "Terminated"}));
    expectBobHeardUs(1.5);
}

TEST_P(CallInteropTest, HoldFromOurSideSilencesBaresipUntilWeResume) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int call = callBob();
    ASSERT_FALSE(HasFailure());
    ASSERT_NO_FATAL_FAILURE(startSoundCard(call));
    ASSERT_TRUE(waitFor([&] { return weHearBob(); }, 5s)) << hearingReport(call);
    // baresip stops recording at the first re-INVITE: what it heard is
    // checked from before the hold.
    ASSERT_TRUE(waitFor([&] { return recordedSeconds(*bob_) >= 1.0; }, 5s)) << recordedSeconds(*bob_) << " s recorded";

    auto direction = [&](const char* expected) {
        return waitFor([&] { return bob_->audioDirection() == expected; }, 5s);
    };
    ASSERT_TRUE(ua_->holdCall(call));
    EXPECT_TRUE(direction("recvonly")) << bob_->audioDirection().value_or("no call");
    EXPECT_TRUE(ua_->callInfo(call)->onHold);
    EXPECT_TRUE(waitFor([&] { return card_->quiet(); }, 5s)) << hearingReport(call);

    const auto media = ua_->callMedia(call);
    ASSERT_TRUE(media);
    const uint64_t receivedWhileHeld = media->statistics().packetsReceived;
    ASSERT_TRUE(waitFor([&] { return ua_->unholdCall(call); }, 5s)) << "the hold's re-INVITE never completed";
    EXPECT_TRUE(direction("sendrecv")) << bob_->audioDirection().value_or("no call");
    EXPECT_FALSE(ua_->callInfo(call)->onHold);
    // The playout buffer plays what it held when the hold began first: the
    // tone counts once a fifth of a second of new packets has come.
    EXPECT_TRUE(waitFor([&] { return media->statistics().packetsReceived >= receivedWhileHeld + 10 && weHearBob(); }, 5s))
        << hearingReport(call);
    EXPECT_EQ(ua_->callInfo(call)->state, "Connected");

    ASSERT_TRUE(ua_->hangupCall(call));
    EXPECT_EQ(bob_->waitForClosed(), "Connection reset by peer");
    ASSERT_TRUE(reaches(call, "Terminated"));
    expectBobHeardUs(1.0);
}

TEST_P(CallInteropTest, AnUnansweredCallIsCancelledByUsOrRefusedByBaresip) {
    ASSERT_NO_FATAL_FAILURE(startBoth(false));

    // We give up while it rings: our CANCEL goes through Kamailio.
    const int cancelled = ua_->makeCall(line_, "bob");
    ASSERT_GT(cancelled, 0);
    ASSERT_TRUE(bob_->waitForEvent("CALL_INCOMING"));
    ASSERT_TRUE(reaches(cancelled, "Ringing")) << testing::PrintToString(events_->states(cancelled));
    ASSERT_TRUE(ua_->hangupCall(cancelled));
    EXPECT_EQ(bob_->waitForClosed(), "Connection reset by peer");
    ASSERT_TRUE(reaches(cancelled, "Terminated"));
    EXPECT_EQ(events_->last(cancelled).statusCode, 487);
    EXPECT_EQ(events_->last(cancelled).reason, "Cancelled");

    // Bob refuses while it rings.
    const int refused = ua_->makeCall(line_, "bob");
    ASSERT_GT(refused, 0);
    ASSERT_TRUE(bob_->waitForEvent("CALL_INCOMING"));
    ASSERT_TRUE(reaches(refused, "Ringing")) << testing::PrintToString(events_->states(refused));
    std::string error;
    ASSERT_TRUE(bob_->hangup(&error)) << error;
    ASSERT_TRUE(reaches(refused, "Terminated"));
    EXPECT_EQ(events_->last(refused).statusCode, 486);
    EXPECT_EQ(bob_->waitForClosed(), "Connection reset by user");

    for (const test::BaresipEvent& e : bob_->events()) EXPECT_NE(e.type, "CALL_ESTABLISHED");
    EXPECT_TRUE(waitFor([&] { return ua_->calls().empty(); }, 5s));
}

// How many of something /proc lists for this process.
size_t entries(const char* folder) {
    std::error_code ec;
    size_t n = 0;
    for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec)) {
        ++n;
    }
    return n;
}

TEST_P(CallInteropTest, TwentyCallsInARowLeaveNoSocketOrThreadBehind) {
    if (!std::filesystem::exists("/proc/self/fd")) GTEST_SKIP() << "counts open files through /proc";
    ASSERT_NO_FATAL_FAILURE(startBoth());
    auto oneCall = [&] {
        const int call = callBob();
        ASSERT_FALSE(HasFailure());
        ASSERT_TRUE(ua_->hangupCall(call));
        ASSERT_EQ(bob_->waitForClosed(), "Connection reset by peer");
        ASSERT_TRUE(reaches(call, "Terminated"));
        ASSERT_TRUE(waitFor([&] { return ua_->calls().empty(); }, 5s));
    };
    // The first call starts the RTP workers, which stay.
    ASSERT_NO_FATAL_FAILURE(oneCall());
    const size_t files = entries("/proc/self/fd");
    const size_t threads = entries("/proc/self/task");

    for (int i = 0; i < 20; ++i) {
        SCOPED_TRACE("call " + std::to_string(i + 2));
        ASSERT_NO_FATAL_FAILURE(oneCall());
    }
    EXPECT_TRUE(waitFor([&] { return entries("/proc/self/fd") <= files && entries("/proc/self/task") <= threads; }, 5s))
        << "open files " << files << " -> " << entries("/proc/self/fd") << ", threads " << threads << " -> "
        << entries("/proc/self/task");
}

}  // namespace
}  // namespace kelsip
