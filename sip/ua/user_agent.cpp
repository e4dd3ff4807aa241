// The user agent: the facade hands every operation to the loop; the Impl
// opens the transports, routes requests to the part they belong to and
// answers what no part claims.
#include "sip/ua/user_agent.h"

#include "sip/core/log.h"
#include "sip/core/system.h"
#include "sip/ua/user_agent_impl.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";

}  // namespace

std::string_view toString(RegistrationState state) {
    switch (state) {
        case RegistrationState::Unregistered: return "Unregistered";
        case RegistrationState::Registering: return "Registering";
        case RegistrationState::Registered: return "Registered";
        case RegistrationState::Unregistering: return "Unregistering";
        case RegistrationState::Failed: return "Failed";
    }
    return "Unregistered";
}

UserAgent::Impl::Impl(UserAgentConfig config) : ctx_(std::move(config)) {}

UserAgent::Impl::~Impl() { stop(); }

bool UserAgent::Impl::start(std::string* error) {
    if (ctx_.started) return true;
    const auto bind = net::SocketAddress::parse(ctx_.config.bindAddress);
    if (!bind) {
        log::error(kTag, "invalid bind address");
        if (error != nullptr) *error = "invalid bind address";
        return false;
    }
    ctx_.transactions = std::make_unique<SipTransactionLayer>(
        *ctx_.loop, [this](std::string_view text, const SipTarget& target) { return ctx_.sendText(text, target); },
        ctx_.config.timers);
    ctx_.transactions->setServerLimit(ctx_.config.maxServerTransactions, ctx_.config.overloadRetryAfterSeconds);
    ctx_.liveCalls = [this] { return calls_.count(); };
    ctx_.transactions->setIdleHandler([this] { ctx_.releaseMemoryIfIdle(); });
    ctx_.transactions->setRequestHandler(
        [this](const std::string& key, const SipMessage& m, const SipTarget& source) { onRequest(key, m, source); });
    ctx_.transactions->setStrayResponseHandler(
        [this](const SipMessage& m, const SipTarget& source) { calls_.onStray2xx(m, source); });

    auto onMessage = [this](SipMessage m, const SipTarget& source) {
        if (!ctx_.transactions) return;
        if (m.isRequest) {
            ctx_.transactions->handleRequest(m, source);
        } else {
            ctx_.transactions->handleResponse(m, source);
        }
    };
    auto onError = [this](const SipTarget& target, const std::string& reason) {
        if (ctx_.transactions) ctx_.transactions->handleTransportError(target, reason);
    };
    if (ctx_.config.udpPort >= 0) {
        net::SocketAddress at = *bind;
        at.setPort(static_cast<uint16_t>(ctx_.config.udpPort));
        ctx_.udp = std::make_unique<UdpTransport>(*ctx_.loop, UdpTransportConfig{at});
        ctx_.udp->setReceiveHandler(onMessage);
        ctx_.udp->setErrorHandler(onError);
        ctx_.udp->setStunHandler(
            [this](const std::vector<uint8_t>& datagram, const net::SocketAddress& from) { lines_.onStun(datagram, from); });
        if (!ctx_.udp->open(nullptr)) ctx_.udp.reset();
    }
    if (ctx_.config.tcpPort >= 0) {
        StreamTransportConfig tcpConfig;
        tcpConfig.bindAddress = *bind;
        tcpConfig.bindAddress.setPort(static_cast<uint16_t>(ctx_.config.tcpPort));
        ctx_.tcp = StreamTransport::create(*ctx_.loop, tcpConfig, nullptr);
        ctx_.tcp->setReceiveHandler(onMessage);
        ctx_.tcp->setErrorHandler(onError);
        ctx_.tcp->setFlowHandler([this](const SipTarget& flow, FlowEvent event) { lines_.onFlowEvent(flow, event); });
        if (!ctx_.tcp->open(nullptr)) ctx_.tcp.reset();
    }
    if (ctx_.config.tlsPort >= 0) {
        StreamTransportConfig tlsConfig;
        tlsConfig.kind = TransportKind::Tls;
        tlsConfig.bindAddress = *bind;
        tlsConfig.bindAddress.setPort(static_cast<uint16_t>(ctx_.config.tlsPort));
        tlsConfig.tls = ctx_.config.tls;
        std::string why;
        ctx_.tls = StreamTransport::create(*ctx_.loop, tlsConfig, &why);
        if (ctx_.tls) {
            ctx_.tls->setReceiveHandler(onMessage);
            ctx_.tls->setErrorHandler(onError);
            if (!ctx_.tls->open(&why)) ctx_.tls.reset();
        }
        if (!ctx_.tls) log::warn(kTag, "TLS transport disabled: " + why);
    }
    if (!ctx_.udp && !ctx_.tcp && !ctx_.tls) {
        ctx_.transactions.reset();
        log::error(kTag, "no SIP transport could be started");
        if (error != nullptr) *error = "no SIP transport could be started";
        return false;
    }
    dns::DnsClientOptions dnsOptions;
    dnsOptions.servers = ctx_.config.dnsServers;
    ctx_.dns = std::make_unique<dns::DnsClient>(*ctx_.loop, dnsOptions);
    dns::ServerLocationOptions where;
    where.transports.clear();
    if (ctx_.udp) where.transports.push_back(TransportKind::Udp);
    if (ctx_.tcp) where.transports.push_back(TransportKind::Tcp);
    if (ctx_.tls) where.transports.push_back(TransportKind::Tls);
    ctx_.locator = std::make_unique<dns::ServerLocator>(*ctx_.dns, where);
    ctx_.started = true;
    if (ownsLoopThread()) ctx_.loop->start();
    ctx_.loop->post([this] { network_.start(); });
    return true;
}

