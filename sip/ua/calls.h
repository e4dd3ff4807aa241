// The user agent's calls: placed and offered, every request within their
// dialogs, transfer, session timers and each call's media.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sip/ua/call.h"
#include "sip/ua/lines.h"
#include "sip/ua/ua_context.h"

namespace kelsip {

// "call 7": how the user agent's log lines name a call.
inline std::string callPrefix(const Call& call) { return "call " + std::to_string(call.id); }

class Calls {
public:
    Calls(UaContext& context, const Lines& lines) : ctx_(context), lines_(lines) {}

    int makeCall(int line, const std::string& target);
    bool answerCall(int id);
    bool rejectCall(int id, int statusCode);
    bool hangupCall(int id);
    bool holdCall(int id, bool hold);
    bool sendDtmf(int id, const std::string& digits, DtmfMethod method);
    bool transferCall(int id, const std::string& target);
    bool transferCallAttended(int id, int otherId);
    [[nodiscard]] std::vector<CallInfo> callInfos() const;
    [[nodiscard]] size_t count() const { return calls_.size(); }
    [[nodiscard]] std::optional<CallInfo> callInfo(int id) const;
    [[nodiscard]] std::shared_ptr<MediaSession> callMedia(int id) const;
    // Ends every call as its user would: BYE, CANCEL or a decline. Returns
    // how many were asked to end.
    size_t hangupAll();
    // Some call still waits for the far end to confirm its end.
    [[nodiscard]] bool ending() const;
    // The host's network changed: every connected call is offered again
    // with the address its media is now reached at.
    void networkChanged();
    // Whether a connected call's media address is no longer the host's.
    [[nodiscard]] bool addressMoved() const;
    // Closes every call's media and forgets the calls.
    void stop();

    // What arrives: an INVITE outside a dialog, any request within a call's
    // dialog, ACK, CANCEL, and a 2xx no transaction claims.
    [[nodiscard]] Call* findCallByDialog(const SipMessage& message, bool weAreUac);
    void onInvite(const std::string& key, const SipMessage& request, const SipTarget& source);
    void onInDialogRequest(Call& call, const std::string& key, const SipMessage& request, const SipTarget& source);
    void onAck(const SipMessage& ack);
    void onCancel(const std::string& key, const SipMessage& cancel);
    void onStray2xx(const SipMessage& response, const SipTarget& source);

private:
    // Calls: outgoing INVITE and the requests within a dialog.
    [[nodiscard]] Call* findCall(int id);
    [[nodiscard]] const Call* findCall(int id) const;
    [[nodiscard]] static CallInfo infoOf(const Call& call);
    void setCallState(Call& call, CallState state, int code = 0, const std::string& reason = {});
    void endCall(Call& call, int code, const std::string& reason);
    void sendInvite(Call& call);
    void onInviteResponse(int id, const SipMessage* response);
    void onInvite2xx(Call& call, const SipMessage& response);
    void sendAck(Call& call, const SipMessage& response);
    void sendCancel(Call& call);
    void sendBye(Call& call);
    [[nodiscard]] SipMessage buildInDialogRequest(Call& call, std::string_view method);
    [[nodiscard]] SipTarget dialogTarget(const Call& call) const;
    [[nodiscard]] std::string contactFor(const Call& call) const;
    // Calls: what arrives.
    void sendInviteOk(Call& call, const std::string& key, const SipMessage& ok, const SipTarget& target);
    void retransmit2xx(int id);
    void sendPrack(Call& call, const SipMessage& provisional);
    void retransmitReliable1xx(int id);
    void sendNextInfoDigit(Call& call);
    // Transfer.
    bool sendRefer(Call& call, const std::string& referTo);
    void onRefer(Call& call, const std::string& key, const SipMessage& request);
    void notifyReferrer(Call& call, int code, const std::string& reason, bool final);
    // Offer/answer and media.
    [[nodiscard]] bool openRtp(Call& call, const SipTarget& toward);
    // The address our SDP names for media toward `toward`.
    [[nodiscard]] std::string mediaAddressToward(const SipTarget& toward) const;
    [[nodiscard]] std::string buildOffer(Call& call, MediaDirection direction);
    [[nodiscard]] std::string buildAnswer(Call& call, MediaDirection direction);
    [[nodiscard]] bool takeAnswer(Call& call, const std::string& body);
    void startMedia(Call& call, const SessionDescription& remote, MediaDirection ours);
    void sendReoffer(Call& call, bool mayUpdate = true);
    // SRTP (call_srtp.cpp).
    [[nodiscard]] SrtpPolicy srtpPolicy(const Call& call) const;
    // Our offer's crypto lines and m= proto.
    void addOfferCrypto(Call& call, OfferOptions& offer, TransportAttributes& transport);
    // An incoming offer's crypto; false: refuse it with 488.
    [[nodiscard]] bool takeOfferCrypto(Call& call, const SessionDescription& offer);
    // The answer to our offer; false: the answer is unusable.
    [[nodiscard]] bool takeAnswerCrypto(Call& call, const SessionDescription& answer);
    [[nodiscard]] std::function<bool(std::string_view)> cryptoAcceptor(const Call& call) const;
    // The peer's key, passed to running media when it changed.
    void setRemoteCrypto(Call& call, const srtp::CryptoAttribute& remote);
    // ICE (call_ice.cpp).
    // Wraps the call's RTP session in an ICE transport and starts gathering.
    void startIce(Call& call, ice::IceRole role);
    // Runs `next` once gathering is done, or after a bounded wait with the
    // candidates found so far.
    void whenGathered(Call& call, std::function<void(Call&)> next);
    void gatheringDone(int id);
    // Our media address moved: an ICE call gathers there afresh and offers
    // the restart once done; false for a call without ICE.
    bool restartIceAt(Call& call, const std::string& address);
    // Our candidates in a description: the default one in c= and m=, the
    // credentials and candidates, the rtcp address.
    void addIceAttributes(Call& call, SessionDescription& sdp, MediaDescription& audio,
                          TransportAttributes& transport);
    // An offer's ICE: the first starts our agent when both ends do ICE; a
    // later one with new credentials restarts it.
    void takeOfferIce(Call& call, const SessionDescription& offer);
    // The answer's ICE; an answer without it falls back to plain RTP.
    void takeAnswerIce(Call& call, const SessionDescription& answer);
    // Hangs up a connected call whose far end has gone silent for good.
    void watchMedia(Call& call);
    void scheduleMediaCheck(Call& call);
    void checkMedia(int id);
    // Session timers.
    void readSessionTimer(Call& call, const SipMessage& message, bool weSentTheRequest);
    void armSessionTimer(Call& call);
    void sendSessionRefresh(Call& call);
    void addSessionHeaders(const Call& call, SipMessage& message) const;

    UaContext& ctx_;
    const Lines& lines_;
    std::map<int, std::unique_ptr<Call>> calls_;
    int nextCallId_ = 1;
    bool overloaded_ = false;  // refusing new calls; logged once per episode
};

}  // namespace kelsip
