// A call's SRTP keys in offer/answer (RFC 4568): what each policy offers,
// which offered line we answer, which answered line we take, and keys that
// stay for the call's life so that hold and resume keep media flowing.
#include <algorithm>

#include "sip/core/log.h"
#include "sip/ua/calls.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "ua";

const MediaDescription* audioOf(const SessionDescription& sdp) {
    for (const MediaDescription& m : sdp.media) {
        if (m.media == "audio" && m.port != 0) return &m;
    }
    return nullptr;
}

// RTP/SAVP and its relatives leave no room for media in the clear.
bool securedProto(std::string_view proto) { return proto.find("SAVP") != std::string_view::npos; }

}  // namespace

std::string_view toString(SrtpPolicy policy) {
    switch (policy) {
        case SrtpPolicy::Off: return "off";
        case SrtpPolicy::Offered: return "offered";
        case SrtpPolicy::Required: return "required";
    }
    return "off";
}

std::optional<SrtpPolicy> srtpPolicyFromName(std::string_view name) {
    for (const SrtpPolicy p : {SrtpPolicy::Off, SrtpPolicy::Offered, SrtpPolicy::Required}) {
        if (toString(p) == name) return p;
    }
    return std::nullopt;
}

SrtpPolicy Calls::srtpPolicy(const Call& call) const {
    const Line* line = lines_.find(call.line);
    return line != nullptr ? line->config.srtp : SrtpPolicy::Off;
}

void Calls::addOfferCrypto(Call& call, OfferOptions& offer, TransportAttributes& transport) {
    if (call.localCrypto) {
        offer.proto = call.mediaProto;
        transport.srtp = true;
        transport.agreedCrypto = {srtp::formatCryptoAttribute(*call.localCrypto)};
        return;
    }
    const SrtpPolicy policy = srtpPolicy(call);
    // Keys come only with a call's first offer: a call that went on in the
    // clear stays so.
    if (policy == SrtpPolicy::Off || call.media) return;
    if (call.offeredCrypto.empty()) {
        uint32_t tag = 1;
        for (const srtp::Suite suite : srtp::offeredSuites()) {
            auto attribute = srtp::newCryptoAttribute(tag++, suite);
            if (!attribute) {
                log::warn(kTag, callPrefix(call) + ": no random source for SRTP keys");
                call.offeredCrypto.clear();
                break;
            }
            call.offeredCrypto.push_back(std::move(*attribute));
        }
    }
    // Best effort offers RTP/AVP with crypto lines (as many phones do): a
    // peer without SRTP ignores them and answers in the clear, where an
    // RTP/SAVP offer would only earn a 488 from it.
    offer.proto = policy == SrtpPolicy::Required ? "RTP/SAVP" : "RTP/AVP";
    call.mediaProto = offer.proto;
    if (call.offeredCrypto.empty()) return;
    transport.srtp = true;
    for (const srtp::CryptoAttribute& ours : call.offeredCrypto) {
        const std::string value = srtp::formatCryptoAttribute(ours);
        const size_t keyParams = value.find(" inline:");
        transport.configuredCrypto.push_back({std::string(srtp::toString(ours.suite)), value.substr(keyParams + 1)});
    }
}

std::function<bool(std::string_view)> Calls::cryptoAcceptor(const Call& call) const {
    std::vector<srtp::CryptoAttribute> ours = call.offeredCrypto;
    if (call.localCrypto) ours = {*call.localCrypto};
    return [ours](std::string_view value) {
        const auto theirs = srtp::parseCryptoAttribute(value);
        return theirs && std::any_of(ours.begin(), ours.end(), [&](const srtp::CryptoAttribute& a) {
                   return a.tag == theirs->tag && a.suite == theirs->suite;
               });
    };
}

bool Calls::takeAnswerCrypto(Call& call, const SessionDescription& answer) {
    const MediaDescription* audio = audioOf(answer);
    if (audio == nullptr) return false;
    std::vector<srtp::CryptoAttribute> ours = call.offeredCrypto;
    if (call.localCrypto) ours = {*call.localCrypto};
    for (const std::string& value : audio->attributes("crypto")) {
        const auto theirs = srtp::parseCryptoAttribute(value);
        if (!theirs) continue;
        for (const srtp::CryptoAttribute& a : ours) {
            if (a.tag != theirs->tag || a.suite != theirs->suite) continue;
            call.localCrypto = a;
            call.offeredCrypto.clear();
            setRemoteCrypto(call, *theirs);
            return true;
        }
    }
    // Not reached for a re-answer on an encrypted call: matchAnswer refuses
    // one without our tag, as it does when the policy requires SRTP.
    call.offeredCrypto.clear();
    if (srtpPolicy(call) == SrtpPolicy::Required) return false;  // matchAnswer has said why
    if (securedProto(audio->proto)) {
        log::warn(kTag, callPrefix(call) + ": RTP/SAVP answer without usable crypto");
        return false;
    }
    call.mediaProto = "RTP/AVP";
    return true;
}

bool Calls::takeOfferCrypto(Call& call, const SessionDescription& offer) {
    const MediaDescription* audio = audioOf(offer);
    if (audio == nullptr) return true;  // the codec choice refuses it
    const std::vector<std::string> values = audio->attributes("crypto");
    const bool secured = securedProto(audio->proto);
    if (call.localCrypto) {
        // A re-offer on an encrypted call: our key stays, answered under the
        // tag of the line we take; the peer may bring a new key of its own.
        for (const std::string& value : values) {
            const auto theirs = srtp::parseCryptoAttribute(value);
            if (!theirs || theirs->suite != call.localCrypto->suite) continue;
            call.localCrypto->tag = theirs->tag;
            setRemoteCrypto(call, *theirs);
            return true;
        }
        log::warn(kTag, callPrefix(call) + ": re-offer without usable crypto on an encrypted call");
        return false;
    }
    const SrtpPolicy policy = srtpPolicy(call);
    // An RTP/SAVP offer is taken whatever the policy: the offerer leaves no
    // clear alternative, and refusing would only fail the call. The policy
    // decides what we offer and what we insist on.
    if (!call.media && (secured || policy != SrtpPolicy::Off)) {
        if (auto answer = srtp::answerCrypto(values)) {
            call.localCrypto = std::move(answer->local);
            call.remoteCrypto = std::move(answer->remote);
            call.mediaProto = audio->proto;
            return true;
        }
    }
    if (secured || policy == SrtpPolicy::Required) {
        log::warn(kTag, callPrefix(call) + ": SRTP required but the offer has no usable crypto");
        return false;
    }
    call.mediaProto = "RTP/AVP";
    return true;
}

void Calls::setRemoteCrypto(Call& call, const srtp::CryptoAttribute& remote) {
    if (call.remoteCrypto == remote) return;
    call.remoteCrypto = remote;
    if (call.srtpView != nullptr && !call.srtpView->setRemoteKey(remote)) {
        log::warn(kTag, callPrefix(call) + ": the peer's new SRTP key could not be used");
    }
}

}  // namespace kelsip
