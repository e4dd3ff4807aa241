// Our subscriptions (RFC 6665): the first SUBSCRIBE, refreshes, the NOTIFYs
// that arrive, termination and renewal, and unsubscribing.
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/ua/body/message_summary.h"
#include "sip/syntax/text.h"
#include "sip/ua/subscriptions.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";
// New dialogs in a row, without a refresh succeeding in between, before a
// subscription is given up: a notifier that ends every subscription at once
// is not asked forever.
constexpr int kMaxRenewals = 5;
// When the notifier ends a subscription without saying when to come back.
constexpr int64_t kRenewDelayMs = 60000;
constexpr int kDefaultExpires = 3600;

std::string subscriptionPrefix(const Subscription& s) { return "subscription " + std::to_string(s.id); }

std::string_view acceptFor(std::string_view event) {
    if (event == "message-summary") return kMessageSummaryContentType;
    if (event == "presence") return kPidfContentType;
    if (event == "dialog") return kDialogInfoContentType;
    return {};
}

struct SubscriptionStateValue {
    std::string state;       // lower case: "active", "pending", "terminated"
    std::string reason;
    int64_t expires = -1;    // -1: absent
    int64_t retryAfter = -1;
};

SubscriptionStateValue parseSubscriptionState(std::string_view value) {
    SubscriptionStateValue out;
    const size_t semi = value.find(';');
    out.state = text::lower(text::trim(value.substr(0, semi)));
    if (semi == std::string_view::npos) return out;
    const ParamList params = parseParams(value.substr(semi));
    if (const auto reason = paramValue(params, "reason")) out.reason = text::lower(*reason);
    if (const auto e = paramValue(params, "expires")) out.expires = parseHeaderInteger(*e).value_or(-1);
    if (const auto r = paramValue(params, "retry-after")) out.retryAfter = parseHeaderInteger(*r).value_or(-1);
    return out;
}

}  // namespace

std::string eventPackage(const SipMessage& message) {
    const std::string value = message.header("Event").value_or("");
    return std::string(text::trim(std::string_view(value).substr(0, value.find(';'))));
}

std::string_view toString(SubscriptionState state) {
    switch (state) {
        case SubscriptionState::Subscribing: return "subscribing";
        case SubscriptionState::Pending: return "pending";
        case SubscriptionState::Active: return "active";
        case SubscriptionState::Terminated: return "terminated";
        case SubscriptionState::Unsubscribed: return "unsubscribed";
    }
    return "terminated";
}

Subscription* Subscriptions::find(int id) {
    const auto it = subscriptions_.find(id);
    return it == subscriptions_.end() ? nullptr : &it->second;
}

Subscription* Subscriptions::findByDialog(const SipMessage& request, bool& sameDialogOtherFork) {
    const std::string callId = request.callId();
    const std::string ours = request.toTag();
    const std::string theirs = request.fromTag();
    for (auto& [id, s] : subscriptions_) {
        if (s.dialog.callId != callId || s.dialog.localTag != ours) continue;
        if (s.dialog.remoteTag.empty() || s.dialog.remoteTag == theirs) return &s;
        sameDialogOtherFork = true;
    }
    return nullptr;
}

SubscriptionInfo Subscriptions::infoOf(const Subscription& s) {
    SubscriptionInfo info;
    info.id = s.id;
    info.line = s.line;
    info.event = s.event;
    info.target = s.target.toString();
    info.state = std::string(toString(s.state));
    info.reason = s.reason;
    info.statusCode = s.statusCode;
    info.expires = s.granted;
    return info;
}

std::optional<SubscriptionInfo> Subscriptions::info(int id) const {
    const auto it = subscriptions_.find(id);
    if (it == subscriptions_.end()) return std::nullopt;
    return infoOf(it->second);
}

int Subscriptions::subscribe(int lineId, const std::string& target, const std::string& event, int expires) {
    const Line* line = lines_.find(lineId);
    if (line == nullptr || !ctx_.started || event.empty()) return 0;
    const auto uri = UaContext::completeTarget(*line, target);
    if (!uri) return 0;
    const int id = nextSubscriptionId_++;
    Subscription& s = subscriptions_[id];
    s.id = id;
    s.line = lineId;
    s.event = event;
    s.target = *uri;
    s.expires = expires > 0 ? expires : kDefaultExpires;
    log::info(kTag, subscriptionPrefix(s) + ": " + event + " of " + s.target.toString());
    // The first state is announced as it is entered.
    if (ctx_.listener) ctx_.listener->onSubscriptionState(infoOf(s));
    start(s);
    return id;
}

