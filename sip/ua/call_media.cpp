// A call's offer/answer and media: the RTP session it offers, our offers and
// answers, reading the far end's, the media session that follows them, and
// the re-offers that hold and resume.
#include <random>

#include "media/codec/negotiation.h"
#include "sip/core/log.h"
#include "sip/ua/calls.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";


// Hands the media session's digits to the loop, where the listener lives.
class CallMediaListener final : public MediaSessionListener {
public:
    CallMediaListener(EventLoop& loop, std::function<void(char)> onDigit) : loop_(loop), onDigit_(std::move(onDigit)) {}
    void onDigit(char digit) override {
        auto f = onDigit_;
        loop_.post([f, digit] { f(digit); });
    }

private:
    EventLoop& loop_;
    std::function<void(char)> onDigit_;
};

// Where the far end wants media: the audio line's address and port.
std::optional<net::SocketAddress> remoteMediaAddress(const SessionDescription& sdp) {
    if (sdp.media.empty()) return std::nullopt;
    const MediaDescription& m = sdp.media.front();
    const std::string& host = m.connectionAddress.empty() ? sdp.connectionAddress : m.connectionAddress;
    return net::SocketAddress::parse(host, m.port);
}

}  // namespace

bool Calls::openRtp(Call& call, const SipTarget& toward) {
    if (!ctx_.rtpIo) ctx_.rtpIo = std::make_shared<RtpIoService>();
    if (!ctx_.rtpPorts) ctx_.rtpPorts = std::make_unique<RtpPortAllocator>(ctx_.config.rtpPortMin, ctx_.config.rtpPortMax);
    net::SocketAddress local = net::SocketAddress::any(toward.address.family());
    const auto bind = net::SocketAddress::parse(ctx_.config.bindAddress);
    if (bind && !bind->isAny()) local = *bind;
    const std::string advertised = mediaAddressToward(toward);
    RtpSessionOptions options;
    options.local = local;
    auto rtp = std::make_unique<RtpSession>(ctx_.rtpIo, options);
    if (!rtp->open(ctx_.rtpPorts->pool())) return false;
    call.rtpPort = rtp->localPort();
    call.mediaAddress = advertised;
    call.rtp = std::move(rtp);
    return true;
}

std::string Calls::mediaAddressToward(const SipTarget& toward) const {
    // Media goes from the address the system uses toward the far end; the
    // RTP socket listens on every address, so a new one needs no new socket.
    const auto bind = net::SocketAddress::parse(ctx_.config.bindAddress);
    if (bind && !bind->isAny()) return bind->host();
    const auto out = ctx_.sourceAddressToward(toward.address);
    return out ? out->host() : net::SocketAddress::any(toward.address.family()).host();
}

bool Calls::addressMoved() const {
    for (const auto& [id, call] : calls_) {
        if (call->state == CallState::Connected && call->mediaAddress != mediaAddressToward(dialogTarget(*call))) {
            return true;
        }
    }
    return false;
}

void Calls::networkChanged() {
    for (auto& [id, call] : calls_) {
        if (call->state != CallState::Connected || !call->reofferKey.empty()) continue;
        const std::string now = mediaAddressToward(dialogTarget(*call));
        log::info(kTag, callPrefix(*call) + ": offering media at " + now + " (was " + call->mediaAddress + ")");
        call->mediaAddress = now;
        // A re-INVITE, as RFC 3311 prefers in a confirmed dialog: it also
        // refreshes the far end's target with our new Contact. An ICE call
        // first gathers at the new address and offers the restart.
        if (restartIceAt(*call, now)) continue;
        sendReoffer(*call, false);
    }
}

std::string Calls::buildOffer(Call& call, MediaDirection direction) {
    SessionDescription sdp = buildLocalSession(call.origin, call.mediaAddress);
    OfferOptions options;
    options.port = call.rtpPort;
    options.telephoneEvent = ctx_.config.telephoneEvent;
    options.current = call.codec;
    TransportAttributes transport;
    addOfferCrypto(call, options, transport);
    MediaDescription audio = buildOfferMedia(options);
    addIceAttributes(call, sdp, audio, transport);
    transport.direction = direction;
    addTransportAttributes(audio, transport);
    sdp.media.push_back(std::move(audio));
    return sdp.toString();
}

std::string Calls::buildAnswer(Call& call, MediaDirection direction) {
    SessionDescription sdp = buildLocalSession(call.origin, call.mediaAddress);
    MediaDescription audio = buildAnswerMedia(*call.codec, {call.rtpPort, call.mediaProto});
    TransportAttributes transport;
    if (call.localCrypto) {
        transport.srtp = true;
        transport.agreedCrypto = {srtp::formatCryptoAttribute(*call.localCrypto)};
    }
    addIceAttributes(call, sdp, audio, transport);
    transport.direction = direction;
    addTransportAttributes(audio, transport);
    sdp.media.push_back(std::move(audio));
    return sdp.toString();
}

