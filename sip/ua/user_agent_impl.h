// The user agent's private state, all of it owned by the event-loop thread.
#pragma once

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "media/rtp/rtp_io_service.h"
#include "media/rtp/rtp_port_allocator.h"
#include "sip/ua/call.h"
#include "sip/auth/digest.h"
#include "sip/dns/dns_client.h"
#include "sip/dns/server_location.h"
#include "sip/core/event_loop.h"
#include "sip/transport/stream_transport.h"
#include "sip/ua/subscription.h"
#include "sip/transaction/transaction.h"
#include "sip/transport/udp_transport.h"
#include "sip/ua/user_agent.h"

namespace kelsip {

// The methods we take, as Allow headers list them.
inline constexpr std::string_view kUserAgentAllow =
    "INVITE, ACK, CANCEL, BYE, OPTIONS, INFO, NOTIFY, PRACK, UPDATE, REFER, SUBSCRIBE, MESSAGE";

// "call 7": how the user agent's log lines name a call.
inline std::string callPrefix(const Call& call) { return "call " + std::to_string(call.id); }

// Seconds after a granted expiry at which a registration, subscription or
// publication is refreshed: 30 s ahead, or halfway for short ones.
inline int64_t refreshAfterSeconds(int64_t granted) {
    if (granted >= 61) return granted - 30;
    const int64_t half = granted / 2;
    return half < 2 ? 1 : half;
}

// One account: its configuration and its registration.
struct Line {
    int id = 0;
    LineConfig config;
    std::vector<SipTarget> targets;   // the registrar, resolved, in failover order
    size_t targetIndex = 0;
    RegistrationState state = RegistrationState::Unregistered;
    int statusCode = 0;
    std::string reason;
    int expires = 0;                  // asked for; a 423's Min-Expires replaces it
    int granted = 0;
    uint32_t attempts = 0;            // 401/407 and 423 answers in a row
    std::optional<DigestChallenge> challenge;
    DigestRequest digest;             // nonce count and cnonce of the stored challenge
    bool unregistering = false;
    std::string callId;
    std::string fromTag;
    uint32_t cseq = 0;
    PushSupport push;
    EventLoop::TimerId refreshTimer = 0;
    EventLoop::TimerId retryTimer = 0;
    dns::ServerLocator::LocateId locating = 0;
    std::string transaction;          // key of the REGISTER in flight
    Publication presence;
};

class UserAgent::Impl {
public:
    explicit Impl(UserAgentConfig config);
    ~Impl();

    [[nodiscard]] bool start(std::string* error);
    // Sends an un-REGISTER for each registered line; returns how many went out.
    size_t shutdown();
    // Stops every timer, lookup and transport; the loop stays to its owner.
    void stop();
    [[nodiscard]] bool pendingUnregisters() const;
    [[nodiscard]] bool pendingWithdrawals() const;

    int addLine(const LineConfig& config);
    bool removeLine(int id);
    bool registerLine(int id);
    bool unregisterLine(int id);
    [[nodiscard]] RegistrationState registrationState(int id) const;
    [[nodiscard]] std::optional<LineInfo> lineInfo(int id) const;
    [[nodiscard]] std::vector<int> lineIds() const;
    bool setPush(int id, const PushParams& push);
    [[nodiscard]] PushSupport pushSupport(int id) const;
    void setListener(std::shared_ptr<UserAgentListener> listener) { listener_ = std::move(listener); }

    int makeCall(int line, const std::string& target);
    bool answerCall(int id);
    bool rejectCall(int id, int statusCode);
    bool hangupCall(int id);
    bool holdCall(int id, bool hold);
    bool sendDtmf(int id, const std::string& digits, DtmfMethod method);
    bool transferCall(int id, const std::string& target);
    bool transferCallAttended(int id, int otherId);
    [[nodiscard]] std::vector<CallInfo> callInfos() const;
    [[nodiscard]] std::optional<CallInfo> callInfo(int id) const;
    [[nodiscard]] std::shared_ptr<MediaSession> callMedia(int id) const;
    [[nodiscard]] net::SocketAddress localAddress(TransportKind kind) const;

    int sendMessage(int line, const std::string& target, const std::string& body, const std::string& contentType);
    int subscribe(int line, const std::string& target, const std::string& event, int expires);
    bool unsubscribe(int id);
    [[nodiscard]] std::optional<SubscriptionInfo> subscriptionInfo(int id) const;
    bool setPresence(int line, const PresenceStatus& status);
    [[nodiscard]] std::vector<std::string> presenceWatchers(int line) const;

