// The user agent: the facade hands every operation to the loop; the Impl
// opens the transports, routes messages and answers what no layer claims.
#include "sip/ua/user_agent.h"

#include "sip/syntax/address.h"
#include "sip/core/log.h"
#include "sip/core/system.h"
#include "sip/syntax/text.h"
#include "sip/ua/user_agent_impl.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";

std::string makeInstanceId() {
    uint8_t b[16];
    if (!platform::secureRandom(b, sizeof b)) std::fill(std::begin(b), std::end(b), uint8_t{0x5a});
    b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // RFC 4122 version 4
    b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);
    char text[64];
    std::snprintf(text, sizeof text, "urn:uuid:%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return text;
}

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

UserAgent::Impl::Impl(UserAgentConfig config)
    : config_(std::move(config)), loop_(std::make_unique<EventLoop>(config_.clock)) {
    uint32_t seed = 0;
    if (!platform::secureRandom(&seed, sizeof seed)) seed = static_cast<uint32_t>(std::random_device{}());
    random_.seed(seed);
    if (config_.instanceId.empty()) config_.instanceId = makeInstanceId();
}

UserAgent::Impl::~Impl() { stop(); }

bool UserAgent::Impl::start(std::string* error) {
    if (started_) return true;
    const auto bind = net::SocketAddress::parse(config_.bindAddress);
    if (!bind) {
        log::error(kTag, "invalid bind address");
        if (error != nullptr) *error = "invalid bind address";
        return false;
    }
    transactions_ = std::make_unique<SipTransactionLayer>(
        *loop_, [this](std::string_view text, const SipTarget& target) { return sendText(text, target); },
        config_.timers);
    transactions_->setRequestHandler(
        [this](const std::string& key, const SipMessage& m, const SipTarget& source) { onRequest(key, m, source); });
    transactions_->setStrayResponseHandler(
        [this](const SipMessage& m, const SipTarget& source) { onStray2xx(m, source); });

    auto onMessage = [this](SipMessage m, const SipTarget& source) {
        if (!transactions_) return;
        if (m.isRequest) {
            transactions_->handleRequest(m, source);
        } else {
            transactions_->handleResponse(m, source);
        }
    };
    auto onError = [this](const SipTarget& target) {
        if (transactions_) transactions_->handleTransportError(target);
    };
    if (config_.udpPort >= 0) {
        net::SocketAddress at = *bind;
        at.setPort(static_cast<uint16_t>(config_.udpPort));
        udp_ = std::make_unique<UdpTransport>(*loop_, UdpTransportConfig{at});
        udp_->setReceiveHandler(onMessage);
        udp_->setErrorHandler(onError);
        if (!udp_->open(nullptr)) udp_.reset();
    }
    if (config_.tcpPort >= 0) {
        StreamTransportConfig tcpConfig;
        tcpConfig.bindAddress = *bind;
        tcpConfig.bindAddress.setPort(static_cast<uint16_t>(config_.tcpPort));
        tcp_ = StreamTransport::create(*loop_, tcpConfig, nullptr);
        tcp_->setReceiveHandler(onMessage);
        tcp_->setErrorHandler(onError);
        if (!tcp_->open(nullptr)) tcp_.reset();
    }
    if (!udp_ && !tcp_) {
        transactions_.reset();
        log::error(kTag, "no SIP transport could be started");
        if (error != nullptr) *error = "no SIP transport could be started";
        return false;
    }
    dns::DnsClientOptions dnsOptions;
    dnsOptions.servers = config_.dnsServers;
    dns_ = std::make_unique<dns::DnsClient>(*loop_, dnsOptions);
    dns::ServerLocationOptions where;
    where.transports.clear();
    if (udp_) where.transports.push_back(TransportKind::Udp);
    if (tcp_) where.transports.push_back(TransportKind::Tcp);
    locator_ = std::make_unique<dns::ServerLocator>(*dns_, where);
    started_ = true;
    if (ownsLoopThread()) loop_->start();
    return true;
}

void UserAgent::Impl::stop() {
    // Transports first, so no message arrives for a layer that is gone; then
    // the loop, so that nothing else touches the lines while they are cleared.
    if (udp_) udp_->close();
    if (tcp_) tcp_->close();
    if (ownsLoopThread()) loop_->stop();
    for (auto& [id, line] : lines_) {
        cancelTimers(line);
        loop_->cancel(line.presence.refreshTimer);
    }
    outgoing_.clear();
    subscriptions_.clear();
    watchers_.clear();
    for (auto& [id, call] : calls_) {
        if (call->media) call->media->close();
        if (call->rtp) call->rtp->close({});
    }
    calls_.clear();
    locator_.reset();
    dns_.reset();
    transactions_.reset();
    udp_.reset();
    tcp_.reset();
    started_ = false;
}

