// The ALSA PCMs a person can choose from, as ALSA's name hints give them.
#include <alsa/asoundlib.h>

#include <cstdlib>
#include <memory>

#include "engine/audio/alsa_audio_device.h"

namespace kelsoftphone {

namespace {

struct Free {
    void operator()(char* text) const { std::free(text); }
};
using HintText = std::unique_ptr<char, Free>;

// "  name - description" on one line (ALSA's descriptions run over two).
std::string entry(const std::string& name, const char* description) {
    std::string line = "  " + name;
    if (description != nullptr && *description != '\0') {
        std::string text = description;
        for (char& c : text) {
            if (c == '\n') c = ',';
        }
        line += " - " + text;
    }
    if (name == "default") line += "  [default]";
    return line;
}

}  // namespace

std::vector<std::string> listAlsaDevices() {
    std::vector<std::string> playout{"playout:"};
    std::vector<std::string> capture{"capture:"};
    bool playoutDefault = false;
    bool captureDefault = false;
    void** hints = nullptr;
    if (::snd_device_name_hint(-1, "pcm", &hints) >= 0 && hints != nullptr) {
        for (void** hint = hints; *hint != nullptr; ++hint) {
            const HintText name(::snd_device_name_get_hint(*hint, "NAME"));
            if (!name) continue;
            const HintText description(::snd_device_name_get_hint(*hint, "DESC"));
            const HintText io(::snd_device_name_get_hint(*hint, "IOID"));  // null: both directions
            const std::string id = name.get();
            const std::string line = entry(id, description.get());
            if (!io || std::string(io.get()) == "Output") {
                playout.push_back(line);
                playoutDefault = playoutDefault || id == "default";
            }
            if (!io || std::string(io.get()) == "Input") {
                capture.push_back(line);
                captureDefault = captureDefault || id == "default";
            }
        }
        ::snd_device_name_free_hint(hints);
    }
    // "default" is what an empty setting opens, listed or not.
    if (!playoutDefault) playout.insert(playout.begin() + 1, entry("default", nullptr));
    if (!captureDefault) capture.insert(capture.begin() + 1, entry("default", nullptr));
    playout.insert(playout.end(), capture.begin(), capture.end());
    return playout;
}

}  // namespace kelsoftphone
