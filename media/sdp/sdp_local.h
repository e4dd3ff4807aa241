// Our own session descriptions for a call: origin, session part and the
// transport attributes (crypto, ICE, rtcp) and direction of the audio line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "media/sdp/sdp.h"

namespace kelsip {

// A fresh origin session id for a new call, from a per-thread generator.
[[nodiscard]] uint32_t newSdpSessionId();

// The origin of one call's descriptions: the id is drawn once, the version
// counts every description built, changed or not (1, 2, 3, ...).
struct SdpOrigin {
    uint32_t sessionId = newSdpSessionId();
    uint64_t nextVersion = 1;

    uint64_t takeVersion() { return nextVersion++; }
};

// "IP6" for an address with a ':', else "IP4".
[[nodiscard]] std::string_view sdpAddressType(std::string_view address);

// The session part of a local description: origin and connection on the
// call's media address, user "kelsip", session name "KELSIP", no media yet.
// Takes the next version from `origin`.
[[nodiscard]] SessionDescription buildLocalSession(SdpOrigin& origin, std::string_view mediaAddress);

// One configured SRTP suite with the key parameters for it ("inline:...").
struct CryptoSuiteOffer {
    std::string suite;
    std::string keyParams;
};

struct IceAttributes {
    std::string ufrag;
    std::string pwd;
    std::vector<std::string> candidates;  // values of the candidate attributes
};

// Where RTCP goes when it is not the RTP port plus one (ICE component 2).
struct RtcpAddress {
    uint16_t port = 0;
    std::string address;
};

// What follows the codec lines of our audio description, in this order.
struct TransportAttributes {
    bool srtp = false;
    // Crypto values already agreed for the call; when empty, one is offered
    // per configured suite, tagged 1, 2, 3, ... in configured order.
    std::vector<std::string> agreedCrypto;
    std::vector<CryptoSuiteOffer> configuredCrypto;
    // Set by the call side only when ICE is on and this is an offer or the peer offered ICE.
    std::optional<IceAttributes> ice;
    std::optional<RtcpAddress> rtcp;
    MediaDirection direction = MediaDirection::SendRecv;
};

// Appends crypto, ICE and rtcp attributes, then sets the direction.
void addTransportAttributes(MediaDescription& media, const TransportAttributes& transport);

}  // namespace kelsip
