// Call timers in virtual time against a scripted peer: the 2xx repeated
// until the ACK, the reliable 180 repeated until its PRACK, and the
// no-answer cancel, each with its exact schedule and how it ends.
#include <gtest/gtest.h>

#include "support/virtual_user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class CallTimingTest : public test::VirtualUserAgentTest {
protected:
    CallTimingTest()
        : VirtualUserAgentTest([](UserAgentConfig& config) {
              config.noAnswerTimeoutMs = 30000;
              config.rtpPortMin = 43000;
              config.rtpPortMax = 43999;
          }) {}
    void SetUp() override {
        VirtualUserAgentTest::SetUp();
        LineConfig line;
        line.user = "bob";
        lineId = ua->addLine(line);
    }
    // An INVITE from the peer with a PCMU offer.
    std::string invite(const std::string& extra) {
        const std::string sdp =
            "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 40000 RTP/AVP 0\r\n";
        const std::string us = ua->localAddress(TransportKind::Udp).toString();
        return "INVITE sip:bob@" + us + " SIP/2.0\r\nVia: SIP/2.0/UDP " + peer.hostPort() +
               ";branch=z9hG4bKpeer1\r\nMax-Forwards: 70\r\nFrom: <sip:alice@" + peer.hostPort() +
               ">;tag=a1\r\nTo: <sip:bob@" + us + ">\r\nCall-ID: timing-1\r\nCSeq: 1 INVITE\r\nContact: <sip:alice@" +
               peer.hostPort() + ">\r\n" + extra + "Content-Type: application/sdp\r\nContent-Length: " +
               std::to_string(sdp.size()) + "\r\n\r\n" + sdp;
    }
    int incomingCall() {
        int id = 0;
        EXPECT_TRUE(test::waitFor([&] {
            pump();
            const auto calls = ua->calls();
            if (!calls.empty()) id = calls.front().id;
            return id != 0;
        }, 5s));
        return id;
    }
    [[nodiscard]] int64_t nowMs() const { return clock->nowNs() / 1'000'000; }
    // Moves time on in 100 ms steps for `span`, noting when each response of
    // `code` arrived, relative to `from`.
    std::vector<int64_t> responsesOver(int code, std::chrono::milliseconds span, int64_t from) {
        std::vector<int64_t> at;
        for (int64_t t = 0; t <= span.count(); t += 100) {
            while (peer.expectResponse(code, pump, 3ms)) at.push_back(nowMs() - from);
            advance(100ms);
        }
        return at;
    }
    int lineId = 0;
};

TEST_F(CallTimingTest, TwoHundredRepeatsFromT1DoublingToT2ThenTheCallEndsWithBye) {
    toUs(invite(""));
    ASSERT_TRUE(peer.expectResponse(180, pump));
    const int call = incomingCall();
    ASSERT_TRUE(ua->answerCall(call));
    const int64_t answered = nowMs();
    const auto times = responsesOver(200, 31900ms, answered);
    EXPECT_EQ(times, (std::vector<int64_t>{0, 500, 1500, 3500, 7500, 11500, 15500, 19500, 23500, 27500, 31500}));
    advance(100ms);
    EXPECT_TRUE(peer.expect("BYE", pump));
    EXPECT_TRUE(logs.has("call " + std::to_string(call) + ": no ACK for 2xx, terminating"));
}

TEST_F(CallTimingTest, TheAckStopsTheRepeats) {
    toUs(invite(""));
    ASSERT_TRUE(peer.expectResponse(180, pump));
    ASSERT_TRUE(ua->answerCall(incomingCall()));
    const int64_t answered = nowMs();
    const auto ok = peer.expectResponse(200, pump);
    ASSERT_TRUE(ok);
    advance(500ms);
    ASSERT_TRUE(peer.expectResponse(200, pump));  // the first repeat
    const std::string us = ua->localAddress(TransportKind::Udp).toString();
    peer.send("ACK sip:bob@" + us + " SIP/2.0\r\nVia: SIP/2.0/UDP " + peer.hostPort() +
                  ";branch=z9hG4bKpeer2\r\nMax-Forwards: 70\r\nFrom: <sip:alice@" + peer.hostPort() +
                  ">;tag=a1\r\nTo: " + ok->header("To").value_or("") +
                  "\r\nCall-ID: timing-1\r\nCSeq: 1 ACK\r\nContent-Length: 0\r\n\r\n",
              ua->localAddress(TransportKind::Udp));
    const auto later = responsesOver(200, 10000ms, answered);
    EXPECT_EQ(later, (std::vector<int64_t>{}));
    EXPECT_EQ(ua->callInfo(1)->state, "Connected");
}

