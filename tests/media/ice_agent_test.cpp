// Two ICE agents over an in-memory network in virtual time: paced checks,
// nomination, consent, role conflicts, peer-reflexive candidates, failure
// and restart. The network (below the agents) can hide a base behind a NAT
// and drop whatever goes to or comes from an address.
#include "media/ice/ice_agent.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "sip/core/clock.h"

namespace kelsip::ice {
namespace {

net::SocketAddress at(const char* ip, uint16_t port) { return *net::SocketAddress::parse(ip, port); }

struct Sent {
    int64_t atUs;
    int end;
    net::SocketAddress to;
    std::vector<uint8_t> bytes;
};

class TestNetwork {
public:
    struct Peer final : IceNetwork, IceListener {
        TestNetwork* network = nullptr;
        int end = 0;
        std::vector<net::SocketAddress> privateAddress;
        std::vector<std::optional<net::SocketAddress>> publicAddress;  // a NAT's mapping
        std::unique_ptr<IceAgent> agent;
        std::vector<IceState> states;
        std::vector<std::vector<uint8_t>> data;

        void send(int base, const net::SocketAddress& to, std::span<const uint8_t> bytes) override {
            network->route(end, base, to, bytes);
        }
        void onIceState(IceState state) override { states.push_back(state); }
        void onData(int, std::span<const uint8_t> bytes) override { data.emplace_back(bytes.begin(), bytes.end()); }

        int addBase(const net::SocketAddress& address, std::optional<net::SocketAddress> mapped = std::nullopt,
                    int component = kRtpComponent) {
            privateAddress.push_back(address);
            publicAddress.push_back(mapped);
            return agent->addHostBase(component, address);
        }
    };

    Peer& add(IceRole role) {
        auto peer = std::make_unique<Peer>();
        peer->network = this;
        peer->end = static_cast<int>(peers_.size());
        IceAgentOptions options;
        options.role = role;
        peer->agent = std::make_unique<IceAgent>(*peer, options, peer.get());
        peers_.push_back(std::move(peer));
        return *peers_.back();
    }
    int64_t nowUs() const { return clock_.nowNs() / 1000; }
    void block(const net::SocketAddress& address) { blocked_.insert(address); }
    const std::vector<Sent>& sent() const { return sent_; }

    // Each agent learns the other's candidates, as an offer and answer would tell.
    void exchange(Peer& a, Peer& b) {
        a.agent->setRemote(b.agent->localUfrag(), b.agent->localPwd(), b.agent->localCandidates(), nowUs());
        b.agent->setRemote(a.agent->localUfrag(), a.agent->localPwd(), a.agent->localCandidates(), nowUs());
    }

    // 1 ms steps, datagrams take 5 ms.
    void runUntil(int64_t untilUs) {
        while (nowUs() < untilUs) {
            while (!queue_.empty() && queue_.begin()->first <= nowUs()) {
                const auto [end, base, from, bytes] = queue_.begin()->second;
                queue_.erase(queue_.begin());
                peers_[static_cast<size_t>(end)]->agent->receive(base, from, bytes, nowUs());
            }
            for (auto& peer : peers_) peer->agent->tick(nowUs());
            clock_.advance(std::chrono::milliseconds(1));
        }
    }
    void runFor(int64_t us) { runUntil(nowUs() + us); }

private:
    void route(int end, int base, const net::SocketAddress& to, std::span<const uint8_t> bytes) {
        Peer& from = *peers_[static_cast<size_t>(end)];
        const net::SocketAddress source =
            from.publicAddress[static_cast<size_t>(base)].value_or(from.privateAddress[static_cast<size_t>(base)]);
        sent_.push_back(Sent{nowUs(), end, to, {bytes.begin(), bytes.end()}});
        if (blocked_.count(to) || blocked_.count(source)) return;
        for (auto& peer : peers_) {
            for (size_t b = 0; b < peer->privateAddress.size(); ++b) {
                // Behind a NAT only the mapped address is reachable.
                if (peer->publicAddress[b].value_or(peer->privateAddress[b]) != to) continue;
                queue_.emplace(nowUs() + 5000, std::make_tuple(peer->end, static_cast<int>(b), source,
                                                               std::vector<uint8_t>(bytes.begin(), bytes.end())));
            }
        }
    }

