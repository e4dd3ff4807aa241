// What the loopback tools share: a user agent on 127.0.0.1 and a wait on a
// condition with a deadline.
#pragma once

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "sip/ua/user_agent.h"

namespace velmora_tools {

template <typename F>
bool waitUntil(F condition, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// tcpPort: 0 for any free port, -1 for no TCP.
inline std::unique_ptr<kelsip::UserAgent> startPhone(int tcpPort) {
    kelsip::UserAgentConfig config;
    config.bindAddress = "127.0.0.1";
    config.udpPort = 0;
    config.tcpPort = tcpPort;
    auto ua = std::make_unique<kelsip::UserAgent>(config);
    std::string error;
    if (!ua->start(&error)) {
        std::fprintf(stderr, "cannot start a user agent: %s\n", error.c_str());
        return nullptr;
    }
    return ua;
}

}  // namespace velmora_tools
