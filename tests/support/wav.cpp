// WAV reading and writing from explicit little-endian bytes, tone
// synthesis, and the Goertzel and correlation measures.
#include "support/wav.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <numbers>

namespace kelsip::test {

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatExtensible = 0xFFFE;

void setError(std::string* error, std::string text) {
    if (error != nullptr) *error = std::move(text);
}

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}

void put16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v & 0xFF));
    out.push_back(static_cast<uint8_t>(v >> 8));
}
void put32(std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>((v >> shift) & 0xFF));
}
void putTag(std::vector<uint8_t>& out, const char (&tag)[5]) { out.insert(out.end(), tag, tag + 4); }

bool tagIs(const uint8_t* p, const char (&tag)[5]) { return std::equal(p, p + 4, tag); }

std::string formatName(uint16_t tag) {
    switch (tag) {
        case 1: return "PCM";
        case 3: return "IEEE float";
        case 6: return "A-law";
        case 7: return "mu-law";
        case kFormatExtensible: return "extensible";
        default: return "format tag " + std::to_string(tag);
    }
}

// |X(f)|^2 of the block at any frequency, by Goertzel's recurrence.
double goertzelPower(std::span<const int16_t> block, double frequency, uint32_t sampleRate,
                     std::span<const double> window = {}) {
    const double coefficient = 2.0 * std::cos(2.0 * std::numbers::pi * frequency / sampleRate);
    double s1 = 0.0;
    double s2 = 0.0;
    for (size_t i = 0; i < block.size(); ++i) {
        const double x = window.empty() ? block[i] : block[i] * window[i];
        const double s0 = x + coefficient * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return s1 * s1 + s2 * s2 - coefficient * s1 * s2;
}

double energy(std::span<const int16_t> samples) {
    double sum = 0.0;
    for (const int16_t s : samples) sum += static_cast<double>(s) * s;
    return sum;
}

}  // namespace

std::vector<int16_t> WavAudio::channel(unsigned index) const {
    std::vector<int16_t> out;
    if (channels == 0 || index >= channels) return out;
    out.reserve(frames());
    for (size_t i = index; i < samples.size(); i += channels) out.push_back(samples[i]);
    return out;
}

bool writeWav(const std::filesystem::path& path, const WavAudio& audio, std::string* error) {
    if (audio.channels == 0 || audio.sampleRate == 0) {
        setError(error, "a WAV file needs a sample rate and at least one channel");
        return false;
    }
    const uint32_t dataBytes = static_cast<uint32_t>(audio.samples.size() * 2);
    std::vector<uint8_t> bytes;
    bytes.reserve(44 + dataBytes);
    putTag(bytes, "RIFF");
    put32(bytes, 36 + dataBytes);
    putTag(bytes, "WAVE");
    putTag(bytes, "fmt ");
    put32(bytes, 16);
    put16(bytes, kFormatPcm);
    put16(bytes, audio.channels);
    put32(bytes, audio.sampleRate);
    put32(bytes, audio.sampleRate * audio.channels * 2u);
    put16(bytes, static_cast<uint16_t>(audio.channels * 2u));
    put16(bytes, 16);
    putTag(bytes, "data");
    put32(bytes, dataBytes);
    for (const int16_t s : audio.samples) put16(bytes, static_cast<uint16_t>(s));

    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        setError(error, "cannot write " + path.string());
        return false;
    }
    return true;
}

std::optional<WavAudio> readWav(const std::filesystem::path& path, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        setError(error, "cannot open " + path.string());
        return std::nullopt;
    }
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (bytes.size() < 12 || !tagIs(&bytes[0], "RIFF") || !tagIs(&bytes[8], "WAVE")) {
        setError(error, path.string() + " is not a RIFF/WAVE file");
        return std::nullopt;
    }

    WavAudio audio;
    bool haveFormat = false;
    size_t at = 12;
    while (at + 8 <= bytes.size()) {
        const uint8_t* header = &bytes[at];
        const size_t declared = le32(header + 4);
        const size_t bodyStart = at + 8;
        const size_t available = bytes.size() - bodyStart;
        if (tagIs(header, "fmt ")) {
            if (declared < 16 || declared > available) {
                setError(error, path.string() + ": short fmt chunk");
                return std::nullopt;
            }
            const uint8_t* f = &bytes[bodyStart];
            uint16_t tag = le16(f);
            // WAVE_FORMAT_EXTENSIBLE names the real format in the first two
            // bytes of its sub-format GUID.
            if (tag == kFormatExtensible && declared >= 40) tag = le16(f + 24);
            audio.channels = le16(f + 2);
            audio.sampleRate = le32(f + 4);
            const uint16_t bits = le16(f + 14);
            if (tag != kFormatPcm || bits != 16 || audio.channels == 0) {
                setError(error, path.string() + ": " + formatName(tag) + ", " + std::to_string(bits) + " bits, " +
                                    std::to_string(audio.channels) + " channels, " +
                                    std::to_string(audio.sampleRate) + " Hz; only 16-bit PCM is read");
                return std::nullopt;
            }
            haveFormat = true;
        } else if (tagIs(header, "data")) {
            if (!haveFormat) {
                setError(error, path.string() + ": data chunk before the fmt chunk");
                return std::nullopt;
            }
            size_t length = declared;
            if (length == 0 || length > available) length = available;
            const size_t frameBytes = 2u * audio.channels;
            length -= length % frameBytes;
            audio.samples.resize(length / 2);
            for (size_t i = 0; i < audio.samples.size(); ++i) {
                audio.samples[i] = static_cast<int16_t>(le16(&bytes[bodyStart + 2 * i]));
            }
            return audio;
        }
        // Chunks are padded to an even length.
        at = bodyStart + declared + (declared & 1);
    }
    setError(error, path.string() + (haveFormat ? ": no data chunk" : ": no fmt chunk"));
    return std::nullopt;
}

