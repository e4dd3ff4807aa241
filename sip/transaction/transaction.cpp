// The transaction layer: client transactions retransmit and time out,
// server transactions absorb retransmissions and repeat their last answer.
#include "sip/transaction/transaction.h"
#include "sip/transaction/transaction_records.h"

#include <random>

#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/core/system.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "transaction";

bool isInvite(const SipMessage& m) { return m.method == "INVITE"; }

}  // namespace

std::string_view toString(TransactionState state) {
    switch (state) {
        case TransactionState::Calling: return "Calling";
        case TransactionState::Trying: return "Trying";
        case TransactionState::Proceeding: return "Proceeding";
        case TransactionState::Completed: return "Completed";
        case TransactionState::Accepted: return "Accepted";
        case TransactionState::Confirmed: return "Confirmed";
        case TransactionState::Terminated: return "Terminated";
    }
    return "Terminated";
}


struct SipTransactionLayer::Random {
    std::mt19937 engine;
    Random() {
        uint32_t seed = 0;
        if (!platform::secureRandom(&seed, sizeof seed)) seed = static_cast<uint32_t>(std::random_device{}());
        engine.seed(seed);
    }
};

SipTransactionLayer::SipTransactionLayer(EventLoop& loop, TransportSend send, TransactionTimers timers)
    : loop_(loop), send_(std::move(send)), timers_(timers), random_(std::make_unique<Random>()) {}

SipTransactionLayer::~SipTransactionLayer() {
    for (auto& [key, c] : clients_) {
        loop_.cancel(c->retransmitTimer);
        loop_.cancel(c->timeoutTimer);
    }
    for (auto& [key, s] : servers_) {
        loop_.cancel(s->retransmitTimer);
        loop_.cancel(s->noAckTimer);
    }
}

std::string SipTransactionLayer::newBranch() {
    static constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::uniform_int_distribution<size_t> pick(0, kAlphabet.size() - 1);
    std::string branch = "z9hG4bK";
    for (int i = 0; i < 20; ++i) branch += kAlphabet[pick(random_->engine)];
    return branch;
}

EventLoop::TimerId SipTransactionLayer::schedule(int64_t ms, std::function<void()> callback) {
    return loop_.schedule(ms, [life = std::weak_ptr<int>(lifeToken_), callback = std::move(callback)] {
        if (life.lock()) callback();
    });
}

std::string SipTransactionLayer::sendRequest(SipMessage request, const SipTarget& target, ResponseCallback callback) {
    const auto top = request.header("Via");
    auto via = top ? Via::parse(*top) : std::nullopt;
    if (!via || !request.cseq() || request.method == "ACK") {
        log::warn(kTag, "sendRequest: request needs Via/CSeq and must not be ACK");
        return {};
    }
    if (via->branch().empty()) {
        via->setParam("branch", newBranch());
        request.replaceHeader("Via", 0, via->toString());
    }
    if (!request.hasHeader("Max-Forwards")) request.addHeader("Max-Forwards", "70");
    const std::string key = *clientKeyOf(request);
    if (clients_.contains(key)) {
        log::warn(kTag, "sendRequest: duplicate transaction");
        return {};
    }
    auto c = std::make_unique<Client>();
    c->invite = isInvite(request);
    c->state = c->invite ? TransactionState::Calling : TransactionState::Trying;
    c->interval = timers_.t1Ms;
    c->text = request.toString();
    c->request = std::move(request);
    c->target = target;
    c->callback = std::move(callback);
    Client& client = *c;
    clients_.emplace(key, std::move(c));

    if (!send_(client.text, target)) {
        log::warn(kTag, "transport error sending " + client.request.method + " to " + target.toString());
        // Reported from the loop, never from inside sendRequest itself.
        loop_.post([this, life = std::weak_ptr<int>(lifeToken_), key] {
            if (life.lock()) failClient(key, nullptr);
        });
        return key;
    }
    if (target.kind == TransportKind::Udp) {
        client.retransmitTimer = schedule(client.interval, [this, key] { clientRetransmit(key); });
    }
    client.timeoutTimer = schedule(64 * timers_.t1Ms, [this, key] { failClient(key, "client transaction timeout"); });
    return key;
}

void SipTransactionLayer::clientRetransmit(const std::string& key) {
    const auto it = clients_.find(key);
    if (it == clients_.end()) return;
    Client& c = *it->second;
    c.retransmitTimer = 0;
    const bool waiting = c.invite ? c.state == TransactionState::Calling
                                  : (c.state == TransactionState::Trying || c.state == TransactionState::Proceeding);
    if (!waiting) return;
    (void)send_(c.text, c.target);
    if (c.invite) {
        c.interval *= 2;
    } else if (c.state == TransactionState::Trying) {
        c.interval = std::min(c.interval * 2, timers_.t2Ms);
    } else {
        c.interval = timers_.t2Ms;
    }
    c.retransmitTimer = schedule(c.interval, [this, key] { clientRetransmit(key); });
}

