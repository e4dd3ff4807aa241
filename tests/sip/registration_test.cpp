// Registration against a scripted registrar on loopback, in virtual time:
// the REGISTER's form, challenges, 423, time-outs, refresh times, push,
// un-registering.
#include <gtest/gtest.h>

#include <mutex>
#include <regex>

#include "sip/syntax/address.h"
#include "sip/auth/digest.h"
#include "support/virtual_user_agent.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class RecordingListener : public UserAgentListener {
public:
    void onRegistrationState(int, RegistrationState state, int code, const std::string& reason) override {
        std::lock_guard lock(mutex);
        states.push_back(std::string(toString(state)) + " " + std::to_string(code) + (reason.empty() ? "" : " " + reason));
    }
    std::vector<std::string> snapshot() {
        std::lock_guard lock(mutex);
        return states;
    }
    std::mutex mutex;
    std::vector<std::string> states;
};

class RegistrationTest : public test::VirtualUserAgentTest {
protected:
    RegistrationTest()
        : VirtualUserAgentTest(
              [](UserAgentConfig& config) { config.instanceId = "urn:uuid:00000000-0000-4000-8000-000000000001"; }) {}
    void SetUp() override {
        VirtualUserAgentTest::SetUp();
        ua->setListener(listener);
    }
    int addLine(LineConfig extra = {}) {
        extra.user = extra.user.empty() ? "alice" : extra.user;
        extra.password = "secret";
        extra.domain = peer.hostPort();
        return ua->addLine(extra);
    }
    std::optional<SipMessage> expectRegister(std::chrono::milliseconds timeout = 5s) {
        return peer.expect("REGISTER", pump, timeout);
    }
    // Runs the loop until the line reaches `state` (answers arrive on the
    // transport's thread, so the loop must be pumped to see them).
    bool reach(int line, RegistrationState state) {
        return test::waitFor([&] {
            pump();
            return ua->registrationState(line) == state;
        }, 5s);
    }
    // Moves virtual time in steps until a REGISTER comes; returns when it came.
    std::optional<int64_t> nextRegisterWithin(std::chrono::seconds limit) { return nextWithin("REGISTER", limit); }
    std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

TEST_F(RegistrationTest, BuildsTheRegisterWithItsHeadersInOrder) {
    LineConfig c;
    c.displayName = "Alice A";
    c.expires = 600;
    const int line = addLine(c);
    ASSERT_TRUE(ua->registerLine(line));
    const auto reg = expectRegister();
    ASSERT_TRUE(reg);
    EXPECT_EQ(headerNames(*reg), (std::vector<std::string>{"Via", "Max-Forwards", "From", "To", "Call-ID", "CSeq", "Contact",
                                                "Expires", "Allow", "Supported", "User-Agent", "Content-Length"}));
    const std::string local = ua->localAddress(TransportKind::Udp).toString();
    EXPECT_EQ(reg->requestUri.toString(), "sip:" + peer.hostPort());
    EXPECT_TRUE(std::regex_match(reg->vias().front(),
                                 std::regex("SIP/2\\.0/UDP " + local + ";rport;branch=z9hG4bK[A-Za-z0-9]{20}")))
        << reg->vias().front();
    EXPECT_EQ(reg->header("From")->find("\"Alice A\" <sip:alice@" + peer.hostPort() + ">;tag="), 0U);
    EXPECT_EQ(reg->header("To"), "\"Alice A\" <sip:alice@" + peer.hostPort() + ">");
    EXPECT_EQ(reg->header("CSeq"), "1 REGISTER");
    EXPECT_EQ(reg->contact(), "<sip:alice@" + local + ">;+sip.instance=\"<urn:uuid:00000000-0000-4000-8000-000000000001>\"");
    EXPECT_EQ(reg->expires(), 600);
    EXPECT_EQ(reg->headers("Allow"), (std::vector<std::string>{"INVITE", "ACK", "CANCEL", "BYE", "OPTIONS", "INFO", "NOTIFY",
                                                               "PRACK", "UPDATE", "REFER", "SUBSCRIBE", "MESSAGE"}));
    EXPECT_EQ(reg->headers("Supported"), (std::vector<std::string>{"100rel", "replaces", "timer"}));
    EXPECT_EQ(reg->header("User-Agent"), "Velmora Networks SIP SDK v5.0");
    EXPECT_EQ(listener->snapshot(), std::vector<std::string>{"Registering 0"});
    // Asked again while that REGISTER is unanswered: no second one races it.
    EXPECT_TRUE(ua->registerLine(line));
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 50ms));
}