TEST_F(CallTimingTest, ReliableRingingRepeatsDoublingUntilItsPrackOrFailsAt64T1) {
    toUs(invite("Supported: 100rel\r\n"));
    const auto ringing = peer.expectResponse(180, pump);
    ASSERT_TRUE(ringing);
    EXPECT_EQ(ringing->header("Require"), "100rel");
    const int64_t start = nowMs();
    std::vector<int64_t> times = {0};
    std::optional<SipMessage> first;
    advance(100ms);
    for (int64_t t = 100; t <= 32000; t += 100) {
        while (auto r = peer.expectResponse(0, pump, 3ms)) {
            if (r->statusCode == 180) {
                EXPECT_EQ(r->header("Require"), "100rel");
                EXPECT_TRUE(r->header("RSeq"));
                times.push_back(nowMs() - start);
            } else {
                EXPECT_EQ(r->statusCode, 504);
                EXPECT_EQ(nowMs() - start, 32000);
                first = r;
            }
        }
        advance(100ms);
    }
    EXPECT_EQ(times, (std::vector<int64_t>{0, 500, 1500, 3500, 7500, 15500, 31500}));
    EXPECT_TRUE(first) << "no final response after 64 x T1";
    EXPECT_TRUE(logs.has("call 1: no PRACK received"));
}

TEST_F(CallTimingTest, AnOutgoingCallNobodyAnswersIsCancelledAfterTheNoAnswerTime) {
    const int call = ua->makeCall(lineId, "sip:alice@" + peer.hostPort());
    ASSERT_GT(call, 0);
    const auto inv = peer.expect("INVITE", pump);
    ASSERT_TRUE(inv);
    peer.answer(*inv, 180, "", "ring1");
    ASSERT_TRUE(test::waitFor([&] {
        pump();
        return ua->callInfo(call)->state == "Ringing";
    }, 5s));
    advance(29s);
    EXPECT_TRUE(peer.quiet("CANCEL", pump, 20ms));
    advance(1s);
    const auto cancel = peer.expect("CANCEL", pump);
    ASSERT_TRUE(cancel);
    EXPECT_EQ(cancel->header("Via"), inv->header("Via"));
    EXPECT_EQ(cancel->cseq()->number, inv->cseq()->number);
    EXPECT_TRUE(logs.has("call " + std::to_string(call) + " not answered in time, cancelling"));
    peer.answer(*cancel, 200, "", "ring1");
    peer.answer(*inv, 487, "", "ring1");
    EXPECT_TRUE(test::waitFor([&] {
        pump();
        return ua->calls().empty();
    }, 5s));
    // The INVITE's 487 is acknowledged by the transaction.
    EXPECT_TRUE(peer.expect("ACK", pump));
}

TEST_F(CallTimingTest, APrackStopsTheReliableRingingAndIsAnswered) {
    toUs(invite("Supported: 100rel\r\n"));
    const auto ringing = peer.expectResponse(180, pump);
    ASSERT_TRUE(ringing);
    const std::string us = ua->localAddress(TransportKind::Udp).toString();
    peer.send("PRACK sip:bob@" + us + " SIP/2.0\r\nVia: SIP/2.0/UDP " + peer.hostPort() +
                  ";branch=z9hG4bKpeer3\r\nMax-Forwards: 70\r\nFrom: <sip:alice@" + peer.hostPort() +
                  ">;tag=a1\r\nTo: " + ringing->header("To").value_or("") +
                  "\r\nCall-ID: timing-1\r\nCSeq: 2 PRACK\r\nRAck: " + ringing->header("RSeq").value_or("") +
                  " 1 INVITE\r\nContent-Length: 0\r\n\r\n",
              ua->localAddress(TransportKind::Udp));
    const auto ok = peer.expectResponse(200, pump);
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok->cseq()->method, "PRACK");
    EXPECT_EQ(responsesOver(180, 5000ms, nowMs()), (std::vector<int64_t>{}));
    EXPECT_EQ(ua->callInfo(1)->state, "Incoming");
}

