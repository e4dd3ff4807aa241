// Two media sessions on real RTP sessions over loopback, each fed and drained
// by a paced thread as a sound card would: each end plays the other's tone,
// and digits cross as RFC 4733 events.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <numbers>
#include <thread>

#include "media/session/media_session.h"
#include "media/rtp/rtp_io_service.h"
#include "media/rtp/rtp_port_allocator.h"
#include "media/rtp/rtp_session.h"
#include "support/sound_card.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

NegotiatedCodec codec(const char* name, int payloadType) {
    NegotiatedCodec c;
    c.name = name;
    c.payloadType = payloadType;
    c.clockRate = 8000;
    c.ptime = 20;
    c.telephoneEventPayloadType = 101;
    return c;
}

using test::SoundCard;

double toneShare(const std::vector<int16_t>& s, size_t from, size_t n, double hz) {
    return test::toneShare(std::span<const int16_t>(s).subspan(from, n), hz, 8000);
}

class Digits final : public MediaSessionListener {
public:
    void onDigit(char d) override {
        const std::lock_guard lock(mutex);
        got += d;
    }
    std::string get() {
        const std::lock_guard lock(mutex);
        return got;
    }
    std::mutex mutex;
    std::string got;
};

TEST(MediaLoopbackTest, TwoSessionsExchangeTonesAndDigitsOverRealSockets) {
    const auto io = std::make_shared<RtpIoService>();
    const RtpPortAllocator ports(41000, 41998);
    const auto loopback = net::SocketAddress::loopback(net::AddressFamily::V4);
    RtpSessionOptions options;
    options.local = loopback;
    auto rtpA = std::make_unique<RtpSession>(io, options);
    auto rtpB = std::make_unique<RtpSession>(io, options);
    ASSERT_TRUE(rtpA->open(ports.pool()));
    ASSERT_TRUE(rtpB->open(ports.pool()));
    rtpA->setRemote(net::SocketAddress::loopback(net::AddressFamily::V4, rtpB->localPort()));
    rtpB->setRemote(net::SocketAddress::loopback(net::AddressFamily::V4, rtpA->localPort()));
    RtpSession& viewA = *rtpA;

    MediaSessionConfig config;
    config.codec = codec("PCMA", 8);
    config.call = 1;
    std::shared_ptr<MediaSession> a = MediaSession::create(config, std::move(rtpA));
    config.call = 2;
    std::shared_ptr<MediaSession> b = MediaSession::create(config, std::move(rtpB));
    ASSERT_TRUE(a && b);
    const auto digits = std::make_shared<Digits>();
    b->setListener(digits);

    {
        SoundCard deviceA(a, test::sine(440));
        SoundCard deviceB(b, test::sine(1000));
        // A second of each tone has played at the other end.
        const auto heard = [](const SoundCard& d, double hz) {
            const auto played = d.played();
            return played.size() >= 4000 && toneShare(played, played.size() - 4000, 4000, hz) > 0.9;
        };
        ASSERT_TRUE(test::waitFor([&] { return heard(deviceB, 440) && heard(deviceA, 1000); }, 10s));
        // And only that tone: our own does not come back.
        const auto atB = deviceB.played();
        EXPECT_LT(toneShare(atB, atB.size() - 4000, 4000, 1000), 0.01);

        ASSERT_TRUE(a->sendDigit('4'));
        ASSERT_TRUE(a->sendDigit('2'));
        EXPECT_TRUE(test::waitFor([&] { return digits->get() == "42"; }, 5s)) << digits->get();
    }
    const auto sa = a->statistics();
    const auto sb = b->statistics();
    EXPECT_GT(sa.packetsSent, 50u);
    EXPECT_GT(sb.packetsReceived, 50u);
    EXPECT_EQ(sb.packetsLost, 0);
    EXPECT_EQ(sb.codec, "PCMA");
    EXPECT_NEAR(static_cast<double>(viewA.stats().packets), static_cast<double>(sa.packetsReceived), 5.0);

    const uint16_t portA = viewA.localPort();
    a->close();
    b->close();
    // Both sockets are closed: A's port can be bound again.
    net::Socket again = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    EXPECT_TRUE(again.bind(net::SocketAddress::loopback(net::AddressFamily::V4, portA)));
}

}  // namespace
}  // namespace kelsip
