// Calls we place and the life of every call: the INVITE and its answers,
// ACK, CANCEL, BYE, the no-answer timer, state changes and the facade's
// call operations.
#include <algorithm>

#include "media/session/telephone_event.h"
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/syntax/text.h"
#include "sip/ua/calls.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";


}  // namespace

std::string_view toString(CallState state) {
    switch (state) {
        case CallState::Calling: return "Calling";
        case CallState::Proceeding: return "Proceeding";
        case CallState::Ringing: return "Ringing";
        case CallState::Incoming: return "Incoming";
        case CallState::Connected: return "Connected";
        case CallState::Disconnecting: return "Disconnecting";
        case CallState::Terminated: return "Terminated";
    }
    return "Terminated";
}

Call* Calls::findCall(int id) {
    const auto it = calls_.find(id);
    return it == calls_.end() ? nullptr : it->second.get();
}

const Call* Calls::findCall(int id) const {
    const auto it = calls_.find(id);
    return it == calls_.end() ? nullptr : it->second.get();
}

Call* Calls::findCallByDialog(const SipMessage& message, bool weAreUac) {
    const std::string callId = message.callId();
    // In a request to us the far end's tag is in From and ours in To; in a
    // response to us it is the other way round.
    const std::string ours = weAreUac ? message.fromTag() : message.toTag();
    const std::string theirs = weAreUac ? message.toTag() : message.fromTag();
    for (auto& [id, call] : calls_) {
        const Dialog& d = call->dialog;
        if (d.callId == callId && d.localTag == ours && (d.remoteTag.empty() || d.remoteTag == theirs)) {
            return call.get();
        }
    }
    return nullptr;
}

CallInfo Calls::infoOf(const Call& call) {
    CallInfo info;
    info.id = call.id;
    info.line = call.line;
    info.state = std::string(toString(call.state));
    info.remoteUri = call.remoteUri;
    info.remoteDisplayName = call.remoteDisplayName;
    info.incoming = call.incoming;
    info.onHold = call.localHold;
    info.remoteHold = call.remoteHold;
    info.statusCode = call.statusCode;
    info.reason = call.reason;
    return info;
}

std::vector<CallInfo> Calls::callInfos() const {
    std::vector<CallInfo> out;
    for (const auto& [id, call] : calls_) out.push_back(infoOf(*call));
    return out;
}

std::optional<CallInfo> Calls::callInfo(int id) const {
    const Call* call = findCall(id);
    if (call == nullptr) return std::nullopt;
    return infoOf(*call);
}

void Calls::stop() {
    for (auto& [id, call] : calls_) {
        if (call->media) call->media->close();
        if (call->rtp) call->rtp->close({});
        if (call->ice) call->ice->close({});
    }
    calls_.clear();
}

std::shared_ptr<MediaSession> Calls::callMedia(int id) const {
    const Call* call = findCall(id);
    return call != nullptr ? call->media : nullptr;
}

void Calls::setCallState(Call& call, CallState state, int code, const std::string& reason) {
    if (call.state == state) return;
    call.state = state;
    if (code != 0) {
        call.statusCode = code;
        call.reason = reason;
    }
    log::info(kTag, callPrefix(call) + " -> " + std::string(toString(state)));
    if (ctx_.listener) ctx_.listener->onCallState(infoOf(call));
    // A call made for a REFER tells the one who asked how it went.
    if (Call* referrer = call.referredBy ? findCall(call.referredBy) : nullptr) {
        if (state == CallState::Connected) {
            notifyReferrer(*referrer, 200, "OK", true);
            call.referredBy = 0;
        } else if (state == CallState::Terminated) {
            notifyReferrer(*referrer, call.statusCode ? call.statusCode : 503,
                           call.reason.empty() ? "Service Unavailable" : call.reason, true);
            call.referredBy = 0;
        } else if (state == CallState::Ringing) {
            notifyReferrer(*referrer, 180, "Ringing", false);
        }
    }
}

