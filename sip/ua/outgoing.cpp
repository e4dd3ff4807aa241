// Requests outside any dialog (MESSAGE, PUBLISH, a subscription's first
// SUBSCRIBE): resolved, failed over, answered with credentials.
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/ua/outgoing.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";

}  // namespace

SipMessage OutgoingRequests::build(const Line& line, std::string_view method, const SipUri& to) {
    const LineConfig& c = line.config;
    SipMessage m;
    m.isRequest = true;
    m.method = std::string(method);
    m.requestUri = to;
    // The Via names the target's transport, so each send rewrites it.
    m.addHeader("Via", ctx_.viaFor(SipTarget{}));
    m.addHeader("Max-Forwards", "70");
    if (!c.outboundProxy.empty()) {
        auto route = SipUri::parse(c.outboundProxy);
        if (route && !route->hasParam("lr")) route->setFlagParam("lr");
        if (route) m.addHeader("Route", "<" + route->toString() + ">");
    }
    std::string from = "<" + ctx_.addressOfRecord(line, SipTarget{}) + ">";
    if (!c.displayName.empty()) from = "\"" + c.displayName + "\" " + from;
    m.addHeader("From", from + ";tag=" + ctx_.randomToken(10));
    m.addHeader("To", "<" + to.toString() + ">");
    m.addHeader("Call-ID", ctx_.randomToken(24));
    m.addHeader("CSeq", "1 " + std::string(method));
    return m;
}

int OutgoingRequests::send(const Line& line, SipMessage request, OutgoingDone done) {
    const int id = nextId_++;
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
    if (next && !next->hasParam("transport") && next->scheme != "sips" && line.config.transport != TransportKind::Udp) {
        next->setParam("transport", std::string(UaContext::transportParam(line.config.transport)));
    }
    if (!next || !ctx_.locator) {
        ctx_.loop->post([this, id] { finish(id, 0, "Cannot resolve destination", nullptr); });
        return id;
    }
    o.locating = ctx_.locator->locate(*next, [this, id, uri = *next, domain = line.config.domain](dns::LocateResult result) {
        const auto it = outgoing_.find(id);
        if (it == outgoing_.end()) return;
        Outgoing& found = it->second;
        found.locating = 0;
        if (result.targets.empty()) {
            log::warn(kTag, found.request.method + " " + std::to_string(id) + ": cannot resolve destination: " +
                                result.error);
            finish(id, 0, "Cannot resolve destination", nullptr);
            return;
        }
        found.targets = std::move(result.targets);
        UaContext::nameTargets(found.targets, uri, domain);
        found.targetIndex = 0;
        transmit(found);
    });
    return id;
}

void OutgoingRequests::transmit(Outgoing& o) {
    const SipTarget& target = o.targets[o.targetIndex];
    // A fresh Via without a branch: the transaction layer gives each send its own.
    (void)o.request.replaceHeader("Via", 0, ctx_.viaFor(target));
    // A Contact (a SUBSCRIBE's) names the address the target reaches us at.
    (void)o.request.replaceHeader("Contact", 0, ctx_.contactUri(lines_.find(o.line), target));
    const int id = o.id;
    o.transaction = ctx_.transactions ? ctx_.transactions->sendRequest(o.request, target,
                                                               [this, id](const SipMessage* r) { onAnswer(id, r); })
                                  : std::string();
    if (o.transaction.empty()) {
        const int failed = o.id;
        ctx_.loop->post([this, failed] { finish(failed, 503, "Service Unavailable", nullptr); });
    }
}

void OutgoingRequests::onAnswer(int id, const SipMessage* response) {
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
        transmit(o);
        return;
    }
    const Line* line = lines_.find(o.line);
    auto challenge = response != nullptr ? challengeOf(*response) : std::nullopt;
    if (challenge && o.attempts < 2 && line != nullptr) {
        ++o.attempts;
        const auto cseq = o.request.cseq();
        const uint32_t number = cseq ? cseq->number + 1 : 1;
        (void)o.request.replaceHeader("CSeq", 0, std::to_string(number) + " " + o.request.method);
        o.request.removeHeader("Authorization");
        o.request.removeHeader("Proxy-Authorization");
        o.challenge = std::move(*challenge);
        ctx_.addCredentials(o.request, line->config, *o.challenge, o.digest);
        transmit(o);
        return;
    }
    finish(id, code, response != nullptr ? response->reason : "Request Timeout", response);
}

void OutgoingRequests::finish(int id, int code, const std::string& reason, const SipMessage* response) {
    auto node = outgoing_.extract(id);
    if (node.empty()) return;
    Outgoing& o = node.mapped();
    if (o.done) o.done(o, code, reason, response);
}

void OutgoingRequests::abandon(int id) {
    const auto it = outgoing_.find(id);
    if (it == outgoing_.end()) return;
    if (it->second.locating != 0 && ctx_.locator) ctx_.locator->cancel(it->second.locating);
    // A transaction still running finds no request and its answer is dropped.
    outgoing_.erase(it);
}

}  // namespace kelsip
