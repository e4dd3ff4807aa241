// The platform's sound device (placeholder until the device lands).
#include "engine/audio/audio_device.h"

namespace kelsoftphone {

std::shared_ptr<AudioDevice> createSystemAudioDevice(const SystemAudioOptions&) { return nullptr; }
std::vector<std::string> listSystemAudioDevices() { return {}; }

}  // namespace kelsoftphone
