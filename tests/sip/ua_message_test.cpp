// Instant messages against a scripted peer, in virtual time: challenges, results and arriving messages.
#include <gtest/gtest.h>

#include "support/virtual_user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class Inbox : public UserAgentListener, public test::EventLines {
public:
    void onMessage(int line, const std::string& from, const std::string& type, const std::string& body) override {
        add("in " + std::to_string(line) + " " + from + " " + type + " " + body);
    }
    void onMessageResult(int id, int code, const std::string& reason) override {
        add("result " + std::to_string(id) + " " + std::to_string(code) + " " + reason);
    }
};

class MessageTest : public test::VirtualUserAgentTest {
protected:
    void SetUp() override {
        VirtualUserAgentTest::SetUp();
        ua->setListener(inbox);
        line = addLine(peer.hostPort());
    }
    // Everything reported once the loop has caught up.
    std::vector<std::string> reported(size_t atLeast) {
        std::vector<std::string> all;
        (void)settle([&] {
            for (auto& e : inbox->take()) all.push_back(std::move(e));
            return all.size() >= atLeast;
        }, 2s);
        return all;
    }
    std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
    int line = 0;
};

TEST_F(MessageTest, GivesUpAfterTwoChallengesAndReportsNoAnswerAs408) {
    const int refused = ua->sendMessage(line, "bob", "one", "text/plain");
    for (int i = 0; i < 3; ++i) {
        const auto m = peer.expect("MESSAGE", pump);
        ASSERT_TRUE(m) << i;
        const std::string nonce = "nonce=\"n" + std::to_string(i - 1) + "\"";  // of the last challenge
        EXPECT_EQ(m->header("Authorization").value_or("").find(nonce) != std::string::npos, i > 0);
        answer(*m, 401, "WWW-Authenticate: Digest realm=\"test\", nonce=\"n" + std::to_string(i) + "\"\r\n");
    }
    EXPECT_EQ(reported(1), std::vector<std::string>{"result " + std::to_string(refused) + " 401 Unauthorized"});
    EXPECT_TRUE(peer.quiet("MESSAGE", pump, 20ms));
    const int unanswered = ua->sendMessage(line, "bob", "two", "application/im-iscomposing+xml");
    ASSERT_TRUE(peer.expect("MESSAGE", pump));
    advance(33s);
    EXPECT_EQ(reported(1), std::vector<std::string>{"result " + std::to_string(unanswered) + " 408 Request Timeout"});
    EXPECT_EQ(reported(1), std::vector<std::string>{});
}

TEST_F(MessageTest, AnswersMessagesThatArriveAndRefusesOversizedOnes) {
    const std::string from = "in " + std::to_string(line) + " sip:peer@" + peer.hostPort();
    const struct {
        const char* type;
        std::string body;
        int code;
        const char* reported;  // after `from`; nullptr: nothing
    } cases[] = {
        {"Content-Type: text/plain;charset=UTF-8\r\n", "Are you free?", 200, " text/plain;charset=UTF-8 Are you free?"},
        {"", "no type", 200, " text/plain no type"},
        {"Content-Type: text/plain\r\n", std::string(20000, 'x'), 413, nullptr},
    };
    int n = 0;
    for (const auto& c : cases) {
        toUs({.method = "MESSAGE", .callId = "m" + std::to_string(++n), .extra = c.type, .body = c.body});
        EXPECT_TRUE(peer.expectResponse(c.code, pump)) << c.body;
        const auto expected = c.reported ? std::vector<std::string>{from + c.reported} : std::vector<std::string>{};
        EXPECT_EQ(reported(expected.size()), expected);
    }
}

}  // namespace
}  // namespace kelsip
