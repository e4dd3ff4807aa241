// The terminal front end's task queue and its printing of changes.
#include "app/cli/console.h"

#include <cstdio>

namespace velphone {

void Console::post(std::function<void()> task) {
    {
        const std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

void Console::changed() {
    if (core_ == nullptr) return;
    // On the core's thread: read its texts and print what is new.
    // The registration is printed on its own: a passing message may hide
    // it from the status line when it changes.
    if (core_->registrationText() != lastRegistration_) {
        lastRegistration_ = core_->registrationText();
        print("registration: " + lastRegistration_);
    }
    const std::string status = core_->statusText();
    if (status != lastStatus_) {
        lastStatus_ = status;
        print("status: " + status);
    }
    for (int i = 0; i < PhoneCore::kLines; ++i) {
        const std::string& text = core_->lines()[static_cast<size_t>(i)].text;
        if (text != lastLines_[i]) {
            lastLines_[i] = text;
            if (!text.empty()) print("line " + std::to_string(i + 1) + ": " + text);
        }
    }
}

void Console::notify(const std::string& title, const std::string& text) { print("notice: " + title + ": " + text); }

void Console::print(const std::string& line) {
    {
        const std::lock_guard lock(mutex_);
        output_.push_back(line);
    }
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    outputChanged_.notify_all();
}

size_t Console::printed() const {
    const std::lock_guard lock(mutex_);
    return output_.size();
}

bool Console::waitFor(const std::string& text, size_t from, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return outputChanged_.wait_for(lock, timeout, [&] {
        for (size_t i = from; i < output_.size(); ++i) {
            if (output_[i].find(text) != std::string::npos) return true;
        }
        return quitting_;
    }) && !quitting_;
}

void Console::run(const std::atomic<bool>& stop) {
    std::unique_lock lock(mutex_);
    while (!quitting_ && !stop) {
        // Woken by a task; the time-out only lets Ctrl+C be seen.
        wake_.wait_for(lock, std::chrono::milliseconds(100), [&] { return quitting_ || !tasks_.empty(); });
        while (!tasks_.empty() && !quitting_) {
            auto task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
    }
}

void Console::pause(std::chrono::milliseconds duration) {
    std::unique_lock lock(mutex_);
    outputChanged_.wait_for(lock, duration, [&] { return quitting_; });
}

bool Console::quitting() const {
    const std::lock_guard lock(mutex_);
    return quitting_;
}

void Console::quit() {
    {
        const std::lock_guard lock(mutex_);
        quitting_ = true;
    }
    wake_.notify_all();
    outputChanged_.notify_all();
}

}  // namespace velphone
