// G.711 against the law's own tables: every 16-bit input and every code word
// of both laws, with expectations built from the segment tables, not the coder.
#include "media/g711.h"

#include <gtest/gtest.h>

#include <vector>

namespace kelsip {
namespace {

// One quantisation interval of a law on its own magnitude scale: inputs in
// [low, high) give code `(segment << 4) | step` before the law's bit
// transformation, and decode to `output`.
struct Interval {
    int low;
    int high;
    int segment;
    int step;
    int output;
};

// µ-law, 14-bit magnitudes (full scale 8159): segment 0 opens with the
// one-unit interval [0, 1) and continues in steps of 2 from 1; segment s
// from 1 on starts at 2^(s+5) - 33 with steps of 2^(s+1). Each interval
// decodes to its midpoint, the first one to 0.
std::vector<Interval> ulawIntervals() {
    std::vector<Interval> table;
    table.push_back({0, 1, 0, 0, 0});
    for (int step = 1; step < 16; ++step) table.push_back({2 * step - 1, 2 * step + 1, 0, step, 2 * step});
    for (int segment = 1; segment < 8; ++segment) {
        const int start = (1 << (segment + 5)) - 33;
        const int width = 1 << (segment + 1);
        for (int step = 0; step < 16; ++step) {
            const int low = start + step * width;
            table.push_back({low, low + width, segment, step, low + width / 2});
        }
    }
    return table;
}

// A-law, 13-bit magnitudes (full scale 4096): segments 0 and 1 cover [0, 32)
// and [32, 64) in steps of 2; segment s from 2 on covers [2^(s+4), 2^(s+5))
// in steps of 2^s. Each interval decodes to its midpoint.
std::vector<Interval> alawIntervals() {
    std::vector<Interval> table;
    for (int segment = 0; segment < 8; ++segment) {
        const int start = segment == 0 ? 0 : 1 << (segment + 4);
        const int width = segment < 2 ? 2 : 1 << segment;
        for (int step = 0; step < 16; ++step) {
            const int low = start + step * width;
            table.push_back({low, low + width, segment, step, low + width / 2});
        }
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
int ulawCode(bool positive, const Interval& i) { return (positive ? 0x80 : 0x00) | (~((i.segment << 4) | i.step) & 0x7f); }
int alawCode(bool positive, const Interval& i) { return ((positive ? 0x80 : 0x00) | (i.segment << 4) | i.step) ^ 0x55; }

// A 16-bit sample as the tables see it: sign and magnitude, a negative
// sample's magnitude being its one's complement, which makes the laws exactly
// symmetric (-1 sits with 0, -32768 with 32767).
struct SignMagnitude {
    bool positive;
    int magnitude;
};
SignMagnitude split(int sample) { return sample >= 0 ? SignMagnitude{true, sample} : SignMagnitude{false, -sample - 1}; }

TEST(G711Test, UlawEncodesEveryInputByTheTable) {
    const auto table = ulawIntervals();
    ASSERT_EQ(table.back().high, 8159);
    int mismatches = 0;
    for (int sample = -32768; sample <= 32767; ++sample) {
        const SignMagnitude s = split(sample);
        const int expected = ulawCode(s.positive, intervalOf(table, s.magnitude >> 2));
        const int actual = linearToUlaw(static_cast<int16_t>(sample));
        if (actual != expected && ++mismatches <= 5) ADD_FAILURE() << sample << ": " << actual << " != " << expected;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(G711Test, AlawEncodesEveryInputByTheTable) {
    const auto table = alawIntervals();
    ASSERT_EQ(table.back().high, 4096);
    int mismatches = 0;
    for (int sample = -32768; sample <= 32767; ++sample) {
        const SignMagnitude s = split(sample);
        const int expected = alawCode(s.positive, intervalOf(table, s.magnitude >> 3));
        const int actual = linearToAlaw(static_cast<int16_t>(sample));
        if (actual != expected && ++mismatches <= 5) ADD_FAILURE() << sample << ": " << actual << " != " << expected;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(G711Test, EveryCodeWordDecodesToItsIntervalMidpoint) {
    struct Law {
        const char* name;
        std::vector<Interval> table;
        int scale;  // from the law's magnitude scale to 16 bits
        int (*code)(bool, const Interval&);
        int16_t (*decode)(uint8_t);
    };
    const Law laws[] = {{"u-law", ulawIntervals(), 4, ulawCode, ulawToLinear},
                        {"A-law", alawIntervals(), 8, alawCode, alawToLinear}};
    for (const Law& law : laws) {
        SCOPED_TRACE(law.name);
        std::vector<int> seen(256, 0);
        for (const Interval& i : law.table) {
            for (const bool positive : {true, false}) {
                const int code = law.code(positive, i);
                ++seen[static_cast<size_t>(code)];
                const int magnitude = i.output * law.scale;
                EXPECT_EQ(law.decode(static_cast<uint8_t>(code)), positive ? magnitude : -magnitude) << code;
            }
        }
        // The table reaches every code word exactly once.
        EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 256);
    }
    // Known anchors: silence and full scale.
    EXPECT_EQ(linearToUlaw(0), 0xff);
    EXPECT_EQ(linearToAlaw(0), 0xd5);
    EXPECT_EQ(ulawToLinear(0x80), 32124);
    EXPECT_EQ(alawToLinear(0xaa), 32256);
}

TEST(G711CodecTest, PacketsAppendBehindWhatTheOutputHolds) {
    for (const bool ulaw : {true, false}) {
        SCOPED_TRACE(ulaw ? "PCMU" : "PCMA");
        G711Codec codec(ulaw);
        EXPECT_EQ(codec.info().name, ulaw ? "PCMU" : "PCMA");
        EXPECT_EQ(codec.info().payloadType, ulaw ? 0 : 8);
        std::vector<int16_t> pcm(160);
        for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<int16_t>(static_cast<int>(i) * 409 - 32768);
        std::vector<uint8_t> payload{0x11};
        ASSERT_TRUE(codec.encode(pcm.data(), pcm.size(), payload));
        ASSERT_EQ(payload.size(), 161u);  // one byte per sample: 20 ms is 160 bytes
        EXPECT_EQ(payload[0], 0x11);
        EXPECT_EQ(payload[1], ulaw ? linearToUlaw(pcm[0]) : linearToAlaw(pcm[0]));

        std::vector<int16_t> out(160, 7);
        ASSERT_TRUE(codec.decode(payload.data() + 1, 160, out));
        ASSERT_EQ(out.size(), 320u);
        EXPECT_EQ(std::count(out.begin(), out.begin() + 160, 7), 160);
        for (size_t i = 0; i < 160; ++i) {
            const int16_t expected = ulaw ? ulawToLinear(payload[i + 1]) : alawToLinear(payload[i + 1]);
            ASSERT_EQ(out[160 + i], expected) << i;
        }

        codec.conceal(160, out);
        ASSERT_EQ(out.size(), 480u);
        EXPECT_EQ(std::count(out.begin() + 320, out.end(), 0), 160);
        EXPECT_FALSE(codec.encode(nullptr, 1, payload));
    }
}

}  // namespace
}  // namespace kelsip
