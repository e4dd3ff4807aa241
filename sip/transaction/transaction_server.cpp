// Server transactions: a new request goes up once, its retransmissions are
// answered with the last response, an INVITE's failure is repeated until
// the ACK comes.
#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/transaction/transaction.h"
#include "sip/transaction/transaction_records.h"
#include "sip/transport/transport.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "transaction";

bool reliable(const SipTarget& t) { return t.kind != TransportKind::Udp; }

}  // namespace


SipTarget SipTransactionLayer::responseTarget(const SipMessage& request, const SipTarget& source) const {
    if (reliable(source)) return source;  // back on the connection it came in on
    // RFC 3581: with rport the answer goes to the source port; without it,
    // to the address it came from and the port the Via names (RFC 3261 18.2.2).
    SipTarget to = source;
    const auto top = request.header("Via");
    const auto via = top ? Via::parse(*top) : std::nullopt;
    if (via && !via->hasParam("rport")) to.address.setPort(viaSentByPort(*top));
    return to;
}

void SipTransactionLayer::finishServer(const std::string& key, Server& s, int64_t lingerMs) {
    loop_.cancel(s.retransmitTimer);
    loop_.cancel(s.noAckTimer);
    s.retransmitTimer = s.noAckTimer = 0;
    schedule(lingerMs, [this, key] {
        servers_.erase(key);
        noteRemoval();
    });
}

void SipTransactionLayer::handleRequest(const SipMessage& request, const SipTarget& source) {
    const auto key = serverKeyOf(request);
    if (!key) return;
    const auto it = servers_.find(*key);
    if (request.method == "ACK") {
        if (it != servers_.end()) {
            Server& s = *it->second;
            if (s.state == TransactionState::Completed) {
                // The ACK of our failure response ends the repeats (RFC 3261 timer I).
                s.state = TransactionState::Confirmed;
                finishServer(*key, s, reliable(source) ? 0 : timers_.t4Ms);
                return;
            }
            if (s.state == TransactionState::Confirmed) return;
        }
        // An ACK for a 2xx belongs to the dialog, not to a transaction.
        if (requestHandler_) requestHandler_(std::string(), request, source);
        return;
    }
    if (it != servers_.end()) {
        Server& s = *it->second;
        // A retransmission: answer it again, never pass it up twice.
        if (!s.lastResponse.empty() && s.state != TransactionState::Accepted) (void)send_(s.lastResponse, s.replyTo);
        return;
    }
    if (servers_.size() >= maxServers_ && request.method != "BYE" && request.method != "CANCEL") {
        if (!overloaded_) log::warn(kTag, "overload: " + std::to_string(servers_.size()) + " server transactions, refusing new requests");
        overloaded_ = true;
        SipMessage busy = makeResponse(request, 503, "", request.toTag().empty() ? newBranch().substr(7, 10) : "");
        busy.addHeader("Retry-After", std::to_string(retryAfterSeconds_));
        (void)send_(busy.toString(), responseTarget(request, source));
        return;
    }
    overloaded_ = false;
    auto s = std::make_unique<Server>();
    s->replyTo = responseTarget(request, source);
    s->invite = request.method == "INVITE";
    s->state = s->invite ? TransactionState::Proceeding : TransactionState::Trying;
    servers_.emplace(*key, std::move(s));
    if (requestHandler_) requestHandler_(*key, request, source);
}

bool SipTransactionLayer::sendResponse(const std::string& key, const SipMessage& response) {
    const auto it = servers_.find(key);
    if (it == servers_.end()) {
        log::warn(kTag, "sendResponse: no server transaction");
        return false;
    }
    Server& s = *it->second;
    if (s.state != TransactionState::Trying && s.state != TransactionState::Proceeding) {
        log::warn(kTag, "sendResponse: transaction already completed");
        return false;
    }
    s.lastResponse = response.toString();
    s.lastStatus = response.statusCode;
    const bool sent = send_(s.lastResponse, s.replyTo);
    const int code = response.statusCode;
    if (code < 200) {
        s.state = TransactionState::Proceeding;
        return sent;
    }
    if (!s.invite) {
        s.state = TransactionState::Completed;
        finishServer(key, s, reliable(s.replyTo) ? 0 : 64 * timers_.t1Ms);  // timer J
        return sent;
    }
    if (code < 300) {
        // The dialog layer repeats its 2xx until the ACK; the transaction only
        // absorbs INVITE retransmissions meanwhile (RFC 6026 "Accepted").
        s.state = TransactionState::Accepted;
        s.lastResponse.clear();  // never sent again from here
        s.lastResponse.shrink_to_fit();
        finishServer(key, s, 64 * timers_.t1Ms);
        return sent;
    }
    s.state = TransactionState::Completed;
    s.interval = timers_.t1Ms;
    if (!reliable(s.replyTo)) s.retransmitTimer = schedule(s.interval, [this, key] { serverRetransmit(key); });
    s.noAckTimer = schedule(64 * timers_.t1Ms, [this, key] {
        const auto found = servers_.find(key);
        if (found == servers_.end() || found->second->state != TransactionState::Completed) return;
        log::warn(kTag, "no ACK received for final response");
        loop_.cancel(found->second->retransmitTimer);
        servers_.erase(found);
        noteRemoval();
    });
    return sent;
}

void SipTransactionLayer::serverRetransmit(const std::string& key) {
    const auto it = servers_.find(key);
    if (it == servers_.end()) return;
    Server& s = *it->second;
    s.retransmitTimer = 0;
    if (s.state != TransactionState::Completed) return;
    (void)send_(s.lastResponse, s.replyTo);
    s.interval = std::min(s.interval * 2, timers_.t2Ms);  // timer G
    s.retransmitTimer = schedule(s.interval, [this, key] { serverRetransmit(key); });
}

std::optional<std::string> SipTransactionLayer::inviteKeyForCancel(const SipMessage& cancel) const {
    auto key = serverKeyOf(cancel, "INVITE");
    if (!key || !servers_.contains(*key)) return std::nullopt;
    return key;
}

std::optional<TransactionState> SipTransactionLayer::clientState(const std::string& key) const {
    const auto it = clients_.find(key);
    if (it == clients_.end()) return std::nullopt;
    return it->second->state;
}

std::optional<TransactionState> SipTransactionLayer::serverState(const std::string& key) const {
    const auto it = servers_.find(key);
    if (it == servers_.end()) return std::nullopt;
    return it->second->state;
}

}  // namespace kelsip
