// A one-shot SIP client for the interop fixtures: sends a request from a
// fresh UDP socket on loopback and reports the final answer's status.
#pragma once

#include <chrono>
#include <string>

#include "sip/net/socket_address.h"

namespace kelsip::test {

// Sends OPTIONS `requestUri` to `to` (again every 250 ms, as a client
// transaction over UDP would) and returns the final status code, or 0 when
// none came within `timeout`.
[[nodiscard]] int sendOptions(const net::SocketAddress& to, const std::string& requestUri,
                              std::chrono::milliseconds timeout);

}  // namespace kelsip::test
