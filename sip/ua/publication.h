// The publication of each line's presence by PUBLISH (RFC 3903): the first
// state, refreshes, changes, and its removal.
#pragma once

#include <map>

#include "sip/ua/lines.h"
#include "sip/ua/outgoing.h"
#include "sip/ua/ua_context.h"

namespace kelsip {

// One line's publication.
struct PublicationState {
    std::string etag;                // from the last 2xx; empty: none
    int expires = 3600;
    int outgoing = 0;                // the PUBLISH in flight
    bool again = false;              // the status changed while one was in flight
    bool conditionalFailed = false;  // one 412 answered with a fresh publication
    uint32_t minExpiresRetries = 0;
    EventLoop::TimerId refreshTimer = 0;
};

class Publication {
public:
    Publication(UaContext& context, const Lines& lines, OutgoingRequests& outgoing)
        : ctx_(context), lines_(lines), outgoing_(outgoing) {}

    // Publishes the line's present status.
    void publishStatus(const Line& line);
    // Takes the line's publication back: a removal when one is in force.
    void withdraw(const Line& line);
    // Forgets a removed line's publication; the answer to its removal is dropped.
    void forget(int line) { states_.erase(line); }
    // How many PUBLISH requests still wait for their answer.
    [[nodiscard]] size_t pending() const;
    // Stops every refresh timer.
    void stop();

private:
    void publish(const Line& line, int expires, bool withBody);
    void onPublishAnswer(int lineId, int code, const std::string& reason, const SipMessage* response, int expires);

    UaContext& ctx_;
    const Lines& lines_;
    OutgoingRequests& outgoing_;
    std::map<int, PublicationState> states_;
};

}  // namespace kelsip
