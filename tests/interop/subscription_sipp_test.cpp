// Subscriptions and presence against SIPp, whose scenarios
// (tests/interop/sipp/mwi_*.xml, publish_etag.xml, watcher_*.xml) play the
// voicemail server, a registrar telling of waiting messages unasked, a
// presence server that loses our entity tag, and watchers of our presence.
// SIPp checks the headers that must be exact; times, tags and bodies that
// differ from one request to the next are read from its message trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "interop/support/interop_test.h"
#include "interop/support/sipp_trace.h"
#include "sip/ua/user_agent.h"
#include "support/wait.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

using test::readTrace;
using test::select;
using test::Traced;
using test::waitFor;

struct Body {
    int subscription = 0;
    std::string event;
    std::string body;
};

class SubscriptionEvents final : public UserAgentListener {
public:
    void onSubscriptionState(const SubscriptionInfo& info) override {
        const std::lock_guard lock(mutex_);
        states_[info.id].push_back(info.state);
        last_[info.id] = info;
    }
    void onNotifyState(int id, const std::string& state) override {
        const std::lock_guard lock(mutex_);
        notifyStates_[id].push_back(state);
    }
    void onSubscriptionBody(int id, const std::string& event, const std::string& body) override {
        const std::lock_guard lock(mutex_);
        bodies_.push_back({id, event, body});
    }
    void onWatcherRequest(WatcherRequest& request) override {
        const std::lock_guard lock(mutex_);
        watchers_.push_back(request);
        request.accept = request.watcher.find(refused_) == std::string::npos;
    }

    // Watchers whose address holds this text are refused.
    void refuse(const std::string& text) {
        const std::lock_guard lock(mutex_);
        refused_ = text;
    }
    std::vector<std::string> states(int id) {
        const std::lock_guard lock(mutex_);
        return states_[id];
    }
    SubscriptionInfo last(int id) {
        const std::lock_guard lock(mutex_);
        return last_[id];
    }
    std::vector<std::string> notifyStates(int id) {
        const std::lock_guard lock(mutex_);
        return notifyStates_[id];
    }
    std::vector<Body> bodies() {
        const std::lock_guard lock(mutex_);
        return bodies_;
    }
    std::vector<WatcherRequest> watchers() {
        const std::lock_guard lock(mutex_);
        return watchers_;
    }

private:
    std::mutex mutex_;
    std::string refused_ = "\n";  // no address holds a line break
    std::map<int, std::vector<std::string>> states_;
    std::map<int, SubscriptionInfo> last_;
    std::map<int, std::vector<std::string>> notifyStates_;
    std::vector<Body> bodies_;
    std::vector<WatcherRequest> watchers_;
};

class SubscriptionSippTest : public test::InteropTest {
protected:
    // Alice on UDP; with a domain her presence is published there.
    void startAlice(const std::string& domain = "") {
        ua = startLoopbackUserAgent(loopbackConfig(false), events);
        ASSERT_TRUE(ua);
        LineConfig line;
        line.user = "alice";
        line.domain = domain;
        line.reregisterOnFailure = false;
        lineId = ua->addLine(line);
        ASSERT_GT(lineId, 0);
    }

    // SIPp sending to us.
    test::SippRunner* startClient(const std::string& scenario) {
        test::SippOptions options;
        options.scenario = scenario;
        options.remote = ua->localAddress(TransportKind::Udp).toString();
        options.timeout = 10s;
        return startSipp(options);
    }

    // SIPp answering, for `calls` calls.
    test::SippRunner* startServer(const std::string& scenario, int calls = 1) {
        test::SippOptions options;
        options.scenario = scenario;
        options.calls = calls;
        options.timeout = 15s;
        return startSipp(options);
    }

    std::vector<Body> bodiesOf(int subscription) {
        std::vector<Body> out;
        for (const Body& b : events->bodies()) {
            if (b.subscription == subscription) out.push_back(b);
        }
        return out;
    }

    std::shared_ptr<SubscriptionEvents> events = std::make_shared<SubscriptionEvents>();
    std::unique_ptr<UserAgent> ua;
    int lineId = 0;
};

// Seconds between two traced messages.
double secondsBetween(const Traced& earlier, const Traced& later) {
    return std::chrono::duration<double>(later.at - earlier.at).count();
}

// ---- message waiting ----

