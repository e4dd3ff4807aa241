// What every transport does with a received message: parse, annotate the
// top Via, log, and hand it to the event loop.
#include "sip/transport/transport.h"

#include "sip/syntax/address.h"
#include "sip/core/log.h"

namespace kelsip {

bool annotateVia(SipMessage& request, const net::SocketAddress& source) {
    if (!request.isRequest) return false;
    const auto topValue = request.header("Via");
    if (!topValue) return false;
    auto top = Via::parse(*topValue);
    if (!top) return false;
    std::string_view host = top->host;
    if (host.size() >= 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
    bool changed = false;
    const std::string ip = source.ip();
    if (host != ip) {
        top->setParam("received", ip);
        changed = true;
    }
    if (top->hasParam("rport") && top->param("rport")->empty()) {
        top->setParam("rport", std::to_string(source.port()));
        changed = true;
    }
    if (changed) request.replaceHeader("Via", 0, top->toString());
    return changed;
}

uint16_t viaSentByPort(std::string_view viaValue) {
    const auto via = Via::parse(viaValue);
    if (!via) return 0;
    if (via->port != 0) return via->port;
    return via->transport == "TLS" ? 5061 : 5060;
}

void SipTransport::deliver(EventLoop& loop, std::string_view bytes, const SipTarget& source,
                           std::string_view dropText) {
    std::string error;
    auto message = SipMessage::parse(bytes, &error);
    if (!message) {
        // A request whole enough to be answered gets its error (505, 416,
        // 400) straight back where it came from; the rest is dropped.
        if (const auto answer = answerMalformedRequest(bytes, error)) {
            log::warn(kTransportLogTag, "answering malformed request from " + source.address.toString() + " with " +
                                            std::to_string(answer->status) + ": " + error);
            (void)send(answer->response, source);
            return;
        }
        log::warn(kTransportLogTag, std::string(dropText) + source.address.toString() + ": " + error);
        return;
    }
    if (log::enabled(LogLevel::Debug)) {
        std::string line = source.kind == TransportKind::Udp ? "RECV UDP " : "RECV ";
        line += std::to_string(bytes.size()) + " bytes from " + source.address.toString();
        if (source.connection != 0) line += " (connection #" + std::to_string(source.connection) + ")";
        line += "\n";
        line += bytes;
        log::debug(kTransportLogTag, line);
    }
    annotateVia(*message, source.address);
    if (!handler_) return;
    loop.post([handler = handler_, m = std::move(*message), source]() mutable { handler(std::move(m), source); });
}

void SipTransport::reportError(EventLoop& loop, const SipTarget& target, const std::string& reason) {
    if (!errorHandler_) return;
    loop.post([handler = errorHandler_, target, reason] { handler(target, reason); });
}

}  // namespace kelsip
