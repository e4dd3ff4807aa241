// Calls between our user agent and baresip through Kamailio with digest
// authentication, over UDP and TCP, with the audio checked by content.
#include <gtest/gtest.h>

#include <filesystem>

#include "interop/support/interop_test.h"
#include "support/baresip_peer.h"
#include "support/sound_card.h"
#include "support/wav.h"

namespace kelsip {

namespace {

using namespace std::chrono_literals;
using test::waitFor;

constexpr double kOurTone = 440.0;
constexpr double kBaresipTone = 1000.0;

// Kamailio as registrar and proxy, baresip registered there as bob playing
// 1000 Hz, and our user agent as alice with Kamailio as outbound proxy; all
// over the test's transport.
class CallInteropTest : public test::InteropTest, public ::testing::WithParamInterface<TransportKind> {
protected:
    void startBoth(bool autoAnswer = true) {
        kamailio_ = startKamailio();
        ASSERT_TRUE(kamailio_);
        const test::BaresipOptions options{"bob", "bobsecret", kamailio_->hostPort(), GetParam(), autoAnswer,
                                           files_.file("bob.wav"), {}};
        ASSERT_TRUE(test::writeTone(options.audioSource, kBaresipTone, 30.0));
        bob_ = start<test::BaresipPeer>(options);
        ASSERT_TRUE(bob_);
        ASSERT_TRUE(bob_->waitForEvent("REGISTER_OK"));
        UserAgentConfig config = loopbackConfig();
        config.rtpPortMin = 52000;  // away from the default range a benchmark may hold
        config.rtpPortMax = 53999;
        ua_ = startUserAgent(config);
        ASSERT_TRUE(ua_);
        line_ = registerAlice(*ua_, *kamailio_, GetParam());
        ASSERT_GT(line_, 0);
    }
    void TearDown() override {
        card_.reset();
        InteropTest::TearDown();
    }

    bool reaches(int call, const std::string& state) {
        return waitFor([&] { return events->now().lastCall[call].state == state; }, 5s);
    }
    bool bob(const char* command, std::string_view params = {}) {
        std::string error;
        const bool done = bob_->command(command, params, &error).has_value();
        EXPECT_TRUE(done) << command << ": " << error;
        return done;
    }
    // Calls bob and waits until both ends have the call up.
    int callBob() {
        const int call = ua_->makeCall(line_, "bob");
        EXPECT_TRUE(reaches(call, "Connected")) << testing::PrintToString(events->now().callStates[call]);
        EXPECT_TRUE(bob_->waitForEvent("CALL_ESTABLISHED"));
        return call;
    }
    // Our tone into the call from now on; what arrives is played.
    void startSoundCard(int call) {
        ASSERT_TRUE(ua_->callMedia(call));
        card_ = std::make_unique<test::SoundCard>(ua_->callMedia(call), test::sine(kOurTone));
    }
    // The last tenth of a second played. The playout buffer steers its
    // delay by small time-scale changes, which move a pure tone's pitch by a
    // few percent while they last: the strongest component is checked
    // within 5 %.
    std::vector<int16_t> lastPlayed() {
        const auto played = card_->played();
        return played.size() < 800 ? std::vector<int16_t>{} : std::vector<int16_t>(played.end() - 800, played.end());
    }
    bool weHearBob() {
        const auto block = lastPlayed();
        return !block.empty() && test::rms(block) > 1000.0 &&
               std::abs(test::dominantFrequency(block, 8000, 100.0, 3000.0) - kBaresipTone) < 50.0;
    }
    bool quiet() { return !lastPlayed().empty() && test::rms(lastPlayed()) < 100.0; }
    std::string hearing(int call) {
        const auto block = lastPlayed();
        const auto media = ua_->callMedia(call);
        return "last 0.1 s played: rms " + std::to_string(test::rms(block)) + " at " +
               std::to_string(test::dominantFrequency(block, 8000, 100.0, 3000.0)) + " Hz; RTP received " +
               std::to_string(media ? media->statistics().packetsReceived : 0);
    }
    double recordedSeconds() {
        const auto files = bob_->recordings();
        const auto audio = files.empty() ? std::nullopt : test::readWav(files.back());
        return audio ? audio->seconds() : 0.0;
    }
    // Bob's one recording holds our tone in nine of ten quarter seconds of
    // its first `seconds`, and never his own.
    void expectBobHeardUs(double seconds) {
        ASSERT_EQ(bob_->recordings().size(), 1u);
        const auto audio = test::readWav(bob_->recordings().front());
        ASSERT_TRUE(audio) << bob_->recordings().front() << " is no mono 16-bit PCM WAV file";
        ASSERT_GE(audio->seconds(), seconds);
        size_t blocks = 0, ours = 0, his = 0;
        for (size_t at = 0; at + 2000 <= static_cast<size_t>(seconds * 8000); at += 2000, ++blocks) {
            const std::span<const int16_t> block(audio->samples.data() + at, 2000);
            ours += test::toneShare(block, kOurTone, 8000) > 0.9;
            his += test::toneShare(block, kBaresipTone, 8000) > 0.1;
        }
        EXPECT_GE(ours * 10, blocks * 9);
        EXPECT_EQ(his, 0u);
    }

