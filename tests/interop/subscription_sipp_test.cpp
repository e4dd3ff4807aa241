// Subscriptions and presence against SIPp (mwi_*.xml, publish_etag.xml,
// watcher_*.xml), which checks the exact headers; times and tags are read from its trace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "interop/support/interop_test.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using test::readTrace;
using test::requests;
using test::Traced;
using test::waitFor;

class SubscriptionSippTest : public test::InteropTest {
protected:
    // Alice on UDP; with a domain her presence is published there.
    void startAlice(const std::string& domain = "") {
        ua = startUserAgent(loopbackConfig(false));
        ASSERT_TRUE(ua);
        lineId = addAlice(*ua, domain);
        ASSERT_GT(lineId, 0);
    }
    std::vector<test::Seen::Body> bodiesOf(int subscription) {
        std::vector<test::Seen::Body> out;
        for (const auto& b : events->now().bodies) {
            if (b.subscription == subscription) out.push_back(b);
        }
        return out;
    }
    static double secondsBetween(const Traced& earlier, const Traced& later) {
        return std::chrono::duration<double>(later.at - earlier.at).count();
    }

    std::unique_ptr<UserAgent> ua;
    int lineId = 0;
};

TEST_F(SubscriptionSippTest, MessageSummaryIsRefreshedWithinTheDialogAndEndsWithTheNotifiersLastNotify) {
    auto* voicemail = startSipp("mwi_subscribe.xml");
    ASSERT_TRUE(voicemail);
    startAlice();
    const int id = ua->subscribe(lineId, "sip:alice@" + voicemail->hostPort(), "message-summary", 0);
    ASSERT_GT(id, 0);

    // The first NOTIFY, then the one after the refresh, 2 s into the 4 s granted.
    ASSERT_TRUE(waitFor([&] { return bodiesOf(id).size() >= 2; }, 6s));
    EXPECT_EQ(ua->subscriptionInfo(id)->expires, 4);
    ASSERT_TRUE(ua->unsubscribe(id));
    ASSERT_TRUE(waitFor([&] { return events->now().lastSubscription[id].state == "unsubscribed"; }, 5s));
    EXPECT_EQ(voicemail->waitForExit(5s), 0);  // every SUBSCRIBE as SIPp checks

    const test::Seen seen = events->now();
    EXPECT_THAT(seen.subscriptionStates.at(id), ElementsAre("subscribing", "active", "unsubscribed"));
    EXPECT_EQ(seen.lastSubscription.at(id).statusCode, 0);
    EXPECT_THAT(seen.notifyStates.at(id), ElementsAre("active;expires=4", "active;expires=4", "terminated;reason=timeout"));
    const auto bodies = bodiesOf(id);
    ASSERT_EQ(bodies.size(), 2U);
    EXPECT_EQ(bodies[0].event, "message-summary");
    EXPECT_THAT(bodies[0].body, HasSubstr("Voice-Message: 2/8 (0/2)"));
    EXPECT_THAT(bodies[1].body, HasSubstr("Voice-Message: 3/8 (1/2)"));
    EXPECT_TRUE(waitFor([&] { return !ua->subscriptionInfo(id); }, 1s)) << "an unsubscribed subscription is kept";

    // Three SUBSCRIBEs in one dialog, the in-dialog ones to the notifier's Contact.
    const auto trace = readTrace(voicemail->messages());
    const auto subscribes = requests(trace, true, "SUBSCRIBE");
    ASSERT_EQ(subscribes.size(), 3U);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(subscribes[i].header("Call-ID"), subscribes[0].header("Call-ID"));
        EXPECT_EQ(subscribes[i].header("From"), subscribes[0].header("From"));
        EXPECT_EQ(subscribes[i].header("CSeq"), std::to_string(i + 1) + " SUBSCRIBE");
    }
    EXPECT_EQ(subscribes[1].startLine(), "SUBSCRIBE sip:voicemail@" + voicemail->hostPort() + " SIP/2.0");
    const auto notifies = requests(trace, false, "NOTIFY");
    ASSERT_FALSE(notifies.empty());
    EXPECT_GT(secondsBetween(notifies[0], subscribes[1]), 1.5);
    EXPECT_LT(secondsBetween(notifies[0], subscribes[1]), 3.0);
}

TEST_F(SubscriptionSippTest, UnsolicitedMessageSummaryIsTakenAndReportedUnderSubscriptionZero) {
    startAlice();
    auto* registrar = sippTo(*ua, "mwi_unsolicited.xml");
    ASSERT_TRUE(registrar);
    EXPECT_EQ(registrar->waitForExit(10s), 0);  // answered 200, 481, 200

    // Only the readable summary, after an unreadable one and another package.
    ASSERT_TRUE(waitFor([&] { return !events->now().bodies.empty(); }, 2s));
    const auto bodies = events->now().bodies;
    ASSERT_EQ(bodies.size(), 1U);
    EXPECT_EQ(bodies[0].subscription, 0);
    EXPECT_EQ(bodies[0].event, "message-summary");
    EXPECT_THAT(bodies[0].body, HasSubstr("Voice-Message: 2/8 (0/2)"));
    EXPECT_THAT(bodies[0].body, Not(HasSubstr("You have mail")));
}