void Subscriptions::start(Subscription& s) {
    const Line* line = lines_.find(s.line);
    if (line == nullptr) {
        finish(s, SubscriptionState::Terminated, 0, "line removed");
        return;
    }
    SipMessage m = outgoing_.build(*line, "SUBSCRIBE", s.target);
    // A new dialog each time: its identity is the request's.
    s.dialog = Dialog{};
    s.dialog.callId = m.callId();
    s.dialog.localTag = m.fromTag();
    s.dialog.localUri = m.header("From").value_or("");
    s.dialog.localUri = s.dialog.localUri.substr(0, s.dialog.localUri.rfind(";tag="));
    s.dialog.remoteUri = "<" + s.target.toString() + ">";
    s.dialog.remoteTarget = s.target;
    s.dialog.localCseq = 1;
    s.challenge.reset();
    s.authAttempts = 0;
    s.granted = 0;
    m.addHeader("Contact", ctx_.contactUri(line, SipTarget{}));
    m.addHeader("Event", s.event);
    m.addHeader("Expires", std::to_string(s.expires));
    if (const auto accept = acceptFor(s.event); !accept.empty()) m.addHeader("Accept", accept);
    m.addHeader("Allow", kUserAgentAllow);
    m.addHeader("Allow-Events", "presence");
    m.addHeader("User-Agent", ctx_.config.userAgent);
    const int id = s.id;
    s.outgoing = outgoing_.send(*line, std::move(m), [this, id](Outgoing& o, int code, const std::string& reason,
                                                              const SipMessage* response) {
        Subscription* found = find(id);
        if (found == nullptr || found->outgoing != o.id) return;
        found->outgoing = 0;
        // Digest answers raised the CSeq; the dialog goes on from there.
        if (const auto cseq = o.request.cseq()) found->dialog.localCseq = cseq->number;
        found->targets = o.targets;
        found->targetIndex = o.targetIndex;
        onFirstSubscribeAnswer(id, code, reason, response);
    });
}

void Subscriptions::onFirstSubscribeAnswer(int id, int code, const std::string& reason, const SipMessage* response) {
    Subscription* found = find(id);
    if (found == nullptr) return;
    Subscription& s = *found;
    if (code >= 200 && code < 300 && response != nullptr) {
        // A NOTIFY that came first has already fixed the dialog.
        if (s.dialog.remoteTag.empty()) {
            s.dialog.remoteTag = response->toTag();
            if (const auto contact = NameAddr::parse(response->header("Contact").value_or(""))) {
                s.dialog.remoteTarget = contact->uri;
            }
            s.dialog.routeSet = response->recordRoutes();
            std::reverse(s.dialog.routeSet.begin(), s.dialog.routeSet.end());
        }
        if (s.unsubscribing) {
            sendSubscribeInDialog(s, 0);
            return;
        }
        grant(s, static_cast<int>(std::clamp<int64_t>(response->expires().value_or(s.expires), 0, INT32_MAX)));
        if (s.state == SubscriptionState::Subscribing) {
            // The notifier owes us a NOTIFY at once; none within 64*T1
            // means the subscription did not take.
            s.notifyTimer = ctx_.transactions->schedule(64 * ctx_.config.timers.t1Ms, [this, id] {
                Subscription* again = find(id);
                if (again == nullptr) return;
                again->notifyTimer = 0;
                log::warn(kTag, subscriptionPrefix(*again) + ": no NOTIFY after the SUBSCRIBE was accepted");
                terminated(*again, "timeout", -1);
            });
        }
        return;
    }
    if (s.unsubscribing) {
        finish(s, SubscriptionState::Unsubscribed, code, reason);
        return;
    }
    if (code == 423 && response != nullptr && s.minExpiresRetries < 3) {
        if (const auto minExpires = minExpiresOf(*response)) {
            ++s.minExpiresRetries;
            s.expires = *minExpires;
            log::info(kTag, subscriptionPrefix(s) + ": expiry raised to " + std::to_string(s.expires) + " s");
            start(s);
            return;
        }
    }
    log::warn(kTag, subscriptionPrefix(s) + ": SUBSCRIBE failed with " + std::to_string(code));
    finish(s, SubscriptionState::Terminated, code, code == 489 ? "bad-event" : reason);
}