// The peer answers our INVITE with 200, an SDP answer and `extra` headers.
void answerWith200(test::ScriptedPeer& peer, UserAgent& ua, const SipMessage& invite, const std::string& extra) {
    SipMessage ok = makeResponse(invite, 200, "", "t1");
    ok.addHeader("Contact", "<sip:alice@" + peer.hostPort() + ">");
    ok.addHeader("Allow", "INVITE, ACK, BYE, CANCEL, UPDATE");
    ok.addHeader("Content-Type", "application/sdp");
    ok.body = "v=0\r\no=- 2 2 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 40002 RTP/AVP 0\r\n";
    std::string text = ok.toString();
    text.insert(text.find("Content-Type"), extra);
    peer.send(text, ua.localAddress(TransportKind::Udp));
}

TEST_F(CallTimingTest, SessionTimerRefreshesAtHalfOrHangsUpWhenTheOtherSideDoesNot) {
    struct Case {
        const char* sessionExpires;
        const char* expected;  // what we send then
        int64_t afterSeconds;
    };
    const Case cases[] = {
        {"90;refresher=uac", "UPDATE", 45},   // we asked, we refresh
        {"90;refresher=uas", "BYE", 60},      // the far end refreshes: 90 - 30
        {"1800;refresher=uas", "BYE", 1768},  // 1800 - 32
        {"2;refresher=uas", "BYE", 2},        // 2 - 0
        {"120", "UPDATE", 60},                // no refresher named: we refresh
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sessionExpires);
        const int call = ua->makeCall(lineId, "sip:alice@" + peer.hostPort());
        const auto inv = peer.expect("INVITE", pump);
        ASSERT_TRUE(inv);
        EXPECT_EQ(inv->header("Session-Expires"), "1800");
        EXPECT_EQ(inv->header("Min-SE"), "90");
        answerWith200(peer, *ua, *inv, std::string("Session-Expires: ") + c.sessionExpires + "\r\nRequire: timer\r\n");
        ASSERT_TRUE(peer.expect("ACK", pump));
        ASSERT_TRUE(test::waitFor([&] {
            pump();
            return ua->callInfo(call) && ua->callInfo(call)->state == "Connected";
        }, 5s));
        advance(std::chrono::seconds(c.afterSeconds) - 100ms);
        EXPECT_TRUE(peer.quiet(c.expected, pump, 5ms));
        advance(100ms);
        const auto sent = peer.expect(c.expected, pump);
        ASSERT_TRUE(sent);
        if (std::string(c.expected) == "UPDATE") {
            EXPECT_EQ(sent->header("Session-Expires"), std::string(c.sessionExpires).substr(0, std::string(c.sessionExpires).find(';')) + ";refresher=uac");
            peer.answer(*sent, 200);
        } else {
            EXPECT_TRUE(logs.has("call " + std::to_string(call) + ": session timer expired without refresh, hanging up"));
            peer.answer(*sent, 200);
        }
        (void)ua->hangupCall(call);
        (void)test::waitFor([&] {
            pump();
            if (auto bye = peer.expect("BYE", pump, 2ms)) peer.answer(*bye, 200);
            return ua->calls().empty();
        }, 5s);
    }
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
    answerWith200(peer, *ua, *second, "Session-Expires: 3600;refresher=uac\r\n");
    EXPECT_TRUE(test::waitFor([&] {
        pump();
        return ua->callInfo(call) && ua->callInfo(call)->state == "Connected";
    }, 5s));
}

