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

uint16_t freeLoopbackRtpPair() {
    const auto loopback = net::SocketAddress::loopback(net::AddressFamily::V4);
    for (int attempt = 0; attempt < 200; ++attempt) {
        net::Socket rtp = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
        if (!rtp.valid() || !rtp.bind(loopback)) continue;
        const auto local = rtp.localAddress();
        if (!local || local->port() == 0 || local->port() % 2 != 0 || local->port() == 0xfffe) continue;
        auto next = *local;
        next.setPort(static_cast<uint16_t>(local->port() + 1));
        net::Socket rtcp = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
        if (rtcp.valid() && rtcp.bind(next)) return local->port();
    }
    return 0;
}

}  // namespace kelsip::test
