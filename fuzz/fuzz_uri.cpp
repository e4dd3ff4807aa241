// Fuzz target for SipUri::parse; URIs are compared both ways, as matching relies on both.
#include "fuzz/fuzz_support.h"
#include "sip/syntax/uri.h"

VELMORA_FUZZ_TARGET {
    if (const auto uri = kelsip::SipUri::parse(input)) {
        velmora::fuzz::checkTextRoundTrip(
            "URI", *uri, input, [](std::string_view t) { return kelsip::SipUri::parse(t); },
            [](const auto& a, const auto& b) { return a == b && b == a && a.headers == b.headers; });
    }
}
