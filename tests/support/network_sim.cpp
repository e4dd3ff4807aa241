// The simulated network and the two sound clocks that drive a simulated call.
#include "support/network_sim.h"

#include <algorithm>

namespace kelsip::test {

class SimNetwork::Endpoint final : public MediaTransport {
public:
    Endpoint(SimNetwork& network, int end) : network_(network), end_(end) {}
    ~Endpoint() override { detach(); }

    bool send(Channel channel, std::span<const uint8_t> bytes) override {
        if (!closed_) network_.send(end_, channel, bytes);
        return !closed_;
    }
    void attach(Sink* sink) override { network_.sinks_[end_] = sink; }
    void detach() override { network_.sinks_[end_] = nullptr; }
    [[nodiscard]] bool hasRtcp() const override { return true; }
    void close(std::span<const uint8_t> finalRtcp) override {
        detach();
        if (!finalRtcp.empty()) send(Channel::Rtcp, finalRtcp);
        closed_ = true;
    }

private:
    SimNetwork& network_;
    int end_;
    bool closed_ = false;
};

std::unique_ptr<MediaTransport> SimNetwork::transport(int end) { return std::make_unique<Endpoint>(*this, end); }

void SimNetwork::inject(int end, MediaTransport::Channel channel, std::vector<uint8_t> bytes) {
    if (sinks_[end]) sinks_[end]->onPacket(channel, bytes, nowUs());
}

void SimNetwork::send(int from, MediaTransport::Channel channel, std::span<const uint8_t> bytes) {
    Link& link = links_[from];
    const LinkConditions& c = link.conditions;
    const SimPacket packet{channel, {bytes.begin(), bytes.end()}, nowUs()};
    link.sent.push_back(packet);
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    // Loss spares RTCP so that the report figures stay comparable between runs.
    const bool rtp = channel == MediaTransport::Channel::Rtp;
    if (rtp) {
        link.inBurst = chance(random_) < (link.inBurst ? c.burstContinue : c.burstStart);
        if (link.inBurst || chance(random_) < c.loss) {
            ++link.dropped;
            return;
        }
    }
    int64_t at = nowUs() + c.delayUs;
    if (c.jitterUs > 0) at += std::uniform_int_distribution<int64_t>(0, c.jitterUs)(random_);
    if (rtp && chance(random_) < c.reorder) at += 30000;
    queue_.emplace(at, std::pair(1 - from, packet));
    if (rtp && chance(random_) < c.duplicate) queue_.emplace(at + 1000, std::pair(1 - from, packet));
}

void SimNetwork::run(int64_t untilUs) {
    for (;;) {
        const int64_t nextDelivery = queue_.empty() ? untilUs + 1 : queue_.begin()->first;
        const int64_t next = std::min(nextDelivery, nextTickUs_);
        if (next > untilUs) break;
        clock_.set(next * 1000);
        if (next == nextDelivery) {
            const auto [to, packet] = std::move(queue_.begin()->second);
            queue_.erase(queue_.begin());
            if (sinks_[to]) sinks_[to]->onPacket(packet.channel, packet.bytes, next);
            continue;
        }
        for (auto* sink : sinks_) {
            if (sink) sink->onTick(next);
        }
        nextTickUs_ += 10000;
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
