// Client and server transactions: matching, retransmission, time-outs.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "sip/core/event_loop.h"
#include "sip/syntax/message.h"
#include "sip/transport/sip_target.h"

namespace kelsip {

struct TransactionTimers {
    int64_t t1Ms = 500;
    int64_t t2Ms = 4000;
    int64_t t4Ms = 5000;
};

enum class TransactionState { Calling, Trying, Proceeding, Completed, Accepted, Confirmed, Terminated };
[[nodiscard]] std::string_view toString(TransactionState state);

// Hands a message's text to the transport of the target's kind.
using TransportSend = std::function<bool(std::string_view text, const SipTarget& target)>;
// Each response of a client transaction, provisional and final; null when the
// transaction failed by time-out or transport error.
using ResponseCallback = std::function<void(const SipMessage* response)>;
// A new request for the user agent. `key` names its server transaction, and
// is empty for an ACK, which has none.
using RequestHandler = std::function<void(const std::string& key, const SipMessage& request, const SipTarget& source)>;
// A 2xx to an INVITE that no live transaction claims (a retransmission after
// the transaction ended, or a late fork): the user agent acknowledges it.
using StrayResponseHandler = std::function<void(const SipMessage& response, const SipTarget& source)>;

class SipTransactionLayer {
public:
    SipTransactionLayer(EventLoop& loop, TransportSend send, TransactionTimers timers = {});
    ~SipTransactionLayer();
    SipTransactionLayer(const SipTransactionLayer&) = delete;
    SipTransactionLayer& operator=(const SipTransactionLayer&) = delete;

    void setRequestHandler(RequestHandler handler) { requestHandler_ = std::move(handler); }
    void setStrayResponseHandler(StrayResponseHandler handler) { strayHandler_ = std::move(handler); }
    // With this many server transactions alive, a new request (other than
    // BYE and CANCEL, which end things) is answered 503 with Retry-After
    // without a transaction of its own.
    // Called when the last transaction, client or server, has gone.
    void setIdleHandler(std::function<void()> handler) { idleHandler_ = std::move(handler); }
    void setServerLimit(size_t maxTransactions, int retryAfterSeconds) {
        maxServers_ = maxTransactions;
        retryAfterSeconds_ = retryAfterSeconds;
    }

    // Starts a client transaction. The request's top Via gets a fresh branch
    // unless it carries one already, and a Max-Forwards of 70 when it has
    // none. Returns the transaction key, or an empty key when refused.
    [[nodiscard]] std::string sendRequest(SipMessage request, const SipTarget& target, ResponseCallback callback);
    // Sends a response within the server transaction `key`.
    [[nodiscard]] bool sendResponse(const std::string& key, const SipMessage& response);

    // Entry points for messages from the transports.
    void handleRequest(const SipMessage& request, const SipTarget& source);
    void handleResponse(const SipMessage& response, const SipTarget& source);
    // Fails every unfinished client transaction towards `target`; `reason`
    // is the transport's ("TLS certificate not trusted").
    void handleTransportError(const SipTarget& target, const std::string& reason = {});
    // While a failed client transaction's callback runs: the transport's
    // reason for the failure, empty for a time-out.
    [[nodiscard]] const std::string& failureReason() const { return failureReason_; }

    // A timer that does nothing if it fires after the layer is gone.
    EventLoop::TimerId schedule(int64_t ms, std::function<void()> callback);
    void clientRetransmit(const std::string& key);
    void serverRetransmit(const std::string& key);

    // The INVITE server transaction that a CANCEL names, if it is still known.
    [[nodiscard]] std::optional<std::string> inviteKeyForCancel(const SipMessage& cancel) const;

    [[nodiscard]] std::optional<TransactionState> clientState(const std::string& key) const;
    [[nodiscard]] std::optional<TransactionState> serverState(const std::string& key) const;
    [[nodiscard]] size_t clientCount() const { return clients_.size(); }
    [[nodiscard]] size_t serverCount() const { return servers_.size(); }

    [[nodiscard]] const TransactionTimers& timers() const { return timers_; }
    // "z9hG4bK" and 20 random letters and digits.
    [[nodiscard]] std::string newBranch();

private:
    struct Client;
    struct Server;

    void finishClient(const std::string& key, Client& c);
    void noteRemoval();
    void failClient(const std::string& key, const char* why, const std::string& reason = {});
    void sendAckForFailure(Client& c, const SipMessage& response);
    void finishServer(const std::string& key, Server& s, int64_t lingerMs);
    [[nodiscard]] SipTarget responseTarget(const SipMessage& request, const SipTarget& source) const;

    EventLoop& loop_;
    TransportSend send_;
    TransactionTimers timers_;
    RequestHandler requestHandler_;
    StrayResponseHandler strayHandler_;
    std::function<void()> idleHandler_;
    std::unordered_map<std::string, std::unique_ptr<Client>> clients_;
    std::unordered_map<std::string, std::unique_ptr<Server>> servers_;
    size_t maxServers_ = SIZE_MAX;
    int retryAfterSeconds_ = 5;
    bool overloaded_ = false;  // logged once per episode
    std::string failureReason_;
    std::shared_ptr<int> lifeToken_ = std::make_shared<int>(0);
    struct Random;
    std::unique_ptr<Random> random_;
};

// The key of the client transaction a response belongs to: top Via branch
// and CSeq method.
[[nodiscard]] std::optional<std::string> clientKeyOf(const SipMessage& message);
// The key of the server transaction a request belongs to (RFC 3261 17.2.3,
// with the RFC 2543 rules for branches without the magic cookie). An ACK is
// keyed as the INVITE it acknowledges.
[[nodiscard]] std::optional<std::string> serverKeyOf(const SipMessage& request, std::string_view asMethod = {});

}  // namespace kelsip
