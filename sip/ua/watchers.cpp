// Our presence: the watchers who subscribe to it (their NOTIFYs carry the
// PIDF document) and its publication by PUBLISH (RFC 3903).
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/ua/user_agent_impl.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";
constexpr int64_t kDefaultWatcherExpires = 3600;

std::string linePrefix(int line) { return "line " + std::to_string(line); }

std::string withoutTag(const std::string& value) {
    const auto na = NameAddr::parse(value);
    if (!na) return value;
    NameAddr plain = *na;
    plain.removeParam("tag");
    return plain.toString();
}

std::string uriOf(const std::string& value) {
    const auto na = NameAddr::parse(value);
    return na ? na->uri.toString() : value;
}

}  // namespace

std::optional<int64_t> UserAgent::Impl::watcherExpires(const std::string& key, const SipMessage& request) {
    const int64_t asked = request.expires().value_or(kDefaultWatcherExpires);
    if (asked > 0 && asked < config_.minSubscriptionExpires) {
        respond(key, request, 423, {}, {{"Min-Expires", std::to_string(config_.minSubscriptionExpires)}});
        return std::nullopt;
    }
    return std::min<int64_t>(asked, config_.maxSubscriptionExpires);
}

std::string UserAgent::Impl::presenceDocument(const Line& line, const SipTarget& toward) const {
    return buildPresenceDocument(addressOfRecord(line, toward), line.presence.status);
}

Watcher* UserAgent::Impl::findWatcherByDialog(const SipMessage& request) {
    for (auto& [id, w] : watchers_) {
        if (w.dialog.callId == request.callId() && w.dialog.localTag == request.toTag() &&
            w.dialog.remoteTag == request.fromTag()) {
            return &w;
        }
    }
    return nullptr;
}

void UserAgent::Impl::onSubscribeRequest(const std::string& key, const SipMessage& request, const SipTarget& source) {
    // We serve our presence; message waiting and dialog state are only
    // ever asked of others.
    const std::string event = eventPackage(request);
    if (event != "presence") {
        respond(key, request, 489, {}, {{"Allow-Events", "presence"}});
        return;
    }
    Line* line = lineForRequest(request);
    if (line == nullptr) {
        respond(key, request, 404);
        return;
    }
    const auto contact = NameAddr::parse(request.header("Contact").value_or(""));
    if (!contact || contact->wildcard) {
        respond(key, request, 400, "Missing Contact");
        return;
    }
    const auto granted = watcherExpires(key, request);
    if (!granted) return;
    const int64_t expires = *granted;
    const int lineId = line->id;
    WatcherRequest ask;
    ask.line = lineId;
    ask.watcher = uriOf(request.header("From").value_or(""));
    ask.event = event;
    if (listener_) listener_->onWatcherRequest(ask);
    // The listener may have removed the line meanwhile.
    line = findLine(lineId);
    if (line == nullptr || !ask.accept) {
        log::info(kTag, linePrefix(lineId) + ": watcher " + ask.watcher + " refused");
        respond(key, request, 403);
        return;
    }

    const int id = nextWatcherId_++;
    Watcher& w = watchers_[id];
    w.id = id;
    w.line = lineId;
    w.event = event;
    w.address = ask.watcher;
    w.source = source;
    w.dialog.callId = request.callId();
    w.dialog.localTag = randomToken(10);
    w.dialog.remoteTag = request.fromTag();
    w.dialog.localUri = withoutTag(request.header("To").value_or(""));
    w.dialog.remoteUri = withoutTag(request.header("From").value_or(""));
    w.dialog.remoteTarget = contact->uri;
    w.dialog.routeSet = request.recordRoutes();
    if (const auto cseq = request.cseq()) w.dialog.remoteCseq = cseq->number;

    SipMessage ok = makeResponse(request, 200, "", w.dialog.localTag);
    ok.addHeader("Expires", std::to_string(expires));
    ok.addHeader("Contact", contactUri(line, source));
    ok.addHeader("Server", config_.userAgent);
    (void)transactions_->sendResponse(key, ok);
    if (expires == 0) {
        // A fetch: the state once, and no subscription.
        endWatcher(id, "timeout");
        return;
    }
    log::info(kTag, linePrefix(lineId) + ": watcher " + w.address + " subscribed for " + event);
    armWatcherExpiry(w, static_cast<int>(expires));
    notifyWatcher(w, "active;expires=" + std::to_string(expires));
}

