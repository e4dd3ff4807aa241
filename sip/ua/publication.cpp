// The publication of each line's presence by PUBLISH (RFC 3903): the first
// state, refreshes and changes, 412 and 423 answers, and the removal.
#include "sip/ua/publication.h"

#include "sip/core/log.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";

std::string linePrefix(int line) { return "line " + std::to_string(line); }

}  // namespace

void Publication::publish(const Line& line, int expires, bool withBody) {
    PublicationState& p = states_[line.id];
    if (p.outgoing != 0) {
        // The answer to the one in flight sends the newest state.
        p.again = p.again || withBody;
        return;
    }
    ctx_.loop->cancel(p.refreshTimer);
    p.refreshTimer = 0;
    const auto aor = SipUri::parse(ctx_.addressOfRecord(line, SipTarget{}));
    if (!aor) {
        log::warn(kTag, linePrefix(line.id) + ": cannot resolve the presence server");
        return;
    }
    SipMessage m = outgoing_.build(line, "PUBLISH", *aor);
    m.addHeader("Event", "presence");
    m.addHeader("Expires", std::to_string(expires));
    if (!p.etag.empty()) m.addHeader("SIP-If-Match", p.etag);
    m.addHeader("User-Agent", ctx_.config.userAgent);
    // A refresh or a removal carries no body; an initial or changed state does.
    if (withBody || p.etag.empty()) {
        m.addHeader("Content-Type", kPidfContentType);
        m.body = ctx_.presenceDocument(line, SipTarget{});
    }
    const int lineId = line.id;
    p.outgoing = outgoing_.send(line, std::move(m),
                              [this, lineId, expires](Outgoing&, int code, const std::string& reason,
                                                      const SipMessage* response) {
                                  onPublishAnswer(lineId, code, reason, response, expires);
                              });
}

void Publication::onPublishAnswer(int lineId, int code, const std::string&, const SipMessage* response,
                                  int expires) {
    const Line* line = lines_.find(lineId);
    if (line == nullptr) return;
    PublicationState& p = states_[lineId];
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
            p.refreshTimer = ctx_.transactions->schedule(refreshAfterSeconds(granted) * 1000, [this, lineId] {
                const Line* l = lines_.find(lineId);
                if (l == nullptr) return;
                PublicationState& again = states_[lineId];
                again.refreshTimer = 0;
                publish(*l, again.expires, false);
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
        if (const auto minExpires = minExpiresOf(*response)) {
            ++p.minExpiresRetries;
            p.expires = *minExpires;
            publish(*line, p.expires, true);
            return;
        }
    }
    log::warn(kTag, linePrefix(lineId) + ": PUBLISH failed with " +
                        (response != nullptr ? std::to_string(code) : std::string("timeout")));
    p.again = false;
}

void Publication::withdraw(const Line& line) {
    const auto it = states_.find(line.id);
    if (it == states_.end()) return;
    PublicationState& p = it->second;
    ctx_.loop->cancel(p.refreshTimer);
    p.refreshTimer = 0;
    if (p.outgoing != 0) outgoing_.abandon(p.outgoing);
    p.outgoing = 0;
    p.again = false;
    if (!p.etag.empty() && ctx_.started) publish(line, 0, false);
}

void Publication::publishStatus(const Line& line) { publish(line, states_[line.id].expires, true); }

size_t Publication::pending() const {
    size_t pending = 0;
    for (const auto& [id, p] : states_) pending += p.outgoing != 0;
    return pending;
}

void Publication::stop() {
    for (auto& [id, p] : states_) ctx_.loop->cancel(p.refreshTimer);
}

}  // namespace kelsip
