// Lines and their registrations: REGISTER built, answered, refreshed,
// failed over, retried and withdrawn.
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/ua/lines.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";
constexpr int64_t kRetryAfterFailureMs = 60000;

std::string linePrefix(const Line& line) { return "line " + std::to_string(line.id); }

std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

}  // namespace

Line* Lines::find(int id) {
    const auto it = lines_.find(id);
    return it == lines_.end() ? nullptr : &it->second;
}

const Line* Lines::find(int id) const {
    const auto it = lines_.find(id);
    return it == lines_.end() ? nullptr : &it->second;
}

int Lines::add(const LineConfig& config) {
    const int id = nextLineId_++;
    Line& line = lines_[id];
    line.id = id;
    line.config = config;
    line.expires = config.expires;
    line.callId = ctx_.randomToken(20);
    line.fromTag = ctx_.randomToken(10);
    return id;
}

void Lines::withdraw(Line& line) {
    if (line.state == RegistrationState::Registered) {
        // Withdraw the binding; the answer finds no line and is dropped.
        line.unregistering = true;
        sendRegister(line);
    }
    cancelTimers(line);
    if (line.locating != 0 && ctx_.locator) ctx_.locator->cancel(line.locating);
}

bool Lines::registerLine(int id) {
    Line* line = find(id);
    if (line == nullptr || !ctx_.started) return false;
    if (line->config.domain.empty()) {
        log::info(kTag, linePrefix(*line) + ": no registrar (peer to peer)");
        return false;
    }
    // A REGISTER already on its way decides the outcome; a second one would
    // race it with the next CSeq.
    if (!line->transaction.empty() && !line->unregistering) return true;
    cancelTimers(*line);
    line->unregistering = false;
    line->attempts = 0;
    line->expires = line->config.expires;
    setState(*line, RegistrationState::Registering, 0, "");
    resolveAndRegister(*line);
    return true;
}

bool Lines::unregisterLine(int id) {
    Line* line = find(id);
    if (line == nullptr || !ctx_.started) return false;
    cancelTimers(*line);
    if (line->state != RegistrationState::Registered && line->state != RegistrationState::Registering) {
        setState(*line, RegistrationState::Unregistered, 0, "");
        return true;
    }
    if (line->targets.empty()) {
        // Nothing was ever sent: there is no binding to withdraw.
        if (line->locating != 0 && ctx_.locator) ctx_.locator->cancel(line->locating);
        line->locating = 0;
        setState(*line, RegistrationState::Unregistered, 0, "");
        return true;
    }
    line->unregistering = true;
    line->attempts = 0;
    setState(*line, RegistrationState::Unregistering, 0, "");
    sendRegister(*line);
    return true;
}

RegistrationState Lines::state(int id) const {
    const Line* line = find(id);
    return line != nullptr ? line->state : RegistrationState::Unregistered;
}

std::optional<LineInfo> Lines::info(int id) const {
    const Line* line = find(id);
    if (line == nullptr) return std::nullopt;
    return LineInfo{line->id, line->state, line->statusCode, line->reason,
                    line->state == RegistrationState::Registered ? line->granted : line->expires, line->push};
}

std::vector<int> Lines::ids() const {
    std::vector<int> ids;
    for (const auto& [id, line] : lines_) ids.push_back(id);
    return ids;
}

bool Lines::setPush(int id, const PushParams& push) {
    Line* line = find(id);
    if (line == nullptr) return false;
    line->config.push = push;
    // A registered line tells the registrar at once.
    if (line->state == RegistrationState::Registered && line->transaction.empty()) {
        cancelTimers(*line);
        sendRegister(*line);
    }
    return true;
}

PushSupport Lines::pushSupport(int id) const {
    const Line* line = find(id);
    return line != nullptr ? line->push : PushSupport{};
}

Line* Lines::forRequest(const SipMessage& request) {
    for (auto& [id, line] : lines_) {
        if (escapeUriUser(line.config.user) == request.requestUri.user) return &line;
    }
    // A peer may dial our address without our user name: the first line takes it.
    return lines_.empty() ? nullptr : &lines_.begin()->second;
}

size_t Lines::unregisterAll() {
    size_t sent = 0;
    for (auto& [id, line] : lines_) {
        if (line.state != RegistrationState::Registered) continue;
        log::info(kTag, linePrefix(line) + ": un-registering before shutdown");
        if (unregisterLine(id)) ++sent;
    }
    return sent;
}

void Lines::stop() {
    for (auto& [id, line] : lines_) cancelTimers(line);
}

bool Lines::pendingUnregisters() const {
    for (const auto& [id, line] : lines_) {
        if (line.state == RegistrationState::Unregistering) return true;
    }
    return false;
}

void Lines::cancelTimers(Line& line) {
    ctx_.loop->cancel(line.refreshTimer);
    ctx_.loop->cancel(line.retryTimer);
    line.refreshTimer = line.retryTimer = 0;
    stopKeepAlive(line);
}

