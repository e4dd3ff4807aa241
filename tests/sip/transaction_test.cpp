// The transaction layer in virtual time over a recording transport.
#include "sip/transaction/transaction.h"

#include <gtest/gtest.h>

#include "sip/syntax/address.h"
#include "support/log_capture.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

const SipTarget kUdpPeer{TransportKind::Udp, *net::SocketAddress::parseWithPort("192.0.2.1:5060"), 0};
const SipTarget kTcpPeer{TransportKind::Tcp, *net::SocketAddress::parseWithPort("192.0.2.1:5060"), 4};
// Sends every 500 ms doubling up to T2 (4 s), until 64 * T1.
const std::vector<int64_t> kCappedAtT2 = {0, 500, 1500, 3500, 7500, 11500, 15500, 19500, 23500, 27500, 31500};

SipMessage request(const std::string& method, const std::string& via = "SIP/2.0/UDP 192.0.2.9:5060") {
    SipMessage m;
    m.isRequest = true;
    m.method = method;
    m.requestUri = *SipUri::parse("sip:bob@192.0.2.1");
    m.addHeader("Via", via);
    m.addHeader("Route", "<sip:proxy.example.com;lr>");
    m.addHeader("From", "<sip:alice@example.com>;tag=a1");
    m.addHeader("To", "<sip:bob@example.com>");
    m.addHeader("Call-ID", "call-1@192.0.2.9");
    m.addHeader("CSeq", "7 " + method);
    return m;
}

SipMessage responseTo(const SipMessage& req, int code, const std::string& toTag = "b2") {
    return makeResponse(req, code, "", toTag);
}

class TransactionTest : public ::testing::Test {
protected:
    struct Sent {
        int64_t atMs;
        std::string text;
        SipTarget target;
    };
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    EventLoop loop{clock};
    std::vector<Sent> sent;
    bool transportWorks = true;
    SipTransactionLayer layer{loop, [this](std::string_view text, const SipTarget& target) {
                                  if (!transportWorks) return false;
                                  sent.push_back({clock->nowNs() / 1'000'000, std::string(text), target});
                                  return true;
                              }};
    std::vector<int> answers;  // status codes the callback saw; 0 for a null response
    std::vector<std::string> keys;  // keys of requests passed up, "" for ACK
    test::LogCapture logs;
    void SetUp() override {
        layer.setRequestHandler([this](const std::string& key, const SipMessage&, const SipTarget&) {
            keys.push_back(key);
        });
    }
    ResponseCallback record() {
        return [this](const SipMessage* r) { answers.push_back(r != nullptr ? r->statusCode : 0); };
    }
    std::vector<int64_t> sendTimes() const {
        std::vector<int64_t> times;
        for (const Sent& s : sent) times.push_back(s.atMs - sent.front().atMs);
        return times;
    }
    void advance(std::chrono::milliseconds d) { advanceVirtualTime(loop, *clock, d); }
    SipMessage lastSent() const { return *SipMessage::parse(sent.back().text); }
    static SipMessage incoming(const std::string& method, const std::string& branch = "z9hG4bKin1") {
        SipMessage m = request(method, "SIP/2.0/UDP 192.0.2.1:5070;branch=" + branch);
        if (method == "ACK") m.setHeader("CSeq", "7 ACK");
        return m;
    }
};

TEST_F(TransactionTest, ClientRetransmitsOnScheduleAndFailsAt64T1) {
    const struct {
        const char* method;
        SipTarget peer;
        std::vector<int64_t> sends;
    } cases[] = {
        {"OPTIONS", kUdpPeer, kCappedAtT2},
        {"INVITE", kUdpPeer, {0, 500, 1500, 3500, 7500, 15500, 31500}},  // doubling without a cap
        {"REGISTER", kTcpPeer, {0}},                                       // reliable: never repeated
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method);
        sent.clear();
        answers.clear();
        ASSERT_FALSE(layer.sendRequest(request(c.method), c.peer, record()).empty());
        advance(31999ms);
        EXPECT_TRUE(answers.empty());
        advance(1ms);
        EXPECT_EQ(answers, std::vector<int>{0});
        EXPECT_EQ(layer.clientCount(), 0U);
        advance(60000ms);
        EXPECT_EQ(sendTimes(), c.sends);
    }
}

