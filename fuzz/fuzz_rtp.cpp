// Fuzz target for RtpPacket::parse: an accepted datagram accounts for every
// byte, writes back to bytes of the same size that parse to the same packet,
// and writing that packet again gives the same bytes.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "media/rtp/rtp_packet.h"

using velmora::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = velmora::fuzz::asText(data, size);
    const auto first = kelsip::RtpPacket::parse(std::span<const uint8_t>(data, size));
    if (!first) return 0;
    std::vector<uint8_t> out;
    std::string error;
    require(first->writeTo(out, &error), "a parsed packet writes", input, error);
    // Padding octets other than the count are not kept, but their number is.
    require(out.size() == size, "the written packet is as long as the datagram", input);
    const auto again = kelsip::RtpPacket::parse(out, &error);
    require(again.has_value(), "a written packet parses again", input, error);
    require(*again == *first, "the reparsed packet equals the first", input);
    std::vector<uint8_t> rewritten;
    require(again->writeTo(rewritten) && rewritten == out, "writing the reparsed packet gives the same bytes", input);
    return 0;
}
