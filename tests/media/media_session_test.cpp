// Two media sessions over the simulated network, from captured audio to what the far end plays.
#include "media/session/media_session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <variant>

#include "media/codec/g711.h"
#include "media/rtp/rtcp_packet.h"
#include "media/rtp/rtp_packet.h"
#include "media/session/telephone_event.h"
#include "support/log_capture.h"
#include "support/network_sim.h"

namespace kelsip {
namespace {

using test::CallSimulation;
using test::LinkConditions;
using test::SimNetwork;
using Channel = MediaTransport::Channel;

constexpr int64_t kSecond = 1000000;

const NegotiatedCodec kPcmu{"PCMU", 0, 8000, 20, 101, ""};

// Noise from a fixed generator: every lag reads differently, so the delay is unambiguous.
int16_t noise(uint64_t index) {
    uint64_t x = index * 0x9e3779b97f4a7c15ULL;
    x ^= x >> 29;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 32;
    return static_cast<int16_t>(static_cast<int32_t>(x % 16001) - 8000);
}

// What the far end can at best play: the signal through G.711 and back.
int16_t throughUlaw(uint64_t index) { return ulawToLinear(linearToUlaw(noise(index))); }

class Listener final : public MediaSessionListener {
public:
    void onDigit(char digit) override { digits += digit; }
    void onRemoteBye() override { ++byes; }
    std::string digits;
    int byes = 0;
};

struct Call {
    explicit Call(uint64_t seed = 1, MediaDirection receiverDirection = MediaDirection::SendRecv) : network(seed) {
        MediaSessionConfig a;
        a.call = 1;
        a.codec = kPcmu;
        a.clock = &network.clock();
        a.ssrc = 0x0a0a0a0a;
        a.initialSequence = 65500;  // wraps early in every test
        a.initialTimestamp = 0xffff0000;
        a.randomSeed = seed;
        MediaSessionConfig b = a;
        std::tie(b.call, b.ssrc, b.direction, b.randomSeed) = std::tuple(2, 0x0b0b0b0bu, receiverDirection, seed + 1);
        sender = MediaSession::create(a, network.transport(0));
        receiver = MediaSession::create(b, network.transport(1));
        receiver->setListener(listener);
    }

    CallSimulation simulation() { return CallSimulation(network, *sender, *receiver, noise); }
    // The RTP packets the sender handed to the network from its `from`th on.
    [[nodiscard]] std::vector<RtpPacket> rtpSent(size_t from = 0) const {
        std::vector<RtpPacket> out;
        for (size_t i = from; i < network.sent(0).size(); ++i) {
            if (network.sent(0)[i].channel == Channel::Rtp) out.push_back(*RtpPacket::parse(network.sent(0)[i].bytes));
        }
        return out;
    }

