// Programs the tests start (SIP servers, DNS servers, test tools): a child
// process with its own arguments, environment and working folder, its output
// in a log file, stopped however the test ends.
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
    // A path, or a bare name looked up with Process::findProgram.
    std::string program;
    // The arguments after the program's own name.
    std::vector<std::string> arguments;
    // "NAME=value" entries set over (or added to) the test's own environment.
    std::vector<std::string> environment;
    // Where the program runs; empty: the test's own working folder.
    std::filesystem::path workingDirectory;
    // Standard output and error both go here (appended); empty: discarded.
    std::filesystem::path logFile;
    // How long stop() waits after asking politely before it kills.
    std::chrono::milliseconds stopGrace{2000};
};

class Process {
public:
    Process();
    // Stops the program if it still runs.
    ~Process();
    Process(Process&&) noexcept;
    Process& operator=(Process&&) noexcept;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // False where the tests cannot start programs (Windows, and so Wine).
    [[nodiscard]] static bool supported();
    // The full path of the program `name`: PATH first, then the system
    // folders a non-root PATH often lacks (/usr/sbin, /sbin). Empty when
    // it is not installed. A name with a slash is taken as it is.
    [[nodiscard]] static std::string findProgram(std::string_view name);

    // Starts the program in a process group of its own, so that stop()
    // reaches the helpers it forks too. It gets SIGTERM when the thread
    // that started it ends, so a test that crashes leaves no peer behind:
    // start programs from the test's own thread. False, with the reason in
    // `error`, when it could not be started (not found, not executable); a
    // program that starts and then fails shows that through isRunning()
    // and exitCode(). Only standard input, output and error are inherited.
    [[nodiscard]] bool start(const ProcessOptions& options, std::string* error);

    [[nodiscard]] bool isRunning();
    // Once the program has ended: its exit status, or 128 + the signal's
    // number when a signal ended it.
    [[nodiscard]] std::optional<int> exitCode();
    // Waits up to `timeout` for the program to end by itself.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    // SIGTERM to the whole group, SIGKILL after the grace period; then every
    // helper left in the group is killed too. Safe to call again.
    void stop();

    [[nodiscard]] int pid() const;
    // What the program has written to its log file so far.
    [[nodiscard]] std::string log() const;

    struct State;

private:
    std::unique_ptr<State> state_;
};

}  // namespace kelsip::test
