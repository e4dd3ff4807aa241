// Receive statistics: jitter, the sequence tracker's loss figures and the RTCP interval.
#include "media/rtp/rtp_statistics.h"

#include <gtest/gtest.h>

#include "media/session/rtcp_schedule.h"

namespace kelsip {
namespace {

TEST(RtpStatisticsTest, JitterIsZeroOnTimeAndConvergesToTheMeanDeviation) {
    InterarrivalJitter steady;
    for (int i = 0; i < 100; ++i) steady.update(160u * static_cast<uint32_t>(i), 20000LL * i);
    EXPECT_EQ(steady.value(), 0u);

    // Every other packet 5 ms late: each difference is 5 ms = 40 units.
    InterarrivalJitter alternating;
    for (int i = 0; i < 400; ++i) alternating.update(160u * static_cast<uint32_t>(i), 20000LL * i + (i % 2) * 5000);
    EXPECT_NEAR(alternating.value(), 40.0, 1.0);
    EXPECT_NEAR(alternating.milliseconds(), 5.0, 0.1);

    InterarrivalJitter wrapping;
    for (int i = 0; i < 50; ++i) wrapping.update(0xfffff000u + 160u * static_cast<uint32_t>(i), 20000LL * i);
    EXPECT_EQ(wrapping.value(), 0u);
}

struct SequenceCase {
    const char* name;
    std::vector<uint16_t> sequence;
    int64_t lost;
    uint32_t extendedHighest;
};

TEST(RtpStatisticsTest, SequenceTrackerCountsLossAcrossWrapsReorderingAndRestarts) {
    const SequenceCase cases[] = {
        {"in order", {10, 11, 12, 13}, 0, 13},
        {"two lost", {10, 11, 14, 15}, 2, 15},
        {"reordered", {10, 11, 13, 12, 14}, 0, 14},
        {"duplicate counts negative", {10, 11, 12, 12}, -1, 12},
        {"wrap", {65534, 65535, 0, 1}, 0, 0x10001},
        {"wrap with loss", {65534, 65535, 2}, 2, 0x10002},
        // A wild jump is ignored once; repeated, the source restarted.
        {"stray jump", {10, 11, 5000, 12}, 0, 12},
        {"restart", {10, 11, 5000, 5001, 5002}, 0, 5002},
        {"probation", {10, 20, 21, 22}, 0, 22},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        RtpSequenceTracker t;
        for (const uint16_t s : c.sequence) (void)t.update(s);
        EXPECT_EQ(t.cumulativeLost(), c.lost);
        EXPECT_EQ(t.extendedHighest(), c.extendedHighest);
    }
}

TEST(RtpStatisticsTest, FractionLostCoversOnlyTheLatestInterval) {
    RtpSequenceTracker t;
    for (uint16_t s = 0; s < 4; ++s) (void)t.update(s);
    EXPECT_EQ(t.takeFractionLost(), 0);
    for (uint16_t s = 4; s < 104; ++s) {
        if (s % 4 != 1) (void)t.update(s);  // a quarter lost
    }
    EXPECT_EQ(t.takeFractionLost(), 64);
    for (uint16_t s = 104; s < 204; ++s) (void)t.update(s);
    EXPECT_EQ(t.takeFractionLost(), 0);
    (void)t.update(203);  // only a duplicate since: no negative fraction
    EXPECT_EQ(t.takeFractionLost(), 0);
}

TEST(RtpStatisticsTest, RtcpIntervalKeepsTheMinimumSpreadAndCompensation) {
    // Two parties sit at the minimum; among 1000 members, receivers share three quarters of the bandwidth.
    const struct {
        RtcpIntervalInput in;
        double random01, deterministic;
    } cases[] = {
        {{}, 0.0, 5.0 * 0.5},
        {{}, 1.0, 5.0 * 1.5},
        {{.initial = true}, 0.5, 2.5},
        {{.members = 1000, .senders = 1, .weSent = false}, 0.5, 100.0 * 999 / (500 * 0.75)},
        {{.members = 1000, .senders = 1}, 0.5, 5.0},
    };
    for (const auto& c : cases) EXPECT_NEAR(rtcpIntervalSeconds(c.in, c.random01), c.deterministic / 1.21828, 1e-6);
}

}  // namespace
}  // namespace kelsip
