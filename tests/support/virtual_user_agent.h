// A user agent on loopback in virtual time with a scripted peer beside it:
// the fixture of the tests that check what the user agent sends and when.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "sip/core/event_loop.h"
#include "sip/ua/user_agent.h"
#include "support/log_capture.h"
#include "support/scripted_peer.h"
#include "support/wait.h"

namespace kelsip::test {

// What a test's listener heard, as lines, taken in arrival order.
class EventLines {
public:
    void add(const std::string& line) {
        std::lock_guard lock(mutex_);
        lines_.push_back(line);
    }
    std::vector<std::string> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(lines_, {});
    }

private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

class VirtualUserAgentTest : public ::testing::Test {
protected:
    // `adjust` changes the configuration before the user agent is made.
    explicit VirtualUserAgentTest(const std::function<void(UserAgentConfig&)>& adjust = {}) {
        UserAgentConfig config;
        config.bindAddress = "127.0.0.1";
        config.udpPort = 0;
        config.tcpPort = -1;
        config.clock = clock;
        if (adjust) adjust(config);
        ua = std::make_unique<UserAgent>(config);
    }
    void SetUp() override { ASSERT_TRUE(ua->start()); }
    // A line "alice"; `domain` empty for one that works peer to peer.
    int addLine(const std::string& domain) {
        LineConfig line;
        line.user = "alice";
        line.password = "secret";
        line.domain = domain;
        return ua->addLine(line);
    }
    void advance(std::chrono::milliseconds d) { advanceVirtualTime(ua->eventLoop(), *clock, d); }
    [[nodiscard]] std::string us() { return ua->localAddress(TransportKind::Udp).toString(); }
    // The peer's request as it reaches our UDP port.
    void toUs(const std::string& text) { peer.send(text, ua->localAddress(TransportKind::Udp)); }
    // The peer answers `request`, and the user agent has taken the answer
    // before the test moves time on (else a jump could time out the
    // transaction the answer was meant for).
    void answer(const SipMessage& request, int code, const std::string& extra = "", const std::string& toTag = "peer") {
        const size_t before = received();
        peer.answer(request, code, extra, toTag);
        EXPECT_TRUE(waitFor([&] {
            pump();
            return received() > before;
        }, std::chrono::seconds(2)));
        pump();
    }
    [[nodiscard]] size_t received() const {
        size_t n = 0;
        for (const std::string& line : logs.lines()) n += line.rfind("RECV", 0) == 0;
        return n;
    }
    // Moves virtual time on in 1 s steps until a `method` request comes:
    // how long that took, or nothing within `limit`.
    std::optional<int64_t> nextWithin(const std::string& method, std::chrono::seconds limit,
                                      std::optional<SipMessage>* out = nullptr) {
        const int64_t start = clock->nowNs();
        for (int64_t s = 0; s <= limit.count(); ++s) {
            if (auto m = peer.expect(method, pump, std::chrono::milliseconds(2))) {
                if (out != nullptr) *out = std::move(m);
                return (clock->nowNs() - start) / 1'000'000'000;
            }
            advance(std::chrono::seconds(1));
        }
        return std::nullopt;
    }
    // The header names of `m` in order, a list header's repeats as one.
    static std::vector<std::string> headerNames(const SipMessage& m) {
        std::vector<std::string> names;
        for (const HeaderField& h : m.headers()) {
            if (names.empty() || names.back() != h.name) names.push_back(h.name);
        }
        return names;
    }
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::unique_ptr<UserAgent> ua;
    ScriptedPeer peer;
    LogCapture logs;
    ScriptedPeer::Pump pump = [this] { ua->eventLoop().runDue(); };
};

}  // namespace kelsip::test
