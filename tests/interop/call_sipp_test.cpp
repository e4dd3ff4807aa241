// Calls against SIPp, whose scenarios (tests/interop/sipp/call_*.xml) send
// exactly what a test needs: as the called side, the INVITEs we refuse
// before ringing, an ACK that comes late, CANCEL before and after the
// answer, hold re-INVITEs and BYE; as the caller, a 200 that comes twice,
// a busy callee, our CANCEL and our hold. What SIPp cannot check itself
// (times, branches, whether two messages are the same) is read from its
// message trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "interop/support/call_sipp_fixture.h"
#include "interop/support/interop_test.h"
#include "interop/support/sipp_trace.h"
#include "sip/ua/user_agent.h"
#include "support/wait.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

using test::readTrace;
using test::select;
using test::Traced;

using Recorder = test::CallRecorder;

class CallSippTest : public test::CallSippFixture {
protected:
    // `t1Ms` sets the pace of the 2xx retransmissions.
    void startUserAgent(int64_t t1Ms = 500) {
        startAlice([t1Ms](UserAgentConfig& config) { config.timers.t1Ms = t1Ms; });
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
    test::SippRunner* sipp = callUs("call_in_held.xml");
    ASSERT_TRUE(sipp);
    const int call = incomingCall();
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ua->answerCall(call));
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
    test::SippRunner* sipp = callUs("call_in_cancel_after_answer.xml");
    ASSERT_TRUE(sipp);
    const int call = incomingCall();
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ua->answerCall(call));
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
    test::SippRunner* sipp = startCallee("call_out_200_repeated.xml");
    ASSERT_TRUE(sipp);
    startUserAgent();
    const int call = callSipp(*sipp);
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
    test::SippRunner* sipp = startCallee("call_out_busy.xml");
    ASSERT_TRUE(sipp);
    startUserAgent();
    const int call = callSipp(*sipp);
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
    test::SippRunner* sipp = startCallee("call_out_cancelled.xml");
    ASSERT_TRUE(sipp);
    startUserAgent();
    const int call = callSipp(*sipp);
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
    test::SippRunner* sipp = startCallee("call_out_hold.xml");
    ASSERT_TRUE(sipp);
    startUserAgent();
    const int call = callSipp(*sipp);
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

}  // namespace
}  // namespace kelsip
