// Two user agents calling each other peer to peer on loopback: the call's
// states on both sides, audio both ways, hold and resume, DTMF by RFC 4733
// and by INFO, hang-up from the far side.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <span>
#include <thread>

#include "media/session/media_session.h"
#include "sip/ua/user_agent.h"
#include "support/sound_card.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class Recorder final : public UserAgentListener {
public:
    void onIncomingCall(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        incoming_.push_back(call.id);
    }
    void onCallState(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        states_[call.id].push_back(call.state);
        last_[call.id] = call;
    }
    void onCallInfo(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        last_[call.id].onHold = call.onHold;
        last_[call.id].remoteHold = call.remoteHold;
    }
    void onDtmf(int, char digit, DtmfMethod method) override {
        const std::lock_guard lock(mutex_);
        (method == DtmfMethod::Info ? info_ : events_) += digit;
    }
    int incoming() {
        const std::lock_guard lock(mutex_);
        return incoming_.empty() ? 0 : incoming_.back();
    }
    std::vector<std::string> states(int call) {
        const std::lock_guard lock(mutex_);
        return states_[call];
    }
    std::string state(int call) {
        const std::lock_guard lock(mutex_);
        return states_[call].empty() ? "" : states_[call].back();
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
    std::vector<int> incoming_;
    std::map<int, std::vector<std::string>> states_;
    std::map<int, CallInfo> last_;
    std::string info_;
    std::string events_;
};

// A sound card playing a tone into the call; `heard` tells the share of
// the last 0.25 s played that is at a frequency.
class Device {
public:
    Device(std::shared_ptr<MediaSession> media, double hz) : card_(std::move(media), test::sine(hz)) {}
    double heard(double hz) const {
        const auto played = card_.played();
        if (played.size() < 2000) return 0;
        return test::toneShare(std::span<const int16_t>(played).last(2000), hz, 8000);
    }

private:
    test::SoundCard card_;
};

struct Phone {
    explicit Phone(const char* user) {
        UserAgentConfig config;
        config.bindAddress = "127.0.0.1";
        config.udpPort = 0;
        config.tcpPort = -1;
        config.rtpPortMin = 42000;
        config.rtpPortMax = 42999;
        ua = std::make_unique<UserAgent>(config);
        EXPECT_TRUE(ua->start());
        ua->setListener(events);
        LineConfig line;
        line.user = user;
        lineId = ua->addLine(line);
    }
    [[nodiscard]] std::string uri(const char* user) {
        return std::string("sip:") + user + "@" + ua->localAddress(TransportKind::Udp).toString();
    }
    std::shared_ptr<Recorder> events = std::make_shared<Recorder>();
    std::unique_ptr<UserAgent> ua;
    int lineId = 0;
};

TEST(CallLoopbackTest, CallWithAudioHoldDtmfAndHangup) {
    Phone alice("alice");
    Phone bob("bob");
    const int a = alice.ua->makeCall(alice.lineId, bob.uri("bob"));
    ASSERT_GT(a, 0);
    ASSERT_TRUE(test::waitFor([&] { return bob.events->incoming() > 0; }, 5s));
    const int b = bob.events->incoming();
    ASSERT_TRUE(test::waitFor([&] { return alice.events->state(a) == "Ringing"; }, 5s));
    EXPECT_EQ(bob.ua->callInfo(b)->state, "Incoming");
    ASSERT_TRUE(bob.ua->answerCall(b));
    ASSERT_TRUE(test::waitFor([&] { return alice.events->state(a) == "Connected"; }, 5s));
    EXPECT_EQ(alice.events->states(a), (std::vector<std::string>{"Calling", "Ringing", "Connected"}));
    EXPECT_EQ(bob.events->states(b), (std::vector<std::string>{"Incoming", "Connected"}));
    auto mediaA = alice.ua->callMedia(a);
    auto mediaB = bob.ua->callMedia(b);
    ASSERT_TRUE(mediaA && mediaB);
    {
        Device devA(mediaA, 440);
        Device devB(mediaB, 1000);
        EXPECT_TRUE(test::waitFor([&] { return devB.heard(440) > 0.9 && devA.heard(1000) > 0.9; }, 5s));
        // Hold: Bob hears nothing of Alice's room any more, and knows why.
        ASSERT_TRUE(alice.ua->holdCall(a));
        EXPECT_TRUE(test::waitFor([&] { return bob.events->last(b).remoteHold; }, 5s));
        EXPECT_TRUE(test::waitFor([&] { return devB.heard(440) < 0.1; }, 5s));
        EXPECT_TRUE(alice.ua->callInfo(a)->onHold);
        ASSERT_TRUE(alice.ua->unholdCall(a));
        EXPECT_TRUE(test::waitFor([&] { return !bob.events->last(b).remoteHold && devB.heard(440) > 0.9; }, 5s));
        ASSERT_TRUE(alice.ua->sendDtmf(a, "12#", DtmfMethod::Rfc4733));
        EXPECT_TRUE(test::waitFor([&] { return bob.events->digits(DtmfMethod::Rfc4733) == "12#"; }, 5s))
            << bob.events->digits(DtmfMethod::Rfc4733);
        ASSERT_TRUE(bob.ua->sendDtmf(b, "9*", DtmfMethod::Info));
        EXPECT_TRUE(test::waitFor([&] { return alice.events->digits(DtmfMethod::Info) == "9*"; }, 5s))
            << alice.events->digits(DtmfMethod::Info);
        EXPECT_FALSE(alice.ua->sendDtmf(a, "x", DtmfMethod::Rfc4733));
    }
    ASSERT_TRUE(bob.ua->hangupCall(b));
    EXPECT_TRUE(test::waitFor([&] { return alice.events->state(a) == "Terminated"; }, 5s));
    EXPECT_EQ(alice.events->last(a).reason, "Remote hangup");
    EXPECT_TRUE(test::waitFor([&] { return bob.events->state(b) == "Terminated"; }, 5s));
    EXPECT_EQ(bob.events->states(b), (std::vector<std::string>{"Incoming", "Connected", "Disconnecting", "Terminated"}));
    EXPECT_TRUE(test::waitFor([&] { return alice.ua->calls().empty() && bob.ua->calls().empty(); }, 5s));
}

}  // namespace
}  // namespace kelsip