TEST_F(CallTimingTest, ForkedEarlyDialogsArePrackedApartAndALaterForksAnswerIsEnded) {
    const int call = ua->makeCall(lineId, "sip:alice@" + peer.hostPort());
    const auto inv = peer.expect("INVITE", pump);
    ASSERT_TRUE(inv);
    // Two phones ring behind a forking proxy, each reliably.
    for (const char* fork : {"f1", "f2"}) {
        peer.answer(*inv, 180,
                    std::string("Require: 100rel\r\nRSeq: 7\r\nContact: <sip:") + fork + "@" + peer.hostPort() + ">\r\n",
                    fork);
        const auto prack = peer.expect("PRACK", pump);
        ASSERT_TRUE(prack) << fork;
        EXPECT_EQ(prack->toTag(), fork);
        EXPECT_EQ(prack->requestUri.user, fork);  // within that fork's dialog
        EXPECT_EQ(prack->header("RAck"), "7 1 INVITE");
        peer.answer(*prack, 200, "", fork);
    }
    // The second phone answers first and wins.
    SipMessage ok = makeResponse(*inv, 200, "", "f2");
    ok.addHeader("Contact", "<sip:f2@" + peer.hostPort() + ">");
    ok.addHeader("Content-Type", "application/sdp");
    ok.body = "v=0\r\no=- 2 2 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 40002 RTP/AVP 0\r\n";
    peer.send(ok.toString(), ua->localAddress(TransportKind::Udp));
    const auto ack = peer.expect("ACK", pump);
    ASSERT_TRUE(ack);
    EXPECT_EQ(ack->toTag(), "f2");
    ASSERT_TRUE(test::waitFor([&] {
        pump();
        return ua->callInfo(call)->state == "Connected";
    }, 5s));
    // The first phone answers too late: acknowledged, then ended.
    SipMessage late = ok;
    late.setHeader("To", inv->header("To").value_or("") + ";tag=f1");
    late.setHeader("Contact", "<sip:f1@" + peer.hostPort() + ">");
    peer.send(late.toString(), ua->localAddress(TransportKind::Udp));
    const auto lateAck = peer.expect("ACK", pump);
    ASSERT_TRUE(lateAck);
    EXPECT_EQ(lateAck->toTag(), "f1");
    const auto bye = peer.expect("BYE", pump);
    ASSERT_TRUE(bye);
    EXPECT_EQ(bye->toTag(), "f1");
    EXPECT_EQ(bye->requestUri.user, "f1");
    // The call itself goes on with the winner.
    EXPECT_EQ(ua->callInfo(call)->state, "Connected");
    ASSERT_TRUE(ua->hangupCall(call));
    const auto ours = peer.expect("BYE", pump);
    ASSERT_TRUE(ours);
    EXPECT_EQ(ours->toTag(), "f2");
}

// Our call to the peer, answered and acknowledged, with `extra` on the 200.
int connectedCall(test::ScriptedPeer& peer, UserAgent& ua, int line, const test::ScriptedPeer::Pump& pump,
                  const std::string& extra, SipMessage* inviteOut) {
    const int call = ua.makeCall(line, "sip:alice@" + peer.hostPort());
    const auto inv = peer.expect("INVITE", pump);
    EXPECT_TRUE(inv);
    if (!inv) return call;
    answerWith200(peer, ua, *inv, extra);
    EXPECT_TRUE(peer.expect("ACK", pump));
    EXPECT_TRUE(test::waitFor([&] {
        pump();
        return ua.callInfo(call) && ua.callInfo(call)->state == "Connected";
    }, std::chrono::seconds(5)));
    if (inviteOut) *inviteOut = *inv;
    return call;
}

// The far end allows UPDATE, so the hold goes as one (no ACK to a failure).
TEST_F(CallTimingTest, GlareOnHoldIsRetriedAfterTheCallIdOwnersBackOff) {
    const int call = connectedCall(peer, *ua, lineId, pump, "", nullptr);
    ASSERT_TRUE(ua->holdCall(call));
    const auto first = peer.expect("UPDATE", pump);
    ASSERT_TRUE(first);
    peer.answer(*first, 491, "", "t1");
    EXPECT_TRUE(test::waitFor([&] {
        pump();
        return logs.has("call " + std::to_string(call) + ": re-offer rejected with 491");
    }, std::chrono::seconds(5)));
    // We placed the call, so we own its Call-ID: 2.1 to 4 s before trying again.
    advance(2099ms);
    EXPECT_TRUE(peer.quiet("UPDATE", pump, 5ms));
    advance(1901ms);
    const auto again = peer.expect("UPDATE", pump);
    ASSERT_TRUE(again);
    EXPECT_NE(again->body.find("a=sendonly"), std::string::npos);
    EXPECT_GT(again->cseq()->number, first->cseq()->number);
}

}  // namespace
}  // namespace kelsip
