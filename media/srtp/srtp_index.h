// SRTP packet indexes: the rollover counter a 16-bit sequence number is read
// against (RFC 3711 3.3.1, Appendix A) and the sliding replay window
// (RFC 3711 3.3.2) over 48-bit SRTP or 31-bit SRTCP indexes.
#pragma once

#include <cstdint>
#include <optional>

namespace kelsip::srtp {

// One stream's highest sequence number and rollover counter. The index of
// a packet is guessed from them; only a packet that then proves genuine
// moves them (`commit`), so a forged packet cannot shift the counter.
class RolloverCounter {
public:
    // The 48-bit index of `sequence`: the guess among ROC-1, ROC and ROC+1
    // nearest the highest sequence number seen. Empty for a packet from
    // before the stream's first (ROC-1 below zero).
    [[nodiscard]] std::optional<uint64_t> estimate(uint16_t sequence) const;
    // Takes a genuine packet's index; only a newer one moves the counter.
    void commit(uint64_t index);
    [[nodiscard]] uint32_t roc() const { return roc_; }
    [[nodiscard]] bool started() const { return started_; }

private:
    bool started_ = false;
    uint16_t highest_ = 0;  // s_l
    uint32_t roc_ = 0;
};

// Which indexes have been received lately. An index older than the window
// or already seen is a replay.
class ReplayWindow {
public:
    static constexpr uint64_t kSize = 128;

    [[nodiscard]] bool seen(uint64_t index) const;
    // Records a genuine packet's index.
    void accept(uint64_t index);

private:
    bool started_ = false;
    uint64_t highest_ = 0;
    // Bit n of the mask: index `highest_ - n` arrived; bits[0] holds n < 64.
    uint64_t bits_[2] = {0, 0};
};

}  // namespace kelsip::srtp
