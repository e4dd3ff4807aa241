// The ICE agent (RFC 8445) of one media stream: gathering host,
// server-reflexive and relayed candidates, the check list with its paced
// ordinary and triggered checks, roles and their conflicts, regular
// nomination, the selected pair per component and its keep-alives, and
// restarts. It owns no socket: the owner (the RTP session, or a test
// network) sends for it and hands it what arrives, and ticks it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "media/ice/candidate.h"
#include "media/ice/stun_transactions.h"
#include "media/ice/turn_client.h"
#include "sip/net/socket_address.h"
#include "sip/net/stun_message.h"

namespace kelsip::ice {

enum class IceRole : uint8_t { Controlling, Controlled };
enum class IceState : uint8_t { New, Gathering, Checking, Connected, Completed, Failed };
[[nodiscard]] std::string_view toString(IceRole role);
[[nodiscard]] std::string_view toString(IceState state);

// Where the agent's datagrams go: `base` is the id `addHostBase` gave for
// the socket to send from.
class IceNetwork {
public:
    virtual void send(int base, const net::SocketAddress& to, std::span<const uint8_t> bytes) = 0;

protected:
    ~IceNetwork() = default;
};

// Called on the thread that drives the agent, from inside its calls.
class IceListener {
public:
    virtual void onIceState(IceState /*state*/) {}
    virtual void onGatheringDone() {}
    virtual void onSelectedPair(int /*component*/, const Candidate& /*local*/, const Candidate& /*remote*/) {}
    // What is not STUN (RTP, RTCP), relayed data already unwrapped.
    virtual void onData(int /*component*/, std::span<const uint8_t> /*bytes*/) {}

protected:
    ~IceListener() = default;
};

struct IceAgentOptions {
    IceRole role = IceRole::Controlling;
    std::optional<net::SocketAddress> stunServer;
    std::optional<TurnServerOptions> turnServer;
    // Offer and use only relayed candidates: the far end never learns our
    // own addresses.
    bool relayOnly = false;
    int64_t paceUs = 50000;            // Ta: one ordinary check per interval
    // Consent freshness (RFC 7675) on each selected pair: a Binding request
    // every `consentUs` (0.8 to 1.2 times, at random), which also keeps the
    // NAT bindings open; with no answer for `consentTimeoutUs` the pair is
    // dropped, nothing more is sent there and the agent fails.
    int64_t consentUs = 5000000;
    int64_t consentTimeoutUs = 30000000;
    // How long the controlling agent waits, after a component's first valid
    // pair, for a better one still being checked before it nominates.
    int64_t nominationWaitUs = 1000000;
    StunRetransmitOptions retransmit;  // of checks and of gathering requests
};

struct CandidatePair {
    Candidate local;
    Candidate remote;
    uint64_t priority = 0;
};

// RFC 8445 6.1.2.3: 2^32 MIN(G,D) + 2 MAX(G,D) + (G>D ? 1 : 0).
[[nodiscard]] uint64_t pairPriority(uint32_t controlling, uint32_t controlled);

// Not thread-safe: one thread (the RTP worker) calls everything.
class IceAgent {
public:
    IceAgent(IceNetwork& network, IceAgentOptions options, IceListener* listener = nullptr);
    ~IceAgent();
    IceAgent(const IceAgent&) = delete;
    IceAgent& operator=(const IceAgent&) = delete;

    // A socket of `component` bound to `address` (a real address, not the
    // wildcard); the id names it in `IceNetwork::send` and `receive`.
    [[nodiscard]] int addHostBase(int component, const net::SocketAddress& address);
    // Host candidates at once, server-reflexive and relayed ones as the
    // servers answer; `onGatheringDone` when every answer is in.
    void gather(int64_t nowUs);
    // The candidates to offer, in the order found.
    [[nodiscard]] std::vector<Candidate> localCandidates() const;
    [[nodiscard]] const std::string& localUfrag() const { return ufrag_; }
    [[nodiscard]] const std::string& localPwd() const { return pwd_; }

    // The far end's credentials and candidates (from its description);
    // checks start once gathering is done.
    void setRemote(std::string ufrag, std::string pwd, std::vector<Candidate> candidates, int64_t nowUs);
    // A datagram that arrived on `base` from `from`.
    void receive(int base, const net::SocketAddress& from, std::span<const uint8_t> bytes, int64_t nowUs);
    // Paced checks, retransmissions, nomination, keep-alives, TURN refreshes.
    void tick(int64_t nowUs);
    // Application data over the component's selected pair (or, before
    // nomination, its best valid one); false when there is none yet.
    bool send(int component, std::span<const uint8_t> bytes, int64_t nowUs);
    // New credentials; the check list starts again once `setRemote` gives
    // the far end's new ones. Media keeps the old selected pairs meanwhile.
    void restart(int64_t nowUs);
    // Frees relayed addresses; the agent sends nothing afterwards.
    void close(int64_t nowUs);

