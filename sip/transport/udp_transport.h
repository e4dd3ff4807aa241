// SIP over UDP: one bound socket, a receive thread, datagram sends.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "sip/net/socket.h"
#include "sip/net/waker.h"
#include "sip/transport/transport.h"

namespace kelsip {

struct UdpTransportConfig {
    net::SocketAddress bindAddress = net::SocketAddress::any(net::AddressFamily::V4, 5060);
    // Large enough for bursts of retransmissions and big INVITEs.
    int socketBufferBytes = 262144;
};

// Called on the event-loop thread with a STUN datagram that arrived on the
// SIP socket (a keep-alive answer, a binding answer) and where it came from.
using StunHandler = std::function<void(std::vector<uint8_t> datagram, const net::SocketAddress& source)>;

class UdpTransport final : public SipTransport {
public:
    UdpTransport(EventLoop& loop, UdpTransportConfig config);
    ~UdpTransport() override;

    [[nodiscard]] TransportKind kind() const override { return TransportKind::Udp; }
    [[nodiscard]] bool open(std::string* error) override;
    void close() override;
    bool send(std::string_view data, const SipTarget& target) override;
    [[nodiscard]] net::SocketAddress localAddress() const override;
    // Must be set before `open`; without it STUN datagrams are dropped.
    void setStunHandler(StunHandler handler) { stunHandler_ = std::move(handler); }

    // The largest datagram read whole; one more byte holds a terminating zero.
    static constexpr size_t kReceiveBufferBytes = 65536;

private:
    void receiveLoop();

    EventLoop& loop_;
    UdpTransportConfig config_;
    net::Socket socket_;
    net::SocketAddress local_;
    net::Waker waker_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex sendMutex_;
    StunHandler stunHandler_;
};

}  // namespace kelsip
