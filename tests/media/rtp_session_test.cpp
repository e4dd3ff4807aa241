// The RTP session, its port pool and the I/O service on loopback sockets.
#include "media/rtp/rtp_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <thread>

#include "media/codec/g711.h"
#include "media/rtp/rtcp_packet.h"
#include "media/rtp/rtp_packet.h"
#include "media/session/media_session.h"
#include "support/free_port.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace kelsip {
namespace {

using Bytes = std::vector<uint8_t>;
using Channel = MediaTransport::Channel;

constexpr std::chrono::seconds kDeadline{5};

net::SocketAddress loopback(unsigned port = 0) {
    return net::SocketAddress::loopback(net::AddressFamily::V4, static_cast<uint16_t>(port));
}

net::Socket boundUdp(unsigned port = 0) {
    net::Socket s = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    return s.bind(loopback(port)) ? std::move(s) : net::Socket{};
}

// An even port starting `count` consecutive free ports; 0 when none was found.
uint16_t freePortRun(unsigned count) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        const unsigned first = test::freeLoopbackPort() & ~1u;
        std::vector<net::Socket> probe;
        for (unsigned i = 0; i < count && first > 0 && first + count <= 0x10000; ++i) {
            probe.push_back(boundUdp(first + i));
            if (!probe[i].valid()) break;
        }
        if (probe.size() == count && probe[count - 1].valid()) return static_cast<uint16_t>(first);
    }
    return 0;
}

// One datagram within the deadline, or nothing.
std::optional<Bytes> receive(net::Socket& socket) {
    net::PollEntry entry{socket.native(), true, false};
    Bytes buffer(2048);
    net::SocketAddress from;
    if (net::poll(std::span(&entry, 1), 5000) <= 0) return std::nullopt;
    const net::IoResult r = socket.receiveFrom(buffer.data(), buffer.size(), from);
    buffer.resize(r.bytes);
    return r.ok() ? std::optional(buffer) : std::nullopt;
}

Bytes rtpPacket(uint32_t timestamp, size_t payloadSize, uint32_t ssrc = 0x1234, uint16_t sequence = 0,
                uint8_t fill = 0xd5) {
    const Bytes payload(payloadSize, fill);
    Bytes out;
    EXPECT_TRUE((RtpPacket{.sequence = sequence, .timestamp = timestamp, .ssrc = ssrc, .csrcs = {}, .extension = {},
                           .payload = payload}
                     .writeTo(out)));
    return out;
}

void sendTo(net::Socket& socket, const Bytes& bytes, const net::SocketAddress& to) {
    EXPECT_TRUE(socket.sendTo(bytes.data(), bytes.size(), to).ok());
}

// Counts deliveries, keeps the last RTCP packet and the worker thread; `late` counts callbacks once `detached`.
struct RecordingSink : MediaTransport::Sink {
    void onPacket(MediaTransport::Channel channel, std::span<const uint8_t> bytes, int64_t) override {
        late += detached ? 1 : 0;
        if (channel == MediaTransport::Channel::Rtcp) {
            const std::lock_guard lock(mutex);
            lastRtcp.assign(bytes.begin(), bytes.end());
        }
        ++(channel == MediaTransport::Channel::Rtp ? rtp : rtcp);
    }
    void onTick(int64_t) override {
        late += detached ? 1 : 0;
        ++ticks;
        thread = std::this_thread::get_id();
        if (hook) hook();
    }
    bool waitFor(int rtpCount, int rtcpCount = 0) {
        return test::waitFor([&] { return rtp >= rtpCount && rtcp >= rtcpCount; }, kDeadline);
    }

    std::atomic<int> rtp{0}, rtcp{0}, late{0}, ticks{0};
    std::atomic<bool> detached{false};
    std::atomic<std::thread::id> thread;
    std::function<void()> hook;  // set before the session is attached
    std::mutex mutex;
    Bytes lastRtcp;
};

class RtpSessionTest : public ::testing::Test {
protected:
    std::shared_ptr<RtpIoService> io_ = std::make_shared<RtpIoService>();

    std::unique_ptr<RtpSession> session(bool symmetric = true) {
        return std::make_unique<RtpSession>(io_, RtpSessionOptions{loopback(), true, symmetric, 8000});
    }
    // On a port whose neighbour is free too, so RTCP binds.
    std::unique_ptr<RtpSession> bound(bool symmetric = true) {
        auto s = session(symmetric);
        EXPECT_TRUE(s->bind(loopback(freePortRun(2))) && s->hasRtcp());
        return s;
    }
};

