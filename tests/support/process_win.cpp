// The peers the tests start are Linux programs and do not run under Wine:
// on Windows the runner only says so.
#include "support/process.h"

#include "support/temp_dir.h"

namespace kelsip::test {

struct Process::State {
    ProcessOptions options;
};

Process::Process() : state_(std::make_unique<State>()) {}
Process::~Process() = default;

bool Process::supported() { return false; }
std::string Process::findProgram(std::string_view) { return {}; }

bool Process::start(const ProcessOptions& options, std::string* error) {
    state_->options = options;
    *error = "starting programs is not supported on Windows";
    return false;
}

bool Process::isRunning() { return false; }
std::optional<int> Process::exitCode() { return std::nullopt; }
std::optional<int> Process::waitForExit(std::chrono::milliseconds) { return std::nullopt; }
void Process::stop() {}
bool Process::interrupt() { return false; }
std::string Process::log() const { return readTextFile(state_->options.logFile); }

std::shared_ptr<const void> lowerDescriptorLimit(unsigned) { return nullptr; }

}  // namespace kelsip::test
