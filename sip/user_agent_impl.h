// The user agent's private state, all of it owned by the event-loop thread.
#pragma once

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "sip/digest.h"
#include "sip/dns/dns_client.h"
#include "sip/dns/server_location.h"
#include "sip/event_loop.h"
#include "sip/stream_transport.h"
#include "sip/transaction.h"
#include "sip/udp_transport.h"
#include "sip/user_agent.h"

namespace kelsip {

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
    [[nodiscard]] net::SocketAddress localAddress(TransportKind kind) const;

    EventLoop& loop() { return *loop_; }
    [[nodiscard]] bool ownsLoopThread() const { return !config_.clock; }

private:
    // Transports and messages.
    bool sendText(std::string_view text, const SipTarget& target);
    void onRequest(const std::string& key, const SipMessage& request, const SipTarget& source);
    [[nodiscard]] std::string viaFor(const SipTarget& target) const;
    [[nodiscard]] std::string contactHost(const SipTarget& target) const;
    [[nodiscard]] std::string randomToken(size_t length);

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
    std::shared_ptr<UserAgentListener> listener_;
    std::mt19937 random_;
    bool started_ = false;
};

}  // namespace kelsip
