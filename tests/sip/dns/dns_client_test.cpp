// The DNS client: its schedule in virtual time, answer matching, and exchanges with dnsmasq.
#include "sip/dns/dns_client.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "dnsmasq_fixture.h"

namespace kelsip::dns {
namespace {

using namespace std::chrono_literals;
using test::SilentServer;
using test::VirtualClient;

TEST(DnsClientTest, TriesEachServerOnScheduleThenFails) {
    SilentServer first;
    SilentServer second;
    DnsClientOptions options;
    options.servers = {first.address, second.address};
    options.tryTimeout = 1000ms;
    options.triesPerServer = 2;
    VirtualClient c(options);
    const auto answer = c.query("example.test", RecordType::A);
    // Sends at 0 and 1 s to the first server, at 2 and 3 s to the second.
    for (uint64_t sent = 1; sent <= 4; ++sent) {
        SCOPED_TRACE(sent);
        ASSERT_TRUE(c.waitSent(sent));
        c.loop.runDue();
        EXPECT_FALSE(answer->has_value());
        c.advance(1000ms);
    }
    ASSERT_TRUE(c.waitAnswer(answer));
    EXPECT_EQ((*answer)->status, DnsStatus::Failed);
    EXPECT_EQ((*answer)->error, "timed out");
    EXPECT_EQ(first.drain(), 2U);
    EXPECT_EQ(second.drain(), 2U);
}

std::optional<std::vector<uint8_t>> receiveQuery(SilentServer& server, net::SocketAddress& from) {
    net::PollEntry entry{server.socket.native(), true, false};
    if (net::poll(std::span<net::PollEntry>(&entry, 1), 5000) <= 0) return std::nullopt;
    std::vector<uint8_t> buffer(1500);
    const auto r = server.socket.receiveFrom(buffer.data(), buffer.size(), from);
    if (!r.ok()) return std::nullopt;
    buffer.resize(r.bytes);
    return buffer;
}

std::vector<uint8_t> answerTo(unsigned id, std::string_view name, uint8_t last) {
    test::Wire w = test::responseHeader(id, 0x0180, 1, 1);
    w.name(name).u16(1).u16(1);
    w.pointer(12).record(1, 60, 4).raw({10, 0, 0, last});
    return w.bytes();
}

TEST(DnsClientTest, TakesOnlyTheAnswerThatMatchesItsQuery) {
    SilentServer server;
    SilentServer stranger;
    DnsClientOptions options;
    options.servers = {server.address};
    VirtualClient c(options);
    const auto answer = c.query("match.test", RecordType::A);
    net::SocketAddress client;
    const auto query = receiveQuery(server, client);
    ASSERT_TRUE(query);
    const unsigned id = (static_cast<unsigned>((*query)[0]) << 8) | (*query)[1];
    const auto send = [&](SilentServer& from, const std::vector<uint8_t>& bytes) {
        ASSERT_TRUE(from.socket.sendTo(bytes.data(), bytes.size(), client).ok());
    };
    send(server, answerTo(id ^ 0x5A5A, "match.test", 1));  // another id
    send(server, answerTo(id, "other.test", 2));           // another question
    send(stranger, answerTo(id, "match.test", 3));         // another sender
    send(server, *query);                                  // the query itself, not a response
    send(server, answerTo(id, "MATCH.test", 4));           // the answer
    ASSERT_TRUE(c.waitAnswer(answer));
    ASSERT_EQ((*answer)->status, DnsStatus::Ok);
    ASSERT_EQ((*answer)->records.size(), 1U);
    EXPECT_EQ((*answer)->records[0].address()->ip(), "10.0.0.4");
}

using DnsClientDnsmasqTest = test::DnsmasqTest;

// Forty addresses do not fit the 512 bytes of a plain UDP answer: asked again over TCP.
TEST_F(DnsClientDnsmasqTest, AnswersFromTheCacheUntilExpiryAndOverTcpWhenTruncated) {
    std::vector<std::string> config = {"local=/test/", "local-ttl=60", "host-record=h.test,127.0.0.5,::5"};
    for (int i = 1; i <= 40; ++i) config.push_back("host-record=big.test,127.0.1." + std::to_string(i));
    VirtualClient* c = startClient(config);
    ASSERT_TRUE(c);
    const auto ask = [c](const char* name, size_t records, bool fromCache) {
        const auto answer = c->query(name, RecordType::A);
        ASSERT_TRUE(c->waitAnswer(answer));
        ASSERT_EQ((*answer)->status, DnsStatus::Ok) << (*answer)->error;
        EXPECT_EQ((*answer)->records.size(), records);
        EXPECT_EQ((*answer)->fromCache, fromCache);
    };
    ask("h.test", 1, false);
    c->advance(59s);
    ask("h.test", 1, true);
    c->advance(1s);
    ask("h.test", 1, false);
    EXPECT_EQ(c->client.stats().cacheHits, 1U);
    ask("big.test", 40, false);
    EXPECT_EQ(c->client.stats().udpQueriesSent, 3U);
    EXPECT_EQ(c->client.stats().tcpQueriesSent, 1U);
}

TEST_F(DnsClientDnsmasqTest, MovesPastARefusingServerAtOnce) {
    auto* refusing = startDnsmasq({"host-record=elsewhere.test,127.0.0.9"});
    auto* knowing = startDnsmasq({"local=/example/", "host-record=h.example,127.0.0.6"});
    ASSERT_TRUE(refusing && knowing);
    DnsClientOptions options;
    options.servers = {refusing->address(), knowing->address()};
    VirtualClient c(options);
    const auto answer = c.query("h.example", RecordType::A);
    ASSERT_TRUE(c.waitAnswer(answer));
    ASSERT_EQ((*answer)->status, DnsStatus::Ok) << (*answer)->error;
    EXPECT_EQ((*answer)->server, knowing->address());
    EXPECT_EQ(c.client.stats().udpQueriesSent, 2U) << "no time-out, no retry to a server that refused";
}

}  // namespace
}  // namespace kelsip::dns
