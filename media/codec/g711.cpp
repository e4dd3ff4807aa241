// G.711 µ-law and A-law: the segment encoders and decoders, the codec that
// applies them to whole packets, and its concealment of lost packets.
#include "media/codec/g711.h"

#include <algorithm>
#include <array>
#include <cmath>

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

// The pitch search compares the last 30 ms with itself one period earlier.
constexpr size_t kPitchWindow = 240;
static_assert(kPitchWindow + G711Codec::kMaxPitch <= 3 * G711Codec::kMaxPitch + G711Codec::kMaxPitch / 4);

// One period repeated for long sounds buzzy: the loop takes in a second
// period after 10 ms of loss and a third after 20 ms.
constexpr size_t kWidenAt[] = {80, 160};

// A packet after a loss starts as a cross-fade from the repetition, longer
// after a longer loss since the two then differ more.
constexpr size_t kBlendMin = 32;
constexpr size_t kBlendMax = 80;

int16_t toSample(double value) {
    return static_cast<int16_t>(std::clamp(std::lround(value), -32768L, 32767L));
}

// The lag whose samples best match the most recent window, by correlation
// normalised by the lagged energy. Ties and silence go to the shortest lag.
size_t pitchOf(const int16_t* end) {
    const int16_t* window = end - kPitchWindow;
    size_t best = G711Codec::kMinPitch;
    double bestScore = 0;
    for (size_t lag = G711Codec::kMinPitch; lag <= G711Codec::kMaxPitch; ++lag) {
        const int16_t* lagged = window - lag;
        double correlation = 0;
        double energy = 0;
        for (size_t i = 0; i < kPitchWindow; ++i) {
            correlation += static_cast<double>(window[i]) * lagged[i];
            energy += static_cast<double>(lagged[i]) * lagged[i];
        }
        if (energy <= 0) continue;
        const double score = correlation / std::sqrt(energy);
        if (score > bestScore) {
            bestScore = score;
            best = lag;
        }
    }
    return best;
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
    int16_t* samples = out.data() + start;
    for (size_t i = 0; i < size; ++i) samples[i] = table[payload[i]];
    if (erased_ > 0 && size > 0) {
        const size_t blend = std::min({size, kBlendMax, kBlendMin + erased_ / 8});
        for (size_t i = 0; i < blend; ++i) {
            const double weight = static_cast<double>(i + 1) / static_cast<double>(blend + 1);
            samples[i] = toSample(weight * samples[i] + (1 - weight) * nextConcealed());
        }
        erased_ = 0;
    }
    remember(samples, size);
    return true;
}

void G711Codec::conceal(size_t count, std::vector<int16_t>& out) {
    if (count == 0) return;
    if (erased_ == 0) startConcealment();
    const size_t start = out.size();
    out.resize(start + count);
    int16_t* samples = out.data() + start;
    for (size_t i = 0; i < count; ++i) samples[i] = toSample(nextConcealed());
    remember(samples, count);
}

void G711Codec::remember(const int16_t* samples, size_t count) {
    int16_t* history = history_.data();
    if (count >= kHistory) {
        std::copy(samples + (count - kHistory), samples + count, history);
        return;
    }
    std::copy(history + count, history + kHistory, history);
    std::copy(samples, samples + count, history + (kHistory - count));
}

void G711Codec::startConcealment() {
    source_ = history_;
    pitch_ = pitchOf(source_.data() + kHistory);
    buildLoop(1);
    loopPosition_ = 0;
    // The loop continues from one period back; what it would have had just
    // before its start differs from what was really played last, and that
    // step is taken out gradually instead of being heard as a click.
    joinOffset_ = static_cast<double>(history_[kHistory - 1]) - loop_[loopLength_ - 1];
    joinLeft_ = overlap_;
    fadeLeft_ = 0;
}

void G711Codec::buildLoop(size_t periods) {
    periods_ = periods;
    loopLength_ = periods * pitch_;
    overlap_ = std::max<size_t>(pitch_ / 4, 1);
    const int16_t* end = source_.data() + kHistory;
    const int16_t* start = end - loopLength_;
    std::copy(start, end, loop_.data());
    // The loop's tail fades into what preceded its start, so wrapping around
    // joins two samples that really followed each other.
    for (size_t i = 0; i < overlap_; ++i) {
        const double weight = static_cast<double>(i + 1) / static_cast<double>(overlap_ + 1);
        const size_t back = overlap_ - i;
        loop_[loopLength_ - back] = toSample((1 - weight) * *(end - back) + weight * *(start - back));
    }
}

double G711Codec::nextConcealed() {
    if (periods_ < 3 && erased_ == kWidenAt[periods_ - 1]) {
        fadeLength_ = overlap_;
        for (size_t i = 0; i < fadeLength_; ++i) fadeFrom_[i] = loop_[(loopPosition_ + i) % loopLength_];
        // The wider loop starts one period further back, so the same
        // position in it is the same phase of an older period.
        buildLoop(periods_ + 1);
        fadeLeft_ = fadeLength_;
    }
    double sample = loop_[loopPosition_];
    if (joinLeft_ > 0) {
        sample += joinOffset_ * static_cast<double>(joinLeft_) / static_cast<double>(overlap_ + 1);
        --joinLeft_;
    }
    if (fadeLeft_ > 0) {
        const size_t i = fadeLength_ - fadeLeft_;
        const double weight = static_cast<double>(i + 1) / static_cast<double>(fadeLength_ + 1);
        sample = (1 - weight) * fadeFrom_[i] + weight * sample;
        --fadeLeft_;
    }
    loopPosition_ = (loopPosition_ + 1) % loopLength_;
    ++erased_;
    return sample;
}

}  // namespace kelsip
