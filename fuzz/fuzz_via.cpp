// Fuzz target for Via::parse: the text form of an accepted Via value parses
// back to the same transport, sent-by and parameters.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sip/syntax/address.h"

using velmora::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = velmora::fuzz::asText(data, size);
    const auto first = kelsip::Via::parse(input);
    if (!first) return 0;
    const std::string text = first->toString();
    const auto again = kelsip::Via::parse(text);
    require(again.has_value(), "a Via's text form parses again", input, text);
    require(again->transport == first->transport, "the transport survives the round trip", input, text);
    require(again->host == first->host && again->port == first->port, "the sent-by survives the round trip", input,
            text);
    // Responses are routed back by branch, received and rport: exact equality.
    require(again->params == first->params, "the parameters survive the round trip", input, text);
    require(again->toString() == text, "writing the reparsed Via gives the same text", input, text);
    (void)kelsip::isRfc3261Branch(*first);
    return 0;
}
