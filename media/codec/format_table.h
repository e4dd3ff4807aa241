// The media format table: what we know of RTP payload formats we may meet,
// including the many we cannot encode, and the lookups over it.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "media/codec/audio_codec.h"

namespace kelsip {

// Every row, static payload types first; built once on first use.
[[nodiscard]] const std::vector<CodecInfo>& mediaFormatTable();

// The row of a static payload type (0..34), or none.
[[nodiscard]] std::optional<CodecInfo> lookupByPayloadType(int payloadType);

// The first row of that encoding name (ignoring case; the old names G721,
// G723-24, G723-40 and G729A are read as their current rows), clock rate and
// channel count; a clock rate or channel count of 0 matches any.
[[nodiscard]] std::optional<CodecInfo> lookupByName(std::string_view name, uint32_t clockRate, uint32_t channels);

// Adjusts frame and rate fields for the fmtp parameters that change them:
// the iLBC "mode" and the G723 "bitrate". Anything else changes nothing.
void applyFmtp(CodecInfo& info, std::string_view fmtp);

}  // namespace kelsip
