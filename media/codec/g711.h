// G.711 µ-law (PCMU) and A-law (PCMA): one byte per 8 kHz sample.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "media/codec/audio_codec.h"

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
    // Waveform repetition: the last pitch period of what was played, widened
    // to two and three periods as the loss goes on, joined by overlap-add.
    // Always at full level (fading is the playout buffer's business); the
    // next decoded packet is blended in from where the repetition stood.
    void conceal(size_t count, std::vector<int16_t>& out) override;

    // Pitch periods the repetition looks for: 2.5 to 15 ms.
    static constexpr size_t kMinPitch = 20;
    static constexpr size_t kMaxPitch = 120;

private:
    // Three of the longest periods plus the overlap that smooths the loop's join.
    static constexpr size_t kHistory = 3 * kMaxPitch + kMaxPitch / 4;

    void remember(const int16_t* samples, size_t count);
    void startConcealment();
    void buildLoop(size_t periods);
    [[nodiscard]] double nextConcealed();

    bool ulaw_;
    CodecInfo info_;
    std::array<int16_t, kHistory> history_{};  // the last output, newest last
    // Concealment state, valid while erased_ > 0.
    size_t erased_ = 0;  // samples made up since the last decoded packet
    std::array<int16_t, kHistory> source_{};  // history as it was when the loss began
    std::array<int16_t, 3 * kMaxPitch> loop_{};
    size_t pitch_ = kMinPitch;
    size_t periods_ = 1;
    size_t loopLength_ = 0;
    size_t loopPosition_ = 0;
    size_t overlap_ = 1;
    double joinOffset_ = 0;  // decays over the first samples so repetition starts where playout stood
    size_t joinLeft_ = 0;
    std::array<double, kMaxPitch / 4> fadeFrom_{};  // the old loop's samples when the loop widens
    size_t fadeLength_ = 0;
    size_t fadeLeft_ = 0;
};

}  // namespace kelsip
