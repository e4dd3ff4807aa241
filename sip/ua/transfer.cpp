// Call transfer: REFER sent (blind, and attended with Replaces) with the
// progress its NOTIFYs report, and a REFER served: 202, a new call to the
// target, and NOTIFYs with that call's progress to the one who asked.
#include <cctype>
#include <string>

#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/ua/calls.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";


// Escapes what may not stand bare in a URI header value (RFC 3261 25.1).
std::string escapeHeaderValue(std::string_view value) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : value) {
        const auto u = static_cast<unsigned char>(c);
        const bool plain = std::isalnum(u) || std::string_view("-_.!~*'()[]/?:+$").find(c) != std::string_view::npos;
        if (plain) {
            out += c;
        } else {
            out += '%';
            out += kHex[u >> 4];
            out += kHex[u & 0x0f];
        }
    }
    return out;
}

// Undoes percent-escapes ("%3B" -> ";").
std::string unescape(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace

bool Calls::sendRefer(Call& call, const std::string& referTo) {
    SipMessage refer = buildInDialogRequest(call, "REFER");
    refer.addHeader("Refer-To", "<" + referTo + ">");
    refer.addHeader("Referred-By", call.dialog.localUri);
    const int id = call.id;
    const std::string key = ctx_.transactions->sendRequest(refer, dialogTarget(call), [this, id](const SipMessage* r) {
        if (r != nullptr && r->statusCode < 300) return;  // 202: the NOTIFYs tell the rest
        // A refused REFER is reported as the transfer's outcome.
        const int code = r != nullptr ? r->statusCode : 408;
        if (findCall(id) != nullptr && ctx_.listener) {
            ctx_.listener->onTransferProgress(id, code, r != nullptr ? r->reason : "Request Timeout");
        }
    });
    return !key.empty();
}

bool Calls::transferCall(int id, const std::string& target) {
    Call* call = findCall(id);
    const Line* line = call != nullptr ? lines_.find(call->line) : nullptr;
    if (call == nullptr || line == nullptr || call->state != CallState::Connected) return false;
    const auto uri = UaContext::completeTarget(*line, target);
    if (!uri) return false;
    return sendRefer(*call, uri->toString());
}

bool Calls::transferCallAttended(int id, int otherId) {
    Call* call = findCall(id);
    const Call* other = findCall(otherId);
    if (call == nullptr || other == nullptr || call->state != CallState::Connected || id == otherId) return false;
    // The other call's dialog as its far end knows it: their tag is the
    // to-tag of a request they receive from the transfer target.
    const std::string replaces = other->dialog.callId + ";to-tag=" + other->dialog.remoteTag +
                                 ";from-tag=" + other->dialog.localTag;
    auto target = other->dialog.remoteTarget;
    const std::string uri = target.toString() + "?Replaces=" + escapeHeaderValue(replaces);
    return sendRefer(*call, uri);
}

void Calls::onRefer(Call& call, const std::string& key, const SipMessage& request) {
    const auto referTo = NameAddr::parse(request.header("Refer-To").value_or(""));
    if (!referTo || referTo->uri.host.empty()) {
        ctx_.respond(key, request, 400, "Missing or bad Refer-To");
        return;
    }
    ctx_.respond(key, request, 202);
    notifyReferrer(call, 100, "Trying", false);

    // The URI's headers (?Replaces=...) go into the new INVITE; the URI
    // itself loses them.
    SipUri uri = referTo->uri;
    std::vector<std::pair<std::string, std::string>> headers;
    const std::string rest = uri.headers;
    for (size_t start = 0; start < rest.size();) {
        const size_t amp = std::min(rest.find('&', start), rest.size());
        const std::string pair = rest.substr(start, amp - start);
        const auto eq = pair.find('=');
        if (eq != std::string::npos) headers.emplace_back(pair.substr(0, eq), unescape(pair.substr(eq + 1)));
        start = amp + 1;
    }
    uri.headers.clear();
    if (const auto by = request.header("Referred-By")) headers.emplace_back("Referred-By", *by);

    const int newId = makeCall(call.line, uri.toString());
    Call* created = findCall(newId);
    if (created == nullptr || created->state == CallState::Terminated) {
        notifyReferrer(call, 503, "Service Unavailable", true);
        return;
    }
    created->referredBy = call.id;
    created->extraHeaders = std::move(headers);
    log::info(kTag, callPrefix(call) + ": transferred to " + uri.toString() + " as call " + std::to_string(newId));
}

void Calls::notifyReferrer(Call& call, int code, const std::string& reason, bool final) {
    if (call.state == CallState::Terminated) return;
    SipMessage notify = buildInDialogRequest(call, "NOTIFY");
    notify.addHeader("Event", "refer");
    notify.addHeader("Subscription-State", final ? "terminated;reason=noresource" : "active;expires=60");
    notify.addHeader("Content-Type", "message/sipfrag;version=2.0");
    notify.body = "SIP/2.0 " + std::to_string(code) + " " + reason;
    (void)ctx_.transactions->sendRequest(notify, dialogTarget(call), [](const SipMessage*) {});
}

}  // namespace kelsip