void Calls::endCall(Call& call, int code, const std::string& reason) {
    ctx_.loop->cancel(call.okTimer);
    ctx_.loop->cancel(call.noAnswerTimer);
    ctx_.loop->cancel(call.reliableTimer);
    ctx_.loop->cancel(call.sessionTimer);
    ctx_.loop->cancel(call.mediaTimer);
    ctx_.loop->cancel(call.iceGatherTimer);
    call.okTimer = call.noAnswerTimer = call.reliableTimer = call.sessionTimer = call.mediaTimer = 0;
    call.iceGatherTimer = 0;
    call.afterGathering = nullptr;
    if (call.media) call.media->close();
    if (call.rtp) call.rtp->close({});
    if (call.ice) call.ice->close({});
    const int id = call.id;
    setCallState(call, CallState::Terminated, code, reason);
    // Reported once, then gone. Removal waits for the loop's next turn, so
    // whoever is still holding a reference to the call finishes first.
    ctx_.loop->post([this, id] {
        calls_.erase(id);
        if (calls_.empty()) ctx_.releaseMemoryIfIdle();
    });
}

int Calls::makeCall(int lineId, const std::string& target) {
    const Line* line = lines_.find(lineId);
    if (line == nullptr || !ctx_.started) return 0;
    int active = 0;
    for (const auto& [id, c] : calls_) active += c->state != CallState::Terminated;
    if (active >= ctx_.config.maxCalls) {
        log::warn(kTag, "maxCalls reached");
        return 0;
    }
    // A bare user calls within the line's domain; "user@host" gets the scheme.
    auto uri = UaContext::completeTarget(*line, target);
    const int id = nextCallId_++;
    auto owned = std::make_unique<Call>();
    Call& call = *owned;
    call.id = id;
    call.line = lineId;
    call.incoming = false;
    call.remoteUri = uri ? uri->toString() : target;
    const LineConfig& c = line->config;
    const std::string host = c.domain.empty() ? ctx_.contactHost(SipTarget{}) : c.domain;
    call.dialog.callId = ctx_.randomToken(24);
    call.dialog.localTag = ctx_.randomToken(10);
    call.dialog.localUri = "<sip:" + escapeUriUser(c.user) + "@" + host + ">";
    if (!c.displayName.empty()) call.dialog.localUri = "\"" + c.displayName + "\" " + call.dialog.localUri;
    call.dialog.remoteUri = "<" + call.remoteUri + ">";
    call.dialog.localCseq = 0;
    calls_[id] = std::move(owned);
    // The first state is announced as it is entered, not as a change.
    log::info(kTag, callPrefix(call) + " -> " + std::string(toString(call.state)));
    if (ctx_.listener) ctx_.listener->onCallState(infoOf(call));
    if (!uri) {
        endCall(call, 0, "Cannot resolve destination");
        return id;
    }
    call.dialog.remoteTarget = *uri;
    // Requests go to the outbound proxy when there is one, else to the URI.
    auto next = c.outboundProxy.empty() ? *uri : SipUri::parse(c.outboundProxy).value_or(*uri);
    if (!next.hasParam("transport") && next.scheme != "sips" && c.transport != TransportKind::Udp) {
        next.setParam("transport", std::string(UaContext::transportParam(c.transport)));
    }
    ctx_.locator->locate(next, [this, id, next, domain = c.domain](dns::LocateResult result) {
        Call* found = findCall(id);
        if (found == nullptr || found->state == CallState::Terminated) return;
        if (result.targets.empty()) {
            log::warn(kTag, callPrefix(*found) + ": cannot resolve destination: " + result.error);
            endCall(*found, 0, "Cannot resolve destination");
            return;
        }
        found->targets = std::move(result.targets);
        UaContext::nameTargets(found->targets, next, domain);
        found->targetIndex = 0;
        if (!openRtp(*found, found->targets[0])) {
            endCall(*found, 503, "no RTP port available");
            return;
        }
        startIce(*found, ice::IceRole::Controlling);
        whenGathered(*found, [this](Call& ready) { sendInvite(ready); });
    });
    return id;
}

