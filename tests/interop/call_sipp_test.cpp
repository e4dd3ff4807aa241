// Calls against SIPp, whose scenarios (tests/interop/sipp/call_*.xml) send
// exactly what a test needs. As the called side: the INVITEs we refuse
// before ringing, a late ACK, CANCEL before and after the answer, hold
// re-INVITEs, reliable provisional responses, session refreshes and a REFER
// served; as the caller: a 200 that comes twice, a busy callee, our CANCEL,
// our hold, PRACKs and a 422. What SIPp cannot check itself (times,
// branches, whether two messages are the same) is read from its trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "interop/support/call_sipp_fixture.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using test::readTrace;
using test::requests;
using test::responses;
using test::select;
using test::tagOf;
using test::Trace;
using test::Traced;
using test::trimmed;
using Recorder = test::CallRecorder;

class CallSippTest : public test::CallSippFixture {
protected:
    // `t1Ms` sets the pace of the 2xx and reliable 1xx repeats (at T1 = 100
    // ms: 100, 300, 700 ms...).
    void startUserAgent(int64_t t1Ms = 500, const std::function<void(UserAgentConfig&)>& adjust = {}) {
        startAlice([&](UserAgentConfig& config) {
            config.timers.t1Ms = t1Ms;
            if (adjust) adjust(config);
        });
    }
    // SIPp calls us with `scenario`; we answer once it rings. The call is 0
    // when something failed on the way.
    std::pair<test::SippRunner*, int> answered(const std::string& scenario, std::vector<std::string> arguments = {}) {
        test::SippRunner* sipp = callUs(scenario, std::move(arguments));
        const int call = sipp != nullptr ? incomingCall() : 0;
        return {sipp, call > 0 && ua->answerCall(call) ? call : 0};
    }
    // We call SIPp, which plays `scenario`.
    std::pair<test::SippRunner*, int> placed(const std::string& scenario, int64_t t1Ms = 500) {
        test::SippRunner* sipp = startCallee(scenario);
        if (sipp == nullptr) return {nullptr, 0};
        startUserAgent(t1Ms);
        return {sipp, callSipp(*sipp)};
    }

    // How many requests of this method the stack received so far.
    size_t receivedRequests(std::string_view method) {
        const std::string line = "\n" + std::string(method) + " ";
        size_t count = 0;
        for (const std::string& l : logs().lines()) {
            count += l.rfind("RECV UDP", 0) == 0 && l.find(line) != std::string::npos;
        }
        return count;
    }
};

// ---- SIPp calls us ----

TEST_F(CallSippTest, RefusesInvitesItCannotServeBeforeRinging) {
    startUserAgent();
    struct Refusal {
        const char* what;
        const char* scenario;
        std::vector<std::string> arguments;
        int status;
        const char* header;  // what the refusal must carry
        const char* value;
    };
    const Refusal refusals[] = {
        {"an unknown required extension", "call_in_require_unknown.xml", {}, 420, "Unsupported", "foo"},
        {"a body that is not SDP", "call_in_text_body.xml", {}, 415, "Accept", "application/sdp"},
        {"only G.729", "call_in_no_common_codec.xml", {"-key", "payload", "18", "-key", "rtpmap", "G729/8000"},
         488, "Warning", "304 KELSIP \"Media type not available\""},
        {"only Opus", "call_in_no_common_codec.xml", {"-key", "payload", "111", "-key", "rtpmap", "opus/48000/2"},
         488, "Warning", "304 KELSIP \"Media type not available\""},
        {"Replaces naming no dialog", "call_in_replaces_unknown.xml", {}, 481, "", ""},
        {"a session interval below the minimum", "call_in_session_interval_small.xml", {}, 422, "Min-SE", "90"},
    };
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(r.what);
        test::SippRunner* sipp = callUs(r.scenario, r.arguments);
        ASSERT_TRUE(sipp);
        // SIPp fails the call on any other answer.
        EXPECT_EQ(sipp->waitForExit(10s), 0);
        const auto finals = select(readTrace(sipp->messages()), [](const Traced& m) {
            return m.received && m.status() >= 200;
        });
        ASSERT_FALSE(finals.empty());
        EXPECT_EQ(finals.front().status(), r.status) << finals.front().text;
        if (*r.header != '\0') {
            EXPECT_EQ(finals.front().header(r.header), r.value) << finals.front().text;
        }
    }
    EXPECT_TRUE(events->incoming().empty()) << "a refused INVITE rang";
    EXPECT_TRUE(ua->calls().empty());
}

