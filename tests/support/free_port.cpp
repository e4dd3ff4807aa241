// Free loopback ports, found by binding and letting go.
#include "support/free_port.h"

#include "sip/net/socket.h"

namespace kelsip::test {

uint16_t freeLoopbackPort() {
    const auto loopback = net::SocketAddress::loopback(net::AddressFamily::V4);
    for (int attempt = 0; attempt < 50; ++attempt) {
        net::Socket udp = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
        if (!udp.valid() || !udp.bind(loopback)) continue;
        const auto local = udp.localAddress();
        if (!local || local->port() == 0) continue;
        net::Socket tcp = net::Socket::open(net::AddressFamily::V4, net::SocketType::Tcp);
        if (tcp.valid() && tcp.bind(*local)) return local->port();
    }
    return 0;
}

}  // namespace kelsip::test
