// The RTP session and its port pool on loopback sockets: binding failures,
// symmetric RTP, a call between two sessions from one pool, and closing.
#include "media/rtp/rtp_session.h"

#include <gtest/gtest.h>

#include <thread>

#include "media/rtp/rtcp_packet.h"
#include "media/rtp/rtp_packet.h"
#include "rtp_loopback.h"
#include "support/log_capture.h"

namespace kelsip {
namespace {

using test::Bytes;
using test::loopback;
using test::RecordingSink;
using Channel = MediaTransport::Channel;

class RtpSessionTest : public ::testing::Test {
protected:
    std::shared_ptr<RtpIoService> io_ = std::make_shared<RtpIoService>();

    std::unique_ptr<RtpSession> session(bool symmetric = true) {
        return std::make_unique<RtpSession>(io_, RtpSessionOptions{loopback(), true, symmetric, 8000});
    }
    // On a port whose neighbour is free too, so RTCP binds.
    std::unique_ptr<RtpSession> bound(bool symmetric = true) {
        auto s = session(symmetric);
        EXPECT_TRUE(s->bind(loopback(test::freePortRun(2))) && s->hasRtcp());
        return s;
    }
};

TEST_F(RtpSessionTest, OnlyAnRtpBindFailureIsFatalAndRtcpGoesOffWithAWarning) {
    for (const unsigned held : {0u, 1u}) {  // which port of the pair another socket holds
        SCOPED_TRACE(held == 0 ? "RTP held" : "RTCP held");
        const uint16_t port = test::freePortRun(2);
        net::Socket squatter = test::boundUdp(port + held);
        test::LogCapture log(held == 0 ? LogLevel::Error : LogLevel::Warn);  // lines below are not seen
        RecordingSink sink;
        auto s = session();
        ASSERT_EQ(s->bind(loopback(port)), held == 1);
        if (held == 0) {
            EXPECT_TRUE(log.has("cannot bind RTP"));
            continue;
        }
        EXPECT_TRUE(log.has("cannot bind RTCP " + loopback(port + 1u).toString() + ", RTCP disabled"));
        EXPECT_FALSE(s->hasRtcp());
        net::Socket peer = test::boundUdp();
        s->attach(&sink);
        s->setRemote(*peer.localAddress());
        test::sendTo(peer, test::rtpPacket(0, 160), loopback(port));
        EXPECT_TRUE(sink.waitFor(1));
        const Bytes reply = test::rtpPacket(160, 160);
        EXPECT_TRUE(s->send(Channel::Rtp, reply));
        EXPECT_EQ(test::receive(peer), reply);
        EXPECT_FALSE(s->send(Channel::Rtcp, reply));
    }
}

TEST_F(RtpSessionTest, SymmetricRtpLatchesOnceToTheFirstSource) {
    for (const bool symmetric : {true, false}) {
        SCOPED_TRACE(symmetric ? "symmetric" : "signalled only");
        test::LogCapture log(LogLevel::Info);
        net::Socket signalled = test::boundUdp(), first = test::boundUdp(), second = test::boundUdp();
        auto s = bound(symmetric);
        s->setRemote(*signalled.localAddress());
        test::sendTo(first, test::rtpPacket(0, 160), loopback(s->localPort()));
        test::sendTo(second, test::rtpPacket(160, 160), loopback(s->localPort()));
        ASSERT_TRUE(test::waitFor([&] { return s->stats().packets == 2; }, test::kDeadline));

        const net::SocketAddress latched = *first.localAddress();
        EXPECT_EQ(log.has("symmetric RTP: latching remote to " + latched.toString()), symmetric);
        EXPECT_EQ(s->remote(), symmetric ? latched : *signalled.localAddress());
        if (symmetric) {
            EXPECT_EQ(s->remoteRtcp(), loopback(latched.port() + 1u));
        }
        const Bytes reply = test::rtpPacket(0, 10);
        ASSERT_TRUE(s->send(Channel::Rtp, reply));
        EXPECT_EQ(test::receive(symmetric ? first : signalled), reply);
    }
}

TEST_F(RtpSessionTest, TwoSessionsFromOnePoolCarryACallAndGiveTheirPortsBack) {
    const uint16_t first = test::freePortRun(6);
    const RtpPortAllocator allocator(first, static_cast<uint16_t>(first + 5));
    test::LogCapture log(LogLevel::Error);
    RecordingSink sinkA, sinkB;
    auto a = session(), b = session();
    ASSERT_TRUE(a->open(allocator.pool()) && b->open(allocator.pool()));
    a->attach(&sinkA);
    b->attach(&sinkB);
    a->setRemote(loopback(b->localPort()));  // RTCP to the next port, as without a=rtcp
    b->setRemote(loopback(a->localPort()));

    // Ten seconds of timestamps ahead of its arrival, with CSRCs and padding;
    // then two datagrams that are not RTP.
    const Bytes payload(20, 0x7f);
    RtpPacket late{.timestamp = 80000, .ssrc = 0x1234, .csrcs = {1, 2}, .extension = {},
                   .payload = payload, .paddingLength = 4};
    Bytes lateBytes;
    ASSERT_TRUE(late.writeTo(lateBytes));
    for (const Bytes& p : {test::rtpPacket(0, 160), lateBytes, Bytes(20, 0), Bytes{0x80, 0, 0, 1}}) {
        ASSERT_TRUE(a->send(Channel::Rtp, p));
    }
    ASSERT_TRUE(b->send(Channel::Rtp, test::rtpPacket(0, 80)));
    ASSERT_TRUE(sinkB.waitFor(4) && sinkA.waitFor(1));
    const RtpSessionStats stats = b->stats();
    EXPECT_EQ(stats.packets, 2u);  // the sink hears everything; statistics count RTP only
    EXPECT_EQ(stats.bytes, 160u + 20u);
    EXPECT_GT(stats.jitter, 4000u);  // J moves a sixteenth of the way to 80000
    EXPECT_LE(stats.jitter, 5000u);
    EXPECT_EQ(a->stats().bytes, 80u);
    // Another source's timestamps share no base with the last: J starts again.
    ASSERT_TRUE(a->send(Channel::Rtp, test::rtpPacket(123456, 10, 0x5678)));
    ASSERT_TRUE(sinkB.waitFor(5));
    EXPECT_EQ(b->stats().jitter, 0u);

    // A hangs up: its final RTCP reaches B's RTCP port, and its pair is free
    // again once the search has gone past the rest of the range.
    const Bytes bye = {0x81, 0xcb, 0x00, 0x01, 0xca, 0xfe, 0xba, 0xbe};
    a->close(bye);
    ASSERT_TRUE(sinkB.waitFor(5, 1));
    EXPECT_EQ(sinkB.lastRtcp, bye);
    auto c = session(), d = session(), e = session();
    ASSERT_TRUE(c->open(allocator.pool()) && d->open(allocator.pool()));
    EXPECT_EQ(c->localPort(), first + 4);
    EXPECT_EQ(d->localPort(), first);
    EXPECT_FALSE(log.has("RTP port range exhausted"));
    EXPECT_FALSE(e->open(allocator.pool()));
    EXPECT_TRUE(log.has("RTP port range exhausted"));
}

TEST(RtpPortAllocatorTest, SkipsAPairWhoseRtcpPortIsHeldElsewhereAndRefusesAnEmptyRange) {
    const uint16_t first = test::freePortRun(4);
    net::Socket squatter = test::boundUdp(first + 1u);
    const RtpPortAllocator allocator(first, static_cast<uint16_t>(first + 3));
    const auto pair = allocator.allocate(loopback());
    ASSERT_TRUE(pair);
    EXPECT_EQ(pair->rtp.localAddress(), loopback(first + 2u));
    EXPECT_EQ(pair->rtcp.localAddress(), loopback(first + 3u));
    EXPECT_FALSE(allocator.allocate(loopback()));
    EXPECT_TRUE(test::boundUdp(first).valid());  // the failed pair's RTP socket was closed again
    EXPECT_FALSE(RtpPortAllocator(first, first).allocate(loopback()));
    EXPECT_FALSE(RtpPortAllocator(static_cast<uint16_t>(first + 2), first).allocate(loopback()));
}

TEST_F(RtpSessionTest, NoSinkCallbackOnceDetachOrCloseReturns) {
    for (const bool closing : {false, true}) {
        SCOPED_TRACE(closing ? "close" : "detach");
        RecordingSink sink, witnessSink;  // first: they outlive the sessions calling them
        net::Socket peer = test::boundUdp(), peerRtcp = test::boundUdp();  // apart, as a=rtcp allows
        auto s = bound(false);
        auto witness = bound();  // on the same worker: its packet proves the worker went round
        s->setRemote(*peer.localAddress(), *peerRtcp.localAddress());
        s->attach(&sink);
        witness->attach(&witnessSink);
        std::atomic<bool> stop{false};
        std::thread flood([&, to = loopback(s->localPort())] {
            net::Socket sender = test::boundUdp();
            const Bytes packet = test::rtpPacket(0, 160);
            while (!stop) (void)sender.sendTo(packet.data(), packet.size(), to);
        });
        EXPECT_TRUE(sink.waitFor(20));
        if (closing) {
            s->close({});
        } else {
            s->detach();
        }
        sink.detached = true;
        net::Socket sender = test::boundUdp();
        test::sendTo(sender, test::rtpPacket(0, 20), loopback(witness->localPort()));
        EXPECT_TRUE(witnessSink.waitFor(1));
        stop = true;
        flood.join();
        EXPECT_EQ(sink.late.load(), 0);
        if (!closing) continue;

        // Given no final RTCP, close builds an empty receiver report and a BYE.
        const auto got = test::receive(peerRtcp);
        const auto compound = got ? RtcpCompound::parse(*got) : std::nullopt;
        ASSERT_TRUE(compound && !compound->packets.empty());
        const uint32_t ssrc = std::get<RtcpReceiverReport>(compound->packets.front()).ssrc;
        EXPECT_EQ(*compound, (RtcpCompound{{RtcpReceiverReport{ssrc, {}}, RtcpBye{{ssrc}, {}}}}));
    }
}

}  // namespace
}  // namespace kelsip
