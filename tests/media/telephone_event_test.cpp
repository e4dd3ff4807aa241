// RFC 4733 events: payload bytes, digits, the sender's schedule and the receiver's single report.
#include "media/session/telephone_event.h"

#include <gtest/gtest.h>

#include <tuple>

namespace kelsip {
namespace {

TEST(TelephoneEventTest, PayloadAndDigitCodes) {
    const TelephoneEvent e{11, true, 10, 1600};
    std::vector<uint8_t> bytes;
    e.writeTo(bytes);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{11, 0x8a, 0x06, 0x40}));
    EXPECT_EQ(TelephoneEvent::parse(bytes), e);
    EXPECT_FALSE(TelephoneEvent::parse(std::vector<uint8_t>{1, 2, 3}));
    // The reserved bit is not the end bit, and volume keeps six bits.
    EXPECT_EQ(TelephoneEvent::parse(std::vector<uint8_t>{5, 0x7f, 0, 1}), (TelephoneEvent{5, false, 63, 1}));

    const std::string digits = "0123456789*#ABCD";
    for (size_t i = 0; i < digits.size(); ++i) {
        EXPECT_EQ(dtmfEventCode(digits[i]), i);
        EXPECT_EQ(dtmfDigit(static_cast<uint8_t>(i)), digits[i]);
    }
    EXPECT_EQ(dtmfEventCode('b'), 13);
    EXPECT_FALSE(dtmfEventCode('E'));
    EXPECT_FALSE(dtmfDigit(16));
}

TEST(TelephoneEventTest, SenderSchedulesStartUpdatesAndThreeEndsThenAGapBeforeTheNextDigit) {
    TelephoneEventSender s;
    ASSERT_TRUE(s.enqueue('7', 100));
    ASSERT_TRUE(s.enqueue('8', 10));  // raised to 40 ms
    EXPECT_FALSE(s.enqueue('?', 100));
    // (interval, event, marker, end, duration, timestamp), from a timestamp just below the wrap
    using Row = std::tuple<uint32_t, uint8_t, bool, bool, uint16_t, uint32_t>;
    const uint32_t first = 0xffffff00u;
    std::vector<Row> actual;
    std::string owned;  // per 20 ms interval: 'e' when an event owns it, '.' when it carries audio
    for (uint32_t i = 0; i < 20; ++i) {
        std::vector<TelephoneEventSender::Packet> packets;
        owned += s.advance(first + 160 * i, packets) ? 'e' : '.';
        for (const auto& p : packets) {
            actual.emplace_back(i, p.event.event, p.marker, p.event.end, p.event.duration, p.timestamp);
        }
    }
    const uint32_t second = first + 160u * 10;  // after 7 intervals of event and a 40 ms gap
    const std::vector<Row> expected = {
        {0, 7, true, false, 160, first},
        {2, 7, false, false, 400, first},  // 50 ms falls in interval 2
        {5, 7, false, true, 800, first},   // the tone ends at 100 ms: no update there
        {6, 7, false, true, 800, first},
        {7, 7, false, true, 800, first},
        {10, 8, true, false, 160, second},  // 40 ms: no update, the end at 320
        {12, 8, false, true, 320, second},
        {13, 8, false, true, 320, second},
        {14, 8, false, true, 320, second},
    };
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(owned, "eeeeeeee..eeeee.....");
    EXPECT_TRUE(s.idle());
}

TEST(TelephoneEventTest, ReceiverReportsEachEventOnceWhicheverPacketArrivesFirst) {
    struct Arrival {
        uint32_t ssrc;
        uint32_t timestamp;
        bool marker;
        TelephoneEvent event;
        char reported;  // 0: nothing
    };
    const Arrival arrivals[] = {
        {1, 1000, true, {5, false, 10, 160}, '5'},
        {1, 1000, false, {5, false, 10, 400}, 0},
        {1, 1000, false, {5, true, 10, 800}, 0},
        {1, 1000, false, {5, true, 10, 800}, 0},   // repeated end
        {1, 3000, false, {9, true, 10, 800}, '9'},  // start and updates lost: the end still reports
        {1, 3000, false, {9, true, 10, 800}, 0},
        {1, 1000, false, {5, true, 10, 800}, 0},   // a straggler of the earlier event
        {1, 5000, true, {9, false, 10, 160}, '9'},  // the same digit again is a new event
        // A long event's next segment: new timestamp, same digit, no marker.
        {1, 5000 + 65535, false, {9, false, 10, 160}, 0},
        {2, 5000, true, {1, false, 10, 160}, '1'},  // another source
    };
    TelephoneEventReceiver r;
    for (size_t i = 0; i < std::size(arrivals); ++i) {
        SCOPED_TRACE(i);
        const auto& a = arrivals[i];
        const auto got = r.onPacket(a.ssrc, a.timestamp, a.marker, a.event);
        EXPECT_EQ(got.value_or('\0'), a.reported);
    }
}

}  // namespace
}  // namespace kelsip
