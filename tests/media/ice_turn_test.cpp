// The ICE agent and TURN client over real UDP sockets against a real coturn
// on 127.0.0.1: gathering reflexive and relayed candidates, a refused
// password, and two agents reaching each other through the relay.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

#include "media/ice/ice_agent.h"
#include "sip/net/socket.h"
#include "support/turn_server.h"
#include "support/wait.h"

namespace kelsip::ice {
namespace {

using test::TurnServer;

int64_t steadyUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// One agent on its own sockets, as the RTP session will run it.
class SocketAgent final : public IceNetwork, public IceListener {
public:
    explicit SocketAgent(IceAgentOptions options) : agent(*this, std::move(options), this) {}

    // A socket bound to `bindTo`; the agent is told `advertised` (or the
    // socket's own address).
    int addBase(const net::SocketAddress& bindTo, std::optional<net::SocketAddress> advertised = std::nullopt) {
        net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
        EXPECT_TRUE(socket.valid() && socket.setNonBlocking(true) && socket.bind(bindTo));
        net::SocketAddress address = advertised.value_or(*socket.localAddress());
        address.setPort(socket.localAddress()->port());
        sockets.push_back(std::move(socket));
        return agent.addHostBase(kRtpComponent, address);
    }
    void send(int base, const net::SocketAddress& to, std::span<const uint8_t> bytes) override {
        static_cast<void>(sockets[static_cast<size_t>(base)].sendTo(bytes.data(), bytes.size(), to));
    }
    void onGatheringDone() override { gathered = true; }
    void onData(int, std::span<const uint8_t> bytes) override { data.emplace_back(bytes.begin(), bytes.end()); }

    // Reads what has arrived and ticks the agent.
    void pump() {
        for (size_t i = 0; i < sockets.size(); ++i) {
            uint8_t buffer[2048];
            net::SocketAddress from;
            for (;;) {
                const auto got = sockets[i].receiveFrom(buffer, sizeof buffer, from);
                if (!got.ok()) break;
                agent.receive(static_cast<int>(i), from, std::span<const uint8_t>(buffer, got.bytes), steadyUs());
            }
        }
        agent.tick(steadyUs());
    }

    std::vector<net::Socket> sockets;
    IceAgent agent;
    bool gathered = false;
    std::vector<std::vector<uint8_t>> data;
};

bool runUntil(std::vector<SocketAgent*> agents, const std::function<bool()>& done) {
    return test::waitFor(
        [&] {
            for (SocketAgent* a : agents) a->pump();
            return done();
        },
        std::chrono::seconds(10));
}

class IceTurnTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!TurnServer::supported()) GTEST_SKIP() << "this platform cannot start programs";
        std::string error;
        ASSERT_TRUE(server_.start({}, &error)) << error << "\n" << server_.log();
    }
    void TearDown() override {
        if (HasFailure()) std::cerr << "coturn log:\n" << server_.log();
    }
    [[nodiscard]] TurnServerOptions credentials(std::string password = "secret") const {
        return TurnServerOptions{server_.address(), "alice", std::move(password), 600};
    }

    TurnServer server_;
};

const Candidate* find(const std::vector<Candidate>& list, CandidateType type) {
    for (const Candidate& c : list) {
        if (c.type == type) return &c;
    }
    return nullptr;
}

TEST_F(IceTurnTest, GathersReflexiveAndRelayedCandidates) {
    IceAgentOptions options;
    options.stunServer = server_.address();
    options.turnServer = credentials();
    SocketAgent a(options);
    // Bound to every address but announced on 127.0.0.2: the server sees
    // 127.0.0.1, as if a NAT stood between.
    a.addBase(net::SocketAddress::any(net::AddressFamily::V4), net::SocketAddress::parse("127.0.0.2"));
    a.agent.gather(steadyUs());
    ASSERT_TRUE(runUntil({&a}, [&] { return a.gathered; }));

    const auto list = a.agent.localCandidates();
    const Candidate* host = find(list, CandidateType::Host);
    const Candidate* srflx = find(list, CandidateType::ServerReflexive);
    const Candidate* relay = find(list, CandidateType::Relayed);
    ASSERT_TRUE(host && srflx && relay) << list.size() << " candidates";
    EXPECT_EQ(host->address.ip(), "127.0.0.2");
    EXPECT_EQ(srflx->address, net::SocketAddress::loopback(net::AddressFamily::V4, host->address.port()));
    EXPECT_EQ(srflx->related, host->address);
    EXPECT_EQ(relay->address.ip(), "127.0.0.1");
    EXPECT_NE(relay->address.port(), server_.port());
    EXPECT_EQ(relay->related, srflx->address);
    EXPECT_EQ(defaultCandidate(list, kRtpComponent), relay);
}

