// Portable sockets: numeric address text forms, read and written.
#include "sip/net/socket.h"

#include <gtest/gtest.h>

namespace kelsip::net {
namespace {

TEST(SocketAddressTest, ParsesAndPrintsNumericAddresses) {
    const struct {
        const char* in;
        const char* ip;
    } cases[] = {
        {"255.255.255.255", "255.255.255.255"},
        {"::", "::"},
        {"[::1]", "::1"},
        {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // the first of two equal runs
        {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // a single zero group stays
        {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},           // the longest run wins
        {"fe80::", "fe80::"},
        {"::ffff:192.0.2.128", "::ffff:192.0.2.128"},
        {"2001:db8::192.0.2.1", "2001:db8::c000:201"},
    };
    for (const auto& c : cases) {
        const auto a = SocketAddress::parse(c.in, 5060);
        ASSERT_TRUE(a) << c.in;
        EXPECT_EQ(a->ip(), c.ip) << c.in;
        EXPECT_EQ(SocketAddress::parse(a->ip(), 5060), a) << "round trip of " << c.in;
    }
    for (const char* bad : {"256.0.0.1", "1.2.3", "1.2.3.4.5", "01.2.3.4", "1..3.4", "1:2:3:4:5:6:7:8:9",
                            "1:2:3:4:5:6:7", "1::2::3", "2001:db8:::1", "12345::1", ":1::2", "1::2:",
                            "fe80::1%eth0", "example.com", ""}) {
        EXPECT_FALSE(SocketAddress::parse(bad, 5060)) << bad;
    }
    EXPECT_EQ(SocketAddress::parseWithPort("[2001:db8::1]:5060")->toString(), "[2001:db8::1]:5060");
    for (const char* bad : {"192.0.2.7", "192.0.2.7:", "192.0.2.7:65536", "::1:5060", "[::1]5060", "[::1]", "a:1"}) {
        EXPECT_FALSE(SocketAddress::parseWithPort(bad)) << bad;
    }
    EXPECT_TRUE(SocketAddress::parse("::1")->isLoopback());
    EXPECT_TRUE(SocketAddress::parse("169.254.1.1")->isLinkLocal());
    EXPECT_FALSE(SocketAddress::parse("fec0::1")->isLinkLocal());
}

}  // namespace
}  // namespace kelsip::net
