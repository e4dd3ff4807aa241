// Calls we are offered and every request within a call's dialog: the checks
// on an incoming INVITE, ringing, answering with the 2xx repeated until the
// ACK, BYE, CANCEL, re-INVITE and UPDATE offers, and INFO digits.
#include <algorithm>
#include <cstdlib>
#include <random>

#include "media/session/telephone_event.h"
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/syntax/text.h"
#include "sip/ua/calls.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";


// Whether the request's Accept headers (if any) admit application/sdp:
// "application/sdp", "application/*" or "*/*", with a q above zero.
bool acceptsSdp(const SipMessage& request) {
    const std::vector<std::string> accepts = request.headers("Accept");
    if (accepts.empty()) return true;
    bool listed = false;
    bool admitted = false;
    for (const std::string& value : accepts) {
        text::forEachTopLevel(value, ',', [&](std::string_view item) {
            const std::string_view range = text::trim(item.substr(0, item.find(';')));
            if (range.empty()) return;
            listed = true;
            if (!text::iequals(range, "application/sdp") && !text::iequals(range, "application/*") && range != "*/*") {
                return;
            }
            const auto q = item.find(";q=");
            admitted = admitted || q == std::string_view::npos || std::strtod(std::string(item.substr(q + 3)).c_str(), nullptr) > 0;
        });
    }
    return !listed || admitted;  // an empty Accept says nothing
}

// The digit of an INFO body. dtmf-relay: name=value lines, "Signal" the
// digit. dtmf: a number 0-16 (0-9, *, #, A-D, flash) or the digit itself.
// Flash has no key of its own; it is reported as '!'.
std::optional<char> infoDigit(const SipMessage& request) {
    const std::string type = request.header("Content-Type").value_or("");
    const std::string_view mime = text::trim(std::string_view(type).substr(0, type.find(';')));
    std::string_view value;
    if (text::iequals(mime, "application/dtmf-relay")) {
        std::string_view rest = request.body;
        while (!rest.empty()) {
            const auto end = rest.find_first_of("\r\n");
            const std::string_view line = rest.substr(0, end);
            rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
            const auto eq = line.find('=');
            if (eq == std::string_view::npos) continue;
            if (text::iequals(text::trim(line.substr(0, eq)), "Signal")) value = text::trim(line.substr(eq + 1));
        }
    } else if (text::iequals(mime, "application/dtmf")) {
        value = text::trim(request.body);
        if (const auto n = parseHeaderInteger(value); n && *n >= 0 && *n <= 16) {
            return std::string_view("0123456789*#ABCD!")[static_cast<size_t>(*n)];
        }
    } else {
        return std::nullopt;
    }
    if (value.size() != 1 || !dtmfEventCode(value.front())) return std::nullopt;
    const char d = value.front();
    return (d >= 'a' && d <= 'd') ? static_cast<char>(d - 'a' + 'A') : d;
}

// The dialog a Replaces header (or parameter value) names.
struct ReplacesTarget {
    std::string callId;
    std::string toTag;
    std::string fromTag;
    bool earlyOnly = false;
};

std::optional<ReplacesTarget> parseReplaces(std::string_view value) {
    ReplacesTarget r;
    r.callId = std::string(text::trim(value.substr(0, value.find(';'))));
    if (r.callId.empty()) return std::nullopt;
    if (value.find(';') != std::string_view::npos) {
        for (const Param& p : parseParams(value.substr(value.find(';')))) {
            if (p.name == "to-tag") r.toTag = p.value;
            if (p.name == "from-tag") r.fromTag = p.value;
            if (p.name == "early-only") r.earlyOnly = true;
        }
    }
    return r;
}

}  // namespace

