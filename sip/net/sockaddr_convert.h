// Conversion between SocketAddress and the system's sockaddr structures.
// Included by the platform files after their own system headers, which
// all declare sockaddr, sockaddr_in, sockaddr_in6 and sockaddr_storage alike.
#pragma once

#include <cstring>

#include "sip/net/socket_address.h"
#include "sip/net/socket_system.h"

namespace kelsip::net::detail {

static_assert(sizeof(sockaddr_storage) <= sizeof(SystemAddress::bytes) && alignof(sockaddr_storage) <= 8);

inline SystemAddress toSockaddr(const SocketAddress& a) {
    SystemAddress out;
    if (a.isV4()) {
        sockaddr_in sin{};
        sin.sin_family = AF_INET;
        sin.sin_port = htons(a.port());
        std::memcpy(&sin.sin_addr, a.bytes(), 4);
        std::memcpy(out.bytes, &sin, sizeof sin);
        out.length = static_cast<int>(sizeof sin);
        return out;
    }
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = htons(a.port());
    std::memcpy(&sin6.sin6_addr, a.bytes(), 16);
    std::memcpy(out.bytes, &sin6, sizeof sin6);
    out.length = static_cast<int>(sizeof sin6);
    return out;
}

inline std::optional<SocketAddress> fromSockaddr(const SystemAddress& in) {
    sockaddr head{};
    std::memcpy(&head, in.bytes, sizeof head);
    if (head.sa_family == AF_INET) {
        sockaddr_in sin{};
        std::memcpy(&sin, in.bytes, sizeof sin);
        std::array<uint8_t, 4> b{};
        std::memcpy(b.data(), &sin.sin_addr, 4);
        return SocketAddress::v4(b, ntohs(sin.sin_port));
    }
    if (head.sa_family == AF_INET6) {
        sockaddr_in6 sin6{};
        std::memcpy(&sin6, in.bytes, sizeof sin6);
        std::array<uint8_t, 16> b{};
        std::memcpy(b.data(), &sin6.sin6_addr, 16);
        return SocketAddress::v6(b, ntohs(sin6.sin6_port));
    }
    return std::nullopt;
}

inline std::optional<SocketAddress> fromSockaddr(const sockaddr_storage& in) {
    SystemAddress a;
    std::memcpy(a.bytes, &in, sizeof in);
    return fromSockaddr(a);
}

}  // namespace kelsip::net::detail
