// Calls against SIPp (tests/interop/sipp/call_*.xml); what SIPp cannot check
// itself (times, branches, whether two messages are the same) is read from its trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <set>

#include "interop/support/interop_test.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using test::readTrace;
using test::requests;
using test::responses;
using test::Trace;
using test::Traced;
using test::waitFor;

using States = std::vector<std::string>;
const States kAnswered{"Incoming", "Connected", "Terminated"};

class CallSippTest : public test::InteropTest {
protected:
    // Alice on UDP; `t1Ms` paces the 2xx and reliable 1xx repeats.
    void startAlice(int64_t t1Ms = 500, bool enable100rel = true) {
        UserAgentConfig config = loopbackConfig(false, t1Ms);
        config.enable100rel = enable100rel;
        ua = startUserAgent(config);
        ASSERT_TRUE(ua);
        lineId = addAlice(*ua, "");
        ASSERT_GT(lineId, 0);
    }
    // The next call SIPp placed, once it rang here.
    int incomingCall(size_t before = 0) {
        if (!waitFor([&] { return events->now().incoming.size() > before; }, 5s)) return 0;
        return events->now().incoming.back().id;
    }
    bool ends(int call) { return waitFor([&] { return events->now().callState(call) == "Terminated"; }, 10s); }
    States states(int call) { return events->now().callStates[call]; }
    CallInfo last(int call) { return events->now().lastCall[call]; }

    // SIPp calls us with `scenario` and we answer as soon as it rings (or,
    // with `beforeAnswer`, once that returns); the call must end with SIPp's
    // BYE, after the states `expected`, and SIPp find all as it checks.
    Trace answerAndWait(const std::string& scenario, std::vector<std::string> arguments = {},
                        const States& expected = kAnswered, const std::function<void()>& beforeAnswer = {}) {
        const size_t before = events->now().incoming.size();
        test::SippRunner* sipp = sippTo(*ua, scenario, std::move(arguments));
        const int call = sipp != nullptr ? incomingCall(before) : 0;
        if (call > 0 && beforeAnswer) beforeAnswer();
        EXPECT_TRUE(call > 0 && ua->answerCall(call) && ends(call)) << scenario;
        EXPECT_EQ(last(call).reason, "Remote hangup");
        EXPECT_EQ(states(call), expected);
        EXPECT_EQ(sipp != nullptr ? sipp->waitForExit(10s) : -1, 0);
        answered = call;
        return sipp != nullptr ? readTrace(sipp->messages()) : Trace{};
    }
    // We call SIPp, which plays `scenario`.
    std::pair<test::SippRunner*, int> placed(const std::string& scenario, int64_t t1Ms = 500) {
        test::SippRunner* sipp = startSipp(scenario);
        startAlice(t1Ms);
        return {sipp, sipp != nullptr && ua ? ua->makeCall(lineId, "sip:bob@" + sipp->hostPort()) : 0};
    }
    // Our call ended after `expected` (empty: any), and SIPp found all as it checks.
    Trace endsAs(test::SippRunner* sipp, int call, const States& expected) {
        EXPECT_TRUE(ends(call));
        if (!expected.empty()) {
            EXPECT_EQ(states(call), expected);
        }
        EXPECT_EQ(sipp->waitForExit(10s), 0);
        return readTrace(sipp->messages());
    }

    std::unique_ptr<UserAgent> ua;
    int lineId = 0;
    int answered = 0;
};

// How many requests of the method the stack has received so far.
size_t received(test::LogCapture& logs, std::string_view method) {
    size_t count = 0;
    for (const std::string& l : logs.lines()) {
        count += l.starts_with("RECV UDP") && l.find("\n" + std::string(method) + " ") != std::string::npos;
    }
    return count;
}

