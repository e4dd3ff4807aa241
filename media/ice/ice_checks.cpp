// ICE agent, the check list: pairs and their states, paced and triggered
// checks, answering the far end's checks, role conflicts, nomination and
// keep-alives.
#include "media/ice/ice_agent.h"

#include <algorithm>

#include "sip/core/log.h"
#include "sip/core/system.h"

namespace kelsip::ice {

namespace {

constexpr std::string_view kTag = "ice";
constexpr size_t kMaxPairs = 100;  // RFC 8445 6.1.2.5

std::vector<uint8_t> keyOf(const std::string& pwd) { return {pwd.begin(), pwd.end()}; }

}  // namespace

std::string IceAgent::pairFoundation(const Pair& pair) const {
    return locals_[pair.local].candidate.foundation + ':' + remotes_[pair.remote].foundation;
}

IceAgent::Pair* IceAgent::findPair(uint64_t id) {
    for (Pair& p : pairs_) {
        if (p.id == id) return &p;
    }
    return nullptr;
}

IceAgent::Pair* IceAgent::findPair(size_t local, size_t remote) {
    for (Pair& p : pairs_) {
        if (p.local == local && p.remote == remote) return &p;
    }
    return nullptr;
}

void IceAgent::addPair(size_t local, size_t remote, PairState state) {
    if (findPair(local, remote) || pairs_.size() >= kMaxPairs) return;
    const uint32_t ours = locals_[local].candidate.priority;
    const uint32_t theirs = remotes_[remote].priority;
    Pair p;
    p.id = nextPairId_++;
    p.local = local;
    p.remote = remote;
    p.priority = role_ == IceRole::Controlling ? pairPriority(ours, theirs) : pairPriority(theirs, ours);
    p.state = state;
    pairs_.push_back(p);
}

void IceAgent::formPairs() {
    for (size_t r = 0; r < remotes_.size(); ++r) {
        for (size_t l = 0; l < locals_.size(); ++l) {
            const Candidate& local = locals_[l].candidate;
            // Checks go from bases: host and relayed candidates; a reflexive
            // one would only repeat its base's pair (RFC 8445 6.1.2.4).
            const bool usable = options_.relayOnly ? local.type == CandidateType::Relayed
                                                   : (local.type == CandidateType::Host ||
                                                      local.type == CandidateType::Relayed);
            if (usable && local.component == remotes_[r].component &&
                local.address.family() == remotes_[r].address.family()) {
                addPair(l, r, PairState::Frozen);
            }
        }
    }
    std::stable_sort(pairs_.begin(), pairs_.end(), [](const Pair& a, const Pair& b) { return a.priority > b.priority; });
    // One pair per foundation starts Waiting: the lowest component, then
    // the highest priority (RFC 8445 6.1.2.6).
    std::map<std::string, Pair*> first;
    for (Pair& p : pairs_) {
        Pair*& chosen = first[pairFoundation(p)];
        if (!chosen || locals_[p.local].candidate.component < locals_[chosen->local].candidate.component) chosen = &p;
    }
    for (auto& [foundation, p] : first) {
        if (p->state == PairState::Frozen) p->state = PairState::Waiting;
    }
}

void IceAgent::startChecks() {
    formPairs();
    // A repeated description (a re-offer) adds pairs without undoing what
    // the checks have reached; a restart has cleared that already.
    if (state_ == IceState::New || state_ == IceState::Gathering) {
        setState(IceState::Checking);
    } else {
        updateState();
    }
    nextCheckUs_ = nowUs_;
    auto early = std::move(early_);
    early_.clear();
    for (const EarlyCheck& check : early) onPeerCheck(check);
}

stun::Message IceAgent::checkRequest(size_t local, bool useCandidate) const {
    stun::Message m = stun::Message::request(stun::Method::Binding);
    m.addText(stun::attr::kUsername, remoteUfrag_ + ':' + ufrag_);
    m.addUint32(stun::attr::kPriority,
                candidatePriority(CandidateType::PeerReflexive, static_cast<uint16_t>(localPreferenceOf(local)),
                                  locals_[local].candidate.component));
    if (role_ == IceRole::Controlling) {
        m.addUint64(stun::attr::kIceControlling, tieBreaker_);
        if (useCandidate) m.addFlag(stun::attr::kUseCandidate);
    } else {
        m.addUint64(stun::attr::kIceControlled, tieBreaker_);
    }
    return m;
}

void IceAgent::sendCheck(Pair& pair) {
    const Candidate& remote = remotes_[pair.remote];
    const stun::Message m = checkRequest(pair.local, pair.useCandidate);
    auto bytes = stun::encode(m, {keyOf(remotePwd_), true});
    if (bytes.empty()) return;
    if (checks_.pending(pair.transaction)) checks_.cancel(pair.transaction);
    pair.state = PairState::InProgress;
    pair.checkedAs = role_;
    pair.transaction = m.transaction;
    const size_t from = pair.local;
    const net::SocketAddress to = remote.address;
    const uint64_t id = pair.id;
    checks_.start(
        m.transaction, std::move(bytes), [this, from, to](std::span<const uint8_t> wire) { sendFrom(from, to, wire); },
        [this, id](const stun::Message* response, std::span<const uint8_t> raw) { onCheckAnswer(id, response, raw); },
        nowUs_, options_.retransmit);
}

void IceAgent::onCheckAnswer(uint64_t pairId, const stun::Message* response, std::span<const uint8_t> raw) {
    Pair* pair = findPair(pairId);
    if (!pair) return;
    const Candidate remote = remotes_[pair->remote];
    if (!response) {
        log::info(kTag, "check to " + remote.address.toString() + " timed out");
        pair->state = PairState::Failed;
        updateState();
        return;
    }
    if (!stun::checkIntegrity(raw, keyOf(remotePwd_))) {
        log::warn(kTag, "answer to a check failed its integrity check");
        pair->state = PairState::Failed;
        updateState();
        return;
    }
    if (response->messageClass == stun::Class::Error) {
        const auto error = response->errorCode();
        if (error && error->code == 487) {
            // The far end keeps its role: take the other one (unless a check
            // of the far end's made us switch already) and check again.
            if (pair->checkedAs == role_) {
                switchRole(role_ == IceRole::Controlling ? IceRole::Controlled : IceRole::Controlling);
            }
            pair->state = PairState::Waiting;
            pair->useCandidate = false;
            triggered_.push_back(pair->id);
            return;
        }
        pair->state = PairState::Failed;
        updateState();
        return;
    }
    // Non-symmetric answers do not make a pair valid (RFC 8445 7.2.5.2.1).
    if (answerFrom_ != remote.address) {
        pair->state = PairState::Failed;
        updateState();
        return;
    }
    const auto mapped = response->address(stun::attr::kXorMappedAddress);
    const Local& local = locals_[pair->local];
    if (mapped && local.candidate.type != CandidateType::Relayed) {
        const bool known = std::any_of(locals_.begin(), locals_.end(), [&](const Local& l) {
            return l.candidate.address == *mapped && l.candidate.component == local.candidate.component;
        });
        if (!known) {
            Candidate prflx;
            prflx.component = local.candidate.component;
            prflx.address = *mapped;
            prflx.type = CandidateType::PeerReflexive;
            prflx.related = local.candidate.address;
            prflx.foundation = candidateFoundation(prflx.type, local.candidate.address, std::nullopt);
            prflx.priority = candidatePriority(prflx.type, static_cast<uint16_t>(localPreferenceOf(pair->local)),
                                               prflx.component);
            const int base = local.base;
            addLocal(prflx, base, false);  // the pair list is untouched
        }
    }
    pair->state = PairState::Succeeded;
    pair->valid = true;
    firstValidUs_.try_emplace(remote.component, nowUs_);
    unfreeze(*pair);
    const bool nominated = role_ == IceRole::Controlling ? pair->useCandidate : pair->nominateOnSuccess;
    if (nominated) select(*pair);
    updateState();
}

void IceAgent::unfreeze(const Pair& succeeded) {
    const std::string foundation = pairFoundation(succeeded);
    for (Pair& p : pairs_) {
        if (p.state == PairState::Frozen && pairFoundation(p) == foundation) p.state = PairState::Waiting;
    }
}

void IceAgent::onRequest(size_t local, const net::SocketAddress& from, const stun::Message& request,
                         std::span<const uint8_t> raw) {
    const auto username = request.text(stun::attr::kUsername);
    auto reject = [&](int code, const char* reason) {
        log::warn(kTag, std::string("check from ") + from.toString() + " refused: " + reason);
        stun::Message answer = stun::Message::responseTo(request, stun::Class::Error);
        answer.addErrorCode(code, reason);
        stun::EncodeOptions encode;
        encode.fingerprint = true;
        if (code == 487) encode.integrityKey = keyOf(pwd_);
        sendFrom(local, from, stun::encode(answer, encode));
    };
    // A relay-only agent keeps its own addresses to itself: silence there.
    if (options_.relayOnly && locals_[local].candidate.type != CandidateType::Relayed) return;
    if (!stun::checkFingerprint(raw)) {
        log::warn(kTag, "check without a valid fingerprint from " + from.toString());
        return;
    }
    if (!username || !request.has(stun::attr::kPriority)) {
        return reject(400, "bad request");
    }
    if (username->size() <= ufrag_.size() || username->compare(0, ufrag_.size() + 1, ufrag_ + ':') != 0 ||
        !stun::checkIntegrity(raw, keyOf(pwd_))) {
        return reject(401, "unauthorized");
    }
    // Role conflicts (RFC 8445 7.3.1.1): the larger tie-breaker controls.
    if (role_ == IceRole::Controlling && request.has(stun::attr::kIceControlling)) {
        if (tieBreaker_ >= request.uint64(stun::attr::kIceControlling).value_or(0)) return reject(487, "role conflict");
        switchRole(IceRole::Controlled);
    } else if (role_ == IceRole::Controlled && request.has(stun::attr::kIceControlled)) {
        if (tieBreaker_ >= request.uint64(stun::attr::kIceControlled).value_or(0)) {
            switchRole(IceRole::Controlling);
        } else {
            return reject(487, "role conflict");
        }
    }
    stun::Message answer = stun::Message::responseTo(request, stun::Class::Success);
    answer.addXorAddress(stun::attr::kXorMappedAddress, from);
    sendFrom(local, from, stun::encode(answer, {keyOf(pwd_), true}));

    EarlyCheck check{local, from, request.uint32(stun::attr::kPriority).value_or(0),
                     request.has(stun::attr::kUseCandidate)};
    if (!remoteKnown_) {
        // Our offer's answer is still on its way: check back once it is here.
        if (early_.size() < kMaxPairs) early_.push_back(check);
        return;
    }
    onPeerCheck(check);
}

void IceAgent::onPeerCheck(const EarlyCheck& check) {
    const int component = locals_[check.local].candidate.component;
    size_t remote = remotes_.size();
    for (size_t i = 0; i < remotes_.size(); ++i) {
        if (remotes_[i].address == check.from && remotes_[i].component == component) remote = i;
    }
    if (remote == remotes_.size()) {
        // An address the far end did not signal: a peer-reflexive candidate.
        Candidate prflx;
        prflx.component = component;
        prflx.address = check.from;
        prflx.type = CandidateType::PeerReflexive;
        prflx.priority = check.priority;
        prflx.foundation = candidateFoundation(prflx.type, check.from, std::nullopt);
        log::info(kTag, "peer-reflexive candidate " + check.from.toString());
        remotes_.push_back(prflx);
    }
    Pair* pair = findPair(check.local, remote);
    if (!pair) {
        addPair(check.local, remote, PairState::Waiting);
        pair = findPair(check.local, remote);
        if (!pair) return;
    }
    if (check.useCandidate && role_ == IceRole::Controlled) {
        if (pair->state == PairState::Succeeded) {
            select(*pair);
            updateState();
            return;
        }
        pair->nominateOnSuccess = true;
    }
    if (pair->state != PairState::Succeeded && pair->state != PairState::InProgress) triggerCheck(*pair);
}

void IceAgent::switchRole(IceRole role) {
    role_ = role;
    log::info(kTag, "role conflict: now " + std::string(toString(role_)));
    // Pair priorities depend on which side controls (RFC 8445 7.3.1.1).
    for (Pair& p : pairs_) {
        const uint32_t ours = locals_[p.local].candidate.priority;
        const uint32_t theirs = remotes_[p.remote].priority;
        p.priority = role_ == IceRole::Controlling ? pairPriority(ours, theirs) : pairPriority(theirs, ours);
        if (role_ == IceRole::Controlled) p.useCandidate = false;
    }
}

void IceAgent::triggerCheck(Pair& pair) {
    pair.state = PairState::Waiting;
    if (std::find(triggered_.begin(), triggered_.end(), pair.id) == triggered_.end()) triggered_.push_back(pair.id);
}

void IceAgent::nominate() {
    for (int component : components()) {
        if (selected_.count(component)) continue;
        Pair* best = nullptr;
        bool nominating = false;
        for (Pair& p : pairs_) {
            if (remotes_[p.remote].component != component) continue;
            nominating = nominating || p.useCandidate;
            if (p.valid && (!best || p.priority > best->priority)) best = &p;
        }
        if (!best || nominating) continue;
        const bool betterPending = std::any_of(pairs_.begin(), pairs_.end(), [&](const Pair& p) {
            return remotes_[p.remote].component == component && p.priority > best->priority &&
                   (p.state == PairState::Frozen || p.state == PairState::Waiting || p.state == PairState::InProgress);
        });
        const auto first = firstValidUs_.find(component);
        const bool waited = first != firstValidUs_.end() && nowUs_ - first->second >= options_.nominationWaitUs;
        if (betterPending && !waited) continue;
        best->useCandidate = true;
        triggerCheck(*best);
    }
}

void IceAgent::select(const Pair& pair) {
    const int component = locals_[pair.local].candidate.component;
    const Candidate& remote = remotes_[pair.remote];
    selected_[component] = Selected{pair.local, remote, pair.priority};
    beforeRestart_.erase(component);
    // The check that made the pair valid was its first consent.
    consent_[component] = Consent{nowUs_ + options_.consentUs, nowUs_ + options_.consentTimeoutUs};
    const Local& local = locals_[pair.local];
    log::info(kTag, "component " + std::to_string(component) + " selected " + local.candidate.address.toString() +
                        " -> " + remote.address.toString());
    if (local.candidate.type == CandidateType::Relayed) {
        Base& base = bases_[static_cast<size_t>(local.base)];
        if (base.turn) base.turn->bindChannel(remote.address, nowUs_);
    }
    if (listener_) listener_->onSelectedPair(component, local.candidate, remote);
}

void IceAgent::refreshConsent() {
    for (auto it = selected_.begin(); it != selected_.end();) {
        const int component = it->first;
        const Selected chosen = it->second;
        Consent& consent = consent_[component];
        if (nowUs_ >= consent.untilUs) {
            // RFC 7675 5.1: the far end stopped answering; nothing more goes there.
            log::warn(kTag, "component " + std::to_string(component) + ": consent of " +
                                chosen.remote.address.toString() + " expired; no more media to it");
            for (Pair& p : pairs_) {
                if (p.local == chosen.local && remotes_[p.remote].address == chosen.remote.address) {
                    p.valid = false;
                    p.state = PairState::Failed;
                }
            }
            consent_.erase(component);
            it = selected_.erase(it);
            setState(IceState::Failed);
            continue;
        }
        ++it;
        if (nowUs_ < consent.dueUs) continue;
        // 0.8 to 1.2 times the interval, so that calls set up together do
        // not send in step.
        uint16_t spread = 0;
        (void)platform::secureRandom(&spread, sizeof spread);
        consent.dueUs = nowUs_ + options_.consentUs * 4 / 5 + options_.consentUs * 2 / 5 * spread / 65535;
        const stun::Message m = checkRequest(chosen.local, false);
        auto bytes = stun::encode(m, {keyOf(remotePwd_), true});
        if (bytes.empty()) continue;
        const size_t from = chosen.local;
        const net::SocketAddress to = chosen.remote.address;
        // A request is given up before the next one goes (sends at 0, 0.5
        // and 1.5 s, abandoned at 3.5 s).
        checks_.start(
            m.transaction, std::move(bytes), [this, from, to](std::span<const uint8_t> wire) { sendFrom(from, to, wire); },
            [this, component, to](const stun::Message* response, std::span<const uint8_t> raw) {
                if (!response || response->messageClass != stun::Class::Success || answerFrom_ != to ||
                    !stun::checkIntegrity(raw, keyOf(remotePwd_))) {
                    return;
                }
                const auto entry = consent_.find(component);
                if (entry != consent_.end()) entry->second.untilUs = nowUs_ + options_.consentTimeoutUs;
            },
            nowUs_, StunRetransmitOptions{500000, 3, 4});
    }
}

}  // namespace kelsip::ice
