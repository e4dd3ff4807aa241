// ICE under a call's media: the agent shares the RTP session's sockets and
// worker, so checks, TURN traffic and media take one path through the NAT.
#include "media/ice/ice_media_transport.h"

#include "sip/core/log.h"
#include "sip/net/stun_message.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ice";

}  // namespace

std::unique_ptr<IceMediaTransport> IceMediaTransport::create(std::unique_ptr<RtpSession> rtp,
                                                             IceTransportOptions options) {
    if (!rtp || rtp->state() != RtpSession::State::Open) return nullptr;
    return std::unique_ptr<IceMediaTransport>(new IceMediaTransport(std::move(rtp), std::move(options)));
}

IceMediaTransport::IceMediaTransport(std::unique_ptr<RtpSession> rtp, IceTransportOptions options)
    : rtp_(std::move(rtp)), options_(std::move(options)) {
    if (options_.agent.turnServer) turnServer_ = options_.agent.turnServer->server;
    makeAgent();
    rtp_->setInterceptor(this);
}

void IceMediaTransport::makeAgent() {
    agent_ = std::make_unique<ice::IceAgent>(static_cast<ice::IceNetwork&>(*this), options_.agent,
                                             static_cast<ice::IceListener*>(this));
    baseComponent_.clear();
    componentBase_.clear();
    gathered_ = false;
    net::SocketAddress rtpBase = options_.hostAddress;
    rtpBase.setPort(rtp_->localPort());
    const int rtpId = agent_->addHostBase(ice::kRtpComponent, rtpBase);
    baseComponent_[rtpId] = ice::kRtpComponent;
    componentBase_[ice::kRtpComponent] = rtpId;
    if (rtp_->hasRtcp()) {
        net::SocketAddress rtcpBase = rtpBase;
        rtcpBase.setPort(static_cast<uint16_t>(rtpBase.port() + 1));
        const int rtcpId = agent_->addHostBase(ice::kRtcpComponent, rtcpBase);
        baseComponent_[rtcpId] = ice::kRtcpComponent;
        componentBase_[ice::kRtcpComponent] = rtcpId;
    }
}

IceMediaTransport::~IceMediaTransport() {
    if (rtp_) close({});
}

MediaTransport::Channel IceMediaTransport::channelOf(int component) {
    return component == ice::kRtcpComponent ? Channel::Rtcp : Channel::Rtp;
}

void IceMediaTransport::gather() {
    const std::lock_guard lock(mutex_);
    if (agent_) agent_->gather(RtpIoService::steadyNowUs());
}

bool IceMediaTransport::gathered() const {
    const std::lock_guard lock(mutex_);
    return gathered_;
}

std::string IceMediaTransport::localUfrag() const {
    const std::lock_guard lock(mutex_);
    return agent_ ? agent_->localUfrag() : std::string();
}

std::string IceMediaTransport::localPwd() const {
    const std::lock_guard lock(mutex_);
    return agent_ ? agent_->localPwd() : std::string();
}

std::vector<ice::Candidate> IceMediaTransport::localCandidates() const {
    const std::lock_guard lock(mutex_);
    return agent_ ? agent_->localCandidates() : std::vector<ice::Candidate>{};
}

std::optional<ice::Candidate> IceMediaTransport::defaultCandidate(int component) const {
    const std::vector<ice::Candidate> all = localCandidates();
    std::optional<ice::Candidate> best;
    const auto rank = [](ice::CandidateType type) {
        switch (type) {
            case ice::CandidateType::ServerReflexive: return 3;
            case ice::CandidateType::Host: return 2;
            case ice::CandidateType::Relayed: return 1;
            case ice::CandidateType::PeerReflexive: return 0;
        }
        return 0;
    };
    for (const ice::Candidate& c : all) {
        if (c.component != component) continue;
        if (!best || rank(c.type) > rank(best->type) || (rank(c.type) == rank(best->type) && c.priority > best->priority)) {
            best = c;
        }
    }
    return best;
}

void IceMediaTransport::setRemote(const std::string& ufrag, const std::string& pwd,
                                  std::vector<ice::Candidate> candidates) {
    const std::lock_guard lock(mutex_);
    if (!agent_) return;
    log::info(kTag, "call " + std::to_string(options_.call) + ": checking " + std::to_string(candidates.size()) +
                        " remote candidates");
    agent_->setRemote(ufrag, pwd, std::move(candidates), RtpIoService::steadyNowUs());
}

void IceMediaTransport::restart() {
    const std::lock_guard lock(mutex_);
    if (!agent_) return;
    log::info(kTag, "call " + std::to_string(options_.call) + ": ICE restart");
    agent_->restart(RtpIoService::steadyNowUs());
}

