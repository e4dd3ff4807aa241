// The playout buffer on virtual time: a known signal in as G.711 packets, compared with what comes out.
#include "media/session/jitter_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <thread>

#include "media/codec/g711.h"

namespace kelsip {
namespace {

constexpr int64_t kSampleUs = 125;  // 8 kHz

// A sweep repeating every 8 s pins the delay down; the steady tone is for concealment.
int16_t sweep(size_t n) {
    const double t = static_cast<double>(n % 64000) / 8000.0;
    return static_cast<int16_t>(9000 * std::sin(2 * std::numbers::pi * (200 * t + 112.5 * t * t)));
}
int16_t tone(size_t n) {
    return static_cast<int16_t>(9000 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(n) / 8000));
}

struct Packet {
    uint16_t sequence;
    uint32_t timestamp;
    std::vector<uint8_t> payload;
    int64_t arrivalUs;
};

// The far end: packet k holds samples from k * ptime on, sent by a clock running `clock` times ours.
struct Sender {
    size_t ptime = 160;
    uint16_t sequence = 1000;
    uint32_t timestamp = 123456;
    double clock = 1.0;
    int16_t (*signal)(size_t) = sweep;

    [[nodiscard]] Packet packet(size_t k, uint32_t skip = 0) const {
        Packet p{static_cast<uint16_t>(sequence + k), static_cast<uint32_t>(timestamp + k * ptime + skip), {},
                 std::llround(static_cast<double>(k * ptime * kSampleUs) / clock)};
        for (size_t i = 0; i < ptime; ++i) p.payload.push_back(linearToUlaw(signal(k * ptime + i)));
        return p;
    }
    [[nodiscard]] std::vector<Packet> packets(size_t count) const {
        std::vector<Packet> out;
        for (size_t k = 0; k < count; ++k) out.push_back(packet(k));
        return out;
    }
    // What packets 0..count-1 decode to, back to back.
    [[nodiscard]] std::vector<int16_t> reference(size_t count) const {
        std::vector<int16_t> out;
        for (size_t k = 0; k < count; ++k) {
            for (const uint8_t b : packet(k).payload) out.push_back(ulawToLinear(b));
        }
        return out;
    }
};

// Delivers packets by arrival and pulls `pull` samples a period, by default until the last arrival.
std::vector<int16_t> play(JitterBuffer& buffer, std::vector<Packet> packets, size_t pull, int64_t untilUs = 0,
                          const std::function<void(int64_t)>& probe = {}) {
    std::stable_sort(packets.begin(), packets.end(),
                     [](const Packet& a, const Packet& b) { return a.arrivalUs < b.arrivalUs; });
    const auto periodUs = static_cast<int64_t>(pull) * kSampleUs;
    if (untilUs == 0) untilUs = packets.back().arrivalUs + periodUs;
    std::vector<int16_t> out, chunk(pull);
    size_t next = 0;
    for (int64_t t = 0; t < untilUs; t += periodUs) {
        for (; next < packets.size() && packets[next].arrivalUs <= t; ++next) {
            buffer.push(packets[next].sequence, packets[next].timestamp, packets[next].payload,
                        packets[next].arrivalUs);
        }
        buffer.pull(chunk);
        out.insert(out.end(), chunk.begin(), chunk.end());
        if (probe) probe(t);
    }
    return out;
}

// The offset d with out[i] == ref[i - d] for every i in [from, to); -1 if none.
int64_t exactDelay(const std::vector<int16_t>& out, const std::vector<int16_t>& ref, size_t from, size_t to) {
    to = std::min(to, out.size());
    for (size_t d = 0; d <= from; ++d) {
        if (to - d <= ref.size() &&
            std::equal(out.begin() + static_cast<ptrdiff_t>(from), out.begin() + static_cast<ptrdiff_t>(to),
                       ref.begin() + static_cast<ptrdiff_t>(from - d))) {
            return static_cast<int64_t>(d);
        }
    }
    return -1;
}

// Mean ms from arrival to playout for the packets of `sent` (in sending order) played in [from, to).
double addedDelayMs(const std::vector<Packet>& sent, size_t ptime, int64_t delay, size_t from, size_t to) {
    double sum = 0;
    size_t n = 0;
    for (size_t k = 0; k < sent.size(); ++k) {
        const auto at = static_cast<int64_t>(k * ptime) + delay;  // output index, pulled at index * 125 µs
        if (at < static_cast<int64_t>(from) || at >= static_cast<int64_t>(to)) continue;
        sum += static_cast<double>(at * kSampleUs - sent[k].arrivalUs) / 1000;
        ++n;
    }
    return n ? sum / static_cast<double>(n) : 1e9;
}

TEST(JitterBufferTest, CleanNetworkPlaysTheInputExactlyAfterASmallConstantDelay) {
    const struct {
        size_t ptime, pull;
        uint16_t sequence;
        uint32_t timestamp;
    } cases[] = {
        {160, 80, 1000, 123456},
        {160, 160, 1000, 123456},
        {80, 80, 1000, 123456},
        {240, 60, 1000, 123456},
        {160, 80, 65500, 0xffffffffu - 40 * 160},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "ptime " << c.ptime << " pull " << c.pull << " seq " << c.sequence);
        const Sender s{c.ptime, c.sequence, c.timestamp};
        const size_t count = 20 * 8000 / c.ptime;  // 20 s
        JitterBuffer buffer(std::make_unique<G711Codec>(true));
        const auto out = play(buffer, s.packets(count), c.pull);
        // Settled after 5 s, the cushion it started with worked off.
        const int64_t delay = exactDelay(out, s.reference(count), 40000, out.size());
        ASSERT_GE(delay, 0);
        EXPECT_LE(addedDelayMs(s.packets(count), c.ptime, delay, 40000, out.size()), 10.0);
        const auto st = buffer.stats();
        EXPECT_EQ(st.samplesConcealed + st.late + st.duplicates + st.samplesStretched, 0u);
        EXPECT_LE(st.targetDelayMs, 2.0);
        EXPECT_EQ(st.samplesPlayed, out.size());
    }
}

