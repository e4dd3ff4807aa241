// Fuzz target for SessionDescription::parse: an accepted body's text form
// parses again to the same model, and writes to the same text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "media/codec/negotiation.h"
#include "media/sdp/sdp.h"

using velmora::fuzz::require;

namespace {

// What the writer cannot carry: an empty session name goes out as "-", and a
// connection without an address is not written, so its type reads back as IP4.
kelsip::SessionDescription written(kelsip::SessionDescription sdp) {
    if (sdp.sessionName.empty()) sdp.sessionName = "-";
    if (sdp.connectionAddress.empty()) sdp.connectionAddressType = "IP4";
    for (kelsip::MediaDescription& m : sdp.media) {
        if (m.connectionAddress.empty()) m.connectionAddressType = "IP4";
    }
    return sdp;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = velmora::fuzz::asText(data, size);
    const auto first = kelsip::SessionDescription::parse(input);
    if (!first) return 0;
    const std::string text = first->toString();
    std::string error;
    const auto again = kelsip::SessionDescription::parse(text, &error);
    require(again.has_value(), "a written description parses again", input, text + " -> " + error);
    require(*again == written(*first), "the reparsed description equals the first", input, text);
    require(again->toString() == text, "writing the reparsed description gives the same text", input, text);

    // Whatever a peer sends, choosing a codec from it must not fault, and a
    // choice must name one of the formats on the line it came from.
    if (const auto chosen = kelsip::chooseFromOffer(*first, kelsip::AnswerOptions{})) {
        bool listed = false;
        for (const kelsip::MediaDescription& m : first->media) {
            for (const kelsip::RemoteFormat& f : kelsip::remoteFormats(m)) listed = listed || f.payloadType == chosen->payloadType;
        }
        require(listed, "the chosen payload type is one the offer listed", input);
    }
    return 0;
}