std::string Calls::contactFor(const Call& call) const {
    return ctx_.contactUri(lines_.find(call.line), call.targets.empty() ? SipTarget{} : call.targets[call.targetIndex],
                           call.remoteUri.rfind("sips:", 0) == 0);
}

void Calls::sendInvite(Call& call) {
    const Line* line = lines_.find(call.line);
    if (line == nullptr) {
        endCall(call, 0, "line removed");
        return;
    }
    const SipTarget& target = call.targets[call.targetIndex];
    SipMessage m;
    m.isRequest = true;
    m.method = "INVITE";
    m.requestUri = call.dialog.remoteTarget;
    // Our own branch, so that a CANCEL can name this very transaction.
    m.addHeader("Via", ctx_.viaFor(target) + ";branch=" + ctx_.transactions->newBranch());
    m.addHeader("Max-Forwards", "70");
    if (!line->config.outboundProxy.empty()) {
        auto route = SipUri::parse(line->config.outboundProxy);
        if (route && !route->hasParam("lr")) route->setFlagParam("lr");
        if (route) m.addHeader("Route", "<" + route->toString() + ">");
    }
    m.addHeader("From", call.dialog.localUri + ";tag=" + call.dialog.localTag);
    m.addHeader("To", call.dialog.remoteUri);
    m.addHeader("Call-ID", call.dialog.callId);
    m.addHeader("CSeq", std::to_string(++call.dialog.localCseq) + " INVITE");
    m.addHeader("Contact", contactFor(call));
    m.addHeader("Allow", kUserAgentAllow);
    m.addHeader("Supported", ctx_.config.enable100rel ? "100rel, replaces, timer" : "replaces, timer");
    m.addHeader("User-Agent", ctx_.config.userAgent);
    addSessionHeaders(call, m);
    for (const auto& [name, value] : call.extraHeaders) m.addHeader(name, value);
    if (call.challenge) ctx_.addCredentials(m, line->config, *call.challenge, call.digest);
    m.addHeader("Content-Type", "application/sdp");
    m.body = buildOffer(call, MediaDirection::SendRecv);
    call.invite = m;
    call.provisionalSeen = false;
    const int id = call.id;
    call.inviteKey = ctx_.transactions->sendRequest(m, target, [this, id](const SipMessage* r) { onInviteResponse(id, r); });
    if (call.inviteKey.empty()) {
        endCall(call, 503, "Service Unavailable");
        return;
    }
    if (call.noAnswerTimer == 0 && ctx_.config.noAnswerTimeoutMs > 0) {
        call.noAnswerTimer = ctx_.transactions->schedule(ctx_.config.noAnswerTimeoutMs, [this, id] {
            Call* c = findCall(id);
            if (c == nullptr) return;
            c->noAnswerTimer = 0;
            if (c->state != CallState::Calling && c->state != CallState::Proceeding && c->state != CallState::Ringing) return;
            log::info(kTag, callPrefix(*c) + " not answered in time, cancelling");
            c->cancelWanted = true;
            if (c->provisionalSeen) sendCancel(*c);
        });
    }
}