void Subscriptions::grant(Subscription& s, int seconds) {
    s.granted = seconds;
    ctx_.loop->cancel(s.refreshTimer);
    ctx_.loop->cancel(s.expiryTimer);
    s.refreshTimer = s.expiryTimer = 0;
    if (seconds <= 0) return;
    const int id = s.id;
    s.refreshTimer = ctx_.transactions->schedule(refreshAfterSeconds(seconds) * 1000, [this, id] {
        Subscription* found = find(id);
        if (found == nullptr) return;
        found->refreshTimer = 0;
        sendSubscribeInDialog(*found, found->expires);
    });
    s.expiryTimer = ctx_.transactions->schedule(int64_t{seconds} * 1000, [this, id] {
        Subscription* found = find(id);
        if (found == nullptr) return;
        found->expiryTimer = 0;
        log::info(kTag, subscriptionPrefix(*found) + " expired without a refresh");
        terminated(*found, "timeout", -1);
    });
}

void Subscriptions::sendSubscribeInDialog(Subscription& s, int expires) {
    // One at a time; the answer to the one in flight sends what is wanted next.
    if (!s.refreshKey.empty()) return;
    const Line* line = lines_.find(s.line);
    const SipTarget target = UaContext::dialogTarget(s.dialog, s.targets.empty() ? SipTarget{} : s.targets[s.targetIndex]);
    SipMessage m = ctx_.buildDialogRequest(s.dialog, "SUBSCRIBE", target);
    m.addHeader("Contact", ctx_.contactUri(line, target));
    m.addHeader("Event", s.event);
    m.addHeader("Expires", std::to_string(expires));
    if (const auto accept = acceptFor(s.event); !accept.empty()) m.addHeader("Accept", accept);
    m.addHeader("User-Agent", ctx_.config.userAgent);
    if (s.challenge && line != nullptr) ctx_.addCredentials(m, line->config, *s.challenge, s.digest);
    const int id = s.id;
    s.refreshKey = ctx_.transactions->sendRequest(
        m, target, [this, id, expires](const SipMessage* r) { onSubscribeRefreshAnswer(id, r, expires); });
}

void Subscriptions::onSubscribeRefreshAnswer(int id, const SipMessage* response, int expiresAsked) {
    Subscription* found = find(id);
    if (found == nullptr) return;
    Subscription& s = *found;
    if (response != nullptr && response->statusCode < 200) return;
    s.refreshKey.clear();
    const int code = response != nullptr ? response->statusCode : 408;
    auto challenge = response != nullptr ? challengeOf(*response) : std::nullopt;
    if (challenge && s.authAttempts < 2) {
        ++s.authAttempts;
        s.challenge = std::move(*challenge);
        s.digest.nonceCount = 0;
        sendSubscribeInDialog(s, s.unsubscribing ? 0 : expiresAsked);
        return;
    }
    s.authAttempts = 0;
    if (s.unsubscribing) {
        if (code >= 200 && code < 300 && expiresAsked == 0) {
            // The notifier's last NOTIFY ends it; if none comes, we do.
            ctx_.loop->cancel(s.notifyTimer);
            s.notifyTimer = ctx_.transactions->schedule(64 * ctx_.config.timers.t1Ms, [this, id] {
                if (Subscription* again = find(id)) {
                    again->notifyTimer = 0;
                    finish(*again, SubscriptionState::Unsubscribed, 0, "");
                }
            });
        } else if (code >= 200 && code < 300) {
            sendSubscribeInDialog(s, 0);  // a refresh crossed the unsubscribe
        } else {
            finish(s, SubscriptionState::Unsubscribed, code, response != nullptr ? response->reason : "");
        }
        return;
    }
    if (code >= 200 && code < 300) {
        s.renewals = 0;
        s.minExpiresRetries = 0;
        grant(s, static_cast<int>(std::clamp<int64_t>(response->expires().value_or(expiresAsked), 0, INT32_MAX)));
        return;
    }
    if (code == 423 && s.minExpiresRetries < 3) {
        if (const auto minExpires = minExpiresOf(*response)) {
            ++s.minExpiresRetries;
            s.expires = *minExpires;
            sendSubscribeInDialog(s, s.expires);
            return;
        }
    }
    if (code == 481) {
        // The notifier has forgotten the dialog: a new one.
        log::info(kTag, subscriptionPrefix(s) + ": refresh answered 481, subscribing again");
        s.reason = "";
        renew(s, 0);
        return;
    }
    if (code == 489) {
        finish(s, SubscriptionState::Terminated, 489, "bad-event");
        return;
    }
    // The subscription holds until it expires; the expiry renews it.
    log::warn(kTag, subscriptionPrefix(s) + ": refresh failed with " + std::to_string(code));
}

