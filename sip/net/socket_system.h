// The system side of Socket: a few calls with one signature on every
// platform. socket_posix.cpp implements them over BSD sockets and
// socket_win.cpp over Winsock; socket_common.cpp builds Socket on them.
// Internal to sip/net.
#pragma once

#include <cstddef>
#include <optional>

#include "sip/net/socket.h"

namespace kelsip::net::detail {

// A system socket address: the bytes of a sockaddr_storage and the length a
// call passes or was given.
struct SystemAddress {
    alignas(8) unsigned char bytes[128] = {};
    int length = sizeof bytes;
};
[[nodiscard]] SystemAddress toSystem(const SocketAddress& address);
[[nodiscard]] std::optional<SocketAddress> fromSystem(const SystemAddress& address);

// The calling thread's last socket error number, and what it means for a
// send or receive (WouldBlock, Closed or Failed) or for a connect.
[[nodiscard]] int lastError();
[[nodiscard]] IoResult::Status ioFailure(int error);
[[nodiscard]] bool connectPending(int error);
// What a failed socket or accept call's error number means.
[[nodiscard]] SocketFailure openFailure(int error);

// The calls, with the socket handle as NativeSocket. Each returns -1 (the
// accept kInvalidSocket) on failure, lastError() then telling why.
int bindSocket(NativeSocket s, const SystemAddress& address);
int connectSocket(NativeSocket s, const SystemAddress& address);
NativeSocket acceptSocket(NativeSocket s, SystemAddress& peer);
// getsockname, or getpeername when `peer`.
int socketName(NativeSocket s, bool peer, SystemAddress& out);
// sendto, or send when `to` is null; never raises a signal.
long long sendBytes(NativeSocket s, const void* data, size_t size, const SystemAddress* to);
// recvfrom, or recv when `from` is null. A datagram longer than `capacity`
// arrives cut and counts as read.
long long receiveBytes(NativeSocket s, void* data, size_t capacity, SystemAddress* from);

}  // namespace kelsip::net::detail