void Calls::onInvite(const std::string& key, const SipMessage& request, const SipTarget& source) {
    if (lines_.first() == nullptr) {
        ctx_.respond(key, request, 480);  // nobody here takes calls
        return;
    }
    int active = 0;
    for (const auto& [id, c] : calls_) active += c->state != CallState::Terminated;
    if (active >= ctx_.config.maxCalls) {
        ctx_.respond(key, request, 486);
        return;
    }
    // Overload: refused at once, before any media is set up. A phone reaches
    // maxCalls first; a server configured for load reaches this.
    if (active >= ctx_.config.maxCallsInProgress) {
        if (!overloaded_) log::warn(kTag, "overload: " + std::to_string(active) + " calls in progress, refusing new calls");
        overloaded_ = true;
        ctx_.respond(key, request, 503, {}, {{"Retry-After", std::to_string(ctx_.config.overloadRetryAfterSeconds)}});
        return;
    }
    overloaded_ = false;
    if (const std::string unsupported = unsupportedRequirements(request); !unsupported.empty()) {
        ctx_.respond(key, request, 420, {}, {{"Unsupported", unsupported}});
        return;
    }
    int replacedCall = 0;
    if (const auto replaces = request.header("Replaces")) {
        // The named dialog is ours when its to-tag is our tag and its
        // from-tag the far end's.
        const auto target = parseReplaces(*replaces);
        const Call* found = nullptr;
        for (const auto& [id, c] : calls_) {
            if (target && c->dialog.callId == target->callId && c->dialog.localTag == target->toTag &&
                c->dialog.remoteTag == target->fromTag && c->state != CallState::Terminated) {
                found = c.get();
            }
        }
        if (found == nullptr) {
            ctx_.respond(key, request, 481);
            return;
        }
        if (target->earlyOnly && found->state == CallState::Connected) {
            ctx_.respond(key, request, 486);
            return;
        }
        replacedCall = found->id;
    }
    if (const auto se = request.header("Session-Expires")) {
        const auto seconds = parseHeaderInteger(se->substr(0, se->find(';')));
        if (seconds && *seconds < ctx_.config.minSessionExpires) {
            ctx_.respond(key, request, 422, {}, {{"Min-SE", std::to_string(ctx_.config.minSessionExpires)}});
            return;
        }
    }
    const std::string type = request.header("Content-Type").value_or("");
    if (!request.body.empty() && !text::iequals(text::trim(type.substr(0, type.find(';'))), "application/sdp")) {
        ctx_.respond(key, request, 415, {}, {{"Accept", "application/sdp"}});
        return;
    }
    if (!acceptsSdp(request)) {
        // Our answer (or late offer) is SDP: a caller that takes none cannot have it.
        ctx_.respond(key, request, 406, {}, {{"Accept", "application/sdp"}});
        return;
    }

    auto owned = std::make_unique<Call>();
    Call& call = *owned;
    call.id = nextCallId_++;
    call.line = lines_.first()->id;
    call.incoming = true;
    call.state = CallState::Incoming;
    call.invite = request;
    call.inviteKey = key;
    call.replaces = replacedCall;
    call.targets = {source};
    if (const auto from = NameAddr::parse(request.header("From").value_or(""))) {
        call.remoteUri = from->uri.toString();
        call.remoteDisplayName = from->displayName;
    }
    Dialog& d = call.dialog;
    d.callId = request.callId();
    d.localTag = ctx_.randomToken(10);
    d.remoteTag = request.fromTag();
    d.remoteCseq = request.cseq() ? std::optional<uint32_t>(request.cseq()->number) : std::nullopt;
    {
        auto from = NameAddr::parse(request.header("From").value_or(""));
        auto to = NameAddr::parse(request.header("To").value_or(""));
        if (from) from->removeParam("tag");
        if (to) to->removeParam("tag");
        d.remoteUri = from ? from->toString() : request.header("From").value_or("");
        d.localUri = to ? to->toString() : request.header("To").value_or("");
    }
    if (const auto contact = NameAddr::parse(request.header("Contact").value_or(""))) {
        d.remoteTarget = contact->uri;
    } else if (const auto from = NameAddr::parse(request.header("From").value_or(""))) {
        d.remoteTarget = from->uri;
    }
    d.routeSet = request.recordRoutes();

    if (!openRtp(call, source)) {
        log::warn(kTag, "no RTP port available");
        ctx_.respond(key, request, 503);
        return;
    }
    if (request.body.empty()) {
        call.lateOffer = true;
    } else {
        std::string error;
        auto offer = SessionDescription::parse(request.body, &error);
        AnswerOptions options;
        options.telephoneEvent = ctx_.config.telephoneEvent;
        auto codec = offer ? chooseFromOffer(*offer, options, &error) : std::nullopt;
        if (!codec) {
            call.rtp->close({});
            ctx_.respond(key, request, 488, {}, {{"Warning", std::string(kNoCommonCodecWarning)}});
            return;
        }
        if (!takeOfferCrypto(call, *offer)) {
            call.rtp->close({});
            ctx_.respond(key, request, 488);
            return;
        }
        takeOfferIce(call, *offer);
        call.remoteOffer = std::move(offer);
        call.codec = codec;
    }
    const int id = call.id;
    calls_[id] = std::move(owned);
    // Nobody rings for ever: the caller's Expires (RFC 3261 13.3.1) or our
    // own limit, whichever comes first, ends the invitation with 487.
    int64_t ringMs = ctx_.config.ringingTimeoutMs > 0 ? ctx_.config.ringingTimeoutMs : INT64_MAX;
    if (const auto expires = parseHeaderInteger(request.header("Expires").value_or("")); expires && *expires >= 0) {
        ringMs = std::min<int64_t>(ringMs, std::min<int64_t>(*expires, INT32_MAX) * 1000);
    }
    if (ringMs != INT64_MAX) call.noAnswerTimer = ctx_.transactions->schedule(ringMs, [this, id] {
        Call* c = findCall(id);
        if (c == nullptr || c->state != CallState::Incoming) return;
        c->noAnswerTimer = 0;
        log::info(kTag, callPrefix(*c) + " not answered in time, ending");
        (void)ctx_.transactions->sendResponse(c->inviteKey, makeResponse(c->invite, 487, "", c->dialog.localTag));
        endCall(*c, 487, "Not answered");
    });
    log::info(kTag, callPrefix(call) + " -> " + std::string(toString(call.state)));
    if (ctx_.listener) ctx_.listener->onCallState(infoOf(call));
    // The 180 already carries the dialog's tag: the answer must carry the same.
    SipMessage ringing = makeResponse(request, 180, "", call.dialog.localTag);
    ringing.addHeader("Contact", contactFor(call));
    ringing.addHeader("Server", ctx_.config.userAgent);
    // Reliably when the caller can PRACK and we offer 100rel, or when the
    // caller insists on it.
    bool callerSupports = false;
    bool callerRequires = false;
    for (const std::string& v : request.headers("Supported")) callerSupports |= v.find("100rel") != std::string::npos;
    for (const std::string& tag : requiredTags(request)) callerRequires |= tag == "100rel";
    if (callerRequires || (callerSupports && ctx_.config.enable100rel)) {
        std::uniform_int_distribution<uint32_t> start(1, 9999);
        call.rseq = start(ctx_.random);
        ringing.addHeader("Require", "100rel");
        ringing.addHeader("RSeq", std::to_string(call.rseq));
        call.reliableText = ringing.toString();
        call.reliableRepeats.start(ctx_.transactions->timers().t1Ms);
        call.reliableTimer =
            ctx_.transactions->schedule(call.reliableRepeats.intervalMs, [this, id] { retransmitReliable1xx(id); });
    }
    (void)ctx_.transactions->sendResponse(key, ringing);
    if (ctx_.listener) ctx_.listener->onIncomingCall(infoOf(call));
}

