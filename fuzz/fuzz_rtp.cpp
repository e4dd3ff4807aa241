// Fuzz target for RtpPacket::parse.
#include "fuzz/fuzz_support.h"
#include "media/rtp/rtp_packet.h"

VELMORA_FUZZ_TARGET {
    const auto first = kelsip::RtpPacket::parse(velmora::fuzz::asBytes(input));
    if (!first) return;
    const auto parse = [](std::span<const uint8_t> bytes) { return kelsip::RtpPacket::parse(bytes); };
    // Padding octets other than the count are not kept, their number is.
    velmora::fuzz::require(velmora::fuzz::checkBinaryRoundTrip(*first, input, parse).size() == input.size(),
                           "the written packet is as long as the datagram", input);
}
