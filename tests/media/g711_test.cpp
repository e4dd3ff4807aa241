// G.711 against the law's own tables: every 16-bit input and every code word
// of both laws, with expectations built from the segment tables, not the coder.
#include "media/codec/g711.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace kelsip {
namespace {

// One quantisation interval of a law on its own magnitude scale: inputs in
// [low, high) give code `(segment << 4) | step` before the law's bit
// transformation, and decode to `output`.
struct Interval {
    int low, high, segment, step, output;
};

// Sixteen intervals of `width` from `start`, each decoding to its midpoint.
void appendSegment(std::vector<Interval>& table, int segment, int start, int width) {
    for (int step = 0, low = start; step < 16; ++step, low += width) {
        table.push_back({low, low + width, segment, step, low + width / 2});
    }
}

// µ-law, 14-bit magnitudes (full scale 8159): segment 0 opens with the
// one-unit interval [0, 1) and continues in steps of 2 from 1; segment s
// from 1 on starts at 2^(s+5) - 33 with steps of 2^(s+1). Each interval
// decodes to its midpoint, the first one to 0.
std::vector<Interval> ulawIntervals() {
    std::vector<Interval> table;
    table.push_back({0, 1, 0, 0, 0});
    for (int step = 1; step < 16; ++step) table.push_back({2 * step - 1, 2 * step + 1, 0, step, 2 * step});
    for (int segment = 1; segment < 8; ++segment) {
        appendSegment(table, segment, (1 << (segment + 5)) - 33, 1 << (segment + 1));
    }
    return table;
}

// A-law, 13-bit magnitudes (full scale 4096): segments 0 and 1 cover [0, 32)
// and [32, 64) in steps of 2; segment s from 2 on covers [2^(s+4), 2^(s+5))
// in steps of 2^s. Each interval decodes to its midpoint.
std::vector<Interval> alawIntervals() {
    std::vector<Interval> table;
    for (int segment = 0; segment < 8; ++segment) {
        appendSegment(table, segment, segment ? 1 << (segment + 4) : 0, segment < 2 ? 2 : 1 << segment);
    }
    return table;
}

const Interval& intervalOf(const std::vector<Interval>& table, int magnitude) {
    for (const Interval& i : table) {
        if (magnitude < i.high) return i;
    }
    return table.back();  // beyond full scale: the law saturates
}

// Code words on the line: µ-law sends the sign (1 for positive) and the
// complemented segment and step; A-law sends them with the even bits inverted.
int ulawCode(bool positive, const Interval& i) {
    return (positive ? 0x80 : 0x00) | (~((i.segment << 4) | i.step) & 0x7f);
}
int alawCode(bool positive, const Interval& i) { return ((positive ? 0x80 : 0x00) | (i.segment << 4) | i.step) ^ 0x55; }

// A 16-bit sample as the tables see it: sign and magnitude, a negative
// sample's magnitude being its one's complement, which makes the laws exactly
// symmetric (-1 sits with 0, -32768 with 32767).
struct SignMagnitude {
    bool positive;
    int magnitude;
};
SignMagnitude split(int sample) {
    return sample >= 0 ? SignMagnitude{true, sample} : SignMagnitude{false, -sample - 1};
}

// A law with its tables: `shift` takes a 16-bit magnitude to the law's own
// scale, and the law's outputs back to 16 bits are `output << shift`.
struct Law {
    const char* name;
    std::vector<Interval> table;
    int shift;
    int (*code)(bool, const Interval&);
    uint8_t (*encode)(int16_t);
    int16_t (*decode)(uint8_t);
};

TEST(G711Test, EveryInputEncodesAndEveryCodeWordDecodesByTheLawsTables) {
    const Law laws[] = {{"u-law", ulawIntervals(), 2, ulawCode, linearToUlaw, ulawToLinear},
                        {"A-law", alawIntervals(), 3, alawCode, linearToAlaw, alawToLinear}};
    for (const Law& law : laws) {
        SCOPED_TRACE(law.name);
        int mismatches = 0;
        for (int sample = -32768; sample <= 32767; ++sample) {
            const SignMagnitude s = split(sample);
            const int expected = law.code(s.positive, intervalOf(law.table, s.magnitude >> law.shift));
            const int actual = law.encode(static_cast<int16_t>(sample));
            if (actual != expected && ++mismatches <= 5) {
                ADD_FAILURE() << sample << ": " << actual << " != " << expected;
            }
        }
        EXPECT_EQ(mismatches, 0);
        std::vector<int> seen(256, 0);
        for (const Interval& i : law.table) {
            for (const bool positive : {true, false}) {
                const int code = law.code(positive, i);
                ++seen[static_cast<size_t>(code)];
                const int magnitude = i.output << law.shift;
                EXPECT_EQ(law.decode(static_cast<uint8_t>(code)), positive ? magnitude : -magnitude) << code;
            }
        }
        // The table reaches every code word exactly once.
        EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 256);
    }
}