void Subscriptions::onNotify(Subscription& s, const std::string& key, const SipMessage& request) {
    if (eventPackage(request) != s.event) {
        ctx_.respond(key, request, 489, {}, {{"Allow-Events", "presence"}});
        return;
    }
    const auto stateHeader = request.header("Subscription-State");
    if (!stateHeader) {
        ctx_.respond(key, request, 400, "Missing Subscription-State");
        return;
    }
    const auto cseq = request.cseq();
    if (cseq && s.dialog.remoteCseq && cseq->number < *s.dialog.remoteCseq) {
        ctx_.respond(key, request, 500, "Out of Order");
        return;
    }
    if (cseq) s.dialog.remoteCseq = cseq->number;
    if (s.dialog.remoteTag.empty()) {
        // The NOTIFY overtook the 2xx: it sets up the dialog, as the request
        // that reached us (its route set in the order it came).
        s.dialog.remoteTag = request.fromTag();
        if (const auto contact = NameAddr::parse(request.header("Contact").value_or(""))) {
            s.dialog.remoteTarget = contact->uri;
        }
        s.dialog.routeSet = request.recordRoutes();
    }
    ctx_.respond(key, request, 200);
    ctx_.loop->cancel(s.notifyTimer);
    s.notifyTimer = 0;

    const int id = s.id;
    const SubscriptionStateValue state = parseSubscriptionState(*stateHeader);
    if (ctx_.listener) ctx_.listener->onNotifyState(id, *stateHeader);
    if (!request.body.empty()) {
        const std::string type = request.contentType().value_or("");
        if (ctx_.listener) ctx_.listener->onNotifyContent(id, type, request.body);
        std::string error;
        if (s.event == "message-summary" && !parseMessageSummary(request.body, &error)) {
            log::warn(kTag, subscriptionPrefix(s) + ": unreadable message summary: " + error);
        } else if (ctx_.listener) {
            ctx_.listener->onSubscriptionBody(id, s.event, request.body);
        }
    }
    // The listener may have unsubscribed.
    Subscription* again = find(id);
    if (again == nullptr) return;
    if (again->unsubscribing) {
        if (state.state == "terminated") finish(*again, SubscriptionState::Unsubscribed, 0, "");
        return;
    }
    if (state.state == "active" || state.state == "pending") {
        if (state.expires > 0) grant(*again, static_cast<int>(std::min<int64_t>(state.expires, INT32_MAX)));
        setState(*again, state.state == "active" ? SubscriptionState::Active : SubscriptionState::Pending);
    } else if (state.state == "terminated") {
        terminated(*again, state.reason,
                               static_cast<int>(std::clamp<int64_t>(state.retryAfter, -1, INT32_MAX)));
    }
}

void Subscriptions::onUnsolicitedNotify(const std::string& key, const SipMessage& request) {
    // Message waiting comes from many registrars without a SUBSCRIBE; any
    // other package outside a subscription of ours names nothing we know.
    if (eventPackage(request) != "message-summary") {
        ctx_.respond(key, request, 481);
        return;
    }
    ctx_.respond(key, request, 200);
    std::string error;
    if (!parseMessageSummary(request.body, &error)) {
        log::warn(kTag, "unsolicited message summary dropped: " + error);
        return;
    }
    log::info(kTag, "unsolicited message summary from " + request.header("From").value_or(""));
    if (!ctx_.listener) return;
    ctx_.listener->onNotifyContent(0, request.contentType().value_or(""), request.body);
    ctx_.listener->onSubscriptionBody(0, "message-summary", request.body);
}