void SipTransactionLayer::failClient(const std::string& key, const char* why, const std::string& reason) {
    const auto it = clients_.find(key);
    if (it == clients_.end()) return;
    Client& c = *it->second;
    const bool finished = c.state == TransactionState::Completed || c.state == TransactionState::Accepted ||
                          c.state == TransactionState::Terminated;
    if (finished) return;
    if (why != nullptr) log::warn(kTag, why);
    ResponseCallback callback = std::move(c.callback);
    loop_.cancel(c.retransmitTimer);
    loop_.cancel(c.timeoutTimer);
    clients_.erase(it);
    noteRemoval();
    if (!callback) return;
    failureReason_ = reason;
    callback(nullptr);
    failureReason_.clear();
}

void SipTransactionLayer::sendAckForFailure(Client& c, const SipMessage& response) {
    SipMessage ack;
    ack.isRequest = true;
    ack.method = "ACK";
    ack.requestUri = c.request.requestUri;
    // The ACK of a failure belongs to the INVITE's transaction: same top Via.
    if (const auto via = c.request.header("Via")) ack.addHeader("Via", *via);
    for (const std::string& route : c.request.routes()) ack.addHeader("Route", route);
    if (const auto from = c.request.header("From")) ack.addHeader("From", *from);
    if (const auto to = response.header("To")) ack.addHeader("To", *to);
    ack.addHeader("Call-ID", c.request.callId());
    ack.addHeader("CSeq", std::to_string(c.request.cseq()->number) + " ACK");
    ack.addHeader("Max-Forwards", c.request.header("Max-Forwards").value_or("70"));
    c.ackText = ack.toString();
    (void)send_(c.ackText, c.target);
}

void SipTransactionLayer::finishClient(const std::string& key, Client& c) {
    loop_.cancel(c.retransmitTimer);
    loop_.cancel(c.timeoutTimer);
    c.retransmitTimer = c.timeoutTimer = 0;
    // Over UDP the transaction lingers to absorb retransmitted answers.
    const int64_t linger = c.target.kind == TransportKind::Udp ? 32000 : 0;
    schedule(linger, [this, key] {
        clients_.erase(key);
        noteRemoval();
    });
}

void SipTransactionLayer::handleResponse(const SipMessage& response, const SipTarget& source) {
    const auto key = clientKeyOf(response);
    const auto it = key ? clients_.find(*key) : clients_.end();
    const bool twoHundredToInvite =
        response.statusCode >= 200 && response.statusCode < 300 && response.cseq() && response.cseq()->method == "INVITE";
    if (it == clients_.end()) {
        if (twoHundredToInvite && strayHandler_) strayHandler_(response, source);
        return;
    }
    Client& c = *it->second;
    const int code = response.statusCode;
    if (c.state == TransactionState::Completed) {
        // A retransmitted failure: acknowledge it again; nothing goes up.
        if (c.invite && !c.ackText.empty()) (void)send_(c.ackText, c.target);
        return;
    }
    if (c.state == TransactionState::Accepted) {
        // Further 2xx (retransmissions, other forks) go up: the dialog layer
        // acknowledges each of them.
        if (code >= 200 && code < 300 && c.callback) {
            ResponseCallback callback = c.callback;
            callback(&response);
        }
        return;
    }
    if (c.state == TransactionState::Terminated) return;
    if (code < 200) {
        c.state = TransactionState::Proceeding;
        ResponseCallback callback = c.callback;
        if (callback) callback(&response);
        return;
    }
    if (c.invite && code < 300) {
        c.state = TransactionState::Accepted;
    } else {
        c.state = TransactionState::Completed;
        if (c.invite) sendAckForFailure(c, response);
    }
    finishClient(*key, c);
    ResponseCallback callback = c.callback;
    if (callback) callback(&response);
}

void SipTransactionLayer::handleTransportError(const SipTarget& target, const std::string& reason) {
    std::vector<std::string> failed;
    for (const auto& [key, c] : clients_) {
        const bool sameTarget = c->target.kind == target.kind && c->target.address == target.address;
        if (sameTarget) failed.push_back(key);
    }
    for (const std::string& key : failed) {
        const auto it = clients_.find(key);
        if (it == clients_.end()) continue;
        const TransactionState s = it->second->state;
        if (s == TransactionState::Completed || s == TransactionState::Accepted) continue;
        log::warn(kTag, "transport failure for " + key + (reason.empty() ? "" : ": " + reason));
        failClient(key, nullptr, reason);
    }
}

void SipTransactionLayer::noteRemoval() {
    if (idleHandler_ && clients_.empty() && servers_.empty()) idleHandler_();
}

}  // namespace kelsip
