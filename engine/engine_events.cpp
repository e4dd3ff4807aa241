// The stack's listener slots turned into the engine's events, the choice of
// the call whose media meets the sound device, and the voicemail summary.
#include <string>

#include "engine/engine_impl.h"
#include "sip/core/log.h"
#include "sip/ua/body/message_summary.h"

namespace kelsoftphone {

namespace log = kelsip::log;

namespace {

EngineCallState engineState(const kelsip::CallInfo& call) {
    const std::string& s = call.state;
    if (s == "Calling") return EngineCallState::Calling;
    if (s == "Proceeding") return EngineCallState::Proceeding;
    if (s == "Ringing") return EngineCallState::Ringing;
    if (s == "Incoming") return EngineCallState::Incoming;
    if (s == "Disconnecting") return EngineCallState::Disconnecting;
    if (s == "Connected") {
        if (call.onHold) return EngineCallState::OnHold;
        if (call.remoteHold) return EngineCallState::HeldByPeer;
        return EngineCallState::Connected;
    }
    return EngineCallState::Terminated;
}

}  // namespace

void SoftphoneEngine::Impl::onRegistrationState(int line, kelsip::RegistrationState state, int statusCode,
                                                const std::string& reason) {
    listener_->onRegistrationState(line, static_cast<int>(state), statusCode, reason);
}

void SoftphoneEngine::Impl::onIncomingCall(const kelsip::CallInfo& call) {
    trackCall(call);
    listener_->onIncomingCall(call.id, call.remoteUri, call.remoteDisplayName);
}

void SoftphoneEngine::Impl::onCallState(const kelsip::CallInfo& call) {
    trackCall(call);
    reportCall(call);
}

void SoftphoneEngine::Impl::onCallInfo(const kelsip::CallInfo& call) {
    trackCall(call);
    reportCall(call);
}

void SoftphoneEngine::Impl::trackCall(const kelsip::CallInfo& call) {
    auto& track = calls_[call.id];
    const bool wasTalking = track.info.state == "Connected" && !track.info.onHold;
    track.info = call;
    // The call the user last took up or resumed is the one he speaks in.
    if (call.state == "Connected" && !call.onHold && !wasTalking) track.order = ++callOrder_;
}

void SoftphoneEngine::Impl::reportCall(const kelsip::CallInfo& call) {
    const EngineCallState state = engineState(call);
    const auto it = calls_.find(call.id);
    // A re-INVITE that changed nothing the user sees is not news.
    if (state != EngineCallState::Terminated && it != calls_.end() && it->second.reported == state) return;
    if (it != calls_.end()) it->second.reported = state;
    listener_->onCallState(call.id, state, call.statusCode, call.incoming ? 1 : 0, call.remoteUri, call.reason);
    if (state == EngineCallState::Terminated) calls_.erase(call.id);
    chooseActiveCall();
}

void SoftphoneEngine::Impl::onCallMedia(int call, kelsip::CallMediaEvent event, const std::string& detail) {
    auto& track = calls_[call];
    switch (event) {
        case kelsip::CallMediaEvent::Started:
            track.mediaFlags = (track.mediaFlags | kMediaRunning) & ~kMediaFailed;
            break;
        case kelsip::CallMediaEvent::SecureActive: track.mediaFlags |= kMediaSecure; break;
        case kelsip::CallMediaEvent::Failed: track.mediaFlags = (track.mediaFlags | kMediaFailed) & ~kMediaRunning; break;
    }
    listener_->onCallMedia(call, track.mediaFlags, detail);
    chooseActiveCall();
}

void SoftphoneEngine::Impl::chooseActiveCall() {
    // Talking beats early media (a provider's ringback or announcement);
    // among equals the most recently taken up wins. A held call gets no sound.
    int best = 0;
    int bestRank = 0;
    uint64_t bestOrder = 0;
    for (const auto& [id, track] : calls_) {
        if ((track.mediaFlags & kMediaRunning) == 0 || track.info.onHold) continue;
        int rank = 0;
        if (track.info.state == "Connected") {
            rank = 2;
        } else if (!track.info.incoming && (track.info.state == "Proceeding" || track.info.state == "Ringing")) {
            rank = 1;
        }
        if (rank == 0) continue;
        if (rank > bestRank || (rank == bestRank && track.order >= bestOrder)) {
            best = id;
            bestRank = rank;
            bestOrder = track.order;
        }
    }
    if (best != activeCall_) {
        const auto agent = this->agent();
        std::shared_ptr<kelsip::MediaSession> media;
        if (best != 0 && agent) media = agent->callMedia(best);
        const int call = media ? best : 0;
        setActiveMedia(call, std::move(media));
    }
}

void SoftphoneEngine::Impl::setActiveMedia(int call, std::shared_ptr<kelsip::MediaSession> media) {
    {
        const std::lock_guard lock(mediaMutex_);
        media_ = std::move(media);
    }
    activeCall_ = call;
    {
        const std::lock_guard lock(controlMutex_);
        audioWanted_ = call != 0;
        ++controlGeneration_;
    }
    control_.notify_all();
}

std::shared_ptr<kelsip::MediaSession> SoftphoneEngine::Impl::activeMedia() const {
    const std::lock_guard lock(mediaMutex_);
    return media_;
}

void SoftphoneEngine::Impl::onDtmf(int call, char digit, kelsip::DtmfMethod) { listener_->onDtmf(call, digit); }

void SoftphoneEngine::Impl::onTransferProgress(int call, int statusCode, const std::string&) {
    listener_->onTransferProgress(call, statusCode);
}

void SoftphoneEngine::Impl::onReserved() { listener_->onStackReserved(); }

void SoftphoneEngine::Impl::onSubscriptionState(const kelsip::SubscriptionInfo& subscription) {
    listener_->onSubscription(subscription.state == "active", subscription.statusCode, subscription.id,
                              subscription.event, subscription.target, subscription.state);
}

void SoftphoneEngine::Impl::onSubscriptionBody(int, const std::string& event, const std::string& body) {
    // Exactly this package: a longer name, or the same in other letters, is
    // someone else's event.
    if (event != "message-summary") return;
    takeMessageSummary(body);
}

void SoftphoneEngine::Impl::takeMessageSummary(const std::string& body) {
    std::string error;
    const auto summary = kelsip::parseMessageSummary(body, &error);
    if (!summary) {
        log::warn(kEngineTag, "voicemail: summary not understood: " + error);
        return;
    }
    {
        const std::lock_guard lock(voicemailMutex_);
        voicemailAccount_ = summary->messageAccount;
    }
    log::info(kEngineTag, std::string("voicemail: ") + (summary->messagesWaiting ? "waiting" : "none") + ", " +
                              std::to_string(summary->newMessages) + " new / " +
                              std::to_string(summary->oldMessages) + " old");
    listener_->onVoicemail(summary->messagesWaiting, static_cast<int>(summary->newMessages),
                           static_cast<int>(summary->oldMessages), summary->messageAccount);
}

void SoftphoneEngine::Impl::onMessage(int, const std::string& from, const std::string& contentType,
                                      const std::string& body) {
    listener_->onMessage(from, body, contentType);
}

}  // namespace kelsoftphone
