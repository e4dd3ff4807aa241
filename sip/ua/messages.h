// Instant messages: MESSAGE sent from a line and MESSAGE received.
#pragma once

#include <string>

#include "sip/ua/lines.h"
#include "sip/ua/outgoing.h"
#include "sip/ua/ua_context.h"

namespace kelsip {

class Messages {
public:
    Messages(UaContext& context, Lines& lines, OutgoingRequests& outgoing)
        : ctx_(context), lines_(lines), outgoing_(outgoing) {}

    // Returns the message's id (its result is reported under it), 0 when
    // it cannot be sent at all.
    int send(int line, const std::string& target, const std::string& body, const std::string& contentType);
    // Out of dialog the request names the line; within a call, `lineId` is the call's.
    void onIncoming(const std::string& key, const SipMessage& request, int lineId = 0);

private:
    UaContext& ctx_;
    Lines& lines_;
    OutgoingRequests& outgoing_;
};

}  // namespace kelsip