void Calls::onInviteResponse(int id, const SipMessage* response) {
    Call* found = findCall(id);
    if (found == nullptr) return;
    Call& call = *found;
    if (response != nullptr && response->statusCode >= 200 && response->statusCode < 300) {
        onInvite2xx(call, *response);
        return;
    }
    if (call.state == CallState::Terminated || call.state == CallState::Connected) return;
    if (response != nullptr && response->statusCode < 200) {
        call.provisionalSeen = true;
        const std::string tag = response->toTag();
        if (response->statusCode > 100 && !tag.empty()) {
            // Each fork's early dialog is kept apart: its own target and
            // route set, which its PRACKs follow.
            if (!call.earlyDialogs.contains(tag)) {
                EarlyDialog early;
                early.remoteTarget = call.dialog.remoteTarget;
                if (const auto contact = NameAddr::parse(response->header("Contact").value_or(""))) {
                    early.remoteTarget = contact->uri;
                }
                early.routeSet = response->recordRoutes();
                std::reverse(early.routeSet.begin(), early.routeSet.end());
                call.earlyDialogs[tag] = std::move(early);
            }
            if (call.dialog.remoteTag.empty()) call.dialog.remoteTag = tag;
            sendPrack(call, *response);
        }
        if (response->statusCode == 180 || response->statusCode == 183) {
            setCallState(call, CallState::Ringing, response->statusCode, response->reason);
        } else if (call.state == CallState::Calling) {
            setCallState(call, CallState::Proceeding, response->statusCode, response->reason);
        }
        if (call.cancelWanted) sendCancel(call);
        return;
    }
    const int code = response != nullptr ? response->statusCode : 408;
    const std::string reason = response != nullptr ? response->reason : "Request Timeout";
    if ((response == nullptr || code == 503) && !call.cancelWanted && call.targetIndex + 1 < call.targets.size()) {
        ++call.targetIndex;
        log::info(kTag, callPrefix(call) + ": trying next server " + call.targets[call.targetIndex].toString());
        call.dialog.remoteTag.clear();
        sendInvite(call);
        return;
    }
    auto challenge = response != nullptr ? challengeOf(*response) : std::nullopt;
    if (challenge && call.authAttempts < 2 && !call.cancelWanted) {
        ++call.authAttempts;
        call.challenge = std::move(*challenge);
        call.digest.nonceCount = 0;
        call.dialog.remoteTag.clear();
        sendInvite(call);
        return;
    }
    if (code == 422 && call.sessionRetries < 2 && !call.cancelWanted) {
        // Session interval too small: ask again with the far end's minimum.
        const auto minSe = parseHeaderInteger(response->header("Min-SE").value_or(""));
        if (minSe && *minSe > 0) {
            ++call.sessionRetries;
            call.requestedInterval = static_cast<int>(std::min<int64_t>(*minSe, 86400));
            call.dialog.remoteTag.clear();
            sendInvite(call);
            return;
        }
    }
    if (code == 487 && call.cancelWanted) {
        endCall(call, 487, "Cancelled");
        return;
    }
    endCall(call, code, reason);
}

void Calls::onInvite2xx(Call& call, const SipMessage& response) {
    if (call.state == CallState::Connected || call.state == CallState::Disconnecting ||
        call.state == CallState::Terminated) {
        // A retransmission of the 2xx we took: the same ACK again. One from
        // another fork would open a second dialog, which we end at once.
        if (response.toTag() == call.dialog.remoteTag) {
            if (call.ackText) (void)ctx_.sendText(*call.ackText, dialogTarget(call));
        } else {
            Call stray;
            stray.id = call.id;
            stray.dialog = call.dialog;
            stray.dialog.remoteTag = response.toTag();
            if (const auto contact = NameAddr::parse(response.header("Contact").value_or(""))) {
                stray.dialog.remoteTarget = contact->uri;
            }
            stray.dialog.routeSet = response.recordRoutes();
            std::reverse(stray.dialog.routeSet.begin(), stray.dialog.routeSet.end());
            stray.targets = call.targets;
            sendAck(stray, response);
            sendBye(stray);
        }
        return;
    }
    ctx_.loop->cancel(call.noAnswerTimer);
    call.noAnswerTimer = 0;
    call.dialog.remoteTag = response.toTag();
    if (const auto contact = response.header("Contact")) {
        if (const auto na = NameAddr::parse(*contact)) call.dialog.remoteTarget = na->uri;
    }
    auto records = response.recordRoutes();
    std::reverse(records.begin(), records.end());
    call.dialog.routeSet = records;
    sendAck(call, response);
    if (call.cancelWanted) {
        // The answer crossed our CANCEL: the call is up, so it ends by BYE.
        sendBye(call);
        return;
    }
    if (!takeAnswer(call, response.body)) {
        log::warn(kTag, callPrefix(call) + ": unusable answer SDP, hanging up");
        sendBye(call);
        return;
    }
    for (const std::string& allow : response.headers("Allow")) {
        call.peerAllowsUpdate = call.peerAllowsUpdate || allow.find("UPDATE") != std::string::npos;
    }
    setCallState(call, CallState::Connected, response.statusCode, response.reason);
    readSessionTimer(call, response, true);
}

