// The RFC 3550 jitter estimate and the appendix A.1 sequence tracker.
#include "media/rtp/rtp_statistics.h"

#include <algorithm>
#include <cmath>

namespace kelsip {

void InterarrivalJitter::update(uint32_t rtpTimestamp, int64_t arrivalUs) {
    if (started_) {
        const double arrivalUnits = static_cast<double>(arrivalUs - lastArrivalUs_) * clockRate_ / 1000000.0;
        const double sendUnits = static_cast<int32_t>(rtpTimestamp - lastTimestamp_);
        const double d = std::fabs(arrivalUnits - sendUnits);
        jitter_ += (d - jitter_) / 16.0;
    }
    started_ = true;
    lastTimestamp_ = rtpTimestamp;
    lastArrivalUs_ = arrivalUs;
}

void RtpSequenceTracker::reset() { *this = RtpSequenceTracker{}; }

int64_t RtpSequenceTracker::expected() const {
    if (!started_) return 0;
    return static_cast<int64_t>(extendedHighest()) - baseSeq_ + 1;
}

RtpSequenceTracker::Verdict RtpSequenceTracker::update(uint16_t sequence) {
    const auto restartAt = [this](uint16_t seq) {
        maxSeq_ = seq;
        cycles_ = 0;
        baseSeq_ = seq;
        badSeq_ = 0x10001;
        received_ = 0;
        expectedPrior_ = 0;
        receivedPrior_ = 0;
    };
    if (!started_) {
        // Probation: a source counts once kMinSequential packets came in order.
        started_ = true;
        probation_ = true;
        probationLeft_ = kMinSequential - 1;
        maxSeq_ = sequence;
        baseSeq_ = sequence;
        return Verdict::Probation;
    }
    if (probation_) {
        if (sequence == static_cast<uint16_t>(maxSeq_ + 1)) {
            maxSeq_ = sequence;
            if (--probationLeft_ == 0) {
                probation_ = false;
                // As appendix A.1 does: counting starts with the packet that
                // ends probation.
                restartAt(sequence);
                received_ = 1;
                return Verdict::Accepted;
            }
        } else {
            probationLeft_ = kMinSequential - 1;
            maxSeq_ = sequence;
            baseSeq_ = sequence;
        }
        return Verdict::Probation;
    }

    const uint16_t delta = static_cast<uint16_t>(sequence - maxSeq_);
    if (delta < kMaxDropout) {
        if (sequence < maxSeq_) cycles_ += 0x10000;  // wrapped
        maxSeq_ = sequence;
    } else if (delta <= 0x10000 - kMaxMisorder) {
        // A large jump: either the source restarted or this one is stray.
        if (sequence == badSeq_) {
            restartAt(sequence);
            received_ = 1;
            return Verdict::Restarted;
        }
        badSeq_ = (uint32_t{sequence} + 1) & 0xffff;
        return Verdict::Rejected;
    }
    // Otherwise a reordered or repeated packet: counted, maximum unchanged.
    ++received_;
    return Verdict::Accepted;
}

uint8_t RtpSequenceTracker::takeFractionLost() {
    const int64_t expectedNow = expected();
    const int64_t expectedInterval = expectedNow - expectedPrior_;
    const int64_t receivedInterval = int64_t{received_} - receivedPrior_;
    expectedPrior_ = static_cast<uint32_t>(expectedNow);
    receivedPrior_ = received_;
    const int64_t lostInterval = expectedInterval - receivedInterval;
    if (expectedInterval <= 0 || lostInterval <= 0) return 0;
    return static_cast<uint8_t>(std::min<int64_t>(255, (lostInterval << 8) / expectedInterval));
}

}  // namespace kelsip
