// Collects the stack's log lines for a test and waits for expected ones.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "sip/core/log.h"
#include "support/wait.h"

namespace kelsip::test {

class LogCapture {
public:
    explicit LogCapture(LogLevel level = LogLevel::Debug) {
        log::setLevel(level);
        log::setSink([this](LogLevel, std::string_view, std::string_view text) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(text);
        });
    }
    ~LogCapture() {
        log::setSink(nullptr);
        log::setLevel(LogLevel::Info);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // True once a line starting with `prefix` was written.
    bool waitForLine(const std::string& prefix, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        return waitFor([&] { return has(prefix); }, timeout);
    }
    [[nodiscard]] bool has(const std::string& prefix) const {
        std::lock_guard lock(mutex_);
        for (const auto& l : lines_) {
            if (l.rfind(prefix, 0) == 0) return true;
        }
        return false;
    }
    [[nodiscard]] std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace kelsip::test
