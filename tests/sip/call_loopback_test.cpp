// User agents calling each other peer to peer on loopback: an attended transfer with Replaces,
// and a phone that shuts down with calls up.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>

#include "sip/ua/user_agent.h"
#include "support/wait.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

struct Recorder final : UserAgentListener {
    void onIncomingCall(const CallInfo& call) override { incoming = call.id; }
    void onCallState(const CallInfo& call) override {
        const std::lock_guard lock(mutex);
        states[call.id] = call.state + " " + call.reason;
    }
    void onTransferProgress(int, int statusCode, const std::string&) override { transfer = statusCode; }
    // Whether `call`'s state line comes to start with `state` ("State Reason").
    bool reaches(int call, const std::string& state) {
        return test::waitFor([&] {
            const std::lock_guard lock(mutex);
            return states[call].rfind(state, 0) == 0;
        }, 5s);
    }
    std::mutex mutex;
    std::map<int, std::string> states;
    std::atomic<int> incoming{0};
    std::atomic<int> transfer{0};
};

struct Phone {
    explicit Phone(const std::string& user) {
        UserAgentConfig config;
        config.bindAddress = "127.0.0.1";
        config.udpPort = 0;
        config.tcpPort = -1;
        config.rtpPortMin = 42000;
        config.rtpPortMax = 42999;
        ua = std::make_unique<UserAgent>(config);
        EXPECT_TRUE(ua->start());
        ua->setListener(events);
        LineConfig line;
        line.user = user;
        lineId = ua->addLine(line);
        uri = "sip:" + user + "@" + ua->localAddress(TransportKind::Udp).toString();
    }
    // Answers the newest incoming call, once one newer than `after` rings.
    int answerNext(int after) {
        int id = 0;
        EXPECT_TRUE(test::waitFor([&] { return (id = events->incoming) > after; }, 5s));
        EXPECT_TRUE(ua->answerCall(id));
        return id;
    }
    std::shared_ptr<Recorder> events = std::make_shared<Recorder>();
    std::unique_ptr<UserAgent> ua;
    int lineId = 0;
    std::string uri;
};

// Bob talks to Alice, consults Carol, then joins them: Alice calls Carol
// with Replaces, and Carol's new call takes the place of the one with Bob.
TEST(CallLoopbackTest, AttendedTransferReplacesTheConsultationCall) {
    Phone alice("alice");
    Phone bob("bob");
    Phone carol("carol");
    const int a = alice.ua->makeCall(alice.lineId, bob.uri);
    const int b1 = bob.answerNext(0);
    ASSERT_TRUE(alice.events->reaches(a, "Connected"));
    const int b2 = bob.ua->makeCall(bob.lineId, carol.uri);
    const int c1 = carol.answerNext(0);
    ASSERT_TRUE(bob.events->reaches(b2, "Connected"));
    ASSERT_TRUE(bob.ua->transferCallAttended(b1, b2));
    const int c2 = carol.answerNext(c1);
    EXPECT_EQ(carol.ua->callInfo(c2)->remoteUri.rfind("sip:alice@", 0), 0U);
    EXPECT_TRUE(carol.events->reaches(c2, "Connected"));
    EXPECT_TRUE(carol.events->reaches(c1, "Terminated Replaced"));
    EXPECT_TRUE(bob.events->reaches(b2, "Terminated"));
    EXPECT_TRUE(test::waitFor([&] { return bob.events->transfer == 200; }, 5s));
}

// A phone that quits mid-call hangs up first: the connected call gets its
// BYE and the one still ringing its CANCEL, so no far phone keeps a dead call.
TEST(CallLoopbackTest, ShutdownEndsEveryCall) {
    Phone alice("alice");
    Phone bob("bob");
    Phone carol("carol");
    const int talking = alice.ua->makeCall(alice.lineId, bob.uri);
    const int b = bob.answerNext(0);
    ASSERT_TRUE(alice.events->reaches(talking, "Connected"));
    (void)alice.ua->makeCall(alice.lineId, carol.uri);
    ASSERT_TRUE(test::waitFor([&] { return carol.events->incoming > 0; }, 5s));
    const int c = carol.events->incoming;
    EXPECT_TRUE(alice.ua->shutdown(1s));
    EXPECT_TRUE(bob.events->reaches(b, "Terminated Remote hangup"));
    EXPECT_TRUE(carol.events->reaches(c, "Terminated"));
}

}  // namespace
}  // namespace kelsip
