// Subscriptions of ours against a scripted notifier, in virtual time: refresh times, forks, 423,
// termination reasons, expiry and unsubscribing.
#include <gtest/gtest.h>

#include "support/virtual_user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class Events : public UserAgentListener, public test::EventLines {
public:
    void onSubscriptionState(const SubscriptionInfo& s) override {
        add("state " + s.state + (s.reason.empty() ? "" : " " + s.reason) +
            (s.statusCode != 0 ? " " + std::to_string(s.statusCode) : ""));
    }
    void onSubscriptionBody(int id, const std::string& event, const std::string& body) override {
        add("body " + std::to_string(id) + " " + event + " " + body.substr(0, body.find('\r')));
    }
};

constexpr std::string_view kSummary = "Messages-Waiting: yes\r\nVoice-Message: 2/8 (0/2)\r\n";

class SubscriptionTest : public test::VirtualUserAgentTest {
protected:
    void SetUp() override {
        VirtualUserAgentTest::SetUp();
        ua->setListener(events);
        lineId = addLine(peer.hostPort());
    }
    int subscribe(int expires = 600) {
        return ua->subscribe(lineId, "sip:vm@" + peer.hostPort(), "message-summary", expires);
    }
    std::optional<SipMessage> expectSubscribe() { return peer.expect("SUBSCRIBE", pump, 2s); }
    // The notifier's NOTIFY within the dialog `subscribe` opened.
    void notify(const SipMessage& subscribe, const std::string& state, std::string_view body = kSummary,
                const std::string& tag = "peer") {
        const std::string type = body.empty() ? "" : "Content-Type: application/simple-message-summary\r\n";
        toUs({.method = "NOTIFY",
              .callId = subscribe.callId(),
              .extra = "Event: message-summary\r\nSubscription-State: " + state + "\r\n" + type,
              .body = std::string(body),
              .cseq = ++notifies_,
              .toTag = subscribe.fromTag(),
              .fromTag = tag});
    }
    // Subscribes and lets the notifier accept with `expires` and an active NOTIFY.
    std::optional<SipMessage> activeSubscription(int& id, int expires = 600) {
        id = subscribe(expires);
        auto s = expectSubscribe();
        if (!s) return s;
        answer(*s, 200, "Expires: " + std::to_string(expires) + "\r\nContact: <sip:vm@" + peer.hostPort() + ">\r\n");
        notify(*s, "active;expires=" + std::to_string(expires));
        EXPECT_TRUE(peer.expectResponse(200, pump));
        return s;
    }
    // The subscription has been reported ended and forgotten.
    bool gone(int id) {
        return settle([&] { return !ua->subscriptionInfo(id); }, 2s);
    }
    std::vector<std::string> settledEvents() {
        pump();
        return events->take();
    }
    std::shared_ptr<Events> events = std::make_shared<Events>();
    int lineId = 0;

private:
    int notifies_ = 0;
};

TEST_F(SubscriptionTest, ANotifyBeforeTheTwoHundredSetsUpTheDialogThatIsRefreshedBeforeItExpires) {
    subscribe(600);
    const auto first = expectSubscribe();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->header("Accept"), "application/simple-message-summary");
    notify(*first, "pending;expires=600", "");
    ASSERT_TRUE(peer.expectResponse(200, pump));
    // The 2xx from another fork arrives later: the NOTIFY's dialog stays.
    answer(*first, 200, "Expires: 600\r\n", "late");
    notify(*first, "active;expires=600", kSummary, "other-fork");
    EXPECT_TRUE(peer.expectResponse(481, pump));
    notify(*first, "active;expires=600");
    ASSERT_TRUE(peer.expectResponse(200, pump));
    EXPECT_EQ(settledEvents(), (std::vector<std::string>{"state subscribing", "state pending",
                                                         "body 1 message-summary Messages-Waiting: yes",
                                                         "state active"}));
    // 600 s granted: refreshed 30 s ahead, in the dialog.
    std::optional<SipMessage> refresh;
    EXPECT_EQ(nextWithin("SUBSCRIBE", 600s, &refresh), 570);
    ASSERT_TRUE(refresh);
    EXPECT_EQ(refresh->callId(), first->callId());
    EXPECT_EQ(refresh->toTag(), "peer");
    EXPECT_EQ(refresh->header("CSeq"), "2 SUBSCRIBE");
    EXPECT_EQ(refresh->requestUri.toString(), "sip:peer@" + peer.hostPort());  // the NOTIFY's Contact
    // The notifier grants less: 100 s, refreshed after 70.
    answer(*refresh, 200, "Expires: 100\r\n");
    EXPECT_EQ(nextWithin("SUBSCRIBE", 100s, &refresh), 70);
    ASSERT_TRUE(refresh);
    answer(*refresh, 200, "Expires: 100\r\n");
    // A NOTIFY that says 40 s are left moves the refresh to halfway.
    notify(*first, "active;expires=40");
    ASSERT_TRUE(peer.expectResponse(200, pump));
    EXPECT_EQ(nextWithin("SUBSCRIBE", 40s), 20);
}