bool Calls::takeAnswer(Call& call, const std::string& body) {
    auto answer = SessionDescription::parse(body);
    if (!answer) return false;
    MatchOptions options;
    options.call = call.id;
    options.telephoneEvent = ctx_.config.telephoneEvent;
    options.localHold = call.localHold;
    options.srtpRequired = srtpPolicy(call) == SrtpPolicy::Required || call.localCrypto.has_value();
    options.acceptsCrypto = cryptoAcceptor(call);
    auto match = matchAnswer(*answer, options);
    if (!match || !takeAnswerCrypto(call, *answer)) return false;
    takeAnswerIce(call, *answer);
    call.codec = match->codec;
    call.remoteHold = match->remoteHold;
    const MediaDirection theirs = answer->media.front().direction();
    // What we may do is what we offered, narrowed by what they answered.
    MediaDirection ours = call.localHold ? MediaDirection::SendOnly : MediaDirection::SendRecv;
    if (theirs == MediaDirection::Inactive) ours = MediaDirection::Inactive;
    if (theirs == MediaDirection::SendOnly) ours = call.localHold ? MediaDirection::Inactive : MediaDirection::RecvOnly;
    if (theirs == MediaDirection::RecvOnly && ours == MediaDirection::SendRecv) ours = MediaDirection::SendOnly;
    startMedia(call, *answer, ours);
    return true;
}

void Calls::startMedia(Call& call, const SessionDescription& remote, MediaDirection ours) {
    const auto address = remoteMediaAddress(remote);
    if (call.media) {
        // A hold offer's 0.0.0.0 names no new source: the latch stays as it is.
        // Nor does a new default address once ICE has chosen the path.
        const bool iceChose = call.iceView != nullptr && call.iceView->selectedPair(ice::kRtpComponent).has_value();
        if (address && !address->isAny() && call.rtpView && !iceChose) call.rtpView->setRemote(*address);
        if (call.codec) (void)call.media->setCodec(*call.codec);
        call.media->setDirection(ours);
        call.media->setMuted(call.localHold);
        return;
    }
    if ((!call.rtp && !call.ice) || !call.codec) return;
    call.rtpView = call.ice ? &call.ice->rtp() : call.rtp.get();
    if (address) call.rtpView->setRemote(*address);
    std::string error;
    std::unique_ptr<MediaTransport> transport;
    if (call.ice) {
        transport = std::move(call.ice);
    } else {
        transport = std::move(call.rtp);
    }
    if (call.localCrypto && call.remoteCrypto) {
        auto secured = SrtpTransport::create(std::move(transport), *call.localCrypto, *call.remoteCrypto, call.id, &error);
        if (!secured) {
            call.rtpView = nullptr;
            log::warn(kTag, callPrefix(call) + ": media failed: " + error);
            if (ctx_.listener) ctx_.listener->onCallMedia(call.id, CallMediaEvent::Failed, error);
            return;
        }
        call.srtpView = secured.get();
        transport = std::move(secured);
    }
    MediaSessionConfig config;
    config.call = call.id;
    config.codec = *call.codec;
    config.direction = ours;
    config.jitter = ctx_.config.jitter;
    auto media = MediaSession::create(config, std::move(transport), &error);
    if (!media) {
        call.rtpView = nullptr;
        call.srtpView = nullptr;
        log::warn(kTag, callPrefix(call) + ": media failed: " + error);
        if (ctx_.listener) ctx_.listener->onCallMedia(call.id, CallMediaEvent::Failed, error);
        return;
    }
    const int id = call.id;
    call.mediaListener = std::make_shared<CallMediaListener>(*ctx_.loop, [this, id](char digit) {
        if (findCall(id) != nullptr && ctx_.listener) ctx_.listener->onDtmf(id, digit, DtmfMethod::Rfc4733);
    });
    media->setListener(call.mediaListener);
    call.media = std::move(media);
    watchMedia(call);
    if (ctx_.listener) {
        ctx_.listener->onCallMedia(call.id, CallMediaEvent::Started,
                               call.codec->name + "/" + std::to_string(call.codec->clockRate));
        if (call.srtpView != nullptr) {
            ctx_.listener->onCallMedia(call.id, CallMediaEvent::SecureActive,
                                       std::string(srtp::toString(call.localCrypto->suite)));
        }
    }
}

