// The adaptive delay estimation: how late recent packets came and the delay that asks for.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace kelsip {

constexpr double kLateFraction = 0.01;    // of recent packets, how many may come too late
constexpr double kShrinkSeconds = 3;      // time constant of the target's fall


// The lateness of recent packets and the delay it asks for. Lateness is
// judged on the playout clock, the count of samples handed out, with
// v = timestamp - played at arrival: a packet is in time when its v is at
// least head - played, whatever the network, the pull size or the sound
// device's own rate did to it. So head - played is kept at a low quantile of
// recent v, less a small safety. v does not depend on where the buffer put
// its head, so the window stays valid across the buffer's own corrections;
// the drift of the sender's clock against the playout clock is fitted and
// taken out before the quantile is read.
class LatenessWindow {
public:
    enum class Verdict : uint8_t { InLine, Stray, NewTimeline };

    struct Limits {
        double minDelay;
        double maxDelay;
        double safety;      // kept between the head and the latest packet we aim to catch
        int64_t horizon;    // how far back the window reaches
        int64_t second;     // also the span of one drift-fit point
        double jumpAhead;   // earlier than the envelope by this: the timestamps jumped
        double jumpBehind;  // later by this: too late for any delay we would keep
    };

    explicit LatenessWindow(const Limits& limits) : limits_(limits) { reset(); }

    void reset() {
        clearWindow();
        slope_ = 0;
        target_ = limits_.minDelay;
        haveTarget_ = false;
    }

    // One arrival. A jump of the sender's timeline empties the window; a lone
    // packet far behind it is left out (one stray does not move the target).
    Verdict add(int64_t played, int64_t v) {
        Verdict verdict = Verdict::InLine;
        if (const auto [envelope, count] = project(played); count > 0) {
            const double x = static_cast<double>(v);
            if (x > envelope + limits_.jumpAhead) {
                verdict = Verdict::NewTimeline;
            } else if (x < envelope - limits_.jumpBehind) {
                if (!stray_ || std::abs(x - strayV_) > limits_.jumpAhead) {
                    stray_ = true;
                    strayV_ = x;
                    return Verdict::Stray;
                }
                verdict = Verdict::NewTimeline;
            }
            if (verdict == Verdict::NewTimeline) clearWindow();
        }
        stray_ = false;
        if (count_ == window_.size()) {
            first_ = (first_ + 1) % window_.size();
            --count_;
        }
        window_[(first_ + count_) % window_.size()] = {played, v};
        ++count_;
        addToBucket(played, v);
        update(played);
        return verdict;
    }

    [[nodiscard]] bool ready() const { return count_ > 0; }
    [[nodiscard]] double target() const { return target_; }
    // Where head - played should stand.
    [[nodiscard]] double headOffset() const { return headOffset_; }

private:
    struct Sample {
        int64_t played;
        int64_t v;
    };
    struct Bucket {
        int64_t index;
        int64_t played;
        int64_t v;  // the bucket's highest: its packet that waited least in the network
    };

    void clearWindow() {
        first_ = count_ = 0;
        bucketCount_ = 0;
        bucketOpen_ = false;
        stray_ = false;
    }

    // Fills scratch_ with the window projected to `played` along the drift;
    // returns the highest value and the count.
    std::pair<double, size_t> project(int64_t played) {
        while (count_ > 0 && window_[first_].played < played - limits_.horizon) {
            first_ = (first_ + 1) % window_.size();
            --count_;
        }
        double highest = -1e300;
        for (size_t i = 0; i < count_; ++i) {
            const Sample& s = window_[(first_ + i) % window_.size()];
            scratch_[i] = static_cast<double>(s.v) + slope_ * static_cast<double>(played - s.played);
            highest = std::max(highest, scratch_[i]);
        }
        return {highest, count_};
    }

    void update(int64_t played) {
        const auto [highest, count] = project(played);
        const auto nth = static_cast<ptrdiff_t>(static_cast<double>(count) * kLateFraction);
        std::nth_element(scratch_.begin(), scratch_.begin() + nth, scratch_.begin() + static_cast<ptrdiff_t>(count));
        const double wanted = std::clamp(highest - scratch_[static_cast<size_t>(nth)] + limits_.safety,
                                         limits_.minDelay, limits_.maxDelay);
        // Up at once, so the next late packet is caught; down gradually, so one
        // quiet spell does not undo what a jittery minute taught.
        if (!haveTarget_ || wanted >= target_) {
            target_ = wanted;
        } else {
            const double elapsed = static_cast<double>(played - targetAt_) / static_cast<double>(limits_.second);
            target_ -= (target_ - wanted) * std::min(1.0, elapsed / kShrinkSeconds);
        }
        haveTarget_ = true;
        targetAt_ = played;
        headOffset_ = highest - target_;
    }

    // The sender's clock against the playout clock: the slope of the least
    // delayed packets per second, robust to a bucket that a stall spoilt.
    void addToBucket(int64_t played, int64_t v) {
        const int64_t index = played / limits_.second;
        if (bucketOpen_ && index != open_.index) {
            buckets_[(bucketFirst_ + bucketCount_) % buckets_.size()] = open_;
            if (bucketCount_ < buckets_.size()) {
                ++bucketCount_;
            } else {
                bucketFirst_ = (bucketFirst_ + 1) % buckets_.size();
            }
            bucketOpen_ = false;
            fitDrift();
        }
        if (!bucketOpen_) {
            open_ = {index, played, v};
            bucketOpen_ = true;
        } else if (v > open_.v) {
            open_.played = played;
            open_.v = v;
        }
    }

    void fitDrift() {
        if (bucketCount_ < 4) return;
        size_t pairs = 0;
        for (size_t i = 0; i < bucketCount_; ++i) {
            for (size_t j = i + 1; j < bucketCount_; ++j) {
                const Bucket& a = buckets_[(bucketFirst_ + i) % buckets_.size()];
                const Bucket& b = buckets_[(bucketFirst_ + j) % buckets_.size()];
                slopes_[pairs++] = static_cast<double>(b.v - a.v) / static_cast<double>(b.played - a.played);
            }
        }
        const auto middle = static_cast<ptrdiff_t>(pairs / 2);
        std::nth_element(slopes_.begin(), slopes_.begin() + middle, slopes_.begin() + static_cast<ptrdiff_t>(pairs));
        // Beyond 2 % a clock is broken, not drifting.
        slope_ = std::clamp(slopes_[pairs / 2], -0.02, 0.02);
    }

    Limits limits_;
    std::array<Sample, 512> window_{};
    size_t first_ = 0;
    size_t count_ = 0;
    std::array<double, 512> scratch_{};
    bool stray_ = false;
    double strayV_ = 0;

    std::array<Bucket, 16> buckets_{};
    size_t bucketFirst_ = 0;
    size_t bucketCount_ = 0;
    Bucket open_{};
    bool bucketOpen_ = false;
    std::array<double, 16 * 15 / 2> slopes_{};
    double slope_ = 0;  // v per played sample

    double target_ = 0;
    bool haveTarget_ = false;
    int64_t targetAt_ = 0;
    double headOffset_ = 0;
};

}  // namespace kelsip
