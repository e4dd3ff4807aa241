// The RTCP transmission interval after RFC 3550 appendix A.7.
#include "media/session/rtcp_schedule.h"

#include <algorithm>

namespace kelsip {

double rtcpIntervalSeconds(const RtcpIntervalInput& input, double random01) {
    constexpr double kMinTime = 5.0;
    constexpr double kSenderFraction = 0.25;
    constexpr double kReceiverFraction = 1.0 - kSenderFraction;
    constexpr double kCompensation = 2.71828 - 1.5;

    const double minTime = input.initial ? kMinTime / 2 : kMinTime;
    double bandwidth = input.rtcpBandwidth;
    double n = std::max(1, input.members);
    // With few senders, they share a quarter of the RTCP bandwidth and the
    // receivers the rest, so that new participants hear the senders soon.
    if (input.senders > 0 && input.senders <= input.members * kSenderFraction) {
        if (input.weSent) {
            bandwidth *= kSenderFraction;
            n = input.senders;
        } else {
            bandwidth *= kReceiverFraction;
            n -= input.senders;
        }
    }
    double t = bandwidth > 0 ? input.averageRtcpSize * n / bandwidth : minTime;
    t = std::max(t, minTime);
    t *= std::clamp(random01, 0.0, 1.0) + 0.5;
    return t / kCompensation;
}

}  // namespace kelsip
