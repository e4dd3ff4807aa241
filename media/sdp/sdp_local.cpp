// Our own session descriptions for a call: the session part and the
// attributes that follow the codec lines.
#include "media/sdp/sdp_local.h"

#include <random>

#include "sip/core/system.h"

namespace kelsip {

uint32_t newSdpSessionId() {
    // Session ids only need to differ between calls, not to be secret; the
    // generator is seeded once per thread from the system's source.
    thread_local std::mt19937 generator = [] {
        uint32_t seed = 0;
        if (!platform::secureRandom(&seed, sizeof seed)) seed = std::random_device{}();
        return std::mt19937(seed);
    }();
    return static_cast<uint32_t>(generator());
}

std::string_view sdpAddressType(std::string_view address) {
    return address.find(':') == std::string_view::npos ? "IP4" : "IP6";
}

SessionDescription buildLocalSession(SdpOrigin& origin, std::string_view mediaAddress) {
    SessionDescription sdp;
    sdp.username = "kelsip";
    sdp.sessionId = origin.sessionId;
    sdp.sessionVersion = origin.takeVersion();
    sdp.sessionName = "KELSIP";
    sdp.originAddressType = sdpAddressType(mediaAddress);
    sdp.originAddress = mediaAddress;
    sdp.connectionAddressType = sdp.originAddressType;
    sdp.connectionAddress = mediaAddress;
    return sdp;
}

void addTransportAttributes(MediaDescription& media, const TransportAttributes& transport) {
    if (transport.srtp) {
        if (!transport.agreedCrypto.empty()) {
            for (const std::string& value : transport.agreedCrypto) media.addAttribute("crypto", value);
        } else {
            int tag = 1;
            for (const CryptoSuiteOffer& offer : transport.configuredCrypto) {
                media.addAttribute("crypto", std::to_string(tag++) + ' ' + offer.suite + ' ' + offer.keyParams);
            }
        }
    }
    if (transport.ice) {
        media.addAttribute("ice-ufrag", transport.ice->ufrag);
        media.addAttribute("ice-pwd", transport.ice->pwd);
        for (const std::string& candidate : transport.ice->candidates) media.addAttribute("candidate", candidate);
    }
    if (transport.rtcp) {
        media.addAttribute("rtcp", std::to_string(transport.rtcp->port) + " IN " +
                                       std::string(sdpAddressType(transport.rtcp->address)) + ' ' +
                                       transport.rtcp->address);
    }
    media.setDirection(transport.direction);
}

}  // namespace kelsip
