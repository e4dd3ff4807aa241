// Instant messages against real peers: to and from baresip through Kamailio
// with digest authentication (over UDP and TCP), and, with the servers
// found through DNS SRV, failover past a 503 (SIPp) and past servers that
// never answer.
#include <gtest/gtest.h>

#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "interop/support/interop_test.h"
#include "sip/net/socket.h"
#include "sip/ua/user_agent.h"
#include "support/baresip_peer.h"
#include "support/wait.h"

namespace kelsip {

// Test names and failure messages show the transport by name.
static void PrintTo(TransportKind kind, std::ostream* out) { *out << transportName(kind); }

namespace {

using namespace std::chrono_literals;
using test::BaresipPeer;
using test::waitFor;

struct Received {
    int line = 0;
    std::string from;
    std::string contentType;
    std::string body;
};

struct Result {
    int id = 0;
    int code = 0;
    std::string reason;
};

class MessageEvents final : public UserAgentListener {
public:
    void onMessage(int line, const std::string& from, const std::string& contentType,
                   const std::string& body) override {
        const std::lock_guard lock(mutex_);
        received_.push_back({line, from, contentType, body});
    }
    void onMessageResult(int id, int code, const std::string& reason) override {
        const std::lock_guard lock(mutex_);
        results_.push_back({id, code, reason});
    }
    std::vector<Received> received() {
        const std::lock_guard lock(mutex_);
        return received_;
    }
    // Every result reported for message `id`.
    std::vector<Result> results(int id) {
        const std::lock_guard lock(mutex_);
        std::vector<Result> out;
        for (const Result& r : results_) {
            if (r.id == id) out.push_back(r);
        }
        return out;
    }

private:
    std::mutex mutex_;
    std::vector<Received> received_;
    std::vector<Result> results_;
};

class MessageInteropTest : public test::InteropTest {
protected:
    // A user agent on loopback in real time; `t1Ms` shortens UDP time-outs
    // (64 x T1) where a test waits for one.
    void startUserAgent(int64_t t1Ms = 500, std::vector<net::SocketAddress> dns = {}) {
        UserAgentConfig config = loopbackConfig(true, t1Ms);
        config.dnsServers = std::move(dns);
        ua = startLoopbackUserAgent(config, events);
        ASSERT_TRUE(ua);
    }

    // A line of the domain, not registered.
    int addLine(const std::string& domain) {
        LineConfig line;
        line.user = "alice";
        line.password = "secret";
        line.domain = domain;
        line.reregisterOnFailure = false;
        return ua->addLine(line);
    }

    // The one result of message `id`, once it came.
    std::optional<Result> resultOf(int id, std::chrono::milliseconds timeout) {
        if (!waitFor([&] { return !events->results(id).empty(); }, timeout)) return std::nullopt;
        return events->results(id).front();
    }

    std::shared_ptr<MessageEvents> events = std::make_shared<MessageEvents>();
    std::unique_ptr<UserAgent> ua;
};

// ---- baresip through Kamailio ----

// Kamailio as registrar and proxy, baresip registered there as bob with
// alice in its address book, and our alice registered with Kamailio as her
// outbound proxy; all over the test's transport.
class KamailioMessageTest : public MessageInteropTest, public ::testing::WithParamInterface<TransportKind> {
protected:
    void SetUp() override {
        MessageInteropTest::SetUp();
        if (IsSkipped()) return;
        kamailio_ = startKamailio();
        ASSERT_TRUE(kamailio_);
        startBob();
        startAlice();
    }

    void TearDown() override {
        if (HasFailure() && bob_) {
            std::cerr << "---- " << bob_->name() << " ----\n" << bob_->log() << "-- events --\n";
            for (const test::BaresipEvent& e : bob_->events()) std::cerr << e.json << '\n';
            std::cerr << "----\n";
        }
        MessageInteropTest::TearDown();
    }

    void startBob() {
        test::BaresipOptions options;
        options.user = "bob";
        options.password = "bobsecret";
        options.domain = kamailio_->hostPort();
        options.registrar = kamailio_->hostPort();
        options.transport = GetParam() == TransportKind::Tcp ? test::BaresipTransport::Tcp : test::BaresipTransport::Udp;
        options.contacts = {"\"Alice\" <" + aliceAor() + ">"};
        bob_ = std::make_unique<BaresipPeer>();
        std::string error;
        ASSERT_TRUE(bob_->start(options, &error)) << error;
        ASSERT_EQ(bob_->waitForRegistration(), true);
    }

