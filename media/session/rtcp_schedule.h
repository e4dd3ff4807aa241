// When the next RTCP report is due: the RFC 3550 section 6.3 interval.
#pragma once

#include <cstdint>

namespace kelsip {

struct RtcpIntervalInput {
    int members = 2;
    int senders = 2;
    double rtcpBandwidth = 500;  // octets per second: 5 % of the session's
    bool weSent = true;
    double averageRtcpSize = 100;  // octets, with UDP and IP headers
    bool initial = false;          // before our first report: half the minimum
};

// Seconds until the next report for a uniform `random01` in [0, 1): the
// deterministic interval (at least 5 s, 2.5 s at first) spread over 0.5 to
// 1.5 times itself and divided by e - 3/2 to make up for the reconsideration
// bias, as RFC 3550 appendix A.7 computes it.
[[nodiscard]] double rtcpIntervalSeconds(const RtcpIntervalInput& input, double random01);

// RFC 3550's running average of the compound packets' size.
[[nodiscard]] inline double updateAverageRtcpSize(double average, double packetSize) {
    return packetSize / 16.0 + average * 15.0 / 16.0;
}

// The middle 32 bits of a 64-bit NTP time: what LSR carries and DLSR is
// measured in (units of 1/65536 s).
[[nodiscard]] inline uint32_t ntpMiddle32(uint64_t ntp) { return static_cast<uint32_t>(ntp >> 16); }

}  // namespace kelsip