std::vector<int16_t> makeTones(std::span<const Tone> tones, uint32_t sampleRate) {
    std::vector<int16_t> out;
    for (const Tone& tone : tones) {
        const auto count = static_cast<size_t>(std::llround(tone.seconds * sampleRate));
        const double step = 2.0 * std::numbers::pi * tone.frequency / sampleRate;
        const double peak = std::clamp(tone.amplitude, 0.0, 1.0) * 32767.0;
        for (size_t i = 0; i < count; ++i) {
            out.push_back(static_cast<int16_t>(std::lround(peak * std::sin(step * static_cast<double>(i)))));
        }
    }
    return out;
}

bool writeTones(const std::filesystem::path& path, std::span<const Tone> tones, uint32_t sampleRate,
                std::string* error) {
    WavAudio audio;
    audio.sampleRate = sampleRate;
    audio.samples = makeTones(tones, sampleRate);
    return writeWav(path, audio, error);
}

double toneShare(std::span<const int16_t> block, double frequency, uint32_t sampleRate) {
    const double total = energy(block);
    if (block.empty() || total <= 0.0 || sampleRate == 0) return 0.0;
    // A sine of amplitude A holds N A^2 / 2 of energy and shows |X|^2 =
    // (N A / 2)^2 at its frequency, so 2 |X|^2 / (N E) is 1 for a pure tone.
    const double share = 2.0 * goertzelPower(block, frequency, sampleRate) / (static_cast<double>(block.size()) * total);
    return std::clamp(share, 0.0, 1.0);
}

double dominantFrequency(std::span<const int16_t> block, uint32_t sampleRate, double lowest, double highest) {
    const size_t n = block.size();
    if (n < 4 || sampleRate == 0 || energy(block) <= 0.0) return 0.0;
    if (highest <= 0.0 || highest > sampleRate / 2.0) highest = sampleRate / 2.0;
    // A Hann window keeps a strong tone's leakage from hiding the peak and
    // makes the peak's shape parabolic in log magnitude.
    std::vector<double> window(n);
    for (size_t i = 0; i < n; ++i) {
        window[i] = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(n - 1));
    }
    const double binWidth = static_cast<double>(sampleRate) / static_cast<double>(n);
    const auto first = static_cast<size_t>(std::max(1.0, std::ceil(lowest / binWidth)));
    const auto last = static_cast<size_t>(std::floor(highest / binWidth));
    if (first > last) return 0.0;
    auto power = [&](size_t bin) { return goertzelPower(block, static_cast<double>(bin) * binWidth, sampleRate, window); };
    size_t best = first;
    double bestPower = -1.0;
    for (size_t bin = first; bin <= last; ++bin) {
        const double p = power(bin);
        if (p > bestPower) {
            bestPower = p;
            best = bin;
        }
    }
    double offset = 0.0;
    if (best > 0 && bestPower > 0.0) {
        const double left = power(best - 1);
        const double right = power(best + 1);
        if (left > 0.0 && right > 0.0) {
            const double a = std::log(left);
            const double b = std::log(bestPower);
            const double c = std::log(right);
            const double curvature = a - 2.0 * b + c;
            if (curvature < 0.0) offset = std::clamp(0.5 * (a - c) / curvature, -0.5, 0.5);
        }
    }
    return (static_cast<double>(best) + offset) * binWidth;
}

double rms(std::span<const int16_t> samples) {
    return samples.empty() ? 0.0 : std::sqrt(energy(samples) / static_cast<double>(samples.size()));
}

Correlation bestCorrelation(std::span<const int16_t> received, std::span<const int16_t> reference) {
    Correlation best;
    const size_t m = reference.size();
    const double referenceEnergy = energy(reference);
    if (m == 0 || received.size() < m || referenceEnergy <= 0.0) return best;
    // The energy of each stretch from running sums, so that every offset
    // costs one dot product.
    // Integers keep the sums exact, so a silent stretch counts exactly 0.
    std::vector<uint64_t> running(received.size() + 1, 0);
    for (size_t i = 0; i < received.size(); ++i) {
        running[i + 1] = running[i] + static_cast<uint64_t>(int64_t{received[i]} * received[i]);
    }
    best.value = -1.0;
    for (size_t offset = 0; offset + m <= received.size(); ++offset) {
        const auto stretchEnergy = static_cast<double>(running[offset + m] - running[offset]);
        double value = 0.0;
        if (stretchEnergy > 0.0) {
            double dot = 0.0;
            for (size_t i = 0; i < m; ++i) dot += static_cast<double>(received[offset + i]) * reference[i];
            value = dot / std::sqrt(stretchEnergy * referenceEnergy);
        }
        if (value > best.value) {
            best.value = value;
            best.offset = offset;
        }
    }
    return best;
}

}  // namespace kelsip::test
