// Fuzz target for RtcpCompound::parse: an accepted compound writes back to
// bytes that parse to the same packets and write again alike; one of only
// skipped types parses to no packets and writes nothing.
#include <vector>

#include "fuzz/fuzz_support.h"
#include "media/rtp/rtcp_packet.h"

using velmora::fuzz::require;

VELMORA_FUZZ_TARGET {
    const auto first = kelsip::RtcpCompound::parse(velmora::fuzz::asBytes(input));
    if (!first) return;
    std::vector<uint8_t> out, again;
    std::string error;
    require(first->writeTo(out, &error), "a parsed compound writes", input, error);
    require(out.empty() == first->packets.empty(), "only an empty compound writes no bytes", input);
    if (out.empty()) return;
    const auto reparsed = kelsip::RtcpCompound::parse(out, &error);
    require(reparsed && *reparsed == *first, "the written compound parses to the same packets", input, error);
    require(reparsed->writeTo(again) && again == out, "writing the reparsed compound gives the same bytes", input);
}
