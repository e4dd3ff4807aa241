// Requests outside any dialog (MESSAGE, PUBLISH, a subscription's first
// SUBSCRIBE): resolved, failed over, answered with credentials; and the
// instant messages that arrive.
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/ua/user_agent_impl.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";

}  // namespace

SipMessage UserAgent::Impl::buildOutOfDialogRequest(const Line& line, std::string_view method, const SipUri& to) {
    const LineConfig& c = line.config;
    SipMessage m;
    m.isRequest = true;
    m.method = std::string(method);
    m.requestUri = to;
    // The Via names the target's transport, so each send rewrites it.
    m.addHeader("Via", viaFor(SipTarget{}));
    m.addHeader("Max-Forwards", "70");
    if (!c.outboundProxy.empty()) {
        auto route = SipUri::parse(c.outboundProxy);
        if (route && !route->hasParam("lr")) route->setFlagParam("lr");
        if (route) m.addHeader("Route", "<" + route->toString() + ">");
    }
    std::string from = "<" + addressOfRecord(line, SipTarget{}) + ">";
    if (!c.displayName.empty()) from = "\"" + c.displayName + "\" " + from;
    m.addHeader("From", from + ";tag=" + randomToken(10));
    m.addHeader("To", "<" + to.toString() + ">");
    m.addHeader("Call-ID", randomToken(24));
    m.addHeader("CSeq", "1 " + std::string(method));
    return m;
}

int UserAgent::Impl::sendOutgoing(const Line& line, SipMessage request, OutgoingDone done) {
    const int id = nextOutgoingId_++;
    Outgoing& o = outgoing_[id];
    o.id = id;
    o.line = line.id;
    o.request = std::move(request);
    o.done = std::move(done);
    o.digest.nonceCount = 0;  // each request counts its own answers: the first is 1
    // Through the outbound proxy when the line has one, else straight to
    // the Request-URI's host; the line's transport is honoured either way.
    auto next = line.config.outboundProxy.empty() ? std::optional<SipUri>(o.request.requestUri)
                                                  : SipUri::parse(line.config.outboundProxy);
    if (next && !next->hasParam("transport") && line.config.transport == TransportKind::Tcp) {
        next->setParam("transport", "tcp");
    }
    if (!next || !locator_) {
        loop_->post([this, id] { finishOutgoing(id, 0, "Cannot resolve destination", nullptr); });
        return id;
    }
    o.locating = locator_->locate(*next, [this, id](dns::LocateResult result) {
        const auto it = outgoing_.find(id);
        if (it == outgoing_.end()) return;
        Outgoing& found = it->second;
        found.locating = 0;
        if (result.targets.empty()) {
            log::warn(kTag, found.request.method + " " + std::to_string(id) + ": cannot resolve destination: " +
                                result.error);
            finishOutgoing(id, 0, "Cannot resolve destination", nullptr);
            return;
        }
        found.targets = std::move(result.targets);
        found.targetIndex = 0;
        transmitOutgoing(found);
    });
    return id;
}

void UserAgent::Impl::transmitOutgoing(Outgoing& o) {
    const SipTarget& target = o.targets[o.targetIndex];
    // A fresh Via without a branch: the transaction layer gives each send its own.
    (void)o.request.replaceHeader("Via", 0, viaFor(target));
    // A Contact (a SUBSCRIBE's) names the address the target reaches us at.
    (void)o.request.replaceHeader("Contact", 0, contactUri(findLine(o.line), target));
    const int id = o.id;
    o.transaction = transactions_ ? transactions_->sendRequest(o.request, target,
                                                               [this, id](const SipMessage* r) { onOutgoingAnswer(id, r); })
                                  : std::string();
    if (o.transaction.empty()) {
        const int failed = o.id;
        loop_->post([this, failed] { finishOutgoing(failed, 503, "Service Unavailable", nullptr); });
    }
}

