// A deterministic network between two media sessions, in virtual time: one-way
// delay, jitter, random and burst loss, reordering and duplication per
// direction; and the two sound clocks that drive a call over it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <vector>

#include "media/session/media_session.h"
#include "sip/core/clock.h"

namespace kelsip::test {

struct LinkConditions {
    int64_t delayUs = 20000;
    int64_t jitterUs = 0;      // each packet is late by a uniform 0..jitterUs more
    double loss = 0;           // independent loss per packet
    double burstStart = 0;     // chance a burst of loss begins at a packet
    double burstContinue = 0;  // chance a burst goes on to the next packet
    double reorder = 0;        // chance a packet is held back 30 ms, behind the ones after it
    double duplicate = 0;      // chance a packet arrives twice
};

struct SimPacket {
    MediaTransport::Channel channel = MediaTransport::Channel::Rtp;
    std::vector<uint8_t> bytes;
    int64_t sentUs = 0;
};

// Ends 0 and 1; the network must outlive their transports.
class SimNetwork {
public:
    explicit SimNetwork(uint64_t seed = 1) : random_(seed) {}

    [[nodiscard]] ManualClock& clock() { return clock_; }
    [[nodiscard]] int64_t nowUs() const { return clock_.nowNs() / 1000; }
    // Conditions on packets sent by end `from`.
    void setConditions(int from, const LinkConditions& conditions) { links_[from].conditions = conditions; }
    [[nodiscard]] std::unique_ptr<MediaTransport> transport(int end);
    // Delivers a packet to `end` now, as if it came from the far end.
    void inject(int end, MediaTransport::Channel channel, std::vector<uint8_t> bytes);
    // Moves virtual time to `untilUs`, delivering what falls due and ticking
    // both ends every 10 ms.
    void run(int64_t untilUs);

    // Everything end `from` handed to the network, in order, lost or not.
    [[nodiscard]] const std::vector<SimPacket>& sent(int from) const { return links_[from].sent; }
    [[nodiscard]] uint64_t dropped(int from) const { return links_[from].dropped; }

private:
    class Endpoint;
    struct Link {
        LinkConditions conditions;
        std::vector<SimPacket> sent;
        uint64_t dropped = 0;
        bool inBurst = false;
    };

    void send(int from, MediaTransport::Channel channel, std::span<const uint8_t> bytes);

    ManualClock clock_;
    std::mt19937_64 random_;
    Link links_[2];
    MediaTransport::Sink* sinks_[2] = {nullptr, nullptr};
    // By delivery time, then by order of sending: (to, packet).
    std::multimap<int64_t, std::pair<int, SimPacket>> queue_;
    int64_t nextTickUs_ = 0;
};

// Drives two media sessions as two sound cards would, every 10 ms: the
// sender captures `signal` and the receiver silence, both play what
// arrives, and the receiver's playout is kept in `played`.
class CallSimulation {
public:
    using Signal = std::function<int16_t(uint64_t sampleIndex)>;

    CallSimulation(SimNetwork& network, MediaSession& sender, MediaSession& receiver, Signal signal)
        : network_(network), sender_(sender), receiver_(receiver), signal_(std::move(signal)) {}

    std::vector<int16_t> played;

    void run(int64_t durationUs);

private:
    SimNetwork& network_;
    MediaSession& sender_;
    MediaSession& receiver_;
    Signal signal_;
    uint64_t captured_ = 0;
    int64_t startUs_ = -1;
    int64_t nextUs_ = 0;
};

}  // namespace kelsip::test