bool Calls::answerCall(int id) {
    Call* found = findCall(id);
    if (found == nullptr || found->state != CallState::Incoming) return false;
    Call& call = *found;
    // The answer names our candidates: it waits for them, for two seconds at most.
    if (call.iceView != nullptr && !call.iceGathered) {
        whenGathered(call, [this](Call& c) { (void)answerCall(c.id); });
        return true;
    }
    SipMessage ok = makeResponse(call.invite, 200, "", call.dialog.localTag);
    ok.addHeader("Contact", contactFor(call));
    ok.addHeader("Allow", kUserAgentAllow);
    ok.addHeader("Supported", ctx_.config.enable100rel ? "100rel, replaces, timer" : "replaces, timer");
    ok.addHeader("Server", ctx_.config.userAgent);
    for (const std::string& allow : call.invite.headers("Allow")) {
        call.peerAllowsUpdate = call.peerAllowsUpdate || allow.find("UPDATE") != std::string::npos;
    }
    if (call.invite.hasHeader("Session-Expires")) {
        readSessionTimer(call, call.invite, false);
        addSessionHeaders(call, ok);
        ok.addHeader("Require", "timer");
    }
    ok.addHeader("Content-Type", "application/sdp");
    if (call.lateOffer) {
        ok.body = buildOffer(call, MediaDirection::SendRecv);
    } else {
        MediaDirection ours = MediaDirection::SendRecv;
        const MediaDirection theirs = call.remoteOffer->media.empty() ? MediaDirection::SendRecv
                                                                      : call.remoteOffer->media.front().direction();
        if (theirs == MediaDirection::SendOnly) ours = MediaDirection::RecvOnly;
        if (theirs == MediaDirection::Inactive) ours = MediaDirection::Inactive;
        if (theirs == MediaDirection::RecvOnly) ours = MediaDirection::SendOnly;
        ok.body = buildAnswer(call, ours);
        startMedia(call, *call.remoteOffer, ours);
    }
    if (!ctx_.transactions->sendResponse(call.inviteKey, ok)) return false;
    ctx_.loop->cancel(call.reliableTimer);  // the 2xx settles the ringing
    ctx_.loop->cancel(call.noAnswerTimer);
    call.reliableTimer = call.noAnswerTimer = 0;
    call.reliableText.clear();
    sendInviteOk(call, {}, ok, call.targets.front());
    setCallState(call, CallState::Connected, 200, "OK");
    armSessionTimer(call);
    if (Call* replaced = findCall(call.replaces); replaced != nullptr && replaced->state != CallState::Terminated) {
        // The new call takes the old one's place (an attended transfer).
        replaced->reason = "Replaced";
        if (replaced->state == CallState::Connected) {
            sendBye(*replaced);
        } else {
            (void)hangupCall(replaced->id);
        }
    }
    return true;
}

