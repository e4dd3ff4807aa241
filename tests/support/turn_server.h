// A real coturn for the tests: STUN and TURN over UDP on 127.0.0.1 (or the
// addresses the test gives) with a free port, long-term credentials, relayed ports from a small range and
// loopback peers allowed; killed when the object goes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/peer_process.h"

namespace kelsip::test {

struct TurnServerConfig {
    std::string user = "alice";
    std::string password = "secret";
    std::string realm = "test.local";
    int relayPorts = 40;  // how many ports the relayed addresses come from
    // Where it takes requests and where its relayed addresses are: a test's
    // network namespace puts it on a public address of its own.
    std::vector<std::string> listenIps = {"127.0.0.1"};
    std::string relayIp = "127.0.0.1";
};

class TurnServer : public PeerProcess {
public:
    TurnServer() : PeerProcess("turnserver") {}
    // Starts turnserver and waits until it answers a Binding request. On
    // failure the reason is in `error` and the program's output in log().
    [[nodiscard]] bool start(const TurnServerConfig& config, std::string* error);
    [[nodiscard]] const TurnServerConfig& config() const { return config_; }

private:
    TurnServerConfig config_;
};

}  // namespace kelsip::test
