// SIP over TCP and TLS. One I/O thread polls the listener, every connection and a
// waker; it accepts, completes connects, reads, writes and closes. It sleeps
// until a socket is ready, a wake-up comes or the earliest time-out is due.
// Other threads only queue data under the lock and wake it.
//
// What a peer can make it hold is bounded: connections by a limit, each
// message by its size and a deadline to complete, and the unfinished
// messages of all connections together by a total.
//
// TLS sits between the socket and the buffers: `wire` holds records for the
// socket, `out` plaintext that waits until the handshake has verified the
// peer, `in` what was decrypted.
#include "sip/transport/stream_transport.h"

#include <algorithm>
#include <limits>

#include "sip/core/log.h"
#include "sip/syntax/text.h"

namespace kelsip {

namespace {

// Without a waker, new work is only noticed by looking again this often.
constexpr int kPollWithoutWakerMs = 200;

// A failed accept for want of descriptors or memory pauses accepting this
// long at first, doubling up to the most while it keeps failing.
constexpr int kAcceptPauseMinMs = 50;
constexpr int kAcceptPauseMaxMs = 1000;

// TCP keep-alive probes: a peer gone without closing is noticed about a
// minute after its last traffic rather than at the idle time-out.
constexpr int kKeepAliveIdleSeconds = 30;
constexpr int kKeepAliveIntervalSeconds = 10;
constexpr int kKeepAliveProbes = 3;

template <typename C>
bool unsent(const C& c) {
    return !c.out.empty() || !c.wire.empty();
}

}  // namespace

bool StreamTransport::wantsWrite(const Connection& c) {
    return !c.wire.empty() || (!c.out.empty() && (!c.tls || c.tls->established()));
}

bool StreamTransport::fits(const Connection& c, const SipTarget& target) const {
    // A request for a name takes only a TLS connection verified for that
    // name; a target without one, or named by an address, takes any.
    if (!tlsEngine_ || target.host.empty() || text::iequals(c.host, target.host)) return true;
    return net::SocketAddress::parse(target.host).has_value();
}

std::unique_ptr<StreamTransport> StreamTransport::create(EventLoop& loop, StreamTransportConfig config,
                                                         std::string* error) {
    const auto refuse = [&](std::string_view why) -> std::unique_ptr<StreamTransport> {
        if (error != nullptr) *error = std::string(why);
        return nullptr;
    };
    std::unique_ptr<TlsEngine> tls;
    if (config.kind == TransportKind::Tls) {
        if (!tlsSupported()) return refuse(kTlsNotCompiled);
        if (!config.tls) return refuse(kTlsNeedsContext);
        tls = makeTlsEngine(*config.tls, error);
        if (!tls) return nullptr;
    } else if (config.kind != TransportKind::Tcp) {
        return refuse("not a stream transport");
    }
    return std::unique_ptr<StreamTransport>(new StreamTransport(loop, std::move(config), std::move(tls)));
}

StreamTransport::StreamTransport(EventLoop& loop, StreamTransportConfig config, std::unique_ptr<TlsEngine> tls)
    : loop_(loop), config_(std::move(config)), tlsEngine_(std::move(tls)) {}

StreamTransport::~StreamTransport() { close(); }

std::string StreamTransport::name() const { return std::string(transportName(config_.kind)); }

bool StreamTransport::open(std::string* error) {
    const std::string failure = "cannot listen on " + config_.bindAddress.toString();
    listener_ = net::Socket::open(config_.bindAddress.family(), net::SocketType::Tcp);
    if (!listener_.valid() || !listener_.setReuseAddress(true) || !listener_.bind(config_.bindAddress) ||
        !listener_.listen(64) || !listener_.setNonBlocking(true)) {
        log::error(kTransportLogTag, failure);
        if (error != nullptr) *error = failure;
        listener_.close();
        return false;
    }
    local_ = listener_.localAddress().value_or(config_.bindAddress);
    log::info(kTransportLogTag, name() + " transport listening on " + local_.toString());
    stopping_ = false;
    thread_ = std::thread([this] { ioLoop(); });
    return true;
}

void StreamTransport::close() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    waker_.wake();
    thread_.join();
    std::lock_guard lock(mutex_);
    connections_.clear();
    buffered_ = 0;
    acceptPauseMs_ = 0;
    refusing_ = false;
    listener_.close();
}

net::SocketAddress StreamTransport::localAddress() const { return local_; }

