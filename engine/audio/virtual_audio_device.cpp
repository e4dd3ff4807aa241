// The clock-driven device without hardware.
#include <chrono>
#include <vector>

#include "engine/audio/audio_device.h"

namespace kelsoftphone {

VirtualAudioDevice::VirtualAudioDevice(SampleSource source, SampleSink sink)
    : source_(std::move(source)), sink_(std::move(sink)) {}

VirtualAudioDevice::~VirtualAudioDevice() { stop(); }

bool VirtualAudioDevice::start(int sampleRate, CaptureFunction capture, PlayoutFunction playout) {
    stop();
    if (sampleRate < 100) return false;
    running_ = true;
    worker_ = std::thread([this, sampleRate, capture = std::move(capture), playout = std::move(playout)] {
        run(sampleRate, capture, playout);
    });
    return true;
}

void VirtualAudioDevice::stop() {
    running_ = false;
    if (worker_.joinable()) worker_.join();
}

void VirtualAudioDevice::run(int sampleRate, CaptureFunction capture, PlayoutFunction playout) {
    const auto block = static_cast<size_t>(sampleRate / 100);
    std::vector<int16_t> out(block);
    std::vector<int16_t> in(block);
    // Absolute deadlines: the processing time of a block does not add up
    // into drift, so over any minute exactly 6000 blocks pass.
    auto deadline = std::chrono::steady_clock::now();
    while (running_) {
        std::fill(out.begin(), out.end(), int16_t{0});
        if (playout) playout(out.data(), block);
        if (sink_) sink_(out.data(), block);
        if (source_) {
            source_(in.data(), block);
        } else {
            std::fill(in.begin(), in.end(), int16_t{0});
        }
        if (capture) capture(in.data(), block);
        deadline += std::chrono::milliseconds(10);
        std::this_thread::sleep_until(deadline);
    }
}

}  // namespace kelsoftphone
