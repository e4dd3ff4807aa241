// Receive-side RTP bookkeeping after RFC 3550 appendix A: the interarrival
// jitter, and the sequence tracking that loss figures come from.
#pragma once

#include <cstdint>

namespace kelsip {

// RFC 3550 section 6.4.1: J += (|D| - J) / 16, where D compares the arrival
// spacing of two packets with their timestamp spacing.
class InterarrivalJitter {
public:
    explicit InterarrivalJitter(uint32_t clockRate = 8000) : clockRate_(clockRate) {}

    void setClockRate(uint32_t clockRate) { clockRate_ = clockRate; }
    // `arrivalUs` on a steady clock; the difference is taken to timestamp
    // units as difference × clock rate / 1000000.
    void update(uint32_t rtpTimestamp, int64_t arrivalUs);
    void reset() { started_ = false; jitter_ = 0; }

    // Timestamp units, as report blocks carry it.
    [[nodiscard]] uint32_t value() const { return static_cast<uint32_t>(jitter_); }
    [[nodiscard]] double milliseconds() const { return clockRate_ ? jitter_ * 1000.0 / clockRate_ : 0.0; }

private:
    uint32_t clockRate_;
    bool started_ = false;
    uint32_t lastTimestamp_ = 0;
    int64_t lastArrivalUs_ = 0;
    double jitter_ = 0;
};

// Appendix A.1: the extended highest sequence number, probation of a new
// source, and what the expected and received counts give for the loss fields
// of a report block.
class RtpSequenceTracker {
public:
    static constexpr uint32_t kMaxDropout = 3000;
    static constexpr uint32_t kMaxMisorder = 100;
    static constexpr uint32_t kMinSequential = 2;

    // Accepted also covers a reordered or repeated packet within the
    // misorder window; Rejected is a wild jump, kept unless the next packet
    // continues from it (then the source restarted).
    enum class Verdict : uint8_t { Accepted, Probation, Restarted, Rejected };

    // A new source: the next packet starts probation.
    void reset();
    Verdict update(uint16_t sequence);

    [[nodiscard]] bool started() const { return started_; }
    [[nodiscard]] uint32_t extendedHighest() const { return cycles_ + maxSeq_; }
    [[nodiscard]] uint32_t received() const { return received_; }
    [[nodiscard]] int64_t expected() const;
    // Expected minus received since the start; negative with duplicates.
    [[nodiscard]] int64_t cumulativeLost() const { return expected() - received_; }

    // The fraction lost since the previous call, in 1/256, as a report block
    // carries it; a report interval with duplicates only reads 0.
    [[nodiscard]] uint8_t takeFractionLost();

private:
    bool started_ = false;
    bool probation_ = false;
    uint32_t probationLeft_ = 0;
    uint16_t maxSeq_ = 0;
    uint32_t cycles_ = 0;  // sequence wraps, shifted left 16
    uint32_t baseSeq_ = 0;
    uint32_t badSeq_ = 0x10001;  // out of range: no restart pending
    uint32_t received_ = 0;
    uint32_t expectedPrior_ = 0;
    uint32_t receivedPrior_ = 0;
};

}  // namespace kelsip