    [[nodiscard]] IceState state() const { return state_; }
    [[nodiscard]] IceRole role() const { return role_; }
    [[nodiscard]] std::optional<CandidatePair> selectedPair(int component) const;
    // The TURN allocation made for a base, if any.
    [[nodiscard]] const TurnClient* turn(int base) const;

private:
    enum class PairState : uint8_t { Frozen, Waiting, InProgress, Succeeded, Failed };
    struct Base {
        int component = kRtpComponent;
        net::SocketAddress address;
        std::unique_ptr<TurnClient> turn;
    };
    struct Local {
        Candidate candidate;
        int base = 0;
        bool offered = false;  // in our description (peer-reflexive ones are not)
    };
    struct Pair {
        uint64_t id = 0;
        size_t local = 0;   // into locals_: a host or relayed candidate
        size_t remote = 0;  // into remotes_
        uint64_t priority = 0;
        PairState state = PairState::Frozen;
        bool useCandidate = false;       // our next check on it nominates (controlling)
        bool nominateOnSuccess = false;  // the far end nominated it before it succeeded (controlled)
        bool valid = false;
        IceRole checkedAs = IceRole::Controlling;  // the role our last check on it claimed
        stun::TransactionId transaction{};
    };
    struct Selected {
        size_t local = 0;
        Candidate remote;
        uint64_t priority = 0;
    };
    struct EarlyCheck {
        size_t local = 0;
        net::SocketAddress from;
        uint32_t priority = 0;
        bool useCandidate = false;
    };

    // ice_agent.cpp: gathering, the datagram paths, data, state.
    void addLocal(Candidate candidate, int base, bool offered);
    void gatheredOne();
    void sendFrom(size_t local, const net::SocketAddress& to, std::span<const uint8_t> bytes);
    void handle(size_t local, const net::SocketAddress& from, std::span<const uint8_t> bytes);
    void setState(IceState state);
    void updateState();
    [[nodiscard]] std::optional<size_t> localOf(int base, CandidateType type) const;
    [[nodiscard]] std::vector<int> components() const;

    // ice_checks.cpp: the check list.
    void startChecks();
    void formPairs();
    void addPair(size_t local, size_t remote, PairState state);
    [[nodiscard]] Pair* findPair(uint64_t id);
    [[nodiscard]] Pair* findPair(size_t local, size_t remote);
    void sendCheck(Pair& pair);
    void onCheckAnswer(uint64_t pairId, const stun::Message* response, std::span<const uint8_t> raw);
    void onRequest(size_t local, const net::SocketAddress& from, const stun::Message& request,
                   std::span<const uint8_t> raw);
    void onPeerCheck(const EarlyCheck& check);
    void triggerCheck(Pair& pair);
    void switchRole(IceRole role);
    void nominate();
    void select(const Pair& pair);
    void unfreeze(const Pair& succeeded);
    [[nodiscard]] stun::Message checkRequest(size_t local, bool useCandidate) const;
    void refreshConsent();
    [[nodiscard]] uint32_t localPreferenceOf(size_t local) const;
    [[nodiscard]] std::string pairFoundation(const Pair& pair) const;

    IceNetwork& network_;
    IceAgentOptions options_;
    IceListener* listener_;
    IceRole role_;
    IceState state_ = IceState::New;
    uint64_t tieBreaker_ = 0;
    std::string ufrag_;
    std::string pwd_;
    std::vector<Base> bases_;
    std::vector<Local> locals_;
    int gathersPending_ = 0;
    bool gathered_ = false;

    std::string remoteUfrag_;
    std::string remotePwd_;
    bool remoteKnown_ = false;
    std::vector<Candidate> remotes_;
    std::vector<Pair> pairs_;
    std::vector<uint64_t> triggered_;  // pair ids, first in first checked
    std::vector<EarlyCheck> early_;    // checks that came before the far end's credentials
    uint64_t nextPairId_ = 1;
    std::map<int, Selected> selected_;
    std::map<int, Selected> beforeRestart_;  // carry media until the restarted checks select again
    std::map<int, int64_t> firstValidUs_;
    struct Consent {
        int64_t dueUs = 0;    // the next request
        int64_t untilUs = 0;  // when consent runs out without a new answer
    };
    std::map<int, Consent> consent_;  // per selected component

    StunTransactions gathering_;
    StunTransactions checks_;
    int64_t nowUs_ = 0;
    int64_t nextCheckUs_ = 0;
    net::SocketAddress answerFrom_;  // source of the response being handled
    bool closed_ = false;
};

}  // namespace kelsip::ice
