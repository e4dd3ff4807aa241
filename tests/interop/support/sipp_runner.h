// SIPp for the interop tests: one scenario from tests/interop/sipp/ on
// 127.0.0.1 with a free port, bounded by call count and time, its message
// trace and errors in a temporary folder.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "sip/net/socket_address.h"
#include "support/peer_process.h"

namespace kelsip::test {

struct SippOptions {
    // A file name in tests/interop/sipp/, or a path.
    std::string scenario;
    // Where a client scenario sends ("127.0.0.1:5060"); empty for a server.
    std::string remote;
    bool tcp = false;
    // SIPp ends after this many calls (a REGISTER dialogue counts as one)...
    int calls = 1;
    // ...or after this long, as a failure.
    std::chrono::seconds timeout{20};
    // More command-line arguments ("-key", "name", "value").
    std::vector<std::string> arguments;
};

class SippRunner : public PeerProcess {
public:
    SippRunner() : PeerProcess("sipp") {}
    // The folder of the scenario files.
    [[nodiscard]] static std::string scenarioFolder();

    // Starts SIPp and waits until it listens on its port. On failure the
    // reason is in `error` and SIPp's output in log().
    [[nodiscard]] bool start(const SippOptions& options, std::string* error);

    // SIPp's exit status once it ended: 0 when every call went as the
    // scenario says, 1 when one failed (a check, a time-out), 255 or 254 on
    // a fatal error.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    [[nodiscard]] std::optional<int> exitCode() { return process_.exitCode(); }

    // Every message SIPp sent and received, as it traced them.
    [[nodiscard]] std::string messages() const;
    // SIPp's own output, its error trace and its message trace together.
    [[nodiscard]] std::string log() const override;
};

}  // namespace kelsip::test
