// User agents calling each other peer to peer on loopback: an attended transfer with Replaces,
// a phone that shuts down with calls up, and encrypted calls under each SRTP policy.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>

#include <cmath>
#include <vector>

#include "media/ice/ice_media_transport.h"
#include "media/session/media_session.h"
#include "media/srtp/srtp_transport.h"
#include "sip/ua/user_agent.h"
#include "support/wait.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

struct Recorder final : UserAgentListener {
    void onIncomingCall(const CallInfo& call) override { incoming = call.id; }
    void onCallState(const CallInfo& call) override {
        const std::lock_guard lock(mutex);
        states[call.id] = call.state + " " + call.reason;
    }
    void onTransferProgress(int, int statusCode, const std::string&) override { transfer = statusCode; }
    void onCallMedia(int, CallMediaEvent event, const std::string&) override {
        if (event == CallMediaEvent::SecureActive) ++secure;
    }
    // Whether `call`'s state line comes to start with `state` ("State Reason").
    bool reaches(int call, const std::string& state) {
        return test::waitFor([&] {
            const std::lock_guard lock(mutex);
            return states[call].rfind(state, 0) == 0;
        }, 5s);
    }
    std::mutex mutex;
    std::map<int, std::string> states;
    std::atomic<int> incoming{0};
    std::atomic<int> transfer{0};
    std::atomic<int> secure{0};
};

struct Phone {
    explicit Phone(const std::string& user, SrtpPolicy srtp = SrtpPolicy::Off, bool ice = false) {
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
        line.srtp = srtp;
        line.ice = ice;
        lineId = ua->addLine(line);
        uri = "sip:" + user + "@" + ua->localAddress(TransportKind::Udp).toString();
    }
    // Answers the newest incoming call, once one newer than `after` rings.
    int answerNext(int after) {
        int id = 0;
        EXPECT_TRUE(test::waitFor([&] { return (id = events->incoming) > after; }, 5s));
        EXPECT_TRUE(ua->answerCall(id));
        return id;
    }
    std::shared_ptr<Recorder> events = std::make_shared<Recorder>();
    std::unique_ptr<UserAgent> ua;
    int lineId = 0;
    std::string uri;
};

// Bob talks to Alice, consults Carol, then joins them: Alice calls Carol
// with Replaces, and Carol's new call takes the place of the one with Bob.
TEST(CallLoopbackTest, AttendedTransferReplacesTheConsultationCall) {
    Phone alice("alice");
    Phone bob("bob");
    Phone carol("carol");
    const int a = alice.ua->makeCall(alice.lineId, bob.uri);
    const int b1 = bob.answerNext(0);
    ASSERT_TRUE(alice.events->reaches(a, "Connected"));
    const int b2 = bob.ua->makeCall(bob.lineId, carol.uri);
    const int c1 = carol.answerNext(0);
    ASSERT_TRUE(bob.events->reaches(b2, "Connected"));
    ASSERT_TRUE(bob.ua->transferCallAttended(b1, b2));
    const int c2 = carol.answerNext(c1);
    EXPECT_EQ(carol.ua->callInfo(c2)->remoteUri.rfind("sip:alice@", 0), 0U);
    EXPECT_TRUE(carol.events->reaches(c2, "Connected"));
    EXPECT_TRUE(carol.events->reaches(c1, "Terminated Replaced"));
    EXPECT_TRUE(bob.events->reaches(b2, "Terminated"));
    EXPECT_TRUE(test::waitFor([&] { return bob.events->transfer == 200; }, 5s));
}

// A phone that quits mid-call hangs up first: the connected call gets its
// BYE and the one still ringing its CANCEL, so no far phone keeps a dead call.
TEST(CallLoopbackTest, ShutdownEndsEveryCall) {
    Phone alice("alice");
    Phone bob("bob");
    Phone carol("carol");
    const int talking = alice.ua->makeCall(alice.lineId, bob.uri);
    const int b = bob.answerNext(0);
    ASSERT_TRUE(alice.events->reaches(talking, "Connected"));
    (void)alice.ua->makeCall(alice.lineId, carol.uri);
    ASSERT_TRUE(test::waitFor([&] { return carol.events->incoming > 0; }, 5s));
    const int c = carol.events->incoming;
    EXPECT_TRUE(alice.ua->shutdown(1s));
    EXPECT_TRUE(bob.events->reaches(b, "Terminated Remote hangup"));
    EXPECT_TRUE(carol.events->reaches(c, "Terminated"));
}

// Audio crosses from `from` to `to`: a tone pushed on one side comes out of
// the other's playout.
bool audioFlows(MediaSession& from, MediaSession& to) {
    std::vector<int16_t> tone(160);
    for (size_t i = 0; i < tone.size(); ++i) tone[i] = static_cast<int16_t>(8000 * std::sin(0.3 * static_cast<double>(i)));
    std::vector<int16_t> heard(160);
    const uint64_t before = to.statistics().packetsReceived;
    return test::waitFor([&] {
        from.pushCapture(tone);
        to.pullPlayout(heard);
        const bool loud = std::any_of(heard.begin(), heard.end(), [](int16_t s) { return std::abs(s) > 1000; });
        return loud && to.statistics().packetsReceived > before + 5;
    }, 5s);
}