TEST_F(CallSippTest, RefusesInvitesItCannotServeBeforeRingingAndReferOutsideADialog) {
    startAlice();
    struct Refusal {
        const char* scenario;
        std::vector<std::string> arguments;
        int status;
        const char* header;  // what the refusal must carry
        const char* value;
    };
    const char* noCodec = "304 KELSIP \"Media type not available\"";
    const Refusal refusals[] = {
        {"call_in_require_unknown.xml", {}, 420, "Unsupported", "foo"},
        {"call_in_text_body.xml", {}, 415, "Accept", "application/sdp"},
        {"call_in_no_common_codec.xml", {"-key", "payload", "18", "-key", "rtpmap", "G729/8000"}, 488, "Warning", noCodec},
        {"call_in_no_common_codec.xml", {"-key", "payload", "111", "-key", "rtpmap", "opus/48000/2"}, 488, "Warning", noCodec},
        {"call_in_replaces_unknown.xml", {}, 481, "", ""},
        {"call_in_session_interval_small.xml", {}, 422, "Min-SE", "90"},
        {"call_in_refer_no_dialog.xml", {"-key", "to_param", ";tag=gone"}, 481, "", ""},
        {"call_in_refer_no_dialog.xml", {"-key", "to_param", ""}, 481, "", ""},
    };
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(std::string(r.scenario) + " " + testing::PrintToString(r.arguments));
        test::SippRunner* sipp = sippTo(*ua, r.scenario, r.arguments);
        ASSERT_TRUE(sipp);
        EXPECT_EQ(sipp->waitForExit(10s), 0);  // SIPp fails the call on any other answer
        const auto finals = test::select(readTrace(sipp->messages()), [](const Traced& m) { return m.received && m.status() >= 200; });
        ASSERT_FALSE(finals.empty());
        EXPECT_EQ(finals[0].status(), r.status) << finals[0].text;
        if (*r.header != '\0') {
            EXPECT_EQ(finals[0].header(r.header), r.value) << finals[0].text;
        }
    }
    EXPECT_TRUE(events->now().callStates.empty()) << "a refused request made a call";
}

TEST_F(CallSippTest, RepeatsThe200AtDoublingIntervalsUntilTheLateAck) {
    startAlice(100);
    const Trace trace = answerAndWait("call_in_ack_withheld.xml");
    const auto oks = responses(trace, true, 200, "1 INVITE");
    const auto acks = requests(trace, false, "ACK");
    ASSERT_EQ(acks.size(), 1u);
    // The ACK comes 1.1 s after the first 200: copies after 100, 200, 400 ms.
    ASSERT_EQ(oks.size(), 4u);
    EXPECT_THAT(oks[0].body(), HasSubstr("a=rtpmap:0 PCMU/8000"));
    for (size_t i = 1; i < oks.size(); ++i) {
        EXPECT_EQ(oks[i].text, oks[0].text);
        const auto gap = std::chrono::duration_cast<std::chrono::milliseconds>(oks[i].at - oks[i - 1].at);
        EXPECT_GE(gap, 100ms * (1 << (i - 1)) - 5ms) << "copy " << i;
        EXPECT_LT(gap, 100ms * (1 << (i - 1)) + 150ms) << "copy " << i;
    }
    EXPECT_LT(oks.back().at, acks[0].at);
}

TEST_F(CallSippTest, AnswersHoldReoffersInKindAndCancelAfterTheAnswerChangesNothing) {
    startAlice();
    // SIPp checks each answer's direction: recvonly, sendrecv, inactive.
    answerAndWait("call_in_held.xml");
    std::vector<bool> remoteHold;
    const test::Seen seen = events->now();  // a copy: the loop must not run over a temporary's element
    for (const CallInfo& info : seen.callInfos.at(answered)) remoteHold.push_back(info.remoteHold);
    EXPECT_THAT(remoteHold, ElementsAre(true, false, true));

    const Trace trace = answerAndWait("call_in_cancel_after_answer.xml");
    EXPECT_TRUE(test::select(trace, [](const Traced& m) { return m.received && m.status() == 487; }).empty());
    // SIPp takes the To tag of the latest answer for its ACK and BYE: the 200
    // to the CANCEL must name the dialog the 200 to the INVITE set up.
    const auto ok = responses(trace, true, 200, "1 INVITE");
    const auto cancelled = responses(trace, true, 200, "1 CANCEL");
    ASSERT_FALSE(ok.empty() || cancelled.empty());
    EXPECT_EQ(cancelled[0].toTag(), ok[0].toTag());
}

TEST_F(CallSippTest, CancelWhileRingingEndsTheCallAsCancelled) {
    startAlice();
    test::SippRunner* sipp = sippTo(*ua, "call_in_cancelled.xml");
    ASSERT_TRUE(sipp);
    const int call = incomingCall();
    ASSERT_GT(call, 0);
    endsAs(sipp, call, {"Incoming", "Terminated"});  // SIPp checks the 200 to CANCEL and the 487
    EXPECT_EQ(last(call).reason, "Cancelled");
    EXPECT_EQ(last(call).statusCode, 487);
    EXPECT_FALSE(ua->answerCall(call));
}