void IceMediaTransport::moveTo(const net::SocketAddress& hostAddress) {
    const std::lock_guard lock(mutex_);
    if (!agent_ || !rtp_) return;
    log::info(kTag, "call " + std::to_string(options_.call) + ": ICE restart at " + hostAddress.host());
    // Every candidate named the old address and the relay was allocated
    // from it: nothing of the old agent is worth keeping. Media goes on to
    // the last chosen remote from the RTP socket until the new checks
    // choose again, and the role stays what the old agent settled on.
    const int64_t now = RtpIoService::steadyNowUs();
    options_.agent.role = agent_->role();
    options_.hostAddress = hostAddress;
    agent_->close(now);
    makeAgent();
    agent_->gather(now);
}

ice::IceState IceMediaTransport::state() const {
    const std::lock_guard lock(mutex_);
    return agent_ ? agent_->state() : ice::IceState::Failed;
}

std::optional<ice::CandidatePair> IceMediaTransport::selectedPair(int component) const {
    const std::lock_guard lock(mutex_);
    return agent_ ? agent_->selectedPair(component) : std::nullopt;
}

void IceMediaTransport::endAgent() {
    // The interceptor goes first: a worker inside it holds the session's
    // sink lock and then ours, so ours is not held while waiting for it.
    if (rtp_) rtp_->setInterceptor(nullptr);
    const std::lock_guard lock(mutex_);
    if (agent_) agent_->close(RtpIoService::steadyNowUs());
    agent_.reset();
}

std::unique_ptr<RtpSession> IceMediaTransport::release() {
    endAgent();
    log::info(kTag, "call " + std::to_string(options_.call) + ": the far end does not do ICE; plain RTP");
    return std::move(rtp_);
}

bool IceMediaTransport::send(Channel channel, std::span<const uint8_t> bytes) {
    const int component = channel == Channel::Rtcp ? ice::kRtcpComponent : ice::kRtpComponent;
    {
        const std::lock_guard lock(mutex_);
        if (agent_ && chosen_.contains(component)) {
            if (agent_->send(component, bytes, RtpIoService::steadyNowUs())) return true;
            // The far end withdrew its consent: nothing goes to it. A
            // restarted agent has no pair yet: the socket's own path serves.
            if (agent_->state() == ice::IceState::Failed) return false;
        }
    }
    return rtp_ && rtp_->send(channel, bytes);
}

void IceMediaTransport::attach(Sink* sink) { rtp_->attach(sink); }

void IceMediaTransport::detach() {
    if (rtp_) rtp_->detach();
}

bool IceMediaTransport::hasRtcp() const { return rtp_ && rtp_->hasRtcp(); }

void IceMediaTransport::close(std::span<const uint8_t> finalRtcp) {
    if (!rtp_) return;
    rtp_->detach();
    endAgent();
    rtp_->close(finalRtcp);
    rtp_.reset();
}

bool IceMediaTransport::onDatagram(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& from,
                                   int64_t arrivalUs) {
    // STUN from anyone (checks, answers to ours) and whatever the TURN
    // server sends (its answers, relayed data) is the agent's; the rest is
    // media straight from the far end.
    if (!stun::looksLikeStun(bytes) && (!turnServer_ || from != *turnServer_)) return false;
    const std::lock_guard lock(mutex_);
    if (!agent_) return false;
    const auto base = componentBase_.find(channel == Channel::Rtcp ? ice::kRtcpComponent : ice::kRtpComponent);
    if (base == componentBase_.end()) return false;
    lastDataUs_ = arrivalUs;
    agent_->receive(base->second, from, bytes, arrivalUs);
    return true;
}

void IceMediaTransport::onTick(int64_t nowUs) {
    const std::lock_guard lock(mutex_);
    if (agent_) agent_->tick(nowUs);
}

void IceMediaTransport::send(int base, const net::SocketAddress& to, std::span<const uint8_t> bytes) {
    const auto component = baseComponent_.find(base);
    if (component == baseComponent_.end() || !rtp_) return;
    (void)rtp_->sendFrom(channelOf(component->second), bytes, to);
}

void IceMediaTransport::onIceState(ice::IceState state) {
    log::info(kTag, "call " + std::to_string(options_.call) + ": ICE " + std::string(ice::toString(state)));
    if (options_.onState) options_.onState(state);
}

void IceMediaTransport::onGatheringDone() {
    gathered_ = true;
    if (options_.onGathered) options_.onGathered();
}

void IceMediaTransport::onSelectedPair(int component, const ice::Candidate& local, const ice::Candidate& remote) {
    log::info(kTag, "call " + std::to_string(options_.call) + ": component " + std::to_string(component) + " uses " +
                        std::string(ice::toString(local.type)) + " " + local.address.toString() + " -> " +
                        std::string(ice::toString(remote.type)) + " " + remote.address.toString());
    chosen_[component] = remote.address;
    if (rtp_) rtp_->setChosenRemote(channelOf(component), remote.address);
}

void IceMediaTransport::onData(int component, std::span<const uint8_t> bytes) {
    // Relayed media: it comes from the pair's remote as far as the session cares.
    const auto chosen = chosen_.find(component);
    if (chosen == chosen_.end() || !rtp_) return;
    rtp_->deliver(channelOf(component), bytes, chosen->second, lastDataUs_);
}

}  // namespace kelsip
