// Conversion between SocketAddress and the system's sockaddr structures.
// Included by the platform socket files after their own system headers, which
// both declare sockaddr_in, sockaddr_in6 and sockaddr_storage alike.
#pragma once

#include <cstring>

#include "sip/net/socket_address.h"

namespace kelsip::net::detail {

inline socklen_t toSockaddr(const SocketAddress& a, sockaddr_storage& out) {
    std::memset(&out, 0, sizeof out);
    if (a.isV4()) {
        sockaddr_in sin{};
        sin.sin_family = AF_INET;
        sin.sin_port = htons(a.port());
        std::memcpy(&sin.sin_addr, a.bytes(), 4);
        std::memcpy(&out, &sin, sizeof sin);
        return static_cast<socklen_t>(sizeof sin);
    }
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = htons(a.port());
    std::memcpy(&sin6.sin6_addr, a.bytes(), 16);
    std::memcpy(&out, &sin6, sizeof sin6);
    return static_cast<socklen_t>(sizeof sin6);
}

inline std::optional<SocketAddress> fromSockaddr(const sockaddr_storage& in) {
    if (in.ss_family == AF_INET) {
        sockaddr_in sin{};
        std::memcpy(&sin, &in, sizeof sin);
        std::array<uint8_t, 4> b{};
        std::memcpy(b.data(), &sin.sin_addr, 4);
        return SocketAddress::v4(b, ntohs(sin.sin_port));
    }
    if (in.ss_family == AF_INET6) {
        sockaddr_in6 sin6{};
        std::memcpy(&sin6, &in, sizeof sin6);
        std::array<uint8_t, 16> b{};
        std::memcpy(b.data(), &sin6.sin6_addr, 16);
        return SocketAddress::v6(b, ntohs(sin6.sin6_port));
    }
    return std::nullopt;
}

}  // namespace kelsip::net::detail
