// One call of the user agent: an INVITE dialog, outgoing or incoming, with
// its offer/answer state and its media.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "media/session/media_session.h"
#include "media/codec/negotiation.h"
#include "media/ice/ice_media_transport.h"
#include "media/rtp/rtp_session.h"
#include "media/sdp/sdp.h"
#include "media/sdp/sdp_local.h"
#include "media/srtp/sdes.h"
#include "media/srtp/srtp_transport.h"
#include "sip/ua/dialog.h"
#include "sip/auth/digest.h"
#include "sip/core/event_loop.h"
#include "sip/syntax/message.h"
#include "sip/transport/sip_target.h"
#include "sip/syntax/uri.h"

namespace kelsip {

enum class CallState { Calling, Proceeding, Ringing, Incoming, Connected, Disconnecting, Terminated };
// "Calling", "Proceeding", "Ringing", "Incoming", "Connected", "Disconnecting", "Terminated".
[[nodiscard]] std::string_view toString(CallState state);

// One fork's early dialog of an outgoing call (a 1xx with its own tag).
struct EarlyDialog {
    SipUri remoteTarget;
    std::vector<std::string> routeSet;
    std::optional<uint32_t> lastRseq;  // the last reliable 1xx we acknowledged
};

// A response sent again from T1 on, the wait doubling up to a cap, until
// 64 x T1 have passed.
struct RepeatSchedule {
    int64_t intervalMs = 0;
    int64_t elapsedMs = 0;

    void start(int64_t t1Ms) {
        intervalMs = t1Ms;
        elapsedMs = 0;
    }
    // A wait ran out: true when that reached `limitMs` (give up).
    bool waited(int64_t limitMs) {
        elapsedMs += std::min(intervalMs, limitMs - elapsedMs);
        return elapsedMs >= limitMs;
    }
    // The next wait, doubled (at most `capMs`); the last ends exactly at the limit.
    int64_t next(int64_t capMs, int64_t limitMs) {
        intervalMs = std::min(intervalMs * 2, capMs);
        return std::min(intervalMs, limitMs - elapsedMs);
    }
};

struct Call {
    int id = 0;
    int line = 0;
    CallState state = CallState::Calling;
    bool incoming = false;
    std::string remoteUri;
    std::string remoteDisplayName;
    int statusCode = 0;
    std::string reason;
    bool localHold = false;
    bool remoteHold = false;

    Dialog dialog;
    std::vector<SipTarget> targets;  // where the INVITE may go, in failover order
    size_t targetIndex = 0;
    SipMessage invite;               // the INVITE we sent last, or the one we serve
    std::string inviteKey;           // its client or server transaction
    bool provisionalSeen = false;    // a CANCEL may go out only after one
    bool cancelWanted = false;
    uint32_t authAttempts = 0;
    std::optional<DigestChallenge> challenge;
    DigestRequest digest;
    std::optional<std::string> ackText;  // our ACK for the 2xx, sent again for retransmissions

    // Offer/answer.
    SdpOrigin origin;
    std::string mediaAddress;  // ours, as our SDP names it
    std::unique_ptr<RtpSession> rtp;  // until the media session takes it over
    uint16_t rtpPort = 0;
    std::optional<SessionDescription> remoteOffer;  // an incoming INVITE's offer
    std::optional<NegotiatedCodec> codec;
    bool lateOffer = false;  // an INVITE without SDP: our offer goes in the 200
    bool answerInAck = false;  // an offerless re-INVITE got our offer in its 2xx
    std::shared_ptr<MediaSession> media;
    RtpSession* rtpView = nullptr;  // the media session's transport, for new remote addresses
    std::shared_ptr<MediaSessionListener> mediaListener;
    // SRTP: our keys in an offer awaiting its answer (tags 1, 2, ...), then
    // the agreed pair, kept for the call's life so re-offers keep media
    // flowing. The m= proto stays what the first offer/answer agreed.
    std::vector<srtp::CryptoAttribute> offeredCrypto;
    std::optional<srtp::CryptoAttribute> localCrypto;
    std::optional<srtp::CryptoAttribute> remoteCrypto;
    std::string mediaProto = "RTP/AVP";
    SrtpTransport* srtpView = nullptr;  // the media session's SRTP layer, for a peer's new key
    // ICE: the transport around the RTP session until media takes it over,
    // and what waits for its gathering (the offer or the answer).
    std::unique_ptr<IceMediaTransport> ice;
    IceMediaTransport* iceView = nullptr;
    bool iceGathered = false;
    EventLoop::TimerId iceGatherTimer = 0;
    std::function<void(Call&)> afterGathering;
    std::string remoteIceUfrag;

    // UAS: the 2xx repeated until the ACK.
    std::string okText;
    SipTarget okTarget;
    RepeatSchedule okRepeats;
    EventLoop::TimerId okTimer = 0;

    // As caller: every fork's early dialog, by the far end's tag; the first
    // 2xx picks the one that becomes the call.
    std::map<std::string, EarlyDialog> earlyDialogs;
    // As called side, reliable provisional responses (RFC 3262): our RSeq,
    // the 1xx repeated until its PRACK, and its interval.
    uint32_t rseq = 0;
    std::string reliableText;
    RepeatSchedule reliableRepeats;
    EventLoop::TimerId reliableTimer = 0;

    // Session timer (RFC 4028).
    uint32_t sessionInterval = 0;   // seconds; 0: none in force
    bool localRefresher = false;
    EventLoop::TimerId sessionTimer = 0;
    int requestedInterval = 0;      // what our INVITE asks for; a 422 raises it
    int sessionRetries = 0;
    bool peerAllowsUpdate = false;

    EventLoop::TimerId noAnswerTimer = 0;  // the caller's no-answer time; the called side's ringing limit
    // Media watch: the RTP and RTCP packets counted at the last look, and
    // since when (loop time) that count has not moved while it should have.
    EventLoop::TimerId mediaTimer = 0;
    uint64_t mediaSeen = 0;
    int64_t mediaQuietSinceMs = 0;
    std::string reofferKey;  // a re-offer of ours (re-INVITE or UPDATE) in flight
    // Transfer: an incoming INVITE's Replaces names this call; a call we
    // made for a REFER reports to the call that asked (its NOTIFYs).
    int replaces = 0;
    int referredBy = 0;
    std::vector<std::pair<std::string, std::string>> extraHeaders;  // on our INVITE
    std::deque<char> infoDigits;  // DTMF by INFO, one request at a time
    bool infoInFlight = false;
};

}  // namespace kelsip