    SimNetwork network;
    std::unique_ptr<MediaSession> sender;
    std::unique_ptr<MediaSession> receiver;
    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
};

// The share of 20 ms windows after `from` playing the best-case signal exactly, at a lag near the last.
double intactShare(const std::vector<int16_t>& played, size_t from) {
    size_t intact = 0, windows = 0;
    int64_t lag = 0;
    const auto matches = [&](size_t w, int64_t l) {
        for (size_t i = w; i < w + 160; ++i) {
            if (l < 0 || l > static_cast<int64_t>(w) || played[i] != throughUlaw(i - static_cast<uint64_t>(l))) {
                return false;
            }
        }
        return true;
    };
    for (size_t w = from; w + 160 <= played.size(); w += 160, ++windows) {
        for (int64_t d = 0; d <= 1600; ++d) {
            if (matches(w, lag + d) || matches(w, lag - d)) {
                lag = matches(w, lag + d) ? lag + d : lag - d;
                ++intact;
                break;
            }
        }
    }
    return windows ? static_cast<double>(intact) / static_cast<double>(windows) : 0.0;
}

TEST(MediaSessionTest, ReceivedAudioUnderNetworkConditions) {
    const struct {
        const char* name;
        LinkConditions link;
        double maxConcealed;  // share of played samples
        double minIntact;     // share of 20 ms windows played exactly
    } conditions[] = {
        {"clean", {20000, 0, 0, 0, 0, 0, 0}, 0, 1.0},
        {"5% random loss", {20000, 0, 0.05, 0, 0, 0, 0}, 0.07, 0.85},
        {"burst loss", {20000, 0, 0, 0.02, 0.6, 0, 0}, 0.09, 0.80},
        {"30 ms jitter", {20000, 30000, 0, 0, 0, 0, 0}, 0.02, 0.90},
        {"5% reordering", {20000, 0, 0, 0, 0, 0.05, 0}, 0.02, 0.90},
        {"10% duplication", {20000, 0, 0, 0, 0, 0, 0.10}, 0.002, 0.99},
    };
    for (const auto& c : conditions) {
        SCOPED_TRACE(c.name);
        Call call(7);
        call.network.setConditions(0, c.link);
        auto sim = call.simulation();
        sim.run(20 * kSecond);

        const auto st = call.receiver->statistics();
        const double concealed =
            static_cast<double>(st.playout.samplesConcealed) / static_cast<double>(st.playout.samplesPlayed);
        EXPECT_LE(concealed, c.maxConcealed);
        EXPECT_GE(intactShare(sim.played, 3 * 8000), c.minIntact);
        EXPECT_LE(st.playout.targetDelayMs, 50.0);  // jitter raises it, but only so far
        EXPECT_EQ(st.payloadType, 0);
        // Loss figures are the network's own count; duplicates do not count as lost.
        if (c.link.duplicate == 0) {
            EXPECT_NEAR(static_cast<double>(st.packetsLost), static_cast<double>(call.network.dropped(0)), 2.0);
        } else {
            EXPECT_GT(st.playout.duplicates, 0u);
        }
        if (c.maxConcealed == 0) { EXPECT_DOUBLE_EQ(st.jitterMs, 0.0); }  // clean
    }
}

TEST(MediaSessionTest, DigitsCrossAsRfc4733EventsAndAreReportedOncePerEvent) {
    for (const bool lossy : {true, false}) {
        SCOPED_TRACE(lossy ? "lossy" : "clean");
        Call call;
        // Every packet twice and some lost: still one report per digit.
        if (lossy) call.network.setConditions(0, {20000, 0, 0.1, 0, 0, 0, 1.0});
        auto sim = call.simulation();
        sim.run(kSecond / 2);
        ASSERT_TRUE(call.sender->sendDigit('1'));
        ASSERT_TRUE(call.sender->sendDigit('#', 200));
        ASSERT_TRUE(call.sender->sendDigit('d'));
        EXPECT_FALSE(call.sender->sendDigit('x'));
        sim.run(2 * kSecond);
        EXPECT_EQ(call.listener->digits, "1#D");
        EXPECT_EQ(call.receiver->statistics().digitsReceived, 3u);
        EXPECT_EQ(call.sender->statistics().digitsSent, 3u);
        // The audio a digit replaces was never lost: a clean network conceals nothing.
        if (!lossy) { EXPECT_EQ(call.receiver->statistics().playout.samplesConcealed, 0u); }
        if (!lossy) continue;

        // '#' on the wire: marker, 50 ms updates, three ends, one timestamp; audio resumes as a new talkspurt.
        const auto packets = call.rtpSent();
        std::vector<RtpPacket> hash;
        size_t lastOfHash = 0;
        for (size_t i = 0; i < packets.size(); ++i) {
            if (packets[i].payloadType == 101 && TelephoneEvent::parse(packets[i].payload)->event == 11) {
                hash.push_back(packets[i]);
                lastOfHash = i;
            }
        }
        const uint16_t durations[] = {160, 400, 800, 1200, 1600, 1600, 1600};
        ASSERT_EQ(hash.size(), std::size(durations));
        for (size_t i = 0; i < hash.size(); ++i) {
            const auto event = TelephoneEvent::parse(hash[i].payload);
            EXPECT_EQ(event->duration, durations[i]);
            EXPECT_EQ(event->end, i >= 4);
            EXPECT_EQ(hash[i].marker, i == 0);
            EXPECT_EQ(hash[i].timestamp, hash[0].timestamp);
            EXPECT_EQ(hash[i].sequence, static_cast<uint16_t>(hash[0].sequence + i));
        }
        ASSERT_LT(lastOfHash + 1, packets.size());
        EXPECT_TRUE(packets[lastOfHash + 1].marker);
        EXPECT_EQ(packets[lastOfHash + 1].payloadType, 0);
    }
}

TEST(MediaSessionTest, ACodecTheRegistryCannotMakeIsLoggedAndTheSessionDoesNotStart) {
    const test::LogCapture log;
    SimNetwork network(1);
    MediaSessionConfig config;
    config.codec = kPcmu;
    config.codec.name = "X-NONE";
    config.clock = &network.clock();
    EXPECT_EQ(MediaSession::create(config, network.transport(0)), nullptr);
    EXPECT_TRUE(log.has("codec not available: X-NONE"));
}

std::vector<uint8_t> rtpBytes(uint32_t ssrc, uint16_t seq, uint32_t ts, uint8_t pt, std::span<const uint8_t> payload) {
    RtpPacket p{.payloadType = pt, .sequence = seq, .timestamp = ts, .ssrc = ssrc, .csrcs = {}, .extension = {},
                .payload = payload};
    std::vector<uint8_t> out;
    EXPECT_TRUE(p.writeTo(out));
    return out;
}

// One call through hold, resume and receive-only, with a stray source, bad input and a new source.
TEST(MediaSessionTest, HoldResumeAndSourceChanges) {
    Call call;
    auto sim = call.simulation();
    sim.run(kSecond);
    const std::vector<uint8_t> tone(160, linearToUlaw(5000));
    call.network.inject(1, Channel::Rtp, rtpBytes(0x5555, 1, 1000, 0, tone));
    EXPECT_EQ(call.receiver->statistics().remoteSsrc, 0x0a0a0a0au);
    call.network.inject(1, Channel::Rtp, {0x00, 0x01, 0x02});
    call.network.inject(1, Channel::Rtp, rtpBytes(0x0a0a0a0a, 7, 7, 96, tone));  // not negotiated
    call.network.inject(1, Channel::Rtcp, {0x80, 0xc9, 0xff, 0xff});
    EXPECT_EQ(call.receiver->statistics().packetsDiscarded, 3u);

    // Hold stops sending; the receiver's buffer runs dry into silence.
    call.sender->setDirection(MediaDirection::Inactive);
    EXPECT_FALSE(call.sender->sendDigit('5'));
    const auto receivedBefore = call.receiver->statistics().packetsReceived;
    const size_t sentBefore = call.network.sent(0).size();
    sim.run(3 * kSecond);
    EXPECT_TRUE(call.rtpSent(sentBefore).empty());
    EXPECT_TRUE(std::all_of(sim.played.end() - 4000, sim.played.end(), [](int16_t s) { return s == 0; }));
    EXPECT_LE(call.receiver->statistics().packetsReceived, receivedBefore + 2);

    // Resuming starts a talkspurt: the hold passes on the RTP clock too, and the sequence runs on.
    call.sender->setDirection(MediaDirection::SendRecv);
    sim.run(kSecond);
    const auto packets = call.rtpSent();
    size_t resumed = 0;
    for (size_t i = 1; i < packets.size(); ++i) {
        if (packets[i].timestamp - packets[i - 1].timestamp > 160) resumed = i;
    }
    ASSERT_GT(resumed, 0u);
    EXPECT_TRUE(packets[resumed].marker);
    EXPECT_NEAR(static_cast<double>(packets[resumed].timestamp - packets[resumed - 1].timestamp), 3 * 8000.0, 160.0);
    EXPECT_EQ(packets[resumed].sequence, static_cast<uint16_t>(packets[resumed - 1].sequence + 1));
    EXPECT_GT(call.receiver->statistics().packetsReceived, receivedBefore + 30);

    // Receive-only: we send no RTP. Our source gone quiet, a new one that keeps sending takes over.
    call.sender->setDirection(MediaDirection::RecvOnly);
    const size_t resumedAt = call.network.sent(0).size();
    for (uint16_t i = 0; i < 40; ++i) {
        const auto sequence = static_cast<uint16_t>(100 + i);
        call.network.inject(1, Channel::Rtp, rtpBytes(0x7777, sequence, 5000 + 160u * i, 0, tone));
        sim.run(20000);
    }
    EXPECT_TRUE(call.rtpSent(resumedAt).empty());
    EXPECT_EQ(call.receiver->statistics().remoteSsrc, 0x7777u);
    EXPECT_NE(std::find(sim.played.end() - 800, sim.played.end(), ulawToLinear(tone[0])), sim.played.end());
}

TEST(MediaSessionTest, ReportsFlowAtRfc3550IntervalsWithLossJitterAndRoundTrip) {
    Call call(5);
    call.network.setConditions(0, {20000, 0, 0.04, 0, 0, 0, 0});
    auto sim = call.simulation();
    sim.run(60 * kSecond);

    std::vector<int64_t> times;
    std::vector<RtcpCompound> reports;
    for (const auto& p : call.network.sent(0)) {
        if (p.channel != Channel::Rtcp) continue;
        times.push_back(p.sentUs);
        reports.push_back(*RtcpCompound::parse(p.bytes));
    }
    ASSERT_GE(times.size(), 10u);
    // The first after half the 5 s minimum, the rest after it, spread over 0.5..1.5 and divided by e - 3/2.
    EXPECT_GE(times[0], 1025000);
    EXPECT_LE(times[0], 3080000);
    for (size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - times[i - 1], 2050000) << i;
        EXPECT_LE(times[i] - times[i - 1], 6160000) << i;
    }
    // A sender: SR with a block on the far end, then our CNAME.
    ASSERT_GE(reports.back().packets.size(), 2u);
    const auto* sr = std::get_if<RtcpSenderReport>(&reports.back().packets[0]);
    ASSERT_NE(sr, nullptr);
    EXPECT_EQ(sr->ssrc, 0x0a0a0a0au);
    ASSERT_EQ(sr->reports.size(), 1u);
    EXPECT_EQ(sr->reports[0].ssrc, 0x0b0b0b0bu);
    EXPECT_TRUE(std::holds_alternative<RtcpSdes>(reports.back().packets[1]));