size_t StreamTransport::connectionCount() const {
    std::lock_guard lock(mutex_);
    return connections_.size();
}

bool StreamTransport::send(std::string_view data, const SipTarget& target) {
    {
        std::lock_guard lock(mutex_);
        if (!thread_.joinable() || stopping_) return false;
        Connection* use = nullptr;
        if (target.connection != 0) {
            const auto it = connections_.find(target.connection);
            if (it != connections_.end() && !it->second->closed) use = it->second.get();
        }
        // A response on a closed connection, or a request: any connection to
        // that address will do, in either direction.
        if (use == nullptr) {
            for (auto& [id, c] : connections_) {
                if (!c->closed && c->remote == target.address && fits(*c, target)) {
                    use = c.get();
                    break;
                }
            }
        }
        if (use == nullptr) {
            auto c = std::make_unique<Connection>();
            c->id = nextConnection_++;
            c->remote = target.address;
            c->outgoing = true;
            c->host = target.host;
            c->started = c->lastActivity = Clock::now();
            log::info(kTransportLogTag, "opening " + name() + " connection #" + std::to_string(c->id) + " to " +
                                            target.address.toString() +
                                            (tlsEngine_ && !c->host.empty() ? " for " + c->host : ""));
            use = c.get();
            connections_.emplace(c->id, std::move(c));
        }
        use->out.append(data);
        if (log::enabled(LogLevel::Debug)) {
            log::debug(kTransportLogTag, "SEND " + std::to_string(data.size()) + " bytes to " +
                                             target.address.toString() + " (connection #" +
                                             std::to_string(use->id) + ")\n" + std::string(data));
        }
    }
    waker_.wake();
    return true;
}

void StreamTransport::startConnect(Connection& c) {
    net::SocketFailure failure = net::SocketFailure::None;
    c.socket = net::Socket::open(c.remote.family(), net::SocketType::Tcp, &failure);
    if (!c.socket.valid() || !c.socket.setNonBlocking(true)) {
        const std::string why = net::isExhaustion(failure) ? ": " + std::string(net::failureText(failure)) : "";
        closeConnection(c, "connection to " + c.remote.toString() + " failed" + why, true);
        return;
    }
    (void)c.socket.setNoDelay(true);
    (void)c.socket.setKeepAlive(kKeepAliveIdleSeconds, kKeepAliveIntervalSeconds, kKeepAliveProbes);
    c.started = Clock::now();
    switch (c.socket.connect(c.remote)) {
        case net::ConnectStatus::Connected:
            connected(c);
            break;
        case net::ConnectStatus::InProgress:
            c.state = State::Connecting;
            break;
        case net::ConnectStatus::Failed:
            closeConnection(c, "connection to " + c.remote.toString() + " failed", true);
            break;
    }
}

void StreamTransport::connected(Connection& c) {
    c.state = State::Connected;
    c.lastActivity = Clock::now();
    if (!tlsEngine_) return;
    // The handshake's time counts from here against the connect time-out.
    c.started = c.lastActivity;
    c.tls = tlsEngine_->startSession(TlsRole::Client, c.host);
    if (!c.tls) {
        closeConnection(c, name() + " connection #" + std::to_string(c.id) + " to " + c.remote.toString() + " failed",
                        true, std::string(kTlsHandshakeFailed) + "cannot start a session");
        return;
    }
    c.tls->takeCiphertext(c.wire);
}

