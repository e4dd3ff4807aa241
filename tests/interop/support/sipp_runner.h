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
    int calls = 1;                     // SIPp ends after this many (a REGISTER dialogue is one)...
    std::chrono::seconds timeout{20};  // ...or after this long, as a failure
    // More command-line arguments ("-key", "name", "value").
    std::vector<std::string> arguments;
};

class SippRunner : public PeerProcess {
public:
    SippRunner() : PeerProcess("sipp") {}
    // Ready once it listens on its port; on failure the reason is in `error`.
    [[nodiscard]] bool start(const SippOptions& options, std::string* error);

    // 0 when every call went as the scenario says, 1 when one failed (a
    // check, a time-out), 255 or 254 on a fatal error.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);

    // Every message SIPp sent and received, as it traced them.
    [[nodiscard]] std::string messages() const;
    // SIPp's own output, its error trace and its message trace together.
    [[nodiscard]] std::string log() const override;
};

}  // namespace kelsip::test