TEST_F(RtpSessionTest, OnlyAnRtpBindFailureIsFatalAndRtcpGoesOffWithAWarning) {
    for (const unsigned held : {0u, 1u}) {  // which port of the pair another socket holds
        SCOPED_TRACE(held == 0 ? "RTP held" : "RTCP held");
        const uint16_t port = freePortRun(2);
        net::Socket squatter = boundUdp(port + held);
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
        net::Socket peer = boundUdp();
        s->attach(&sink);
        s->setRemote(*peer.localAddress());
        sendTo(peer, rtpPacket(0, 160), loopback(port));
        EXPECT_TRUE(sink.waitFor(1));
        const Bytes reply = rtpPacket(160, 160);
        EXPECT_TRUE(s->send(Channel::Rtp, reply));
        EXPECT_EQ(receive(peer), reply);
        EXPECT_FALSE(s->send(Channel::Rtcp, reply));
    }
}

TEST_F(RtpSessionTest, AfterTheLatchOnlyTheSignalledAndLatchedSourcesAreHeardUntilANewAddressIsSignalled) {
    for (const bool symmetric : {true, false}) {
        SCOPED_TRACE(symmetric ? "symmetric" : "signalled only");
        test::LogCapture log(LogLevel::Info);
        net::Socket signalled = boundUdp(), first = boundUdp(), second = boundUdp(), moved = boundUdp();
        auto s = bound(symmetric);
        const auto heard = [&](net::Socket& from, int count, uint64_t packets, uint64_t strangers) {
            for (int i = 0; i < count; ++i) sendTo(from, rtpPacket(0, 160), loopback(s->localPort()));
            const auto counts = [&] { return std::pair(s->stats().packets, s->stats().packetsFromStrangers); };
            return test::waitFor([&] { return counts() == std::pair(packets, strangers); }, kDeadline);
        };
        s->setRemote(*signalled.localAddress());
        ASSERT_TRUE(heard(first, 1, 1, 0));
        ASSERT_TRUE(heard(second, 3, 1, 3));
        const net::SocketAddress latched = *first.localAddress();
        EXPECT_EQ(log.has("symmetric RTP: latching remote to " + latched.toString()), symmetric);
        const auto lines = log.lines();
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const auto& l) { return l.starts_with("drop"); }), 1);
        EXPECT_TRUE(log.has("dropping RTP from " + second.localAddress()->toString()));
        EXPECT_EQ(s->remote(), symmetric ? latched : *signalled.localAddress());
        EXPECT_EQ(s->remoteRtcp(), loopback((symmetric ? latched : *signalled.localAddress()).port() + 1u));
        const Bytes reply = rtpPacket(0, 10);
        ASSERT_TRUE(s->send(Channel::Rtp, reply));
        EXPECT_EQ(receive(symmetric ? first : signalled), reply);

        // A re-offer moves the media: the latch opens again (here the old server's last packet takes it), the old
        // source is a stranger, and media from the new signalled address takes our sending back.
        s->setRemote(*moved.localAddress());
        ASSERT_TRUE(heard(second, 1, 2, 3));
        ASSERT_TRUE(heard(first, 1, 2, 4));
        EXPECT_EQ(s->remote(), symmetric ? *second.localAddress() : *moved.localAddress());
        ASSERT_TRUE(heard(moved, 1, 3, 4));
        EXPECT_EQ(s->remote(), *moved.localAddress());
    }
}