void StreamTransport::acceptAll(Clock::time_point now) {
    for (;;) {
        net::SocketAddress peer;
        net::SocketFailure failure = net::SocketFailure::None;
        auto s = listener_.accept(&peer, &failure);
        if (!s && net::isExhaustion(failure)) {
            // The connection stays queued and the listener readable: polling
            // it again at once would spin. The others are served meanwhile.
            if (acceptPauseMs_ == 0) {
                log::warn(kTransportLogTag, "cannot accept " + name() + " connections: " +
                                                std::string(net::failureText(failure)) + "; pausing");
            }
            acceptPauseMs_ = std::clamp(acceptPauseMs_ * 2, kAcceptPauseMinMs, kAcceptPauseMaxMs);
            acceptResumes_ = now + std::chrono::milliseconds(acceptPauseMs_);
            return;
        }
        endAcceptPause();
        if (!s) return;
        if (connections_.size() >= config_.maxConnections) {
            if (!refusing_) {
                log::warn(kTransportLogTag, name() + " connection limit of " + std::to_string(config_.maxConnections) +
                                                " reached: refusing new connections");
            }
            refusing_ = true;
            continue;  // `s` closes as it goes
        }
        if (refusing_) log::info(kTransportLogTag, "below the " + name() + " connection limit again");
        refusing_ = false;
        if (!s->setNonBlocking(true)) continue;
        if (tlsEngine_ && !tlsEngine_->canServe()) {
            log::info(kTransportLogTag, "refusing " + name() + " connection from " + peer.toString() + ": " +
                                            std::string(kTlsNoServerCertificate));
            continue;
        }
        (void)s->setNoDelay(true);
        (void)s->setKeepAlive(kKeepAliveIdleSeconds, kKeepAliveIntervalSeconds, kKeepAliveProbes);
        auto c = std::make_unique<Connection>();
        c->id = nextConnection_++;
        c->socket = std::move(*s);
        c->remote = peer;
        c->state = State::Connected;
        c->started = c->lastActivity = Clock::now();
        if (tlsEngine_) c->tls = tlsEngine_->startSession(TlsRole::Server, {});
        if (tlsEngine_ && !c->tls) continue;
        log::info(kTransportLogTag, "accepted " + name() + " connection #" + std::to_string(c->id) + " from " +
                                        peer.toString());
        connections_.emplace(c->id, std::move(c));
    }
}

void StreamTransport::endAcceptPause() {
    if (acceptPauseMs_ == 0) return;
    acceptPauseMs_ = 0;
    log::info(kTransportLogTag, "accepting " + name() + " connections again");
}

void StreamTransport::readFrom(Connection& c, std::vector<Received>& received) {
    char chunk[kReadChunkBytes];
    for (;;) {
        const net::IoResult r = c.socket.receive(chunk, sizeof chunk);
        if (r.status == net::IoResult::Status::WouldBlock) break;
        if (!r.ok()) {
            closeConnection(c, "connection #" + std::to_string(c.id) + " to " + c.remote.toString() + " closed",
                            unsent(c));
            return;
        }
        const auto now = Clock::now();
        const size_t whole = received.size();
        buffered_ -= c.in.size();
        if (c.tls) {
            const bool wasEstablished = c.tls->established();
            const bool ok = c.tls->feed(std::string_view(chunk, r.bytes));
            c.tls->takePlaintext(c.in);
            c.tls->takeCiphertext(c.wire);
            if (!ok) {
                buffered_ += c.in.size();
                tlsFailed(c);
                return;
            }
            if (!wasEstablished && c.tls->established()) {
                log::info(kTransportLogTag, name() + " connection #" + std::to_string(c.id) + " with " +
                                                c.remote.toString() + " established" +
                                                (c.host.empty() ? "" : ", certificate valid for " + c.host));
            }
        } else {
            c.in.append(chunk, r.bytes);
        }
        // Take every whole message, then cut the buffer once.
        size_t offset = 0;
        for (;;) {
            // RFC 5626 keep-alives between messages: a double CRLF is a
            // ping, answered with one CRLF; a lone CRLF is the pong to ours.
            if (c.in.compare(offset, 4, "\r\n\r\n") == 0) {
                c.out += "\r\n";
                offset += 4;
                continue;
            }
            if (c.in.compare(offset, 2, "\r\n") == 0 && (c.in.size() == offset + 2 || c.in[offset + 2] != '\r')) {
                flowEvents_.emplace_back(SipTarget{config_.kind, c.remote, c.id, c.host}, FlowEvent::Pong);
                offset += 2;
                continue;
            }
            std::string error;
            size_t used = 0;
            const auto message = frameStreamMessage(std::string_view(c.in).substr(offset), used, &error);
            offset += used;
            if (message) {
                received.push_back(Received{std::string(*message), SipTarget{config_.kind, c.remote, c.id, c.host}});
                continue;
            }
            if (error.empty()) break;
            // A header block whose length cannot be known: drop that block
            // and read on from the next message.
            log::warn(kTransportLogTag, "dropping malformed stream message from " + c.remote.toString() + ": " + error);
            offset = c.in.find("\r\n\r\n", offset) + 4;
        }
        c.in.erase(0, offset);
        buffered_ += c.in.size();
        if (received.size() > whole) c.lastActivity = now;
        // Once anything was taken, what is left is the start of a new message.
        if (c.in.empty()) {
            c.messageStarted.reset();
        } else if (offset > 0 || !c.messageStarted) {
            c.messageStarted = now;
        }
        if (c.in.size() > config_.maxMessageBytes) {
            closeConnection(c, "message too large on #" + std::to_string(c.id) + ", closing", unsent(c));
            return;
        }
        if (buffered_ > config_.maxBufferedBytes) {
            shedBuffers();
            if (c.closed) return;
        }
    }
}