TEST_F(CallSippTest, RepeatsThe200AtDoublingIntervalsUntilTheLateAck) {
    startUserAgent(100);
    test::SippRunner* sipp = callUs("call_in_ack_withheld.xml");
    ASSERT_TRUE(sipp);
    const int call = incomingCall();
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ua->answerCall(call));
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).reason, "Remote hangup");
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Incoming", "Connected", "Terminated"}));
    ASSERT_EQ(sipp->waitForExit(10s), 0);

    const auto trace = readTrace(sipp->messages());
    const auto oks = select(trace, [](const Traced& m) { return m.received && m.isResponse(200, "1 INVITE"); });
    const auto acks = select(trace, [](const Traced& m) { return !m.received && m.isRequest("ACK"); });
    ASSERT_EQ(acks.size(), 1u);
    // SIPp acknowledges 1.1 s after the first 200: with T1 = 100 ms the copies
    // follow after 100, 200 and 400 ms; the next (800 ms on) would come after the ACK.
    ASSERT_EQ(oks.size(), 4u);
    EXPECT_EQ(oks.front().header("Content-Type"), "application/sdp");
    EXPECT_THAT(oks.front().body(), HasSubstr("a=rtpmap:0 PCMU/8000"));
    for (size_t i = 1; i < oks.size(); ++i) {
        SCOPED_TRACE("copy " + std::to_string(i));
        EXPECT_EQ(oks[i].text, oks.front().text);
        const auto gap = std::chrono::duration_cast<std::chrono::milliseconds>(oks[i].at - oks[i - 1].at);
        const auto nominal = 100ms * (1 << (i - 1));
        EXPECT_GE(gap, nominal - 5ms);
        EXPECT_LT(gap, nominal + 150ms);
    }
    EXPECT_LT(oks.back().at, acks.front().at);
}

TEST_F(CallSippTest, AnswersHoldReoffersInKindAndEndsOnBye) {
    startUserAgent();
    const auto [sipp, call] = answered("call_in_held.xml");
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ends(call));
    // SIPp checked each answer's direction: recvonly, sendrecv, inactive.
    EXPECT_EQ(sipp->waitForExit(10s), 0);
    std::vector<bool> remoteHold;
    for (const CallInfo& info : events->infos(call)) remoteHold.push_back(info.remoteHold);
    EXPECT_THAT(remoteHold, ElementsAre(true, false, true));
    EXPECT_EQ(events->last(call).reason, "Remote hangup");
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Incoming", "Connected", "Terminated"}));
}

TEST_F(CallSippTest, CancelWhileRingingEndsTheCallAsCancelled) {
    startUserAgent();
    test::SippRunner* sipp = callUs("call_in_cancelled.xml");
    ASSERT_TRUE(sipp);
    const int call = incomingCall();
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).reason, "Cancelled");
    EXPECT_EQ(events->last(call).statusCode, 487);
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Incoming", "Terminated"}));
    // SIPp checked the 200 to the CANCEL and the 487 to the INVITE.
    EXPECT_EQ(sipp->waitForExit(10s), 0);
    EXPECT_FALSE(ua->answerCall(call));
}

TEST_F(CallSippTest, CancelAfterTheAnswerChangesNothing) {
    startUserAgent();
    const auto [sipp, call] = answered("call_in_cancel_after_answer.xml");
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(sipp->waitForExit(10s), 0);
    EXPECT_EQ(events->last(call).reason, "Remote hangup");
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Incoming", "Connected", "Terminated"}));
    const auto trace = readTrace(sipp->messages());
    EXPECT_TRUE(select(trace, [](const Traced& m) { return m.received && m.status() == 487; }).empty());
    // SIPp takes the To tag of the latest answer for its ACK and BYE: the
    // 200 to the CANCEL must name the dialog the 200 to the INVITE set up.
    const auto ok = select(trace, [](const Traced& m) { return m.received && m.isResponse(200, "1 INVITE"); });
    const auto cancelled = select(trace, [](const Traced& m) { return m.received && m.isResponse(200, "1 CANCEL"); });
    ASSERT_FALSE(ok.empty());
    ASSERT_FALSE(cancelled.empty());
    EXPECT_EQ(cancelled.front().toTag(), ok.front().toTag());
}

// ---- We call SIPp ----