void UserAgent::Impl::stop() {
    // Transports first, so no message arrives for a part that is gone; then
    // the loop, so that nothing else touches the lines while they are cleared.
    if (ctx_.udp) ctx_.udp->close();
    if (ctx_.tcp) ctx_.tcp->close();
    if (ctx_.tls) ctx_.tls->close();
    if (ownsLoopThread()) ctx_.loop->stop();
    network_.stop();
    lines_.stop();
    publication_.stop();
    outgoing_.clear();
    subscriptions_.clear();
    watchers_.clear();
    calls_.stop();
    ctx_.locator.reset();
    ctx_.dns.reset();
    ctx_.transactions.reset();
    ctx_.udp.reset();
    ctx_.tcp.reset();
    ctx_.tls.reset();
    ctx_.started = false;
}

size_t UserAgent::Impl::shutdown() {
    if (!ctx_.started) return 0;
    // Calls end as if hung up, so the far phones do not keep dead calls.
    // What we told servers about ourselves is taken back: subscriptions end
    // with an un-SUBSCRIBE, the published presence with a removal, lines
    // with an un-REGISTER. The caller waits for the answers to all of them.
    size_t ended = calls_.hangupAll();
    subscriptions_.unsubscribeAll();
    for (const int id : lines_.ids()) withdrawPresence(*lines_.find(id));
    size_t sent = lines_.unregisterAll();
    sent += subscriptions_.pendingWithdrawals();
    sent += publication_.pending();
    return sent + ended;
}

bool UserAgent::Impl::pendingWithdrawals() const {
    return subscriptions_.pendingWithdrawals() > 0 || publication_.pending() > 0 || lines_.pendingUnregisters() ||
           calls_.ending();
}

bool UserAgent::Impl::removeLine(int id) {
    Line* line = lines_.find(id);
    if (line == nullptr) return false;
    lines_.withdraw(*line);
    withdrawPresence(*line);
    publication_.forget(id);
    lines_.erase(id);
    return true;
}

void UserAgent::Impl::withdrawPresence(const Line& line) {
    watchers_.endLine(line.id, "noresource");
    publication_.withdraw(line);
}

bool UserAgent::Impl::setPresence(int lineId, const PresenceStatus& status) {
    Line* line = lines_.find(lineId);
    if (line == nullptr || !ctx_.started) return false;
    line->presence = status;
    watchers_.notifyLine(lineId);
    // A line without a domain has no presence server: its watchers are all.
    if (!line->config.domain.empty()) publication_.publishStatus(*line);
    return true;
}

