// Watching the host's network: its addresses looked at on the loop every
// few seconds, and a resume from sleep told by the wall clock running ahead.
#pragma once

#include <cstdint>
#include <vector>

#include "sip/ua/calls.h"
#include "sip/ua/lines.h"
#include "sip/ua/ua_context.h"

namespace kelsip {

class NetworkWatch {
public:
    NetworkWatch(UaContext& context, Lines& lines, Calls& calls) : ctx_(context), lines_(lines), calls_(calls) {}

    // Looks now, then every `networkPollMs` of the configuration.
    void start();
    void stop();

    // The wall clock may run this far ahead of the loop's between two looks
    // before we take it for a sleep.
    static constexpr int64_t kResumeSlackMs = 5000;

private:
    void look();
    [[nodiscard]] std::vector<net::SocketAddress> hostAddresses() const;

    UaContext& ctx_;
    Lines& lines_;
    Calls& calls_;
    EventLoop::TimerId timer_ = 0;
    bool looked_ = false;
    int64_t lastLoopMs_ = 0;
    int64_t lastWallMs_ = 0;
};

}  // namespace kelsip