TEST_F(SubscriptionSippTest, PublishRefreshesByEntityTagAndPublishesAfreshAfterA412) {
    auto* server = startSipp("publish_etag.xml", 4);
    ASSERT_TRUE(server);
    startAlice(server->hostPort());
    PresenceStatus status;
    status.open = true;
    status.note = "In the lab";
    ASSERT_TRUE(ua->setPresence(lineId, status));

    // The publication, its refresh refused 412, a fresh one at once, its refresh.
    EXPECT_EQ(server->waitForExit(10s), 0);
    const auto trace = readTrace(server->messages());
    const auto publishes = requests(trace, true, "PUBLISH");
    const auto answers = test::select(trace, [](const Traced& m) { return !m.received && m.status() >= 200; });
    ASSERT_EQ(publishes.size(), 4U);
    ASSERT_EQ(answers.size(), 4U);
    const std::string aor = "sip:alice@" + server->hostPort();
    const char* tags[] = {"", "etag-1", "", "etag-3"};
    const int statuses[] = {200, 412, 200, 200};
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE("publication " + std::to_string(i + 1));
        EXPECT_EQ(publishes[i].startLine(), "PUBLISH " + aor + " SIP/2.0");
        EXPECT_EQ(answers[i].status(), statuses[i]);
        EXPECT_EQ(publishes[i].header("SIP-If-Match"), tags[i]);
        if (*tags[i] == '\0') {  // the whole state
            EXPECT_EQ(publishes[i].header("Content-Type"), "application/pidf+xml");
            EXPECT_THAT(publishes[i].body(), HasSubstr("<note>In the lab</note>"));
            EXPECT_THAT(publishes[i].body(), HasSubstr("entity=\"" + aor + "\""));
        } else {  // a refresh halfway through the 4 s granted, without a body
            EXPECT_EQ(publishes[i].header("Content-Length"), "0");
            EXPECT_GT(secondsBetween(answers[i - 1], publishes[i]), 1.5);
            EXPECT_LT(secondsBetween(answers[i - 1], publishes[i]), 3.0);
        }
    }
    EXPECT_LT(secondsBetween(answers[1], publishes[2]), 0.5);
}

TEST_F(SubscriptionSippTest, WatcherGetsOurPresenceAndItsEndAndARefusedOneGets403) {
    startAlice();
    auto* watcher = sippTo(*ua, "watcher_subscribe.xml");
    ASSERT_TRUE(watcher);
    const std::string address = "sip:watcher@" + watcher->hostPort();
    ASSERT_TRUE(waitFor([&] { return !ua->presenceWatchers(lineId).empty(); }, 5s));
    EXPECT_THAT(ua->presenceWatchers(lineId), ElementsAre(address));
    PresenceStatus status;
    status.open = true;
    status.note = "Out to lunch & back at 2";
    ASSERT_TRUE(ua->setPresence(lineId, status));

    // Both NOTIFYs, the answer to its Expires: 0 and the final NOTIFY as SIPp checks.
    EXPECT_EQ(watcher->waitForExit(10s), 0);
    auto asked = events->now().watchers;
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].line, lineId);
    EXPECT_EQ(asked[0].watcher, address);
    EXPECT_EQ(asked[0].event, "presence");
    EXPECT_TRUE(ua->presenceWatchers(lineId).empty());
    // Every NOTIFY in the dialog the 200 made, CSeq rising.
    const auto trace = readTrace(watcher->messages());
    const auto ok = test::responses(trace, true, 200, "1 SUBSCRIBE");
    const auto notifies = requests(trace, true, "NOTIFY");
    ASSERT_EQ(ok.size(), 1U);
    ASSERT_EQ(notifies.size(), 3U);
    for (size_t i = 0; i < notifies.size(); ++i) {
        EXPECT_THAT(notifies[i].header("From"), HasSubstr(";tag=" + ok[0].toTag()));
        EXPECT_EQ(notifies[i].startLine(), "NOTIFY " + address + " SIP/2.0");
        if (i > 0) {
            EXPECT_LT(std::stoul(notifies[i - 1].header("CSeq")), std::stoul(notifies[i].header("CSeq")));
        }
    }
    EXPECT_THAT(notifies[0].body(), Not(HasSubstr("<note>")));

    events->refuse("stranger@");
    auto* stranger = sippTo(*ua, "watcher_refused.xml");
    ASSERT_TRUE(stranger);
    EXPECT_EQ(stranger->waitForExit(10s), 0);
    asked = events->now().watchers;
    ASSERT_EQ(asked.size(), 2U);
    EXPECT_EQ(asked[1].watcher, "sip:stranger@" + stranger->hostPort());
    EXPECT_TRUE(ua->presenceWatchers(lineId).empty());
}

}  // namespace
}  // namespace kelsip
