// The poll waker: a datagram socket on loopback that talks to itself.
#include "sip/net/waker.h"

namespace kelsip::net {

Waker::Waker() {
    Socket s = Socket::open(AddressFamily::V4, SocketType::Udp);
    if (!s.valid() || !s.bind(SocketAddress::loopback(AddressFamily::V4)) || !s.setNonBlocking(true)) return;
    const auto self = s.localAddress();
    if (!self) return;
    self_ = *self;
    socket_ = std::move(s);
}

void Waker::wake() {
    if (!valid()) return;
    const char byte = 1;
    (void)socket_.sendTo(&byte, 1, self_);
}

void Waker::drain() {
    char buf[64];
    SocketAddress from;
    while (valid() && socket_.receiveFrom(buf, sizeof buf, from).ok()) {
    }
}

}  // namespace kelsip::net
