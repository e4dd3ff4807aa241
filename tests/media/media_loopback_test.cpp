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

#include "media/media_session.h"
#include "media/rtp_io_service.h"
#include "media/rtp_port_allocator.h"
#include "media/rtp_session.h"
#include "support/wait.h"

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

// Power of one frequency in a block of samples, relative to the block's
// total power: near 1 for a pure tone of that frequency, near 0 otherwise.
double toneShare(const std::vector<int16_t>& s, size_t from, size_t n, double hz) {
    const double w = 2 * std::numbers::pi * hz / 8000.0;
    double re = 0;
    double im = 0;
    double total = 0;
    for (size_t i = 0; i < n; ++i) {
        const double x = s[from + i];
        re += x * std::cos(w * static_cast<double>(i));
        im += x * std::sin(w * static_cast<double>(i));
        total += x * x;
    }
    return total > 0 ? 2 * (re * re + im * im) / (static_cast<double>(n) * total) : 0;
}

// A sound card for one session: every 10 ms it captures 80 samples of its
// tone and plays 80 samples into `played`.
class PacedDevice {
public:
    PacedDevice(MediaSession& session, double hz) : session_(session), hz_(hz) {
        thread_ = std::thread([this] { run(); });
    }
    ~PacedDevice() {
        stop_ = true;
        thread_.join();
    }
    [[nodiscard]] std::vector<int16_t> played() const {
        const std::lock_guard lock(mutex_);
        return played_;
    }

private:
    void run() {
        std::vector<int16_t> in(80);
        std::vector<int16_t> out(80);
        auto next = std::chrono::steady_clock::now();
        uint64_t n = 0;
        while (!stop_) {
            for (auto& x : in) {
                x = static_cast<int16_t>(8000 * std::sin(2 * std::numbers::pi * hz_ * static_cast<double>(n++) / 8000.0));
            }
            session_.pushCapture(in);
            session_.pullPlayout(out);
            {
                const std::lock_guard lock(mutex_);
                played_.insert(played_.end(), out.begin(), out.end());
            }
            // The pace of a sound card's period, not a wait for a result.
            next += 10ms;
            std::this_thread::sleep_until(next);
        }
    }

    MediaSession& session_;
    double hz_;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<int16_t> played_;
    std::thread thread_;
};

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
    auto a = MediaSession::create(config, std::move(rtpA));
    config.call = 2;
    auto b = MediaSession::create(config, std::move(rtpB));
    ASSERT_TRUE(a && b);
    const auto digits = std::make_shared<Digits>();
    b->setListener(digits);

    {
        PacedDevice deviceA(*a, 440);
        PacedDevice deviceB(*b, 1000);
        // A second of each tone has played at the other end.
        const auto heard = [](const PacedDevice& d, double hz) {
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
