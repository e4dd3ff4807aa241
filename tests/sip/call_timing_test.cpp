// Call timers in virtual time against a scripted peer: 2xx and reliable 180 repeats, no-answer cancel,
// session timers and 422, forked early dialogs and glare.
#include <gtest/gtest.h>

#include "support/free_port.h"
#include "support/virtual_user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

const std::string kSdp =
    "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 40000 RTP/AVP 0\r\n";

class CallTimingTest : public test::VirtualUserAgentTest {
protected:
    // Silent media ends no call unless a test asks; `rtpPorts` pairs of ports from `firstPort`.
    explicit CallTimingTest(int64_t mediaTimeoutMs = 0, uint16_t firstPort = 43000, uint16_t rtpPorts = 500)
        : VirtualUserAgentTest([&](UserAgentConfig& config) {
              config.noAnswerTimeoutMs = 30000;
              config.mediaTimeoutMs = mediaTimeoutMs;
              config.rtpPortMin = firstPort;
              config.rtpPortMax = static_cast<uint16_t>(firstPort + 2 * rtpPorts - 1);
          }) {}
    void SetUp() override {
        VirtualUserAgentTest::SetUp();
        lineId = addLine("", "bob");
    }
    // The peer calls us with a PCMU offer: the call that opens.
    int incomingCall(const std::string& extra, const std::string& callId = "timing-1") {
        const std::string type = "Content-Type: application/sdp\r\n";
        toUs({.method = "INVITE", .callId = callId, .extra = extra + type, .body = kSdp, .user = "bob"});
        EXPECT_TRUE(settle([&] { return !ua->calls().empty(); }));
        return ua->calls().empty() ? 0 : ua->calls().back().id;
    }
    // A request within that call, sent to us.
    void inCall(const std::string& method, int cseq, const std::string& toTag, const std::string& extra = "") {
        toUs({.method = method, .callId = "timing-1", .extra = extra, .cseq = cseq, .toTag = toTag, .user = "bob"});
    }
    [[nodiscard]] int64_t nowMs() const { return clock->nowNs() / 1'000'000; }
    // Moves time on in 100 ms steps for `span`, noting when each `code` response arrived, relative to `from`.
    std::vector<int64_t> responsesOver(int code, std::chrono::milliseconds span, int64_t from) {
        std::vector<int64_t> at;
        for (int64_t t = 0; t <= span.count(); t += 100) {
            while (peer.expectResponse(code, pump, 3ms)) at.push_back(nowMs() - from);
            advance(100ms);
        }
        return at;
    }
    bool reaches(int call, const std::string& state) {
        return settle([&] { return ua->callInfo(call) && ua->callInfo(call)->state == state; });
    }
    // The peer's phone `tag` answers our INVITE with 200, SDP and `extra` headers.
    void answer200(const SipMessage& invite, const std::string& extra = "", const std::string& tag = "t1") {
        SipMessage ok = makeResponse(invite, 200, "", tag);
        ok.addHeader("Contact", "<sip:" + tag + "@" + peer.hostPort() + ">");
        ok.addHeader("Allow", "INVITE, ACK, BYE, CANCEL, UPDATE");
        ok.addHeader("Content-Type", "application/sdp");
        ok.body = kSdp;
        std::string text = ok.toString();
        text.insert(text.find("Content-Type"), extra);
        peer.send(text, ua->localAddress(TransportKind::Udp));
    }
    // Our call to the peer, answered with `extra` on the 200 and acknowledged.
    int connectedCall(const std::string& extra = "") {
        const int call = ua->makeCall(lineId, "sip:alice@" + peer.hostPort());
        const auto inv = peer.expect("INVITE", pump);
        EXPECT_TRUE(inv);
        if (!inv) return call;
        answer200(*inv, extra);
        EXPECT_TRUE(peer.expect("ACK", pump));
        EXPECT_TRUE(reaches(call, "Connected"));
        return call;
    }
    int lineId = 0;
};

TEST_F(CallTimingTest, TwoHundredRepeatsFromT1DoublingToT2ThenTheCallEndsWithBye) {
    const int call = incomingCall("");
    ASSERT_TRUE(peer.expectResponse(180, pump));
    ASSERT_TRUE(ua->answerCall(call));
    const auto times = responsesOver(200, 31900ms, nowMs());
    EXPECT_EQ(times, (std::vector<int64_t>{0, 500, 1500, 3500, 7500, 11500, 15500, 19500, 23500, 27500, 31500}));
    advance(100ms);
    EXPECT_TRUE(peer.expect("BYE", pump));
    EXPECT_TRUE(logs.has("call " + std::to_string(call) + ": no ACK for 2xx, terminating"));
}