    ManualClock clock_;
    std::vector<std::unique_ptr<Peer>> peers_;
    std::set<net::SocketAddress> blocked_;
    std::vector<Sent> sent_;
    std::multimap<int64_t, std::tuple<int, int, net::SocketAddress, std::vector<uint8_t>>> queue_;
};

// First sends of the Binding requests `end` made (not their resends).
std::vector<std::pair<int64_t, net::SocketAddress>> checksSent(const TestNetwork& network, int end) {
    std::vector<std::pair<int64_t, net::SocketAddress>> out;
    std::set<stun::TransactionId> seen;
    for (const Sent& s : network.sent()) {
        const auto m = stun::parse(s.bytes);
        if (s.end == end && m && m->messageClass == stun::Class::Request && seen.insert(m->transaction).second) {
            out.emplace_back(s.atUs, s.to);
        }
    }
    return out;
}

int errorAnswers(const TestNetwork& network, int code) {
    int count = 0;
    for (const Sent& s : network.sent()) {
        const auto m = stun::parse(s.bytes);
        if (m && m->messageClass == stun::Class::Error && m->errorCode() && m->errorCode()->code == code) ++count;
    }
    return count;
}

void start(TestNetwork& network, TestNetwork::Peer& a, TestNetwork::Peer& b) {
    a.agent->gather(network.nowUs());
    b.agent->gather(network.nowUs());
    network.exchange(a, b);
}

// A controlling agent `a` and a controlled `b` on one network.
class IceAgentTest : public ::testing::Test {
protected:
    TestNetwork network;
    TestNetwork::Peer& a = network.add(IceRole::Controlling);
    TestNetwork::Peer& b = network.add(IceRole::Controlled);
};

TEST_F(IceAgentTest, PacesChecksAndNominatesTheWorkingPair) {
    a.addBase(at("10.0.0.1", 1000));
    b.addBase(at("10.0.0.2", 2000));
    b.addBase(at("10.0.0.3", 3000));
    network.block(at("10.0.0.3", 3000));
    start(network, a, b);

    network.runUntil(120000);
    // One check per Ta: the best pair first, then the nomination of the
    // pair that answered, then the lower pair.
    const auto checks = checksSent(network, 0);
    ASSERT_EQ(checks.size(), 3u);
    EXPECT_EQ(checks[0], std::make_pair(int64_t{0}, at("10.0.0.2", 2000)));
    EXPECT_EQ(checks[1], std::make_pair(int64_t{50000}, at("10.0.0.2", 2000)));
    EXPECT_EQ(checks[2], std::make_pair(int64_t{100000}, at("10.0.0.3", 3000)));

    ASSERT_EQ(a.agent->state(), IceState::Completed);
    ASSERT_EQ(b.agent->state(), IceState::Completed);
    EXPECT_EQ(a.states, (std::vector<IceState>{IceState::Gathering, IceState::Checking, IceState::Connected,
                                              IceState::Completed}));
    EXPECT_EQ(a.agent->selectedPair(1)->remote.address, at("10.0.0.2", 2000));
    EXPECT_EQ(b.agent->selectedPair(1)->remote.address, at("10.0.0.1", 1000));
    EXPECT_EQ(b.agent->selectedPair(1)->local.address, at("10.0.0.2", 2000));

    // The same description again (a re-offer) changes nothing.
    network.exchange(a, b);
    network.runFor(100000);
    EXPECT_EQ(a.states.back(), IceState::Completed);
    EXPECT_EQ(b.states.back(), IceState::Completed);

    const std::vector<uint8_t> rtp = {0x80, 0x00, 0x01};
    EXPECT_TRUE(a.agent->send(1, rtp, network.nowUs()));
    EXPECT_TRUE(b.agent->send(1, rtp, network.nowUs()));
    network.runFor(10000);
    EXPECT_EQ(a.data, std::vector<std::vector<uint8_t>>{rtp});
    EXPECT_EQ(b.data, std::vector<std::vector<uint8_t>>{rtp});

    // Consent: asked again every 4 to 6 s and answered, the pair stays. Once
    // the far end goes quiet, consent runs out 24 to 30 s later and nothing
    // more is sent to it.
    const size_t before = checksSent(network, 0).size();
    network.runFor(60000000);
    const size_t consentChecks = checksSent(network, 0).size() - before;
    EXPECT_GE(consentChecks, 10u);
    EXPECT_LE(consentChecks, 15u);
    network.block(at("10.0.0.2", 2000));
    network.runFor(23900000);
    EXPECT_EQ(a.agent->state(), IceState::Completed);
    network.runFor(6200000);
    EXPECT_EQ(a.agent->state(), IceState::Failed);
    EXPECT_FALSE(a.agent->send(1, rtp, network.nowUs()));
}

TEST(IceAgent, TwoControllingAgentsSettleTheirRolesByTieBreaker) {
    TestNetwork network;
    auto& a = network.add(IceRole::Controlling);
    auto& b = network.add(IceRole::Controlling);
    a.addBase(at("10.0.0.1", 1000));
    b.addBase(at("10.0.0.2", 2000));
    start(network, a, b);
    network.runUntil(2000000);

    EXPECT_GE(errorAnswers(network, 487), 1);
    EXPECT_NE(a.agent->role(), b.agent->role());
    EXPECT_EQ(a.agent->state(), IceState::Completed);
    EXPECT_EQ(b.agent->state(), IceState::Completed);
}

TEST_F(IceAgentTest, LearnsPeerReflexiveCandidateOfAnAgentBehindNat) {
    a.addBase(at("10.0.0.1", 1000), at("203.0.113.5", 40000));
    b.addBase(at("198.51.100.2", 2000));
    start(network, a, b);
    network.runUntil(2000000);

    ASSERT_EQ(b.agent->state(), IceState::Completed);
    const auto chosen = b.agent->selectedPair(1);
    EXPECT_EQ(chosen->remote.type, CandidateType::PeerReflexive);
    EXPECT_EQ(chosen->remote.address, at("203.0.113.5", 40000));
    EXPECT_EQ(a.agent->state(), IceState::Completed);
    // A's own mapped address is not something it offers.
    EXPECT_EQ(a.agent->localCandidates().size(), 1u);
}

TEST_F(IceAgentTest, FailsWhenTheLastCheckTimesOut) {
    a.addBase(at("10.0.0.1", 1000));
    b.addBase(at("10.0.0.2", 2000));
    network.block(at("10.0.0.2", 2000));
    start(network, a, b);

    network.runUntil(39500000);
    EXPECT_EQ(a.agent->state(), IceState::Checking);
    network.runFor(1000);
    EXPECT_EQ(a.agent->state(), IceState::Failed);
    EXPECT_EQ(checksSent(network, 0).size(), 1u);
}

TEST_F(IceAgentTest, RestartChecksAgainWithNewCredentials) {
    a.addBase(at("10.0.0.1", 1000));
    a.addBase(at("10.0.0.1", 1001), std::nullopt, kRtcpComponent);
    b.addBase(at("10.0.0.2", 2000));
    b.addBase(at("10.0.0.2", 2001), std::nullopt, kRtcpComponent);
    start(network, a, b);
    network.runUntil(1000000);
    ASSERT_EQ(a.agent->state(), IceState::Completed);
    ASSERT_EQ(b.agent->selectedPair(kRtcpComponent)->remote.address, at("10.0.0.1", 1001));
    const std::string oldUfrag = a.agent->localUfrag();

    a.agent->restart(network.nowUs());
    b.agent->restart(network.nowUs());
    EXPECT_NE(a.agent->localUfrag(), oldUfrag);
    EXPECT_GE(a.agent->localUfrag().size(), 4u);
    EXPECT_GE(a.agent->localPwd().size(), 22u);
    // Until the new checks are through, media stays on the old pair.
    EXPECT_TRUE(a.agent->send(1, std::vector<uint8_t>{0x80}, network.nowUs()));
    const size_t checksBefore = checksSent(network, 0).size();
    const size_t sentBefore = network.sent().size();
    const size_t statesBefore = a.states.size();
    network.exchange(a, b);
    network.runFor(1000000);

    ASSERT_GT(a.states.size(), statesBefore);
    EXPECT_EQ(a.states[statesBefore], IceState::Checking);
    EXPECT_EQ(a.agent->state(), IceState::Completed);
    EXPECT_EQ(b.agent->state(), IceState::Completed);
    EXPECT_GT(checksSent(network, 0).size(), checksBefore);
    // The new checks name the new credentials, and both components are
    // nominated again.
    std::set<net::SocketAddress> nominated;
    for (size_t i = sentBefore; i < network.sent().size(); ++i) {
        const Sent& s = network.sent()[i];
        const auto m = stun::parse(s.bytes);
        if (s.end != 0 || !m || m->messageClass != stun::Class::Request) continue;
        EXPECT_EQ(m->text(stun::attr::kUsername), b.agent->localUfrag() + ':' + a.agent->localUfrag());
        if (m->has(stun::attr::kUseCandidate)) nominated.insert(s.to);
    }
    EXPECT_EQ(nominated, (std::set<net::SocketAddress>{at("10.0.0.2", 2000), at("10.0.0.2", 2001)}));
}

}  // namespace
}  // namespace kelsip::ice