    void startAlice() {
        ASSERT_NO_FATAL_FAILURE(startUserAgent());
        line_ = registerAlice(*ua, *kamailio_, GetParam());
        ASSERT_GT(line_, 0);
    }

    [[nodiscard]] std::string aliceAor() const { return "sip:alice@" + kamailio_->hostPort(); }
    [[nodiscard]] std::string bobAor() const { return "sip:bob@" + kamailio_->hostPort(); }

    test::KamailioServer* kamailio_ = nullptr;
    std::unique_ptr<BaresipPeer> bob_;
    int line_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Transports, KamailioMessageTest, ::testing::Values(TransportKind::Udp, TransportKind::Tcp),
                         [](const auto& p) { return std::string(transportName(p.param)); });

TEST_P(KamailioMessageTest, ReachesBaresipAfterTheProxyChallengeAndReportsOneResult) {
    // Beyond ASCII, so that a body cut by a byte count in characters shows.
    const std::string text = "Grüße aus dem Labor: übermorgen um 10?";
    const int id = ua->sendMessage(line_, bobAor(), text, "");
    ASSERT_GT(id, 0);

    const auto result = resultOf(id, 5s);
    ASSERT_TRUE(result) << "no result for the MESSAGE";
    EXPECT_EQ(result->code, 200) << result->reason;
    ASSERT_TRUE(waitFor([&] { return !bob_->receivedMessages().empty(); }, 2s)) << "baresip got no MESSAGE";
    const auto got = bob_->receivedMessages();
    ASSERT_EQ(got.size(), 1U);
    EXPECT_EQ(got[0].body, text);
    EXPECT_EQ(got[0].contentType, "text/plain");
    EXPECT_EQ(got[0].from, aliceAor());
    // Kamailio challenged the first one; the second carried the credentials.
    EXPECT_EQ(kamailio_->requestsSeen("MESSAGE", "alice"), 2);
    // A retransmitted or late answer adds no second result.
    EXPECT_FALSE(waitFor([&] { return events->results(id).size() > 1; }, 1s))
        << events->results(id).size() << " results";
}

TEST_P(KamailioMessageTest, TakesBaresipsMessageRelayedByTheProxy) {
    std::string error;
    ASSERT_TRUE(bob_->sendMessage("Are you in the lab today?", &error)) << error;

    ASSERT_TRUE(waitFor([&] { return !events->received().empty(); }, 5s)) << "no MESSAGE reached the user agent";
    // baresip saw our 200 after Kamailio's challenge: nothing of it is
    // still in flight, so a second report would already be here.
    ASSERT_TRUE(waitFor([&] { return bob_->messageAnswers().size() >= 2; }, 5s)) << "baresip's MESSAGE was not answered";
    EXPECT_EQ(bob_->messageAnswers(), (std::vector<int>{407, 200}));
    const auto received = events->received();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].line, line_);
    EXPECT_EQ(received[0].from, bobAor());
    EXPECT_EQ(received[0].contentType, "text/plain");
    EXPECT_EQ(received[0].body, "Are you in the lab today?");
}

// ---- servers found through DNS SRV ----

TEST_F(MessageInteropTest, FailsOverToTheNextSrvTargetAfterA503) {
    auto* unavailable = startSipp("message_503.xml");
    auto* available = startSipp("message_200.xml");
    ASSERT_TRUE(unavailable && available);
    auto* dns = startDnsmasq({
        "srv-host=_sip._udp.msg.test,busy.msg.test," + std::to_string(unavailable->port()) + ",10,0",
        "srv-host=_sip._udp.msg.test,spare.msg.test," + std::to_string(available->port()) + ",20,0",
        "host-record=busy.msg.test,127.0.0.1",
        "host-record=spare.msg.test,127.0.0.1",
    });
    ASSERT_TRUE(dns);
    startUserAgent(500, {dns->address()});
    const int line = addLine("msg.test");
    ASSERT_GT(line, 0);

    const int id = ua->sendMessage(line, "bob", "Hello through the spare server", "text/plain");
    ASSERT_GT(id, 0);
    const auto result = resultOf(id, 5s);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, 200) << result->reason;
    const std::string prefix = "MESSAGE " + std::to_string(id);
    EXPECT_TRUE(logs().has(prefix + ": trying next server UDP " + available->hostPort()));
    EXPECT_TRUE(logs().has(prefix + " -> 200"));
    // Each SIPp fails its call unless the MESSAGE came with the text.
    EXPECT_EQ(unavailable->waitForExit(5s), 0);
    EXPECT_EQ(available->waitForExit(5s), 0);
    EXPECT_EQ(events->results(id).size(), 1U);
}