TEST_F(TransactionTest, AProvisionalAnswerMovesNonInviteRetransmissionsToT2AndStopsInviteOnes) {
    (void)layer.sendRequest(request("OPTIONS"), kUdpPeer, record());
    const SipMessage sentOptions = lastSent();
    advance(600ms);
    layer.handleResponse(responseTo(sentOptions, 100), kUdpPeer);
    advance(10000ms);
    // 1500 was already scheduled with the doubled interval; then every T2.
    EXPECT_EQ(sendTimes(), (std::vector<int64_t>{0, 500, 1500, 5500, 9500}));
    layer.handleResponse(responseTo(sentOptions, 200), kUdpPeer);
    sent.clear();
    (void)layer.sendRequest(request("INVITE", "SIP/2.0/UDP 192.0.2.9:5060;branch=z9hG4bKinvite1"), kUdpPeer, record());
    layer.handleResponse(responseTo(lastSent(), 180), kUdpPeer);
    advance(20000ms);
    EXPECT_EQ(sent.size(), 1U);  // Proceeding: the INVITE is not repeated
    EXPECT_EQ(answers, (std::vector<int>{100, 200, 180}));
    const std::string overTcp = layer.sendRequest(request("OPTIONS"), kTcpPeer, record());
    layer.handleResponse(responseTo(lastSent(), 200), kTcpPeer);
    loop.runDue();
    EXPECT_FALSE(layer.clientState(overTcp));
}

TEST_F(TransactionTest, FailureToInviteIsAcknowledgedByTheLayerAndRepeatsAbsorbed) {
    (void)layer.sendRequest(request("INVITE"), kUdpPeer, record());
    const SipMessage invite = lastSent();
    const SipMessage busy = responseTo(invite, 486);
    layer.handleResponse(busy, kUdpPeer);
    ASSERT_EQ(sent.size(), 2U);
    const SipMessage ack = lastSent();
    EXPECT_EQ(ack.method, "ACK");
    EXPECT_EQ(ack.vias(), invite.vias());  // same branch: the INVITE's transaction
    EXPECT_EQ(ack.routes(), invite.routes());
    EXPECT_EQ(ack.header("To"), busy.header("To"));  // with the answer's tag
    EXPECT_EQ(ack.header("CSeq"), "7 ACK");
    advance(2000ms);
    layer.handleResponse(busy, kUdpPeer);  // the 486 again: ACK again, nothing up
    EXPECT_EQ(sent.size(), 3U);
    EXPECT_EQ(answers, std::vector<int>{486});
    advance(30000ms);
    EXPECT_EQ(layer.clientCount(), 0U);  // lingered 32 s over UDP
    EXPECT_EQ(sent.size(), 3U);          // and never retransmitted the INVITE
}

TEST_F(TransactionTest, TwoHundredsToInviteGoUpEvenAfterTheFirst) {
    std::vector<std::string> stray;
    layer.setStrayResponseHandler([&](const SipMessage& r, const SipTarget&) { stray.push_back(r.toTag()); });
    (void)layer.sendRequest(request("INVITE"), kUdpPeer, record());
    const SipMessage invite = lastSent();
    layer.handleResponse(responseTo(invite, 200, "fork1"), kUdpPeer);
    layer.handleResponse(responseTo(invite, 200, "fork2"), kUdpPeer);
    EXPECT_EQ(answers, (std::vector<int>{200, 200}));
    EXPECT_EQ(sent.size(), 1U);  // the layer never acknowledges a 2xx
    advance(32000ms);
    layer.handleResponse(responseTo(invite, 200, "fork1"), kUdpPeer);
    EXPECT_EQ(stray, std::vector<std::string>{"fork1"});
}

TEST_F(TransactionTest, RefusesBadAndDuplicateRequestsAndFailsOnTransportErrors) {
    SipMessage noVia = request("OPTIONS");
    noVia.removeHeader("Via");
    EXPECT_EQ(layer.sendRequest(noVia, kUdpPeer, record()), "");
    EXPECT_EQ(layer.sendRequest(request("ACK"), kUdpPeer, record()), "");
    const SipMessage withBranch = request("OPTIONS", "SIP/2.0/UDP 192.0.2.9;branch=z9hG4bKsame");
    EXPECT_EQ(layer.sendRequest(withBranch, kUdpPeer, record()), "z9hG4bKsame|OPTIONS");
    EXPECT_EQ(layer.sendRequest(withBranch, kUdpPeer, record()), "");
    transportWorks = false;
    EXPECT_FALSE(layer.sendRequest(request("OPTIONS"), kUdpPeer, record()).empty());
    EXPECT_TRUE(answers.empty());  // reported from the loop, not from inside sendRequest
    loop.runDue();
    EXPECT_EQ(answers, std::vector<int>{0});
    transportWorks = true;
    (void)layer.sendRequest(request("OPTIONS"), kTcpPeer, record());
    layer.handleTransportError(SipTarget{TransportKind::Tcp, kTcpPeer.address, 0});
    EXPECT_EQ(answers, (std::vector<int>{0, 0}));
    advance(40000ms);
    EXPECT_EQ(answers.size(), 3U);  // only the one still waiting times out; no failure comes twice
}

