// Socket services built on the portable socket calls alone.
#include "sip/net/socket.h"

namespace kelsip::net {

std::optional<SocketAddress> localAddressToward(const SocketAddress& destination) {
    Socket probe = Socket::open(destination.family(), SocketType::Udp);
    if (!probe.valid()) return std::nullopt;
    // Connecting a datagram socket sends nothing; it only makes the system
    // pick the route and so the source address.
    SocketAddress target = destination;
    if (target.port() == 0) target.setPort(9);
    if (probe.connect(target) != ConnectStatus::Connected) return std::nullopt;
    auto local = probe.localAddress();
    if (local) local->setPort(0);
    return local;
}

}  // namespace kelsip::net
