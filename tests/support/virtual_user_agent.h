// A user agent on loopback in virtual time with a scripted peer beside it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>
#include <vector>
#include <string>

#include "sip/core/event_loop.h"
#include "sip/ua/user_agent.h"
#include "support/log_capture.h"
#include "support/scripted_peer.h"
#include "support/wait.h"

namespace kelsip::test {

// What a test's listener heard, as lines in arrival order (the loop runs on the test's thread).
class EventLines {
public:
    void add(const std::string& line) { lines_.push_back(line); }
    std::vector<std::string> take() { return std::exchange(lines_, {}); }

private:
    std::vector<std::string> lines_;
};

// A request the peer sends us, from <sip:peer@...> to <sip:`user`@us>.
struct PeerRequest {
    std::string method{};
    std::string callId{};
    std::string extra{};  // header lines, each ended by CRLF
    std::string body{};
    int cseq = 1;
    std::string toTag{};
    std::string fromTag = "peer";
    std::string user = "alice";
};

class VirtualUserAgentTest : public ::testing::Test {
protected:
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
    int addLine(const std::string& domain, const std::string& user = "alice") {
        LineConfig line;
        line.user = user;
        line.password = "secret";
        line.domain = domain;
        return ua->addLine(line);
    }
    void advance(std::chrono::milliseconds d) { advanceVirtualTime(ua->eventLoop(), *clock, d); }
    [[nodiscard]] std::string us() { return ua->localAddress(TransportKind::Udp).toString(); }
    void toUs(const PeerRequest& r) {
        const std::string text =
            r.method + " sip:" + r.user + "@" + us() + " SIP/2.0\r\nVia: SIP/2.0/UDP " + peer.hostPort() +
            ";branch=z9hG4bKp" + std::to_string(++branches_) + "\r\nMax-Forwards: 70\r\nFrom: <sip:peer@" +
            peer.hostPort() + ">;tag=" + r.fromTag + "\r\nTo: <sip:" + r.user + "@" + us() + ">" +
            (r.toTag.empty() ? "" : ";tag=" + r.toTag) + "\r\nCall-ID: " + r.callId + "\r\nCSeq: " +
            std::to_string(r.cseq) + " " + r.method + "\r\nContact: <sip:peer@" + peer.hostPort() + ">\r\n" +
            r.extra + "Content-Length: " + std::to_string(r.body.size()) + "\r\n\r\n" + r.body;
        peer.send(text, ua->localAddress(TransportKind::Udp));
    }
    // The peer answers `request`, and the user agent takes the answer before time moves on.
    void answer(const SipMessage& request, int code, const std::string& extra = "",
                const std::string& toTag = "peer") {
        const size_t before = received();
        peer.answer(request, code, extra, toTag);
        EXPECT_TRUE(settle([&] { return received() > before; }));
        pump();
    }
    [[nodiscard]] size_t received() const {
        size_t n = 0;
        for (const std::string& line : logs.lines()) n += line.rfind("RECV", 0) == 0;
        return n;
    }
    // Runs the loop until `done` holds; false when it did not within `limit`.
    bool settle(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
        return waitFor([&] {
            pump();
            return done();
        }, limit);
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
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::unique_ptr<UserAgent> ua;
    ScriptedPeer peer;
    LogCapture logs;
    ScriptedPeer::Pump pump = [this] { ua->eventLoop().runDue(); };

private:
    int branches_ = 0;
};

}  // namespace kelsip::test