TEST_F(RegistrationTest, AnswersAChallengeAndRefreshesWithTheNextNonceCount) {
    const int line = addLine();
    ASSERT_TRUE(ua->registerLine(line));
    auto first = expectRegister();
    ASSERT_TRUE(first);
    peer.answer(*first, 401, "WWW-Authenticate: Digest realm=\"velmora.test\", nonce=\"n1\", qop=\"auth\", algorithm=MD5\r\n");
    auto second = expectRegister();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->callId(), first->callId());
    EXPECT_EQ(second->cseq()->number, 2U);
    const auto auth = second->header("Authorization");
    ASSERT_TRUE(auth);
    // Check the answer the way a registrar does: recompute it.
    std::smatch nc, cnonce, response;
    ASSERT_TRUE(std::regex_search(*auth, nc, std::regex("nc=([0-9a-f]{8})")));
    ASSERT_TRUE(std::regex_search(*auth, cnonce, std::regex("cnonce=\"([^\"]+)\"")));
    ASSERT_TRUE(std::regex_search(*auth, response, std::regex("response=\"([0-9a-f]{32})\"")));
    EXPECT_EQ(nc[1].str(), "00000001");
    const DigestChallenge challenge = *parseChallenge("Digest realm=\"velmora.test\", nonce=\"n1\", qop=\"auth\"", false);
    DigestRequest request{"alice", "secret", "REGISTER", "sip:" + peer.hostPort(), 1, cnonce[1].str()};
    EXPECT_EQ(response[1].str(), computeResponse(challenge, request));
    peer.answer(*second, 200, "Contact: <sip:alice@192.0.2.99:5060>;expires=999, " + *second->contact() + ";expires=60\r\n");
    ASSERT_TRUE(reach(line, RegistrationState::Registered));
    EXPECT_EQ(listener->snapshot(), (std::vector<std::string>{"Registering 0", "Registered 200 OK"}));
    EXPECT_EQ(ua->lineInfo(line)->expires, 60);  // our binding's, not the other device's
    advance(29s);
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 20ms));
    advance(1s);
    const auto refresh = expectRegister();
    ASSERT_TRUE(refresh);
    // The refresh is authenticated at once, with the next count.
    EXPECT_NE(refresh->header("Authorization")->find("nc=00000002"), std::string::npos);
    // The refresh counts its challenges afresh: two in a row are both answered.
    auto again = refresh;
    for (const std::string nonce : {"n2", "n3"}) {
        peer.answer(*again, 401, "WWW-Authenticate: Digest realm=\"velmora.test\", nonce=\"" + nonce + "\", stale=true\r\n");
        again = expectRegister();
        ASSERT_TRUE(again) << nonce;
    }
}

TEST_F(RegistrationTest, RefreshesByTheGrantedExpiry) {
    const struct {
        const char* grant;  // extra header lines of the 200
        int64_t refreshAfter;
    } cases[] = {
        {"Expires: 60\r\n", 30}, {"Expires: 61\r\n", 31}, {"Expires: 3600\r\n", 3570}, {"Expires: 3\r\n", 1},
        {"Expires: 2\r\n", 1},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.grant);
        // Each case has its own line; its REGISTERs are told apart by Call-ID.
        LineConfig config;
        config.user = "user" + std::to_string(++n);
        const int line = addLine(config);
        ASSERT_TRUE(ua->registerLine(line));
        auto reg = peer.expect("REGISTER", pump, 5s, [&](const SipMessage& m) {
            return m.header("From")->find(config.user + "@") != std::string::npos;
        });
        ASSERT_TRUE(reg);
        const std::string callId = reg->callId();
        const auto mine = [&](const SipMessage& m) { return m.callId() == callId; };
        peer.answer(*reg, 200, c.grant);
        ASSERT_TRUE(reach(line, RegistrationState::Registered));
        advance(std::chrono::seconds(c.refreshAfter - 1));
        EXPECT_FALSE(peer.expect("REGISTER", pump, 20ms, mine));
        advance(1s);
        reg = peer.expect("REGISTER", pump, 1s, mine);
        ASSERT_TRUE(reg);
        EXPECT_EQ(reg->cseq()->number, 2U);
        ASSERT_TRUE(ua->removeLine(line));
    }
}

