// The terminal front end's side of the phone core: a task queue run on the
// main thread (the core's thread), and the printing of every status and
// line text as it changes, which scripts can wait for.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "app/core/phone_core.h"

namespace velphone {

class Console final : public PhonePlatform {
public:
    // Only what changes after this is printed.
    void attach(PhoneCore& core) {
        core_ = &core;
        lastStatus_ = core.statusText();
        lastRegistration_ = core.registrationText();
    }

    void post(std::function<void()> task) override;
    void changed() override;
    void notify(const std::string& title, const std::string& text) override;

    // Prints a line of output and keeps it for waitFor.
    void print(const std::string& line);
    // Runs queued tasks until `stop` is set or quit() is called.
    void run(const std::atomic<bool>& stop);
    void quit();
    // From the command thread: true once a printed line since `from`
    // contains `text`, false when `timeout` passes first.
    [[nodiscard]] bool waitFor(const std::string& text, size_t from, std::chrono::milliseconds timeout);
    [[nodiscard]] size_t printed() const;
    // Waits `duration`, or less when the console quits.
    void pause(std::chrono::milliseconds duration);
    [[nodiscard]] bool quitting() const;

private:
    PhoneCore* core_ = nullptr;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    bool quitting_ = false;
    std::vector<std::string> output_;
    std::condition_variable outputChanged_;
    // What was last printed of each text, so only changes are shown.
    std::string lastStatus_;
    std::string lastRegistration_;
    std::string lastLines_[PhoneCore::kLines];
};

// Runs one command line against the core, on the core's thread; false for
// "quit". Unknown commands and bad arguments print a short help line.
bool runCommand(PhoneCore& core, Console& console, const std::string& line);

}  // namespace velphone
