// ICE agent: credentials, gathering, the paths a datagram takes (TURN
// server, STUN, application data), sending data and the agent's state.
#include "media/ice/ice_agent.h"

#include <algorithm>
#include <utility>

#include "sip/core/log.h"
#include "sip/core/system.h"

namespace kelsip::ice {

namespace {

constexpr std::string_view kTag = "ice";

// ice-chars (RFC 8445 5.3): at least 4 for the ufrag and 22 for the pwd,
// 24 bits of randomness per 4 characters.
std::string randomIceText(size_t length) {
    static constexpr char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::vector<uint8_t> bytes(length);
    if (!platform::secureRandom(bytes.data(), bytes.size())) log::error(kTag, "no random bytes for credentials");
    std::string out;
    for (uint8_t b : bytes) out += kChars[b & 63];
    return out;
}

uint64_t randomTieBreaker() {
    uint64_t value = 0;
    if (!platform::secureRandom(&value, sizeof value)) log::error(kTag, "no random bytes for the tie-breaker");
    return value;
}

}  // namespace

std::string_view toString(IceRole role) { return role == IceRole::Controlling ? "controlling" : "controlled"; }

std::string_view toString(IceState state) {
    switch (state) {
        case IceState::New: return "new";
        case IceState::Gathering: return "gathering";
        case IceState::Checking: return "checking";
        case IceState::Connected: return "connected";
        case IceState::Completed: return "completed";
        case IceState::Failed: return "failed";
    }
    return "new";
}

uint64_t pairPriority(uint32_t controlling, uint32_t controlled) {
    const uint64_t g = controlling;
    const uint64_t d = controlled;
    return (std::min(g, d) << 32) + 2 * std::max(g, d) + (g > d ? 1 : 0);
}

IceAgent::IceAgent(IceNetwork& network, IceAgentOptions options, IceListener* listener)
    : network_(network),
      options_(std::move(options)),
      listener_(listener),
      role_(options_.role),
      tieBreaker_(randomTieBreaker()),
      ufrag_(randomIceText(8)),
      pwd_(randomIceText(24)) {}

IceAgent::~IceAgent() = default;

int IceAgent::addHostBase(int component, const net::SocketAddress& address) {
    bases_.push_back(Base{component, address, nullptr});
    return static_cast<int>(bases_.size()) - 1;
}

void IceAgent::addLocal(Candidate candidate, int base, bool offered) {
    for (const Local& l : locals_) {
        // Redundant: same address from the same base (RFC 8445 5.1.3).
        if (l.candidate.address == candidate.address && l.base == base) return;
    }
    locals_.push_back(Local{std::move(candidate), base, offered});
}

uint32_t IceAgent::localPreferenceOf(size_t local) const {
    // Earlier bases of a component are preferred; relayed candidates take
    // the same scale, their type preference already ranks them last.
    int rank = 0;
    for (int i = 0; i < locals_[local].base; ++i) {
        if (bases_[static_cast<size_t>(i)].component == bases_[static_cast<size_t>(locals_[local].base)].component) {
            ++rank;
        }
    }
    return static_cast<uint32_t>(65535 - std::min(rank, 65535));
}

void IceAgent::gather(int64_t nowUs) {
    nowUs_ = nowUs;
    if (closed_ || state_ != IceState::New) return;
    setState(IceState::Gathering);
    for (size_t i = 0; i < bases_.size(); ++i) {
        const int base = static_cast<int>(i);
        const Base& b = bases_[i];
        Candidate host;
        host.component = b.component;
        host.address = b.address;
        host.type = CandidateType::Host;
        host.foundation = candidateFoundation(CandidateType::Host, b.address, std::nullopt);
        locals_.push_back(Local{host, base, !options_.relayOnly});
        locals_.back().candidate.priority = candidatePriority(CandidateType::Host,
                                                              static_cast<uint16_t>(localPreferenceOf(locals_.size() - 1)),
                                                              b.component);
    }
    // The host candidates came first, one per base in order: locals_[i] is base i's.
    for (size_t i = 0; i < bases_.size(); ++i) {
        const int base = static_cast<int>(i);
        const uint16_t preference = static_cast<uint16_t>(localPreferenceOf(i));
        if (options_.stunServer && !options_.relayOnly) {
            ++gathersPending_;
            const net::SocketAddress server = *options_.stunServer;
            const stun::Message request = stun::Message::request(stun::Method::Binding);
            auto transmit = [this, base, server](std::span<const uint8_t> bytes) { network_.send(base, server, bytes); };
            auto done = [this, base, server, preference](const stun::Message* response, std::span<const uint8_t>) {
                const Base& b = bases_[static_cast<size_t>(base)];
                const auto mapped = response && response->messageClass == stun::Class::Success
                                        ? response->address(stun::attr::kXorMappedAddress)
                                        : std::nullopt;
                if (mapped) {
                    Candidate c;
                    c.component = b.component;
                    c.address = *mapped;
                    c.type = CandidateType::ServerReflexive;
                    c.related = b.address;
                    c.foundation = candidateFoundation(c.type, b.address, server);
                    c.priority = candidatePriority(c.type, preference, b.component);
                    addLocal(c, base, true);
                } else {
                    log::warn(kTag, "no server-reflexive address from " + server.toString());
                }
                gatheredOne();
            };
            gathering_.start(request.transaction, stun::encode(request), transmit, done, nowUs, options_.retransmit);
        }
        if (options_.turnServer) {
            ++gathersPending_;
            Base& b = bases_[i];
            const net::SocketAddress server = options_.turnServer->server;
            b.turn = std::make_unique<TurnClient>(
                *options_.turnServer,
                [this, base, server](std::span<const uint8_t> bytes) { network_.send(base, server, bytes); },
                options_.retransmit);
            b.turn->allocate(nowUs, [this, base, server, preference](bool ok) {
                const Base& at = bases_[static_cast<size_t>(base)];
                if (ok) {
                    Candidate relay;
                    relay.component = at.component;
                    relay.address = *at.turn->relayed();
                    relay.type = CandidateType::Relayed;
                    relay.related = at.turn->mapped();
                    relay.foundation = candidateFoundation(relay.type, at.address, server);
                    relay.priority = candidatePriority(relay.type, preference, at.component);
                    addLocal(relay, base, true);
                    if (at.turn->mapped() && !options_.relayOnly) {
                        Candidate srflx;
                        srflx.component = at.component;
                        srflx.address = *at.turn->mapped();
                        srflx.type = CandidateType::ServerReflexive;
                        srflx.related = at.address;
                        srflx.foundation = candidateFoundation(srflx.type, at.address, server);
                        srflx.priority = candidatePriority(srflx.type, preference, at.component);
                        addLocal(srflx, base, true);
                    }
                }
                gatheredOne();
            });
        }
    }
    if (gathersPending_ == 0) {
        ++gathersPending_;
        gatheredOne();
    }
}

void IceAgent::gatheredOne() {
    if (--gathersPending_ > 0) return;
    gathered_ = true;
    log::info(kTag, "gathered " + std::to_string(localCandidates().size()) + " candidates");
    if (listener_) listener_->onGatheringDone();
    if (remoteKnown_) startChecks();
}

std::vector<Candidate> IceAgent::localCandidates() const {
    std::vector<Candidate> out;
    for (const Local& l : locals_) {
        if (!l.offered) continue;
        // A server-reflexive address equal to a host one says nothing new.
        const bool sameAsHost = l.candidate.type == CandidateType::ServerReflexive &&
                                std::any_of(locals_.begin(), locals_.end(), [&](const Local& other) {
                                    return other.candidate.type == CandidateType::Host &&
                                           other.candidate.address == l.candidate.address;
                                });
        if (!sameAsHost) out.push_back(l.candidate);
    }
    return out;
}

void IceAgent::setRemote(std::string ufrag, std::string pwd, std::vector<Candidate> candidates, int64_t nowUs) {
    nowUs_ = nowUs;
    if (closed_) return;
    remoteUfrag_ = std::move(ufrag);
    remotePwd_ = std::move(pwd);
    remoteKnown_ = true;
    for (Candidate& c : candidates) {
        const bool known = std::any_of(remotes_.begin(), remotes_.end(), [&](const Candidate& r) {
            return r.address == c.address && r.component == c.component;
        });
        if (!known) remotes_.push_back(std::move(c));
    }
    if (gathered_) startChecks();
}

std::optional<size_t> IceAgent::localOf(int base, CandidateType type) const {
    for (size_t i = 0; i < locals_.size(); ++i) {
        if (locals_[i].base == base && locals_[i].candidate.type == type) return i;
    }
    return std::nullopt;
}

std::vector<int> IceAgent::components() const {
    std::vector<int> out;
    for (const Base& b : bases_) {
        if (std::find(out.begin(), out.end(), b.component) == out.end()) out.push_back(b.component);
    }
    return out;
}

void IceAgent::sendFrom(size_t local, const net::SocketAddress& to, std::span<const uint8_t> bytes) {
    const Local& l = locals_[local];
    Base& base = bases_[static_cast<size_t>(l.base)];
    if (l.candidate.type == CandidateType::Relayed) {
        if (base.turn) static_cast<void>(base.turn->sendTo(to, bytes, nowUs_));
        return;
    }
    network_.send(l.base, to, bytes);
}

void IceAgent::receive(int base, const net::SocketAddress& from, std::span<const uint8_t> bytes, int64_t nowUs) {
    nowUs_ = nowUs;
    if (closed_ || base < 0 || static_cast<size_t>(base) >= bases_.size() || bytes.empty()) return;
    Base& b = bases_[static_cast<size_t>(base)];
    if (b.turn && from == b.turn->server()) {
        // The server may answer our Binding for the reflexive address too.
        if (stun::looksLikeStun(bytes)) {
            if (const auto m = stun::parse(bytes); m && gathering_.onResponse(*m, bytes)) return;
        }
        auto relayed = b.turn->receive(bytes, nowUs);
        const auto local = localOf(base, CandidateType::Relayed);
        if (relayed && local) handle(*local, relayed->peer, relayed->data);
        return;
    }
    if (const auto local = localOf(base, CandidateType::Host)) handle(*local, from, bytes);
}

void IceAgent::handle(size_t local, const net::SocketAddress& from, std::span<const uint8_t> bytes) {
    // RFC 7983: 0..3 is STUN; everything else belongs to the media above us.
    if (bytes[0] > 3) {
        if (listener_) listener_->onData(locals_[local].candidate.component, bytes);
        return;
    }
    std::string error;
    const auto message = stun::parse(bytes, &error);
    if (!message) {
        log::warn(kTag, error + " from " + from.toString());
        return;
    }
    switch (message->messageClass) {
        case stun::Class::Request:
            if (message->method == stun::Method::Binding) onRequest(local, from, *message, bytes);
            return;
        case stun::Class::Indication:
            return;  // the far end's keep-alive
        case stun::Class::Success:
        case stun::Class::Error:
            answerFrom_ = from;
            if (!checks_.onResponse(*message, bytes) && !gathering_.onResponse(*message, bytes)) {
                log::debug(kTag, "stray " + stun::describe(*message) + " from " + from.toString());
            }
            return;
    }
}

bool IceAgent::send(int component, std::span<const uint8_t> bytes, int64_t nowUs) {
    nowUs_ = nowUs;
    if (closed_) return false;
    const auto it = selected_.find(component);
    if (it != selected_.end()) {
        sendFrom(it->second.local, it->second.remote.address, bytes);
        return true;
    }
    const Pair* best = nullptr;
    for (const Pair& p : pairs_) {
        if (p.valid && remotes_[p.remote].component == component && (!best || p.priority > best->priority)) best = &p;
    }
    if (best) {
        sendFrom(best->local, remotes_[best->remote].address, bytes);
        return true;
    }
    const auto old = beforeRestart_.find(component);
    if (old == beforeRestart_.end()) return false;
    sendFrom(old->second.local, old->second.remote.address, bytes);
    return true;
}

void IceAgent::tick(int64_t nowUs) {
    nowUs_ = nowUs;
    if (closed_) return;
    gathering_.tick(nowUs);
    checks_.tick(nowUs);
    for (Base& b : bases_) {
        if (b.turn) b.turn->tick(nowUs);
    }
    if (state_ == IceState::Checking || state_ == IceState::Connected || state_ == IceState::Completed) {
        if (nowUs >= nextCheckUs_) {
            Pair* next = nullptr;
            while (!triggered_.empty() && !next) {
                next = findPair(triggered_.front());
                triggered_.erase(triggered_.begin());
                if (next && next->state != PairState::Waiting) next = nullptr;
            }
            if (!next) {
                for (Pair& p : pairs_) {
                    if (p.state == PairState::Waiting && (!next || p.priority > next->priority)) next = &p;
                }
            }
            if (!next) {
                // Nothing waits: the best frozen pair goes next (RFC 8445 6.1.4.2).
                for (Pair& p : pairs_) {
                    if (p.state == PairState::Frozen && (!next || p.priority > next->priority)) next = &p;
                }
            }
            if (next) {
                sendCheck(*next);
                nextCheckUs_ = nowUs + options_.paceUs;
            }
        }
        if (role_ == IceRole::Controlling) nominate();
        refreshConsent();
        updateState();
    }
}

void IceAgent::restart(int64_t nowUs) {
    nowUs_ = nowUs;
    if (closed_) return;
    ufrag_ = randomIceText(8);
    pwd_ = randomIceText(24);
    remoteKnown_ = false;
    remoteUfrag_.clear();
    remotePwd_.clear();
    remotes_.clear();
    pairs_.clear();
    triggered_.clear();
    early_.clear();
    firstValidUs_.clear();
    // Their answers find no pair any more and are dropped.
    checks_.clear();
    // The old selected pairs carry media until new ones are chosen (they
    // hold the remote by value); nomination starts afresh.
    for (auto& [component, chosen] : selected_) beforeRestart_[component] = chosen;
    selected_.clear();
    consent_.clear();
    log::info(kTag, "restart: new credentials");
}

void IceAgent::close(int64_t nowUs) {
    nowUs_ = nowUs;
    if (closed_) return;
    for (Base& b : bases_) {
        if (b.turn) b.turn->release(nowUs);
    }
    closed_ = true;
}

std::optional<CandidatePair> IceAgent::selectedPair(int component) const {
    const auto it = selected_.find(component);
    if (it == selected_.end()) return std::nullopt;
    return CandidatePair{locals_[it->second.local].candidate, it->second.remote, it->second.priority};
}

const TurnClient* IceAgent::turn(int base) const {
    if (base < 0 || static_cast<size_t>(base) >= bases_.size()) return nullptr;
    return bases_[static_cast<size_t>(base)].turn.get();
}

void IceAgent::setState(IceState state) {
    if (state == state_) return;
    log::info(kTag, std::string(toString(state_)) + " -> " + std::string(toString(state)));
    state_ = state;
    if (listener_) listener_->onIceState(state);
}

void IceAgent::updateState() {
    if (state_ == IceState::New || state_ == IceState::Gathering || state_ == IceState::Failed || !remoteKnown_) {
        return;
    }
    bool allSelected = true;
    bool allValid = true;
    for (int component : components()) {
        const bool hasValid = std::any_of(pairs_.begin(), pairs_.end(), [&](const Pair& p) {
            return p.valid && remotes_[p.remote].component == component;
        });
        allSelected = allSelected && selected_.count(component) != 0;
        allValid = allValid && hasValid;
    }
    const bool pending = !triggered_.empty() || std::any_of(pairs_.begin(), pairs_.end(), [](const Pair& p) {
        return p.state == PairState::Frozen || p.state == PairState::Waiting || p.state == PairState::InProgress;
    });
    if (allSelected) {
        setState(IceState::Completed);
    } else if (allValid) {
        setState(IceState::Connected);
    } else if (!pending) {
        setState(IceState::Failed);
    } else {
        setState(IceState::Checking);
    }
}

}  // namespace kelsip::ice
