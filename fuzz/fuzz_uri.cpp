// Fuzz target for SipUri::parse: an accepted URI's text form parses back to
// an equal URI, and writing that one again gives the same text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sip/syntax/uri.h"

using velmora::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = velmora::fuzz::asText(data, size);
    const auto first = kelsip::SipUri::parse(input);
    if (!first) return 0;
    const std::string text = first->toString();
    const auto again = kelsip::SipUri::parse(text);
    require(again.has_value(), "a URI's text form parses again", input, text);
    // Both directions: the parameter rules of the comparison are not symmetric
    // by construction, and dialog and registration matching rely on both.
    require(*again == *first && *first == *again, "the reparsed URI equals the first", input, text);
    require(again->toString() == text, "writing the reparsed URI gives the same text", input, text);
    require(again->headers == first->headers, "the header part survives the round trip", input, text);
    return 0;
}