void Calls::sendReoffer(Call& call, bool mayUpdate) {
    // An UPDATE where the dialog allows it (no ACK, no ringing to wait
    // for), else a re-INVITE.
    const bool update = mayUpdate && call.peerAllowsUpdate;
    SipMessage invite = buildInDialogRequest(call, update ? "UPDATE" : "INVITE");
    // A proxy that challenged an INVITE of this call may challenge each
    // re-INVITE too: the credentials it took last time go along.
    const Line* line = lines_.find(call.line);
    if (call.challenge && line != nullptr) ctx_.addCredentials(invite, line->config, *call.challenge, call.digest);
    invite.addHeader("Content-Type", "application/sdp");
    invite.body = buildOffer(call, call.localHold ? MediaDirection::SendOnly : MediaDirection::SendRecv);
    const int id = call.id;
    call.reofferKey = ctx_.transactions->sendRequest(invite, dialogTarget(call), [this, id, update](const SipMessage* r) {
        Call* c = findCall(id);
        if (c == nullptr || (r != nullptr && r->statusCode < 200)) return;
        if (r != nullptr && r->statusCode < 300) {
            c->reofferKey.clear();
            c->authAttempts = 0;
            if (!update) sendAck(*c, *r);
            if (!takeAnswer(*c, r->body)) log::warn(kTag, callPrefix(*c) + ": unusable answer SDP to the re-offer");
            if (ctx_.listener) ctx_.listener->onCallInfo(infoOf(*c));
            return;
        }
        if (c->reofferKey.empty()) return;  // a 2xx retransmission after we finished
        c->reofferKey.clear();
        const int code = r != nullptr ? r->statusCode : 408;
        auto challenge = r != nullptr ? challengeOf(*r) : std::nullopt;
        if (challenge && c->authAttempts < 2) {
            ++c->authAttempts;
            c->challenge = std::move(*challenge);
            c->digest.nonceCount = 0;
            sendReoffer(*c, update);
            return;
        }
        log::warn(kTag, callPrefix(*c) + ": re-offer rejected with " + std::to_string(code));
        if (code == 491) {
            // Glare (RFC 3261 14.1): the owner of the Call-ID waits 2.1-4 s,
            // the other side 0-2 s, then tries again.
            std::uniform_int_distribution<int64_t> wait(c->incoming ? 0 : 2100, c->incoming ? 2000 : 4000);
            ctx_.transactions->schedule(wait(ctx_.random), [this, id] {
                Call* again = findCall(id);
                if (again != nullptr && again->state == CallState::Connected && again->reofferKey.empty()) {
                    sendReoffer(*again);
                }
            });
            return;
        }
        // The previous media state stays.
        c->localHold = !c->localHold;
        if (ctx_.listener) ctx_.listener->onCallInfo(infoOf(*c));
    });
}

void Calls::watchMedia(Call& call) {
    if (ctx_.config.mediaTimeoutMs <= 0 || call.mediaTimer != 0) return;
    call.mediaSeen = 0;
    call.mediaQuietSinceMs = ctx_.loop->nowNs() / 1'000'000;
    scheduleMediaCheck(call);
}

void Calls::scheduleMediaCheck(Call& call) {
    const int id = call.id;
    call.mediaTimer = ctx_.transactions->schedule(std::max<int64_t>(1000, ctx_.config.mediaTimeoutMs / 6),
                                                  [this, id] { checkMedia(id); });
}

void Calls::checkMedia(int id) {
    Call* call = findCall(id);
    if (call == nullptr) return;
    call->mediaTimer = 0;
    if (!call->media || call->state != CallState::Connected) return;
    const MediaStatistics stats = call->media->statistics();
    const uint64_t seen = stats.packetsReceived + stats.rtcpReceived;
    // Silence counts only while the far end is meant to send: on hold
    // (ours or theirs) a quiet line is expected.
    const MediaDirection ours = call->media->direction();
    const bool expected = (ours == MediaDirection::SendRecv || ours == MediaDirection::RecvOnly) && !call->remoteHold;
    const int64_t now = ctx_.loop->nowNs() / 1'000'000;
    if (seen != call->mediaSeen || !expected) {
        call->mediaSeen = seen;
        call->mediaQuietSinceMs = now;
    } else if (now - call->mediaQuietSinceMs >= ctx_.config.mediaTimeoutMs) {
        log::warn(kTag, callPrefix(*call) + ": no media for " + std::to_string((now - call->mediaQuietSinceMs) / 1000) +
                            " s, hanging up");
        call->reason = "Media timeout";
        sendBye(*call);
        return;
    }
    scheduleMediaCheck(*call);
}

}  // namespace kelsip
