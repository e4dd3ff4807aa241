// The engine's facade, its start and stop with an account, and the call
// operations passed on to the user agent.
#include "engine/softphone_engine.h"

#include <algorithm>

#include "engine/engine_impl.h"
#include "sip/core/log.h"

namespace kelsoftphone {

namespace log = kelsip::log;

namespace {

// "proxy.example.com:5070" as the account gives it; the stack wants a loose-routing URI.
std::string proxyUri(const std::string& proxy) {
    if (proxy.empty()) return {};
    if (proxy.rfind("sip:", 0) == 0 || proxy.rfind("sips:", 0) == 0) return proxy;
    return "sip:" + proxy + ";lr";
}

kelsip::TransportKind transportKind(int32_t transport) {
    switch (transport) {
        case 2: return kelsip::TransportKind::Tcp;
        case 3: return kelsip::TransportKind::Tls;
        default: return kelsip::TransportKind::Udp;
    }
}

bool hasControlCharacter(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

kelsip::UserAgentConfig agentConfig(const SoftphoneConfig& config) {
    kelsip::UserAgentConfig ua;
    ua.bindAddress = config.bindAddress;
    ua.udpPort = config.enableUdp ? config.sipPort : -1;
    ua.tcpPort = config.enableTcp ? config.sipPort : -1;
    ua.tlsPort = config.enableTls || config.transport == 3 ? config.tlsPort : -1;
    ua.tls.caFile = config.tlsCaFile;
    ua.userAgent = config.userAgent;
    ua.instanceId = config.instanceId;
    ua.timers = {config.t1Ms, config.t2Ms, config.t4Ms};
    ua.enable100rel = config.enable100rel != 0;
    for (const auto& server : config.dnsServers) {
        auto address = kelsip::net::SocketAddress::parseWithPort(server);
        if (!address) address = kelsip::net::SocketAddress::parse(server, 53);
        if (address) {
            ua.dnsServers.push_back(*address);
        } else {
            log::warn(kEngineTag, "DNS server ignored: " + server);
        }
    }
    ua.rtpPortMin = config.rtpPortMin;
    ua.rtpPortMax = config.rtpPortMax;
    ua.noAnswerTimeoutMs = int64_t{config.noAnswerTimeoutSeconds} * 1000;
    ua.mediaTimeoutMs = int64_t{std::max(config.mediaTimeoutSeconds, 0)} * 1000;
    ua.keepAliveSeconds = std::max(config.keepAliveSeconds, 0);
    ua.sessionExpires = config.sessionExpires;
    ua.minSessionExpires = config.minSessionExpires;
    ua.telephoneEvent = config.telephoneEvent;
    ua.minSubscriptionExpires = config.minSubscriptionExpires;
    ua.jitter.maxDelayMs = static_cast<uint32_t>(std::max(config.jitterMaxDelayMs, 20));
    ua.jitter.minDelayMs = static_cast<uint32_t>(std::clamp(config.jitterMinDelayMs, 0, config.jitterMaxDelayMs));
    return ua;
}

}  // namespace

SoftphoneEngine::Impl::Impl(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener,
                            std::shared_ptr<AudioDevice> device)
    : baseConfig_(std::move(config)),
      listener_(listener ? std::move(listener) : std::make_shared<SoftphoneListener>()),
      device_(std::move(device)),
      config_(baseConfig_) {
    prerollSamples_ = static_cast<size_t>(std::clamp(baseConfig_.audioTestPrerollMs, 0, 1000)) * kMediaRate / 1000;
}

SoftphoneEngine::Impl::~Impl() = default;

std::shared_ptr<kelsip::UserAgent> SoftphoneEngine::Impl::agent() const {
    const std::lock_guard lock(agentMutex_);
    return agent_;
}

bool SoftphoneEngine::Impl::started() const { return agent() != nullptr; }

bool SoftphoneEngine::Impl::start(const SoftphoneAccount& account) {
    stop();
    SoftphoneConfig config = baseConfig_;
    config.user = account.user;
    config.password = account.password;
    config.domain = account.domain;
    config.authUser = account.authUser;
    config.proxy = account.proxy;
    config.stunServer = account.stunServer;
    config.voicemailNumber = account.voicemailNumber;
    config.transport = static_cast<int32_t>(account.transport);
    if (config.user.empty()) {
        log::warn(kEngineTag, "cannot start: the account has no user name");
        return false;
    }
    // Values that end up in header fields: a CR or LF would split them.
    for (const std::string* field : {&config.user, &config.domain, &config.authUser, &config.proxy,
                                     &config.password, &config.displayName}) {
        if (hasControlCharacter(*field)) {
            log::warn(kEngineTag, "cannot start: the account holds a control character");
            return false;
        }
    }
    auto agent = std::make_shared<kelsip::UserAgent>(agentConfig(config));
    agent->setListener(shared_from_this());
    std::string error;
    if (!agent->start(&error)) {
        log::warn(kEngineTag, "cannot start: " + error);
        agent->setListener(nullptr);
        return false;
    }
    kelsip::LineConfig line;
    line.user = config.user;
    line.authUser = config.authUser;
    line.password = config.password;
    line.displayName = config.displayName;
    line.domain = config.domain;
    line.outboundProxy = proxyUri(config.proxy);
    line.transport = transportKind(config.transport);
    line.expires = config.registerExpires;
    line.reregisterOnFailure = config.reregisterOnFailure;
    line.stunServer = config.stunServer;
    line.ice = config.ice;
    line.turnServer = config.turnServer;
    line.turnUser = config.turnUser;
    line.turnPassword = config.turnPassword;
    line.srtp = config.srtpPolicy == 2   ? kelsip::SrtpPolicy::Required
                : config.srtpPolicy == 1 ? kelsip::SrtpPolicy::Offered
                                         : kelsip::SrtpPolicy::Off;
    const int lineId = agent->addLine(line);
    if (lineId <= 0) {
        log::warn(kEngineTag, "cannot start: the account was refused by the stack");
        agent->shutdown(std::chrono::milliseconds(0));
        agent->setListener(nullptr);
        return false;
    }
    std::string address;
    if (config.domain.empty()) {
        const auto local = agent->localAddress(transportKind(config.transport));
        address = "sip:" + config.user + "@" + local.toString();
    } else {
        address = "sip:" + config.user + "@" + config.domain;
    }
    {
        const std::lock_guard lock(agentMutex_);
        agent_ = agent;
        config_ = config;
        line_ = lineId;
        address_ = address;
    }
    if (!config.domain.empty()) (void)agent->registerLine(lineId);
    log::info(kEngineTag, "softphone started, account " + address);
    return true;
}

void SoftphoneEngine::Impl::stop() {
    std::shared_ptr<kelsip::UserAgent> agent;
    bool registered = false;
    {
        const std::lock_guard lock(agentMutex_);
        agent = std::move(agent_);
        registered = !config_.domain.empty() && config_.unregisterOnShutdown;
    }
    if (!agent) return;
    constexpr auto kWait = std::chrono::milliseconds(3000);
    if (registered) log::info(kEngineTag, "un-registering before shutdown");
    // Calls still up are hung up; their BYEs get the same bounded wait.
    const bool calls = !agent->calls().empty();
    if (!agent->shutdown(registered || calls ? kWait : std::chrono::milliseconds(0)) && registered) {
        log::warn(kEngineTag, "no answer to the un-REGISTER within " + std::to_string(kWait.count()) + " ms");
    }
    agent->setListener(nullptr);
    // The loop has ended: nothing else touches the calls now.
    calls_.clear();
    setActiveMedia(0, nullptr);
}

int SoftphoneEngine::Impl::resolveLine(int line, bool ringing) const {
    if (line >= 1) return line;
    if (ringing) {
        const auto agent = this->agent();
        if (!agent) return 0;
        for (const auto& call : agent->calls()) {
            if (call.incoming && call.state == "Incoming") return call.id;
        }
        return 0;
    }
    return activeCall_;
}

int SoftphoneEngine::Impl::call(const std::string& number) {
    const auto agent = this->agent();
    if (!agent || number.empty() || hasControlCharacter(number)) return 0;
    int line = 0;
    {
        const std::lock_guard lock(agentMutex_);
        line = line_;
    }
    return std::max(agent->makeCall(line, number), 0);
}

bool SoftphoneEngine::Impl::answer(int line) {
    const auto agent = this->agent();
    return agent && agent->answerCall(resolveLine(line, true));
}

bool SoftphoneEngine::Impl::reject(int line) {
    const auto agent = this->agent();
    return agent && agent->rejectCall(resolveLine(line, true), 486);
}

bool SoftphoneEngine::Impl::hangup(int line) {
    const auto agent = this->agent();
    if (!agent) return false;
    // With no call at hand a hang-up still ends a call that rings.
    int id = resolveLine(line, false);
    if (id == 0) id = resolveLine(line, true);
    if (id == 0) {
        const auto calls = agent->calls();
        if (!calls.empty()) id = calls.back().id;
    }
    return agent->hangupCall(id);
}

bool SoftphoneEngine::Impl::hold(int line) {
    const auto agent = this->agent();
    return agent && agent->holdCall(resolveLine(line, false));
}

bool SoftphoneEngine::Impl::resume(int line) {
    const auto agent = this->agent();
    if (!agent) return false;
    int id = line;
    if (id < 1) {
        for (const auto& call : agent->calls()) {
            if (call.onHold) id = call.id;
        }
    }
    return agent->unholdCall(id);
}

bool SoftphoneEngine::Impl::sendDtmf(int line, char digit) {
    const auto agent = this->agent();
    if (!agent) return false;
    const auto method = baseConfig_.dtmfMethod == 1 ? kelsip::DtmfMethod::Info : kelsip::DtmfMethod::Rfc4733;
    return agent->sendDtmf(resolveLine(line, false), std::string(1, digit), method);
}

bool SoftphoneEngine::Impl::transfer(int line, const std::string& target) {
    const auto agent = this->agent();
    return agent && !target.empty() && !hasControlCharacter(target) &&
           agent->transferCall(resolveLine(line, false), target);
}

int SoftphoneEngine::Impl::sendMessage(const std::string& target, const std::string& body,
                                       const std::string& contentType) {
    const auto agent = this->agent();
    if (!agent || target.empty() || hasControlCharacter(target) || hasControlCharacter(contentType)) return 0;
    int line = 0;
    {
        const std::lock_guard lock(agentMutex_);
        line = line_;
    }
    return std::max(agent->sendMessage(line, target, body, contentType), 0);
}

bool SoftphoneEngine::Impl::subscribeVoicemail() {
    const auto agent = this->agent();
    if (!agent) return false;
    std::string target;
    int line = 0;
    int expires = 0;
    {
        const std::lock_guard lock(agentMutex_);
        // The box is watched at the account's own address (the registrar
        // or the voicemail server answers for it); peer to peer there is none.
        if (config_.domain.empty()) return false;
        target = config_.user + "@" + config_.domain;
        line = line_;
        expires = config_.voicemailSubscribeExpires;
    }
    return agent->subscribe(line, target, "message-summary", expires) > 0;
}

std::string SoftphoneEngine::Impl::localAddress() const {
    const std::lock_guard lock(agentMutex_);
    return address_;
}

// The facade.

namespace {

std::shared_ptr<SoftphoneEngine::Impl> makeImpl(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener,
                                                std::shared_ptr<AudioDevice> device) {
    auto impl = std::make_shared<SoftphoneEngine::Impl>(std::move(config), std::move(listener), std::move(device));
    impl->launch();
    return impl;
}

std::shared_ptr<AudioDevice> systemDevice(const SoftphoneConfig& config) {
    SystemAudioOptions options;
    options.bufferMs = config.audioBufferMs;
    return createSystemAudioDevice(options);
}

}  // namespace

SoftphoneEngine::SoftphoneEngine(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener)
    : impl_(makeImpl(config, std::move(listener), systemDevice(config))) {}

SoftphoneEngine::SoftphoneEngine(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener,
                                 SampleSource source, SampleSink sink)
    : impl_(makeImpl(std::move(config), std::move(listener),
                     std::make_shared<VirtualAudioDevice>(std::move(source), std::move(sink)))) {}

SoftphoneEngine::SoftphoneEngine(SoftphoneConfig config, std::shared_ptr<SoftphoneListener> listener,
                                 std::shared_ptr<AudioDevice> device)
    : impl_(makeImpl(std::move(config), std::move(listener), std::move(device))) {}

SoftphoneEngine::~SoftphoneEngine() { impl_->shutdown(); }

bool SoftphoneEngine::start(const SoftphoneAccount& account) { return impl_->start(account); }
void SoftphoneEngine::stop() { impl_->stop(); }
bool SoftphoneEngine::started() const { return impl_->started(); }
int SoftphoneEngine::call(const std::string& number) { return impl_->call(number); }
bool SoftphoneEngine::answer(int line) { return impl_->answer(line); }
bool SoftphoneEngine::reject(int line) { return impl_->reject(line); }
bool SoftphoneEngine::hangup(int line) { return impl_->hangup(line); }
bool SoftphoneEngine::hold(int line) { return impl_->hold(line); }
bool SoftphoneEngine::resume(int line) { return impl_->resume(line); }
bool SoftphoneEngine::sendDtmf(int line, char digit) { return impl_->sendDtmf(line, digit); }
bool SoftphoneEngine::transfer(int line, const std::string& target) { return impl_->transfer(line, target); }
int SoftphoneEngine::sendMessage(const std::string& target, const std::string& body, const std::string& contentType) {
    return impl_->sendMessage(target, body, contentType);
}
void SoftphoneEngine::muteMicrophone(bool on) { impl_->muteMicrophone(on); }
void SoftphoneEngine::muteSpeaker(bool on) { impl_->muteSpeaker(on); }
void SoftphoneEngine::setMicrophoneLevel(int level) {
    impl_->setMicrophoneGain(static_cast<float>(std::clamp(level, 0, 100)) / 50.0f);
}
void SoftphoneEngine::setMicrophoneGain(float gain) { impl_->setMicrophoneGain(gain); }
void SoftphoneEngine::audioTest(bool on) { impl_->audioTest(on); }
bool SoftphoneEngine::startRecording(const std::string& path) { return impl_->startRecording(path); }
void SoftphoneEngine::stopRecording() { impl_->stopRecording(); }
bool SoftphoneEngine::subscribeVoicemail() { return impl_->subscribeVoicemail(); }
std::string SoftphoneEngine::localAddress() const { return impl_->localAddress(); }
std::string SoftphoneEngine::audioDescription() const { return impl_->audioDescription(); }

}  // namespace kelsoftphone
