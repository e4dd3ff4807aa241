// Our subscriptions (RFC 6665): the first SUBSCRIBE, refreshes, the NOTIFYs
// that arrive, termination, renewal and unsubscribing.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "sip/ua/lines.h"
#include "sip/ua/outgoing.h"
#include "sip/ua/subscription.h"
#include "sip/ua/ua_context.h"

namespace kelsip {

class Subscriptions {
public:
    Subscriptions(UaContext& context, const Lines& lines, OutgoingRequests& outgoing)
        : ctx_(context), lines_(lines), outgoing_(outgoing) {}

    int subscribe(int line, const std::string& target, const std::string& event, int expires);
    bool unsubscribe(int id);
    // Unsubscribes from everything before shutdown.
    void unsubscribeAll();
    // How many un-SUBSCRIBEs still wait for their answer.
    [[nodiscard]] size_t pendingWithdrawals() const;
    [[nodiscard]] std::optional<SubscriptionInfo> info(int id) const;
    void clear() { subscriptions_.clear(); }

    // The subscription a NOTIFY belongs to; `sameDialogOtherFork` is set
    // when it names one of our SUBSCRIBEs from another fork.
    [[nodiscard]] Subscription* findByDialog(const SipMessage& request, bool& sameDialogOtherFork);
    void onNotify(Subscription& subscription, const std::string& key, const SipMessage& request);
    void onUnsolicitedNotify(const std::string& key, const SipMessage& request);

private:
    [[nodiscard]] Subscription* find(int id);
    [[nodiscard]] static SubscriptionInfo infoOf(const Subscription& subscription);
    void start(Subscription& subscription);
    void onFirstSubscribeAnswer(int id, int code, const std::string& reason, const SipMessage* response);
    void sendSubscribeInDialog(Subscription& subscription, int expires);
    void onSubscribeRefreshAnswer(int id, const SipMessage* response, int expiresAsked);
    void setState(Subscription& subscription, SubscriptionState state);
    void terminated(Subscription& subscription, const std::string& reason, int retryAfterSeconds);
    void renew(Subscription& subscription, int64_t afterMs);
    void finish(Subscription& subscription, SubscriptionState state, int code, const std::string& reason);
    void grant(Subscription& subscription, int seconds);
    void clearTimers(Subscription& subscription);

    UaContext& ctx_;
    const Lines& lines_;
    OutgoingRequests& outgoing_;
    std::map<int, Subscription> subscriptions_;
    int nextSubscriptionId_ = 1;
};

}  // namespace kelsip