// A call behind a NAT over real sockets: its first source latches; a stranger's stream never becomes the one played.
TEST_F(RtpSessionTest, AStrangersStreamIsDroppedAndTheCallsAudioPlaysOn) {
    test::LogCapture log(LogLevel::Warn);
    net::Socket nat = boundUdp(), stranger = boundUdp();
    auto rtp = bound();
    RtpSession& view = *rtp;
    rtp->setRemote(loopback(9));  // the address in the SDP, which nothing comes from
    MediaSessionConfig config;
    config.codec = {"PCMU", 0, 8000, 20, -1, ""};
    const auto media = MediaSession::create(config, std::move(rtp));
    ASSERT_TRUE(media);
    const auto stream = [&](net::Socket& from, uint32_t ssrc, int16_t level, uint16_t first, int count) {
        for (uint16_t i = first; i < first + count; ++i) {
            sendTo(from, rtpPacket(160u * i, 160, ssrc, i, linearToUlaw(level)), loopback(view.localPort()));
        }
    };
    stream(nat, 0xaaaa, 4000, 0, 40);  // more than a batch: read in several
    ASSERT_TRUE(test::waitFor([&] { return media->statistics().packetsReceived == 40; }, kDeadline));
    EXPECT_EQ(view.remote(), nat.localAddress());
    stream(stranger, 0xbbbb, -4000, 1000, 12);
    stream(nat, 0xaaaa, 4000, 40, 1);
    ASSERT_TRUE(test::waitFor([&] { return media->statistics().packetsReceived == 41; }, kDeadline));
    EXPECT_EQ(view.stats().packetsFromStrangers, 12u);
    EXPECT_EQ(media->statistics().remoteSsrc, 0xaaaau);
    std::vector<int16_t> played(8000);
    media->pullPlayout(played);
    EXPECT_GT(std::count(played.begin(), played.end(), ulawToLinear(linearToUlaw(4000))), 0);
    EXPECT_EQ(std::count(played.begin(), played.end(), ulawToLinear(linearToUlaw(-4000))), 0);
}

TEST_F(RtpSessionTest, TwoSessionsFromOnePoolCarryACallAndGiveTheirPortsBack) {
    const uint16_t first = freePortRun(6);
    const RtpPortAllocator allocator(first, static_cast<uint16_t>(first + 5));
    test::LogCapture log(LogLevel::Error);
    RecordingSink sinkA, sinkB;
    auto a = session(), b = session();
    ASSERT_TRUE(a->open(allocator.pool()) && b->open(allocator.pool()));
    a->attach(&sinkA);
    b->attach(&sinkB);
    a->setRemote(loopback(b->localPort()));  // RTCP to the next port, as without a=rtcp
    b->setRemote(loopback(a->localPort()));

    // Ten seconds of timestamps ahead, with CSRCs and padding; then two datagrams that are not RTP.
    const Bytes payload(20, 0x7f);
    RtpPacket late{.timestamp = 80000, .ssrc = 0x1234, .csrcs = {1, 2}, .extension = {},
                   .payload = payload, .paddingLength = 4};
    Bytes lateBytes;
    ASSERT_TRUE(late.writeTo(lateBytes));
    for (const Bytes& p : {rtpPacket(0, 160), lateBytes, Bytes(20, 0), Bytes{0x80, 0, 0, 1}}) {
        ASSERT_TRUE(a->send(Channel::Rtp, p));
    }
    ASSERT_TRUE(b->send(Channel::Rtp, rtpPacket(0, 80)));
    ASSERT_TRUE(sinkB.waitFor(4) && sinkA.waitFor(1));
    const RtpSessionStats stats = b->stats();
    EXPECT_EQ(stats.packets, 2u);  // the sink hears everything; statistics count RTP only
    EXPECT_EQ(stats.bytes, 160u + 20u);
    EXPECT_GT(stats.jitter, 4000u);  // J moves a sixteenth of the way to 80000
    EXPECT_LE(stats.jitter, 5000u);
    EXPECT_EQ(a->stats().bytes, 80u);
    // Another source's timestamps share no base with the last: J starts again.
    ASSERT_TRUE(a->send(Channel::Rtp, rtpPacket(123456, 10, 0x5678)));
    ASSERT_TRUE(sinkB.waitFor(5));
    EXPECT_EQ(b->stats().jitter, 0u);

    // A hangs up: its final RTCP reaches B, and its pair is free again once the search wraps.
    const Bytes bye = {0x81, 0xcb, 0x00, 0x01, 0xca, 0xfe, 0xba, 0xbe};
    a->close(bye);
    ASSERT_TRUE(sinkB.waitFor(5, 1));
    EXPECT_EQ(sinkB.lastRtcp, bye);
    auto c = session(), d = session(), e = session();
    ASSERT_TRUE(c->open(allocator.pool()) && d->open(allocator.pool()));
    EXPECT_EQ(c->localPort(), first + 4);
    EXPECT_EQ(d->localPort(), first);
    EXPECT_FALSE(e->open(allocator.pool()));
    EXPECT_TRUE(log.has("RTP port range exhausted"));
}

