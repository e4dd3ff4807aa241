// A sound card for a call in tests and tools: every 10 ms it hands the
// media session 80 samples of its source and keeps the 80 it is given to
// play, on a thread of its own paced like a real device.
#pragma once

#include <atomic>
#include <cmath>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "media/session/media_session.h"

namespace kelsip::test {

class SoundCard {
public:
    // The source gives sample n of what the microphone hears.
    using Source = std::function<int16_t(uint64_t n)>;

    SoundCard(std::shared_ptr<MediaSession> media, Source source)
        : media_(std::move(media)), source_(std::move(source)), thread_([this] { run(); }) {}
    ~SoundCard() {
        stop_ = true;
        thread_.join();
    }
    SoundCard(const SoundCard&) = delete;
    SoundCard& operator=(const SoundCard&) = delete;

    // Everything played so far.
    [[nodiscard]] std::vector<int16_t> played() const {
        const std::lock_guard lock(mutex_);
        return played_;
    }
    [[nodiscard]] uint64_t captured() const { return captured_; }

private:
    void run() {
        std::vector<int16_t> in(80);
        std::vector<int16_t> out(80);
        auto next = std::chrono::steady_clock::now();
        while (!stop_) {
            for (auto& s : in) s = source_ ? source_(captured_) : int16_t{0}, ++captured_;
            media_->pushCapture(in);
            media_->pullPlayout(out);
            {
                const std::lock_guard lock(mutex_);
                played_.insert(played_.end(), out.begin(), out.end());
            }
            // The pace of a device's period, not a wait for a result.
            next += std::chrono::milliseconds(10);
            std::this_thread::sleep_until(next);
        }
    }

    std::shared_ptr<MediaSession> media_;
    Source source_;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> captured_{0};
    mutable std::mutex mutex_;
    std::vector<int16_t> played_;
    std::thread thread_;
};

// A sine of `hz` at `amplitude`, as a SoundCard source.
[[nodiscard]] inline SoundCard::Source sine(double hz, double amplitude = 8000) {
    return [hz, amplitude](uint64_t n) {
        return static_cast<int16_t>(amplitude * std::sin(2 * 3.14159265358979323846 * hz * static_cast<double>(n) / 8000.0));
    };
}

}  // namespace kelsip::test
