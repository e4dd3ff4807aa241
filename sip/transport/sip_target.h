// Where a SIP message goes or came from: transport kind, address, connection.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "sip/net/socket_address.h"

namespace kelsip {

enum class TransportKind { Udp, Tcp, Tls };

// "UDP", "TCP", "TLS": the names used in Via and in log lines.
[[nodiscard]] std::string_view transportName(TransportKind kind);
// The port a host without one is reached on: 5061 for TLS, else 5060.
[[nodiscard]] uint16_t defaultPort(TransportKind kind);
[[nodiscard]] bool isStream(TransportKind kind);

struct SipTarget {
    SipTarget() = default;
    // Not an aggregate, so that "{kind, address, connection}" stays complete
    // without naming the TLS host.
    SipTarget(TransportKind k, net::SocketAddress a, uint64_t c = 0, std::string h = {})
        : kind(k), address(a), connection(c), host(std::move(h)) {}

    TransportKind kind = TransportKind::Udp;
    net::SocketAddress address;
    // The stream connection a message came in on or should leave by; 0 for
    // none (UDP, or "open one if needed").
    uint64_t connection = 0;
    // TLS: the name the server's certificate must carry (RFC 5922), the SIP
    // domain we are reaching, not the host DNS led to. Empty for messages
    // that came in, and for answers on the connection they came on.
    std::string host;

    // "UDP 192.0.2.1:5060", "TCP [2001:db8::1]:5060 connection #3".
    [[nodiscard]] std::string toString() const;

    friend bool operator==(const SipTarget&, const SipTarget&) = default;
};

}  // namespace kelsip
