// Session timers (RFC 4028): the headers a call's INVITE, answers and
// refreshes carry, who refreshes, the refresh at half the interval, and the
// hang-up when the other side's refresh does not come.
#include <algorithm>

#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/ua/calls.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";


}  // namespace

void Calls::addSessionHeaders(const Call& call, SipMessage& message) const {
    if (call.sessionInterval > 0) {
        // Who refreshes, named from the side of whoever sends this request:
        // as the refresher we are its client ("uac").
        const bool request = message.isRequest;
        const bool weAreUac = request;
        const bool refresherIsUac = call.localRefresher == weAreUac;
        message.addHeader("Session-Expires",
                          std::to_string(call.sessionInterval) + ";refresher=" + (refresherIsUac ? "uac" : "uas"));
    } else if (message.isRequest) {
        message.addHeader("Session-Expires", std::to_string(call.requestedInterval > 0 ? call.requestedInterval
                                                                                        : ctx_.config.sessionExpires));
    }
    message.addHeader("Min-SE", std::to_string(ctx_.config.minSessionExpires));
}

void Calls::readSessionTimer(Call& call, const SipMessage& message, bool weSentTheRequest) {
    const auto header = message.header("Session-Expires");
    if (!header) {
        call.sessionInterval = 0;
        armSessionTimer(call);
        return;
    }
    const auto seconds = parseHeaderInteger(header->substr(0, header->find(';')));
    call.sessionInterval = seconds && *seconds > 0 ? static_cast<uint32_t>(std::min<int64_t>(*seconds, 86400)) : 0;
    std::optional<std::string> refresher;
    for (const Param& p : parseParams(header->substr(std::min(header->find(';'), header->size())))) {
        if (p.name == "refresher") refresher = p.value;
    }
    // Without the parameter, this side refreshes. With it, "uac" names the
    // client of the transaction that carried the value.
    if (!refresher) {
        call.localRefresher = true;
    } else {
        const bool uac = *refresher == "uac";
        call.localRefresher = uac == weSentTheRequest;
    }
    armSessionTimer(call);
}

void Calls::armSessionTimer(Call& call) {
    ctx_.loop->cancel(call.sessionTimer);
    call.sessionTimer = 0;
    if (call.sessionInterval < 1 || call.state != CallState::Connected) return;
    const int id = call.id;
    if (call.localRefresher) {
        call.sessionTimer = ctx_.transactions->schedule(int64_t{call.sessionInterval} * 500, [this, id] {
            Call* c = findCall(id);
            if (c == nullptr) return;
            c->sessionTimer = 0;
            sendSessionRefresh(*c);
        });
        return;
    }
    const int64_t interval = call.sessionInterval;
    const int64_t guard = std::max<int64_t>(1, interval - std::min<int64_t>(interval / 3, 32));
    call.sessionTimer = ctx_.transactions->schedule(guard * 1000, [this, id] {
        Call* c = findCall(id);
        if (c == nullptr || c->state != CallState::Connected) return;
        c->sessionTimer = 0;
        log::warn(kTag, callPrefix(*c) + ": session timer expired without refresh, hanging up");
        c->reason = "Session timer expired";
        sendBye(*c);
    });
}

void Calls::sendSessionRefresh(Call& call) {
    if (call.state != CallState::Connected) return;
    const int id = call.id;
    if (!call.peerAllowsUpdate) {
        // A re-INVITE with the current offer; its 2xx re-arms the timer.
        if (call.reofferKey.empty()) sendReoffer(call);
        return;
    }
    SipMessage update = buildInDialogRequest(call, "UPDATE");
    addSessionHeaders(call, update);
    (void)ctx_.transactions->sendRequest(update, dialogTarget(call), [this, id](const SipMessage* r) {
        Call* c = findCall(id);
        if (c == nullptr || (r != nullptr && r->statusCode < 200)) return;
        if (r != nullptr && r->statusCode < 300) {
            readSessionTimer(*c, *r, true);
        } else {
            // No refresh went through: the guard of the other side decides;
            // we try again at the next half interval.
            armSessionTimer(*c);
        }
    });
}

}  // namespace kelsip
