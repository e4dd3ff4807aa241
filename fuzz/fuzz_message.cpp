// Fuzz target for SipMessage::parse, and for the answers to what it refuses.
#include "fuzz/fuzz_support.h"
#include "sip/syntax/address.h"

using velmora::fuzz::require;

VELMORA_FUZZ_TARGET {
    std::string error;
    const auto m = kelsip::SipMessage::parse(input, &error);
    require(m || !error.empty(), "a rejected message comes with an error text", input);
    if (!m) {
        const auto answer = kelsip::answerMalformedRequest(input, error);
        if (!answer) return;
        require(kelsip::answerMalformedRequest(input, error) == answer, "the same bytes get the same answer", input);
        std::string why;
        const auto response = kelsip::SipMessage::parse(answer->response, &why);
        // Headers are copied as written: a faulty one stays faulty, nothing else may be.
        bool copiedFault = false;
        for (const char* name : {"Via", "From", "To", "Call-ID", "CSeq"}) copiedFault |= why.find(name) != why.npos;
        require(response ? !response->isRequest && response->statusCode == answer->status : copiedFault,
                "an answer parses as a response of its status, unless a copied header is at fault", input,
                answer->response + " -> " + why);
        return;
    }
    require(m->validate(), "a parsed message passes validation", input);
    // The accessors the transaction layer and the user agent use parse header values of their own.
    (void)m->callId(), (void)m->cseq(), (void)m->fromTag(), (void)m->maxForwards(), (void)m->expires();
    (void)m->contact(), (void)m->contentType();
    for (const std::string& v : m->vias()) (void)kelsip::Via::parse(v);
    for (const auto& list : {m->recordRoutes(), m->routes(), m->headers("Contact")}) {
        for (const std::string& r : list) (void)kelsip::NameAddr::parse(r);
    }
    velmora::fuzz::checkMessageRoundTrip(*m, input);
    if (!m->isRequest) return;
    const std::string wire = kelsip::makeResponse(*m, 180, {}, "fz1").toString();
    const auto response = kelsip::SipMessage::parse(wire, &error);
    require(response.has_value(), "a response built for a parsed request parses", input, wire + " -> " + error);
    velmora::fuzz::checkMessageRoundTrip(*response, input);
    require(response->toTag() == (m->toTag().empty() ? std::string("fz1") : m->toTag()),
            "the response's To carries the request's tag or the one we chose", input, wire);
}