void UserAgent::Impl::onOutgoingAnswer(int id, const SipMessage* response) {
    const auto it = outgoing_.find(id);
    if (it == outgoing_.end()) return;
    Outgoing& o = it->second;
    if (response != nullptr && response->statusCode < 200) return;
    o.transaction.clear();
    const int code = response != nullptr ? response->statusCode : 408;
    if ((response == nullptr || code == 503) && o.targetIndex + 1 < o.targets.size()) {
        ++o.targetIndex;
        log::info(kTag, o.request.method + " " + std::to_string(id) + ": trying next server " +
                            o.targets[o.targetIndex].toString());
        transmitOutgoing(o);
        return;
    }
    const Line* line = findLine(o.line);
    auto challenge = response != nullptr ? challengeOf(*response) : std::nullopt;
    if (challenge && o.attempts < 2 && line != nullptr) {
        ++o.attempts;
        const auto cseq = o.request.cseq();
        const uint32_t number = cseq ? cseq->number + 1 : 1;
        (void)o.request.replaceHeader("CSeq", 0, std::to_string(number) + " " + o.request.method);
        o.request.removeHeader("Authorization");
        o.request.removeHeader("Proxy-Authorization");
        o.challenge = std::move(*challenge);
        addCredentials(o.request, line->config, *o.challenge, o.digest);
        transmitOutgoing(o);
        return;
    }
    finishOutgoing(id, code, response != nullptr ? response->reason : "Request Timeout", response);
}

void UserAgent::Impl::finishOutgoing(int id, int code, const std::string& reason, const SipMessage* response) {
    auto node = outgoing_.extract(id);
    if (node.empty()) return;
    Outgoing& o = node.mapped();
    if (o.done) o.done(o, code, reason, response);
}

void UserAgent::Impl::abandonOutgoing(int id) {
    const auto it = outgoing_.find(id);
    if (it == outgoing_.end()) return;
    if (it->second.locating != 0 && locator_) locator_->cancel(it->second.locating);
    // A transaction still running finds no request and its answer is dropped.
    outgoing_.erase(it);
}

int UserAgent::Impl::sendMessage(int lineId, const std::string& target, const std::string& body,
                                 const std::string& contentType) {
    const Line* line = findLine(lineId);
    if (line == nullptr || !started_) return 0;
    auto uri = completeTarget(*line, target);
    SipMessage m = buildOutOfDialogRequest(*line, "MESSAGE", uri.value_or(SipUri{}));
    m.addHeader("User-Agent", config_.userAgent);
    m.addHeader("Content-Type", contentType.empty() ? "text/plain" : contentType);
    m.body = body;
    auto report = [this](Outgoing& o, int code, const std::string& reason, const SipMessage*) {
        log::info(kTag, "MESSAGE " + std::to_string(o.id) + " -> " + std::to_string(code));
        if (listener_) listener_->onMessageResult(o.id, code, reason);
    };
    if (!uri) {
        // Reported like any other result: after the caller has the id.
        const int id = nextOutgoingId_++;
        loop_->post([report, id] {
            Outgoing none;
            none.id = id;
            report(none, 0, "Cannot resolve destination", nullptr);
        });
        return id;
    }
    return sendOutgoing(*line, std::move(m), report);
}

void UserAgent::Impl::onIncomingMessage(const std::string& key, const SipMessage& request) {
    const Line* line = lineForRequest(request);
    if (line == nullptr) {
        respond(key, request, 404);
        return;
    }
    // Any content type is taken: the application shows what it can render
    // (text/plain, say) and passes over the rest, such as typing indications.
    if (request.body.size() > config_.maxMessageBody) {
        log::warn(kTag, "line " + std::to_string(line->id) + ": MESSAGE of " + std::to_string(request.body.size()) +
                            " bytes refused");
        respond(key, request, 413);
        return;
    }
    respond(key, request, 200);
    std::string from = request.header("From").value_or("");
    if (const auto na = NameAddr::parse(from)) from = na->uri.toString();
    const std::string type = request.contentType().value_or("text/plain");
    log::info(kTag, "line " + std::to_string(line->id) + ": MESSAGE from " + from);
    if (listener_) listener_->onMessage(line->id, from, type, request.body);
}

}  // namespace kelsip
