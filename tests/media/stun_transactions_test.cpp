// STUN client transactions in virtual time: the RFC 8489 resend schedule
// and the end of a transaction by its response.
#include "media/ice/stun_transactions.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "sip/core/clock.h"

namespace kelsip::ice {
namespace {

int64_t nowUs(const ManualClock& clock) { return clock.nowNs() / 1000; }

TEST(StunTransactions, ResendsAtTheRfcScheduleAndFailsAfterTheLastWait) {
    ManualClock clock;
    StunTransactions transactions;
    std::vector<int64_t> sendsMs;
    int64_t failedMs = -1;
    const stun::Message request = stun::Message::request(stun::Method::Binding);
    transactions.start(
        request.transaction, stun::encode(request), [&](std::span<const uint8_t>) { sendsMs.push_back(nowUs(clock) / 1000); },
        [&](const stun::Message* response, std::span<const uint8_t>) {
            EXPECT_EQ(response, nullptr);
            failedMs = nowUs(clock) / 1000;
        },
        nowUs(clock));
    while (nowUs(clock) < 45000000) {
        clock.advance(std::chrono::milliseconds(1));
        transactions.tick(nowUs(clock));
    }
    EXPECT_EQ(sendsMs, (std::vector<int64_t>{0, 500, 1500, 3500, 7500, 15500, 31500}));
    EXPECT_EQ(failedMs, 39500);
    EXPECT_EQ(transactions.size(), 0u);
}

TEST(StunTransactions, ResponseEndsOnlyItsOwnTransaction) {
    StunTransactions transactions;
    int sends = 0;
    std::vector<int> answered;
    const stun::Message first = stun::Message::request(stun::Method::Binding);
    const stun::Message second = stun::Message::request(stun::Method::Binding);
    for (const auto* m : {&first, &second}) {
        const int which = m == &first ? 1 : 2;
        transactions.start(
            m->transaction, stun::encode(*m), [&](std::span<const uint8_t>) { ++sends; },
            [&, which](const stun::Message* response, std::span<const uint8_t>) {
                if (response) answered.push_back(which);
            },
            0);
    }
    // A request with the same id is not an answer.
    EXPECT_FALSE(transactions.onResponse(second, {}));
    const stun::Message answer = stun::Message::responseTo(second, stun::Class::Success);
    EXPECT_TRUE(transactions.onResponse(answer, stun::encode(answer)));
    EXPECT_FALSE(transactions.onResponse(answer, stun::encode(answer)));
    transactions.tick(500000);
    EXPECT_EQ(answered, std::vector<int>{2});
    EXPECT_EQ(sends, 3);  // two first sends, one resend of the unanswered one
}

}  // namespace
}  // namespace kelsip::ice
