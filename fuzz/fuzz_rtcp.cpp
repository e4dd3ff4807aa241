// Fuzz target for RtcpCompound::parse.
#include "fuzz/fuzz_support.h"
#include "media/rtp/rtcp_packet.h"

VELMORA_FUZZ_TARGET {
    const auto first = kelsip::RtcpCompound::parse(velmora::fuzz::asBytes(input));
    if (!first) return;
    const auto parse = [](std::span<const uint8_t> bytes) { return kelsip::RtcpCompound::parse(bytes); };
    velmora::fuzz::require(velmora::fuzz::checkBinaryRoundTrip(*first, input, parse).empty() == first->packets.empty(),
                           "only a compound of skipped types writes no bytes", input);
}
