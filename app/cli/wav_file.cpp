// Reading and writing the terminal phone's WAV files.
#include "app/cli/wav_file.h"

#include <fstream>
#include <algorithm>

namespace velphone {

namespace {

uint32_t le32(const std::string& b, size_t at) {
    return static_cast<uint32_t>(static_cast<uint8_t>(b[at])) | static_cast<uint32_t>(static_cast<uint8_t>(b[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(b[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(b[at + 3])) << 24;
}
uint16_t le16(const std::string& b, size_t at) {
    return static_cast<uint16_t>(static_cast<uint8_t>(b[at]) | static_cast<uint8_t>(b[at + 1]) << 8);
}
void put32(std::string& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b += static_cast<char>(v >> (8 * i) & 0xff);
}
void put16(std::string& b, uint16_t v) {
    b += static_cast<char>(v & 0xff);
    b += static_cast<char>(v >> 8);
}

}  // namespace

std::optional<std::vector<int16_t>> readWav8k(const std::filesystem::path& path, std::string* error) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    std::string bytes;
    if (in) {
        bytes.resize(static_cast<size_t>(std::max<std::streamoff>(0, in.tellg())));
        in.seekg(0);
        in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    const auto fail = [&](const std::string& why) {
        if (error) *error = path.string() + ": " + why;
        return std::nullopt;
    };
    if (!in) return fail("cannot be read");
    if (bytes.size() < 12 || bytes.compare(0, 4, "RIFF") != 0 || bytes.compare(8, 4, "WAVE") != 0) {
        return fail("not a WAV file");
    }
    // Walk the chunks: "fmt " says the format, "data" holds the samples.
    bool formatOk = false;
    for (size_t at = 12; at + 8 <= bytes.size();) {
        const std::string id = bytes.substr(at, 4);
        const size_t size = le32(bytes, at + 4);
        const size_t body = at + 8;
        if (id == "fmt " && body + 16 <= bytes.size()) {
            formatOk = le16(bytes, body) == 1 && le16(bytes, body + 2) == 1 && le32(bytes, body + 4) == 8000 &&
                       le16(bytes, body + 14) == 16;
            if (!formatOk) return fail("needs 8000 Hz mono 16-bit PCM (sox in.wav -r 8000 -c 1 -b 16 out.wav)");
        } else if (id == "data" && formatOk) {
            const size_t count = std::min(size, bytes.size() - body) / 2;
            std::vector<int16_t> samples(count);
            for (size_t i = 0; i < count; ++i) samples[i] = static_cast<int16_t>(le16(bytes, body + 2 * i));
            if (samples.empty()) return fail("holds no sound");
            return samples;
        }
        at = body + size + (size & 1);
    }
    return fail(formatOk ? "has no data" : "has no format");
}

bool writeWav8k(const std::filesystem::path& path, const std::vector<int16_t>& samples, std::string* error) {
    const auto dataBytes = static_cast<uint32_t>(samples.size() * 2);
    std::string b = "RIFF";
    put32(b, dataBytes + 36);
    b += "WAVEfmt ";
    put32(b, 16);
    put16(b, 1);
    put16(b, 1);
    put32(b, 8000);
    put32(b, 16000);
    put16(b, 2);
    put16(b, 16);
    b += "data";
    put32(b, dataBytes);
    for (const int16_t s : samples) put16(b, static_cast<uint16_t>(s));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(b.data(), static_cast<std::streamsize>(b.size()));
    if (!out) {
        if (error) *error = path.string() + ": cannot be written";
        return false;
    }
    return true;
}

}  // namespace velphone