SipTarget Calls::dialogTarget(const Call& call) const {
    return UaContext::dialogTarget(call.dialog, call.targets.empty() ? SipTarget{} : call.targets[call.targetIndex]);
}

SipMessage Calls::buildInDialogRequest(Call& call, std::string_view method) {
    SipMessage m = ctx_.buildDialogRequest(call.dialog, method, dialogTarget(call));
    if (method == "INVITE" || method == "UPDATE") m.addHeader("Contact", contactFor(call));
    m.addHeader("User-Agent", ctx_.config.userAgent);
    return m;
}

void Calls::sendPrack(Call& call, const SipMessage& provisional) {
    bool reliable = false;
    for (const std::string& value : provisional.headers("Require")) {
        reliable = reliable || value.find("100rel") != std::string::npos;
    }
    const auto rseq = parseHeaderInteger(provisional.header("RSeq").value_or(""));
    const auto cseq = provisional.cseq();
    if (!reliable || !rseq || !cseq || *rseq < 1 || *rseq > 0xffffffffLL) return;
    const auto fork = call.earlyDialogs.find(provisional.toTag());
    if (fork == call.earlyDialogs.end()) return;
    EarlyDialog& early = fork->second;
    // Each reliable response once, in order; repeats are the far end's
    // retransmissions, which our PRACK's own transaction answers.
    if (early.lastRseq && static_cast<uint32_t>(*rseq) <= *early.lastRseq) return;
    early.lastRseq = static_cast<uint32_t>(*rseq);
    // The PRACK goes within that fork's early dialog.
    const Dialog saved = call.dialog;
    call.dialog.remoteTag = fork->first;
    call.dialog.remoteTarget = early.remoteTarget;
    call.dialog.routeSet = early.routeSet;
    SipMessage prack = buildInDialogRequest(call, "PRACK");
    const SipTarget target = dialogTarget(call);
    const uint32_t used = call.dialog.localCseq;
    call.dialog = saved;
    call.dialog.localCseq = used;
    prack.addHeader("RAck", std::to_string(*rseq) + " " + std::to_string(cseq->number) + " INVITE");
    (void)ctx_.transactions->sendRequest(prack, target, [](const SipMessage*) {});
}

void Calls::sendAck(Call& call, const SipMessage& response) {
    SipMessage ack = buildInDialogRequest(call, "ACK");
    if (const auto cseq = response.cseq()) ack.setHeader("CSeq", std::to_string(cseq->number) + " ACK");
    // An ACK for a 2xx is a transaction of its own: a fresh branch.
    ack.setHeader("Via", ctx_.viaFor(dialogTarget(call)) + ";branch=" + ctx_.transactions->newBranch());
    call.ackText = ack.toString();
    (void)ctx_.sendText(*call.ackText, dialogTarget(call));
}

void Calls::onStray2xx(const SipMessage& response, const SipTarget&) {
    if (Call* call = findCallByDialog(response, true)) {
        onInvite2xx(*call, response);
    }
}

void Calls::sendCancel(Call& call) {
    const SipMessage& invite = call.invite;
    SipMessage cancel;
    cancel.isRequest = true;
    cancel.method = "CANCEL";
    cancel.requestUri = invite.requestUri;
    cancel.addHeader("Via", invite.header("Via").value_or(""));
    for (const std::string& route : invite.routes()) cancel.addHeader("Route", route);
    cancel.addHeader("Max-Forwards", "70");
    cancel.addHeader("From", invite.header("From").value_or(""));
    cancel.addHeader("To", invite.header("To").value_or(""));
    cancel.addHeader("Call-ID", invite.callId());
    cancel.addHeader("CSeq", std::to_string(invite.cseq() ? invite.cseq()->number : 1) + " CANCEL");
    cancel.addHeader("User-Agent", ctx_.config.userAgent);
    (void)ctx_.transactions->sendRequest(cancel, call.targets[call.targetIndex], [](const SipMessage*) {});
}

