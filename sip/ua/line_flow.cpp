// A line's flow to its registrar (RFC 5626, RFC 3581): the public address
// the registrar or a STUN server saw us from, keep-alives on the flow, and
// registering again when the flow fails, the NAT rebinds us or the host's
// network changes.
#include <algorithm>

#include "sip/core/log.h"
#include "sip/net/stun_message.h"
#include "sip/syntax/address.h"
#include "sip/ua/lines.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";
constexpr uint16_t kStunPort = 3478;
// STUN requests go again after 500 ms, then at doubling intervals, until
// the keep-alive's answer time is up.
constexpr int64_t kStunFirstIntervalMs = 500;
// After a failed flow the first recovery is at once; each further one in a
// row waits twice as long, from 30 s up to 30 min (RFC 5626 4.5).
constexpr int64_t kRecoveryBaseSeconds = 30;
constexpr int64_t kRecoveryMaxSeconds = 1800;

std::string linePrefix(const Line& line) { return "line " + std::to_string(line.id); }

// Where the registrar saw our REGISTER come from: the top Via's received
// and rport, when it set either.
std::optional<net::SocketAddress> seenByRegistrar(const SipMessage& response) {
    const auto top = response.header("Via");
    const auto via = top ? Via::parse(*top) : std::nullopt;
    if (!via) return std::nullopt;
    const auto received = via->param("received");
    const auto rport = via->param("rport");
    const bool hasPort = rport && !rport->empty();
    if (!received && !hasPort) return std::nullopt;
    const auto port = hasPort ? parseHeaderInteger(*rport) : std::optional<int64_t>(via->port ? via->port : 5060);
    if (!port || *port < 1 || *port > 65535) return std::nullopt;
    return net::SocketAddress::parse(received ? *received : via->host, static_cast<uint16_t>(*port));
}

std::string_view bytesOf(const std::vector<uint8_t>& v) {
    return {reinterpret_cast<const char*>(v.data()), v.size()};
}

}  // namespace

void Lines::keepFlow(Line& line, const SipMessage& response) {
    line.flowSeconds = 0;
    if (const auto timer = parseHeaderInteger(response.header("Flow-Timer").value_or("")); timer && *timer > 0) {
        line.flowSeconds = static_cast<int>(std::min<int64_t>(*timer, 86400));
    }
    line.registrarSaw = false;
    if (const auto seen = seenByRegistrar(response)) {
        line.registrarSaw = true;
        learnAddress(line, *seen, "the registrar");
    }
    // Registering again from the address just learnt: its answer comes back here.
    if (!line.transaction.empty()) return;
    if (line.targets[line.targetIndex].kind == TransportKind::Udp && !line.config.stunServer.empty()) {
        askStunServer(line);
    }
    scheduleKeepAlive(line);
}

void Lines::learnAddress(Line& line, const net::SocketAddress& seen, std::string_view how) {
    const SipTarget& target = line.targets[line.targetIndex];
    const net::SocketAddress own = ctx_.ownAddressToward(target);
    // A stream's source port is never the one we listen on: only a
    // different address says a NAT stands between us.
    const bool ours = isStream(target.kind) ? seen.ip() == own.ip() : seen == own;
    const auto next = ours ? std::nullopt : std::optional<net::SocketAddress>(seen);
    if (next == line.publicAddress) return;
    line.publicAddress = next;
    if (bindingUri(line) == line.contactBound) return;
    log::info(kTag, linePrefix(line) + ": " + std::string(how) + " sees us at " + seen.toString() +
                        (ours ? " (our own address)" : "") + "; registering that address");
    reregister(line);
}

void Lines::scheduleKeepAlive(Line& line) {
    ctx_.loop->cancel(line.keepAliveTimer);
    line.keepAliveTimer = 0;
    const int seconds = line.flowSeconds > 0 ? line.flowSeconds : ctx_.config.keepAliveSeconds;
    if (seconds <= 0) return;
    const int id = line.id;
    line.keepAliveTimer = ctx_.transactions->schedule(int64_t{seconds} * 1000, [this, id] {
        Line* l = find(id);
        if (l == nullptr) return;
        l->keepAliveTimer = 0;
        sendKeepAlive(*l);
    });
}