void UserAgent::Impl::onWatcherSubscribe(Watcher& w, const std::string& key, const SipMessage& request) {
    if (eventPackage(request) != w.event) {
        respond(key, request, 489, {}, {{"Allow-Events", "presence"}});
        return;
    }
    const auto cseq = request.cseq();
    if (cseq && w.dialog.remoteCseq && cseq->number <= *w.dialog.remoteCseq) {
        respond(key, request, 500, "Out of Order");
        return;
    }
    const auto granted = watcherExpires(key, request);
    if (!granted) return;
    const int64_t expires = *granted;
    if (cseq) w.dialog.remoteCseq = cseq->number;
    if (const auto contact = NameAddr::parse(request.header("Contact").value_or(""))) {
        w.dialog.remoteTarget = contact->uri;
    }
    respond(key, request, 200, {}, {{"Expires", std::to_string(expires)}});
    if (expires == 0) {
        log::info(kTag, linePrefix(w.line) + ": watcher " + w.address + " unsubscribed");
        endWatcher(w.id, "timeout");
        return;
    }
    armWatcherExpiry(w, static_cast<int>(expires));
    notifyWatcher(w, "active;expires=" + std::to_string(expires));
}

void UserAgent::Impl::armWatcherExpiry(Watcher& w, int seconds) {
    loop_->cancel(w.expiryTimer);
    w.expiresAtMs = loop_->nowNs() / 1000000 + int64_t{seconds} * 1000;
    const int id = w.id;
    w.expiryTimer = transactions_->schedule(int64_t{seconds} * 1000, [this, id] {
        const auto it = watchers_.find(id);
        if (it == watchers_.end()) return;
        it->second.expiryTimer = 0;
        log::info(kTag, linePrefix(it->second.line) + ": watcher " + it->second.address + " expired");
        endWatcher(id, "timeout");
    });
}

void UserAgent::Impl::notifyWatcher(Watcher& w, const std::string& subscriptionState) {
    const Line* line = findLine(w.line);
    const SipTarget target = dialogTarget(w.dialog, w.source);
    SipMessage m = buildDialogRequest(w.dialog, "NOTIFY", target);
    m.addHeader("Contact", contactUri(line, target));
    m.addHeader("Event", w.event);
    m.addHeader("Subscription-State", subscriptionState);
    m.addHeader("User-Agent", config_.userAgent);
    if (line != nullptr) {
        m.addHeader("Content-Type", kPidfContentType);
        m.body = presenceDocument(*line, target);
    }
    const int id = w.id;
    (void)transactions_->sendRequest(m, target, [this, id](const SipMessage* r) {
        if (r != nullptr && r->statusCode < 300) return;
        // A watcher that is gone, or no longer knows the subscription, is
        // dropped; a challenge or a passing failure is not worth that.
        const int code = r != nullptr ? r->statusCode : 408;
        if (code != 481 && code != 408) return;
        const auto it = watchers_.find(id);
        if (it == watchers_.end()) return;
        log::info(kTag, linePrefix(it->second.line) + ": watcher " + it->second.address + " dropped after " +
                            std::to_string(code));
        loop_->cancel(it->second.expiryTimer);
        watchers_.erase(it);
    });
}

void UserAgent::Impl::endWatcher(int id, const std::string& reason) {
    const auto it = watchers_.find(id);
    if (it == watchers_.end()) return;
    loop_->cancel(it->second.expiryTimer);
    notifyWatcher(it->second, "terminated;reason=" + reason);
    watchers_.erase(id);
}

std::vector<std::string> UserAgent::Impl::presenceWatchers(int lineId) const {
    std::vector<std::string> out;
    for (const auto& [id, w] : watchers_) {
        if (w.line == lineId) out.push_back(w.address);
    }
    return out;
}

bool UserAgent::Impl::setPresence(int lineId, const PresenceStatus& status) {
    Line* line = findLine(lineId);
    if (line == nullptr || !started_) return false;
    line->presence.status = status;
    const int64_t nowMs = loop_->nowNs() / 1000000;
    for (auto& [id, w] : watchers_) {
        if (w.line != lineId) continue;
        const int64_t left = std::max<int64_t>(0, (w.expiresAtMs - nowMs + 999) / 1000);
        notifyWatcher(w, "active;expires=" + std::to_string(left));
    }
    // A line without a domain has no presence server: its watchers are all.
    if (!line->config.domain.empty()) publish(*line, line->presence.expires, true);
    return true;
}

