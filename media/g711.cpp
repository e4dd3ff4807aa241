// G.711 µ-law and A-law: the segment encoders and decoders, and the codec
// that applies them to whole packets.
#include "media/g711.h"

#include <array>

namespace kelsip {

namespace {

// µ-law works on a 14-bit magnitude with the bias of 33 added (132 at our
// 16-bit scale), which puts every segment's start on a power of two.
constexpr int kUlawBias = 0x84;
constexpr int kUlawClip = 0x7fff - kUlawBias;

// Position of the highest set bit of `value` above bit `low`, 0..7.
constexpr int segmentOf(int value, int low) {
    int segment = 0;
    for (int v = value >> low; v > 1 && segment < 7; v >>= 1) ++segment;
    return segment;
}

// The magnitude the tables are read with: negative samples by their one's
// complement, so -1 reads as 0 and -32768 as 32767.
constexpr int magnitudeOf(int16_t sample) { return sample < 0 ? -(sample + 1) : sample; }

constexpr uint8_t encodeUlaw(int16_t sample) {
    const int magnitude = magnitudeOf(sample);
    const int biased = (magnitude > kUlawClip ? kUlawClip : magnitude) + kUlawBias;
    const int segment = segmentOf(biased, 7);
    const int step = (biased >> (segment + 3)) & 0x0f;
    const int negative = sample < 0 ? 0x80 : 0x00;
    // The code word goes out complemented (positive samples carry a 1 sign
    // bit), which also keeps silence off 0x00.
    return static_cast<uint8_t>(~(negative | (segment << 4) | step));
}

constexpr int16_t decodeUlaw(uint8_t code) {
    const int word = ~code & 0xff;
    const int segment = (word >> 4) & 0x07;
    const int value = ((((word & 0x0f) << 3) + kUlawBias) << segment) - kUlawBias;
    return static_cast<int16_t>((word & 0x80) ? -value : value);
}

constexpr uint8_t encodeAlaw(int16_t sample) {
    // The two lowest segments share one step (16 at our scale), so both read
    // the four bits above bit 4; each segment after that doubles the step.
    const int magnitude = magnitudeOf(sample) >> 4;  // 0..2047
    const int segment = segmentOf(magnitude, 3);
    const int step = segment == 0 ? (magnitude & 0x0f) : ((magnitude >> (segment - 1)) & 0x0f);
    const int sign = sample < 0 ? 0x00 : 0x80;
    // Even bits inverted, so that idle lines still carry transitions.
    return static_cast<uint8_t>((sign | (segment << 4) | step) ^ 0x55);
}

constexpr int16_t decodeAlaw(uint8_t code) {
    const int word = code ^ 0x55;
    const int segment = (word >> 4) & 0x07;
    int value = ((word & 0x0f) << 4) + 8;  // the middle of the step
    if (segment > 0) value += 0x100;
    if (segment > 1) value <<= segment - 1;
    return static_cast<int16_t>((word & 0x80) ? value : -value);
}

template <typename F>
constexpr auto decodeTable(F decode) {
    std::array<int16_t, 256> table{};
    for (int code = 0; code < 256; ++code) table[static_cast<size_t>(code)] = decode(static_cast<uint8_t>(code));
    return table;
}

constexpr auto kUlawTable = decodeTable(decodeUlaw);
constexpr auto kAlawTable = decodeTable(decodeAlaw);

CodecInfo g711Info(bool ulaw) {
    CodecInfo info;
    info.name = ulaw ? "PCMU" : "PCMA";
    info.payloadType = ulaw ? 0 : 8;
    info.mediaKind = MediaKind::Audio;
    info.clockRate = G711Codec::kSampleRate;
    info.channels = 1;
    info.frameDurationUs = 10000;
    info.ptimeMs = 20;
    info.bitrate = 64000;
    info.frameBytes = G711Codec::kFrameSamples;
    info.bitsPerSample = 8;
    return info;
}

}  // namespace

uint8_t linearToUlaw(int16_t sample) { return encodeUlaw(sample); }
uint8_t linearToAlaw(int16_t sample) { return encodeAlaw(sample); }
int16_t ulawToLinear(uint8_t code) { return kUlawTable[code]; }
int16_t alawToLinear(uint8_t code) { return kAlawTable[code]; }

G711Codec::G711Codec(bool ulaw) : ulaw_(ulaw), info_(g711Info(ulaw)) {}

bool G711Codec::encode(const int16_t* samples, size_t count, std::vector<uint8_t>& out) {
    if (count > 0 && samples == nullptr) return false;
    const size_t start = out.size();
    out.resize(start + count);
    for (size_t i = 0; i < count; ++i) out[start + i] = ulaw_ ? encodeUlaw(samples[i]) : encodeAlaw(samples[i]);
    return true;
}

bool G711Codec::decode(const uint8_t* payload, size_t size, std::vector<int16_t>& out) {
    if (size > 0 && payload == nullptr) return false;
    const auto& table = ulaw_ ? kUlawTable : kAlawTable;
    const size_t start = out.size();
    out.resize(start + size);
    for (size_t i = 0; i < size; ++i) out[start + i] = table[payload[i]];
    return true;
}

}  // namespace kelsip