TEST_F(IceTurnTest, WrongPasswordLeavesOnlyTheHostCandidate) {
    IceAgentOptions options;
    options.turnServer = credentials("wrong");
    SocketAgent a(options);
    const int base = a.addBase(net::SocketAddress::loopback(net::AddressFamily::V4));
    a.agent.gather(steadyUs());
    ASSERT_TRUE(runUntil({&a}, [&] { return a.gathered; }));
    EXPECT_EQ(a.agent.turn(base)->state(), TurnClient::State::Failed);
    ASSERT_EQ(a.agent.localCandidates().size(), 1u);
    EXPECT_EQ(a.agent.localCandidates()[0].type, CandidateType::Host);
}

TEST_F(IceTurnTest, RelayOnlyAgentReachesItsPeerThroughTheRelay) {
    IceAgentOptions open;
    open.role = IceRole::Controlling;
    IceAgentOptions hidden;
    hidden.role = IceRole::Controlled;
    hidden.relayOnly = true;
    hidden.turnServer = credentials();
    SocketAgent a(open);
    SocketAgent b(hidden);
    a.addBase(net::SocketAddress::loopback(net::AddressFamily::V4));
    const int bBase = b.addBase(net::SocketAddress::loopback(net::AddressFamily::V4));
    a.agent.gather(steadyUs());
    b.agent.gather(steadyUs());
    ASSERT_TRUE(runUntil({&a, &b}, [&] { return a.gathered && b.gathered; }));
    const auto offered = b.agent.localCandidates();
    ASSERT_EQ(offered.size(), 1u);
    ASSERT_EQ(offered[0].type, CandidateType::Relayed);

    a.agent.setRemote(b.agent.localUfrag(), b.agent.localPwd(), offered, steadyUs());
    b.agent.setRemote(a.agent.localUfrag(), a.agent.localPwd(), a.agent.localCandidates(), steadyUs());
    ASSERT_TRUE(runUntil({&a, &b}, [&] {
        return a.agent.state() == IceState::Completed && b.agent.state() == IceState::Completed;
    }));
    EXPECT_EQ(a.agent.selectedPair(1)->remote.address, offered[0].address);
    EXPECT_EQ(b.agent.selectedPair(1)->local.type, CandidateType::Relayed);

    // Media both ways, first in Send/Data indications, then on the channel
    // the selected pair binds.
    const std::vector<uint8_t> fromA = {0x80, 0x00, 0xAA};
    const std::vector<uint8_t> fromB = {0x80, 0x00, 0xBB};
    ASSERT_TRUE(a.agent.send(1, fromA, steadyUs()));
    ASSERT_TRUE(b.agent.send(1, fromB, steadyUs()));
    ASSERT_TRUE(runUntil({&a, &b}, [&] { return a.data.size() == 1 && b.data.size() == 1; }));
    const net::SocketAddress aAddress = a.agent.localCandidates()[0].address;
    ASSERT_TRUE(runUntil({&a, &b}, [&] { return b.agent.turn(bBase)->channelBound(aAddress); }));
    ASSERT_TRUE(a.agent.send(1, fromA, steadyUs()));
    ASSERT_TRUE(b.agent.send(1, fromB, steadyUs()));
    ASSERT_TRUE(runUntil({&a, &b}, [&] { return a.data.size() == 2 && b.data.size() == 2; }));
    EXPECT_EQ(a.data, (std::vector<std::vector<uint8_t>>{fromB, fromB}));
    EXPECT_EQ(b.data, (std::vector<std::vector<uint8_t>>{fromA, fromA}));
    b.agent.close(steadyUs());
}

}  // namespace
}  // namespace kelsip::ice
