// A SIP peer scripted by the test: expects a request on a loopback UDP port
// and answers it exactly as the test says.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "sip/syntax/message.h"
#include "sip/net/socket.h"

namespace kelsip::test {

class ScriptedPeer {
public:
    // Called while waiting, so that a user agent driven in virtual time
    // keeps running its loop.
    using Pump = std::function<void()>;
    ScriptedPeer() {
        socket_ = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
        (void)socket_.bind(net::SocketAddress::loopback(net::AddressFamily::V4));
        (void)socket_.setNonBlocking(true);
        address_ = socket_.localAddress().value_or(net::SocketAddress{});
    }
    [[nodiscard]] const net::SocketAddress& address() const { return address_; }
    [[nodiscard]] std::string hostPort() const { return address_.toString(); }
    using Filter = std::function<bool(const SipMessage&)>;
    // The next request with `method` (that `filter` accepts, when given), or
    // nothing within `timeout`. Everything else is skipped.
    std::optional<SipMessage> expect(const std::string& method, const Pump& pump,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(5),
                                     const Filter& filter = nullptr) {
        return receive(pump, timeout, [&](const SipMessage& m) {
            return m.isRequest && m.method == method && (!filter || filter(m));
        });
    }
    // Nothing of `method` arrives while `pump` runs for `window`.
    bool quiet(const std::string& method, const Pump& pump, std::chrono::milliseconds window) {
        return !expect(method, pump, window);
    }
    // Answers `request` with `code`, adding `extra` header lines ("Name: value\r\n").
    void answer(const SipMessage& request, int code, const std::string& extra = "", const std::string& toTag = "peer") {
        SipMessage r = makeResponse(request, code, "", toTag);
        std::string text = r.toString();
        // Extra headers go before the final Content-Length line.
        const size_t at = text.rfind("Content-Length: ");
        text.insert(at, extra);
        (void)socket_.sendTo(text.data(), text.size(), lastSource_);
    }
    // Sends a whole message as it stands to `to`.
    void send(const std::string& text, const net::SocketAddress& to) { (void)socket_.sendTo(text.data(), text.size(), to); }
    // The next response (of `code`, when not 0), or nothing within `timeout`.
    std::optional<SipMessage> expectResponse(int code, const Pump& pump,
                                             std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        return receive(pump, timeout,
                       [&](const SipMessage& m) { return !m.isRequest && (code == 0 || m.statusCode == code); });
    }

private:
    // The next message `accept` takes within `timeout`; the others are skipped.
    std::optional<SipMessage> receive(const Pump& pump, std::chrono::milliseconds timeout,
                                      const std::function<bool(const SipMessage&)>& accept) {
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
    net::SocketAddress address_;
    net::SocketAddress lastSource_;
};

}  // namespace kelsip::test
