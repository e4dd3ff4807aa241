// The SRTP layer around a real RTP session on loopback: only authenticated
// packets latch the source and reach the media session, refusals are
// counted and logged once per burst, and what we send is protected.
#include "media/srtp/srtp_transport.h"

#include <gtest/gtest.h>

#include "media/rtp/rtp_session.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace kelsip {
namespace {

using Bytes = std::vector<uint8_t>;
using Channel = MediaTransport::Channel;

net::SocketAddress loopback(uint16_t port = 0) { return net::SocketAddress::loopback(net::AddressFamily::V4, port); }

net::Socket boundUdp() {
    net::Socket s = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    return s.bind(loopback()) ? std::move(s) : net::Socket{};
}

Bytes rtp(uint16_t sequence) {
    Bytes p = {0x80, 0, static_cast<uint8_t>(sequence >> 8), static_cast<uint8_t>(sequence), 0, 0, 0, 0, 0, 0, 0x12, 0x34};
    p.resize(172, 0xd5);
    return p;
}

struct CountingSink : MediaTransport::Sink {
    void onPacket(Channel, std::span<const uint8_t> bytes, int64_t) override {
        clearSize = bytes.size();
        ++packets;
    }
    std::atomic<int> packets{0};
    std::atomic<size_t> clearSize{0};
};

srtp::CryptoAttribute attribute(uint8_t seed) {
    srtp::CryptoAttribute a;
    a.tag = 1;
    for (auto& b : a.key.key) b = seed++;
    for (auto& b : a.key.salt) b = seed++;
    return a;
}

TEST(SrtpTransportTest, OnlyAuthenticatedPacketsLatchAndPlayAndForgeriesAreLoggedOncePerBurst) {
    test::LogCapture log(LogLevel::Warn);
    auto io = std::make_shared<RtpIoService>();
    auto session = std::make_unique<RtpSession>(io, RtpSessionOptions{loopback(), false, true, 8000});
    ASSERT_TRUE(session->bind(loopback()));
    RtpSession* inner = session.get();
    const net::SocketAddress local = loopback(inner->localPort());
    const srtp::CryptoAttribute ours = attribute(1), theirs = attribute(100), forger = attribute(200);
    auto transport = SrtpTransport::create(std::move(session), ours, theirs, 9);
    ASSERT_TRUE(transport);
    CountingSink sink;
    transport->attach(&sink);
    net::Socket attacker = boundUdp(), peer = boundUdp();
    inner->setRemote(loopback(9));  // signalled somewhere else: the first genuine source latches

    auto peerContext = srtp::Context::create(theirs.suite, theirs.key);
    auto forgerContext = srtp::Context::create(forger.suite, forger.key);
    const auto send = [&](net::Socket& from, srtp::Context& context, uint16_t sequence) {
        Bytes p = rtp(sequence);
        ASSERT_EQ(context.protectRtp(p), srtp::Status::Ok);
        ASSERT_TRUE(from.sendTo(p.data(), p.size(), local).ok());
    };
    // Two bursts of forgeries around one genuine packet.
    for (uint16_t i = 0; i < 3; ++i) send(attacker, *forgerContext, i);
    ASSERT_TRUE(test::waitFor([&] { return transport->stats().unauthentic == 3; }, std::chrono::seconds(5)));
    EXPECT_EQ(inner->remote(), loopback(9));  // no forgery took the latch
    send(peer, *peerContext, 1);
    ASSERT_TRUE(test::waitFor([&] { return sink.packets == 1; }, std::chrono::seconds(5)));
    EXPECT_EQ(inner->remote(), peer.localAddress());
    EXPECT_EQ(sink.clearSize, 172u);
    for (uint16_t i = 3; i < 6; ++i) send(peer, *forgerContext, i);
    ASSERT_TRUE(test::waitFor([&] { return transport->stats().unauthentic == 6; }, std::chrono::seconds(5)));
    const auto lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& l) { return l == "call 9: dropping packets: authentication failed"; }),
              2);
    EXPECT_EQ(sink.packets, 1);

    // What we send leaves protected with our key: the peer's context for it reads it.
    ASSERT_TRUE(transport->send(Channel::Rtp, rtp(50)));
    Bytes got(2048);
    net::SocketAddress from;
    net::PollEntry entry{peer.native(), true, false};
    ASSERT_GT(net::poll(std::span(&entry, 1), 5000), 0);
    got.resize(peer.receiveFrom(got.data(), got.size(), from).bytes);
    auto reader = srtp::Context::create(ours.suite, ours.key);
    EXPECT_EQ(got.size(), 182u);
    EXPECT_EQ(reader->unprotectRtp(got), srtp::Status::Ok);
    EXPECT_EQ(got, rtp(50));
    transport->close({});
}

}  // namespace
}  // namespace kelsip