// The transaction forwards a 2xx to an INVITE once; we repeat it until the
// ACK (a re-INVITE's as well as the first). An empty key: already sent.
void Calls::sendInviteOk(Call& call, const std::string& key, const SipMessage& ok, const SipTarget& target) {
    if (!key.empty()) (void)ctx_.transactions->sendResponse(key, ok);
    ctx_.loop->cancel(call.okTimer);
    call.okText = ok.toString();
    call.okTarget = target;
    call.okRepeats.start(ctx_.transactions->timers().t1Ms);
    const int id = call.id;
    call.okTimer = ctx_.transactions->schedule(call.okRepeats.intervalMs, [this, id] { retransmit2xx(id); });
}

void Calls::retransmit2xx(int id) {
    Call* call = findCall(id);
    if (call == nullptr || call->okText.empty()) return;
    const int64_t limit = 64 * ctx_.transactions->timers().t1Ms;
    if (call->okRepeats.waited(limit)) {
        call->okTimer = 0;
        log::warn(kTag, callPrefix(*call) + ": no ACK for 2xx, terminating");
        call->okText.clear();
        sendBye(*call);
        return;
    }
    (void)ctx_.sendText(call->okText, call->okTarget);
    const int64_t wait = call->okRepeats.next(ctx_.transactions->timers().t2Ms, limit);
    call->okTimer = ctx_.transactions->schedule(wait, [this, id] { retransmit2xx(id); });
}

void Calls::retransmitReliable1xx(int id) {
    Call* call = findCall(id);
    if (call == nullptr || call->reliableText.empty()) return;
    const int64_t limit = 64 * ctx_.transactions->timers().t1Ms;
    if (call->reliableRepeats.waited(limit)) {
        call->reliableTimer = 0;
        call->reliableText.clear();
        log::warn(kTag, callPrefix(*call) + ": no PRACK received");
        if (call->state == CallState::Incoming) {
            SipMessage failure = makeResponse(call->invite, 504, "", call->dialog.localTag);
            (void)ctx_.transactions->sendResponse(call->inviteKey, failure);
            endCall(*call, 504, "no PRACK received");
        }
        return;
    }
    if (auto again = SipMessage::parse(call->reliableText)) (void)ctx_.transactions->sendResponse(call->inviteKey, *again);
    // RFC 3262: the interval doubles without the T2 cap.
    const int64_t wait = call->reliableRepeats.next(limit, limit);
    call->reliableTimer = ctx_.transactions->schedule(wait, [this, id] { retransmitReliable1xx(id); });
}