TEST_F(CallSippTest, AcksARepeated200WithTheSameAckAndABusyFailureInTheInvitesTransaction) {
    auto [sipp, call] = placed("call_out_200_repeated.xml");
    ASSERT_GT(call, 0);
    Trace trace = endsAs(sipp, call, {"Calling", "Ringing", "Connected", "Terminated"});
    auto invites = requests(trace, true, "INVITE");
    auto acks = requests(trace, true, "ACK");
    ASSERT_FALSE(invites.empty());
    ASSERT_EQ(acks.size(), 2u);
    EXPECT_EQ(acks[1].text, acks[0].text);
    EXPECT_EQ(acks[0].header("CSeq"), "1 ACK");
    EXPECT_NE(acks[0].branch(), invites[0].branch());  // the ACK of a 2xx is a transaction of its own

    sipp = startSipp("call_out_busy.xml");
    ASSERT_TRUE(sipp);
    call = ua->makeCall(lineId, "sip:bob@" + sipp->hostPort());
    trace = endsAs(sipp, call, {"Calling", "Proceeding", "Terminated"});
    EXPECT_EQ(last(call).statusCode, 486);
    invites = requests(trace, true, "INVITE");
    acks = requests(trace, true, "ACK");
    const auto busy = test::select(trace, [](const Traced& m) { return !m.received && m.status() == 486; });
    ASSERT_FALSE(invites.empty() || acks.empty() || busy.empty());
    EXPECT_EQ(acks[0].branch(), invites[0].branch());  // the ACK of a failure is the INVITE's
    EXPECT_EQ(acks[0].header("CSeq"), "1 ACK");
    EXPECT_EQ(acks[0].toTag(), busy[0].toTag());
}

TEST_F(CallSippTest, CancelWaitsForAProvisionalAndNamesTheInvite) {
    const auto [sipp, call] = placed("call_out_cancelled.xml");
    ASSERT_GT(call, 0);
    // Hang up as soon as the INVITE is on its way, while SIPp keeps quiet.
    ASSERT_TRUE(waitFor([&] { return logs().has("SEND UDP"); }, 5s));
    EXPECT_EQ(events->now().callState(call), "Calling");
    ASSERT_TRUE(ua->hangupCall(call));
    // SIPp fails the call if the CANCEL comes before its 180.
    const Trace trace = endsAs(sipp, call, {});
    EXPECT_EQ(last(call).statusCode, 487);
    EXPECT_EQ(last(call).reason, "Cancelled");
    const auto invites = requests(trace, true, "INVITE");
    const auto cancels = requests(trace, true, "CANCEL");
    const auto acks = requests(trace, true, "ACK");
    ASSERT_FALSE(invites.empty() || cancels.empty() || acks.empty());
    EXPECT_EQ(cancels[0].startLine(), "CANCEL" + invites[0].startLine().substr(6));
    EXPECT_EQ(cancels[0].branch(), invites[0].branch());
    EXPECT_EQ(cancels[0].header("CSeq"), "1 CANCEL");
    for (const char* name : {"From", "To", "Call-ID"}) EXPECT_EQ(cancels[0].header(name), invites[0].header(name)) << name;
    EXPECT_EQ(acks[0].branch(), invites[0].branch());
}