TEST_F(SubscriptionSippTest, MessageSummaryIsRefreshedWithinTheDialogAndEndsWithTheNotifiersLastNotify) {
    auto* voicemail = startServer("mwi_subscribe.xml");
    ASSERT_TRUE(voicemail);
    startAlice();
    const int id = ua->subscribe(lineId, "sip:alice@" + voicemail->hostPort(), "message-summary", 0);
    ASSERT_GT(id, 0);

    // The first NOTIFY, then the one after the refresh (which comes 2 s
    // into the 4 s SIPp grants).
    ASSERT_TRUE(waitFor([&] { return bodiesOf(id).size() >= 2; }, 6s))
        << bodiesOf(id).size() << " message summaries";
    const auto info = ua->subscriptionInfo(id);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->expires, 4);
    ASSERT_TRUE(ua->unsubscribe(id));
    ASSERT_TRUE(waitFor([&] { return events->last(id).state == "unsubscribed"; }, 5s)) << events->last(id).state;
    // SIPp fails the call unless every SUBSCRIBE carried what it checks.
    EXPECT_EQ(voicemail->waitForExit(5s), 0);

    // The refresh never took the subscription out of "active".
    EXPECT_THAT(events->states(id), ElementsAre("subscribing", "active", "unsubscribed"));
    EXPECT_EQ(events->last(id).statusCode, 0);
    EXPECT_THAT(events->notifyStates(id),
                ElementsAre("active;expires=4", "active;expires=4", "terminated;reason=timeout"));
    const auto bodies = bodiesOf(id);
    ASSERT_EQ(bodies.size(), 2U);
    EXPECT_EQ(bodies[0].event, "message-summary");
    EXPECT_THAT(bodies[0].body, HasSubstr("Messages-Waiting: yes"));
    EXPECT_THAT(bodies[0].body, HasSubstr("Voice-Message: 2/8 (0/2)"));
    EXPECT_THAT(bodies[1].body, HasSubstr("Voice-Message: 3/8 (1/2)"));
    EXPECT_TRUE(waitFor([&] { return !ua->subscriptionInfo(id); }, 1s)) << "an unsubscribed subscription is kept";

    // Three SUBSCRIBEs in one dialog: the CSeq rises, the Call-ID and our
    // tag stay, and the refresh came about 2 s after the 4 s were granted.
    const auto trace = readTrace(voicemail->messages());
    const auto subscribes = select(trace, [](const Traced& m) { return m.received && m.isRequest("SUBSCRIBE"); });
    ASSERT_EQ(subscribes.size(), 3U);
    EXPECT_EQ(subscribes[1].header("Call-ID"), subscribes[0].header("Call-ID"));
    EXPECT_EQ(subscribes[2].header("Call-ID"), subscribes[0].header("Call-ID"));
    EXPECT_EQ(subscribes[1].header("From"), subscribes[0].header("From"));
    EXPECT_EQ(subscribes[0].header("CSeq"), "1 SUBSCRIBE");
    EXPECT_EQ(subscribes[1].header("CSeq"), "2 SUBSCRIBE");
    EXPECT_EQ(subscribes[2].header("CSeq"), "3 SUBSCRIBE");
    // In-dialog requests go to the notifier's Contact, not the address first asked.
    EXPECT_EQ(subscribes[1].startLine(), "SUBSCRIBE sip:voicemail@" + voicemail->hostPort() + " SIP/2.0");
    const auto firstNotify = select(trace, [](const Traced& m) { return !m.received && m.isRequest("NOTIFY"); });
    ASSERT_FALSE(firstNotify.empty());
    const double refreshAfter = secondsBetween(firstNotify.front(), subscribes[1]);
    EXPECT_GT(refreshAfter, 1.5);
    EXPECT_LT(refreshAfter, 3.0);
}

TEST_F(SubscriptionSippTest, UnsolicitedMessageSummaryIsTakenAndReportedUnderSubscriptionZero) {
    startAlice();
    auto* registrar = startClient("mwi_unsolicited.xml");
    ASSERT_TRUE(registrar);
    // SIPp fails the call on any other answer: 200, 481, 200.
    EXPECT_EQ(registrar->waitForExit(10s), 0);

    // Only the readable summary is reported, under no subscription; the
    // unreadable one and the other package came before it.
    ASSERT_TRUE(waitFor([&] { return !events->bodies().empty(); }, 2s));
    const auto bodies = events->bodies();
    ASSERT_EQ(bodies.size(), 1U);
    EXPECT_EQ(bodies[0].subscription, 0);
    EXPECT_EQ(bodies[0].event, "message-summary");
    EXPECT_THAT(bodies[0].body, HasSubstr("Messages-Waiting: yes"));
    EXPECT_THAT(bodies[0].body, HasSubstr("Voice-Message: 2/8 (0/2)"));
    EXPECT_THAT(bodies[0].body, Not(HasSubstr("You have mail")));
}

// ---- publication ----