TEST(JitterBufferTest, LossIsConcealedThenFadedAndPlayoutReturnsToTheSameDelay) {
    for (const auto& [count, lateByUs] : {std::pair<size_t, int64_t>{1, 0}, {1, 300000}, {3, 0}, {10, 0}}) {
        SCOPED_TRACE(testing::Message() << count << " packets, late by " << lateByUs << " (0: never arrive)");
        Sender s;
        s.signal = tone;
        std::vector<Packet> sent = s.packets(300);
        for (size_t k = 150; k < 150 + count; ++k) sent[k].arrivalUs += lateByUs ? lateByUs : 1'000'000'000;
        JitterBuffer buffer(std::make_unique<G711Codec>(true));
        const auto out = play(buffer, sent, 80, 6'000'000);
        const auto ref = s.reference(300);
        const size_t lossFrom = 150 * 160, lossTo = lossFrom + count * 160;
        const int64_t before = exactDelay(out, ref, 16000, lossFrom);
        ASSERT_GE(before, 0);
        // The first 10 ms carry the tone on at full level...
        const size_t at = lossFrom + static_cast<size_t>(before);
        double ab = 0, aa = 0, bb = 0;
        for (size_t i = 0; i < 80; ++i) {
            ab += static_cast<double>(out[at + i]) * ref[lossFrom + i];
            aa += static_cast<double>(out[at + i]) * out[at + i];
            bb += static_cast<double>(ref[lossFrom + i]) * ref[lossFrom + i];
        }
        EXPECT_GT(ab / std::sqrt(aa * bb), 0.95);
        EXPECT_GT(std::sqrt(aa / 80), 0.8 * 9000 / std::sqrt(2.0));
        // ...a long loss is silent from 60 ms on...
        for (size_t i = at + 480; i < lossTo + static_cast<size_t>(before) - 16; ++i) ASSERT_EQ(out[i], 0) << i - at;
        // ...and after the fade back and blend, playout is exact at the delay it had.
        const int64_t after = exactDelay(out, ref, lossTo + static_cast<size_t>(before) + 100, out.size());
        ASSERT_GE(after, 0);
        EXPECT_LE(std::abs(after - before), 16);
        // No click anywhere: no step larger than the tone's own (3.1k).
        for (size_t i = at; i < lossTo + static_cast<size_t>(after) + 100; ++i) {
            ASSERT_LE(std::abs(out[i] - out[i - 1]), 3300) << i - at;
        }
        const auto st = buffer.stats();
        EXPECT_EQ(static_cast<int64_t>(st.samplesConcealed), static_cast<int64_t>(count * 160) + after - before);
        EXPECT_EQ(st.late, lateByUs ? count : 0u);
    }
}

