// Calls against SIPp for the extensions a call may use: reliable provisional
// responses both ways (100rel, PRACK), session timers (the headers of the
// answers to an INVITE, UPDATE and re-INVITE refresh; the INVITE asked again
// after 422) and a REFER served (202, NOTIFYs of the new call's progress,
// the refusals). The scenarios are tests/interop/sipp/call_*.xml; what SIPp
// cannot check itself is read from its message trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
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
using ::testing::HasSubstr;
using test::readTrace;
using test::select;
using test::Traced;

using Recorder = test::CallRecorder;

using Trace = std::vector<Traced>;

Trace requests(const Trace& trace, bool received, std::string_view method) {
    return select(trace, [&](const Traced& m) { return m.received == received && m.isRequest(method); });
}

Trace responses(const Trace& trace, bool received, int code, std::string_view cseq) {
    return select(trace, [&](const Traced& m) { return m.received == received && m.isResponse(code, cseq); });
}

// The tag parameter of a From or To value.
std::string tagOf(const std::string& value) {
    const auto at = value.find(";tag=");
    return at == std::string::npos ? "" : value.substr(at + 5, value.find(';', at + 5) - (at + 5));
}

// A sipfrag body as the trace keeps it, without the blank lines after it.
std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

class CallSippMoreTest : public test::CallSippFixture {
protected:
    void startUserAgent(const std::function<void(UserAgentConfig&)>& adjust = {}) {
        startAlice([&](UserAgentConfig& config) {
            // The reliable 1xx is repeated at 100, 300, 700 ms... when no PRACK comes.
            config.timers.t1Ms = 100;
            if (adjust) adjust(config);
        });
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

// ---- Reliable provisional responses ----

TEST_F(CallSippMoreTest, RingsReliablyForACallerThatSupportsOrRequires100rel) {
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
        startUserAgent([&](UserAgentConfig& config) { config.enable100rel = c.enable100rel; });
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

TEST_F(CallSippMoreTest, PracksEachReliableProvisionalOnceWithinItsEarlyDialog) {
    test::SippRunner* sipp = startCallee("call_out_100rel.xml");
    ASSERT_TRUE(sipp);
    startUserAgent();
    const int call = callSipp(*sipp);
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

TEST_F(CallSippMoreTest, AnswersAnInviteAndItsRefreshesWithTheSessionTheCallerRefreshes) {
    startUserAgent();
    test::SippRunner* sipp = callUs("call_in_session_refreshed.xml");
    ASSERT_TRUE(sipp);
    const int call = incomingCall();
    ASSERT_GT(call, 0);
    ASSERT_TRUE(ua->answerCall(call));
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

TEST_F(CallSippMoreTest, AsksForTheIntervalOfA422AndIsAnswered) {
    test::SippRunner* sipp = startCallee("call_out_session_422.xml");
    ASSERT_TRUE(sipp);
    startUserAgent();
    const int call = callSipp(*sipp);
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

TEST_F(CallSippMoreTest, ServesAReferWithANewCallAndNotifiesItsProgress) {
    test::SippRunner* carol = startCallee("call_out_transfer_target.xml");
    ASSERT_TRUE(carol);
    startUserAgent();
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

TEST_F(CallSippMoreTest, RefusesAReferOutsideAnyDialogWith481) {
    startUserAgent();
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
