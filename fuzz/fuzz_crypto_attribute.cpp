// Fuzz target for the SDP crypto attribute (RFC 4568) parser.
#include "fuzz/fuzz_support.h"
#include "media/srtp/sdes.h"

VELMORA_FUZZ_TARGET {
    std::string error;
    const auto first = kelsip::srtp::parseCryptoAttribute(input, &error);
    if (!first) {
        velmora::fuzz::require(!error.empty(), "a refused attribute says why", input);
        return;
    }
    const std::string text = kelsip::srtp::formatCryptoAttribute(*first);
    const auto again = kelsip::srtp::parseCryptoAttribute(text, &error);
    velmora::fuzz::require(again.has_value(), "the written attribute parses again", input, text);
    velmora::fuzz::require(*again == *first, "the reparsed attribute is the same", input, text);
    velmora::fuzz::require(kelsip::srtp::formatCryptoAttribute(*again) == text, "writing it again gives the same text",
                           input, text);
}