TEST_F(CallTimingTest, ThePrackStopsTheReliable180AndTheAckStopsThe200) {
    const int call = incomingCall("Supported: 100rel\r\n");
    const auto ringing = peer.expectResponse(180, pump);
    ASSERT_TRUE(ringing);
    inCall("PRACK", 2, ringing->toTag(), "RAck: " + ringing->header("RSeq").value_or("") + " 1 INVITE\r\n");
    const auto prackOk = peer.expectResponse(200, pump);
    ASSERT_TRUE(prackOk);
    EXPECT_EQ(prackOk->cseq()->method, "PRACK");
    EXPECT_EQ(responsesOver(180, 5000ms, nowMs()), (std::vector<int64_t>{}));
    ASSERT_TRUE(ua->answerCall(call));
    const int64_t answered = nowMs();
    ASSERT_TRUE(peer.expectResponse(200, pump));
    advance(500ms);
    ASSERT_TRUE(peer.expectResponse(200, pump));  // the first repeat
    inCall("ACK", 1, ringing->toTag());
    EXPECT_EQ(responsesOver(200, 10000ms, answered), (std::vector<int64_t>{}));
    EXPECT_EQ(ua->callInfo(call)->state, "Connected");
}

TEST_F(CallTimingTest, ReliableRingingRepeatsDoublingUntilItFailsAt64T1) {
    incomingCall("Supported: 100rel\r\n");
    const auto ringing = peer.expectResponse(180, pump);
    ASSERT_TRUE(ringing);
    EXPECT_EQ(ringing->header("Require"), "100rel");
    EXPECT_EQ(responsesOver(180, 31900ms, nowMs()), (std::vector<int64_t>{500, 1500, 3500, 7500, 15500, 31500}));
    EXPECT_TRUE(peer.expectResponse(504, pump));  // at 32 s: an earlier one is skipped above
    EXPECT_TRUE(logs.has("call 1: no PRACK received"));
}

TEST_F(CallTimingTest, AnOutgoingCallNobodyAnswersIsCancelledAfterTheNoAnswerTime) {
    const int call = ua->makeCall(lineId, "sip:alice@" + peer.hostPort());
    const auto inv = peer.expect("INVITE", pump);
    ASSERT_TRUE(inv);
    peer.answer(*inv, 180, "", "ring1");
    ASSERT_TRUE(reaches(call, "Ringing"));
    advance(29s);
    EXPECT_TRUE(peer.quiet("CANCEL", pump, 20ms));
    advance(1s);
    const auto cancel = peer.expect("CANCEL", pump);
    ASSERT_TRUE(cancel);
    EXPECT_EQ(cancel->header("Via"), inv->header("Via"));
    EXPECT_TRUE(logs.has("call " + std::to_string(call) + " not answered in time, cancelling"));
    peer.answer(*cancel, 200, "", "ring1");
    peer.answer(*inv, 487, "", "ring1");
    EXPECT_TRUE(settle([&] { return ua->calls().empty(); }));
    EXPECT_TRUE(peer.expect("ACK", pump));  // the 487's, from the transaction
}

TEST_F(CallTimingTest, SessionTimerRefreshesAtHalfOrHangsUpWhenTheOtherSideDoesNot) {
    const struct {
        const char* sessionExpires;
        const char* expected;  // what we send then
        int64_t afterSeconds;
        const char* refresh;  // the UPDATE's Session-Expires
    } cases[] = {
        {"90;refresher=uac", "UPDATE", 45, "90;refresher=uac"},  // we asked, we refresh
        {"90;refresher=uas", "BYE", 60, ""},                     // the far end refreshes: 90 - 30
        {"1800;refresher=uas", "BYE", 1768, ""},                 // 1800 - 32
        {"2;refresher=uas", "BYE", 2, ""},                       // 2 - 0
        {"120", "UPDATE", 60, "120;refresher=uac"},              // no refresher named: we refresh
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sessionExpires);
        const int call = connectedCall(std::string("Session-Expires: ") + c.sessionExpires + "\r\nRequire: timer\r\n");
        advance(std::chrono::seconds(c.afterSeconds) - 100ms);
        EXPECT_TRUE(peer.quiet(c.expected, pump, 5ms));
        advance(100ms);
        const auto sent = peer.expect(c.expected, pump);
        ASSERT_TRUE(sent);
        EXPECT_EQ(sent->header("Session-Expires").value_or(""), c.refresh);
        peer.answer(*sent, 200);
        (void)ua->hangupCall(call);
        (void)settle([&] {
            if (auto bye = peer.expect("BYE", pump, 2ms)) peer.answer(*bye, 200);
            return ua->calls().empty();
        });
    }
    EXPECT_TRUE(logs.has("call 2: session timer expired without refresh, hanging up"));
}

TEST_F(CallTimingTest, A422MakesTheInviteGoAgainWithTheFarEndsMinimum) {
    const int call = ua->makeCall(lineId, "sip:alice@" + peer.hostPort());
    const auto first = peer.expect("INVITE", pump);
    ASSERT_TRUE(first);
    peer.answer(*first, 422, "Min-SE: 3600\r\n", "t0");
    const auto second = peer.expect("INVITE", pump);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->header("Session-Expires"), "3600");
    EXPECT_EQ(second->cseq()->number, first->cseq()->number + 1);
    answer200(*second, "Session-Expires: 3600;refresher=uac\r\n");
    EXPECT_TRUE(reaches(call, "Connected"));
}

