// G.711 µ-law (PCMU) and A-law (PCMA): one byte per 8 kHz sample.
#pragma once

#include <cstdint>

#include "media/audio_codec.h"

namespace kelsip {

// One sample to a code word and back, as ITU-T G.711 tabulates them. A
// negative input's magnitude is its one's complement (-x - 1), so x and ~x
// give mirrored code words and the law is symmetric to the bit.
[[nodiscard]] uint8_t linearToUlaw(int16_t sample);
[[nodiscard]] uint8_t linearToAlaw(int16_t sample);
[[nodiscard]] int16_t ulawToLinear(uint8_t code);
[[nodiscard]] int16_t alawToLinear(uint8_t code);

class G711Codec final : public AudioCodec {
public:
    static constexpr uint32_t kSampleRate = 8000;
    static constexpr uint32_t kFrameSamples = 80;  // 10 ms

    explicit G711Codec(bool ulaw);

    [[nodiscard]] bool isUlaw() const { return ulaw_; }
    [[nodiscard]] const CodecInfo& info() const override { return info_; }
    [[nodiscard]] bool encode(const int16_t* samples, size_t count, std::vector<uint8_t>& out) override;
    [[nodiscard]] bool decode(const uint8_t* payload, size_t size, std::vector<int16_t>& out) override;

private:
    bool ulaw_;
    CodecInfo info_;
};

}  // namespace kelsip