TEST_F(SubscriptionSippTest, PublishRefreshesByEntityTagAndPublishesAfreshAfterA412) {
    auto* server = startServer("publish_etag.xml", 4);
    ASSERT_TRUE(server);
    startAlice(server->hostPort());
    PresenceStatus status;
    status.open = true;
    status.note = "In the lab";
    ASSERT_TRUE(ua->setPresence(lineId, status));

    // First publication, the refresh refused with 412, the fresh
    // publication at once, and its own refresh: four calls of SIPp.
    EXPECT_EQ(server->waitForExit(10s), 0);
    const auto trace = readTrace(server->messages());
    const auto publishes = select(trace, [](const Traced& m) { return m.received && m.isRequest("PUBLISH"); });
    const auto answers = select(trace, [](const Traced& m) { return !m.received && m.status() >= 200; });
    ASSERT_EQ(publishes.size(), 4U);
    ASSERT_EQ(answers.size(), 4U);

    const std::string aor = "sip:alice@" + server->hostPort();
    for (const Traced& p : publishes) {
        EXPECT_EQ(p.startLine(), "PUBLISH " + aor + " SIP/2.0");
        EXPECT_THAT(p.header("To"), HasSubstr("<" + aor + ">"));
    }
    // The whole state: no tag to match, the PIDF document with the note.
    for (const size_t fresh : {size_t{0}, size_t{2}}) {
        SCOPED_TRACE("publication " + std::to_string(fresh + 1));
        EXPECT_EQ(publishes[fresh].header("SIP-If-Match"), "");
        EXPECT_EQ(publishes[fresh].header("Content-Type"), "application/pidf+xml");
        EXPECT_THAT(publishes[fresh].body(), HasSubstr("<basic>open</basic>"));
        EXPECT_THAT(publishes[fresh].body(), HasSubstr("<note>In the lab</note>"));
        EXPECT_THAT(publishes[fresh].body(), HasSubstr("entity=\"" + aor + "\""));
    }
    // Refreshes: the tag of the last 2xx, and nothing else.
    for (const auto& [refresh, tag] : {std::pair<size_t, const char*>{1, "etag-1"}, {3, "etag-3"}}) {
        SCOPED_TRACE("publication " + std::to_string(refresh + 1));
        EXPECT_EQ(publishes[refresh].header("SIP-If-Match"), tag);
        EXPECT_EQ(publishes[refresh].header("Content-Type"), "");
        EXPECT_EQ(publishes[refresh].header("Content-Length"), "0");
        // Halfway through the 4 s granted.
        const double after = secondsBetween(answers[refresh - 1], publishes[refresh]);
        EXPECT_GT(after, 1.5);
        EXPECT_LT(after, 3.0);
    }
    EXPECT_EQ(answers[0].status(), 200);
    EXPECT_EQ(answers[1].status(), 412);
    EXPECT_EQ(answers[2].status(), 200);
    EXPECT_EQ(answers[3].status(), 200);
    // The fresh publication follows the 412 at once, not at the next refresh.
    EXPECT_LT(secondsBetween(answers[1], publishes[2]), 0.5);
}

// ---- watchers of our presence ----

TEST_F(SubscriptionSippTest, WatcherGetsOurPresenceItsChangesAndTheEndOfItsSubscription) {
    startAlice();
    auto* watcher = startClient("watcher_subscribe.xml");
    ASSERT_TRUE(watcher);
    const std::string address = "sip:watcher@" + watcher->hostPort();
    ASSERT_TRUE(waitFor([&] { return !ua->presenceWatchers(lineId).empty(); }, 5s));
    EXPECT_THAT(ua->presenceWatchers(lineId), ElementsAre(address));

    PresenceStatus status;
    status.open = true;
    status.note = "Out to lunch & back at 2";
    ASSERT_TRUE(ua->setPresence(lineId, status));

    // SIPp fails the call unless both NOTIFYs, the answer to its
    // Expires: 0 and the final NOTIFY were as it checks.
    EXPECT_EQ(watcher->waitForExit(10s), 0);
    const auto asked = events->watchers();
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].line, lineId);
    EXPECT_EQ(asked[0].watcher, address);
    EXPECT_EQ(asked[0].event, "presence");
    EXPECT_TRUE(ua->presenceWatchers(lineId).empty());

    // Every NOTIFY belongs to the dialog the 200 made.
    const auto trace = readTrace(watcher->messages());
    const auto ok = select(trace, [](const Traced& m) { return m.received && m.isResponse(200, "1 SUBSCRIBE"); });
    const auto notifies = select(trace, [](const Traced& m) { return m.received && m.isRequest("NOTIFY"); });
    ASSERT_EQ(ok.size(), 1U);
    ASSERT_EQ(notifies.size(), 3U);
    for (const Traced& n : notifies) {
        EXPECT_THAT(n.header("From"), HasSubstr(";tag=" + ok[0].toTag()));
        EXPECT_EQ(n.startLine(), "NOTIFY " + address + " SIP/2.0");
    }
    EXPECT_LT(std::stoul(notifies[0].header("CSeq")), std::stoul(notifies[1].header("CSeq")));
    EXPECT_LT(std::stoul(notifies[1].header("CSeq")), std::stoul(notifies[2].header("CSeq")));
    EXPECT_THAT(notifies[0].body(), Not(HasSubstr("<note>")));
}

TEST_F(SubscriptionSippTest, WatcherTheUserRefusesGets403AndNoSubscription) {
    startAlice();
    events->refuse("stranger@");
    auto* stranger = startClient("watcher_refused.xml");
    ASSERT_TRUE(stranger);
    EXPECT_EQ(stranger->waitForExit(10s), 0);
    const auto asked = events->watchers();
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].watcher, "sip:stranger@" + stranger->hostPort());
    EXPECT_TRUE(ua->presenceWatchers(lineId).empty());
}

}  // namespace
}  // namespace kelsip