TEST_F(MessageInteropTest, TriesEverySrvTargetThatNeverAnswersThenReportsOneTimeout) {
    // Two servers that take everything and answer nothing.
    net::Socket first = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    net::Socket second = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    for (net::Socket* s : {&first, &second}) {
        ASSERT_TRUE(s->bind(net::SocketAddress::loopback(net::AddressFamily::V4)));
        ASSERT_TRUE(s->setNonBlocking(true));
    }
    const uint16_t firstPort = first.localAddress()->port();
    const uint16_t secondPort = second.localAddress()->port();
    auto* dns = startDnsmasq({
        "srv-host=_sip._udp.msg.test,one.msg.test," + std::to_string(firstPort) + ",10,0",
        "srv-host=_sip._udp.msg.test,two.msg.test," + std::to_string(secondPort) + ",20,0",
        "host-record=one.msg.test,127.0.0.1",
        "host-record=two.msg.test,127.0.0.1",
    });
    ASSERT_TRUE(dns);
    // Each target gives up after 64 x 50 ms = 3.2 s.
    startUserAgent(50, {dns->address()});
    const int line = addLine("msg.test");
    ASSERT_GT(line, 0);

    const int id = ua->sendMessage(line, "bob", "Anyone there?", "");
    ASSERT_GT(id, 0);
    ASSERT_TRUE(logs().waitForLine("MESSAGE " + std::to_string(id) + ": trying next server UDP 127.0.0.1:" +
                                       std::to_string(secondPort), 5s));
    const auto result = resultOf(id, 6s);
    ASSERT_TRUE(result) << "no result after both servers timed out";
    EXPECT_EQ(result->code, 408);
    EXPECT_EQ(result->reason, "Request Timeout");

    // Both saw the same request (Call-ID and CSeq), each in a transaction
    // of its own, and the first one's retransmissions stopped at the switch.
    struct Seen {
        int count = 0;
        std::string callId, cseq, branch;
    };
    auto drain = [](net::Socket& socket) {
        Seen seen;
        char buffer[8192];
        net::SocketAddress from;
        for (;;) {
            const auto r = socket.receiveFrom(buffer, sizeof buffer, from);
            if (!r.ok()) break;
            const std::string text(buffer, r.bytes);
            if (text.rfind("MESSAGE sip:bob@msg.test SIP/2.0\r\n", 0) != 0) continue;
            ++seen.count;
            auto header = [&](const std::string& name) {
                const size_t at = text.find("\r\n" + name + ": ");
                if (at == std::string::npos) return std::string();
                const size_t start = at + name.size() + 4;
                return text.substr(start, text.find("\r\n", start) - start);
            };
            seen.callId = header("Call-ID");
            seen.cseq = header("CSeq");
            const std::string via = header("Via");
            const size_t b = via.find("branch=");
            seen.branch = b == std::string::npos ? "" : via.substr(b + 7, via.find(';', b) - b - 7);
        }
        return seen;
    };
    const Seen atFirst = drain(first);
    const Seen atSecond = drain(second);
    ASSERT_GT(atFirst.count, 0) << "the first server was never tried";
    ASSERT_GT(atSecond.count, 0) << "the second server was never tried";
    // Retransmitted at 50, 150, 350, 750, 1550 and 3150 ms, and not after
    // the switch to the second server.
    EXPECT_GT(atFirst.count, 1);
    EXPECT_LE(atFirst.count, 7);
    EXPECT_EQ(atFirst.callId, atSecond.callId);
    EXPECT_EQ(atFirst.cseq, atSecond.cseq);
    EXPECT_NE(atFirst.branch, atSecond.branch);
    EXPECT_EQ(events->results(id).size(), 1U);
}

}  // namespace
}  // namespace kelsip
