// The TURN client against a scripted server in virtual time: the long-term
// credential exchange with a stale nonce, the refresh, permission and
// channel schedules, the release, and relayed data both ways.
#include "media/ice/turn_client.h"

#include <gtest/gtest.h>

#include <deque>

#include "sip/auth/md5.h"

namespace kelsip::ice {
namespace {

constexpr int64_t kSecond = 1000000;
const net::SocketAddress kServer = *net::SocketAddress::parse("192.0.2.1", 3478);
const net::SocketAddress kPeer = *net::SocketAddress::parse("198.51.100.9", 7000);

class TurnScript : public ::testing::Test {
protected:
    TurnScript() : client_({kServer, "alice", "secret", 600}, [this](std::span<const uint8_t> b) { wire_.emplace_back(b.begin(), b.end()); }) {
        Md5 md5;
        md5.update("alice:test.local:secret");
        const auto digest = md5.finish();
        key_.assign(digest.begin(), digest.end());
    }

    // The next request the client sent (resends skipped), checked for the
    // long-term credentials when `nonce` is given.
    stun::Message expectRequest(stun::Method method, const char* nonce) {
        while (!wire_.empty()) {
            const auto bytes = std::move(wire_.front());
            wire_.pop_front();
            auto m = stun::parse(bytes);
            if (!m || m->messageClass != stun::Class::Request || m->transaction == last_) continue;
            last_ = m->transaction;
            EXPECT_EQ(m->method, method) << stun::describe(*m);
            if (nonce) {
                EXPECT_EQ(m->text(stun::attr::kUsername), "alice");
                EXPECT_EQ(m->text(stun::attr::kRealm), "test.local");
                EXPECT_EQ(m->text(stun::attr::kNonce), nonce);
                EXPECT_TRUE(stun::checkIntegrity(bytes, key_));
            } else {
                EXPECT_FALSE(m->has(stun::attr::kUsername));
            }
            return *m;
        }
        ADD_FAILURE() << "no request sent";
        return {};
    }
    void answer(const stun::Message& m, bool signed_ = true) {
        static_cast<void>(client_.receive(stun::encode(m, {signed_ ? key_ : std::vector<uint8_t>{}, true}), now_));
    }
    void answerSuccess(const stun::Message& request) { answer(stun::Message::responseTo(request, stun::Class::Success)); }
    void runTo(int64_t us) {
        for (; now_ < us; now_ += 10000) client_.tick(now_);
        client_.tick(now_ = us);
    }
    bool sentRequest() {
        for (const auto& bytes : wire_) {
            const auto m = stun::parse(bytes);
            if (m && m->messageClass == stun::Class::Request && m->transaction != last_) return true;
        }
        return false;
    }