    EventLoop& loop() { return *loop_; }
    [[nodiscard]] bool ownsLoopThread() const { return !config_.clock; }

private:
    // Transports and messages.
    bool sendText(std::string_view text, const SipTarget& target);
    void onRequest(const std::string& key, const SipMessage& request, const SipTarget& source);
    [[nodiscard]] std::string viaFor(const SipTarget& target) const;
    [[nodiscard]] std::string contactHost(const SipTarget& target) const;
    [[nodiscard]] std::string randomToken(size_t length);
    // Signs `request` with the account's credentials for `challenge`; each
    // signed request counts one more use of the nonce.
    static void addCredentials(SipMessage& request, const LineConfig& account, const DigestChallenge& challenge,
                               DigestRequest& digest);
    // Requests within any dialog, a call's or a subscription's.
    [[nodiscard]] SipMessage buildDialogRequest(Dialog& dialog, std::string_view method, const SipTarget& target);
    [[nodiscard]] static SipTarget dialogTarget(const Dialog& dialog, const SipTarget& fallback);
    [[nodiscard]] std::string contactUri(const Line* line, const SipTarget& target) const;
    [[nodiscard]] std::string addressOfRecord(const Line& line, const SipTarget& toward) const;
    // The line a request from outside is meant for: by the user of its
    // Request-URI, else the first line; null when there is none.
    [[nodiscard]] Line* lineForRequest(const SipMessage& request);

    // Calls: outgoing INVITE and the requests within a dialog.
    [[nodiscard]] Call* findCall(int id);
    [[nodiscard]] const Call* findCall(int id) const;
    [[nodiscard]] Call* findCallByDialog(const SipMessage& message, bool weAreUac);
    [[nodiscard]] static CallInfo infoOf(const Call& call);
    void setCallState(Call& call, CallState state, int code = 0, const std::string& reason = {});
    void endCall(Call& call, int code, const std::string& reason);
    void sendInvite(Call& call);
    void onInviteResponse(int id, const SipMessage* response);
    void onInvite2xx(Call& call, const SipMessage& response);
    void sendAck(Call& call, const SipMessage& response);
    void sendCancel(Call& call);
    void sendBye(Call& call);
    void onStray2xx(const SipMessage& response, const SipTarget& source);
    [[nodiscard]] SipMessage buildInDialogRequest(Call& call, std::string_view method);
    [[nodiscard]] SipTarget dialogTarget(const Call& call) const;
    [[nodiscard]] std::string contactFor(const Call& call) const;
    // Calls: what arrives.
    void onInvite(const std::string& key, const SipMessage& request, const SipTarget& source);
    void onInDialogRequest(Call& call, const std::string& key, const SipMessage& request, const SipTarget& source);
    void sendInviteOk(Call& call, const std::string& key, const SipMessage& ok, const SipTarget& target);
    void onAck(const SipMessage& ack);
    void onCancel(const std::string& key, const SipMessage& cancel);
    void respond(const std::string& key, const SipMessage& request, int code, std::string_view reason = {},
                 const std::vector<std::pair<std::string, std::string>>& extra = {});
    void retransmit2xx(int id);
    void sendPrack(Call& call, const SipMessage& provisional);
    void retransmitReliable1xx(int id);
    void sendNextInfoDigit(Call& call);
    // Transfer.
    [[nodiscard]] std::optional<SipUri> completeTarget(const Line& line, const std::string& target) const;
    bool sendRefer(Call& call, const std::string& referTo);
    void onRefer(Call& call, const std::string& key, const SipMessage& request);
    void notifyReferrer(Call& call, int code, const std::string& reason, bool final);
    // Calls: offer/answer and media.
    [[nodiscard]] bool openRtp(Call& call, const SipTarget& toward);
    [[nodiscard]] std::string buildOffer(Call& call, MediaDirection direction);
    [[nodiscard]] std::string buildAnswer(Call& call, MediaDirection direction);
    [[nodiscard]] bool takeAnswer(Call& call, const std::string& body);
    void startMedia(Call& call, const SessionDescription& remote, MediaDirection ours);
    void sendReoffer(Call& call);
    // Session timers.
    void readSessionTimer(Call& call, const SipMessage& message, bool weSentTheRequest);
    void armSessionTimer(Call& call);
    void sendSessionRefresh(Call& call);
    void addSessionHeaders(const Call& call, SipMessage& message) const;

