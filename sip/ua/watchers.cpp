// The watchers who subscribe to our presence; their NOTIFYs carry the PIDF
// document of the line they watch.
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/ua/watchers.h"

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

std::optional<int64_t> Watchers::watcherExpires(const std::string& key, const SipMessage& request) {
    const int64_t asked = request.expires().value_or(kDefaultWatcherExpires);
    if (asked > 0 && asked < ctx_.config.minSubscriptionExpires) {
        ctx_.respond(key, request, 423, {}, {{"Min-Expires", std::to_string(ctx_.config.minSubscriptionExpires)}});
        return std::nullopt;
    }
    return std::min<int64_t>(asked, ctx_.config.maxSubscriptionExpires);
}

Watcher* Watchers::findByDialog(const SipMessage& request) {
    for (auto& [id, w] : watchers_) {
        if (w.dialog.callId == request.callId() && w.dialog.localTag == request.toTag() &&
            w.dialog.remoteTag == request.fromTag()) {
            return &w;
        }
    }
    return nullptr;
}

void Watchers::onSubscribeRequest(const std::string& key, const SipMessage& request, const SipTarget& source) {
    // We serve our presence; message waiting and dialog state are only
    // ever asked of others.
    const std::string event = eventPackage(request);
    if (event != "presence") {
        ctx_.respond(key, request, 489, {}, {{"Allow-Events", "presence"}});
        return;
    }
    Line* line = lines_.forRequest(request);
    if (line == nullptr) {
        ctx_.respond(key, request, 404);
        return;
    }
    const auto contact = NameAddr::parse(request.header("Contact").value_or(""));
    if (!contact || contact->wildcard) {
        ctx_.respond(key, request, 400, "Missing Contact");
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
    if (ctx_.listener) ctx_.listener->onWatcherRequest(ask);
    // The listener may have removed the line meanwhile.
    line = lines_.find(lineId);
    if (line == nullptr || !ask.accept) {
        log::info(kTag, linePrefix(lineId) + ": watcher " + ask.watcher + " refused");
        ctx_.respond(key, request, 403);
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
    w.dialog.localTag = ctx_.randomToken(10);
    w.dialog.remoteTag = request.fromTag();
    w.dialog.localUri = withoutTag(request.header("To").value_or(""));
    w.dialog.remoteUri = withoutTag(request.header("From").value_or(""));
    w.dialog.remoteTarget = contact->uri;
    w.dialog.routeSet = request.recordRoutes();
    if (const auto cseq = request.cseq()) w.dialog.remoteCseq = cseq->number;

    SipMessage ok = makeResponse(request, 200, "", w.dialog.localTag);
    ok.addHeader("Expires", std::to_string(expires));
    ok.addHeader("Contact", ctx_.contactUri(line, source));
    ok.addHeader("Server", ctx_.config.userAgent);
    (void)ctx_.transactions->sendResponse(key, ok);
    if (expires == 0) {
        // A fetch: the state once, and no subscription.
        endWatcher(id, "timeout");
        return;
    }
    log::info(kTag, linePrefix(lineId) + ": watcher " + w.address + " subscribed for " + event);
    armWatcherExpiry(w, static_cast<int>(expires));
    notifyWatcher(w, "active;expires=" + std::to_string(expires));
}

void Watchers::onSubscribe(Watcher& w, const std::string& key, const SipMessage& request) {
    if (eventPackage(request) != w.event) {
        ctx_.respond(key, request, 489, {}, {{"Allow-Events", "presence"}});
        return;
    }
    const auto cseq = request.cseq();
    if (cseq && w.dialog.remoteCseq && cseq->number <= *w.dialog.remoteCseq) {
        ctx_.respond(key, request, 500, "Out of Order");
        return;
    }
    const auto granted = watcherExpires(key, request);
    if (!granted) return;
    const int64_t expires = *granted;
    if (cseq) w.dialog.remoteCseq = cseq->number;
    if (const auto contact = NameAddr::parse(request.header("Contact").value_or(""))) {
        w.dialog.remoteTarget = contact->uri;
    }
    ctx_.respond(key, request, 200, {}, {{"Expires", std::to_string(expires)}});
    if (expires == 0) {
        log::info(kTag, linePrefix(w.line) + ": watcher " + w.address + " unsubscribed");
        endWatcher(w.id, "timeout");
        return;
    }
    armWatcherExpiry(w, static_cast<int>(expires));
    notifyWatcher(w, "active;expires=" + std::to_string(expires));
}

void Watchers::armWatcherExpiry(Watcher& w, int seconds) {
    ctx_.loop->cancel(w.expiryTimer);
    w.expiresAtMs = ctx_.loop->nowNs() / 1000000 + int64_t{seconds} * 1000;
    const int id = w.id;
    w.expiryTimer = ctx_.transactions->schedule(int64_t{seconds} * 1000, [this, id] {
        const auto it = watchers_.find(id);
        if (it == watchers_.end()) return;
        it->second.expiryTimer = 0;
        log::info(kTag, linePrefix(it->second.line) + ": watcher " + it->second.address + " expired");
        endWatcher(id, "timeout");
    });
}

void Watchers::notifyWatcher(Watcher& w, const std::string& subscriptionState) {
    const Line* line = lines_.find(w.line);
    const SipTarget target = UaContext::dialogTarget(w.dialog, w.source);
    SipMessage m = ctx_.buildDialogRequest(w.dialog, "NOTIFY", target);
    m.addHeader("Contact", ctx_.contactUri(line, target));
    m.addHeader("Event", w.event);
    m.addHeader("Subscription-State", subscriptionState);
    m.addHeader("User-Agent", ctx_.config.userAgent);
    if (line != nullptr) {
        m.addHeader("Content-Type", kPidfContentType);
        m.body = ctx_.presenceDocument(*line, target);
    }
    const int id = w.id;
    (void)ctx_.transactions->sendRequest(m, target, [this, id](const SipMessage* r) {
        if (r != nullptr && r->statusCode < 300) return;
        // A watcher that is gone, or no longer knows the subscription, is
        // dropped; a challenge or a passing failure is not worth that.
        const int code = r != nullptr ? r->statusCode : 408;
        if (code != 481 && code != 408) return;
        const auto it = watchers_.find(id);
        if (it == watchers_.end()) return;
        log::info(kTag, linePrefix(it->second.line) + ": watcher " + it->second.address + " dropped after " +
                            std::to_string(code));
        ctx_.loop->cancel(it->second.expiryTimer);
        watchers_.erase(it);
    });
}

void Watchers::endWatcher(int id, const std::string& reason) {
    const auto it = watchers_.find(id);
    if (it == watchers_.end()) return;
    ctx_.loop->cancel(it->second.expiryTimer);
    notifyWatcher(it->second, "terminated;reason=" + reason);
    watchers_.erase(id);
}

std::vector<std::string> Watchers::addresses(int lineId) const {
    std::vector<std::string> out;
    for (const auto& [id, w] : watchers_) {
        if (w.line == lineId) out.push_back(w.address);
    }
    return out;
}

void Watchers::notifyLine(int lineId) {
    const int64_t nowMs = ctx_.loop->nowNs() / 1000000;
    for (auto& [id, w] : watchers_) {
        if (w.line != lineId) continue;
        const int64_t left = std::max<int64_t>(0, (w.expiresAtMs - nowMs + 999) / 1000);
        notifyWatcher(w, "active;expires=" + std::to_string(left));
    }
}

void Watchers::endLine(int lineId, const std::string& reason) {
    for (auto it = watchers_.begin(); it != watchers_.end();) {
        const int id = it->first;
        const bool ours = it->second.line == lineId;
        ++it;
        if (ours) endWatcher(id, reason);
    }
}

}  // namespace kelsip
