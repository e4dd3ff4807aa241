// Ports for the peers the tests start on loopback.
#pragma once

#include <cstdint>

namespace kelsip::test {

// A port on 127.0.0.1 that was free for both UDP and TCP a moment ago
// (taken from the system's own choice of a free UDP port); 0 when none was
// found. Another program may still take it first: a fixture that fails to
// bind tries again with a fresh one.
[[nodiscard]] uint16_t freeLoopbackPort();

// An even UDP port whose odd neighbour was free too (an RTP/RTCP pair), for
// a test that must own its whole port range while other tests run beside it.
[[nodiscard]] uint16_t freeLoopbackRtpPair();

}  // namespace kelsip::test