void UserAgent::Impl::onRequest(const std::string& key, const SipMessage& request, const SipTarget& source) {
    if (request.method == "ACK") {
        calls_.onAck(request);
        return;
    }
    if (key.empty()) return;
    if (request.method == "CANCEL") {
        calls_.onCancel(key, request);
        return;
    }
    // An extension we lack refuses any request but ACK and CANCEL; a new
    // INVITE is checked with the call's other conditions, in their order.
    if (request.method != "INVITE" || !request.toTag().empty()) {
        if (const std::string unsupported = unsupportedRequirements(request); !unsupported.empty()) {
            ctx_.respond(key, request, 420, {}, {{"Unsupported", unsupported}});
            return;
        }
    }
    if (!request.toTag().empty()) {
        if (Call* call = calls_.findCallByDialog(request, false)) {
            if (request.method == "MESSAGE") {
                messages_.onIncoming(key, request, call->line);
            } else {
                calls_.onInDialogRequest(*call, key, request, source);
            }
            return;
        }
        if (request.method == "NOTIFY") {
            bool otherFork = false;
            if (Subscription* subscription = subscriptions_.findByDialog(request, otherFork)) {
                subscriptions_.onNotify(*subscription, key, request);
                return;
            }
            // A second fork of one of our SUBSCRIBEs: one subscription per
            // subscribe, so the 481 ends that fork's.
            if (!otherFork) {
                subscriptions_.onUnsolicitedNotify(key, request);
                return;
            }
        }
        if (request.method == "SUBSCRIBE") {
            if (Watcher* watcher = watchers_.findByDialog(request)) {
                watchers_.onSubscribe(*watcher, key, request);
                return;
            }
        }
        ctx_.respond(key, request, 481);
        return;
    }
    if (request.method == "INVITE") {
        calls_.onInvite(key, request, source);
        return;
    }
    if (request.method == "MESSAGE") {
        messages_.onIncoming(key, request);
        return;
    }
    if (request.method == "SUBSCRIBE") {
        watchers_.onSubscribeRequest(key, request, source);
        return;
    }
    if (request.method == "NOTIFY") {
        subscriptions_.onUnsolicitedNotify(key, request);
        return;
    }
    // We take REFER only within a call: one outside names no dialog of ours.
    // A 405 would contradict its own Allow, which lists REFER.
    if (request.method == "REFER") {
        ctx_.respond(key, request, 481);
        return;
    }
    ctx_.respond(key, request, request.method == "OPTIONS" ? 200 : 405, {}, {{"Allow", std::string(kUserAgentAllow)}});
}

UserAgent::UserAgent(UserAgentConfig config) : impl_(std::make_unique<Impl>(std::move(config))) {}

UserAgent::~UserAgent() {
    impl_->loop().invoke([this] { impl_->shutdown(); });
    impl_->stop();
}

bool UserAgent::start(std::string* error) {
    return impl_->start(error);
}