net::SocketAddress UserAgent::Impl::localAddress(TransportKind kind) const {
    if (kind == TransportKind::Udp && udp_) return udp_->localAddress();
    if (kind == TransportKind::Tcp && tcp_) return tcp_->localAddress();
    return {};
}

bool UserAgent::Impl::sendText(std::string_view text, const SipTarget& target) {
    SipTransport* transport = nullptr;
    if (target.kind == TransportKind::Udp) transport = udp_.get();
    if (target.kind == TransportKind::Tcp) transport = tcp_.get();
    return transport != nullptr && transport->send(text, target);
}

std::string UserAgent::Impl::randomToken(size_t length) {
    static constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::uniform_int_distribution<size_t> pick(0, kAlphabet.size() - 1);
    std::string out;
    for (size_t i = 0; i < length; ++i) out += kAlphabet[pick(random_)];
    return out;
}

void UserAgent::Impl::addCredentials(SipMessage& request, const LineConfig& account, const DigestChallenge& challenge,
                                     DigestRequest& digest) {
    digest.username = account.authUser.empty() ? account.user : account.authUser;
    digest.password = account.password;
    digest.method = request.method;
    digest.uri = request.requestUri.toString();
    ++digest.nonceCount;
    request.addHeader(authorizationHeaderName(challenge), buildAuthorization(challenge, digest));
}

std::string UserAgent::Impl::contactHost(const SipTarget& target) const {
    // The address the system would send from towards this target, with the
    // port our transport of that kind listens on.
    net::SocketAddress local = localAddress(target.kind);
    if (local.isAny()) {
        if (const auto toward = net::localAddressToward(target.address)) {
            const uint16_t port = local.port();
            local = *toward;
            local.setPort(port);
        }
    }
    return local.host() + ":" + std::to_string(local.port());
}

std::string UserAgent::Impl::viaFor(const SipTarget& target) const {
    return "SIP/2.0/" + std::string(transportName(target.kind)) + " " + contactHost(target) + ";rport";
}

SipTarget UserAgent::Impl::dialogTarget(const Dialog& dialog, const SipTarget& fallback) {
    // The first route, else the remote target, when it names an address
    // directly; otherwise where the request that made the dialog went.
    std::optional<SipUri> next;
    if (!dialog.routeSet.empty()) {
        if (const auto na = NameAddr::parse(dialog.routeSet.front())) next = na->uri;
    } else {
        next = dialog.remoteTarget;
    }
    if (next) {
        if (const auto address = net::SocketAddress::parse(next->host, next->port ? next->port : 5060)) {
            const auto transport = next->param("transport");
            const bool tcp = transport && text::iequals(*transport, "tcp");
            return SipTarget{tcp ? TransportKind::Tcp : TransportKind::Udp, *address, 0};
        }
    }
    return fallback;
}

SipMessage UserAgent::Impl::buildDialogRequest(Dialog& dialog, std::string_view method, const SipTarget& target) {
    SipMessage m;
    m.isRequest = true;
    m.method = std::string(method);
    m.requestUri = dialog.remoteTarget;
    m.addHeader("Via", viaFor(target));
    m.addHeader("Max-Forwards", "70");
    for (const std::string& route : dialog.routeSet) m.addHeader("Route", route);
    m.addHeader("From", dialog.localUri + ";tag=" + dialog.localTag);
    m.addHeader("To", dialog.remoteUri + (dialog.remoteTag.empty() ? "" : ";tag=" + dialog.remoteTag));
    m.addHeader("Call-ID", dialog.callId);
    // ACK keeps the INVITE's number; everything else takes the next one.
    const uint32_t cseq = method == "ACK" ? dialog.localCseq : ++dialog.localCseq;
    m.addHeader("CSeq", std::to_string(cseq) + " " + std::string(method));
    return m;
}

std::string UserAgent::Impl::contactUri(const Line* line, const SipTarget& target) const {
    const std::string user = line != nullptr ? escapeUriUser(line->config.user) : "kelsip";
    std::string contact = "<sip:" + user + "@" + contactHost(target);
    if (target.kind == TransportKind::Tcp) contact += ";transport=tcp";
    return contact + ">";
}

std::string UserAgent::Impl::addressOfRecord(const Line& line, const SipTarget& toward) const {
    // A line without a domain (peer to peer) is known by where it listens.
    const std::string host = line.config.domain.empty() ? contactHost(toward) : line.config.domain;
    return "sip:" + escapeUriUser(line.config.user) + "@" + host;
}