TEST(G711CodecTest, DescribesItselfAndAppendsPacketsBehindWhatTheOutputHolds) {
    for (const bool ulaw : {true, false}) {
        SCOPED_TRACE(ulaw ? "PCMU" : "PCMA");
        G711Codec codec(ulaw);
        const auto decode = ulaw ? ulawToLinear : alawToLinear;
        EXPECT_EQ(codec.info().name, ulaw ? "PCMU" : "PCMA");
        EXPECT_EQ(codec.info().payloadType, ulaw ? 0 : 8);
        EXPECT_EQ(codec.info().ptimeMs, 20u);
        std::vector<int16_t> pcm(160);
        for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<int16_t>(static_cast<int>(i) * 409 - 32768);
        std::vector<uint8_t> payload{0x11};
        ASSERT_TRUE(codec.encode(pcm.data(), pcm.size(), payload));
        ASSERT_EQ(payload.size(), 161u);  // one byte per sample: 20 ms is 160 bytes
        EXPECT_EQ(payload[1], ulaw ? linearToUlaw(pcm[0]) : linearToAlaw(pcm[0]));
        EXPECT_EQ(codec.sampleCount(payload.data(), 160), 160u);
        EXPECT_FALSE(codec.encode(nullptr, 1, payload));

        std::vector<int16_t> out(160, 7), expected(160, 7);
        for (size_t i = 1; i <= 160; ++i) expected.push_back(decode(payload[i]));
        ASSERT_TRUE(codec.decode(payload.data() + 1, 160, out));
        EXPECT_EQ(out, expected);
        codec.conceal(160, out);  // appends too
        ASSERT_EQ(out.size(), 480u);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), out.begin()));

        // With nothing played yet there is nothing to repeat.
        std::vector<int16_t> fresh;
        G711Codec(ulaw).conceal(80, fresh);
        EXPECT_EQ(fresh, std::vector<int16_t>(80, 0));
    }
}

// A tone starting at `hz` whose pitch rises by `glide` Hz a second, as a
// voice's does.
std::vector<int16_t> toneOf(double hz, double glide, size_t count) {
    std::vector<int16_t> out(count);
    for (size_t i = 0; i < count; ++i) {
        const double t = static_cast<double>(i) / 8000;
        out[i] = static_cast<int16_t>(10000 * std::sin(2 * std::numbers::pi * (hz + glide * t / 2) * t));
    }
    return out;
}

double correlation(const int16_t* a, const int16_t* b, size_t n) {
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < n; ++i) {
        ab += static_cast<double>(a[i]) * b[i];
        aa += static_cast<double>(a[i]) * a[i];
        bb += static_cast<double>(b[i]) * b[i];
    }
    return ab / std::sqrt(aa * bb);
}

int largestStep(const std::vector<int16_t>& x, size_t from, size_t to) {
    int step = 0;
    for (size_t i = from + 1; i < to; ++i) step = std::max(step, std::abs(x[i] - x[i - 1]));
    return step;
}

// 50 ms of a tone played, 20 ms lost, then the next packet. A steady tone is
// carried on closely: periods below the shortest searched (1 kHz, found as
// a multiple), near the longest (75 Hz) and of no whole number of samples
// (220 Hz). A gliding one cannot be predicted, but neither end of the loss
// may click, and the packet after it plays exactly once its blend is over.
TEST(G711ConcealmentTest, RepeatsThePitchAndBlendsIntoTheNextPacket) {
    struct Case {
        double hz;
        double glide;
        double correlation;  // with what was lost, over its first 10 ms
    };
    const Case cases[] = {
        {1000, 0, 0.99},
        {440, 0, 0.99},
        {220, 0, 0.99},
        {75, 0, 0.99},
        {150, 500, 0.85},
        {440, 1000, 0.4},
        {150, 2000, -1},
    };
    for (const bool ulaw : {true, false}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << (ulaw ? "PCMU " : "PCMA ") << c.hz << " Hz + " << c.glide << " Hz/s");
            const auto tone = toneOf(c.hz, c.glide, 720);
            G711Codec codec(ulaw);
            std::vector<uint8_t> payload;
            ASSERT_TRUE(codec.encode(tone.data(), tone.size(), payload));
            std::vector<int16_t> out;
            ASSERT_TRUE(codec.decode(payload.data(), 400, out));
            codec.conceal(100, out);
            codec.conceal(60, out);  // any piece size continues the same repetition
            ASSERT_TRUE(codec.decode(payload.data() + 560, 160, out));
            ASSERT_EQ(out.size(), 720u);

            EXPECT_GT(correlation(&out[400], &tone[400], 80), c.correlation);
            if (c.glide == 0) {
                EXPECT_GT(correlation(&out[400], &tone[400], 160), 0.98);
            }
            EXPECT_LE(largestStep(out, 390, 650), largestStep(tone, 0, 720) * 11 / 10 + 100);
            std::vector<int16_t> plain;
            ASSERT_TRUE(G711Codec(ulaw).decode(payload.data() + 640, 80, plain));
            EXPECT_TRUE(std::equal(plain.begin(), plain.end(), out.begin() + 640));
        }
    }
}

}  // namespace
}  // namespace kelsip