    std::deque<std::vector<uint8_t>> wire_;
    TurnClient client_;
    std::vector<uint8_t> key_;
    stun::TransactionId last_{};
    int64_t now_ = 0;
};

TEST_F(TurnScript, AllocatesRefreshesRelaysAndReleases) {
    std::optional<bool> allocated;
    client_.allocate(now_, [&](bool ok) { allocated = ok; });

    auto request = expectRequest(stun::Method::Allocate, nullptr);
    EXPECT_EQ(request.uint32(stun::attr::kRequestedTransport), 17u << 24);
    auto challenge = stun::Message::responseTo(request, stun::Class::Error);
    challenge.addErrorCode(401, "Unauthorized");
    challenge.addText(stun::attr::kRealm, "test.local");
    challenge.addText(stun::attr::kNonce, "n1");
    answer(challenge, false);

    request = expectRequest(stun::Method::Allocate, "n1");
    auto stale = stun::Message::responseTo(request, stun::Class::Error);
    stale.addErrorCode(438, "Stale Nonce");
    stale.addText(stun::attr::kRealm, "test.local");
    stale.addText(stun::attr::kNonce, "n2");
    answer(stale);

    request = expectRequest(stun::Method::Allocate, "n2");
    auto granted = stun::Message::responseTo(request, stun::Class::Success);
    const auto relayed = *net::SocketAddress::parse("192.0.2.1", 50000);
    const auto mapped = *net::SocketAddress::parse("203.0.113.4", 6000);
    granted.addXorAddress(stun::attr::kXorRelayedAddress, relayed);
    granted.addXorAddress(stun::attr::kXorMappedAddress, mapped);
    granted.addUint32(stun::attr::kLifetime, 600);
    answer(granted);
    ASSERT_EQ(allocated, true);
    EXPECT_EQ(client_.relayed(), relayed);
    EXPECT_EQ(client_.mapped(), mapped);

    // Data to a new peer waits for its permission, then goes in a Send indication.
    const std::vector<uint8_t> payload = {0x80, 1, 2, 3};
    ASSERT_TRUE(client_.sendTo(kPeer, payload, now_));
    request = expectRequest(stun::Method::CreatePermission, "n2");
    EXPECT_EQ(request.address(stun::attr::kXorPeerAddress), kPeer);
    EXPECT_TRUE(wire_.empty());
    answerSuccess(request);
    ASSERT_EQ(wire_.size(), 1u);
    const auto send = stun::parse(wire_.back());
    EXPECT_EQ(send->method, stun::Method::Send);
    EXPECT_EQ(send->address(stun::attr::kXorPeerAddress), kPeer);
    EXPECT_EQ(send->find(stun::attr::kData)->value, payload);
    wire_.clear();

    // A Data indication from the peer comes out unwrapped.
    auto data = stun::Message::request(stun::Method::Data);
    data.messageClass = stun::Class::Indication;
    data.addXorAddress(stun::attr::kXorPeerAddress, kPeer);
    data.add(stun::attr::kData, payload);
    const auto received = client_.receive(stun::encode(data), now_);
    ASSERT_TRUE(received);
    EXPECT_EQ(received->peer, kPeer);
    EXPECT_EQ(received->data, payload);

    // Channel: afterwards data goes as ChannelData, both ways.
    client_.bindChannel(kPeer, now_);
    request = expectRequest(stun::Method::ChannelBind, "n2");
    const uint16_t channel = static_cast<uint16_t>(*request.uint32(stun::attr::kChannelNumber) >> 16);
    EXPECT_EQ(channel, 0x4000);
    answerSuccess(request);
    ASSERT_TRUE(client_.channelBound(kPeer));
    ASSERT_TRUE(client_.sendTo(kPeer, payload, now_));
    EXPECT_EQ(wire_.back(), (std::vector<uint8_t>{0x40, 0x00, 0x00, 0x04, 0x80, 1, 2, 3}));
    const auto back = client_.receive(std::vector<uint8_t>{0x40, 0x00, 0x00, 0x02, 9, 9, 0, 0}, now_);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->peer, kPeer);
    EXPECT_EQ(back->data, (std::vector<uint8_t>{9, 9}));
    EXPECT_FALSE(client_.receive(std::vector<uint8_t>{0x40, 0x00, 0x00, 0x09, 1}, now_));  // truncated
    wire_.clear();

    // Permission refreshed before 5 minutes, channel before 10, the
    // allocation a minute before its lifetime ends.
    for (const int64_t due : {240 * kSecond, 480 * kSecond}) {
        runTo(due - 1);
        EXPECT_FALSE(sentRequest());
        runTo(due);
        request = expectRequest(stun::Method::CreatePermission, "n2");
        answerSuccess(request);
    }
    runTo(540 * kSecond - 1);
    EXPECT_FALSE(sentRequest());
    runTo(540 * kSecond);
    const auto first = expectRequest(stun::Method::Refresh, "n2");
    EXPECT_EQ(first.uint32(stun::attr::kLifetime), 600u);
    const auto second = expectRequest(stun::Method::ChannelBind, "n2");
    answerSuccess(first);
    answerSuccess(second);

    client_.release(now_);
    request = expectRequest(stun::Method::Refresh, "n2");
    EXPECT_EQ(request.uint32(stun::attr::kLifetime), 0u);
    EXPECT_EQ(client_.state(), TurnClient::State::Released);
    EXPECT_FALSE(client_.sendTo(kPeer, payload, now_));
}

}  // namespace
}  // namespace kelsip::ice
