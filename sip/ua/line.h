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

// A STUN Binding request in flight from the SIP socket, retransmitted on
// a doubling interval until answered or given up.
struct StunQuery {
    std::vector<uint8_t> request;     // empty: none in flight
    net::SocketAddress to;
    int64_t firstSentMs = 0;
    int64_t intervalMs = 0;
    EventLoop::TimerId timer = 0;
};

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
    // Reachability. The address the registrar (Via received/rport) or a
    // STUN server saw us from, when it is not our own: Contact names it.
    std::optional<net::SocketAddress> publicAddress;
    std::string contactSent;          // Contact URI of the last REGISTER
    std::string contactBound;         // ... and of the binding the registrar holds
    net::SocketAddress localSent;     // our own address when it was sent
    int flowSeconds = 0;              // the registrar's Flow-Timer; 0: ours
    EventLoop::TimerId keepAliveTimer = 0;
    EventLoop::TimerId pongTimer = 0;     // a stream ping's pong is due
    StunQuery keepAlive;                  // a UDP keep-alive to the registrar
    StunQuery serverQuery;                // to the account's STUN server
    std::optional<net::SocketAddress> stunServer;  // resolved
    bool registrarSaw = false;        // its last 2xx told where it saw us from
    bool stunAnswers = false;         // the registrar has answered a STUN keep-alive
    uint32_t flowFailures = 0;        // in a row; each waits longer before recovering
};

}  // namespace kelsip
