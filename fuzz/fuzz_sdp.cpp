// Fuzz target for SessionDescription::parse and choosing a codec from what it accepts.
#include "fuzz/fuzz_support.h"
#include "media/codec/negotiation.h"
#include "media/sdp/sdp.h"

using velmora::fuzz::require;

VELMORA_FUZZ_TARGET {
    const auto first = kelsip::SessionDescription::parse(input);
    if (!first) return;
    // What the writer cannot carry: an empty session name goes out as "-", and
    // a connection without an address is not written, so its type reads as IP4.
    kelsip::SessionDescription written = *first;
    if (written.sessionName.empty()) written.sessionName = "-";
    if (written.connectionAddress.empty()) written.connectionAddressType = "IP4";
    for (kelsip::MediaDescription& m : written.media) {
        if (m.connectionAddress.empty()) m.connectionAddressType = "IP4";
    }
    velmora::fuzz::checkTextRoundTrip("SDP", *first, input,
                                      [](std::string_view t) { return kelsip::SessionDescription::parse(t); },
                                      [&](const auto& again, const auto&) { return again == written; });
    if (const auto chosen = kelsip::chooseFromOffer(*first, kelsip::AnswerOptions{})) {
        bool listed = false;
        for (const kelsip::MediaDescription& m : first->media) {
            for (const kelsip::RemoteFormat& f : kelsip::remoteFormats(m)) {
                listed = listed || f.payloadType == chosen->payloadType;
            }
        }
        require(listed, "the chosen payload type is one the offer listed", input);
    }
}
