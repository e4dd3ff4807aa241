// Registration against a scripted registrar in virtual time: form, challenges, refresh, retry, un-registering.
#include <gtest/gtest.h>

#include <regex>

#include "sip/auth/digest.h"
#include "support/virtual_user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class States : public UserAgentListener, public test::EventLines {
public:
    void onRegistrationState(int, RegistrationState state, int code, const std::string& reason) override {
        add(std::string(toString(state)) + " " + std::to_string(code) + (reason.empty() ? "" : " " + reason));
    }
};

class RegistrationTest : public test::VirtualUserAgentTest {
protected:
    RegistrationTest()
        : VirtualUserAgentTest(
              [](UserAgentConfig& config) { config.instanceId = "urn:uuid:00000000-0000-4000-8000-000000000001"; }) {}
    void SetUp() override {
        VirtualUserAgentTest::SetUp();
        ua->setListener(states);
    }
    std::optional<SipMessage> expectRegister() { return peer.expect("REGISTER", pump); }
    bool reach(int line, RegistrationState state) {
        return settle([&] { return ua->registrationState(line) == state; });
    }
    std::shared_ptr<States> states = std::make_shared<States>();
};

TEST_F(RegistrationTest, BuildsTheRegisterWithItsHeadersInOrder) {
    LineConfig c;
    c.user = "alice";
    c.displayName = "Alice A";
    c.domain = peer.hostPort();
    c.expires = 600;
    const int line = ua->addLine(c);
    ASSERT_TRUE(ua->registerLine(line));
    const auto reg = expectRegister();
    ASSERT_TRUE(reg);
    std::vector<std::string> names;
    for (const HeaderField& h : reg->headers()) {
        if (names.empty() || names.back() != h.name) names.push_back(h.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Via", "Max-Forwards", "From", "To", "Call-ID", "CSeq", "Contact",
                                               "Expires", "Allow", "Supported", "User-Agent", "Content-Length"}));
    EXPECT_EQ(reg->requestUri.toString(), "sip:" + peer.hostPort());
    EXPECT_EQ(reg->header("From")->find("\"Alice A\" <sip:alice@" + peer.hostPort() + ">;tag="), 0U);
    EXPECT_EQ(reg->contact(),
              "<sip:alice@" + us() + ">;+sip.instance=\"<urn:uuid:00000000-0000-4000-8000-000000000001>\"");
    EXPECT_EQ(reg->expires(), 600);
    // Asked again while that REGISTER is unanswered: no second one races it.
    EXPECT_TRUE(ua->registerLine(line));
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 50ms));
}

