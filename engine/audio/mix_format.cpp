// The mix formats the card converters take, and the low-latency period.
#include "engine/audio/mix_format.h"

#include <algorithm>

namespace kelsoftphone {

std::optional<StreamFormat> streamFormatOf(const MixFormatFields& mix, std::string* error) {
    bool isFloat = mix.tag == kWaveFormatIeeeFloat;
    bool isPcm = mix.tag == kWaveFormatPcm;
    if (mix.tag == kWaveFormatExtensible) {
        isFloat = mix.subFormat == MixFormatFields::SubFormat::IeeeFloat;
        isPcm = mix.subFormat == MixFormatFields::SubFormat::Pcm;
    }
    if (mix.channels > 0 && mix.rate > 0) {
        if (isFloat && mix.bitsPerSample == 32) return StreamFormat{mix.rate, mix.channels, SampleKind::Float32};
        if (isPcm && mix.bitsPerSample == 16) return StreamFormat{mix.rate, mix.channels, SampleKind::Int16};
    }
    if (error) *error = "unsupported mix format";
    return std::nullopt;
}

uint32_t lowLatencyPeriodFrames(int requestedMs, uint32_t rate, const EnginePeriods& periods) {
    uint64_t frames = static_cast<uint64_t>(std::max(requestedMs, 0)) * rate / 1000;
    if (periods.fundamentalFrames > 0) {
        const uint64_t fundamental = periods.fundamentalFrames;
        frames = (frames + fundamental - 1) / fundamental * fundamental;
    }
    frames = std::min<uint64_t>(frames, periods.maxFrames);
    frames = std::max<uint64_t>(frames, periods.minFrames);
    return static_cast<uint32_t>(frames);
}

}  // namespace kelsoftphone