TEST_F(RegistrationTest, GivesUpAfterTwoChallengesInARow) {
    const int line = addLine();
    ASSERT_TRUE(ua->registerLine(line));
    const std::string challenge = "WWW-Authenticate: Digest realm=\"r\", nonce=\"x\"\r\n";
    for (int i = 0; i < 3; ++i) {
        auto reg = expectRegister();
        ASSERT_TRUE(reg) << i;
        EXPECT_EQ(reg->hasHeader("Authorization"), i > 0);
        peer.answer(*reg, 401, challenge);
    }
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 50ms));
    EXPECT_EQ(listener->snapshot().back(), "Failed 401 Unauthorized");
    // A failed line tries again after a minute.
    advance(59s);
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 20ms));
    advance(1s);
    EXPECT_TRUE(expectRegister());
    EXPECT_EQ(listener->snapshot().back(), "Registering 0");
}

TEST_F(RegistrationTest, MinExpiresRaisesTheExpiryAndTheRefreshFollowsIt) {
    const int line = addLine();
    ASSERT_TRUE(ua->registerLine(line));
    auto reg = expectRegister();
    ASSERT_TRUE(reg);
    peer.answer(*reg, 423, "Min-Expires: 1800\r\n");
    reg = expectRegister();
    ASSERT_TRUE(reg);
    EXPECT_EQ(reg->expires(), 1800);
    peer.answer(*reg, 200, "Expires: 1800\r\n");
    ASSERT_TRUE(reach(line, RegistrationState::Registered));
    advance(1769s);
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 20ms));
    EXPECT_EQ(nextRegisterWithin(3s), 1);
}

TEST_F(RegistrationTest, UnregistersWithExpiresZeroAndAtShutdown) {
    const int line = addLine();
    ASSERT_TRUE(ua->registerLine(line));
    auto reg = expectRegister();
    ASSERT_TRUE(reg);
    peer.answer(*reg, 200, "Expires: 3600\r\n");
    ASSERT_TRUE(reach(line, RegistrationState::Registered));
    ASSERT_TRUE(ua->unregisterLine(line));
    reg = expectRegister();
    ASSERT_TRUE(reg);
    EXPECT_EQ(reg->expires(), 0);
    EXPECT_EQ(reg->cseq()->number, 2U);
    peer.answer(*reg, 200);
    ASSERT_TRUE(reach(line, RegistrationState::Unregistered));
    EXPECT_EQ(listener->snapshot(), (std::vector<std::string>{"Registering 0", "Registered 200 OK",
                                                               "Unregistering 0", "Unregistered 200 OK"}));
    advance(4000s);
    EXPECT_TRUE(peer.quiet("REGISTER", pump, 20ms));  // no refresh after un-registering
    ASSERT_TRUE(ua->registerLine(line));
    reg = expectRegister();
    ASSERT_TRUE(reg);
    peer.answer(*reg, 200, "Expires: 3600\r\n");
    ASSERT_TRUE(reach(line, RegistrationState::Registered));
    ua->shutdown();
    EXPECT_TRUE(logs.has("line 1: un-registering before shutdown"));
    reg = peer.expect("REGISTER", nullptr, 2s);
    ASSERT_TRUE(reg);
    EXPECT_EQ(reg->expires(), 0);
}

}  // namespace
}  // namespace kelsip
