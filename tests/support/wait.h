// Waiting on a condition with a deadline, the only way tests synchronise.
#pragma once

#include <chrono>
#include <thread>

namespace kelsip::test {

// Polls `condition` until it holds or `timeout` passes; true when it held.
template <typename F>
bool waitFor(F&& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace kelsip::test