TEST_F(TransactionTest, ServerPassesANewRequestUpOnceAndRepeatsTheLastAnswer) {
    const SipMessage invite = incoming("INVITE");
    layer.handleRequest(invite, kUdpPeer);
    layer.handleRequest(invite, kUdpPeer);  // before any answer: absorbed quietly
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_TRUE(sent.empty());
    ASSERT_TRUE(layer.sendResponse(keys[0], responseTo(invite, 180)));
    layer.handleRequest(invite, kUdpPeer);  // in Proceeding: the 180 again
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[1].text, sent[0].text);
    EXPECT_EQ(keys.size(), 1U);
    // Without rport to the Via's port; with it, to the source.
    EXPECT_EQ(sent[0].target.address.port(), 5070);
    const SipMessage natted = request("OPTIONS", "SIP/2.0/UDP 10.0.0.5:5070;rport=40000;branch=z9hG4bKr");
    const SipTarget source{TransportKind::Udp, *net::SocketAddress::parseWithPort("192.0.2.1:40000"), 0};
    layer.handleRequest(natted, source);
    ASSERT_TRUE(layer.sendResponse(keys[1], responseTo(natted, 200)));
    EXPECT_EQ(sent.back().target, source);
    // A non-INVITE answer stays for retransmissions for 64 * T1, and is final.
    EXPECT_FALSE(layer.sendResponse(keys[1], responseTo(natted, 500)));
    advance(31000ms);
    layer.handleRequest(natted, source);
    EXPECT_EQ(sent.size(), 4U);
    advance(1000ms);
    EXPECT_EQ(layer.serverCount(), 1U);  // the INVITE, still proceeding
    EXPECT_FALSE(layer.sendResponse("nope", responseTo(natted, 200)));
}

TEST_F(TransactionTest, ServerRepeatsAnInviteFailureUntilTheAckOrGivesUp) {
    // The acknowledged INVITE has an old-style branch: matched by the older rules, its ACK by the To tag.
    for (const bool acknowledged : {true, false}) {
        SCOPED_TRACE(acknowledged);
        sent.clear();
        keys.clear();
        const SipMessage invite = incoming("INVITE", acknowledged ? "old-style" : "z9hG4bKlost");
        layer.handleRequest(invite, kUdpPeer);
        layer.handleRequest(invite, kUdpPeer);
        const SipMessage busy = responseTo(invite, 486, "srv");
        ASSERT_TRUE(layer.sendResponse(keys[0], busy));
        advance(8000ms);
        if (acknowledged) {
            SipMessage ack = incoming("ACK", "old-style");
            ack.setHeader("To", *busy.header("To"));
            layer.handleRequest(ack, kUdpPeer);
            EXPECT_EQ(layer.serverState(keys[0]), TransactionState::Confirmed);
        }
        advance(23999ms);
        EXPECT_EQ(logs.has("no ACK received for final response"), false);
        advance(1ms);
        EXPECT_EQ(logs.has("no ACK received for final response"), !acknowledged);
        const std::vector<int64_t> untilTheAck = {0, 500, 1500, 3500, 7500};
        EXPECT_EQ(sendTimes(), acknowledged ? untilTheAck : kCappedAtT2);
        EXPECT_EQ(keys.size(), 1U);  // the repeated INVITE and the ACK are absorbed
        EXPECT_EQ(layer.serverCount(), 0U);
    }
}

TEST_F(TransactionTest, ServerPassesUpCancelAndTheAckForATwoHundred) {
    const SipMessage invite = incoming("INVITE");
    layer.handleRequest(invite, kUdpPeer);
    const SipMessage cancel = incoming("CANCEL");
    layer.handleRequest(cancel, kUdpPeer);
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_NE(keys[0], keys[1]);  // its own transaction
    EXPECT_EQ(layer.inviteKeyForCancel(cancel), keys[0]);
    EXPECT_FALSE(layer.inviteKeyForCancel(incoming("CANCEL", "z9hG4bKother")));
    ASSERT_TRUE(layer.sendResponse(keys[0], responseTo(invite, 200)));
    layer.handleRequest(invite, kUdpPeer);  // absorbed: the dialog repeats its own 2xx
    EXPECT_EQ(sent.size(), 1U);
    layer.handleRequest(incoming("ACK", "z9hG4bKack"), kUdpPeer);
    EXPECT_EQ(keys.back(), "");
}

}  // namespace
}  // namespace kelsip
