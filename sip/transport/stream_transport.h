// SIP over TCP and TLS: a listening socket and numbered connections served
// by one I/O thread; sends are queued and never wait for a connect or a
// handshake.
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
#include "sip/transport/tls_session.h"
#include "sip/transport/transport.h"

namespace kelsip {

struct StreamTransportConfig {
    TransportKind kind = TransportKind::Tcp;
    net::SocketAddress bindAddress = net::SocketAddress::any(net::AddressFamily::V4, 5060);
    // A connect that has not completed by then is abandoned.
    int connectTimeoutMs = 5000;
    // A connection opened to us that neither brought a whole message nor
    // sent one this long is closed; stray bytes do not count. Our own
    // connections stay: a registered line must keep its flow between
    // refreshes, and TCP keep-alive notices when the far end is gone.
    int idleTimeoutMs = 300000;
    // A message that has begun to arrive must be whole by then, else its
    // connection is closed. 64*T1: its sender has given up on it by then.
    int messageTimeoutMs = 32000;
    // A buffered message larger than this is refused and its connection closed.
    size_t maxMessageBytes = 256 * 1024;
    // Unfinished messages held across all connections: a read that takes the
    // total above it closes the connection holding the most.
    size_t maxBufferedBytes = 4 * 1024 * 1024;
    // Connections open at once; past it an accepted one is closed at once
    // (our own are never refused). A phone talks to a handful of servers:
    // 512 is generous and keeps half of the usual 1024 descriptors for RTP.
    size_t maxConnections = 512;
    // Required for TLS: trust, verification and our certificate.
    std::optional<TlsContext> tls;
};

// What a stream flow tells the user agent about itself (RFC 5626): a pong
// came back for our ping, or a connection we opened has closed.
enum class FlowEvent { Pong, Closed };
using FlowHandler = std::function<void(const SipTarget& flow, FlowEvent event)>;

class StreamTransport final : public SipTransport {
public:
    // The only way to make one. TLS fails with "TLS support not compiled in
    // (build with KELSIP_WITH_OPENSSL)" in a build without it, with "TLS
    // transport needs a TlsContext" without `config.tls`, and when the CA
    // file or certificate cannot be loaded.
    [[nodiscard]] static std::unique_ptr<StreamTransport> create(EventLoop& loop, StreamTransportConfig config,
                                                                 std::string* error);
    ~StreamTransport() override;

    [[nodiscard]] TransportKind kind() const override { return config_.kind; }
    [[nodiscard]] bool open(std::string* error) override;
    void close() override;
    bool send(std::string_view data, const SipTarget& target) override;
    [[nodiscard]] net::SocketAddress localAddress() const override;

    // Must be set before `open`; called on the event-loop thread.
    void setFlowHandler(FlowHandler handler) { flowHandler_ = std::move(handler); }
    // Closes every connection to `remote` without a Closed event: the caller
    // gives up the flow and the next send opens a new one.
    void closeFlows(const net::SocketAddress& remote);

    // Connections now open or opening (for tests and diagnostics).
    [[nodiscard]] size_t connectionCount() const;
    // Rounds of the I/O thread's loop so far (for tests and diagnostics): a
    // thread that spins shows as a count that races ahead.
    [[nodiscard]] uint64_t ioRounds() const { return ioRounds_; }

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
        Clock::time_point lastActivity;  // the last whole message in or out
        std::optional<Clock::time_point> messageStarted;  // while `in` holds part of one
        std::string in;
        std::string out;   // plaintext waiting to go
        // TLS: the session, the name its certificate was checked for (empty
        // for one we accepted), and records waiting for the socket.
        std::unique_ptr<TlsSession> tls;
        std::string host;
        std::string wire;
        bool closed = false;
        // Ours, to a registrar or proxy: the flow incoming requests come back
        // on. It is never closed for idleness (keep-alive finds a dead peer);
        // only connections others opened to us are.
        bool outgoing = false;
    };
    struct Received {
        std::string bytes;
        SipTarget source;
    };

    StreamTransport(EventLoop& loop, StreamTransportConfig config, std::unique_ptr<TlsEngine> tls);
    void ioLoop();
    // Everything below runs on the I/O thread with `mutex_` held.
    void startConnect(Connection& c);
    void acceptAll(Clock::time_point now);
    void endAcceptPause();
    void readFrom(Connection& c, std::vector<Received>& received);
    // Closes the connections holding the most until the total buffered is
    // within bounds again.
    void shedBuffers();
    void writeTo(Connection& c);
    // The socket is connected: TLS starts its handshake; TCP is ready.
    void connected(Connection& c);
    // Whether there is anything for the socket to take (poll for writable).
    [[nodiscard]] static bool wantsWrite(const Connection& c);
    // Whether a connection may carry a message for `target`.
    [[nodiscard]] bool fits(const Connection& c, const SipTarget& target) const;
    // `why` is logged; `reason` (else `why`) goes to the error handler.
    void closeConnection(Connection& c, const std::string& why, bool lostData, std::string reason = {},
                         bool tell = true);
    // The TLS session failed: its alert goes out if it can, then the connection closes.
    void tlsFailed(Connection& c);
    // How long the poll may sleep: until the earliest connect, message or
    // idle time-out or the end of a pause in accepting, -1 (no limit) when
    // nothing is due.
    [[nodiscard]] int pollTimeoutMs(Clock::time_point now) const;
    [[nodiscard]] std::string name() const;

    EventLoop& loop_;
    StreamTransportConfig config_;
    std::unique_ptr<TlsEngine> tlsEngine_;
    net::Socket listener_;
    net::SocketAddress local_;
    net::Waker waker_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::map<uint64_t, std::unique_ptr<Connection>> connections_;
    uint64_t nextConnection_ = 1;
    size_t buffered_ = 0;  // bytes in every connection's `in`
    // After an accept failed for want of descriptors or memory the listener
    // is left alone until `acceptResumes_`, the pause doubling each time.
    int acceptPauseMs_ = 0;
    Clock::time_point acceptResumes_;
    bool refusing_ = false;  // at the connection limit, and that was logged
    std::atomic<uint64_t> ioRounds_{0};
    // Delivery failures with their reasons, to report after unlocking.
    std::vector<std::pair<SipTarget, std::string>> failed_;
    std::vector<std::pair<SipTarget, FlowEvent>> flowEvents_;  // likewise, pongs and closed flows
    FlowHandler flowHandler_;
};

}  // namespace kelsip