TEST_F(CallSippTest, HoldAndResumeAreReoffersSendonlyThenSendrecv) {
    const auto [sipp, call] = placed("call_out_hold.xml");
    ASSERT_GT(call, 0);
    ASSERT_TRUE(waitFor([&] { return events->now().callState(call) == "Connected"; }, 5s));
    auto infos = [&] { return events->now().callInfos[call]; };
    ASSERT_TRUE(ua->holdCall(call));
    ASSERT_TRUE(waitFor([&] { return infos().size() == 1; }, 5s));
    EXPECT_TRUE(infos().back().onHold);
    EXPECT_FALSE(infos().back().remoteHold);
    ASSERT_TRUE(ua->unholdCall(call));
    ASSERT_TRUE(waitFor([&] { return infos().size() == 2; }, 5s));
    EXPECT_FALSE(infos().back().onHold);
    ASSERT_TRUE(ua->hangupCall(call));
    // SIPp checks each offer's direction: sendonly, then sendrecv.
    const Trace trace = endsAs(sipp, call, {});
    EXPECT_EQ(last(call).reason, "Local hangup");
    const auto invites = requests(trace, true, "INVITE");
    const auto ok = responses(trace, false, 200, "1 INVITE");
    ASSERT_EQ(invites.size(), 3u);
    ASSERT_FALSE(ok.empty());
    // Each re-offer: the next request in the dialog, the next version of our session.
    const auto version = [](const Traced& m) {
        std::istringstream origin(m.body().substr(m.body().find("o=")));
        std::string user, session, v;
        origin >> user >> session >> v;
        return std::stoll(v);
    };
    for (size_t i = 1; i < invites.size(); ++i) {
        EXPECT_EQ(invites[i].header("CSeq"), std::to_string(i + 1) + " INVITE");
        EXPECT_EQ(invites[i].toTag(), ok[0].toTag());
        EXPECT_EQ(version(invites[i]), version(invites[i - 1]) + 1);
    }
}

TEST_F(CallSippTest, RingsReliablyForACallerThatSupportsOrRequires100rel) {
    // Our 100rel off does not stop a caller that requires it.
    for (const auto& [header, enable100rel] : {std::pair{"Supported", true}, std::pair{"Require", false}}) {
        SCOPED_TRACE(header);
        events = std::make_shared<test::Recorder>();
        startAlice(100, enable100rel);
        // SIPp sends OPTIONS 800 ms after its PRACK was answered; only then do we answer.
        const size_t before = received(logs(), "OPTIONS");
        const Trace trace = answerAndWait("call_in_100rel.xml", {"-key", "ext", header}, kAnswered, [&] {
            EXPECT_TRUE(waitFor([&] { return received(logs(), "OPTIONS") > before; }, 5s));
        });
        const auto ringing = test::select(trace, [](const Traced& m) { return m.received && m.status() == 180; });
        const auto pracked = responses(trace, true, 200, "2 PRACK");
        const auto prack = requests(trace, false, "PRACK");
        ASSERT_FALSE(ringing.empty());
        ASSERT_EQ(pracked.size(), 1u);
        ASSERT_EQ(prack.size(), 1u);
        EXPECT_EQ(ringing[0].header("Require"), "100rel");
        EXPECT_EQ(prack[0].header("RAck"), ringing[0].header("RSeq") + " 1 INVITE");
        // The PRACK stops the repeats.
        for (const Traced& r : ringing) {
            EXPECT_LT(r.at, pracked[0].at) << "a 180 repeated after its PRACK was answered";
            EXPECT_EQ(r.text, ringing[0].text);
        }
        ua->shutdown(0ms);
        ua.reset();
    }
}

TEST_F(CallSippTest, PracksEachReliableProvisionalOnceWithinItsEarlyDialog) {
    const auto [sipp, call] = placed("call_out_100rel.xml", 100);
    ASSERT_GT(call, 0);
    // SIPp checks each RAck and the first PRACK's Request-URI (the 183's Contact).
    const Trace trace = endsAs(sipp, call, {"Calling", "Ringing", "Connected", "Terminated"});
    const auto invites = requests(trace, true, "INVITE");
    const auto pracks = requests(trace, true, "PRACK");
    const auto progress = test::select(trace, [](const Traced& m) { return !m.received && m.status() == 183; });
    ASSERT_EQ(invites.size(), 1u);
    ASSERT_EQ(progress.size(), 2u);
    ASSERT_EQ(pracks.size(), 2u) << "the repeated 183 was acknowledged again";
    for (size_t i = 0; i < pracks.size(); ++i) {
        EXPECT_EQ(pracks[i].header("RAck"), std::to_string(i + 1) + " 1 INVITE");
        EXPECT_EQ(pracks[i].header("CSeq"), std::to_string(i + 2) + " PRACK");
        EXPECT_THAT(pracks[i].startLine(), HasSubstr("PRACK sip:bob-early@" + sipp->hostPort()));
        EXPECT_EQ(pracks[i].header("Call-ID"), invites[0].header("Call-ID"));
        EXPECT_EQ(pracks[i].header("From"), invites[0].header("From"));
        EXPECT_EQ(pracks[i].toTag(), progress[0].toTag());
        EXPECT_NE(pracks[i].branch(), invites[0].branch());
    }
}