TEST_F(CallSippTest, AcksARepeated200WithTheSameAck) {
    const auto [sipp, call] = placed("call_out_200_repeated.xml");
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).reason, "Remote hangup");
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Calling", "Ringing", "Connected", "Terminated"}));
    ASSERT_EQ(sipp->waitForExit(10s), 0);

    const auto trace = readTrace(sipp->messages());
    const auto invites = select(trace, [](const Traced& m) { return m.received && m.isRequest("INVITE"); });
    const auto acks = select(trace, [](const Traced& m) { return m.received && m.isRequest("ACK"); });
    ASSERT_FALSE(invites.empty());
    ASSERT_EQ(acks.size(), 2u);
    EXPECT_EQ(acks[1].text, acks[0].text);
    EXPECT_EQ(acks[0].header("CSeq"), "1 ACK");
    // The ACK of a 2xx is a transaction of its own.
    EXPECT_NE(acks[0].branch(), invites.front().branch());
}

TEST_F(CallSippTest, ABusyCalleeEndsTheCallWith486) {
    const auto [sipp, call] = placed("call_out_busy.xml");
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).statusCode, 486);
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Calling", "Proceeding", "Terminated"}));
    ASSERT_EQ(sipp->waitForExit(10s), 0);

    const auto trace = readTrace(sipp->messages());
    const auto invites = select(trace, [](const Traced& m) { return m.received && m.isRequest("INVITE"); });
    const auto busy = select(trace, [](const Traced& m) { return !m.received && m.status() == 486; });
    const auto acks = select(trace, [](const Traced& m) { return m.received && m.isRequest("ACK"); });
    ASSERT_FALSE(invites.empty());
    ASSERT_FALSE(busy.empty());
    ASSERT_FALSE(acks.empty());
    // The ACK of a failure belongs to the INVITE's transaction.
    EXPECT_EQ(acks.front().branch(), invites.front().branch());
    EXPECT_EQ(acks.front().header("CSeq"), "1 ACK");
    EXPECT_EQ(acks.front().toTag(), busy.front().toTag());
}

TEST_F(CallSippTest, CancelWaitsForAProvisionalAndNamesTheInvite) {
    const auto [sipp, call] = placed("call_out_cancelled.xml");
    ASSERT_GT(call, 0);
    // Hang up as soon as the INVITE is on its way, while SIPp keeps quiet.
    ASSERT_TRUE(test::waitFor(
        [&] {
            for (const std::string& line : logs().lines()) {
                if (line.rfind("SEND UDP", 0) == 0 && line.find("\nINVITE ") != std::string::npos) return true;
            }
            return false;
        },
        5s));
    EXPECT_EQ(events->state(call), "Calling");
    ASSERT_TRUE(ua->hangupCall(call));
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).statusCode, 487);
    EXPECT_EQ(events->last(call).reason, "Cancelled");
    // SIPp fails the call if the CANCEL comes before its 180.
    ASSERT_EQ(sipp->waitForExit(10s), 0);

    const auto trace = readTrace(sipp->messages());
    const auto invites = select(trace, [](const Traced& m) { return m.received && m.isRequest("INVITE"); });
    const auto ringing = select(trace, [](const Traced& m) { return !m.received && m.status() == 180; });
    const auto cancels = select(trace, [](const Traced& m) { return m.received && m.isRequest("CANCEL"); });
    const auto acks = select(trace, [](const Traced& m) { return m.received && m.isRequest("ACK"); });
    ASSERT_FALSE(invites.empty());
    ASSERT_FALSE(ringing.empty());
    ASSERT_FALSE(cancels.empty());
    ASSERT_FALSE(acks.empty());
    const Traced& invite = invites.front();
    const Traced& cancel = cancels.front();
    EXPECT_GT(cancel.at, ringing.front().at);
    EXPECT_EQ(cancel.startLine(), "CANCEL" + invite.startLine().substr(6));
    EXPECT_EQ(cancel.branch(), invite.branch());
    EXPECT_EQ(cancel.header("CSeq"), "1 CANCEL");
    EXPECT_EQ(invite.header("CSeq"), "1 INVITE");
    for (const char* name : {"From", "To", "Call-ID"}) EXPECT_EQ(cancel.header(name), invite.header(name)) << name;
    EXPECT_EQ(acks.front().branch(), invite.branch());
}