TEST(RtpPortAllocatorTest, SkipsAPairWhoseRtcpPortIsHeldElsewhereAndRefusesAnEmptyRange) {
    const uint16_t first = freePortRun(4);
    net::Socket squatter = boundUdp(first + 1u);
    const RtpPortAllocator allocator(first, static_cast<uint16_t>(first + 3));
    const auto pair = allocator.allocate(loopback());
    ASSERT_TRUE(pair);
    EXPECT_EQ(pair->rtcp.localAddress(), loopback(first + 3u));
    EXPECT_FALSE(allocator.allocate(loopback()));
    EXPECT_TRUE(boundUdp(first).valid());  // the failed pair's RTP socket was closed again
    EXPECT_FALSE(RtpPortAllocator(first, first).allocate(loopback()));
}

TEST_F(RtpSessionTest, NoSinkCallbackOnceDetachOrCloseReturns) {
    for (const bool closing : {false, true}) {
        SCOPED_TRACE(closing ? "close" : "detach");
        RecordingSink sink, witnessSink;  // first: they outlive the sessions calling them
        net::Socket peer = boundUdp(), peerRtcp = boundUdp();  // apart, as a=rtcp allows
        auto s = bound(false);
        auto witness = bound();  // on the same worker: its packet proves the worker went round
        s->setRemote(*peer.localAddress(), *peerRtcp.localAddress());
        s->attach(&sink);
        witness->attach(&witnessSink);
        std::atomic<bool> stop{false};
        std::thread flood([&, to = loopback(s->localPort())] {
            net::Socket sender = boundUdp();
            const Bytes packet = rtpPacket(0, 160);
            while (!stop) (void)sender.sendTo(packet.data(), packet.size(), to);
        });
        EXPECT_TRUE(sink.waitFor(20));
        if (closing) {
            s->close({});
        } else {
            s->detach();
        }
        sink.detached = true;
        net::Socket sender = boundUdp();
        sendTo(sender, rtpPacket(0, 20), loopback(witness->localPort()));
        EXPECT_TRUE(witnessSink.waitFor(1));
        stop = true;
        flood.join();
        EXPECT_EQ(sink.late.load(), 0);
        if (!closing) continue;

        // Given no final RTCP, close builds an empty receiver report and a BYE.
        const auto got = receive(peerRtcp);
        const auto compound = got ? RtcpCompound::parse(*got) : std::nullopt;
        ASSERT_TRUE(compound && !compound->packets.empty());
        const uint32_t ssrc = std::get<RtcpReceiverReport>(compound->packets.front()).ssrc;
        EXPECT_EQ(*compound, (RtcpCompound{{RtcpReceiverReport{ssrc, {}}, RtcpBye{{ssrc}, {}}}}));
    }
}

TEST_F(RtpSessionTest, IoServiceFillsTheFirstWorkerWithRoomAndStartsAnotherWhenNoneHasAny) {
    io_ = std::make_shared<RtpIoService>(RtpIoServiceOptions{2, 10});
    RecordingSink sinks[6];  // first: they outlive the sessions calling them
    std::unique_ptr<RtpSession> s[6];
    for (int i = 0; i < 6; ++i) {
        if (i == 5) s[0]->close({});  // the sixth goes into the place freed on the first worker
        s[i] = bound();
        s[i]->attach(&sinks[i]);
    }
    for (int i = 1; i < 6; ++i) ASSERT_TRUE(test::waitFor([&] { return sinks[i].ticks > 0; }, kDeadline));
    EXPECT_EQ(io_->workerCount(), 3u);
    EXPECT_EQ(io_->sessionCount(), 5u);
    const auto t = [&](int i) { return sinks[i].thread.load(); };
    EXPECT_EQ(t(1), t(5));
    EXPECT_EQ(t(2), t(3));
    EXPECT_TRUE(t(1) != t(2) && t(2) != t(4) && t(1) != t(4));
}

TEST_F(RtpSessionTest, WorkersLeftWithoutSessionsEndAfterTheGraceAndNewOnesStartAfterThem) {
    io_ = std::make_shared<RtpIoService>(RtpIoServiceOptions{2, 10, std::chrono::milliseconds(1)});
    for (int round = 0; round < 20; ++round) {  // adds race the reaper ending the workers they may want
        std::unique_ptr<RtpSession> s[5];
        for (auto& one : s) one = bound();
        EXPECT_EQ(io_->workerCount(), 3u);
    }
    EXPECT_TRUE(test::waitFor([&] { return io_->workerCount() == 0; }, kDeadline));
    RecordingSink sink;
    const auto s = bound();
    s->attach(&sink);
    EXPECT_TRUE(test::waitFor([&] { return sink.ticks > 0; }, kDeadline));
}