void Lines::sendKeepAlive(Line& line) {
    if (line.state != RegistrationState::Registered || line.targets.empty()) return;
    const SipTarget& target = line.targets[line.targetIndex];
    const int id = line.id;
    if (isStream(target.kind)) {
        // A double CRLF on the flow; the registrar's single CRLF must follow.
        if (line.pongTimer == 0) {
            line.pongTimer = ctx_.transactions->schedule(ctx_.config.keepAliveAnswerMs, [this, id] {
                Line* l = find(id);
                if (l == nullptr) return;
                l->pongTimer = 0;
                flowFailed(*l, "no pong within " + std::to_string(ctx_.config.keepAliveAnswerMs) + " ms");
            });
        }
        if (!ctx_.sendText("\r\n\r\n", SipTarget{target.kind, target.address, 0})) {
            flowFailed(line, "cannot send a keep-alive");
            return;
        }
    } else if (line.keepAlive.request.empty()) {
        startQuery(line, line.keepAlive, target.address);
    }
    scheduleKeepAlive(line);
}

void Lines::askStunServer(Line& line) {
    if (line.stunServer) {
        startQuery(line, line.serverQuery, *line.stunServer);
        return;
    }
    const std::string& name = line.config.stunServer;
    if (auto numeric = net::SocketAddress::parseWithPort(name)) {
        line.stunServer = numeric;
    } else if (auto bare = net::SocketAddress::parse(name, kStunPort)) {
        line.stunServer = bare;
    } else {
        // A name goes through the stack's resolver as a host with a port.
        const bool hasPort = name.find(':') != std::string::npos;
        auto uri = SipUri::parse("sip:" + name + (hasPort ? "" : ":" + std::to_string(kStunPort)) + ";transport=udp");
        if (!uri || ctx_.locator == nullptr) {
            log::warn(kTag, linePrefix(line) + ": bad stun server address");
            return;
        }
        const int id = line.id;
        (void)ctx_.locator->locate(*uri, [this, id](dns::LocateResult result) {
            Line* l = find(id);
            if (l == nullptr) return;
            if (result.targets.empty()) {
                log::warn(kTag, linePrefix(*l) + ": cannot locate the stun server: " + result.error);
                return;
            }
            l->stunServer = result.targets.front().address;
            if (l->state == RegistrationState::Registered) startQuery(*l, l->serverQuery, *l->stunServer);
        });
        return;
    }
    startQuery(line, line.serverQuery, *line.stunServer);
}

void Lines::startQuery(Line& line, StunQuery& query, const net::SocketAddress& to) {
    if (!ctx_.udp) return;
    stopQuery(query);
    stun::EncodeOptions options;
    options.fingerprint = true;
    query.request = stun::encode(stun::Message::request(stun::Method::Binding), options);
    query.to = to;
    query.firstSentMs = ctx_.loop->nowNs() / 1'000'000;
    query.intervalMs = kStunFirstIntervalMs;
    (void)ctx_.udp->send(bytesOf(query.request), SipTarget{TransportKind::Udp, to, 0});
    const int id = line.id;
    const bool keepAlive = &query == &line.keepAlive;
    query.timer = ctx_.transactions->schedule(query.intervalMs, [this, id, keepAlive] { resendQuery(id, keepAlive); });
}

void Lines::resendQuery(int lineId, bool keepAlive) {
    Line* line = find(lineId);
    if (line == nullptr) return;
    StunQuery& query = keepAlive ? line->keepAlive : line->serverQuery;
    query.timer = 0;
    const int64_t elapsed = ctx_.loop->nowNs() / 1'000'000 - query.firstSentMs;
    const int64_t limit = ctx_.config.keepAliveAnswerMs;
    if (elapsed >= limit) {
        const std::string to = query.to.toString();
        stopQuery(query);
        if (!keepAlive) {
            log::warn(kTag, linePrefix(*line) + ": no answer from the stun server " + to);
        } else if (line->stunAnswers) {
            flowFailed(*line, "stun keep-alive unanswered");
        } else {
            // A registrar that never spoke STUN: the requests still keep the
            // NAT's binding open, but their silence says nothing.
            log::info(kTag, linePrefix(*line) + ": the registrar does not answer stun keep-alives");
        }
        return;
    }
    (void)ctx_.udp->send(bytesOf(query.request), SipTarget{TransportKind::Udp, query.to, 0});
    query.intervalMs *= 2;
    const int64_t wait = std::min(query.intervalMs, limit - elapsed);
    query.timer = ctx_.transactions->schedule(wait, [this, lineId, keepAlive] { resendQuery(lineId, keepAlive); });
}

void Lines::stopQuery(StunQuery& query) {
    ctx_.loop->cancel(query.timer);
    query.timer = 0;
    query.request.clear();
}

void Lines::stopKeepAlive(Line& line) {
    ctx_.loop->cancel(line.keepAliveTimer);
    ctx_.loop->cancel(line.pongTimer);
    line.keepAliveTimer = line.pongTimer = 0;
    stopQuery(line.keepAlive);
    stopQuery(line.serverQuery);
}

