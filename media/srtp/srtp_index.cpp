// Rollover counter estimation and the replay window.
#include "media/srtp/srtp_index.h"

namespace kelsip::srtp {

std::optional<uint64_t> RolloverCounter::estimate(uint16_t sequence) const {
    if (!started_) return uint64_t{sequence};
    int64_t v = roc_;
    if (highest_ < 32768) {
        if (sequence > highest_ && sequence - highest_ > 32768) v = int64_t{roc_} - 1;
    } else if (sequence < highest_ - 32768) {
        v = int64_t{roc_} + 1;
    }
    if (v < 0 || v > 0xffffffffLL) return std::nullopt;
    return (static_cast<uint64_t>(v) << 16) | sequence;
}

void RolloverCounter::commit(uint64_t index) {
    const uint64_t current = (uint64_t{roc_} << 16) | highest_;
    if (started_ && index <= current) return;
    started_ = true;
    roc_ = static_cast<uint32_t>(index >> 16);
    highest_ = static_cast<uint16_t>(index & 0xffff);
}

bool ReplayWindow::seen(uint64_t index) const {
    if (!started_ || index > highest_) return false;
    const uint64_t age = highest_ - index;
    if (age >= kSize) return true;
    return ((bits_[age / 64] >> (age % 64)) & 1) != 0;
}

void ReplayWindow::accept(uint64_t index) {
    if (!started_) {
        started_ = true;
        highest_ = index;
        bits_[0] = 1;
        bits_[1] = 0;
        return;
    }
    if (index > highest_) {
        const uint64_t shift = index - highest_;
        if (shift >= kSize) {
            bits_[0] = bits_[1] = 0;
        } else if (shift >= 64) {
            bits_[1] = bits_[0] << (shift - 64);
            bits_[0] = 0;
        } else {
            bits_[1] = (bits_[1] << shift) | (bits_[0] >> (64 - shift));
            bits_[0] <<= shift;
        }
        bits_[0] |= 1;
        highest_ = index;
        return;
    }
    const uint64_t age = highest_ - index;
    if (age < kSize) bits_[age / 64] |= uint64_t{1} << (age % 64);
}

}  // namespace kelsip::srtp
