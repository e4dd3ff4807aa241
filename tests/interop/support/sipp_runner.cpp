// SIPp on the process runner: a server scenario is ready once its socket is
// bound, which /proc/net shows without sending SIPp anything.
#include "interop/support/sipp_runner.h"

#include <cstdio>
#include <fstream>
#include <sstream>


namespace kelsip::test {

namespace {

// True when a UDP socket is bound to 127.0.0.1:port. Linux only, as the
// interop tests are.
bool boundOnLoopback(uint16_t port) {
    std::ifstream table("/proc/net/udp");
    char wanted[32];
    std::snprintf(wanted, sizeof wanted, "0100007F:%04X", static_cast<unsigned>(port));
    std::string line;
    std::getline(table, line);  // the column names
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local;
        fields >> slot >> local;
        if (local == wanted) return true;
    }
    return false;
}

}  // namespace

bool SippRunner::start(const SippOptions& options, std::string* error) {
    const std::string scenario = options.scenario.find('/') == std::string::npos
                                     ? VELMORA_SIPP_SCENARIOS "/" + options.scenario
                                     : options.scenario;
    Launch sipp;
    sipp.program = "sipp";
    sipp.package = "sip-tester";
    sipp.prepare = [&](ProcessOptions& run, std::string*) {
        run.arguments = {"-sf", scenario, "-i", "127.0.0.1", "-p", std::to_string(port_), "-t", "u1", "-m",
                         std::to_string(options.calls), "-timeout", std::to_string(options.timeout.count()) + "s",
                         "-timeout_error", "-nostdin",
                         "-trace_msg", "-message_file", dir_.file("messages.log").string(), "-trace_err",
                         "-error_file", dir_.file("errors.log").string()};
        run.arguments.insert(run.arguments.end(), options.arguments.begin(), options.arguments.end());
        if (!options.remote.empty()) run.arguments.push_back(options.remote);
        run.stopGrace = std::chrono::milliseconds(1000);
        return true;
    };
    sipp.ready = [&] { return boundOnLoopback(port_); };
    // 254: SIPp could not bind its socket; the port went to someone else.
    sipp.lostPort = [&] { return process_.exitCode() == 254; };
    return launch(sipp, error);
}

std::optional<int> SippRunner::waitForExit(std::chrono::milliseconds timeout) {
    return process_.waitForExit(timeout);
}

std::string SippRunner::messages() const { return readTextFile(dir_.file("messages.log")); }

std::string SippRunner::log() const {
    return process_.log() + "\n-- errors --\n" + readTextFile(dir_.file("errors.log")) + "\n-- messages --\n" +
           messages();
}

}  // namespace kelsip::test