void StreamTransport::shedBuffers() {
    while (buffered_ > config_.maxBufferedBytes) {
        Connection* largest = nullptr;
        for (auto& [id, c] : connections_) {
            if (!c->closed && (largest == nullptr || c->in.size() > largest->in.size())) largest = c.get();
        }
        if (largest == nullptr || largest->in.empty()) return;
        closeConnection(*largest,
                        "unfinished messages over " + std::to_string(config_.maxBufferedBytes) + " bytes: closing #" +
                            std::to_string(largest->id) + ", which holds " + std::to_string(largest->in.size()),
                        unsent(*largest));
    }
}

void StreamTransport::writeTo(Connection& c) {
    if (c.tls && c.tls->established() && !c.out.empty()) {
        const bool ok = c.tls->write(c.out);
        c.out.clear();
        c.tls->takeCiphertext(c.wire);
        if (!ok) {
            tlsFailed(c);
            return;
        }
    }
    std::string& bytes = c.tls ? c.wire : c.out;
    while (!bytes.empty()) {
        const net::IoResult r = c.socket.send(bytes.data(), bytes.size());
        if (r.status == net::IoResult::Status::WouldBlock) return;
        if (!r.ok()) {
            closeConnection(c, "connection #" + std::to_string(c.id) + " to " + c.remote.toString() + " closed", true);
            return;
        }
        bytes.erase(0, r.bytes);
        c.lastActivity = Clock::now();
    }
}

void StreamTransport::tlsFailed(Connection& c) {
    // The alert that says why goes out if the socket takes it at once.
    if (!c.wire.empty()) (void)c.socket.send(c.wire.data(), c.wire.size());
    const std::string reason = c.tls->error();
    closeConnection(c,
                    name() + " connection #" + std::to_string(c.id) + (c.outgoing ? " to " : " from ") +
                        c.remote.toString() + " closed: " + reason,
                    c.outgoing || unsent(c), reason);
}

void StreamTransport::closeFlows(const net::SocketAddress& remote) {
    {
        std::lock_guard lock(mutex_);
        for (auto& [id, c] : connections_) {
            if (c->remote == remote) {
                closeConnection(*c, "giving up " + name() + " connection #" + std::to_string(id) + " to " +
                                        remote.toString(), false, {}, false);
            }
        }
    }
    waker_.wake();
}

void StreamTransport::closeConnection(Connection& c, const std::string& why, bool lostData, std::string reason,
                                      bool tell) {
    if (c.closed) return;
    log::info(kTransportLogTag, why);
    c.closed = true;
    if (c.outgoing && tell) flowEvents_.emplace_back(SipTarget{config_.kind, c.remote, c.id, c.host}, FlowEvent::Closed);
    c.socket.close();
    buffered_ -= c.in.size();
    c.in.clear();
    if (lostData) failed_.emplace_back(SipTarget{config_.kind, c.remote, c.id, c.host}, reason.empty() ? why : reason);
}

int StreamTransport::pollTimeoutMs(Clock::time_point now) const {
    std::optional<Clock::time_point> earliest;
    const auto consider = [&](Clock::time_point due) {
        if (!earliest || due < *earliest) earliest = due;
    };
    for (const auto& [id, c] : connections_) {
        if (c->closed) continue;
        if (c->state == State::Connecting || (c->tls && !c->tls->established())) {
            consider(c->started + std::chrono::milliseconds(config_.connectTimeoutMs));
        }
        if (c->state == State::Connected) {
            if (!unsent(*c) && !c->outgoing) consider(c->lastActivity + std::chrono::milliseconds(config_.idleTimeoutMs));
            if (c->messageStarted) consider(*c->messageStarted + std::chrono::milliseconds(config_.messageTimeoutMs));
        }
    }
    if (acceptPauseMs_ > 0 && now < acceptResumes_) consider(acceptResumes_);
    int timeout = -1;
    if (earliest) {
        // The time-outs close what has been waiting longer than its limit:
        // wake just past the due time, not at it.
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*earliest - now).count() + 1;
        timeout = static_cast<int>(std::clamp<int64_t>(wait, 0, std::numeric_limits<int>::max()));
    }
    if (!waker_.valid()) timeout = timeout < 0 ? kPollWithoutWakerMs : std::min(timeout, kPollWithoutWakerMs);
    return timeout;
}

