// Media thread priority on POSIX systems: round-robin real-time scheduling
// when the user's limits allow it (RLIMIT_RTPRIO, CAP_SYS_NICE).
#include <pthread.h>
#include <sched.h>

#include "media/rtp/thread_priority.h"

namespace kelsip {

namespace {

// Low in the real-time range: above every normal thread, with room above it
// for sound device threads, which must win over the network.
constexpr int kRealTimeOffset = 9;

}  // namespace

bool MediaThreadPriority::raise() {
    if (saved_.raised) return true;
    int policy = 0;
    sched_param previous{};
    if (::pthread_getschedparam(::pthread_self(), &policy, &previous) != 0) return false;
    const int low = ::sched_get_priority_min(SCHED_RR);
    const int high = ::sched_get_priority_max(SCHED_RR);
    if (low < 0 || high < low) return false;
    sched_param wanted{};
    wanted.sched_priority = low + kRealTimeOffset > high ? high : low + kRealTimeOffset;
    if (::pthread_setschedparam(::pthread_self(), SCHED_RR, &wanted) != 0) return false;
    saved_.policy = policy;
    saved_.priority = previous.sched_priority;
    saved_.raised = true;
    return true;
}

void MediaThreadPriority::revert() {
    if (!saved_.raised) return;
    sched_param previous{};
    previous.sched_priority = saved_.priority;
    (void)::pthread_setschedparam(::pthread_self(), saved_.policy, &previous);
    saved_ = Saved{};
}

}  // namespace kelsip