    // The receiver's reports tell the sender what was dropped; LSR/DLSR give the 40 ms round trip.
    const auto a = call.sender->statistics();
    ASSERT_TRUE(a.remotePacketsLost && a.roundTripMs && a.remoteJitterMs);
    EXPECT_NEAR(static_cast<double>(*a.remotePacketsLost), static_cast<double>(call.network.dropped(0)), 10.0);
    EXPECT_GT(*a.remotePacketsLost, 0);
    EXPECT_NEAR(*a.roundTripMs, 40.0, 1.0);
    EXPECT_NEAR(*a.remoteJitterMs, 0.0, 0.5);
    EXPECT_NEAR(call.receiver->statistics().fractionLost, 0.04, 0.04);
    EXPECT_GT(call.receiver->statistics().rtcpReceived, 5u);
    // Closing sends SR, SDES and BYE; the far end hears the BYE.
    call.sender->close();
    const auto bye = RtcpCompound::parse(call.network.sent(0).back().bytes);
    ASSERT_TRUE(bye);
    ASSERT_EQ(bye->packets.size(), 3u);
    EXPECT_EQ(std::get<RtcpBye>(bye->packets[2]).ssrcs, (std::vector<uint32_t>{0x0a0a0a0a}));
    sim.run(kSecond);
    EXPECT_EQ(call.listener->byes, 1);
    EXPECT_TRUE(call.receiver->statistics().remoteBye);
}

TEST(MediaSessionTest, AReceiverThatOnlyListensSendsReceiverReports) {
    Call call(9, MediaDirection::RecvOnly);
    auto sim = call.simulation();
    sim.run(20 * kSecond);
    ASSERT_GE(call.network.sent(1).size(), 3u);
    for (const auto& p : call.network.sent(1)) {
        const auto c = RtcpCompound::parse(p.bytes);
        ASSERT_TRUE(p.channel == Channel::Rtcp && c);
        EXPECT_EQ(std::get<RtcpReceiverReport>(c->packets.at(0)).reports.size(), 1u);
    }
}

}  // namespace
}  // namespace kelsip
