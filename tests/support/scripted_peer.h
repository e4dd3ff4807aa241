// A SIP peer scripted by the test: expects a request on a loopback UDP port
// and answers it exactly as the test says.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sip/net/socket.h"
#include "sip/syntax/message.h"

namespace kelsip::test {

class ScriptedPeer {
public:
    // Called while waiting, so that a user agent driven in virtual time
    // keeps running its loop.
    using Pump = std::function<void()>;
    using Filter = std::function<bool(const SipMessage&)>;
    ScriptedPeer() {
        socket_ = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
        (void)socket_.bind(net::SocketAddress::loopback(net::AddressFamily::V4));
        (void)socket_.setNonBlocking(true);
        hostPort_ = socket_.localAddress().value_or(net::SocketAddress{}).toString();
    }
    [[nodiscard]] const std::string& hostPort() const { return hostPort_; }
    // The next request with `method` that `filter` accepts, or nothing
    // within `timeout`. Everything else is skipped.
    std::optional<SipMessage> expect(const std::string& method, const Pump& pump,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(5),
                                     const Filter& filter = nullptr) {
        return receive(pump, timeout, [&](const SipMessage& m) {
            return m.isRequest && m.method == method && (!filter || filter(m));
        });
    }
    bool quiet(const std::string& method, const Pump& pump, std::chrono::milliseconds window) {
        return !expect(method, pump, window);
    }
    // The next response (of `code`, when not 0), or nothing within `timeout`.
    std::optional<SipMessage> expectResponse(int code, const Pump& pump,
                                             std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        return receive(pump, timeout, [&](const SipMessage& m) {
            return !m.isRequest && (code == 0 || m.statusCode == code);
        });
    }
    // Answers `request` with `code`, adding `extra` header lines ("Name: value\r\n").
    void answer(const SipMessage& request, int code, const std::string& extra = "",
                const std::string& toTag = "peer") {
        std::string text = makeResponse(request, code, "", toTag).toString();
        text.insert(text.rfind("Content-Length: "), extra);
        (void)socket_.sendTo(text.data(), text.size(), lastSource_);
    }
    void send(const std::string& text, const net::SocketAddress& to) {
        (void)socket_.sendTo(text.data(), text.size(), to);
    }
    // The next STUN datagram (while SIP is skipped), and where it came from.
    std::optional<std::pair<std::vector<uint8_t>, net::SocketAddress>> expectStun(
        const Pump& pump, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (pump) pump();
            uint8_t buf[2048];
            net::SocketAddress from;
            const auto r = socket_.receiveFrom(buf, sizeof buf, from);
            if (r.ok() && r.bytes > 0 && buf[0] < 4) return std::pair{std::vector<uint8_t>(buf, buf + r.bytes), from};
            if (!r.ok()) {
                net::PollEntry e{socket_.native(), true, false};
                (void)net::poll({&e, 1}, 1);
            }
        }
        return std::nullopt;
    }

private:
    std::optional<SipMessage> receive(const Pump& pump, std::chrono::milliseconds timeout, const Filter& accept) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (pump) pump();
            char buf[65536];
            net::SocketAddress from;
            const auto r = socket_.receiveFrom(buf, sizeof buf, from);
            if (!r.ok()) {
                net::PollEntry e{socket_.native(), true, false};
                (void)net::poll({&e, 1}, 1);
                continue;
            }
            auto m = SipMessage::parse(std::string_view(buf, r.bytes));
            if (!m || !accept(*m)) continue;
            if (m->isRequest) lastSource_ = from;
            return m;
        }
        return std::nullopt;
    }
    net::Socket socket_;
    std::string hostPort_;
    net::SocketAddress lastSource_;
};

}  // namespace kelsip::test
