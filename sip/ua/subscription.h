// What the user agent keeps for requests outside calls: pending
// out-of-dialog requests, our subscriptions, the watchers of our presence
// and each line's presence publication.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sip/ua/dialog.h"
#include "sip/auth/digest.h"
#include "sip/dns/server_location.h"
#include "sip/core/event_loop.h"
#include "sip/syntax/message.h"
#include "sip/ua/body/presence.h"
#include "sip/transport/sip_target.h"

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

// Terminated: the notifier ended it for good, or it failed; Unsubscribed:
// we ended it.
enum class SubscriptionState { Subscribing, Pending, Active, Terminated, Unsubscribed };
// "subscribing", "pending", "active", "terminated", "unsubscribed".
[[nodiscard]] std::string_view toString(SubscriptionState state);

// One subscription of ours (RFC 6665), kept alive across refreshes and,
// where the notifier allows it, across new SUBSCRIBE dialogs.
struct Subscription {
    int id = 0;
    int line = 0;
    std::string event;
    SipUri target;
    SubscriptionState state = SubscriptionState::Subscribing;
    std::string reason;
    int statusCode = 0;
    int expires = 0;                 // asked for; a 423's Min-Expires replaces it
    int granted = 0;
    Dialog dialog;
    std::vector<SipTarget> targets;  // where the SUBSCRIBE that made the dialog went
    size_t targetIndex = 0;
    int outgoing = 0;                // the initial SUBSCRIBE while it waits for its answer
    std::string refreshKey;          // an in-dialog SUBSCRIBE in flight
    bool unsubscribing = false;
    uint32_t minExpiresRetries = 0;
    uint32_t authAttempts = 0;       // on in-dialog SUBSCRIBEs
    std::optional<DigestChallenge> challenge;
    DigestRequest digest;
    int renewals = 0;                // new dialogs since a refresh last succeeded
    EventLoop::TimerId refreshTimer = 0;
    EventLoop::TimerId expiryTimer = 0;
    EventLoop::TimerId retryTimer = 0;
    EventLoop::TimerId notifyTimer = 0;  // no NOTIFY within 64*T1 of the SUBSCRIBE
};

// The package an Event header names: "presence" of "presence;id=2".
[[nodiscard]] std::string eventPackage(const SipMessage& message);

// Someone subscribed to our presence.
struct Watcher {
    int id = 0;
    int line = 0;
    std::string event;
    std::string address;             // the subscriber, as its From names it
    Dialog dialog;
    SipTarget source;                // where its SUBSCRIBE came from
    int64_t expiresAtMs = 0;         // on the loop's clock
    EventLoop::TimerId expiryTimer = 0;
};

// A line's presence publication (RFC 3903).
struct Publication {
    PresenceStatus status;
    std::string etag;                // from the last 2xx; empty: none
    int expires = 3600;
    int outgoing = 0;                // the PUBLISH in flight
    bool again = false;              // the status changed while one was in flight
    bool conditionalFailed = false;  // one 412 answered with a fresh publication
    uint32_t minExpiresRetries = 0;
    EventLoop::TimerId refreshTimer = 0;
};

}  // namespace kelsip