bool Calls::rejectCall(int id, int statusCode) {
    Call* call = findCall(id);
    if (call == nullptr || call->state != CallState::Incoming || statusCode < 300 || statusCode > 699) return false;
    SipMessage answer = makeResponse(call->invite, statusCode, "", call->dialog.localTag);
    answer.addHeader("Server", ctx_.config.userAgent);
    (void)ctx_.transactions->sendResponse(call->inviteKey, answer);
    endCall(*call, statusCode, answer.reason);
    return true;
}

void Calls::onAck(const SipMessage& ack) {
    Call* call = findCallByDialog(ack, false);
    if (call == nullptr) return;
    ctx_.loop->cancel(call->okTimer);
    call->okTimer = 0;
    call->okText.clear();
    const bool answerDue = (call->lateOffer && call->codec == std::nullopt) || call->answerInAck;
    if (!answerDue) return;
    call->answerInAck = false;
    if (!takeAnswer(*call, ack.body)) {
        log::warn(kTag, callPrefix(*call) + ": unusable answer SDP, hanging up");
        sendBye(*call);
        return;
    }
    if (call->state == CallState::Connected && ctx_.listener) ctx_.listener->onCallInfo(infoOf(*call));
}

void Calls::onCancel(const std::string& key, const SipMessage& cancel) {
    const auto inviteKey = ctx_.transactions->inviteKeyForCancel(cancel);
    Call* target = nullptr;
    for (auto& [id, c] : calls_) {
        if (inviteKey && c->incoming && c->inviteKey == *inviteKey) target = c.get();
    }
    if (target == nullptr) {
        ctx_.respond(key, cancel, 481);
        return;
    }
    // The same To tag as the INVITE's answers: a peer that takes the tag of
    // the latest response must still name our dialog (RFC 3261 9.2).
    SipMessage ok = makeResponse(cancel, 200, "", target->dialog.localTag);
    ok.addHeader("Server", ctx_.config.userAgent);
    (void)ctx_.transactions->sendResponse(key, ok);
    // Once answered, a CANCEL changes nothing.
    if (target->state != CallState::Incoming) return;
    SipMessage terminated = makeResponse(target->invite, 487, "", target->dialog.localTag);
    (void)ctx_.transactions->sendResponse(target->inviteKey, terminated);
    endCall(*target, 487, "Cancelled");
}

