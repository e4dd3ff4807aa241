// Fuzz target for the DNS message decoder.
#include "fuzz/fuzz_support.h"
#include "sip/dns/dns_message.h"

using velmora::fuzz::require;
namespace dns = kelsip::dns;

namespace {

// A decoded name is one the encoder accepts (so it fits in 255 wire bytes)
// and that reads back to the same text: the escapes are each other's inverse.
void checkName(const std::string& name, std::string_view input) {
    std::string error;
    const auto query = dns::encodeQuery(0x4242, name, dns::RecordType::A, true, &error);
    require(query.has_value(), "a decoded name encodes again", input, name + " -> " + error);
    std::vector<uint8_t> asResponse = *query;
    asResponse[2] |= 0x80;
    const auto again = dns::decodeMessage(asResponse, &error);
    require(again.has_value() && again->questions.size() == 1, "an encoded name decodes again", input,
            name + " -> " + error);
    require(again->questions[0].name == name, "a name survives the wire unchanged", input,
            name + " -> " + again->questions[0].name);
}

void checkRecord(const dns::ResourceRecord& rr, std::string_view input) {
    checkName(rr.name, input);
    if (const std::string* target = rr.target()) checkName(*target, input);
    if (const dns::SrvData* srv = rr.srv()) checkName(srv->target, input);
    if (const dns::NaptrData* naptr = rr.naptr()) checkName(naptr->replacement, input);
    if (const dns::SoaData* soa = rr.soa()) {
        checkName(soa->primary, input);
        checkName(soa->mailbox, input);
    }
}

}  // namespace

VELMORA_FUZZ_TARGET {
    const auto bytes = velmora::fuzz::asBytes(input);
    std::string error;
    const auto header = dns::decodeHeader(bytes, &error);
    require(header.has_value() == (input.size() >= 12), "a header is read from any 12 bytes", input, error);

    error.clear();
    const auto message = dns::decodeMessage(bytes, &error);
    if (!message) {
        require(!error.empty(), "a refused message says why", input);
        return;
    }
    require(message->questions.size() == header->questionCount && message->answers.size() == header->answerCount &&
                message->authority.size() == header->authorityCount &&
                message->additional.size() == header->additionalCount,
            "the sections hold as many entries as the header says", input);
    for (const dns::Question& q : message->questions) checkName(q.name, input);
    for (const auto* section : {&message->answers, &message->authority, &message->additional}) {
        for (const dns::ResourceRecord& rr : *section) checkRecord(rr, input);
    }
}