TEST_F(CallTimingTest, ForkedEarlyDialogsArePrackedApartALaterForksAnswerIsEndedAndGlareBacksOff) {
    const int call = ua->makeCall(lineId, "sip:alice@" + peer.hostPort());
    const auto inv = peer.expect("INVITE", pump);
    ASSERT_TRUE(inv);
    // Two phones ring behind a forking proxy, each reliably.
    for (const std::string fork : {"f1", "f2"}) {
        peer.answer(*inv, 180, "Require: 100rel\r\nRSeq: 7\r\nContact: <sip:" + fork + "@" + peer.hostPort() + ">\r\n",
                    fork);
        const auto prack = peer.expect("PRACK", pump);
        ASSERT_TRUE(prack) << fork;
        EXPECT_EQ(prack->requestUri.user, fork);  // within that fork's dialog
        EXPECT_EQ(prack->header("RAck"), "7 1 INVITE");
        peer.answer(*prack, 200, "", fork);
    }
    // The second phone answers first and wins; the first answers too late:
    // acknowledged, then ended.
    for (const std::string fork : {"f2", "f1"}) {
        answer200(*inv, "", fork);
        const auto ack = peer.expect("ACK", pump);
        ASSERT_TRUE(ack) << fork;
        EXPECT_EQ(ack->toTag(), fork);
        ASSERT_TRUE(reaches(call, "Connected"));
    }
    const auto bye = peer.expect("BYE", pump);
    ASSERT_TRUE(bye);
    EXPECT_EQ(bye->requestUri.user, "f1");
    // Glare on hold: we placed the call, so we own its Call-ID and try again 2.1 to 4 s later.
    ASSERT_TRUE(ua->holdCall(call));
    const auto update = peer.expect("UPDATE", pump);
    ASSERT_TRUE(update);
    EXPECT_EQ(update->toTag(), "f2");
    peer.answer(*update, 491, "", "f2");
    EXPECT_TRUE(settle([&] { return logs.has("call " + std::to_string(call) + ": re-offer rejected with 491"); }));
    advance(2099ms);
    EXPECT_TRUE(peer.quiet("UPDATE", pump, 5ms));
    advance(1901ms);
    const auto again = peer.expect("UPDATE", pump);
    ASSERT_TRUE(again);
    EXPECT_NE(again->body.find("a=sendonly"), std::string::npos);
}

// One pair of RTP ports, and media that must flow: what is abandoned must
// give its port back for the next call.
class AbandonedCallTest : public CallTimingTest {
protected:
    // One pair of its own: the other timing tests, run beside it, start at 43000.
    AbandonedCallTest() : CallTimingTest(30000, test::freeLoopbackRtpPair(), 1) {}
};

TEST_F(AbandonedCallTest, UnansweredInvitesEndWith487AndSilentCallsWithByeFreeingTheirPorts) {
    // Four unanswered INVITEs would hold every slot for good; each ends at
    // its Expires or at our ringing limit, and the next call is served.
    for (const auto& [expires, seconds] : {std::pair{"Expires: 10\r\n", 10}, {"", 120}, {"Expires: 600\r\n", 120}}) {
        SCOPED_TRACE(expires);
        const std::string callId = "ring-" + std::to_string(seconds) + std::string(expires).substr(0, 4);
        const int call = incomingCall(expires, callId);
        ASSERT_TRUE(peer.expectResponse(180, pump));
        const int64_t start = nowMs();
        std::optional<int64_t> endedAfter;
        for (int i = 0; i <= seconds + 1 && !endedAfter; ++i) {
            while (const auto r = peer.expectResponse(487, pump, 2ms)) {
                if (r->callId() == callId) endedAfter = (nowMs() - start) / 1000;  // not an earlier call's repeat
            }
            advance(1s);
        }
        EXPECT_EQ(endedAfter, seconds);
        EXPECT_TRUE(logs.has("call " + std::to_string(call) + " not answered in time, ending"));
        EXPECT_TRUE(settle([&] { return ua->calls().empty(); }));
    }
    // A call whose far end went away without BYE and sends no RTP: hung up
    // 30 s into the silence, and its port serves the next call.
    const int call = incomingCall("", "silent");
    ASSERT_TRUE(peer.expectResponse(180, pump));
    ASSERT_TRUE(ua->answerCall(call));
    const auto ok = peer.expectResponse(200, pump);
    ASSERT_TRUE(ok);
    toUs({.method = "ACK", .callId = "silent", .toTag = ok->toTag(), .user = "bob"});
    ASSERT_TRUE(reaches(call, "Connected"));
    const auto bye = nextWithin("BYE", 40s);
    ASSERT_TRUE(bye);
    EXPECT_GE(*bye, 30);
    EXPECT_LE(*bye, 36);  // looked at every 5 s
    EXPECT_TRUE(logs.has("call " + std::to_string(call) + ": no media for"));
    advance(33s);  // the BYE goes unanswered
    ASSERT_TRUE(settle([&] { return ua->calls().empty(); }));
    incomingCall("", "next");
    EXPECT_TRUE(peer.expectResponse(180, pump));
}

}  // namespace
}  // namespace kelsip
