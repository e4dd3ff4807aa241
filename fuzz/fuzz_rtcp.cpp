// Fuzz target for RtcpCompound::parse: an accepted compound writes back to
// bytes that parse to the same packets, and writing those again is stable.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "media/rtp/rtcp_packet.h"

using velmora::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = velmora::fuzz::asText(data, size);
    const auto first = kelsip::RtcpCompound::parse(std::span<const uint8_t>(data, size));
    if (!first) return 0;
    std::vector<uint8_t> out;
    std::string error;
    require(first->writeTo(out, &error), "a parsed compound writes", input, error);
    // A compound of only skipped types parses to no packets and writes nothing.
    if (out.empty()) {
        require(first->packets.empty(), "only an empty compound writes no bytes", input);
        return 0;
    }
    const auto again = kelsip::RtcpCompound::parse(out, &error);
    require(again.has_value(), "a written compound parses again", input, error);
    require(*again == *first, "the reparsed compound equals the first", input);
    std::vector<uint8_t> rewritten;
    require(again->writeTo(rewritten) && rewritten == out, "writing the reparsed compound gives the same bytes",
            input);
    return 0;
}