    test::KamailioServer* kamailio_ = nullptr;
    test::BaresipPeer* bob_ = nullptr;
    std::unique_ptr<UserAgent> ua_;
    int line_ = 0;
    std::unique_ptr<test::SoundCard> card_;

private:
    test::TempDir files_{"velmora-call-audio"};
};

INSTANTIATE_TEST_SUITE_P(Transports, CallInteropTest, test::kBothTransports, ::testing::PrintToStringParamName());

TEST_P(CallInteropTest, OurCallCarriesAudioAndDigitsBothWaysAndHolds) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    const int call = callBob();
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(kamailio_->requestsSeen("INVITE", "alice"), 2);  // challenged, then with credentials
    // Kamailio's 100, then baresip's 180 unless its 200 overtook it.
    const auto states = events->now().callStates[call];
    EXPECT_TRUE(states == (std::vector<std::string>{"Calling", "Proceeding", "Ringing", "Connected"}) ||
                states == (std::vector<std::string>{"Calling", "Proceeding", "Connected"}))
        << testing::PrintToString(states);
    ASSERT_NO_FATAL_FAILURE(startSoundCard(call));
    EXPECT_TRUE(waitFor([&] { return weHearBob(); }, 5s)) << hearing(call);
    // baresip's recording ends at the first re-INVITE: what it heard is checked from before the hold.
    ASSERT_TRUE(waitFor([&] { return recordedSeconds() >= 1.5; }, 5s)) << recordedSeconds() << " s recorded";

    ASSERT_TRUE(ua_->sendDtmf(call, "12#", DtmfMethod::Rfc4733));
    EXPECT_TRUE(waitFor([&] { return bob_->receivedDigits() == "12#"; }, 5s)) << bob_->receivedDigits();
    ASSERT_TRUE(ua_->sendDtmf(call, "9*", DtmfMethod::Info));
    EXPECT_TRUE(waitFor([&] { return bob_->receivedDigits() == "12#9*"; }, 5s)) << bob_->receivedDigits();
    ASSERT_TRUE(bob("sndcode", "4D"));
    EXPECT_TRUE(waitFor([&] { return events->now().digits[DtmfMethod::Rfc4733] == "4D"; }, 5s));

    ASSERT_TRUE(ua_->holdCall(call));
    EXPECT_TRUE(waitFor([&] { return bob_->audioDirection() == "recvonly"; }, 5s));
    EXPECT_TRUE(ua_->callInfo(call)->onHold);
    EXPECT_TRUE(waitFor([&] { return quiet(); }, 5s)) << hearing(call);
    const uint64_t receivedWhileHeld = ua_->callMedia(call)->statistics().packetsReceived;
    ASSERT_TRUE(waitFor([&] { return ua_->unholdCall(call); }, 5s)) << "the hold's re-INVITE never completed";
    EXPECT_TRUE(waitFor([&] { return bob_->audioDirection() == "sendrecv"; }, 5s));
    EXPECT_FALSE(ua_->callInfo(call)->onHold);
    // What the playout buffer held when the hold began plays first.
    EXPECT_TRUE(waitFor([&] {
        return ua_->callMedia(call)->statistics().packetsReceived >= receivedWhileHeld + 10 && weHearBob();
    }, 5s)) << hearing(call);

    // Bob hangs up: his BYE comes back through Kamailio.
    ASSERT_TRUE(bob("hangup"));
    EXPECT_EQ(bob_->waitForClosed(), "Connection reset by user");
    ASSERT_TRUE(reaches(call, "Terminated"));
    EXPECT_EQ(events->now().lastCall[call].reason, "Remote hangup");
    EXPECT_TRUE(waitFor([&] { return ua_->calls().empty(); }, 5s));
    expectBobHeardUs(1.5);
}

TEST_P(CallInteropTest, BaresipsCallReachesUsAndWeAnswerAndHangUp) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    ASSERT_TRUE(bob("dial", "sip:alice@" + kamailio_->hostPort()));
    ASSERT_TRUE(waitFor([&] { return !events->now().incoming.empty(); }, 5s));
    const CallInfo offered = events->now().incoming[0];
    EXPECT_EQ(offered.remoteUri, bob_->aor());
    EXPECT_EQ(kamailio_->requestsSeen("INVITE", "bob"), 2);
    ASSERT_TRUE(bob_->waitForEvent("CALL_RINGING"));

