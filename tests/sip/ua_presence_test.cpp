// Our presence against a scripted peer, in virtual time: a watcher's subscription, our publication.
#include <gtest/gtest.h>

#include <set>

#include "support/virtual_user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class Gatekeeper : public UserAgentListener {
public:
    void onWatcherRequest(WatcherRequest& request) override { asked.push_back(request.watcher + " " + request.event); }
    std::vector<std::string> asked;
};

class PresenceTest : public test::VirtualUserAgentTest {
protected:
    void SetUp() override {
        VirtualUserAgentTest::SetUp();
        ua->setListener(gate);
    }
    // The next new NOTIFY, skipping repeats sent while time jumped ahead of our answer.
    std::optional<SipMessage> expectNotify(std::chrono::milliseconds timeout = 2s) {
        return peer.expect("NOTIFY", pump, timeout, [this](const SipMessage& m) {
            return seen_.insert(m.callId() + " " + std::to_string(m.cseq() ? m.cseq()->number : 0)).second;
        });
    }
    std::string document(const PresenceStatus& status) { return buildPresenceDocument("sip:alice@" + us(), status); }
    std::shared_ptr<Gatekeeper> gate = std::make_shared<Gatekeeper>();

private:
    std::set<std::string> seen_;
};

TEST_F(PresenceTest, AWatcherHearsOurStateAndEveryChangeUntilItsSubscriptionRunsOut) {
    const int line = addLine("");  // peer to peer: watchers only, no PUBLISH
    const std::string accept = "Accept: application/pidf+xml\r\n";
    toUs({.method = "SUBSCRIBE", .callId = "w1", .extra = "Event: presence\r\nExpires: 600\r\n" + accept});
    const auto ok = peer.expectResponse(200, pump);
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok->expires(), 600);
    EXPECT_EQ(gate->asked, std::vector<std::string>{"sip:peer@" + peer.hostPort() + " presence"});
    auto notify = expectNotify();
    ASSERT_TRUE(notify);
    EXPECT_EQ(notify->header("Subscription-State"), "active;expires=600");
    EXPECT_EQ(notify->body, document({}));
    EXPECT_EQ(notify->fromTag(), ok->toTag());
    EXPECT_EQ(notify->toTag(), "peer");
    answer(*notify, 200);
    EXPECT_EQ(ua->presenceWatchers(line), std::vector<std::string>{"sip:peer@" + peer.hostPort()});
    advance(100s);
    const PresenceStatus busy{false, "in a meeting", "meeting", ""};
    ASSERT_TRUE(ua->setPresence(line, busy));
    notify = expectNotify();
    ASSERT_TRUE(notify);
    EXPECT_EQ(notify->header("Subscription-State"), "active;expires=500");
    EXPECT_EQ(notify->body, document(busy));
    EXPECT_TRUE(peer.quiet("PUBLISH", pump, 20ms));
    answer(*notify, 200);
    advance(499s);
    EXPECT_FALSE(expectNotify(20ms));
    advance(1s);
    const auto last = expectNotify();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->header("Subscription-State"), "terminated;reason=timeout");
    EXPECT_TRUE(ua->presenceWatchers(line).empty());
}

TEST_F(PresenceTest, ThePublicationIsRefreshedByItsTagModifiedAndWithdrawnWithItsLine) {
    const int line = addLine(peer.hostPort());
    ASSERT_TRUE(ua->setPresence(line, PresenceStatus{true, "at my desk", "", ""}));
    std::optional<SipMessage> publish = peer.expect("PUBLISH", pump);
    ASSERT_TRUE(publish);
    EXPECT_EQ(publish->expires(), 3600);
    answer(*publish, 200, "SIP-ETag: e1\r\nExpires: 120\r\n");
    // Refreshed 30 s before the 120 s run out: the tag, no body.
    EXPECT_EQ(nextWithin("PUBLISH", 120s, &publish), 90);
    EXPECT_EQ(publish->header("SIP-If-Match"), "e1");
    EXPECT_TRUE(publish->body.empty());
    answer(*publish, 200, "SIP-ETag: e2\r\nExpires: 120\r\n");
    // A change is a modify: the newest tag and the new document.
    const PresenceStatus away{false, "", "away", ""};
    ASSERT_TRUE(ua->setPresence(line, away));
    publish = peer.expect("PUBLISH", pump);
    ASSERT_TRUE(publish);
    EXPECT_EQ(publish->header("SIP-If-Match"), "e2");
    EXPECT_EQ(publish->body, buildPresenceDocument("sip:alice@" + peer.hostPort(), away));
    answer(*publish, 200, "SIP-ETag: e3\r\nExpires: 3600\r\n");
    ASSERT_TRUE(ua->removeLine(line));
    publish = peer.expect("PUBLISH", pump);
    ASSERT_TRUE(publish);
    EXPECT_EQ(publish->expires(), 0);
    EXPECT_EQ(publish->header("SIP-If-Match"), "e3");
}

}  // namespace
}  // namespace kelsip
