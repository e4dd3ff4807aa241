// One account of the user agent: its configuration and its registration.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sip/auth/digest.h"
#include "sip/core/event_loop.h"
#include "sip/dns/server_location.h"
#include "sip/transport/sip_target.h"
#include "sip/ua/body/presence.h"
#include "sip/ua/user_agent.h"

namespace kelsip {

struct Line {
    int id = 0;
    LineConfig config;
    std::vector<SipTarget> targets;   // the registrar, resolved, in failover order
    size_t targetIndex = 0;
    RegistrationState state = RegistrationState::Unregistered;
    int statusCode = 0;
    std::string reason;
    int expires = 0;                  // asked for; a 423's Min-Expires replaces it
    int granted = 0;
    uint32_t attempts = 0;            // 401/407 and 423 answers in a row
    std::optional<DigestChallenge> challenge;
    DigestRequest digest;             // nonce count and cnonce of the stored challenge
    bool unregistering = false;
    std::string callId;
    std::string fromTag;
    uint32_t cseq = 0;
    PushSupport push;
    EventLoop::TimerId refreshTimer = 0;
    EventLoop::TimerId retryTimer = 0;
    dns::ServerLocator::LocateId locating = 0;
    std::string transaction;          // key of the REGISTER in flight
    PresenceStatus presence;          // what watchers are told and PUBLISH sends
};

}  // namespace kelsip