    ASSERT_TRUE(ua_->answerCall(offered.id));
    ASSERT_TRUE(bob_->waitForEvent("CALL_ESTABLISHED"));
    ASSERT_NO_FATAL_FAILURE(startSoundCard(offered.id));
    EXPECT_TRUE(waitFor([&] { return weHearBob(); }, 5s)) << hearing(offered.id);
    ASSERT_TRUE(waitFor([&] { return recordedSeconds() >= 1.5; }, 5s)) << recordedSeconds() << " s recorded";
    ASSERT_TRUE(ua_->hangupCall(offered.id));
    EXPECT_EQ(bob_->waitForClosed(), "Connection reset by peer");
    ASSERT_TRUE(reaches(offered.id, "Terminated"));
    EXPECT_EQ(events->now().callStates[offered.id],
              (std::vector<std::string>{"Incoming", "Connected", "Disconnecting", "Terminated"}));
    expectBobHeardUs(1.5);
}

TEST_P(CallInteropTest, AnUnansweredCallIsCancelledByUsOrRefusedByBaresip) {
    ASSERT_NO_FATAL_FAILURE(startBoth(false));
    struct Case {
        bool weCancel;
        int status;
        const char* bobsReason;
    };
    for (const Case c : {Case{true, 487, "Connection reset by peer"}, Case{false, 486, "Connection reset by user"}}) {
        SCOPED_TRACE(c.weCancel ? "cancelled" : "refused");
        const int call = ua_->makeCall(line_, "bob");
        ASSERT_TRUE(bob_->waitForEvent("CALL_INCOMING"));
        ASSERT_TRUE(reaches(call, "Ringing"));
        ASSERT_TRUE(c.weCancel ? ua_->hangupCall(call) : bob("hangup"));
        ASSERT_TRUE(reaches(call, "Terminated"));
        EXPECT_EQ(events->now().lastCall[call].statusCode, c.status);
        EXPECT_EQ(bob_->waitForClosed(), c.bobsReason);
    }
    EXPECT_FALSE(bob_->waitForEvent("CALL_ESTABLISHED", 100ms));
    EXPECT_TRUE(waitFor([&] { return ua_->calls().empty(); }, 5s));
}

TEST_P(CallInteropTest, BlindTransferSendsBaresipOnToAThirdPhone) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    // Carol: a phone of ours reached directly; Kamailio relays baresip's INVITE.
    UserAgentConfig config = loopbackConfig();
    config.rtpPortMin = 54000;
    config.rtpPortMax = 54999;
    auto carolEvents = std::make_shared<test::Recorder>();
    UserAgent carol(config);
    ASSERT_TRUE(carol.start());
    carol.setListener(carolEvents);
    LineConfig line;
    line.user = "carol";
    ASSERT_GT(carol.addLine(line), 0);

    const int call = callBob();
    const std::string target = "sip:carol@" + carol.localAddress(GetParam()).toString() +
                               (GetParam() == TransportKind::Tcp ? ";transport=tcp" : "");
    ASSERT_TRUE(ua_->transferCall(call, target));
    ASSERT_TRUE(waitFor([&] { return !carolEvents->now().incoming.empty(); }, 10s));
    const CallInfo offered = carolEvents->now().incoming[0];
    EXPECT_NE(offered.remoteUri.find("bob"), std::string::npos) << offered.remoteUri;
    ASSERT_TRUE(carol.answerCall(offered.id));
    // Bob tells us how the new call went: 200 at last.
    EXPECT_TRUE(waitFor([&] { return !events->now().transfer.empty() && events->now().transfer.back() == 200; }, 10s))
        << testing::PrintToString(events->now().transfer);
    EXPECT_TRUE(waitFor([&] { return carolEvents->now().callState(offered.id) == "Connected"; }, 5s));
    (void)carol.hangupCall(offered.id);
    (void)ua_->hangupCall(call);
}

auto entries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

TEST_P(CallInteropTest, TenCallsInARowLeaveNoSocketOrThreadBehind) {
    ASSERT_NO_FATAL_FAILURE(startBoth());
    std::ptrdiff_t files = 0, threads = 0;
    for (int i = 0; i < 11; ++i) {
        SCOPED_TRACE("call " + std::to_string(i + 1));
        const int call = callBob();
        ASSERT_TRUE(ua_->hangupCall(call));
        ASSERT_EQ(bob_->waitForClosed(), "Connection reset by peer");
        ASSERT_TRUE(reaches(call, "Terminated"));
        ASSERT_TRUE(waitFor([&] { return ua_->calls().empty(); }, 5s));
        if (i == 0) {  // the first call starts the RTP workers, which stay
            files = entries("/proc/self/fd");
            threads = entries("/proc/self/task");
        }
    }
    EXPECT_TRUE(waitFor([&] { return entries("/proc/self/fd") <= files && entries("/proc/self/task") <= threads; }, 5s))
        << "open files " << files << " -> " << entries("/proc/self/fd") << ", threads " << threads << " -> "
        << entries("/proc/self/task");
}

}  // namespace
}  // namespace kelsip
