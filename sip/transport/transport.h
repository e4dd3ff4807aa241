// The transports' common face: open, send, and received messages handed to
// the event loop.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "sip/core/event_loop.h"
#include "sip/syntax/message.h"
#include "sip/net/socket_address.h"
#include "sip/transport/sip_target.h"

namespace kelsip {

// Called on the event-loop thread for every message a transport received
// and parsed, with where it came from.
using ReceiveHandler = std::function<void(SipMessage message, const SipTarget& source)>;
// Called on the event-loop thread when messages queued for a target could
// not be delivered (a connect failed or timed out, a connection broke, a TLS
// certificate was refused), with the reason ("TLS certificate not trusted").
using TransportErrorHandler = std::function<void(const SipTarget& target, const std::string& reason)>;

class SipTransport {
public:
    virtual ~SipTransport() = default;

    [[nodiscard]] virtual TransportKind kind() const = 0;
    // Binds and starts the transport's thread; false with a fixed text on failure.
    [[nodiscard]] virtual bool open(std::string* error) = 0;
    // Stops the thread and closes every socket. Idempotent.
    virtual void close() = 0;
    // Hands one message to the network without waiting for it. False when it
    // could not even be queued (the transport is closed, the send failed).
    virtual bool send(std::string_view data, const SipTarget& target) = 0;
    // The bound address (with the port the system chose for port 0).
    [[nodiscard]] virtual net::SocketAddress localAddress() const = 0;

    // Both must be set before `open`.
    void setReceiveHandler(ReceiveHandler handler) { handler_ = std::move(handler); }
    void setErrorHandler(TransportErrorHandler handler) { errorHandler_ = std::move(handler); }

protected:
    // Parses `bytes`, annotates a request's top Via and posts the message to
    // the loop; a message that does not parse is logged and dropped.
    void deliver(EventLoop& loop, std::string_view bytes, const SipTarget& source, std::string_view dropText);

    // Posts a delivery failure for `target` to the loop.
    void reportError(EventLoop& loop, const SipTarget& target, const std::string& reason);

private:
    ReceiveHandler handler_;
    TransportErrorHandler errorHandler_;
};

// Marks a received request's top Via with where it really came from
// (RFC 3261 "received", RFC 3581 "rport"). Returns whether it changed.
bool annotateVia(SipMessage& request, const net::SocketAddress& source);

// The sent-by port of a Via: its port, or 5060 (5061 for TLS) when absent.
[[nodiscard]] uint16_t viaSentByPort(std::string_view viaValue);

// Log tag of the transports.
inline constexpr std::string_view kTransportLogTag = "transport";

}  // namespace kelsip
