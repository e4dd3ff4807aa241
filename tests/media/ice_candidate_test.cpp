// ICE candidates: the SDP attribute value read and written, priorities and
// the default candidate of an offer.
#include "media/ice/candidate.h"
#include "media/ice/ice_agent.h"

#include <gtest/gtest.h>

#include <vector>

namespace kelsip::ice {
namespace {

struct ParseCase {
    const char* value;
    const char* error;  // null: parses
    const char* formatted;  // what we write back (for the ones that parse)
};

TEST(IceCandidate, ReadsValidValuesAndRefusesMalformedOnes) {
    const ParseCase cases[] = {
        {"1 1 UDP 2130706431 192.0.2.1 5000 typ host", nullptr, "1 1 UDP 2130706431 192.0.2.1 5000 typ host"},
        {"candidate:a+/B 2 udp 1694498815 198.51.100.7 40002 typ srflx raddr 10.0.0.2 rport 5001", nullptr,
         "a+/B 2 UDP 1694498815 198.51.100.7 40002 typ srflx raddr 10.0.0.2 rport 5001"},
        {"7 1 UDP 16777215 2001:db8::5 3478 typ relay raddr 2001:db8::1 rport 9 generation 0 network-id 1", nullptr,
         "7 1 UDP 16777215 2001:db8::5 3478 typ relay raddr 2001:db8::1 rport 9"},
        {"3 1 UDP 1862270975 203.0.113.9 6000 typ prflx", nullptr,
         "3 1 UDP 1862270975 203.0.113.9 6000 typ prflx raddr 0.0.0.0 rport 0"},
        {"", "bad candidate foundation", nullptr},
        {"a-b 1 UDP 1 192.0.2.1 5000 typ host", "bad candidate foundation", nullptr},
        {"1 0 UDP 1 192.0.2.1 5000 typ host", "bad candidate component", nullptr},
        {"1 x UDP 1 192.0.2.1 5000 typ host", "bad candidate component", nullptr},
        {"1 1 TCP 1 192.0.2.1 5000 typ host tcptype active", "unsupported candidate transport", nullptr},
        {"1 1 UDP 0 192.0.2.1 5000 typ host", "bad candidate priority", nullptr},
        {"1 1 UDP 4294967295 192.0.2.1 5000 typ host", "bad candidate priority", nullptr},
        {"1 1 UDP 1 host.example.com 5000 typ host", "bad candidate address", nullptr},
        {"1 1 UDP 1 192.0.2.1", "bad candidate address", nullptr},
        {"1 1 UDP 1 192.0.2.1 65536 typ host", "bad candidate port", nullptr},
        {"1 1 UDP 1 192.0.2.1 5000 type host", "bad candidate type", nullptr},
        {"1 1 UDP 1 192.0.2.1 5000 typ nat", "bad candidate type", nullptr},
        {"1 1 UDP 1 192.0.2.1 5000 typ srflx raddr 10.0.0.1", "bad candidate related address", nullptr},
        {"1 1 UDP 1 192.0.2.1 5000 typ srflx raddr ::1 rport 5", "bad candidate related address", nullptr},
        {"1 1 UDP 1 192.0.2.1 5000 typ host generation", "bad candidate extension", nullptr},
    };
    for (const ParseCase& c : cases) {
        std::string error;
        const auto candidate = parseCandidate(c.value, &error);
        if (c.error) {
            EXPECT_FALSE(candidate) << c.value;
            EXPECT_EQ(error, c.error) << c.value;
            continue;
        }
        ASSERT_TRUE(candidate) << c.value << ": " << error;
        EXPECT_EQ(formatCandidate(*candidate), c.formatted);
        const auto again = parseCandidate(formatCandidate(*candidate));
        ASSERT_TRUE(again) << c.value;
        EXPECT_EQ(formatCandidate(*again), c.formatted);
    }
}

TEST(IceCandidate, PrioritiesFollowTypeLocalPreferenceAndComponent) {
    EXPECT_EQ(candidatePriority(CandidateType::Host, 65535, 1), 2130706431u);
    EXPECT_EQ(candidatePriority(CandidateType::PeerReflexive, 65535, 1), 1862270975u);
    EXPECT_EQ(candidatePriority(CandidateType::ServerReflexive, 65535, 2), 1694498814u);
    EXPECT_EQ(candidatePriority(CandidateType::Relayed, 65535, 1), 16777215u);
    // The controlling side's priority breaks a tie in the lowest bit.
    EXPECT_EQ(pairPriority(2, 1), (uint64_t{1} << 32) + 4 + 1);
    EXPECT_EQ(pairPriority(1, 2), (uint64_t{1} << 32) + 4);
}

TEST(IceCandidate, FoundationsAreEqualExactlyForTheSameTypeBaseAndServer) {
    const auto base = *net::SocketAddress::parse("10.0.0.1", 5000);
    const auto otherPort = *net::SocketAddress::parse("10.0.0.1", 6000);
    const auto server = net::SocketAddress::parse("192.0.2.9", 3478);
    EXPECT_EQ(candidateFoundation(CandidateType::Host, base, std::nullopt),
              candidateFoundation(CandidateType::Host, otherPort, std::nullopt));
    EXPECT_NE(candidateFoundation(CandidateType::Host, base, std::nullopt),
              candidateFoundation(CandidateType::ServerReflexive, base, server));
    EXPECT_NE(candidateFoundation(CandidateType::Relayed, base, server),
              candidateFoundation(CandidateType::Relayed, base, net::SocketAddress::parse("192.0.2.10", 3478)));
}

TEST(IceCandidate, DefaultIsRelayedThenReflexiveThenHostPerComponent) {
    const auto make = [](int component, CandidateType type, uint32_t priority, const char* ip) {
        Candidate c;
        c.foundation = "1";
        c.component = component;
        c.type = type;
        c.priority = priority;
        c.address = *net::SocketAddress::parse(ip, 5000);
        return c;
    };
    std::vector<Candidate> list = {make(1, CandidateType::Host, 900, "10.0.0.1"),
                                   make(1, CandidateType::PeerReflexive, 950, "10.0.0.9"),
                                   make(2, CandidateType::Host, 800, "10.0.0.1"),
                                   make(1, CandidateType::ServerReflexive, 500, "198.51.100.1"),
                                   make(1, CandidateType::ServerReflexive, 600, "198.51.100.2")};
    EXPECT_EQ(defaultCandidate(list, 1)->address.ip(), "198.51.100.2");
    EXPECT_EQ(defaultCandidate(list, 2)->address.ip(), "10.0.0.1");
    EXPECT_EQ(defaultCandidate(list, 3), nullptr);
    list.push_back(make(1, CandidateType::Relayed, 10, "192.0.2.50"));
    EXPECT_EQ(defaultCandidate(list, 1)->address.ip(), "192.0.2.50");
}

}  // namespace
}  // namespace kelsip::ice
