#include "support/peer_process.h"

#include "support/free_port.h"
#include "support/wait.h"

namespace kelsip::test {

bool PeerProcess::launch(const Launch& launch, std::string* error) {
    if (Process::findProgram(launch.program).empty()) {
        *error = launch.program + " not found: install " + launch.package + " (scripts/setup does)";
        return false;
    }
    if (!dir_.valid()) {
        *error = "cannot create a temporary folder";
        return false;
    }
    for (int attempt = 0; attempt < 5; ++attempt) {
        process_.stop();
        port_ = freeLoopbackPort();
        if (port_ == 0) continue;
        ProcessOptions run;
        run.program = launch.program;
        run.workingDirectory = dir_.path();
        run.logFile = dir_.file(launch.program + ".log");
        if (!launch.prepare(run, error)) return false;
        if (!enter_.empty()) {
            std::vector<std::string> line(enter_.begin() + 1, enter_.end());
            line.push_back(Process::findProgram(run.program));
            for (auto& argument : run.arguments) line.push_back(std::move(argument));
            run.arguments = std::move(line);
            run.program = enter_.front();
        }
        if (!process_.start(run, error)) return false;
        const bool ready =
            waitFor([&] { return !process_.isRunning() || launch.ready(); }, std::chrono::seconds(10));
        if (ready && process_.isRunning()) return true;
        if (!launch.lostPort()) break;
    }
    process_.stop();
    *error = launch.program + " did not start (its log follows)";
    return false;
}

}  // namespace kelsip::test
