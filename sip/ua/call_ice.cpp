// A call's ICE: the agent around its RTP session, our candidates in its
// descriptions, the far end's taken from them, and waiting for gathering
// before an offer or answer goes out.
#include "media/ice/candidate.h"
#include "sip/core/log.h"
#include "sip/ua/calls.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";

// Gathering waits for the STUN and TURN servers, whose requests are resent
// for up to 39.5 s; the call does not: after this it goes out with what
// was found (host candidates at least).
constexpr int64_t kGatherWaitMs = 2000;

// "ip", "ip:port", "[v6]:port"; servers are given as numbers here.
std::optional<net::SocketAddress> serverAddress(const std::string& text) {
    if (text.empty()) return std::nullopt;
    if (auto withPort = net::SocketAddress::parseWithPort(text)) return withPort;
    return net::SocketAddress::parse(text, 3478);
}

// The value of an ICE attribute at media level, else at session level.
std::optional<std::string> iceValue(const SessionDescription& sdp, const MediaDescription& media,
                                    const std::string& name) {
    if (auto value = media.attribute(name)) return value;
    for (const SdpAttribute& a : sdp.attributes) {
        if (a.name == name) return a.value;
    }
    return std::nullopt;
}

const MediaDescription* audioOf(const SessionDescription& sdp) {
    for (const MediaDescription& m : sdp.media) {
        if (m.media == "audio" && m.port != 0) return &m;
    }
    return nullptr;
}

std::vector<ice::Candidate> candidatesOf(const MediaDescription& media, int call) {
    std::vector<ice::Candidate> out;
    for (const std::string& value : media.attributes("candidate")) {
        std::string error;
        if (auto c = ice::parseCandidate(value, &error)) {
            out.push_back(std::move(*c));
        } else {
            log::debug(kTag, "call " + std::to_string(call) + ": skipping candidate: " + error);
        }
    }
    return out;
}

}  // namespace

void Calls::startIce(Call& call, ice::IceRole role) {
    const Line* line = lines_.find(call.line);
    if (line == nullptr || !line->config.ice || !call.rtp) return;
    const auto host = net::SocketAddress::parse(call.mediaAddress);
    if (!host || host->isAny()) return;
    IceTransportOptions options;
    options.call = call.id;
    options.hostAddress = *host;
    options.agent.role = role;
    options.agent.stunServer = line->stunServer ? line->stunServer : serverAddress(line->config.stunServer);
    if (const auto turn = serverAddress(line->config.turnServer)) {
        options.agent.turnServer = ice::TurnServerOptions{*turn, line->config.turnUser, line->config.turnPassword};
    }
    const int id = call.id;
    EventLoop& loop = *ctx_.loop;
    options.onGathered = [this, &loop, id] { loop.post([this, id] { gatheringDone(id); }); };
    auto transport = IceMediaTransport::create(std::move(call.rtp), std::move(options));
    if (!transport) return;
    call.iceView = transport.get();
    call.ice = std::move(transport);
    call.iceGathered = false;
    log::info(kTag, callPrefix(call) + ": gathering ICE candidates (" +
                        std::string(role == ice::IceRole::Controlling ? "controlling" : "controlled") + ")");
    call.iceView->gather();
}

bool Calls::restartIceAt(Call& call, const std::string& address) {
    const auto host = net::SocketAddress::parse(address);
    if (call.iceView == nullptr || !host || host->isAny()) return false;
    call.iceGathered = false;
    call.remoteIceUfrag.clear();  // whatever the far end answers is taken afresh
    call.iceView->moveTo(*host);
    whenGathered(call, [this](Call& c) {
        if (c.state == CallState::Connected && c.reofferKey.empty()) sendReoffer(c, false);
    });
    return true;
}

void Calls::whenGathered(Call& call, std::function<void(Call&)> next) {
    if (call.iceView == nullptr || call.iceGathered) {
        next(call);
        return;
    }
    call.afterGathering = std::move(next);
    if (call.iceGatherTimer != 0) return;
    const int id = call.id;
    call.iceGatherTimer = ctx_.transactions->schedule(kGatherWaitMs, [this, id] {
        Call* c = findCall(id);
        if (c == nullptr) return;
        c->iceGatherTimer = 0;
        if (!c->iceGathered) log::info(kTag, callPrefix(*c) + ": ICE servers slow; going on with the candidates found");
        gatheringDone(id);
    });
}

void Calls::gatheringDone(int id) {
    Call* call = findCall(id);
    if (call == nullptr || call->state == CallState::Terminated || call->iceGathered) return;
    call->iceGathered = true;
    ctx_.loop->cancel(call->iceGatherTimer);
    call->iceGatherTimer = 0;
    if (auto next = std::move(call->afterGathering)) {
        call->afterGathering = nullptr;
        next(*call);
    }
}

void Calls::addIceAttributes(Call& call, SessionDescription& sdp, MediaDescription& audio,
                             TransportAttributes& transport) {
    if (call.iceView == nullptr) return;
    IceAttributes attributes;
    attributes.ufrag = call.iceView->localUfrag();
    attributes.pwd = call.iceView->localPwd();
    for (const ice::Candidate& c : call.iceView->localCandidates()) attributes.candidates.push_back(ice::formatCandidate(c));
    transport.ice = std::move(attributes);
    if (const auto rtp = call.iceView->defaultCandidate(ice::kRtpComponent)) {
        audio.port = rtp->address.port();
        const std::string address = rtp->address.ip();
        sdp.connectionAddress = address;
        sdp.connectionAddressType = std::string(sdpAddressType(address));
        sdp.originAddress = address;
        sdp.originAddressType = sdp.connectionAddressType;
    }
    if (const auto rtcp = call.iceView->defaultCandidate(ice::kRtcpComponent)) {
        transport.rtcp = RtcpAddress{rtcp->address.port(), rtcp->address.ip()};
    }
}

void Calls::takeOfferIce(Call& call, const SessionDescription& offer) {
    const MediaDescription* audio = audioOf(offer);
    if (audio == nullptr) return;
    const auto ufrag = iceValue(offer, *audio, "ice-ufrag");
    const auto pwd = iceValue(offer, *audio, "ice-pwd");
    if (!ufrag || !pwd) return;
    if (call.iceView == nullptr) {
        // Only the first offer starts ICE: a call that began without it
        // stays plain.
        if (call.media) return;
        startIce(call, ice::IceRole::Controlled);
        if (call.iceView == nullptr) return;
    } else if (*ufrag == call.remoteIceUfrag) {
        return;  // the same session (a hold, a refresh): nothing to check again
    } else {
        call.iceView->restart();
    }
    call.remoteIceUfrag = *ufrag;
    call.iceView->setRemote(*ufrag, *pwd, candidatesOf(*audio, call.id));
}

void Calls::takeAnswerIce(Call& call, const SessionDescription& answer) {
    if (call.iceView == nullptr) return;
    const MediaDescription* audio = audioOf(answer);
    const auto ufrag = audio ? iceValue(answer, *audio, "ice-ufrag") : std::nullopt;
    const auto pwd = audio ? iceValue(answer, *audio, "ice-pwd") : std::nullopt;
    if (!ufrag || !pwd) {
        if (call.ice) {
            // Plain RTP to the address the answer names, from our own socket.
            call.rtp = call.ice->release();
            call.ice.reset();
            call.iceView = nullptr;
        }
        return;
    }
    if (*ufrag == call.remoteIceUfrag) return;
    call.remoteIceUfrag = *ufrag;
    call.iceView->setRemote(*ufrag, *pwd, candidatesOf(*audio, call.id));
}

}  // namespace kelsip
