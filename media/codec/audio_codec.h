// The audio codec interface and the parameter record every codec and every
// known RTP payload format carries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelsip {

enum class MediaKind : uint8_t { Audio = 0, Video = 1, Both = 2 };

struct CodecInfo {
    std::string name;          // encoding name as in rtpmap ("PCMU")
    int32_t payloadType = -1;  // static RTP payload type; -1: dynamic only
    MediaKind mediaKind = MediaKind::Audio;
    uint32_t clockRate = 0;        // RTP clock, Hz
    uint32_t channels = 0;
    uint32_t frameDurationUs = 0;  // 0 for sample-based formats
    uint32_t ptimeMs = 0;          // default packet time; 0 for video
    uint32_t bitrate = 0;          // bit/s; 0 when variable or unknown
    uint32_t frameBytes = 0;       // frame-based formats only
    uint32_t bitsPerSample = 0;    // sample-based formats only
    std::string fmtp;              // the format parameters we offer

    friend bool operator==(const CodecInfo&, const CodecInfo&) = default;
};

// One codec instance; not shared between threads. Samples are 16-bit linear
// PCM. encode and decode append to `out`, behind what it already holds.
class AudioCodec {
public:
    virtual ~AudioCodec() = default;
    [[nodiscard]] virtual const CodecInfo& info() const = 0;
    [[nodiscard]] virtual bool encode(const int16_t* samples, size_t count, std::vector<uint8_t>& out) = 0;
    [[nodiscard]] virtual bool decode(const uint8_t* payload, size_t size, std::vector<int16_t>& out) = 0;
    // How many samples a payload decodes to, known before decoding it: the
    // playout buffer places packets by it. Sample-based formats by default.
    [[nodiscard]] virtual size_t sampleCount(const uint8_t* payload, size_t size) const {
        (void)payload;
        const CodecInfo& i = info();
        return i.bitsPerSample ? size * 8 / (i.bitsPerSample * (i.channels ? i.channels : 1)) : 0;
    }
    // Stands in for `count` lost samples. Silence unless a codec knows better.
    virtual void conceal(size_t count, std::vector<int16_t>& out) { out.resize(out.size() + count, 0); }

protected:
    AudioCodec() = default;
    AudioCodec(const AudioCodec&) = default;
    AudioCodec& operator=(const AudioCodec&) = default;
};

}  // namespace kelsip