TEST_F(RegistrationTest, AnswersChallengesRefreshesAndUnregisters) {
    const int line = addLine(peer.hostPort());
    ASSERT_TRUE(ua->registerLine(line));
    const auto first = expectRegister();
    ASSERT_TRUE(first);
    const std::string challenge = R"(Digest realm="velmora.test", nonce="n1", qop="auth")";
    peer.answer(*first, 401, "WWW-Authenticate: " + challenge + "\r\n");
    const auto second = expectRegister();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->callId(), first->callId());
    EXPECT_EQ(second->cseq()->number, 2U);
    // Check the answer the way a registrar does: recompute it.
    const std::string auth = second->header("Authorization").value_or("");
    std::smatch cnonce;
    ASSERT_TRUE(std::regex_search(auth, cnonce, std::regex("cnonce=\"([^\"]+)\"")));
    const DigestRequest request{"alice", "secret", "REGISTER", "sip:" + peer.hostPort(), 1, cnonce[1].str()};
    const std::string response = computeResponse(*parseChallenge(challenge, false), request);
    EXPECT_NE(auth.find("nc=00000001"), std::string::npos) << auth;
    EXPECT_NE(auth.find("response=\"" + response + "\""), std::string::npos) << auth;
    const std::string other = "Contact: <sip:alice@192.0.2.99:5060>;expires=999, ";
    peer.answer(*second, 200, other + *second->contact() + ";expires=60\r\n");
    ASSERT_TRUE(reach(line, RegistrationState::Registered));
    EXPECT_EQ(ua->lineInfo(line)->expires, 60);  // our binding's, not the other device's
    // The refresh is authenticated at once, with the next count, and counts
    // its challenges afresh: two in a row are both answered.
    std::optional<SipMessage> refresh;
    EXPECT_EQ(nextWithin("REGISTER", 40s, &refresh), 30);
    for (const std::string nonce : {"n2", "n3"}) {
        ASSERT_TRUE(refresh) << nonce;
        EXPECT_EQ(refresh->header("Authorization")->find("nc=00000002") != std::string::npos, nonce == "n2");
        const std::string stale = R"(Digest realm="velmora.test", nonce=")" + nonce + "\", stale=true";
        peer.answer(*refresh, 401, "WWW-Authenticate: " + stale + "\r\n");
        refresh = expectRegister();
    }
    ASSERT_TRUE(refresh);
    answer(*refresh, 200, "Expires: 3600\r\n");  // taken before the state, unchanged, is checked
    ASSERT_TRUE(reach(line, RegistrationState::Registered));
    ASSERT_TRUE(ua->unregisterLine(line));
    const auto bye = expectRegister();
    ASSERT_TRUE(bye);
    EXPECT_EQ(bye->expires(), 0);
    peer.answer(*bye, 200);
    ASSERT_TRUE(reach(line, RegistrationState::Unregistered));
    EXPECT_EQ(states->take(), (std::vector<std::string>{"Registering 0", "Registered 200 OK", "Unregistering 0",
                                                        "Unregistered 200 OK"}));
    advance(4000s);
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 20ms));  // no refresh after un-registering
}

TEST_F(RegistrationTest, RefreshesByTheGrantedExpiry) {
    const struct {
        const char* grant;  // header lines of the 200
        int64_t refreshAfter;
    } cases[] = {
        {"Expires: 60\r\n", 30},
        {"Expires: 3600\r\n", 3570},
        {"Expires: 3\r\n", 1},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.grant);
        // Each case has its own line; its REGISTERs are told apart by Call-ID.
        const std::string user = "user" + std::to_string(++n);
        const int line = addLine(peer.hostPort(), user);
        ASSERT_TRUE(ua->registerLine(line));
        auto reg = peer.expect("REGISTER", pump, 5s, [&](const SipMessage& m) {
            return m.header("From")->find(user + "@") != std::string::npos;
        });
        ASSERT_TRUE(reg);
        const std::string callId = reg->callId();
        const auto mine = [&](const SipMessage& m) { return m.callId() == callId; };
        peer.answer(*reg, 200, c.grant);
        ASSERT_TRUE(reach(line, RegistrationState::Registered));
        advance(std::chrono::seconds(c.refreshAfter - 1));
        EXPECT_FALSE(peer.expect("REGISTER", pump, 20ms, mine));
        advance(1s);
        EXPECT_TRUE(peer.expect("REGISTER", pump, 1s, mine));
        ASSERT_TRUE(ua->removeLine(line));
    }
}

TEST_F(RegistrationTest, GivesUpAfterTwoChallengesInARowAndTriesAgainAfterAMinute) {
    const int line = addLine(peer.hostPort());
    ASSERT_TRUE(ua->registerLine(line));
    for (int i = 0; i < 3; ++i) {
        auto reg = expectRegister();
        ASSERT_TRUE(reg) << i;
        peer.answer(*reg, 401, "WWW-Authenticate: Digest realm=\"r\", nonce=\"x\"\r\n");
    }
    ASSERT_TRUE(reach(line, RegistrationState::Failed));
    EXPECT_EQ(states->take().back(), "Failed 401 Unauthorized");
    EXPECT_EQ(nextWithin("REGISTER", 70s), 60);
}

}  // namespace
}  // namespace kelsip
