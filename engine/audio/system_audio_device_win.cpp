// The platform's sound device on Windows: WASAPI in shared mode.
#include "engine/audio/audio_device.h"
#include "engine/audio/wasapi_audio_device.h"

namespace kelsoftphone {

std::shared_ptr<AudioDevice> createSystemAudioDevice(const SystemAudioOptions& options) {
    return std::make_shared<WasapiAudioDevice>(options);
}

std::vector<std::string> listSystemAudioDevices() { return listWasapiAudioDevices(); }

}  // namespace kelsoftphone