bool UserAgent::shutdown(std::chrono::milliseconds wait) {
    bool answered = true;
    const size_t sent = impl_->loop().invoke([this] { return impl_->shutdown(); });
    if (sent > 0 && impl_->ownsLoopThread()) {
        // One bound for every withdrawal: un-REGISTERs, un-SUBSCRIBEs and the
        // PUBLISH removal.
        const auto deadline = std::chrono::steady_clock::now() + wait;
        while (impl_->loop().invoke([this] { return impl_->pendingWithdrawals(); }) &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (impl_->loop().invoke([this] { return impl_->pendingUnregisters(); })) {
            answered = false;
            log::warn(kTag, "no answer to the un-REGISTER within " + std::to_string(wait.count()) + " ms");
        } else if (impl_->loop().invoke([this] { return impl_->pendingWithdrawals(); })) {
            log::warn(kTag, "no answer to the un-SUBSCRIBE or the PUBLISH removal within " +
                                std::to_string(wait.count()) + " ms");
        }
    }
    impl_->stop();
    return answered;
}

int UserAgent::addLine(const LineConfig& config) {
    return impl_->loop().invoke([&] { return impl_->addLine(config); });
}
bool UserAgent::removeLine(int line) {
    return impl_->loop().invoke([&] { return impl_->removeLine(line); });
}
bool UserAgent::registerLine(int line) {
    return impl_->loop().invoke([&] { return impl_->registerLine(line); });
}
bool UserAgent::unregisterLine(int line) {
    return impl_->loop().invoke([&] { return impl_->unregisterLine(line); });
}
RegistrationState UserAgent::registrationState(int line) {
    return impl_->loop().invoke([&] { return impl_->registrationState(line); });
}
std::optional<LineInfo> UserAgent::lineInfo(int line) {
    return impl_->loop().invoke([&] { return impl_->lineInfo(line); });
}
std::vector<int> UserAgent::lines() {
    return impl_->loop().invoke([&] { return impl_->lineIds(); });
}
bool UserAgent::setPush(int line, const PushParams& push) {
    return impl_->loop().invoke([&] { return impl_->setPush(line, push); });
}
PushSupport UserAgent::pushSupport(int line) {
    return impl_->loop().invoke([&] { return impl_->pushSupport(line); });
}
int UserAgent::makeCall(int line, const std::string& target) {
    return impl_->loop().invoke([&] { return impl_->calls().makeCall(line, target); });
}
bool UserAgent::answerCall(int call) {
    return impl_->loop().invoke([&] { return impl_->calls().answerCall(call); });
}
bool UserAgent::rejectCall(int call, int statusCode) {
    return impl_->loop().invoke([&] { return impl_->calls().rejectCall(call, statusCode); });
}
bool UserAgent::hangupCall(int call) {
    return impl_->loop().invoke([&] { return impl_->calls().hangupCall(call); });
}
bool UserAgent::holdCall(int call) {
    return impl_->loop().invoke([&] { return impl_->calls().holdCall(call, true); });
}
bool UserAgent::unholdCall(int call) {
    return impl_->loop().invoke([&] { return impl_->calls().holdCall(call, false); });
}
bool UserAgent::sendDtmf(int call, const std::string& digits, DtmfMethod method) {
    return impl_->loop().invoke([&] { return impl_->calls().sendDtmf(call, digits, method); });
}
bool UserAgent::transferCall(int call, const std::string& target) {
    return impl_->loop().invoke([&] { return impl_->calls().transferCall(call, target); });
}
bool UserAgent::transferCallAttended(int call, int otherCall) {
    return impl_->loop().invoke([&] { return impl_->calls().transferCallAttended(call, otherCall); });
}
std::vector<CallInfo> UserAgent::calls() {
    return impl_->loop().invoke([&] { return impl_->calls().callInfos(); });
}
std::optional<CallInfo> UserAgent::callInfo(int call) {
    return impl_->loop().invoke([&] { return impl_->calls().callInfo(call); });
}
std::shared_ptr<MediaSession> UserAgent::callMedia(int call) {
    return impl_->loop().invoke([&] { return impl_->calls().callMedia(call); });
}
int UserAgent::sendMessage(int line, const std::string& target, const std::string& body,
                           const std::string& contentType) {
    return impl_->loop().invoke([&] { return impl_->sendMessage(line, target, body, contentType); });
}
int UserAgent::subscribe(int line, const std::string& target, const std::string& event, int expires) {
    return impl_->loop().invoke([&] { return impl_->subscribe(line, target, event, expires); });
}
bool UserAgent::unsubscribe(int subscription) {
    return impl_->loop().invoke([&] { return impl_->unsubscribe(subscription); });
}
std::optional<SubscriptionInfo> UserAgent::subscriptionInfo(int subscription) {
    return impl_->loop().invoke([&] { return impl_->subscriptionInfo(subscription); });
}
bool UserAgent::setPresence(int line, const PresenceStatus& status) {
    return impl_->loop().invoke([&] { return impl_->setPresence(line, status); });
}
std::vector<std::string> UserAgent::presenceWatchers(int line) {
    return impl_->loop().invoke([&] { return impl_->presenceWatchers(line); });
}
void UserAgent::setListener(std::shared_ptr<UserAgentListener> listener) {
    impl_->loop().invoke([&] { impl_->setListener(std::move(listener)); });
}
net::SocketAddress UserAgent::localAddress(TransportKind kind) {
    return impl_->loop().invoke([&] { return impl_->localAddress(kind); });
}
UserAgentLoad UserAgent::load() {
    return impl_->loop().invoke([&] { return impl_->load(); });
}
EventLoop& UserAgent::eventLoop() { return impl_->loop(); }

}  // namespace kelsip