void Lines::setState(Line& line, RegistrationState state, int code, const std::string& reason) {
    const bool changed = line.state != state;
    line.state = state;
    line.statusCode = code;
    line.reason = reason;
    if (!changed) return;
    log::info(kTag, linePrefix(line) + " registration " + std::string(toString(state)));
    if (ctx_.listener) ctx_.listener->onRegistrationState(line.id, state, code, reason);
}

void Lines::resolveAndRegister(Line& line) {
    auto uri = line.config.outboundProxy.empty() ? SipUri::parse("sip:" + line.config.domain)
                                                 : SipUri::parse(line.config.outboundProxy);
    if (!uri) {
        registrationFailed(line, 0, "bad registrar address");
        return;
    }
    // The account's transport is the user's choice: the lookup honours it.
    if (!uri->hasParam("transport") && uri->scheme != "sips") {
        uri->setParam("transport", std::string(UaContext::transportParam(line.config.transport)));
    }
    const int id = line.id;
    line.locating = ctx_.locator->locate(*uri, [this, id, uri = *uri](dns::LocateResult result) {
        Line* l = find(id);
        if (l == nullptr) return;
        l->locating = 0;
        if (result.targets.empty()) {
            log::warn(kTag, linePrefix(*l) + ": cannot locate the registrar: " + result.error);
            registrationFailed(*l, 0, result.error);
            return;
        }
        l->targets = std::move(result.targets);
        UaContext::nameTargets(l->targets, uri, l->config.domain);
        l->targetIndex = 0;
        sendRegister(*l);
    });
}

std::string Lines::bindingUri(const Line& line) const {
    const SipTarget& target = line.targets[line.targetIndex];
    std::string uri = "sip:" + escapeUriUser(line.config.user) + "@" + ctx_.contactHost(target, &line);
    if (target.kind == TransportKind::Tcp) uri += ";transport=tcp";
    if (target.kind == TransportKind::Tls) uri += ";transport=tls";
    return uri;
}

SipMessage Lines::buildRegister(Line& line) {
    const SipTarget& target = line.targets[line.targetIndex];
    const LineConfig& c = line.config;
    const std::string aor = "sip:" + escapeUriUser(c.user) + "@" + c.domain;
    SipMessage m;
    m.isRequest = true;
    m.method = "REGISTER";
    m.requestUri = *SipUri::parse("sip:" + c.domain);
    m.addHeader("Via", ctx_.viaFor(target, &line));
    m.addHeader("Max-Forwards", "70");
    if (!c.outboundProxy.empty()) {
        auto route = SipUri::parse(c.outboundProxy);
        if (route && !route->hasParam("lr")) route->setFlagParam("lr");
        if (route) m.addHeader("Route", "<" + route->toString() + ">");
    }
    const std::string display = c.displayName.empty() ? "" : quoted(c.displayName) + " ";
    m.addHeader("From", display + "<" + aor + ">;tag=" + line.fromTag);
    m.addHeader("To", display + "<" + aor + ">");
    m.addHeader("Call-ID", line.callId);
    m.addHeader("CSeq", std::to_string(++line.cseq) + " REGISTER");

    const std::string uri = bindingUri(line);
    // Our address changed under a binding we hold: the new one replaces it
    // and the stale one goes in the same request, lest calls go there.
    std::string stale;
    if (!line.contactBound.empty() && line.contactBound != uri) stale = ", <" + line.contactBound + ">;expires=0";
    if (!line.unregistering) {
        line.contactSent = uri;
        line.localSent = ctx_.ownAddressToward(target);
    }
    std::string contact = "<" + uri;
    if (c.push.set()) {
        contact += ";pn-provider=" + c.push.provider;
        if (!c.push.param.empty()) contact += ";pn-param=" + c.push.param;
        contact += ";pn-prid=" + c.push.prid;
    }
    contact += ">;+sip.instance=\"<" + ctx_.config.instanceId + ">\"";
    if (c.push.set()) contact += ";+sip.pnsreg";
    m.addHeader("Contact", contact + stale);
    m.addHeader("Expires", std::to_string(line.unregistering ? 0 : line.expires));
    m.addHeader("Allow", kUserAgentAllow);
    m.addHeader("Supported", ctx_.config.enable100rel ? "100rel, replaces, timer" : "replaces, timer");
    m.addHeader("User-Agent", ctx_.config.userAgent);
    if (c.push.set()) m.addHeader("Feature-Caps", "*;+sip.pns=\"" + c.push.provider + "\"");
    if (line.challenge) ctx_.addCredentials(m, c, *line.challenge, line.digest);
    return m;
}

void Lines::sendRegister(Line& line) {
    if (line.targets.empty() || !ctx_.transactions) return;
    const int id = line.id;
    line.transaction = ctx_.transactions->sendRequest(buildRegister(line), line.targets[line.targetIndex],
                                                  [this, id](const SipMessage* r) { onRegisterAnswer(id, r); });
    if (line.transaction.empty()) registrationFailed(line, 0, "cannot send REGISTER");
}