void Calls::sendBye(Call& call) {
    const int id = call.id;
    if (call.state != CallState::Terminated) setCallState(call, CallState::Disconnecting);
    SipMessage bye = buildInDialogRequest(call, "BYE");
    (void)ctx_.transactions->sendRequest(bye, dialogTarget(call), [this, id](const SipMessage* r) {
        if (r != nullptr && r->statusCode < 200) return;
        Call* c = findCall(id);
        if (c == nullptr || c->state == CallState::Terminated) return;
        log::info(kTag, callPrefix(*c) + ": BYE completed");
        endCall(*c, c->statusCode, c->reason.empty() ? "Local hangup" : c->reason);
    });
    if (call.media) call.media->close();
}

bool Calls::hangupCall(int id) {
    Call* call = findCall(id);
    if (call == nullptr) return false;
    switch (call->state) {
        case CallState::Connected:
            call->reason = "Local hangup";
            sendBye(*call);
            return true;
        case CallState::Calling:
        case CallState::Proceeding:
        case CallState::Ringing:
            call->cancelWanted = true;
            if (call->provisionalSeen) sendCancel(*call);
            if (call->inviteKey.empty()) endCall(*call, 487, "Cancelled");  // still resolving
            return true;
        case CallState::Incoming:
            return rejectCall(id, 603);
        case CallState::Disconnecting:
        case CallState::Terminated:
            return false;
    }
    return false;
}

size_t Calls::hangupAll() {
    std::vector<int> ids;
    for (const auto& [id, call] : calls_) ids.push_back(id);
    size_t asked = 0;
    for (const int id : ids)
        if (hangupCall(id)) ++asked;
    return asked;
}

bool Calls::ending() const {
    for (const auto& [id, call] : calls_)
        if (call->state != CallState::Terminated) return true;
    return false;
}

bool Calls::holdCall(int id, bool hold) {
    Call* call = findCall(id);
    if (call == nullptr || call->state != CallState::Connected || !call->reofferKey.empty()) return false;
    if (call->localHold == hold) return true;
    call->localHold = hold;
    sendReoffer(*call);
    return true;
}

bool Calls::sendDtmf(int id, const std::string& digits, DtmfMethod method) {
    Call* call = findCall(id);
    if (call == nullptr || call->state != CallState::Connected) return false;
    for (const char d : digits) {
        if (!dtmfEventCode(d)) return false;
    }
    // Without an agreed telephone-event the digits go by INFO.
    const bool events = method == DtmfMethod::Rfc4733 && call->media && call->codec &&
                        call->codec->telephoneEventPayloadType >= 0;
    if (events) {
        for (const char d : digits) {
            if (!call->media->sendDigit(d)) return false;
        }
        return true;
    }
    for (const char d : digits) call->infoDigits.push_back(d);
    if (!call->infoInFlight) sendNextInfoDigit(*call);
    return true;
}

void Calls::sendNextInfoDigit(Call& call) {
    if (call.infoDigits.empty() || call.state != CallState::Connected) {
        call.infoInFlight = false;
        return;
    }
    const char digit = call.infoDigits.front();
    call.infoDigits.pop_front();
    call.infoInFlight = true;
    SipMessage info = buildInDialogRequest(call, "INFO");
    info.addHeader("Content-Type", "application/dtmf-relay");
    info.body = std::string("Signal=") + digit + "\r\nDuration=160\r\n";
    const int id = call.id;
    (void)ctx_.transactions->sendRequest(info, dialogTarget(call), [this, id](const SipMessage* r) {
        if (r != nullptr && r->statusCode < 200) return;
        if (Call* c = findCall(id)) sendNextInfoDigit(*c);
    });
}

}  // namespace kelsip
