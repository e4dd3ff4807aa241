// Instant messages: MESSAGE sent from a line, with its result reported to
// the listener, and the MESSAGE requests that arrive.
#include "sip/ua/messages.h"

#include "sip/core/log.h"
#include "sip/syntax/address.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";

}  // namespace

int Messages::send(int lineId, const std::string& target, const std::string& body,
                   const std::string& contentType) {
    const Line* line = lines_.find(lineId);
    if (line == nullptr || !ctx_.started) return 0;
    auto uri = UaContext::completeTarget(*line, target);
    SipMessage m = outgoing_.build(*line, "MESSAGE", uri.value_or(SipUri{}));
    m.addHeader("User-Agent", ctx_.config.userAgent);
    m.addHeader("Content-Type", contentType.empty() ? "text/plain" : contentType);
    m.body = body;
    auto report = [this](Outgoing& o, int code, const std::string& reason, const SipMessage*) {
        log::info(kTag, "MESSAGE " + std::to_string(o.id) + " -> " + std::to_string(code));
        if (ctx_.listener) ctx_.listener->onMessageResult(o.id, code, reason);
    };
    if (!uri) {
        // Reported like any other result: after the caller has the id.
        const int id = outgoing_.reserveId();
        ctx_.loop->post([report, id] {
            Outgoing none;
            none.id = id;
            report(none, 0, "Cannot resolve destination", nullptr);
        });
        return id;
    }
    return outgoing_.send(*line, std::move(m), report);
}

void Messages::onIncoming(const std::string& key, const SipMessage& request, int lineId) {
    const Line* line = lineId > 0 ? lines_.find(lineId) : lines_.forRequest(request);
    if (line == nullptr) {
        ctx_.respond(key, request, 404);
        return;
    }
    // Any content type is taken: the application shows what it can render
    // (text/plain, say) and passes over the rest, such as typing indications.
    if (request.body.size() > ctx_.config.maxMessageBody) {
        log::warn(kTag, "line " + std::to_string(line->id) + ": MESSAGE of " + std::to_string(request.body.size()) +
                            " bytes refused");
        ctx_.respond(key, request, 413);
        return;
    }
    ctx_.respond(key, request, 200);
    std::string from = request.header("From").value_or("");
    if (const auto na = NameAddr::parse(from)) from = na->uri.toString();
    const std::string type = request.contentType().value_or("text/plain");
    log::info(kTag, "line " + std::to_string(line->id) + ": MESSAGE from " + from);
    if (ctx_.listener) ctx_.listener->onMessage(line->id, from, type, request.body);
}

}  // namespace kelsip
