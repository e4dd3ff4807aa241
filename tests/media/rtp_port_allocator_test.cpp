// The RTP port pool on real sockets: the order pairs are handed out in, the
// end of the range, and pairs whose RTCP port another socket holds.
#include "media/rtp/rtp_port_allocator.h"

#include <gtest/gtest.h>

#include <vector>

namespace kelsip {
namespace {

const net::SocketAddress kLoopback = net::SocketAddress::loopback(net::AddressFamily::V4);

std::vector<int> ports(const RtpPortAllocator& allocator, int count, std::vector<RtpPortAllocator::PortPair>& held) {
    std::vector<int> out;
    for (int i = 0; i < count; ++i) {
        auto pair = allocator.allocate(kLoopback);
        out.push_back(pair ? pair->port : 0);
        if (pair) held.push_back(std::move(*pair));
    }
    return out;
}

TEST(RtpPortAllocatorTest, HandsOutEvenPortsInTurnUntilTheRangeIsExhausted) {
    const RtpPortAllocator allocator(10000, 10003);
    std::vector<RtpPortAllocator::PortPair> held;
    EXPECT_EQ(ports(allocator, 3, held), (std::vector<int>{10000, 10002, 0}));
    ASSERT_EQ(held.size(), 2u);
    // Both sockets of a pair are bound on the address asked for.
    EXPECT_EQ(held[0].rtp.localAddress(), net::SocketAddress::loopback(net::AddressFamily::V4, 10000));
    EXPECT_EQ(held[0].rtcp.localAddress(), net::SocketAddress::loopback(net::AddressFamily::V4, 10001));
}

TEST(RtpPortAllocatorTest, SearchGoesOnFromWhereItStoppedNotFromAFreedPort) {
    const RtpPortAllocator allocator(10000, 10005);
    std::vector<RtpPortAllocator::PortPair> held;
    EXPECT_EQ(ports(allocator, 2, held), (std::vector<int>{10000, 10002}));
    held.erase(held.begin());
    allocator.release(10000);
    EXPECT_EQ(ports(allocator, 2, held), (std::vector<int>{10004, 10000}));
}

TEST(RtpPortAllocatorTest, SkipsAPairWhoseRtcpPortIsHeldElsewhere) {
    net::Socket squatter = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    ASSERT_TRUE(squatter.bind(net::SocketAddress::loopback(net::AddressFamily::V4, 10001)));
    const RtpPortAllocator allocator(10000, 10003);
    std::vector<RtpPortAllocator::PortPair> held;
    // 10000 fails to bind its RTCP port and 10002 is then in use: two attempts, none left.
    EXPECT_EQ(ports(allocator, 2, held), (std::vector<int>{10002, 0}));
    // The RTP socket of the failed pair was closed again.
    EXPECT_TRUE(net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp)
                    .bind(net::SocketAddress::loopback(net::AddressFamily::V4, 10000)));
}

TEST(RtpPortAllocatorTest, RefusesAnEmptyOrInvertedRange) {
    std::vector<RtpPortAllocator::PortPair> held;
    EXPECT_EQ(ports(RtpPortAllocator(10000, 10000), 1, held), (std::vector<int>{0}));
    EXPECT_EQ(ports(RtpPortAllocator(10002, 10000), 1, held), (std::vector<int>{0}));
}

}  // namespace
}  // namespace kelsip
