// The Windows sound device: a shared-mode audio stream each way, each on its
// own thread, reopened when lost, so a call survives an unplugged headset and
// follows a new default communications endpoint.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/audio/audio_device.h"

namespace kelsoftphone {

class WasapiAudioDevice final : public AudioDevice {
public:
    // Endpoints by id or friendly name, empty for the default communications
    // endpoint; `bufferMs` is the buffer time each direction asks for.
    explicit WasapiAudioDevice(SystemAudioOptions options = {});
    ~WasapiAudioDevice() override;
    WasapiAudioDevice(const WasapiAudioDevice&) = delete;
    WasapiAudioDevice& operator=(const WasapiAudioDevice&) = delete;

    [[nodiscard]] bool start(int sampleRate, CaptureFunction capture, PlayoutFunction playout) override;
    void stop() override;
    [[nodiscard]] bool running() const override;
    [[nodiscard]] std::string description() const override;
    [[nodiscard]] int64_t glitches() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The listing lines of listSystemAudioDevices.
[[nodiscard]] std::vector<std::string> listWasapiAudioDevices();

}  // namespace kelsoftphone
