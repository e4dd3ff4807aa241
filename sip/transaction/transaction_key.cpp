// Transaction keys: how responses find their client transaction and
// requests their server transaction.
#include "sip/syntax/address.h"
#include "sip/syntax/text.h"
#include "sip/transaction/transaction.h"

namespace kelsip {

std::optional<std::string> clientKeyOf(const SipMessage& message) {
    const auto top = message.header("Via");
    const auto cseq = message.cseq();
    if (!top || !cseq) return std::nullopt;
    const auto via = Via::parse(*top);
    if (!via) return std::nullopt;
    const std::string branch = via->branch();
    if (branch.empty()) return std::nullopt;
    return branch + "|" + cseq->method;
}

std::optional<std::string> serverKeyOf(const SipMessage& request, std::string_view asMethod) {
    const auto top = request.header("Via");
    const auto cseq = request.cseq();
    if (!top || !cseq) return std::nullopt;
    const auto via = Via::parse(*top);
    if (!via) return std::nullopt;
    std::string method(asMethod);
    if (method.empty()) method = request.method == "ACK" ? "INVITE" : request.method;
    if (isRfc3261Branch(*via)) {
        // RFC 3261 17.2.3: branch, sent-by and method.
        return via->branch() + "|" + text::lower(via->host) + ":" + std::to_string(via->port) + "|" + method;
    }
    // RFC 2543: the request's own identity. The To tag is left out so that an
    // ACK, whose To carries the tag of our answer, finds its INVITE.
    return "2543|" + request.requestUri.toString() + "|" + request.fromTag() + "|" + request.callId() + "|" +
           std::to_string(cseq->number) + "|" + *top + "|" + method;
}

}  // namespace kelsip
