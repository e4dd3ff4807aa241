// Portable sockets: address text forms, UDP and TCP on loopback, the poll
// routine, local addresses and secure random bytes.
#include "sip/net/socket.h"

#include <gtest/gtest.h>

#include <cstring>

#include "sip/core/system.h"

namespace kelsip::net {
namespace {

TEST(SocketAddressTest, ParsesAndPrintsNumericAddresses) {
    const struct {
        const char* in;
        const char* ip;  // nullptr: refused
    } cases[] = {
        {"192.0.2.1", "192.0.2.1"},
        {"0.0.0.0", "0.0.0.0"},
        {"255.255.255.255", "255.255.255.255"},
        {"256.0.0.1", nullptr},
        {"1.2.3", nullptr},
        {"1.2.3.4.5", nullptr},
        {"01.2.3.4", nullptr},
        {"1..3.4", nullptr},
        {"::", "::"},
        {"::1", "::1"},
        {"[::1]", "::1"},
        {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},       // the first of two equal runs
        {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},    // a single zero group stays
        {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},             // the longest run wins
        {"fe80::", "fe80::"},
        {"::ffff:192.0.2.128", "::ffff:192.0.2.128"},
        {"2001:db8::192.0.2.1", "2001:db8::c000:201"},
        {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"},
        {"1:2:3:4:5:6:7:8:9", nullptr},
        {"1:2:3:4:5:6:7", nullptr},
        {"1::2::3", nullptr},
        {"2001:db8:::1", nullptr},
        {"12345::1", nullptr},
        {":1::2", nullptr},
        {"1::2:", nullptr},
        {"fe80::1%eth0", nullptr},
        {"example.com", nullptr},
        {"", nullptr},
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

Socket boundUdp() {
    Socket s = Socket::open(AddressFamily::V4, SocketType::Udp);
    EXPECT_TRUE(s.valid());
    EXPECT_TRUE(s.bind(SocketAddress::loopback(AddressFamily::V4)));
    EXPECT_TRUE(s.setNonBlocking(true));
    return s;
}

// Readable, or a hang-up: some systems report a peer's close only as the latter.
bool waitReadable(const Socket& s, int timeoutMs = 5000) {
    PollEntry e{s.native(), true, false};
    return poll({&e, 1}, timeoutMs) == 1 && (e.readable || e.error);
}

TEST(SocketTest, UdpDatagramsCrossLoopbackWithTheirSource) {
    Socket a = boundUdp();
    Socket b = boundUdp();
    const SocketAddress to = *b.localAddress();
    ASSERT_NE(to.port(), 0);
    char buf[64];
    SocketAddress from;
    EXPECT_EQ(b.receiveFrom(buf, sizeof buf, from).status, IoResult::Status::WouldBlock);
    ASSERT_TRUE(a.sendTo("hello", 5, to).ok());
    ASSERT_TRUE(waitReadable(b));
    const IoResult r = b.receiveFrom(buf, sizeof buf, from);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(std::string(buf, r.bytes), "hello");
    EXPECT_EQ(from, *a.localAddress());
}

TEST(SocketTest, PollTimesOutWhenNothingHappens) {
    Socket a = boundUdp();
    PollEntry e{a.native(), true, false};
    EXPECT_EQ(poll({&e, 1}, 20), 0);
    EXPECT_FALSE(e.readable);
    EXPECT_FALSE(e.error);
}

TEST(SocketTest, TcpConnectAcceptAndStreamBothWays) {
    Socket listener = Socket::open(AddressFamily::V4, SocketType::Tcp);
    ASSERT_TRUE(listener.setReuseAddress(true));
    ASSERT_TRUE(listener.bind(SocketAddress::loopback(AddressFamily::V4)));
    ASSERT_TRUE(listener.listen(8));
    ASSERT_TRUE(listener.setNonBlocking(true));
    const SocketAddress at = *listener.localAddress();
    Socket client = Socket::open(AddressFamily::V4, SocketType::Tcp);
    ASSERT_TRUE(client.setNonBlocking(true));
    const ConnectStatus status = client.connect(at);
    ASSERT_NE(status, ConnectStatus::Failed);
    ASSERT_TRUE(waitReadable(listener));
    SocketAddress peer;
    auto server = listener.accept(&peer);
    ASSERT_TRUE(server);
    ASSERT_TRUE(server->setNonBlocking(true));
    PollEntry w{client.native(), false, true};
    ASSERT_EQ(poll({&w, 1}, 5000), 1);
    EXPECT_TRUE(w.writable);
    EXPECT_EQ(client.connectResult(), 0);
    EXPECT_EQ(peer, *client.localAddress());
    EXPECT_EQ(*client.peerAddress(), at);
    ASSERT_TRUE(client.send("ping", 4).ok());
    ASSERT_TRUE(waitReadable(*server));
    char buf[16];
    IoResult r = server->receive(buf, sizeof buf);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(std::string(buf, r.bytes), "ping");
    client.close();
    ASSERT_TRUE(waitReadable(*server));
    r = server->receive(buf, sizeof buf);
    EXPECT_EQ(r.status, IoResult::Status::Closed);
}

TEST(SocketTest, ConnectToAClosedPortFails) {
    // Take a free port, then close it so that nothing listens there.
    Socket probe = Socket::open(AddressFamily::V4, SocketType::Tcp);
    ASSERT_TRUE(probe.bind(SocketAddress::loopback(AddressFamily::V4)));
    const SocketAddress closed = *probe.localAddress();
    probe.close();
    Socket client = Socket::open(AddressFamily::V4, SocketType::Tcp);
    ASSERT_TRUE(client.setNonBlocking(true));
    const ConnectStatus status = client.connect(closed);
    if (status == ConnectStatus::InProgress) {
        PollEntry e{client.native(), false, true};
        ASSERT_EQ(poll({&e, 1}, 5000), 1);
        EXPECT_TRUE(e.error || client.connectResult() != 0);
    } else {
        EXPECT_EQ(status, ConnectStatus::Failed);
    }
}

TEST(SocketTest, KnowsItsOwnAddresses) {
    const auto local = localAddressToward(*SocketAddress::parse("127.0.0.1", 5060));
    ASSERT_TRUE(local);
    EXPECT_TRUE(local->isLoopback());
    bool sawLoopback = false;
    for (const auto& a : localAddresses()) sawLoopback |= a.address.isLoopback();
    EXPECT_TRUE(sawLoopback);
}

TEST(SecureRandomTest, FillsTheWholeBufferWithFreshBytes) {
    uint8_t a[64] = {};
    uint8_t b[64] = {};
    ASSERT_TRUE(platform::secureRandom(a, sizeof a));
    ASSERT_TRUE(platform::secureRandom(b, sizeof b));
    EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
    int zeros = 0;
    for (const uint8_t x : a) zeros += x == 0;
    EXPECT_LT(zeros, 16);  // a 64-byte buffer left untouched would be all zero
}

}  // namespace
}  // namespace kelsip::net
