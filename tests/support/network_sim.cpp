// The simulated network and the two sound clocks that drive a simulated call.
#include "support/network_sim.h"

#include <algorithm>

namespace kelsip::test {

class SimNetwork::Endpoint final : public MediaTransport {
public:
    Endpoint(SimNetwork& network, int end) : network_(network), end_(end) {}
    ~Endpoint() override { detach(); }

    bool send(Channel channel, std::span<const uint8_t> bytes) override {
        if (closed_) return false;
        network_.send(end_, channel, bytes);
        return true;
    }
    void attach(Sink* sink) override { network_.sinks_[end_] = sink; }
    void detach() override { network_.sinks_[end_] = nullptr; }
    [[nodiscard]] bool hasRtcp() const override { return true; }
    void close(std::span<const uint8_t> finalRtcp) override {
        detach();
        if (!closed_ && !finalRtcp.empty()) {
            network_.links_[end_].finalRtcp.assign(finalRtcp.begin(), finalRtcp.end());
            network_.send(end_, Channel::Rtcp, finalRtcp);
        }
        closed_ = true;
    }

private:
    SimNetwork& network_;
    int end_;
    bool closed_ = false;
};

SimNetwork::SimNetwork(uint64_t seed) : random_(seed) {}
SimNetwork::~SimNetwork() = default;

std::unique_ptr<MediaTransport> SimNetwork::transport(int end) { return std::make_unique<Endpoint>(*this, end); }

void SimNetwork::inject(int end, MediaTransport::Channel channel, std::vector<uint8_t> bytes) {
    if (sinks_[end]) sinks_[end]->onPacket(channel, bytes, nowUs());
}

void SimNetwork::send(int from, MediaTransport::Channel channel, std::span<const uint8_t> bytes) {
    Link& link = links_[from];
    const LinkConditions& c = link.conditions;
    link.sent.push_back({channel, {bytes.begin(), bytes.end()}, nowUs()});
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    // RTCP crosses the same network; loss only spares it so that the
    // report figures stay comparable between runs.
    const bool rtp = channel == MediaTransport::Channel::Rtp;
    if (rtp) {
        link.inBurst = link.inBurst ? chance(random_) < c.burstContinue : chance(random_) < c.burstStart;
        if (link.inBurst || chance(random_) < c.loss) {
            ++link.dropped;
            return;
        }
    }
    int64_t at = nowUs() + c.delayUs;
    if (c.jitterUs > 0) at += std::uniform_int_distribution<int64_t>(0, c.jitterUs)(random_);
    if (rtp && chance(random_) < c.reorder) at += 30000;
    const int to = 1 - from;
    queue_.emplace(at, Delivery{to, channel, {bytes.begin(), bytes.end()}});
    if (rtp && chance(random_) < c.duplicate) queue_.emplace(at + 1000, Delivery{to, channel, {bytes.begin(), bytes.end()}});
}

void SimNetwork::run(int64_t untilUs) {
    for (;;) {
        const int64_t nextDelivery = queue_.empty() ? untilUs + 1 : queue_.begin()->first;
        const int64_t next = std::min(nextDelivery, nextTickUs_);
        if (next > untilUs) break;
        clock_.set(next * 1000);
        if (next == nextDelivery) {
            const auto first = queue_.begin();
            const Delivery d = std::move(first->second);
            queue_.erase(first);
            if (sinks_[d.to]) sinks_[d.to]->onPacket(d.channel, d.bytes, next);
        } else {
            for (auto* sink : sinks_) {
                if (sink) sink->onTick(next);
            }
            nextTickUs_ += 10000;
        }
    }
    clock_.set(untilUs * 1000);
}

void CallSimulation::run(int64_t durationUs) {
    const int64_t endUs = network_.nowUs() + durationUs;
    // A sound card hands over a period's samples once it has recorded them:
    // the first capture comes one period in. Playout starts at once.
    if (startUs_ < 0) nextUs_ = startUs_ = network_.nowUs();
    std::vector<int16_t> chunk(80), discard(80), silence(80);
    for (; nextUs_ <= endUs; nextUs_ += 10000) {
        network_.run(nextUs_);
        if (nextUs_ > startUs_) {
            for (auto& s : chunk) s = signal_ ? signal_(captured_++) : int16_t{0};
            sender_.pushCapture(chunk);
            sender_.pullPlayout(discard);
        }
        receiver_.pushCapture(silence);
        played.resize(played.size() + 80);
        receiver_.pullPlayout(std::span<int16_t>(played).last(80));
    }
    network_.run(endUs);
}

}  // namespace kelsip::test
