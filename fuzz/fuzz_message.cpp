// Fuzz target for SipMessage::parse: whatever is accepted must serialise to
// text that parses again, stably, and responses built from it must parse too.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sip/syntax/address.h"
#include "sip/syntax/message.h"

using velmora::fuzz::require;

namespace {

// Reads every typed accessor the transaction layer and the user agent use on
// received messages; they parse header values of their own.
void touchAccessors(const kelsip::SipMessage& m) {
    (void)m.callId();
    (void)m.cseq();
    (void)m.fromTag();
    (void)m.toTag();
    (void)m.maxForwards();
    (void)m.expires();
    (void)m.contact();
    (void)m.contentType();
    for (const std::string& v : m.vias()) (void)kelsip::Via::parse(v);
    for (const std::string& r : m.recordRoutes()) (void)kelsip::NameAddr::parse(r);
    for (const std::string& r : m.routes()) (void)kelsip::NameAddr::parse(r);
    for (const std::string& c : m.headers("Contact")) (void)kelsip::NameAddr::parse(c);
}

// Our answer to a received request goes back to its sender; it has to be a
// message the sender (and we ourselves) can parse, carrying the To tag we chose.
void checkResponseTo(const kelsip::SipMessage& request, std::string_view input) {
    const kelsip::SipMessage response = kelsip::makeResponse(request, 180, {}, "fz1");
    const std::string wire = response.toString();
    std::string error;
    const auto parsed = kelsip::SipMessage::parse(wire, &error);
    require(parsed.has_value(), "a response built for a parsed request parses", input, wire + " -> " + error);
    const std::string requestTag = request.toTag();
    const std::string expected = requestTag.empty() ? std::string("fz1") : requestTag;
    velmora::fuzz::checkMessageRoundTrip(*parsed, input);
    require(parsed->toTag() == expected, "the response's To carries the request's tag or the one we chose", input,
            wire);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = velmora::fuzz::asText(data, size);
    std::string error;
    const auto message = kelsip::SipMessage::parse(input, &error);
    if (!message) {
        require(!error.empty(), "a rejected message comes with an error text", input);
        return 0;
    }
    require(message->validate(), "a parsed message passes validation", input);
    touchAccessors(*message);
    velmora::fuzz::checkMessageRoundTrip(*message, input);
    if (message->isRequest) checkResponseTo(*message, input);
    return 0;
}
