// Programs the tests start (SIP servers, DNS servers, test tools): a child
// process with its arguments and working folder, its output in a log file,
// stopped however the test ends; and the test's own limit on descriptors.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelsip::test {

struct ProcessOptions {
    std::string program;  // a path, or a name looked up with Process::findProgram
    std::vector<std::string> arguments;
    std::filesystem::path workingDirectory;  // empty: the test's own
    std::filesystem::path logFile;           // standard output and error; empty: discarded
    std::chrono::milliseconds stopGrace{2000};  // SIGTERM to SIGKILL
};

class Process {
public:
    Process();
    ~Process();  // stop()
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // False where the tests cannot start programs (Windows, and so Wine).
    [[nodiscard]] static bool supported();
    // PATH, then the system folders a non-root PATH often lacks; empty when
    // not installed. A name with a slash is taken as it is.
    [[nodiscard]] static std::string findProgram(std::string_view name);

    // In a process group of its own, which gets SIGTERM when the starting
    // thread ends, so a crashed test leaves no peer behind.
    [[nodiscard]] bool start(const ProcessOptions& options, std::string* error);
    [[nodiscard]] bool isRunning();
    // Its exit status, or 128 + the signal's number, once it has ended.
    [[nodiscard]] std::optional<int> exitCode();
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    // SIGTERM to the group, SIGKILL after the grace period, then whatever
    // is left in the group. Safe to call again.
    void stop();
    // Ctrl+C: SIGINT to the program alone; false when it is not running.
    bool interrupt();
    [[nodiscard]] std::string log() const;

    struct State;

private:
    std::unique_ptr<State> state_;
};

// Lowers this process's limit on open descriptors until the guard returned
// goes; null where the limit cannot be changed (Windows, and so Wine).
[[nodiscard]] std::shared_ptr<const void> lowerDescriptorLimit(unsigned limit);

}  // namespace kelsip::test