TEST_F(CallSippTest, HoldAndResumeAreReoffersSendonlyThenSendrecv) {
    const auto [sipp, call] = placed("call_out_hold.xml");
    ASSERT_GT(call, 0);
    ASSERT_TRUE(test::waitFor([&] { return events->state(call) == "Connected"; }, 5s));

    ASSERT_TRUE(ua->holdCall(call));
    ASSERT_TRUE(test::waitFor([&] { return events->infos(call).size() == 1; }, 5s));
    EXPECT_TRUE(events->infos(call).back().onHold);
    EXPECT_FALSE(events->infos(call).back().remoteHold);
    ASSERT_TRUE(ua->unholdCall(call));
    ASSERT_TRUE(test::waitFor([&] { return events->infos(call).size() == 2; }, 5s));
    EXPECT_FALSE(events->infos(call).back().onHold);

    ASSERT_TRUE(ua->hangupCall(call));
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).reason, "Local hangup");
    // SIPp checked each offer's direction: sendonly, then sendrecv.
    ASSERT_EQ(sipp->waitForExit(10s), 0);

    const auto trace = readTrace(sipp->messages());
    const auto invites = select(trace, [](const Traced& m) { return m.received && m.isRequest("INVITE"); });
    const auto ok = select(trace, [](const Traced& m) { return !m.received && m.isResponse(200, "1 INVITE"); });
    ASSERT_EQ(invites.size(), 3u);
    ASSERT_FALSE(ok.empty());
    // Each re-offer is a new request in the dialog, and a new version of our session.
    const auto version = [](const Traced& m) {
        const std::string body = m.body();
        const auto o = body.find("o=");
        std::istringstream fields(body.substr(o, body.find('\n', o) - o));
        std::string user, session, v;
        fields >> user >> session >> v;
        return std::stoll(v);
    };
    for (size_t i = 1; i < invites.size(); ++i) {
        SCOPED_TRACE("re-INVITE " + std::to_string(i));
        EXPECT_EQ(invites[i].header("CSeq"), std::to_string(i + 1) + " INVITE");
        EXPECT_EQ(invites[i].toTag(), ok.front().toTag());
        EXPECT_EQ(version(invites[i]), version(invites[i - 1]) + 1);
    }
}

// ---- Reliable provisional responses ----

