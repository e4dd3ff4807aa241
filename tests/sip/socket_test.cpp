// Portable sockets: address text forms, UDP and TCP on loopback, the poll
// routine, local addresses and secure random bytes.
#include "sip/net/socket.h"

#include <gtest/gtest.h>

namespace kelsip::net {
namespace {

TEST(SocketAddressTest, ParsesAndPrintsNumericAddresses) {
    const struct {
        const char* in;
        const char* ip;  // nullptr: refused
    } cases[] = {
        {"192.0.2.1", "192.0.2.1"}, {"0.0.0.0", "0.0.0.0"}, {"255.255.255.255", "255.255.255.255"},
        {"256.0.0.1", nullptr}, {"1.2.3", nullptr}, {"1.2.3.4.5", nullptr}, {"01.2.3.4", nullptr}, {"1..3.4", nullptr},
        {"::", "::"}, {"::1", "::1"}, {"[::1]", "::1"}, {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},       // the first of two equal runs
        {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},    // a single zero group stays
        {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},             // the longest run wins
        {"fe80::", "fe80::"}, {"::ffff:192.0.2.128", "::ffff:192.0.2.128"},
        {"2001:db8::192.0.2.1", "2001:db8::c000:201"}, {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"},
        {"1:2:3:4:5:6:7:8:9", nullptr}, {"1:2:3:4:5:6:7", nullptr}, {"1::2::3", nullptr}, {"2001:db8:::1", nullptr},
        {"12345::1", nullptr}, {":1::2", nullptr}, {"1::2:", nullptr}, {"fe80::1%eth0", nullptr},
        {"example.com", nullptr}, {"", nullptr},
    };
    for (const auto& c : cases) {
        const auto a = SocketAddress::parse(c.in, 5060);
        ASSERT_EQ(a.has_value(), c.ip != nullptr) << c.in;
        if (!a) continue;
        EXPECT_EQ(a->ip(), c.ip) << c.in;
        EXPECT_EQ(SocketAddress::parse(a->ip(), 5060), a) << "round trip of " << c.in;
    }
}

TEST(SocketAddressTest, WritesHostAndPortWithBracketsForIpv6) {
    EXPECT_EQ(SocketAddress::parseWithPort("192.0.2.7:5062")->toString(), "192.0.2.7:5062");
    EXPECT_EQ(SocketAddress::parseWithPort("[2001:db8::1]:5060")->toString(), "[2001:db8::1]:5060");
    EXPECT_EQ(SocketAddress::parseWithPort("[::1]:0")->host(), "[::1]");
    for (const char* bad : {"192.0.2.7", "192.0.2.7:", "192.0.2.7:65536", "::1:5060", "[::1]5060", "[::1]", "a:1"}) {
        EXPECT_FALSE(SocketAddress::parseWithPort(bad)) << bad;
    }
    EXPECT_TRUE(SocketAddress::parse("127.0.0.9")->isLoopback());
    EXPECT_TRUE(SocketAddress::parse("::1")->isLoopback());
    EXPECT_TRUE(SocketAddress::parse("169.254.1.1")->isLinkLocal());
    EXPECT_TRUE(SocketAddress::parse("fe80::1")->isLinkLocal());
    EXPECT_FALSE(SocketAddress::parse("fec0::1")->isLinkLocal());
    EXPECT_TRUE(SocketAddress::any(AddressFamily::V6).isAny());
}

}  // namespace
}  // namespace kelsip::net
