// Monotonic time sources for the event loop: the system's, and a manual one
// that tests move forward by hand.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace kelsip {

class Clock {
public:
    virtual ~Clock() = default;
    // Nanoseconds on a monotonic scale; only differences mean anything.
    [[nodiscard]] virtual int64_t nowNs() const = 0;
    // False for a clock that only moves when told to: the loop then never
    // waits for it in real time.
    [[nodiscard]] virtual bool isReal() const { return true; }
};

class SteadyClock final : public Clock {
public:
    [[nodiscard]] int64_t nowNs() const override {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }
};

// Virtual time: starts at zero and moves only through `advance`/`set`.
class ManualClock final : public Clock {
public:
    [[nodiscard]] int64_t nowNs() const override { return now_.load(); }
    [[nodiscard]] bool isReal() const override { return false; }
    void set(int64_t ns) { now_.store(ns); }
    void advance(std::chrono::nanoseconds d) { now_.fetch_add(d.count()); }

private:
    std::atomic<int64_t> now_{0};
};

}  // namespace kelsip