TEST_F(SubscriptionTest, TerminationReasonsDecideWhetherAndWhenToSubscribeAgain) {
    const struct {
        const char* state;
        std::optional<int64_t> again;  // seconds until a new SUBSCRIBE; none: never
    } cases[] = {
        {"terminated;reason=deactivated", 0},
        {"terminated;reason=probation;retry-after=30", 30},
        {"terminated", 60},
        {"terminated;reason=rejected", std::nullopt},
        {"terminated;reason=giveup;retry-after=5", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.state);
        int id = 0;
        const auto s = activeSubscription(id);
        ASSERT_TRUE(s);
        (void)settledEvents();
        notify(*s, c.state, "");
        ASSERT_TRUE(peer.expectResponse(200, pump));
        std::optional<SipMessage> renewed;
        EXPECT_EQ(nextWithin("SUBSCRIBE", 70s, &renewed), c.again);
        if (c.again) {
            // A new dialog of the same subscription.
            EXPECT_NE(renewed->callId(), s->callId());
            EXPECT_TRUE(renewed->toTag().empty());
            EXPECT_TRUE(ua->unsubscribe(id));
            answer(*renewed, 481);
            (void)settledEvents();
        } else {
            const auto after = settledEvents();
            ASSERT_FALSE(after.empty());
            EXPECT_EQ(after.back().rfind("state terminated", 0), 0u) << after.back();
            EXPECT_TRUE(gone(id));
        }
    }
}

TEST_F(SubscriptionTest, AnswersToTheSubscribeThatEndOrReshapeIt) {
    // 423: asked again at once with the notifier's minimum.
    const int first = subscribe(60);
    auto s = expectSubscribe();
    ASSERT_TRUE(s);
    answer(*s, 423, "Min-Expires: 1800\r\n");
    s = expectSubscribe();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->expires(), 1800);
    answer(*s, 200, "Expires: 1800\r\n");
    notify(*s, "active;expires=1800");
    ASSERT_TRUE(peer.expectResponse(200, pump));
    EXPECT_EQ(ua->subscriptionInfo(first)->expires, 1800);
    // Accepted, but no NOTIFY within 64*T1: tried again as a new subscription.
    const int second = subscribe();
    s = expectSubscribe();
    ASSERT_TRUE(s);
    answer(*s, 200, "Expires: 600\r\n");
    std::optional<SipMessage> again;
    EXPECT_EQ(nextWithin("SUBSCRIBE", 40s, &again), 32);
    EXPECT_NE(again->callId(), s->callId());
    EXPECT_TRUE(logs.has("subscription " + std::to_string(second) + ": no NOTIFY after the SUBSCRIBE was accepted"));
}

TEST_F(SubscriptionTest, UnsubscribingSendsExpiresZeroAndEndsWithTheLastNotify) {
    int id = 0;
    const auto s = activeSubscription(id);
    ASSERT_TRUE(s);
    (void)settledEvents();
    ASSERT_TRUE(ua->unsubscribe(id));
    EXPECT_FALSE(ua->unsubscribe(id));  // once is enough
    const auto bye = expectSubscribe();
    ASSERT_TRUE(bye);
    EXPECT_EQ(bye->expires(), 0);
    EXPECT_EQ(bye->toTag(), "peer");
    answer(*bye, 200, "Expires: 0\r\n");
    notify(*s, "terminated;reason=timeout", kSummary);
    ASSERT_TRUE(peer.expectResponse(200, pump));
    EXPECT_EQ(settledEvents(), (std::vector<std::string>{"body 1 message-summary Messages-Waiting: yes",
                                                         "state unsubscribed"}));
    EXPECT_TRUE(gone(id));
}

}  // namespace
}  // namespace kelsip