void StreamTransport::ioLoop() {
    std::vector<net::PollEntry> entries;
    std::vector<Connection*> polled;
    std::vector<Received> received;
    while (!stopping_) {
        ++ioRounds_;
        entries.clear();
        polled.clear();
        int timeoutMs = -1;
        bool listening = false;
        {
            std::lock_guard lock(mutex_);
            for (auto& [id, c] : connections_) {
                if (c->state == State::NeedsConnect && !c->closed) startConnect(*c);
            }
            const auto now = Clock::now();
            entries.push_back({waker_.native(), true, false});
            listening = acceptPauseMs_ == 0 || now >= acceptResumes_;
            if (listening) entries.push_back({listener_.native(), true, false});
            for (auto& [id, c] : connections_) {
                if (c->closed) continue;
                const bool connecting = c->state == State::Connecting;
                entries.push_back({c->socket.native(), !connecting, connecting || wantsWrite(*c)});
                polled.push_back(c.get());
            }
            timeoutMs = pollTimeoutMs(now);
        }
        const size_t firstConnection = listening ? 2 : 1;
        const int ready = net::poll(entries, timeoutMs);
        {
            std::lock_guard lock(mutex_);
            if (ready > 0) {
                if (entries[0].readable) waker_.drain();
                if (listening && entries[1].readable) acceptAll(Clock::now());
                for (size_t i = 0; i < polled.size(); ++i) {
                    Connection& c = *polled[i];
                    const net::PollEntry& e = entries[i + firstConnection];
                    if (c.closed) continue;
                    if (c.state == State::Connecting) {
                        if (!e.writable && !e.error) continue;
                        if (c.socket.connectResult() != 0 || (e.error && !e.writable)) {
                            closeConnection(c, "connection to " + c.remote.toString() + " failed", true);
                            continue;
                        }
                        connected(c);
                        if (c.closed) continue;
                    }
                    if (e.readable || e.error) readFrom(c, received);
                    if (!c.closed && wantsWrite(c)) writeTo(c);
                }
            }
            const auto now = Clock::now();
            for (auto& [id, c] : connections_) {
                if (c->closed) continue;
                if (c->state == State::Connecting &&
                    now - c->started > std::chrono::milliseconds(config_.connectTimeoutMs)) {
                    closeConnection(*c, "connect to " + c->remote.toString() + " timed out", true);
                } else if (c->tls && !c->tls->established() &&
                           now - c->started > std::chrono::milliseconds(config_.connectTimeoutMs)) {
                    closeConnection(*c, name() + " handshake on #" + std::to_string(c->id) + " timed out",
                                    c->outgoing, std::string(kTlsHandshakeFailed) + "timed out");
                } else if (c->messageStarted &&
                           now - *c->messageStarted > std::chrono::milliseconds(config_.messageTimeoutMs)) {
                    closeConnection(*c,
                                    "message on #" + std::to_string(c->id) + " not complete within " +
                                        std::to_string(config_.messageTimeoutMs) + " ms, closing",
                                    unsent(*c));
                } else if (c->state == State::Connected && !unsent(*c) && !c->outgoing &&
                           now - c->lastActivity > std::chrono::milliseconds(config_.idleTimeoutMs)) {
                    closeConnection(*c, "closing idle connection #" + std::to_string(c->id), false);
                }
            }
            std::erase_if(connections_, [](const auto& entry) { return entry.second->closed; });
        }
        for (Received& r : received) {
            deliver(loop_, r.bytes, r.source, "dropping malformed stream message from ");
        }
        received.clear();
        std::vector<std::pair<SipTarget, std::string>> failed;
        std::vector<std::pair<SipTarget, FlowEvent>> flowEvents;
        {
            std::lock_guard lock(mutex_);
            failed.swap(failed_);
            flowEvents.swap(flowEvents_);
        }
        for (const auto& [target, reason] : failed) reportError(loop_, target, reason);
        if (flowHandler_) {
            for (const auto& happened : flowEvents) {
                loop_.post([handler = flowHandler_, happened] { handler(happened.first, happened.second); });
            }
        }
    }
}

}  // namespace kelsip
