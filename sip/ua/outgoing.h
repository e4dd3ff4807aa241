// Requests outside any dialog (MESSAGE, PUBLISH, a subscription's first
// SUBSCRIBE) until their final answer: resolution, failover, digest answers.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sip/auth/digest.h"
#include "sip/dns/server_location.h"
#include "sip/syntax/message.h"
#include "sip/transport/sip_target.h"
#include "sip/ua/lines.h"
#include "sip/ua/ua_context.h"

namespace kelsip {

struct Outgoing;
// How an out-of-dialog request ended: its final answer, or none (code 408
// after the last target timed out; code 0 when the target did not resolve).
using OutgoingDone = std::function<void(Outgoing& request, int code, const std::string& reason,
                                        const SipMessage* response)>;

// One out-of-dialog request until its final answer: failover over the
// resolved targets and its own digest answers.
struct Outgoing {
    int id = 0;
    int line = 0;
    SipMessage request;
    std::vector<SipTarget> targets;
    size_t targetIndex = 0;
    uint32_t attempts = 0;           // 401/407 answers so far
    std::optional<DigestChallenge> challenge;
    DigestRequest digest;            // this request's own nonce count
    dns::ServerLocator::LocateId locating = 0;
    std::string transaction;
    OutgoingDone done;
};

class OutgoingRequests {
public:
    OutgoingRequests(UaContext& context, const Lines& lines) : ctx_(context), lines_(lines) {}

    // A request from `line` to `to`, with its own Call-ID and From tag.
    [[nodiscard]] SipMessage build(const Line& line, std::string_view method, const SipUri& to);
    // Sends `request` for `line`; `done` hears how it ended. Returns its id.
    int send(const Line& line, SipMessage request, OutgoingDone done);
    // Forgets a request; an answer still to come is dropped.
    void abandon(int id);
    // An id of the same series for a request that was never sent.
    int reserveId() { return nextId_++; }
    void clear() { outgoing_.clear(); }

private:
    void transmit(Outgoing& request);
    void onAnswer(int id, const SipMessage* response);
    void finish(int id, int code, const std::string& reason, const SipMessage* response);

    UaContext& ctx_;
    const Lines& lines_;
    std::map<int, Outgoing> outgoing_;
    int nextId_ = 1;
};

}  // namespace kelsip
