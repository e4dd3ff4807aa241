// The user agent's private side: the shared context and one part per
// concern, with the dispatcher that routes requests and facade calls to them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sip/ua/calls.h"
#include "sip/ua/lines.h"
#include "sip/ua/messages.h"
#include "sip/ua/network_watch.h"
#include "sip/ua/outgoing.h"
#include "sip/ua/publication.h"
#include "sip/ua/subscriptions.h"
#include "sip/ua/ua_context.h"
#include "sip/ua/user_agent.h"
#include "sip/ua/watchers.h"

namespace kelsip {

// Everything here is owned by, and touched only on, the event-loop thread.
class UserAgent::Impl {
public:
    explicit Impl(UserAgentConfig config);
    ~Impl();

    [[nodiscard]] bool start(std::string* error);
    // Withdraws what we told servers about ourselves: un-SUBSCRIBEs, the
    // PUBLISH removal, un-REGISTERs; returns how many went out.
    size_t shutdown();
    // Stops every timer, lookup and transport; the loop stays to its owner.
    void stop();
    [[nodiscard]] bool pendingUnregisters() const { return lines_.pendingUnregisters(); }
    [[nodiscard]] bool pendingWithdrawals() const;

    int addLine(const LineConfig& config) { return lines_.add(config); }
    bool removeLine(int id);
    bool registerLine(int id) { return lines_.registerLine(id); }
    bool unregisterLine(int id) { return lines_.unregisterLine(id); }
    [[nodiscard]] RegistrationState registrationState(int id) const { return lines_.state(id); }
    [[nodiscard]] std::optional<LineInfo> lineInfo(int id) const { return lines_.info(id); }
    [[nodiscard]] std::vector<int> lineIds() const { return lines_.ids(); }
    bool setPush(int id, const PushParams& push) { return lines_.setPush(id, push); }
    [[nodiscard]] PushSupport pushSupport(int id) const { return lines_.pushSupport(id); }
    void setListener(std::shared_ptr<UserAgentListener> listener) { ctx_.listener = std::move(listener); }

    Calls& calls() { return calls_; }
    [[nodiscard]] const Calls& calls() const { return calls_; }
    [[nodiscard]] net::SocketAddress localAddress(TransportKind kind) const { return ctx_.localAddress(kind); }
    [[nodiscard]] UserAgentLoad load() const {
        UserAgentLoad now;
        now.calls = calls_.count();
        if (ctx_.transactions) {
            now.serverTransactions = ctx_.transactions->serverCount();
            now.clientTransactions = ctx_.transactions->clientCount();
        }
        if (ctx_.rtpIo) now.rtpWorkers = ctx_.rtpIo->workerCount();
        return now;
    }

    int sendMessage(int line, const std::string& target, const std::string& body, const std::string& contentType) {
        return messages_.send(line, target, body, contentType);
    }
    int subscribe(int line, const std::string& target, const std::string& event, int expires) {
        return subscriptions_.subscribe(line, target, event, expires);
    }
    bool unsubscribe(int id) { return subscriptions_.unsubscribe(id); }
    [[nodiscard]] std::optional<SubscriptionInfo> subscriptionInfo(int id) const { return subscriptions_.info(id); }
    bool setPresence(int line, const PresenceStatus& status);
    [[nodiscard]] std::vector<std::string> presenceWatchers(int line) const { return watchers_.addresses(line); }

    EventLoop& loop() { return *ctx_.loop; }
    [[nodiscard]] bool ownsLoopThread() const { return !ctx_.config.clock; }

private:
    void onRequest(const std::string& key, const SipMessage& request, const SipTarget& source);
    // A line's watchers are told it is gone, and its publication withdrawn.
    void withdrawPresence(const Line& line);

    // The context first: every part holds a reference to it.
    UaContext ctx_;
    Lines lines_{ctx_};
    OutgoingRequests outgoing_{ctx_, lines_};
    Calls calls_{ctx_, lines_};
    Messages messages_{ctx_, lines_, outgoing_};
    Subscriptions subscriptions_{ctx_, lines_, outgoing_};
    Watchers watchers_{ctx_, lines_};
    Publication publication_{ctx_, lines_, outgoing_};
    NetworkWatch network_{ctx_, lines_, calls_};
};

}  // namespace kelsip