void Calls::onInDialogRequest(Call& call, const std::string& key, const SipMessage& request,
                                         const SipTarget& source) {
    const std::string& method = request.method;
    if (const auto cseq = request.cseq()) {
        if (call.dialog.remoteCseq && cseq->number < *call.dialog.remoteCseq && method != "ACK") {
            ctx_.respond(key, request, 500, "Out of order");
            return;
        }
        call.dialog.remoteCseq = cseq->number;
    }
    if (method == "PRACK") {
        const std::string rack = request.header("RAck").value_or("");
        const auto rseq = parseHeaderInteger(rack.substr(0, rack.find(' ')));
        if (call.reliableText.empty() || !rseq || static_cast<uint32_t>(*rseq) != call.rseq) {
            ctx_.respond(key, request, 481);
            return;
        }
        ctx_.loop->cancel(call.reliableTimer);
        call.reliableTimer = 0;
        call.reliableText.clear();
        ctx_.respond(key, request, 200);
        return;
    }
    if (method == "BYE") {
        ctx_.respond(key, request, 200);
        endCall(call, call.statusCode, "Remote hangup");
        return;
    }
    if (method == "REFER") {
        onRefer(call, key, request);
        return;
    }
    if (method == "NOTIFY") {
        ctx_.respond(key, request, 200);
        const std::string event = request.header("Event").value_or("");
        if (event.rfind("refer", 0) != 0) return;
        // "SIP/2.0 180 Ringing": the transferred call's progress.
        const std::string_view body = request.body;
        if (body.rfind("SIP/2.0 ", 0) == 0) {
            const std::string_view line = body.substr(8, body.find_first_of("\r\n") == std::string_view::npos
                                                               ? std::string_view::npos
                                                               : body.find_first_of("\r\n") - 8);
            const auto code = parseHeaderInteger(line.substr(0, line.find(' ')));
            const std::string reason = line.find(' ') == std::string_view::npos ? "" : std::string(line.substr(line.find(' ') + 1));
            if (code && ctx_.listener) ctx_.listener->onTransferProgress(call.id, static_cast<int>(*code), reason);
        }
        return;
    }
    if (method == "INFO") {
        const auto digit = infoDigit(request);
        ctx_.respond(key, request, 200);
        if (digit && ctx_.listener) ctx_.listener->onDtmf(call.id, *digit, DtmfMethod::Info);
        return;
    }
    if (method == "INVITE" || method == "UPDATE") {
        // An INVITE always opens an offer/answer exchange (with or without
        // its offer); an UPDATE only when it carries one. While one of ours
        // is open, theirs is glare.
        const bool exchange = method == "INVITE" || !request.body.empty();
        if (exchange && (!call.reofferKey.empty() || call.answerInAck)) {
            ctx_.respond(key, request, 491);
            return;
        }
        const bool refresh = request.hasHeader("Session-Expires");
        if (refresh) readSessionTimer(call, request, false);
        SipMessage ok = makeResponse(request, 200, "", "");
        ok.addHeader("Contact", contactFor(call));
        ok.addHeader("Server", ctx_.config.userAgent);
        if (refresh) {
            addSessionHeaders(call, ok);
            ok.addHeader("Require", "timer");
        }
        if (request.body.empty() && method == "UPDATE") {
            (void)ctx_.transactions->sendResponse(key, ok);  // a refresh, no offer
            return;
        }
        if (request.body.empty()) {
            // An offerless re-INVITE (a PBX refreshing or moving media) asks
            // for our offer; the answer comes in the ACK.
            ok.addHeader("Content-Type", "application/sdp");
            ok.body = buildOffer(call, call.localHold ? MediaDirection::SendOnly : MediaDirection::SendRecv);
            call.answerInAck = true;
            sendInviteOk(call, key, ok, source);
            return;
        }
        auto offer = SessionDescription::parse(request.body);
        AnswerOptions options;
        options.telephoneEvent = ctx_.config.telephoneEvent;
        auto codec = offer ? chooseFromOffer(*offer, options) : std::nullopt;
        if (!codec) {
            ctx_.respond(key, request, 488, {}, {{"Warning", std::string(kNoCommonCodecWarning)}});
            return;
        }
        if (!takeOfferCrypto(call, *offer)) {
            ctx_.respond(key, request, 488);
            return;
        }
        const MediaDirection theirs = offer->media.front().direction();
        call.remoteHold = theirs == MediaDirection::SendOnly || theirs == MediaDirection::Inactive;
        MediaDirection ours = call.localHold ? MediaDirection::SendOnly : MediaDirection::SendRecv;
        if (theirs == MediaDirection::SendOnly) ours = call.localHold ? MediaDirection::Inactive : MediaDirection::RecvOnly;
        if (theirs == MediaDirection::Inactive) ours = MediaDirection::Inactive;
        if (theirs == MediaDirection::RecvOnly) ours = MediaDirection::SendOnly;
        call.codec = codec;
        call.remoteOffer = offer;
        takeOfferIce(call, *offer);
        ok.addHeader("Content-Type", "application/sdp");
        ok.body = buildAnswer(call, ours);
        if (method == "INVITE") {
            sendInviteOk(call, key, ok, source);
        } else {
            (void)ctx_.transactions->sendResponse(key, ok);
        }
        startMedia(call, *offer, ours);
        if (ctx_.listener) ctx_.listener->onCallInfo(infoOf(call));
        return;
    }
    if (method == "OPTIONS") {
        ctx_.respond(key, request, 200, {}, {{"Allow", std::string(kUserAgentAllow)}});
        return;
    }
    ctx_.respond(key, request, 405, {}, {{"Allow", std::string(kUserAgentAllow)}});
}

}  // namespace kelsip
