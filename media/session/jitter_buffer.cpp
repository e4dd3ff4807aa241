// The playout buffer's construction, reset and locked interface.
#include "media/session/jitter_buffer.h"

#include <algorithm>
#include <mutex>

#include "media/session/jitter_buffer_impl.h"

namespace kelsip {

JitterBuffer::Impl::Impl(std::unique_ptr<AudioCodec> decoder, const JitterBufferConfig& cfg)
    : codec(std::move(decoder)),
      config(sane(cfg)),
      initialDelay(samplesOf(std::clamp(config.initialDelayMs, config.minDelayMs, config.maxDelayMs))),
      lateness({static_cast<double>(samplesOf(config.minDelayMs)), static_cast<double>(samplesOf(config.maxDelayMs)),
                static_cast<double>(samplesOf(1)), samplesOf(5000), samplesOf(1000),
                static_cast<double>(samplesOf(80)), static_cast<double>(samplesOf(config.maxDelayMs + 100))}) {
    packets.reserve(kMaxPackets + 1);
    spare.reserve(kMaxPackets + 1);
    decoded.reserve(kReserve);
    scratch.reserve(kReserve);
}

void JitterBuffer::Impl::clear() {
    while (!packets.empty()) recycleFront();
    decoded.clear();
    decodedPos = 0;
    recentCount = recentNext = 0;
    started = false;
    // The codec still holds the old source's sound; fading the new one in
    // covers its blend.
    if (playedAudio) gain = 0;
    playedAudio = false;
    lossRun = 0;
    bridge = 0;
    adjustment = Adjustment::None;
    adjustCredit = 0;
    lateness.reset();
    eventKnown = false;
}

JitterBuffer::JitterBuffer(std::unique_ptr<AudioCodec> decoder, JitterBufferConfig config)
    : impl_(std::make_unique<Impl>(std::move(decoder), config)) {}

JitterBuffer::~JitterBuffer() = default;

void JitterBuffer::push(uint16_t sequence, uint32_t timestamp, std::span<const uint8_t> payload, int64_t arrivalUs) {
    const std::lock_guard lock(impl_->mutex);
    impl_->push(sequence, timestamp, payload, arrivalUs);
}

void JitterBuffer::pull(std::span<int16_t> out) {
    const std::lock_guard lock(impl_->mutex);
    for (size_t done = 0; done < out.size(); done += kChunk) {
        impl_->render(out.subspan(done, std::min(kChunk, out.size() - done)));
    }
}

void JitterBuffer::pushEvent(uint32_t timestamp) {
    const std::lock_guard lock(impl_->mutex);
    impl_->pushEvent(timestamp);
}

void JitterBuffer::reset() {
    const std::lock_guard lock(impl_->mutex);
    impl_->clear();
}

JitterBufferStats JitterBuffer::stats() const {
    const std::lock_guard lock(impl_->mutex);
    const Impl& b = *impl_;
    JitterBufferStats s = b.stats;
    s.targetDelayMs = b.toMs(b.lateness.ready() ? b.lateness.target() : static_cast<double>(b.initialDelay));
    if (b.started) {
        int64_t end = b.decodedEnd;
        if (!b.packets.empty()) {
            end = std::max(end, b.packets.back().timestamp + static_cast<int64_t>(b.packets.back().samples));
        }
        s.currentDelayMs = b.toMs(static_cast<double>(end - b.head));
    }
    return s;
}

}  // namespace kelsip