SrtpTransport* srtpOf(MediaSession& media) { return dynamic_cast<SrtpTransport*>(&media.transport()); }

// The ICE layer under the media, beneath SRTP when there is one.
IceMediaTransport* iceOf(MediaSession& media) {
    MediaTransport* transport = &media.transport();
    if (auto* srtp = dynamic_cast<SrtpTransport*>(transport)) transport = &srtp->inner();
    return dynamic_cast<IceMediaTransport*>(transport);
}

// Each SRTP policy and ICE pair: whether the call connects, whether its
// media is encrypted on both sides and runs over an ICE-chosen path,
// through hold and resume.
TEST(CallLoopbackTest, SrtpPoliciesAndIceDecideHowMediaGoes) {
    const struct {
        SrtpPolicy caller;
        SrtpPolicy callee;
        bool connects;
        bool secure;
        bool callerIce = false;
        bool calleeIce = false;
    } cases[] = {
        {SrtpPolicy::Offered, SrtpPolicy::Offered, true, true},
        {SrtpPolicy::Offered, SrtpPolicy::Off, true, false},  // best effort falls back to clear media
        {SrtpPolicy::Required, SrtpPolicy::Off, true, true},  // an RTP/SAVP offer is taken whatever the policy
        {SrtpPolicy::Off, SrtpPolicy::Required, false, false},  // 488 for a clear offer
        {SrtpPolicy::Required, SrtpPolicy::Required, true, true},
        {SrtpPolicy::Offered, SrtpPolicy::Offered, true, true, true, true},  // SRTP over ICE
        {SrtpPolicy::Off, SrtpPolicy::Off, true, false, true, false},  // a far end without ICE: plain RTP
        {SrtpPolicy::Off, SrtpPolicy::Off, true, false, false, true},  // an offer without ICE: plain RTP
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(toString(c.caller)) + (c.callerIce ? "+ICE" : "") + " calls " +
                     std::string(toString(c.callee)) + (c.calleeIce ? "+ICE" : ""));
        Phone alice("alice", c.caller, c.callerIce);
        Phone bob("bob", c.callee, c.calleeIce);
        const int a = alice.ua->makeCall(alice.lineId, bob.uri);
        if (!c.connects) {
            EXPECT_TRUE(alice.events->reaches(a, "Terminated"));
            EXPECT_EQ(alice.ua->callInfo(a) ? alice.ua->callInfo(a)->statusCode : 488, 488);
            EXPECT_EQ(bob.events->incoming, 0);
            continue;
        }
        const int b = bob.answerNext(0);
        ASSERT_TRUE(alice.events->reaches(a, "Connected"));
        ASSERT_TRUE(test::waitFor([&] { return alice.ua->callMedia(a) && bob.ua->callMedia(b); }, 5s));
        auto aliceMedia = alice.ua->callMedia(a);
        auto bobMedia = bob.ua->callMedia(b);
        EXPECT_EQ(srtpOf(*aliceMedia) != nullptr, c.secure);
        EXPECT_EQ(srtpOf(*bobMedia) != nullptr, c.secure);
        EXPECT_EQ(alice.events->secure, c.secure ? 1 : 0);
        EXPECT_EQ(bob.events->secure, c.secure ? 1 : 0);
        const bool ice = c.callerIce && c.calleeIce;
        EXPECT_EQ(iceOf(*aliceMedia) != nullptr, ice);
        EXPECT_EQ(iceOf(*bobMedia) != nullptr, ice);
        if (ice) {
            for (MediaSession* media : {aliceMedia.get(), bobMedia.get()}) {
                EXPECT_TRUE(test::waitFor([&] { return iceOf(*media)->selectedPair(ice::kRtpComponent).has_value(); }, 5s));
            }
        }
        EXPECT_TRUE(audioFlows(*aliceMedia, *bobMedia));
        EXPECT_TRUE(audioFlows(*bobMedia, *aliceMedia));
        // Hold and resume re-offer with the agreed keys: media goes on.
        ASSERT_TRUE(alice.ua->holdCall(a));
        ASSERT_TRUE(test::waitFor([&] { const auto i = bob.ua->callInfo(b); return i && i->remoteHold; }, 5s));
        // Refused while the hold's own re-INVITE is still in flight.
        ASSERT_TRUE(test::waitFor([&] { return alice.ua->unholdCall(a); }, 5s));
        ASSERT_TRUE(test::waitFor([&] { const auto i = bob.ua->callInfo(b); return i && !i->remoteHold; }, 5s));
        EXPECT_TRUE(audioFlows(*aliceMedia, *bobMedia));
        EXPECT_TRUE(audioFlows(*bobMedia, *aliceMedia));
        if (c.secure) {
            EXPECT_EQ(srtpOf(*bobMedia)->stats().unauthentic, 0u);
            EXPECT_EQ(srtpOf(*aliceMedia)->stats().unauthentic, 0u);
        }
    }
}

}  // namespace
}  // namespace kelsip