TEST(JitterBufferTest, FollowsTheSendersClockForTenMinutesWithoutGrowingOrStarving) {
    for (const double clock : {1.005, 0.995}) {
        SCOPED_TRACE(clock);
        Sender s;
        s.clock = clock;
        JitterBuffer buffer(std::make_unique<G711Codec>(true));
        double worst = 0;
        play(buffer, s.packets(static_cast<size_t>(30000 * clock)), 80, 600'000'000, [&](int64_t t) {
            if (t > 10'000'000) worst = std::max(worst, buffer.stats().currentDelayMs);
        });
        const auto st = buffer.stats();
        EXPECT_LE(worst, 45.0);
        EXPECT_LE(st.samplesConcealed, st.samplesPlayed / 2000);
        // The clocks' difference is made up by time-scale changes alone.
        const double expected = std::abs(1 - 1 / clock) * static_cast<double>(st.samplesPlayed);
        EXPECT_NEAR(static_cast<double>(clock > 1 ? st.samplesDropped : st.samplesStretched), expected, expected / 20);
    }
}

TEST(JitterBufferTest, TalkspurtsAndStallsLeaveNoLongDelayBehind) {
    const struct {
        const char* name;
        int64_t pauseUs;   // the sender is silent, its timestamps going on,
        uint32_t skip;     // or its timestamps jump this far without the time passing,
        int64_t outageUs;  // or the network holds packets, then delivers them at once
    } cases[] = {
        {"short pause", 120000, 0, 0},
        {"long pause", 3000000, 0, 0},
        {"timestamp jump", 0, 80000, 0},
        {"outage", 0, 0, 1000000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Sender s;
        std::vector<Packet> sent;
        const int64_t resumeUs = 5'000'000 + c.pauseUs + c.outageUs;
        for (size_t k = 0; k < 1500; ++k) {
            sent.push_back(s.packet(k, k < 250 ? 0 : c.skip + static_cast<uint32_t>(c.pauseUs / kSampleUs)));
            if (k >= 250) sent.back().arrivalUs = std::max(sent.back().arrivalUs + c.pauseUs, resumeUs);
        }
        JitterBuffer buffer(std::make_unique<G711Codec>(true), {.maxDelayMs = 200});
        double worst = 0, soonAfter = 0;
        const auto out = play(buffer, sent, 80, 0, [&](int64_t t) {
            worst = std::max(worst, buffer.stats().currentDelayMs);
            if (t == resumeUs + 500'000) soonAfter = buffer.stats().currentDelayMs;
        });
        EXPECT_LE(worst, 200 + 20.0);
        // Within half a second the delay is small again, except after an outage, which is jitter.
        EXPECT_LE(soonAfter, c.outageUs ? 220.0 : 25.0);
        // The end of the call plays exactly, at a small delay again.
        const size_t from = out.size() - 4 * 8000;
        const int64_t delay = exactDelay(out, s.reference(1500), from, from + 3 * 8000);
        ASSERT_GE(delay, 0);
        EXPECT_LE(addedDelayMs(sent, 160, delay, from, from + 3 * 8000), 10.0);
    }
}

// The RTP worker and the sound device at once: this one is for the thread sanitizer.
TEST(JitterBufferTest, PushAndPullFromTheirOwnThreads) {
    JitterBuffer buffer(std::make_unique<G711Codec>(false));
    const auto sent = Sender{}.packets(400);
    std::thread receiver([&] {
        for (const Packet& p : sent) buffer.push(p.sequence, p.timestamp, p.payload, p.arrivalUs);
    });
    std::vector<int16_t> chunk(80);
    for (int i = 0; i < 400; ++i) buffer.pull(chunk);
    receiver.join();
    EXPECT_EQ(buffer.stats().packetsPushed, 400u);
    EXPECT_EQ(buffer.stats().samplesPlayed, 400u * 80);
}

}  // namespace
}  // namespace kelsip
