// The name servers the operating system uses, and the resolv.conf reader.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "sip/net/socket_address.h"

namespace kelsip::dns {

inline constexpr uint16_t kDnsPort = 53;

// The system's name servers on port 53, in the system's order, without
// duplicates: /etc/resolv.conf on POSIX, the DNS servers of the adapters
// that are up on Windows. Empty (with the reason in `error`) when there are
// none or they cannot be read.
[[nodiscard]] std::vector<net::SocketAddress> systemDnsServers(std::string* error = nullptr);

// The "nameserver" lines of resolv.conf text. Comments ("#", ";") and other
// options are skipped, and so are addresses with a zone ("fe80::1%eth0"),
// which a SocketAddress cannot hold.
[[nodiscard]] std::vector<net::SocketAddress> parseResolvConf(std::string_view text);

// Reads and parses a resolv.conf file. A readable file without any
// "nameserver" line means the local host, as the C library takes it.
// Fails with "cannot read resolv.conf".
[[nodiscard]] std::vector<net::SocketAddress> readResolvConf(const std::string& path, std::string* error = nullptr);

}  // namespace kelsip::dns
