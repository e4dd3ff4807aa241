// The platform's sound device on Linux and other POSIX systems: ALSA.
#include "engine/audio/alsa_audio_device.h"

namespace kelsoftphone {

std::shared_ptr<AudioDevice> createSystemAudioDevice(const SystemAudioOptions& options) {
    return std::make_shared<AlsaAudioDevice>(options);
}

std::vector<std::string> listSystemAudioDevices() { return listAlsaDevices(); }

}  // namespace kelsoftphone