TEST_F(RtpSessionTest, ClosingAndOpeningSessionsFromInsideACallbackDoesNotDeadlock) {
    RecordingSink selfSink, neighbourSink, newcomerSink;  // the neighbour comes next in the same round
    std::unique_ptr<RtpSession> self = bound(), neighbour = bound(), newcomer;
    std::atomic<bool> done{false};
    std::atomic<int> neighbourTicksAfterClose{0};
    selfSink.hook = [&] {
        if (done) return;
        neighbour->close({});
        self->close({});
        newcomer = bound();
        newcomer->attach(&newcomerSink);
        done = true;
    };
    neighbourSink.hook = [&] { neighbourTicksAfterClose += done ? 1 : 0; };  // same thread: exact
    neighbour->attach(&neighbourSink);
    self->attach(&selfSink);
    ASSERT_TRUE(test::waitFor([&] { return done.load(); }, kDeadline));
    const int selfTicks = selfSink.ticks;
    ASSERT_TRUE(test::waitFor([&] { return newcomerSink.ticks >= 3; }, kDeadline));
    EXPECT_EQ(selfSink.ticks.load(), selfTicks);
    EXPECT_EQ(neighbourTicksAfterClose.load(), 0);
    EXPECT_EQ(io_->sessionCount(), 1u);
}

// Takes datagrams whose first byte is 0 or 1 (STUN's range), answers them from
// the session's socket, and hands the rest of such a datagram on as media from
// `relayPeer`, the way ICE unwraps what a TURN server relayed.
struct TestInterceptor final : RtpSession::Interceptor {
    bool onDatagram(MediaTransport::Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& from,
                    int64_t arrivalUs) override {
        if (bytes.empty() || bytes[0] > 1) return false;
        ++taken;
        const Bytes answer{0x01, 0x01};
        (void)session->sendFrom(channel, answer, from);
        if (bytes[0] == 1) session->deliver(channel, bytes.subspan(1), relayPeer, arrivalUs);
        return true;
    }
    void onTick(int64_t) override { ++ticks; }

    RtpSession* session = nullptr;
    net::SocketAddress relayPeer;
    std::atomic<int> taken{0}, ticks{0};
};

TEST_F(RtpSessionTest, AnInterceptorSeesDatagramsFirstAndTheChosenRemoteEndsLatching) {
    auto s = bound();
    RecordingSink sink;
    TestInterceptor ice;
    net::Socket peer = boundUdp();
    net::Socket chosen = boundUdp();
    ice.session = s.get();
    ice.relayPeer = *chosen.localAddress();
    s->attach(&sink);
    s->setInterceptor(&ice);
    s->setRemote(*peer.localAddress());
    const auto local = loopback(s->localPort());

    // A check is taken and answered from the RTP socket; the sink sees nothing of it.
    sendTo(peer, Bytes{0x00, 0x01, 0x02}, local);
    EXPECT_EQ(receive(peer), (Bytes{0x01, 0x01}));
    EXPECT_TRUE(test::waitFor([&] { return ice.ticks > 0; }, kDeadline));
    EXPECT_EQ(sink.rtp, 0);

    // Relayed media unwrapped by the interceptor reaches the sink once ICE chose that peer.
    s->setChosenRemote(Channel::Rtp, *chosen.localAddress());
    Bytes wrapped{0x01};
    const Bytes media = rtpPacket(0, 160);
    wrapped.insert(wrapped.end(), media.begin(), media.end());
    sendTo(peer, wrapped, local);
    EXPECT_TRUE(sink.waitFor(1));
    EXPECT_EQ(receive(peer), (Bytes{0x01, 0x01}));

    // Media straight from the signalled address no longer counts, and ours goes to the chosen one.
    sendTo(peer, rtpPacket(160, 160), local);
    EXPECT_TRUE(test::waitFor([&] { return s->stats().packetsFromStrangers == 1; }, kDeadline));
    EXPECT_TRUE(s->send(Channel::Rtp, media));
    EXPECT_EQ(receive(chosen), media);

    s->setInterceptor(nullptr);
    sendTo(peer, Bytes{0x00, 0x01, 0x02}, local);
    EXPECT_TRUE(test::waitFor([&] { return s->stats().packetsFromStrangers == 2; }, kDeadline));
    EXPECT_EQ(ice.taken, 2);
}

}  // namespace
}  // namespace kelsip
