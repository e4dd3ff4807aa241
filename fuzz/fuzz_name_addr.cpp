// Fuzz target for NameAddr::parse (From, To, Contact, Route values).
#include "fuzz/fuzz_support.h"
#include "sip/syntax/address.h"

VELMORA_FUZZ_TARGET {
    if (const auto value = kelsip::NameAddr::parse(input)) {
        velmora::fuzz::checkTextRoundTrip(
            "name-addr", *value, input, [](std::string_view t) { return kelsip::NameAddr::parse(t); },
            [](const auto& a, const auto& b) {
                return a.wildcard == b.wildcard && a.displayName == b.displayName && a.uri == b.uri && b.uri == a.uri &&
                       a.uri.headers == b.uri.headers && a.params == b.params;
            });
    }
}
