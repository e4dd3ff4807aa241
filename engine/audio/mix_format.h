// What a shared-mode Windows stream can be opened with: which mix formats the
// card converters take, and the engine period the low-latency path asks for.
// Plain values in and out, so the arithmetic is checked on every platform.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "engine/audio/format_converter.h"

namespace kelsoftphone {

// The fields of the engine's mix format that decide whether we can use it.
struct MixFormatFields {
    uint16_t tag = 0;  // wFormatTag
    uint16_t bitsPerSample = 0;
    uint16_t channels = 0;
    uint32_t rate = 0;
    // For the extensible tag only: which sub-format it names.
    enum class SubFormat { Other, IeeeFloat, Pcm } subFormat = SubFormat::Other;
};

constexpr uint16_t kWaveFormatPcm = 0x0001;
constexpr uint16_t kWaveFormatIeeeFloat = 0x0003;
constexpr uint16_t kWaveFormatExtensible = 0xFFFE;

// 32-bit float or 16-bit integer, plainly tagged or extensible; anything
// else leaves `error` saying "unsupported mix format".
[[nodiscard]] std::optional<StreamFormat> streamFormatOf(const MixFormatFields& mix, std::string* error);

// The shared engine's periods for a format, in frames, as the endpoint reports them.
struct EnginePeriods {
    uint32_t defaultFrames = 0;
    uint32_t fundamentalFrames = 0;
    uint32_t minFrames = 0;
    uint32_t maxFrames = 0;
};

// The period for `requestedMs` at `rate`: rounded up to a whole number of
// fundamental periods, then kept within the endpoint's minimum and maximum.
[[nodiscard]] uint32_t lowLatencyPeriodFrames(int requestedMs, uint32_t rate, const EnginePeriods& periods);

}  // namespace kelsoftphone
