// The Linux sound device: ALSA PCMs, one thread per direction, converted to
// and from the calls' 10 ms blocks.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/audio/audio_device.h"

namespace kelsoftphone {

// Opens the PCMs named in the options ("default" when empty) at the card's
// own rate, channel count and sample format, and keeps them open through
// xruns, errors and unplugged devices until stopped.
class AlsaAudioDevice final : public AudioDevice {
public:
    explicit AlsaAudioDevice(SystemAudioOptions options);
    ~AlsaAudioDevice() override;
    AlsaAudioDevice(const AlsaAudioDevice&) = delete;
    AlsaAudioDevice& operator=(const AlsaAudioDevice&) = delete;

    [[nodiscard]] bool start(int sampleRate, CaptureFunction capture, PlayoutFunction playout) override;
    void stop() override;
    [[nodiscard]] bool running() const override;
    [[nodiscard]] std::string description() const override;
    [[nodiscard]] int64_t glitches() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// "playout:", the playback PCMs, "capture:", the capture PCMs, each as
// "  name - description", "default" marked "  [default]".
[[nodiscard]] std::vector<std::string> listAlsaDevices();

}  // namespace kelsoftphone