void Lines::onStun(const std::vector<uint8_t>& datagram, const net::SocketAddress& source) {
    std::string error;
    const auto message = stun::parse(datagram, &error);
    if (!message) {
        log::warn(kTag, "dropping stun datagram from " + source.toString() + ": " + error);
        return;
    }
    if (message->messageClass != stun::Class::Success && message->messageClass != stun::Class::Error) return;
    const auto matches = [&](const StunQuery& q) {
        return q.request.size() >= stun::kHeaderBytes &&
               std::equal(message->transaction.begin(), message->transaction.end(), q.request.begin() + 8);
    };
    auto mapped = message->address(stun::attr::kXorMappedAddress);
    if (!mapped) mapped = message->address(stun::attr::kMappedAddress);
    for (auto& [id, line] : lines_) {
        if (matches(line.keepAlive)) {
            stopQuery(line.keepAlive);
            // Any answer shows the flow alive; a new mapped address shows
            // the NAT gave us another binding.
            line.stunAnswers = true;
            line.flowFailures = 0;
            if (mapped && line.state == RegistrationState::Registered) learnAddress(line, *mapped, "the registrar's stun answer");
            return;
        }
        if (matches(line.serverQuery)) {
            stopQuery(line.serverQuery);
            if (!mapped || line.state != RegistrationState::Registered) return;
            // The registrar's own view wins: the flow that matters is ours to it.
            if (line.registrarSaw) {
                log::info(kTag, linePrefix(line) + ": the stun server sees us at " + mapped->toString());
                return;
            }
            learnAddress(line, *mapped, "the stun server");
            return;
        }
    }
}

void Lines::onFlowEvent(const SipTarget& flow, FlowEvent event) {
    for (auto& [id, line] : lines_) {
        if (line.state != RegistrationState::Registered || line.targets.empty()) continue;
        const SipTarget& target = line.targets[line.targetIndex];
        if (target.kind != flow.kind || target.address != flow.address) continue;
        if (event == FlowEvent::Pong) {
            log::debug(kTag, linePrefix(line) + ": pong from " + flow.toString());
            ctx_.loop->cancel(line.pongTimer);
            line.pongTimer = 0;
            line.flowFailures = 0;
        } else if (line.transaction.empty()) {
            flowFailed(line, "connection closed");
        }
    }
}

void Lines::flowFailed(Line& line, const std::string& why) {
    const SipTarget& target = line.targets[line.targetIndex];
    log::warn(kTag, linePrefix(line) + ": flow to " + target.toString() + " failed: " + why);
    stopKeepAlive(line);
    if (target.kind == TransportKind::Tcp && ctx_.tcp) ctx_.tcp->closeFlows(target.address);
    const uint32_t failures = line.flowFailures++;
    if (failures == 0) {
        reregister(line);
        return;
    }
    const int64_t wait = std::min(kRecoveryMaxSeconds, kRecoveryBaseSeconds << std::min<uint32_t>(failures - 1, 10));
    log::info(kTag, linePrefix(line) + ": registering again in " + std::to_string(wait) + " s");
    ctx_.loop->cancel(line.retryTimer);
    const int id = line.id;
    line.retryTimer = ctx_.transactions->schedule(wait * 1000, [this, id] {
        Line* l = find(id);
        if (l == nullptr) return;
        l->retryTimer = 0;
        reregister(*l);
    });
}

void Lines::reregister(Line& line) {
    if (!line.transaction.empty() || line.unregistering || line.targets.empty()) return;
    if (line.state == RegistrationState::Registered) {
        cancelTimers(line);
        line.attempts = 0;
        sendRegister(line);
    } else if (line.state == RegistrationState::Failed && line.retryTimer != 0) {
        // Waiting to try again after a failure: a new network may let it through now.
        cancelTimers(line);
        line.attempts = 0;
        setState(line, RegistrationState::Registering, 0, "");
        resolveAndRegister(line);
    }
}

void Lines::networkChanged() {
    for (auto& [id, line] : lines_) {
        if (line.targets.empty()) continue;
        const SipTarget& target = line.targets[line.targetIndex];
        if (line.state == RegistrationState::Registered && target.kind == TransportKind::Tcp && ctx_.tcp) {
            ctx_.tcp->closeFlows(target.address);
        }
        // What a NAT saw of the old address says nothing of the new one.
        line.publicAddress.reset();
        line.flowFailures = 0;
        line.stunAnswers = false;
        reregister(line);
    }
}

bool Lines::addressMoved() const {
    for (const auto& [id, line] : lines_) {
        if (line.state != RegistrationState::Registered || line.targets.empty()) continue;
        if (ctx_.ownAddressToward(line.targets[line.targetIndex]) != line.localSent) return true;
    }
    return false;
}

}  // namespace kelsip
