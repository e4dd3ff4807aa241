// Instant messages both ways with baresip through Kamailio's challenge, and
// SRV failover past a 503 (SIPp) and past servers that never answer.
#include <gtest/gtest.h>

#include "interop/support/interop_test.h"
#include "sip/net/socket.h"
#include "support/baresip_peer.h"

namespace kelsip {

namespace {

using namespace std::chrono_literals;
using test::waitFor;

class MessageInteropTest : public test::InteropTest {
protected:
    // The results of message `id`, once the first came.
    std::vector<std::pair<int, std::string>> resultsOf(int id, std::chrono::milliseconds timeout) {
        waitFor([&] { return !events->now().results[id].empty(); }, timeout);
        return events->now().results[id];
    }
    std::unique_ptr<UserAgent> ua;
};

class KamailioMessageTest : public MessageInteropTest, public ::testing::WithParamInterface<TransportKind> {};

INSTANTIATE_TEST_SUITE_P(Transports, KamailioMessageTest, test::kBothTransports, ::testing::PrintToStringParamName());

TEST_P(KamailioMessageTest, MessagesCrossTheProxyChallengeBothWays) {
    auto* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    const std::string alice = "sip:alice@" + kamailio->hostPort();
    const std::string bob = "sip:bob@" + kamailio->hostPort();
    const test::BaresipOptions options{"bob", "bobsecret", kamailio->hostPort(), GetParam(), true, {},
                                       {"\"Alice\" <" + alice + ">"}};
    auto* baresip = start<test::BaresipPeer>(options);
    ASSERT_TRUE(baresip);
    ASSERT_TRUE(baresip->waitForEvent("REGISTER_OK"));
    ua = startUserAgent(loopbackConfig());
    ASSERT_TRUE(ua);
    const int line = registerAlice(*ua, *kamailio, GetParam());
    ASSERT_GT(line, 0);

    // Beyond ASCII, so that a body cut by a count of characters shows.
    const std::string text = "Grüße aus dem Labor: übermorgen um 10?";
    const int id = ua->sendMessage(line, bob, text, "");
    ASSERT_GT(id, 0);
    const auto results = resultsOf(id, 5s);
    ASSERT_FALSE(results.empty());
    EXPECT_EQ(results[0].first, 200) << results[0].second;
    ASSERT_TRUE(waitFor([&] { return !baresip->receivedMessages().empty(); }, 2s)) << "baresip got no MESSAGE";
    const auto got = baresip->receivedMessages();
    ASSERT_EQ(got.size(), 1U);
    EXPECT_EQ(got[0].body, text);
    EXPECT_EQ(got[0].contentType, "text/plain");
    EXPECT_EQ(got[0].from, alice);
    EXPECT_EQ(kamailio->requestsSeen("MESSAGE", "alice"), 2);  // challenged, then with credentials

    std::string error;
    ASSERT_TRUE(baresip->command("message", "Are you in the lab today?", &error)) << error;
    ASSERT_TRUE(waitFor([&] { return baresip->messageAnswers().size() >= 2; }, 5s)) << "baresip's MESSAGE was not answered";
    EXPECT_EQ(baresip->messageAnswers(), (std::vector<int>{407, 200}));
    const auto received = events->now().messages;
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].line, line);
    EXPECT_EQ(received[0].from, bob);
    EXPECT_EQ(received[0].contentType, "text/plain");
    EXPECT_EQ(received[0].body, "Are you in the lab today?");
    // A retransmitted or late answer adds no second result.
    EXPECT_EQ(events->now().results[id].size(), 1U);
}

TEST_F(MessageInteropTest, FailsOverToTheNextSrvTargetAfterA503) {
    auto* unavailable = startSipp("message_503.xml");
    auto* available = startSipp("message_200.xml");
    ASSERT_TRUE(unavailable && available);
    auto* dns = startSrv("msg.test", {unavailable->port(), available->port()});
    ASSERT_TRUE(dns);
    ua = startUserAgent(loopbackConfig(true, 500, {dns->address()}));
    ASSERT_TRUE(ua);

    const int id = ua->sendMessage(addAlice(*ua, "msg.test"), "bob", "Hello through the spare server", "text/plain");
    ASSERT_GT(id, 0);
    const auto results = resultsOf(id, 5s);
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].first, 200) << results[0].second;
    EXPECT_TRUE(logs().has("MESSAGE " + std::to_string(id) + ": trying next server UDP " + available->hostPort()));
    // Each SIPp fails its call unless the MESSAGE came with the text.
    EXPECT_EQ(unavailable->waitForExit(5s), 0);
    EXPECT_EQ(available->waitForExit(5s), 0);
}

TEST_F(MessageInteropTest, TriesEverySrvTargetThatNeverAnswersThenReportsOneTimeout) {
    net::Socket silent[2] = {net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp),
                             net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp)};
    for (net::Socket& s : silent) {
        ASSERT_TRUE(s.bind(net::SocketAddress::loopback(net::AddressFamily::V4)));
        ASSERT_TRUE(s.setNonBlocking(true));
    }
    auto* dns = startSrv("msg.test", {silent[0].localAddress()->port(), silent[1].localAddress()->port()});
    ASSERT_TRUE(dns);
    ua = startUserAgent(loopbackConfig(true, 50, {dns->address()}));  // each target gives up after 3.2 s
    ASSERT_TRUE(ua);

    const int id = ua->sendMessage(addAlice(*ua, "msg.test"), "bob", "Anyone there?", "");
    ASSERT_GT(id, 0);
    ASSERT_TRUE(logs().waitForLine("MESSAGE " + std::to_string(id) + ": trying next server UDP " +
                                       silent[1].localAddress()->toString(), 5s));
    const auto results = resultsOf(id, 6s);
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0], std::make_pair(408, std::string("Request Timeout")));

    // Both got the same request in a transaction of its own; the first one's
    // repeats (50, 150, 350 ... 3150 ms) stopped at the switch.
    test::Trace seen[2];
    for (int i = 0; i < 2; ++i) {
        char buffer[8192];
        net::SocketAddress from;
        for (auto r = silent[i].receiveFrom(buffer, sizeof buffer, from); r.ok();
             r = silent[i].receiveFrom(buffer, sizeof buffer, from)) {
            std::string text(buffer, r.bytes);
            std::erase(text, '\r');
            if (text.starts_with("MESSAGE sip:bob@msg.test SIP/2.0\n")) seen[i].push_back({{}, true, text});
        }
        ASSERT_FALSE(seen[i].empty()) << "server " << i + 1 << " was never tried";
    }
    EXPECT_GT(seen[0].size(), 1U);
    EXPECT_LE(seen[0].size(), 7U);
    EXPECT_EQ(seen[0][0].header("Call-ID"), seen[1][0].header("Call-ID"));
    EXPECT_EQ(seen[0][0].header("CSeq"), seen[1][0].header("CSeq"));
    EXPECT_NE(seen[0][0].branch(), seen[1][0].branch());
}

}  // namespace
}  // namespace kelsip