Line* UserAgent::Impl::lineForRequest(const SipMessage& request) {
    for (auto& [id, line] : lines_) {
        if (escapeUriUser(line.config.user) == request.requestUri.user) return &line;
    }
    // A peer may dial our address without our user name: the first line takes it.
    return lines_.empty() ? nullptr : &lines_.begin()->second;
}

void UserAgent::Impl::onRequest(const std::string& key, const SipMessage& request, const SipTarget& source) {
    if (request.method == "ACK") {
        onAck(request);
        return;
    }
    if (key.empty()) return;
    if (request.method == "CANCEL") {
        onCancel(key, request);
        return;
    }
    if (!request.toTag().empty()) {
        if (Call* call = findCallByDialog(request, false)) {
            onInDialogRequest(*call, key, request, source);
            return;
        }
        if (request.method == "NOTIFY") {
            bool otherFork = false;
            if (Subscription* subscription = findSubscriptionByDialog(request, otherFork)) {
                onSubscriptionNotify(*subscription, key, request);
                return;
            }
            // A second fork of one of our SUBSCRIBEs: one subscription per
            // subscribe, so the 481 ends that fork's.
            if (!otherFork) {
                onUnsolicitedNotify(key, request);
                return;
            }
        }
        if (request.method == "SUBSCRIBE") {
            if (Watcher* watcher = findWatcherByDialog(request)) {
                onWatcherSubscribe(*watcher, key, request);
                return;
            }
        }
        respond(key, request, 481);
        return;
    }
    if (request.method == "INVITE") {
        onInvite(key, request, source);
        return;
    }
    if (request.method == "MESSAGE") {
        onIncomingMessage(key, request);
        return;
    }
    if (request.method == "SUBSCRIBE") {
        onSubscribeRequest(key, request, source);
        return;
    }
    if (request.method == "NOTIFY") {
        onUnsolicitedNotify(key, request);
        return;
    }
    // We take REFER only within a call: one outside names no dialog of ours.
    // A 405 would contradict its own Allow, which lists REFER.
    if (request.method == "REFER") {
        respond(key, request, 481);
        return;
    }
    respond(key, request, request.method == "OPTIONS" ? 200 : 405, {}, {{"Allow", std::string(kUserAgentAllow)}});
}

UserAgent::UserAgent(UserAgentConfig config) : impl_(std::make_unique<Impl>(std::move(config))) {}

UserAgent::~UserAgent() {
    impl_->loop().invoke([this] { impl_->shutdown(); });
    impl_->stop();
}

bool UserAgent::start(std::string* error) {
    return impl_->start(error);
}

void UserAgent::shutdown(std::chrono::milliseconds wait) {
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
            log::warn(kTag, "no answer to the un-REGISTER within " + std::to_string(wait.count()) + " ms");
        } else if (impl_->loop().invoke([this] { return impl_->pendingWithdrawals(); })) {
            log::warn(kTag, "no answer to the un-SUBSCRIBE or the PUBLISH removal within " +
                                std::to_string(wait.count()) + " ms");
        }
    }
    impl_->stop();
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
    return impl_->loop().invoke([&] { return impl_->makeCall(line, target); });
}
bool UserAgent::answerCall(int call) {
    return impl_->loop().invoke([&] { return impl_->answerCall(call); });
}
bool UserAgent::rejectCall(int call, int statusCode) {
    return impl_->loop().invoke([&] { return impl_->rejectCall(call, statusCode); });
}
bool UserAgent::hangupCall(int call) {
    return impl_->loop().invoke([&] { return impl_->hangupCall(call); });
}
bool UserAgent::holdCall(int call) {
    return impl_->loop().invoke([&] { return impl_->holdCall(call, true); });
}
bool UserAgent::unholdCall(int call) {
    return impl_->loop().invoke([&] { return impl_->holdCall(call, false); });
}
bool UserAgent::sendDtmf(int call, const std::string& digits, DtmfMethod method) {
    return impl_->loop().invoke([&] { return impl_->sendDtmf(call, digits, method); });
}
bool UserAgent::transferCall(int call, const std::string& target) {
    return impl_->loop().invoke([&] { return impl_->transferCall(call, target); });
}
bool UserAgent::transferCallAttended(int call, int otherCall) {
    return impl_->loop().invoke([&] { return impl_->transferCallAttended(call, otherCall); });
}
std::vector<CallInfo> UserAgent::calls() {
    return impl_->loop().invoke([&] { return impl_->callInfos(); });
}
std::optional<CallInfo> UserAgent::callInfo(int call) {
    return impl_->loop().invoke([&] { return impl_->callInfo(call); });
}
std::shared_ptr<MediaSession> UserAgent::callMedia(int call) {
    return impl_->loop().invoke([&] { return impl_->callMedia(call); });
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
EventLoop& UserAgent::eventLoop() { return impl_->loop(); }

}  // namespace kelsip
