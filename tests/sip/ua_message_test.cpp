// Instant messages against a scripted peer, in virtual time: the MESSAGE's
// form, its digest answers, the one result each message gets, and the
// messages that arrive.
#include <gtest/gtest.h>

#include "sip/auth/digest.h"
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
    std::optional<SipMessage> expectMessage() { return peer.expect("MESSAGE", pump, 2s); }
    // Everything reported once the loop has caught up.
    std::vector<std::string> reported(size_t atLeast) {
        std::vector<std::string> all;
        (void)test::waitFor([&] {
            pump();
            for (auto& e : inbox->take()) all.push_back(std::move(e));
            return all.size() >= atLeast;
        }, 2s);
        return all;
    }
    std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
    int line = 0;
};

TEST_F(MessageTest, SendsTheMessageAndAnswersAProxyChallengeOnce) {
    const int id = ua->sendMessage(line, "bob", "Lunch at one?", "");
    ASSERT_GT(id, 0);
    const auto first = expectMessage();
    ASSERT_TRUE(first);
    EXPECT_EQ(headerNames(*first), (std::vector<std::string>{"Via", "Max-Forwards", "From", "To", "Call-ID", "CSeq",
                                                             "User-Agent", "Content-Type", "Content-Length"}));
    EXPECT_EQ(first->requestUri.toString(), "sip:bob@" + peer.hostPort());
    EXPECT_EQ(first->header("CSeq"), "1 MESSAGE");
    EXPECT_EQ(first->header("Content-Type"), "text/plain");
    EXPECT_EQ(first->body, "Lunch at one?");
    answer(*first, 407, "Proxy-Authenticate: Digest realm=\"test\", nonce=\"n1\", qop=\"auth\"\r\n");
    const auto second = expectMessage();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->header("CSeq"), "2 MESSAGE");
    EXPECT_EQ(second->callId(), first->callId());
    EXPECT_EQ(second->fromTag(), first->fromTag());
    EXPECT_NE(second->vias().front(), first->vias().front());  // a new transaction
    const std::string credentials = second->header("Proxy-Authorization").value_or("");
    EXPECT_NE(credentials.find("nc=00000001"), std::string::npos) << second->toString();
    DigestChallenge challenge = *parseChallenge("Digest realm=\"test\", nonce=\"n1\", qop=\"auth\"", true);
    DigestRequest request{"alice", "secret", "MESSAGE", "sip:bob@" + peer.hostPort(), 1, ""};
    const size_t at = credentials.find("cnonce=\"") + 8;
    request.cnonce = credentials.substr(at, credentials.find('"', at) - at);
    EXPECT_NE(credentials.find("response=\"" + computeResponse(challenge, request) + "\""), std::string::npos);
    answer(*second, 200);
    EXPECT_EQ(reported(1), std::vector<std::string>{"result " + std::to_string(id) + " 200 OK"});
    EXPECT_TRUE(logs.has("MESSAGE " + std::to_string(id) + " -> 200"));
    // The 200's retransmission reports nothing more.
    answer(*second, 200);
    EXPECT_EQ(reported(1), std::vector<std::string>{});
}

TEST_F(MessageTest, GivesUpAfterTwoChallengesAndReportsNoAnswerAs408) {
    const int refused = ua->sendMessage(line, "bob", "one", "text/plain");
    for (int i = 0; i < 3; ++i) {
        const auto m = expectMessage();
        ASSERT_TRUE(m) << i;
        answer(*m, 401, "WWW-Authenticate: Digest realm=\"test\", nonce=\"n" + std::to_string(i) + "\"\r\n");
    }
    EXPECT_EQ(reported(1), std::vector<std::string>{"result " + std::to_string(refused) + " 401 Unauthorized"});
    EXPECT_TRUE(peer.quiet("MESSAGE", pump, 20ms));
    const int unanswered = ua->sendMessage(line, "bob", "two", "application/im-iscomposing+xml");
    const auto m = expectMessage();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->header("Content-Type"), "application/im-iscomposing+xml");
    advance(33s);
    EXPECT_EQ(reported(1), std::vector<std::string>{"result " + std::to_string(unanswered) + " 408 Request Timeout"});
    EXPECT_EQ(reported(1), std::vector<std::string>{});
}

TEST_F(MessageTest, AnswersMessagesThatArriveAndRefusesOversizedOnes) {
    const auto arrive = [&](const std::string& callId, const std::string& type, const std::string& body) {
        toUs("MESSAGE sip:alice@" + us() + " SIP/2.0\r\nVia: SIP/2.0/UDP " + peer.hostPort() + ";branch=z9hG4bK" +
             callId + "\r\nMax-Forwards: 70\r\nFrom: \"Bob\" <sip:bob@" + peer.hostPort() + ">;tag=b\r\nTo: <sip:alice@" +
             us() + ">\r\nCall-ID: " + callId + "\r\nCSeq: 1 MESSAGE\r\n" +
             (type.empty() ? "" : "Content-Type: " + type + "\r\n") + "Content-Length: " +
             std::to_string(body.size()) + "\r\n\r\n" + body);
    };
    arrive("m1", "text/plain;charset=UTF-8", "Are you free?");
    EXPECT_TRUE(peer.expectResponse(200, pump));
    arrive("m2", "", "no type");
    EXPECT_TRUE(peer.expectResponse(200, pump));
    EXPECT_EQ(reported(2), (std::vector<std::string>{
                               "in " + std::to_string(line) + " sip:bob@" + peer.hostPort() +
                                   " text/plain;charset=UTF-8 Are you free?",
                               "in " + std::to_string(line) + " sip:bob@" + peer.hostPort() + " text/plain no type"}));
    arrive("m3", "text/plain", std::string(20000, 'x'));
    EXPECT_TRUE(peer.expectResponse(413, pump));
    EXPECT_EQ(reported(1), std::vector<std::string>{});
}

}  // namespace
}  // namespace kelsip
