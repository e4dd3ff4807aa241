// Fuzz target for NameAddr::parse (From, To, Contact, Route values): the
// text form of an accepted value parses back to the same display name, URI
// and header parameters.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sip/syntax/address.h"

using velmora::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = velmora::fuzz::asText(data, size);
    const auto first = kelsip::NameAddr::parse(input);
    if (!first) return 0;
    const std::string text = first->toString();
    const auto again = kelsip::NameAddr::parse(text);
    require(again.has_value(), "a name-addr's text form parses again", input, text);
    require(again->wildcard == first->wildcard, "the wildcard survives the round trip", input, text);
    require(again->displayName == first->displayName, "the display name survives the round trip", input, text);
    require(again->uri == first->uri && first->uri == again->uri, "the URI survives the round trip", input, text);
    require(again->uri.headers == first->uri.headers, "the URI's header part survives the round trip", input, text);
    // Tags decide dialog membership, so header parameters must come back exactly.
    require(again->params == first->params, "the header parameters survive the round trip", input, text);
    require(again->toString() == text, "writing the reparsed name-addr gives the same text", input, text);
    return 0;
}