TEST_F(CallSippTest, AnswersSessionRefreshesAndAsksForTheIntervalOfA422) {
    startAlice(100);
    const Trace answeredTrace = answerAndWait("call_in_session_refreshed.xml");
    for (const auto& [cseq, sdp] : {std::pair{"1 INVITE", true}, std::pair{"2 UPDATE", false}, std::pair{"3 INVITE", true}}) {
        SCOPED_TRACE(cseq);
        const auto ok = responses(answeredTrace, true, 200, cseq);
        ASSERT_FALSE(ok.empty());
        EXPECT_EQ(ok[0].header("Session-Expires"), "90;refresher=uac");
        EXPECT_EQ(ok[0].header("Require"), "timer");
        EXPECT_EQ(ok[0].body().find("m=audio ") != std::string::npos, sdp);
    }

    test::SippRunner* sipp = startSipp("call_out_session_422.xml");
    ASSERT_TRUE(sipp);
    const int call = ua->makeCall(lineId, "sip:bob@" + sipp->hostPort());
    const auto invites = requests(endsAs(sipp, call, {"Calling", "Connected", "Terminated"}), true, "INVITE");
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

TEST_F(CallSippTest, ServesAReferWithANewCallAndNotifiesItsProgress) {
    test::SippRunner* carol = startSipp("call_out_transfer_target.xml");
    ASSERT_TRUE(carol);
    startAlice(100);
    // SIPp checks the 400 to a REFER without Refer-To, and the 202.
    const Trace trace = answerAndWait("call_in_refer.xml", {"-key", "carol_port", std::to_string(carol->port())});
    // The transferred call: ours to carol, which she ends.
    ASSERT_TRUE(waitFor([&] { return events->now().callStates.size() == 2; }, 5s));
    const int transferred = events->now().callStates.rbegin()->first;
    endsAs(carol, transferred, {"Calling", "Ringing", "Connected", "Terminated"});

    const auto notifies = requests(trace, true, "NOTIFY");
    const auto invite = requests(trace, false, "INVITE");
    const auto ok = responses(trace, true, 200, "1 INVITE");
    ASSERT_FALSE(invite.empty() || ok.empty());
    ASSERT_EQ(notifies.size(), 3u);
    const std::pair<const char*, const char*> expected[] = {{"active;expires=60", "SIP/2.0 100 Trying"},
                                                            {"active;expires=60", "SIP/2.0 180 Ringing"},
                                                            {"terminated;reason=noresource", "SIP/2.0 200 OK"}};
    for (size_t i = 0; i < notifies.size(); ++i) {
        SCOPED_TRACE("NOTIFY " + std::to_string(i + 1));
        EXPECT_EQ(notifies[i].header("Event"), "refer");
        EXPECT_EQ(notifies[i].header("Subscription-State"), expected[i].first);
        EXPECT_EQ(notifies[i].header("Content-Type"), "message/sipfrag;version=2.0");
        EXPECT_TRUE(notifies[i].body().starts_with(expected[i].second)) << notifies[i].body();
        // Within the call's dialog: our tag in From, the caller's in To.
        EXPECT_EQ(Traced::param(notifies[i].header("From"), ";tag="), ok[0].toTag());
        EXPECT_EQ(notifies[i].toTag(), Traced::param(invite[0].header("From"), ";tag="));
        EXPECT_EQ(notifies[i].header("Call-ID"), invite[0].header("Call-ID"));
    }
    const auto carolInvite = requests(readTrace(carol->messages()), true, "INVITE");
    ASSERT_EQ(carolInvite.size(), 1u);
    EXPECT_THAT(carolInvite[0].startLine(), HasSubstr("INVITE sip:carol@" + carol->hostPort()));
    EXPECT_THAT(carolInvite[0].header("Referred-By"), HasSubstr("<sip:sipp@127.0.0.1:"));
}

// Answers every call at once and counts those that ended as SIPp planned.
class Answerer final : public UserAgentListener {
public:
    explicit Answerer(UserAgent& ua) : ua_(ua) {}
    void onIncomingCall(const CallInfo& call) override {
        ua_.eventLoop().post([this, id = call.id] { (void)ua_.answerCall(id); });
    }
    void onCallState(const CallInfo& call) override { completed += call.reason == "Remote hangup"; }
    std::atomic<int> completed{0};

private:
    UserAgent& ua_;
};

// Sanitizers hold freed memory back (quarantine, shadow): resident memory
// says nothing about the stack there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryMeasurable = false;
#else
constexpr bool kMemoryMeasurable = true;
#endif

// A line of /proc/self/status ("Threads", "VmRSS") as a number.
int64_t processFigure(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name + ":")) return std::atoll(line.c_str() + name.size() + 1);
    }
    return -1;
}

