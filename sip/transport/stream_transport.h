// SIP over TCP: a listening socket and numbered connections served by one
// I/O thread; sends are queued and never wait for a connect.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "sip/net/socket.h"
#include "sip/net/waker.h"
#include "sip/transport/transport.h"

namespace kelsip {

struct StreamTransportConfig {
    TransportKind kind = TransportKind::Tcp;
    net::SocketAddress bindAddress = net::SocketAddress::any(net::AddressFamily::V4, 5060);
    // A connect that has not completed by then is abandoned.
    int connectTimeoutMs = 5000;
    // A connection without traffic this long is closed. Registrations refresh
    // far more often than this, so a registered line keeps its connection.
    int idleTimeoutMs = 300000;
    // A buffered message larger than this is refused and its connection closed.
    size_t maxMessageBytes = 256 * 1024;
};

class StreamTransport final : public SipTransport {
public:
    // The only way to make one: TLS is refused in this build with
    // "TLS support not compiled in (build with KELSIP_WITH_OPENSSL)".
    [[nodiscard]] static std::unique_ptr<StreamTransport> create(EventLoop& loop, StreamTransportConfig config,
                                                                 std::string* error);
    ~StreamTransport() override;

    [[nodiscard]] TransportKind kind() const override { return config_.kind; }
    [[nodiscard]] bool open(std::string* error) override;
    void close() override;
    bool send(std::string_view data, const SipTarget& target) override;
    [[nodiscard]] net::SocketAddress localAddress() const override;

    // Connections now open or opening (for tests and diagnostics).
    [[nodiscard]] size_t connectionCount() const;

    static constexpr size_t kReadChunkBytes = 16384;

private:
    using Clock = std::chrono::steady_clock;
    enum class State { NeedsConnect, Connecting, Connected };
    struct Connection {
        uint64_t id = 0;
        net::Socket socket;
        net::SocketAddress remote;
        State state = State::NeedsConnect;
        Clock::time_point started;
        Clock::time_point lastActivity;
        std::string in;
        std::string out;
        bool closed = false;
    };
    struct Received {
        std::string bytes;
        SipTarget source;
    };

    StreamTransport(EventLoop& loop, StreamTransportConfig config);
    void ioLoop();
    // Everything below runs on the I/O thread with `mutex_` held.
    void startConnect(Connection& c);
    void acceptAll();
    void readFrom(Connection& c, std::vector<Received>& received);
    void writeTo(Connection& c);
    void closeConnection(Connection& c, const std::string& why, bool lostData);
    // How long the poll may sleep: until the earliest connect or idle
    // time-out, -1 (no limit) when no connection has one.
    [[nodiscard]] int pollTimeoutMs(Clock::time_point now) const;
    [[nodiscard]] std::string name() const;

    EventLoop& loop_;
    StreamTransportConfig config_;
    net::Socket listener_;
    net::SocketAddress local_;
    net::Waker waker_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::map<uint64_t, std::unique_ptr<Connection>> connections_;
    uint64_t nextConnection_ = 1;
    std::vector<SipTarget> failed_;  // delivery failures to report after unlocking
};

}  // namespace kelsip
