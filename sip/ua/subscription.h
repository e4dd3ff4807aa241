// What the user agent keeps for subscriptions: ours, and the watchers of
// our presence.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sip/ua/dialog.h"
#include "sip/auth/digest.h"
#include "sip/core/event_loop.h"
#include "sip/syntax/message.h"
#include "sip/transport/sip_target.h"

namespace kelsip {

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

}  // namespace kelsip