TEST_F(CallSippTest, RingsReliablyForACallerThatSupportsOrRequires100rel) {
    struct Case {
        const char* what;
        const char* header;  // where the caller names 100rel
        bool enable100rel;
    };
    const Case cases[] = {
        {"Supported: 100rel", "Supported", true},
        {"Require: 100rel with our 100rel switched off", "Require", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        events = std::make_shared<Recorder>();
        startUserAgent(100, [&](UserAgentConfig& config) { config.enable100rel = c.enable100rel; });
        const size_t optionsBefore = receivedRequests("OPTIONS");
        test::SippRunner* sipp = callUs("call_in_100rel.xml", {"-key", "ext", c.header});
        ASSERT_TRUE(sipp);
        const int call = incomingCall();
        ASSERT_GT(call, 0);
        // SIPp asks OPTIONS 800 ms after its PRACK was answered; only then do we answer.
        ASSERT_TRUE(test::waitFor([&] { return receivedRequests("OPTIONS") > optionsBefore; }, 5s));
        ASSERT_TRUE(ua->answerCall(call));
        ASSERT_TRUE(ends(call));
        EXPECT_EQ(events->states(call), (std::vector<std::string>{"Incoming", "Connected", "Terminated"}));
        // SIPp checked Require: 100rel and the RSeq on the 180, and the PRACK's 200.
        ASSERT_EQ(sipp->waitForExit(10s), 0);

        const Trace trace = readTrace(sipp->messages());
        const Trace ringing = select(trace, [](const Traced& m) { return m.received && m.status() == 180; });
        const Trace pracked = responses(trace, true, 200, "2 PRACK");
        const Trace prack = requests(trace, false, "PRACK");
        ASSERT_FALSE(ringing.empty());
        ASSERT_EQ(pracked.size(), 1u);
        ASSERT_EQ(prack.size(), 1u);
        EXPECT_EQ(ringing.front().header("Require"), "100rel");
        EXPECT_EQ(prack.front().header("RAck"), ringing.front().header("RSeq") + " 1 INVITE");
        // The PRACK stops the repeats: none in the 800 ms before the OPTIONS.
        for (const Traced& r : ringing) {
            EXPECT_LT(r.at, pracked.front().at) << "a 180 repeated after its PRACK was answered";
            EXPECT_EQ(r.text, ringing.front().text);
        }
        ua->shutdown(0ms);
        ua.reset();
    }
}

TEST_F(CallSippTest, PracksEachReliableProvisionalOnceWithinItsEarlyDialog) {
    const auto [sipp, call] = placed("call_out_100rel.xml", 100);
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Calling", "Ringing", "Connected", "Terminated"}));
    EXPECT_EQ(events->last(call).reason, "Remote hangup");
    // SIPp checked each RAck and the first PRACK's Request-URI (the 183's Contact).
    ASSERT_EQ(sipp->waitForExit(10s), 0);

    const Trace trace = readTrace(sipp->messages());
    const Trace invites = requests(trace, true, "INVITE");
    const Trace pracks = requests(trace, true, "PRACK");
    const Trace progress = select(trace, [](const Traced& m) { return !m.received && m.status() == 183; });
    ASSERT_EQ(invites.size(), 1u);
    ASSERT_EQ(progress.size(), 2u);
    ASSERT_EQ(pracks.size(), 2u) << "the repeated 183 was acknowledged again";
    const std::vector<std::string> racks{"1 1 INVITE", "2 1 INVITE"};
    for (size_t i = 0; i < pracks.size(); ++i) {
        SCOPED_TRACE("PRACK " + std::to_string(i + 1));
        const Traced& prack = pracks[i];
        EXPECT_EQ(prack.header("RAck"), racks[i]);
        EXPECT_EQ(prack.header("CSeq"), std::to_string(i + 2) + " PRACK");
        EXPECT_THAT(prack.startLine(), HasSubstr("PRACK sip:bob-early@" + sipp->hostPort()));
        // Within the early dialog: the INVITE's Call-ID and From, the 1xx's To tag.
        EXPECT_EQ(prack.header("Call-ID"), invites.front().header("Call-ID"));
        EXPECT_EQ(prack.header("From"), invites.front().header("From"));
        EXPECT_EQ(prack.toTag(), progress.front().toTag());
        EXPECT_NE(prack.branch(), invites.front().branch());
    }
}

// ---- Session timers ----

TEST_F(CallSippTest, AnswersAnInviteAndItsRefreshesWithTheSessionTheCallerRefreshes) {
    startUserAgent(100);
    const auto [sipp, call] = answered("call_in_session_refreshed.xml");
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).reason, "Remote hangup");
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Incoming", "Connected", "Terminated"}));
    ASSERT_EQ(sipp->waitForExit(10s), 0);

    const Trace trace = readTrace(sipp->messages());
    struct Answer {
        const char* cseq;
        bool sdp;  // an answer to an offer
    };
    for (const Answer& a : {Answer{"1 INVITE", true}, Answer{"2 UPDATE", false}, Answer{"3 INVITE", true}}) {
        SCOPED_TRACE(a.cseq);
        const Trace ok = responses(trace, true, 200, a.cseq);
        ASSERT_FALSE(ok.empty());
        EXPECT_EQ(ok.front().header("Session-Expires"), "90;refresher=uac") << ok.front().text;
        EXPECT_EQ(ok.front().header("Require"), "timer") << ok.front().text;
        if (a.sdp) {
            EXPECT_EQ(ok.front().header("Content-Type"), "application/sdp");
            EXPECT_THAT(ok.front().body(), HasSubstr("m=audio "));
        } else {
            EXPECT_EQ(ok.front().body(), "");
        }
    }
}

TEST_F(CallSippTest, AsksForTheIntervalOfA422AndIsAnswered) {
    const auto [sipp, call] = placed("call_out_session_422.xml", 100);
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).reason, "Remote hangup");
    EXPECT_EQ(events->states(call), (std::vector<std::string>{"Calling", "Connected", "Terminated"}));
    ASSERT_EQ(sipp->waitForExit(10s), 0);

    const Trace trace = readTrace(sipp->messages());
    const Trace invites = requests(trace, true, "INVITE");
    ASSERT_EQ(invites.size(), 2u);
    EXPECT_EQ(invites[0].header("Session-Expires"), "1800");
    EXPECT_EQ(invites[0].header("Min-SE"), "90");
    EXPECT_THAT(invites[0].header("Supported"), HasSubstr("timer"));
    EXPECT_EQ(invites[1].header("Session-Expires"), "3600");
    // The same call asked again: a new transaction with the next CSeq.
    EXPECT_EQ(invites[1].header("Call-ID"), invites[0].header("Call-ID"));
    EXPECT_EQ(invites[1].header("From"), invites[0].header("From"));
    EXPECT_EQ(invites[1].toTag(), "");
    EXPECT_EQ(invites[1].header("CSeq"), "2 INVITE");
    EXPECT_NE(invites[1].branch(), invites[0].branch());
}

