// The host[:port] rule shared by URIs and Via sent-by values.
#pragma once

#include <cstdint>
#include <string_view>

namespace kelsip {

// Parses a host with an optional port. An IPv6 reference keeps its brackets;
// a port must be 1 to 65535; an absent port leaves 0. Only the brackets and
// the forbidden bytes (white space, '"', '<', '>', '@') are checked, not the
// address itself: resolving the host is what proves it.
[[nodiscard]] bool splitHostPort(std::string_view text, std::string_view& host, uint16_t& port);

}  // namespace kelsip