TEST_F(CallSippTest, AtTwiceItsCapacityCompletesCallsAtCapacityRefusesTheRestReturnsToIdleAndStopsPromptly) {
    log::setLevel(LogLevel::Warn);  // thousands of messages: keep only what matters
    UserAgentConfig config = loopbackConfig(false, 50);
    config.maxCalls = 1000;
    config.maxCallsInProgress = 10;
    ua = startUserAgent(config);
    ASSERT_TRUE(ua);
    ASSERT_GT(addAlice(*ua, ""), 0);
    auto answerer = std::make_shared<Answerer>(*ua);
    ua->setListener(answerer);
    // 10 calls of 200 ms at a time: 50 calls a second. SIPp offers 100.
    constexpr int kCapacity = 50;
    constexpr int kOffered = 100;
    constexpr int kCalls = 300;
    struct Outcome {
        int completed = 0;
        int refused = 0;
        int64_t threads = 0;  // once the calls are gone
        int64_t rssKb = 0;
    };
    auto burst = [&](int calls) {
        Outcome out{-answerer->completed};
        auto* sipp = start<test::SippRunner>(test::SippOptions{"call_in_load.xml", ua->localAddress(TransportKind::Udp).toString(),
                                                               calls, 30s, {"-r", std::to_string(kOffered), "-d", "200"}});
        EXPECT_TRUE(sipp != nullptr && sipp->waitForExit(40s) == 0) << "a call neither completed nor got 503";
        std::set<std::string> refused;
        for (const Traced& m : responses(sipp ? readTrace(sipp->messages()) : Trace{}, true, 503, "1 INVITE")) {
            EXPECT_EQ(m.header("Retry-After"), "5");
            refused.insert(m.header("Call-ID"));
        }
        out.refused = static_cast<int>(refused.size());
        // Calls end with their BYE; transactions linger 64 x T1 (3.2 s here) for retransmissions.
        EXPECT_TRUE(waitFor([&] {
            const UserAgentLoad now = ua->load();
            return now.calls == 0 && now.serverTransactions == 0 && now.clientTransactions == 0;
        }, 10s));
        out.completed += answerer->completed;
        out.threads = processFigure("Threads");
        out.rssKb = processFigure("VmRSS");
        return out;
    };
    // What the first burst sets up stays (the RTP service, the allocator's
    // pools): the second must leave nothing more behind.
    const Outcome idle = burst(kCalls);
    const Outcome loaded = burst(kCalls);
    EXPECT_LE(loaded.threads, idle.threads);
    if (kMemoryMeasurable) {
        EXPECT_LE(loaded.rssKb, idle.rssKb + idle.rssKb / 10) << idle.rssKb;
    }
    // Stopped while SIPp still calls: within its bound (no un-REGISTER to wait for, so 1 s).
    ASSERT_TRUE(start<test::SippRunner>(test::SippOptions{"call_in_load.xml", ua->localAddress(TransportKind::Udp).toString(),
                                                          kCalls, 30s, {"-r", std::to_string(kOffered), "-d", "200"}}));
    ASSERT_TRUE(waitFor([&] { return ua->load().calls >= 5; }, 10s));
    const auto stopping = std::chrono::steady_clock::now();
    ua->shutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, 1s);
    EXPECT_EQ(loaded.completed + loaded.refused, kCalls);
    EXPECT_GE(loaded.completed, kCapacity * kCalls / kOffered * 9 / 10) << loaded.refused << " refused";
    EXPECT_GT(loaded.refused, kCalls / 4);
    EXPECT_TRUE(logs().has("overload: 10 calls in progress, refusing new calls"));
}

}  // namespace
}  // namespace kelsip
