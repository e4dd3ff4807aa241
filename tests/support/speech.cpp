// Speech for the audio checks, and how well a recording holds it.
#include "support/speech.h"

#include <algorithm>
#include <cstdio>
#include <cmath>
#include <numbers>
#include <random>

#include "support/process.h"
#include "support/wav.h"

namespace kelsip::test {

using namespace std::chrono_literals;

std::vector<int16_t> speech(const std::filesystem::path& dir, const std::string& sentence, unsigned seed) {
    if (Process::supported()) {
        const auto raw = dir / ("raw" + std::to_string(seed) + ".wav");
        const auto wav = dir / ("voice" + std::to_string(seed) + ".wav");
        for (const auto& args : {std::vector<std::string>{"-w", raw.string(), sentence},
                                 std::vector<std::string>{raw.string(), "-r", "8000", "-c", "1", "-b", "16", wav.string()}}) {
            Process p;
            std::string error;
            const bool espeak = args[0] == "-w";
            if (!p.start({Process::findProgram(espeak ? "espeak-ng" : "sox"), args, {}, {}, 2000ms},
                         &error) ||
                p.waitForExit(20s) != 0) {
                std::fprintf(stderr, "%s failed: %s %s\n", espeak ? "espeak-ng" : "sox", error.c_str(), p.log().c_str());
                return {};
            }
        }
        auto audio = readWav(wav);
        return audio ? audio->samples : std::vector<int16_t>{};
    }
    std::vector<int16_t> tune;
    std::mt19937 random(seed);
    for (int note = 0; note < 30; ++note) {
        const double hz = 300 + static_cast<double>(random() % 1200);
        for (int n = 0; n < 800; ++n) {
            tune.push_back(static_cast<int16_t>(6000 * std::sin(2 * std::numbers::pi * hz * n / 8000.0)));
        }
    }
    return tune;
}

double voiceMatch(const std::vector<int16_t>& heard, const std::vector<int16_t>& voice) {
    const size_t keep = std::min<size_t>(heard.size(), 48000);
    const std::span<const int16_t> tail(heard.data() + heard.size() - keep, keep);
    double best = 0.0;
    for (size_t part = 1; part <= 5; ++part) {
        const size_t at = voice.size() * part / 7;
        best = std::max(best, bestCorrelation(tail, std::span(voice).subspan(at, 2000)).value);
    }
    return best;
}

}  // namespace kelsip::test