    // Out-of-dialog requests (MESSAGE, PUBLISH, a subscription's first
    // SUBSCRIBE): resolution, failover and digest answers.
    [[nodiscard]] SipMessage buildOutOfDialogRequest(const Line& line, std::string_view method, const SipUri& to);
    int sendOutgoing(const Line& line, SipMessage request, OutgoingDone done);
    void transmitOutgoing(Outgoing& request);
    void onOutgoingAnswer(int id, const SipMessage* response);
    void finishOutgoing(int id, int code, const std::string& reason, const SipMessage* response);
    void abandonOutgoing(int id);
    void onIncomingMessage(const std::string& key, const SipMessage& request);

    // Our subscriptions.
    [[nodiscard]] Subscription* findSubscription(int id);
    [[nodiscard]] Subscription* findSubscriptionByDialog(const SipMessage& request, bool& sameDialogOtherFork);
    [[nodiscard]] static SubscriptionInfo infoOf(const Subscription& subscription);
    void startSubscription(Subscription& subscription);
    void onFirstSubscribeAnswer(int id, int code, const std::string& reason, const SipMessage* response);
    void sendSubscribeInDialog(Subscription& subscription, int expires);
    void onSubscribeRefreshAnswer(int id, const SipMessage* response, int expiresAsked);
    void onSubscriptionNotify(Subscription& subscription, const std::string& key, const SipMessage& request);
    void onUnsolicitedNotify(const std::string& key, const SipMessage& request);
    void setSubscriptionState(Subscription& subscription, SubscriptionState state);
    void subscriptionTerminated(Subscription& subscription, const std::string& reason, int retryAfterSeconds);
    void renewSubscription(Subscription& subscription, int64_t afterMs);
    void finishSubscription(Subscription& subscription, SubscriptionState state, int code, const std::string& reason);
    void grantSubscription(Subscription& subscription, int seconds);
    void clearSubscriptionTimers(Subscription& subscription);

    // Watchers of our presence, and its publication.
    void onSubscribeRequest(const std::string& key, const SipMessage& request, const SipTarget& source);
    void onWatcherSubscribe(Watcher& watcher, const std::string& key, const SipMessage& request);
    [[nodiscard]] Watcher* findWatcherByDialog(const SipMessage& request);
    // The expiry a watcher's SUBSCRIBE gets; none after a 423 was sent.
    [[nodiscard]] std::optional<int64_t> watcherExpires(const std::string& key, const SipMessage& request);
    [[nodiscard]] std::string presenceDocument(const Line& line, const SipTarget& toward) const;
    void notifyWatcher(Watcher& watcher, const std::string& subscriptionState);
    void endWatcher(int id, const std::string& reason);
    void armWatcherExpiry(Watcher& watcher, int seconds);
    void publish(Line& line, int expires, bool withBody);
    void onPublishAnswer(int lineId, int code, const std::string& reason, const SipMessage* response, int expires);
    void withdrawPresence(Line& line);

    // Registration.
    void resolveAndRegister(Line& line);
    void sendRegister(Line& line);
    [[nodiscard]] SipMessage buildRegister(Line& line);
    void onRegisterAnswer(int lineId, const SipMessage* response);
    void onRegistered(Line& line, const SipMessage& response);
    void registrationFailed(Line& line, int code, const std::string& reason);
    void setState(Line& line, RegistrationState state, int code, const std::string& reason);
    void scheduleRefresh(Line& line);
    void cancelTimers(Line& line);
    [[nodiscard]] Line* findLine(int id);
    [[nodiscard]] const Line* findLine(int id) const;

    UserAgentConfig config_;
    std::unique_ptr<EventLoop> loop_;
    std::unique_ptr<UdpTransport> udp_;
    std::unique_ptr<StreamTransport> tcp_;
    std::unique_ptr<SipTransactionLayer> transactions_;
    std::unique_ptr<dns::DnsClient> dns_;
    std::unique_ptr<dns::ServerLocator> locator_;
    std::map<int, Line> lines_;
    int nextLineId_ = 1;
    std::map<int, std::unique_ptr<Call>> calls_;
    int nextCallId_ = 1;
    std::shared_ptr<RtpIoService> rtpIo_;
    std::unique_ptr<RtpPortAllocator> rtpPorts_;
    std::map<int, Outgoing> outgoing_;
    int nextOutgoingId_ = 1;
    std::map<int, Subscription> subscriptions_;
    int nextSubscriptionId_ = 1;
    std::map<int, Watcher> watchers_;
    int nextWatcherId_ = 1;
    std::shared_ptr<UserAgentListener> listener_;
    std::mt19937 random_;
    bool started_ = false;
};

}  // namespace kelsip