// ---- REFER ----

TEST_F(CallSippTest, ServesAReferWithANewCallAndNotifiesItsProgress) {
    test::SippRunner* carol = startCallee("call_out_transfer_target.xml");
    ASSERT_TRUE(carol);
    startUserAgent(100);
    test::SippRunner* referrer =
        callUs("call_in_refer.xml", {"-key", "carol_port", std::to_string(carol->port())});
    ASSERT_TRUE(referrer);
    const int call = incomingCall();
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ua->answerCall(call));
    ASSERT_TRUE(ends(call));
    EXPECT_EQ(events->last(call).reason, "Remote hangup");
    // The transferred call: ours to carol, which she ends.
    ASSERT_TRUE(test::waitFor([&] { return events->calls().size() == 2; }, 5s));
    const int transferred = events->calls().back();
    ASSERT_TRUE(ends(transferred));
    EXPECT_EQ(events->states(transferred),
              (std::vector<std::string>{"Calling", "Ringing", "Connected", "Terminated"}));
    // SIPp checked the 400 to the REFER without Refer-To and the 202.
    EXPECT_EQ(referrer->waitForExit(10s), 0);
    EXPECT_EQ(carol->waitForExit(10s), 0);

    const Trace trace = readTrace(referrer->messages());
    const Trace notifies = requests(trace, true, "NOTIFY");
    const Trace invite = requests(trace, false, "INVITE");
    ASSERT_FALSE(invite.empty());
    ASSERT_EQ(notifies.size(), 3u);
    struct Expected {
        const char* state;
        const char* body;
    };
    const Expected expected[] = {
        {"active;expires=60", "SIP/2.0 100 Trying"},
        {"active;expires=60", "SIP/2.0 180 Ringing"},
        {"terminated;reason=noresource", "SIP/2.0 200 OK"},
    };
    const Trace ok = responses(trace, true, 200, "1 INVITE");
    ASSERT_FALSE(ok.empty());
    for (size_t i = 0; i < notifies.size(); ++i) {
        SCOPED_TRACE("NOTIFY " + std::to_string(i + 1));
        const Traced& n = notifies[i];
        EXPECT_EQ(n.header("Event"), "refer");
        EXPECT_EQ(n.header("Subscription-State"), expected[i].state);
        EXPECT_EQ(n.header("Content-Type"), "message/sipfrag;version=2.0");
        EXPECT_EQ(trimmed(n.body()), expected[i].body);
        // Within the call's dialog: our tag in From, the caller's in To.
        EXPECT_EQ(tagOf(n.header("From")), ok.front().toTag());
        EXPECT_EQ(n.toTag(), tagOf(invite.front().header("From")));
        EXPECT_EQ(n.header("Call-ID"), invite.front().header("Call-ID"));
    }
    const Trace carolInvite = requests(readTrace(carol->messages()), true, "INVITE");
    ASSERT_EQ(carolInvite.size(), 1u);
    EXPECT_THAT(carolInvite.front().startLine(), HasSubstr("INVITE sip:carol@127.0.0.1:" + std::to_string(carol->port())));
    EXPECT_EQ(carolInvite.front().header("Referred-By"), "<sip:sipp@127.0.0.1:" + std::to_string(referrer->port()) + ">");
}

TEST_F(CallSippTest, RefusesAReferOutsideAnyDialogWith481) {
    startUserAgent(100);
    struct Case {
        const char* what;
        const char* toParam;
    };
    for (const Case& c : {Case{"a To tag no dialog has", ";tag=gone"}, Case{"no To tag", ""}}) {
        SCOPED_TRACE(c.what);
        test::SippRunner* sipp = callUs("call_in_refer_no_dialog.xml", {"-key", "to_param", c.toParam});
        ASSERT_TRUE(sipp);
        EXPECT_EQ(sipp->waitForExit(10s), 0);
        const Trace finals = select(readTrace(sipp->messages()), [](const Traced& m) {
            return m.received && m.status() >= 200;
        });
        ASSERT_FALSE(finals.empty());
        EXPECT_EQ(finals.front().status(), 481) << finals.front().text;
    }
    EXPECT_TRUE(events->calls().empty()) << "a REFER outside any dialog made a call";
}

}  // namespace
}  // namespace kelsip