void Subscriptions::terminated(Subscription& s, const std::string& reason, int retryAfterSeconds) {
    log::info(kTag, subscriptionPrefix(s) + " terminated" + (reason.empty() ? "" : ": " + reason));
    s.reason = reason;
    // RFC 6665: a new subscription at once after "deactivated" or
    // "timeout", later after "probation"; never after "rejected",
    // "noresource", "giveup" or "invariant". Without a reason (or with one
    // we do not know) we try again later.
    if (reason == "deactivated" || reason == "timeout") {
        renew(s, 0);
    } else if (reason == "rejected" || reason == "noresource" || reason == "giveup" || reason == "invariant") {
        finish(s, SubscriptionState::Terminated, 0, reason);
    } else {
        renew(s, retryAfterSeconds >= 0 ? int64_t{retryAfterSeconds} * 1000 : kRenewDelayMs);
    }
}

void Subscriptions::renew(Subscription& s, int64_t afterMs) {
    clearTimers(s);
    if (s.outgoing != 0) outgoing_.abandon(s.outgoing);
    s.outgoing = 0;
    s.refreshKey.clear();
    if (s.renewals >= kMaxRenewals) {
        log::warn(kTag, subscriptionPrefix(s) + ": given up after " + std::to_string(kMaxRenewals) + " new subscriptions");
        finish(s, SubscriptionState::Terminated, 0, s.reason);
        return;
    }
    ++s.renewals;
    setState(s, SubscriptionState::Subscribing);
    if (afterMs <= 0) {
        start(s);
        return;
    }
    const int id = s.id;
    s.retryTimer = ctx_.transactions->schedule(afterMs, [this, id] {
        Subscription* found = find(id);
        if (found == nullptr) return;
        found->retryTimer = 0;
        start(*found);
    });
}

void Subscriptions::setState(Subscription& s, SubscriptionState state) {
    if (s.state == state) return;
    s.state = state;
    log::info(kTag, subscriptionPrefix(s) + " -> " + std::string(toString(state)));
    if (ctx_.listener) ctx_.listener->onSubscriptionState(infoOf(s));
}

void Subscriptions::finish(Subscription& s, SubscriptionState state, int code, const std::string& reason) {
    clearTimers(s);
    if (s.outgoing != 0) outgoing_.abandon(s.outgoing);
    s.outgoing = 0;
    s.statusCode = code;
    s.reason = reason;
    s.granted = 0;
    setState(s, state);
    // Reported once, then gone, after whoever holds it now has finished.
    const int id = s.id;
    ctx_.loop->post([this, id] { subscriptions_.erase(id); });
}

void Subscriptions::clearTimers(Subscription& s) {
    for (EventLoop::TimerId* timer : {&s.refreshTimer, &s.expiryTimer, &s.retryTimer, &s.notifyTimer}) {
        ctx_.loop->cancel(*timer);
        *timer = 0;
    }
}

bool Subscriptions::unsubscribe(int id) {
    Subscription* found = find(id);
    if (found == nullptr || found->unsubscribing || found->state == SubscriptionState::Terminated ||
        found->state == SubscriptionState::Unsubscribed) {
        return false;
    }
    Subscription& s = *found;
    s.unsubscribing = true;
    clearTimers(s);
    log::info(kTag, subscriptionPrefix(s) + ": unsubscribing");
    if (s.outgoing != 0) return true;  // the answer to the first SUBSCRIBE decides
    if (s.dialog.remoteTag.empty()) {
        // Nothing is established (a renewal is waiting): nothing to withdraw.
        finish(s, SubscriptionState::Unsubscribed, 0, "");
        return true;
    }
    sendSubscribeInDialog(s, 0);
    return true;
}

void Subscriptions::unsubscribeAll() {
    std::vector<int> ids;
    for (const auto& [id, s] : subscriptions_) ids.push_back(id);
    for (const int id : ids) (void)unsubscribe(id);
}

size_t Subscriptions::pendingWithdrawals() const {
    size_t pending = 0;
    for (const auto& [id, s] : subscriptions_) pending += s.unsubscribing && (s.outgoing != 0 || !s.refreshKey.empty());
    return pending;
}

}  // namespace kelsip
