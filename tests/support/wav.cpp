// WAV from explicit little-endian bytes, tones, and the Goertzel and
// correlation measures.
#include "support/wav.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <numbers>

namespace kelsip::test {

namespace {

uint32_t le(const uint8_t* p, int bytes) {
    uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = v << 8 | p[i];
    return v;
}

void put(std::string& out, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) out += static_cast<char>(v >> (8 * i) & 0xFF);
}

double energy(std::span<const int16_t> samples) {
    double sum = 0.0;
    for (const int16_t s : samples) sum += static_cast<double>(s) * s;
    return sum;
}

double goertzelPower(std::span<const int16_t> block, double frequency, uint32_t sampleRate) {
    const double coefficient = 2.0 * std::cos(2.0 * std::numbers::pi * frequency / sampleRate);
    double s1 = 0.0, s2 = 0.0;
    for (const int16_t x : block) {
        const double s0 = x + coefficient * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return s1 * s1 + s2 * s2 - coefficient * s1 * s2;
}

}  // namespace

bool writeWav(const std::filesystem::path& path, const WavAudio& audio, std::string* error) {
    const auto data = static_cast<uint32_t>(audio.samples.size() * 2);
    std::string bytes = "RIFF";
    put(bytes, 36 + data, 4);
    bytes += "WAVEfmt ";
    put(bytes, 16, 4);
    put(bytes, 1, 2);  // PCM
    put(bytes, 1, 2);  // mono
    put(bytes, audio.sampleRate, 4);
    put(bytes, audio.sampleRate * 2, 4);
    put(bytes, 2, 2);
    put(bytes, 16, 2);
    bytes += "data";
    put(bytes, data, 4);
    for (const int16_t s : audio.samples) put(bytes, static_cast<uint16_t>(s), 2);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out && error != nullptr) *error = "cannot write " + path.string();
    return static_cast<bool>(out);
}

std::optional<WavAudio> readWav(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    auto tag = [&](size_t at, std::string_view name) {
        return at + 4 <= bytes.size() && std::equal(name.begin(), name.end(), bytes.begin() + static_cast<long>(at));
    };
    std::optional<WavAudio> audio;
    if (tag(0, "RIFF") && tag(8, "WAVE")) {
        for (size_t at = 12; at + 8 <= bytes.size();) {
            const size_t length = le(&bytes[at + 4], 4);
            const size_t body = at + 8;
            if (tag(at, "fmt ") && length >= 16 && body + 16 <= bytes.size() && le(&bytes[body], 2) == 1 &&
                le(&bytes[body + 2], 2) == 1 && le(&bytes[body + 14], 2) == 16) {
                audio.emplace().sampleRate = le(&bytes[body + 4], 4);
            } else if (tag(at, "data") && audio) {
                const size_t end = length == 0 || body + length > bytes.size() ? bytes.size() : body + length;
                for (size_t i = body; i + 2 <= end; i += 2) audio->samples.push_back(static_cast<int16_t>(le(&bytes[i], 2)));
                return audio;
            }
            at = body + length + (length & 1);
        }
    }
    return std::nullopt;
}

bool writeTone(const std::filesystem::path& path, double frequency, double seconds) {
    WavAudio audio;
    for (size_t i = 0; i < static_cast<size_t>(seconds * audio.sampleRate); ++i) {
        audio.samples.push_back(static_cast<int16_t>(
            std::lround(8192.0 * std::sin(2.0 * std::numbers::pi * frequency * static_cast<double>(i) / audio.sampleRate))));
    }
    return writeWav(path, audio);
}

double toneShare(std::span<const int16_t> block, double frequency, uint32_t sampleRate) {
    const double total = energy(block);
    if (block.empty() || total <= 0.0) return 0.0;
    // A sine of amplitude A holds N A^2 / 2 of energy and shows |X|^2 =
    // (N A / 2)^2 at its frequency, so 2 |X|^2 / (N E) is 1 for a pure tone.
    return std::clamp(2.0 * goertzelPower(block, frequency, sampleRate) / (static_cast<double>(block.size()) * total),
                      0.0, 1.0);
}

double dominantFrequency(std::span<const int16_t> block, uint32_t sampleRate, double lowest, double highest) {
    if (block.empty() || energy(block) <= 0.0) return 0.0;
    const double step = static_cast<double>(sampleRate) / static_cast<double>(block.size());
    double best = 0.0, bestPower = -1.0;
    for (double f = std::ceil(lowest / step) * step; f <= highest; f += step) {
        const double p = goertzelPower(block, f, sampleRate);
        if (p > bestPower) bestPower = p, best = f;
    }
    return best;
}

double rms(std::span<const int16_t> samples) {
    return samples.empty() ? 0.0 : std::sqrt(energy(samples) / static_cast<double>(samples.size()));
}

Correlation bestCorrelation(std::span<const int16_t> received, std::span<const int16_t> reference) {
    Correlation best{-1.0, 0};
    const size_t m = reference.size();
    const double referenceEnergy = energy(reference);
    if (m == 0 || received.size() < m || referenceEnergy <= 0.0) return {};
    for (size_t offset = 0; offset + m <= received.size(); ++offset) {
        const auto stretch = received.subspan(offset, m);
        const double stretchEnergy = energy(stretch);
        double dot = 0.0;
        for (size_t i = 0; i < m; ++i) dot += static_cast<double>(stretch[i]) * reference[i];
        const double value = stretchEnergy > 0.0 ? dot / std::sqrt(stretchEnergy * referenceEnergy) : 0.0;
        if (value > best.value) best = {value, offset};
    }
    return best;
}

}  // namespace kelsip::test