void UserAgent::Impl::publish(Line& line, int expires, bool withBody) {
    Publication& p = line.presence;
    if (p.outgoing != 0) {
        // The answer to the one in flight sends the newest state.
        p.again = p.again || withBody;
        return;
    }
    loop_->cancel(p.refreshTimer);
    p.refreshTimer = 0;
    const auto aor = SipUri::parse(addressOfRecord(line, SipTarget{}));
    if (!aor) {
        log::warn(kTag, linePrefix(line.id) + ": cannot resolve the presence server");
        return;
    }
    SipMessage m = buildOutOfDialogRequest(line, "PUBLISH", *aor);
    m.addHeader("Event", "presence");
    m.addHeader("Expires", std::to_string(expires));
    if (!p.etag.empty()) m.addHeader("SIP-If-Match", p.etag);
    m.addHeader("User-Agent", config_.userAgent);
    // A refresh or a removal carries no body; an initial or changed state does.
    if (withBody || p.etag.empty()) {
        m.addHeader("Content-Type", kPidfContentType);
        m.body = presenceDocument(line, SipTarget{});
    }
    const int lineId = line.id;
    p.outgoing = sendOutgoing(line, std::move(m),
                              [this, lineId, expires](Outgoing&, int code, const std::string& reason,
                                                      const SipMessage* response) {
                                  onPublishAnswer(lineId, code, reason, response, expires);
                              });
}

void UserAgent::Impl::onPublishAnswer(int lineId, int code, const std::string&, const SipMessage* response,
                                      int expires) {
    Line* line = findLine(lineId);
    if (line == nullptr) return;
    Publication& p = line->presence;
    p.outgoing = 0;
    if (code == 0) {
        log::warn(kTag, linePrefix(lineId) + ": cannot resolve the presence server");
        return;
    }
    if (code >= 200 && code < 300 && response != nullptr) {
        p.conditionalFailed = false;
        p.minExpiresRetries = 0;
        if (expires == 0) {
            p.etag.clear();
            return;
        }
        p.etag = response->header("SIP-ETag").value_or(p.etag);
        const int64_t granted = std::clamp<int64_t>(response->expires().value_or(expires), 0, INT32_MAX);
        log::info(kTag, linePrefix(lineId) + ": presence published for " + std::to_string(granted) + " s");
        if (p.again) {
            p.again = false;
            publish(*line, p.expires, true);
            return;
        }
        if (granted > 0) {
            p.refreshTimer = transactions_->schedule(refreshAfterSeconds(granted) * 1000, [this, lineId] {
                Line* l = findLine(lineId);
                if (l == nullptr) return;
                l->presence.refreshTimer = 0;
                publish(*l, l->presence.expires, false);
            });
        }
        return;
    }
    if (code == 412 && expires != 0) {
        // The server lost our entity tag: publish the whole state afresh, once.
        p.etag.clear();
        if (!p.conditionalFailed) {
            p.conditionalFailed = true;
            publish(*line, p.expires, true);
            return;
        }
    }
    if (code == 423 && response != nullptr && p.minExpiresRetries < 3) {
        const auto minExpires = parseHeaderInteger(response->header("Min-Expires").value_or(""));
        if (minExpires && *minExpires > 0) {
            ++p.minExpiresRetries;
            p.expires = static_cast<int>(std::min<int64_t>(*minExpires, INT32_MAX));
            publish(*line, p.expires, true);
            return;
        }
    }
    log::warn(kTag, linePrefix(lineId) + ": PUBLISH failed with " +
                        (response != nullptr ? std::to_string(code) : std::string("timeout")));
    p.again = false;
}

void UserAgent::Impl::withdrawPresence(Line& line) {
    for (auto it = watchers_.begin(); it != watchers_.end();) {
        const int id = it->first;
        const bool ours = it->second.line == line.id;
        ++it;
        if (ours) endWatcher(id, "noresource");
    }
    Publication& p = line.presence;
    loop_->cancel(p.refreshTimer);
    p.refreshTimer = 0;
    if (p.outgoing != 0) abandonOutgoing(p.outgoing);
    p.outgoing = 0;
    p.again = false;
    if (!p.etag.empty() && started_) publish(line, 0, false);
}

}  // namespace kelsip
