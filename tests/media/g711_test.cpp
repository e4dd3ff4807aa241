// G.711: code words of both laws, the codec over whole packets, concealment.
#include "media/codec/g711.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace kelsip {
namespace {

// Known code words at zero and full scale, and every code word decoded and encoded again.
TEST(G711Test, CodeWordsMatchTheLawsAndSurviveARoundTrip) {
    struct Law {
        const char* name;
        uint8_t (*encode)(int16_t);
        int16_t (*decode)(uint8_t);
        uint8_t zero, minusOne, top, bottom;
        int16_t topValue;
    };
    const Law laws[] = {
        {"u-law", linearToUlaw, ulawToLinear, 0xff, 0x7f, 0x80, 0x00, 32124},
        {"A-law", linearToAlaw, alawToLinear, 0xd5, 0x55, 0xaa, 0x2a, 32256},
    };
    for (const Law& law : laws) {
        SCOPED_TRACE(law.name);
        EXPECT_EQ(law.encode(0), law.zero);
        EXPECT_EQ(law.encode(-1), law.minusOne);
        EXPECT_EQ(law.encode(32767), law.top);
        EXPECT_EQ(law.encode(-32768), law.bottom);
        EXPECT_EQ(law.decode(law.top), law.topValue);
        EXPECT_EQ(law.decode(law.bottom), -law.topValue);
        for (int code = 0; code < 256; ++code) {
            const auto word = static_cast<uint8_t>(code);
            // µ-law's negative zero decodes to 0, which goes out as positive zero.
            const uint8_t back = law.encode(law.decode(word));
            EXPECT_EQ(back, word == 0x7f && law.zero == 0xff ? 0xff : word) << code;
        }
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

// A tone starting at `hz` whose pitch rises by `glide` Hz a second.
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

// 50 ms of a tone, 20 ms lost, then the next packet: a steady tone carries on closely, a gliding one at least
// without a click, and the packet after the loss plays exactly once its blend is over.
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
