// Fuzz target for the SDP candidate attribute value.
#include "fuzz/fuzz_support.h"
#include "media/ice/candidate.h"

VELMORA_FUZZ_TARGET {
    std::string error;
    const auto first = kelsip::ice::parseCandidate(input, &error);
    if (!first) {
        velmora::fuzz::require(!error.empty(), "a refusal names its reason", input);
        return;
    }
    // What we write reads back, and writing that gives the same text.
    const std::string text = kelsip::ice::formatCandidate(*first);
    const auto again = kelsip::ice::parseCandidate(text);
    velmora::fuzz::require(again.has_value(), "the written value parses again", input, text);
    velmora::fuzz::require(again->address == first->address && again->priority == first->priority &&
                               again->component == first->component && again->type == first->type &&
                               again->foundation == first->foundation,
                           "the reparsed value equals the first", input, text);
    velmora::fuzz::require(kelsip::ice::formatCandidate(*again) == text, "writing it again gives the same text",
                           input, text);
}
