// A dialog's identity and what requests within it carry (RFC 3261
// section 12): set up by an INVITE or by a subscription.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sip/syntax/uri.h"

namespace kelsip {

struct Dialog {
    std::string callId;
    std::string localTag;
    std::string remoteTag;
    std::string localUri;   // From of our requests, without the tag
    std::string remoteUri;  // To of our requests, without the tag
    uint32_t localCseq = 0;
    std::optional<uint32_t> remoteCseq;
    SipUri remoteTarget;
    std::vector<std::string> routeSet;  // in the order our requests carry them
};

}  // namespace kelsip
