// Shutdown takes back what the phone told servers about itself and waits,
// within one bound, until every withdrawal has its answer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/log_capture.h"
#include "support/scripted_peer.h"
#include "sip/ua/user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

// Whichever withdrawal is answered first, shutdown waits for the other.
TEST(ShutdownTest, WaitsForTheAnswersToTheUnsubscribeAndThePublishRemoval) {
    for (const std::string answeredFirst : {"PUBLISH", "SUBSCRIBE"}) {
        SCOPED_TRACE(answeredFirst + " answered first");
        test::ScriptedPeer peer;
        test::LogCapture logs;
        const test::ScriptedPeer::Pump idle = [] {};
        UserAgentConfig config;
        config.bindAddress = "127.0.0.1";
        config.udpPort = 0;
        config.tcpPort = -1;
        UserAgent ua(config);
        ASSERT_TRUE(ua.start());
        LineConfig line;
        line.user = "alice";
        line.domain = peer.hostPort();
        const int id = ua.addLine(line);
        ASSERT_TRUE(ua.setPresence(id, PresenceStatus{true, "", "", ""}));
        const auto publish = peer.expect("PUBLISH", idle);
        ASSERT_TRUE(publish);
        peer.answer(*publish, 200, "SIP-ETag: e1\r\nExpires: 3600\r\n");
        ASSERT_TRUE(logs.waitForLine("line " + std::to_string(id) + ": presence published for 3600 s"));
        ASSERT_GT(ua.subscribe(id, "sip:mailbox@" + peer.hostPort(), "message-summary", 600), 0);
        const auto subscribe = peer.expect("SUBSCRIBE", idle);
        ASSERT_TRUE(subscribe);
        peer.answer(*subscribe, 200, "Expires: 600\r\n");

        std::atomic<bool> returned{false};
        std::thread stopping([&] {
            ua.shutdown(3000ms);
            returned = true;
        });
        // The un-SUBSCRIBE goes first, in the subscription's dialog, then the
        // removal; a slow machine may still repeat a first request, so only
        // the withdrawals count.
        const auto withdrawal = [](const SipMessage& m) { return m.expires() == 0; };
        const auto unsubscribe = peer.expect("SUBSCRIBE", idle, 5s, withdrawal);
        ASSERT_TRUE(unsubscribe);
        EXPECT_EQ(unsubscribe->toTag(), "peer");
        const auto removal = peer.expect("PUBLISH", idle, 5s, withdrawal);
        ASSERT_TRUE(removal);
        EXPECT_EQ(removal->header("SIP-If-Match"), "e1");
        const std::string answeredLast = answeredFirst == "PUBLISH" ? "SUBSCRIBE" : "PUBLISH";
        peer.answer(answeredFirst == "PUBLISH" ? *removal : *unsubscribe, 200);
        // Still unanswered, the other one is repeated and shutdown waits on.
        const auto repeated = peer.expect(answeredLast, idle, 5s, withdrawal);
        ASSERT_TRUE(repeated);
        EXPECT_FALSE(returned);
        peer.answer(*repeated, 200);
        stopping.join();
        EXPECT_TRUE(returned);
    }
}

}  // namespace
}  // namespace kelsip
