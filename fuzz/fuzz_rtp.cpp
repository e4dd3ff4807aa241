// Fuzz target for RtpPacket::parse: an accepted datagram accounts for every
// byte (padding octets other than the count are not kept, their number is),
// and writes back to bytes that parse to the same packet and write again alike.
#include <vector>

#include "fuzz/fuzz_support.h"
#include "media/rtp/rtp_packet.h"

using velmora::fuzz::require;

VELMORA_FUZZ_TARGET {
    const auto first = kelsip::RtpPacket::parse(velmora::fuzz::asBytes(input));
    if (!first) return;
    std::vector<uint8_t> out, again;
    std::string error;
    require(first->writeTo(out, &error), "a parsed packet writes", input, error);
    require(out.size() == input.size(), "the written packet is as long as the datagram", input);
    const auto reparsed = kelsip::RtpPacket::parse(out);
    require(reparsed && *reparsed == *first, "the written packet parses to the same packet", input);
    require(reparsed->writeTo(again) && again == out, "writing the reparsed packet gives the same bytes", input);
}