void Lines::onRegisterAnswer(int id, const SipMessage* response) {
    Line* found = find(id);
    if (found == nullptr) return;
    Line& line = *found;
    if (response != nullptr && response->statusCode < 200) return;
    line.transaction.clear();
    const int code = response != nullptr ? response->statusCode : 408;
    // A transport that gave up says why ("TLS certificate not trusted").
    const std::string& failure = ctx_.transactions->failureReason();
    const std::string reason = response != nullptr ? response->reason : failure.empty() ? "Request Timeout" : failure;

    if (response == nullptr || code == 503) {
        if (line.targetIndex + 1 < line.targets.size()) {
            ++line.targetIndex;
            log::info(kTag, linePrefix(line) + ": trying next server " + line.targets[line.targetIndex].toString());
            sendRegister(line);
            return;
        }
        registrationFailed(line, code, reason);
        return;
    }
    if (code >= 200 && code < 300) {
        onRegistered(line, *response);
        return;
    }
    if (auto challenge = challengeOf(*response); challenge && line.attempts < 2) {
        ++line.attempts;
        line.challenge = std::move(*challenge);
        line.digest.nonceCount = 0;
        sendRegister(line);
        return;
    }
    if (code == 423 && line.attempts < 3) {
        if (const auto minExpires = minExpiresOf(*response)) {
            ++line.attempts;
            line.expires = *minExpires;
            sendRegister(line);
            return;
        }
    }
    registrationFailed(line, code, reason);
}

void Lines::onRegistered(Line& line, const SipMessage& response) {
    line.attempts = 0;
    if (line.unregistering) {
        line.unregistering = false;
        line.contactBound.clear();
        cancelTimers(line);
        setState(line, RegistrationState::Unregistered, response.statusCode, response.reason);
        return;
    }
    // The expiry granted to our own binding: the Contact that carries our
    // instance (or our address), else the Expires header.
    int64_t granted = line.expires;
    bool fromContact = false;
    for (const std::string& value : response.headers("Contact")) {
        const auto na = NameAddr::parse(value);
        if (!na || na->wildcard) continue;
        const auto instance = na->param("+sip.instance");
        const bool ours = (instance && instance->find(ctx_.config.instanceId) != std::string::npos) ||
                          (na->uri.user == escapeUriUser(line.config.user) &&
                           na->uri.host + ":" + std::to_string(na->uri.port) ==
                               ctx_.contactHost(line.targets[line.targetIndex], &line));
        const auto expires = na->param("expires");
        if (ours && expires) {
            if (const auto n = parseHeaderInteger(*expires)) {
                granted = *n;
                fromContact = true;
            }
            break;
        }
    }
    if (!fromContact) {
        if (const auto e = response.expires()) granted = *e;
    }
    line.granted = static_cast<int>(std::clamp<int64_t>(granted, 0, INT32_MAX));
    line.contactBound = line.contactSent;

    line.push = PushSupport{};
    for (const std::string& caps : response.headers("Feature-Caps")) {
        for (const Param& p : parseParams(caps.substr(std::min(caps.find(';'), caps.size())))) {
            std::string value = p.value;
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
            if (p.name == "+sip.pns") {
                line.push.announced = true;
                line.push.providers = value;
            } else if (p.name == "+sip.pnsreg") {
                line.push.refreshBeforeExpiry = static_cast<int>(parseHeaderInteger(value).value_or(0));
            }
        }
    }
    std::string pushLine = linePrefix(line) + ": push" + (line.push.announced ? " supported" : " not announced") +
                           " by the registrar";
    if (line.push.announced && line.config.push.set() && line.push.refreshBeforeExpiry > 0) {
        pushLine += ", refresh push " + std::to_string(line.push.refreshBeforeExpiry) + " s before expiry";
    }
    log::info(kTag, pushLine);

    setState(line, RegistrationState::Registered, response.statusCode, response.reason);
    // Stays Registered across a refresh; the listener hears only of changes.
    line.statusCode = response.statusCode;
    line.reason = response.reason;
    scheduleRefresh(line);
    keepFlow(line, response);
}

void Lines::scheduleRefresh(Line& line) {
    ctx_.loop->cancel(line.refreshTimer);
    if (line.granted <= 0) return;
    const int id = line.id;
    line.refreshTimer = ctx_.transactions->schedule(refreshAfterSeconds(line.granted) * 1000, [this, id] {
        Line* l = find(id);
        if (l == nullptr) return;
        l->refreshTimer = 0;
        sendRegister(*l);
    });
}

void Lines::registrationFailed(Line& line, int code, const std::string& reason) {
    cancelTimers(line);
    setState(line, RegistrationState::Failed, code, reason);
    if (line.unregistering) {
        line.unregistering = false;
        return;
    }
    if (line.expires < 1 || !line.config.reregisterOnFailure) return;
    const int id = line.id;
    line.retryTimer = ctx_.transactions->schedule(kRetryAfterFailureMs, [this, id] {
        Line* l = find(id);
        if (l == nullptr) return;
        l->retryTimer = 0;
        l->attempts = 0;
        setState(*l, RegistrationState::Registering, 0, "");
        resolveAndRegister(*l);
    });
}

}  // namespace kelsip
