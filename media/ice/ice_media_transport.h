// A call's media over ICE: the agent running on the RTP session's own
// sockets, its checks and TURN traffic taken off the receive path, and
// media sent over the selected pair (through the relay when that is the
// pair). Without a selected pair media goes where the description said.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "media/ice/ice_agent.h"
#include "media/rtp/media_transport.h"
#include "media/rtp/rtp_session.h"

namespace kelsip {

struct IceTransportOptions {
    int call = 0;  // names the log lines
    ice::IceAgentOptions agent;
    // Our address toward the far end: the host candidates' address, with
    // the RTP session's ports.
    net::SocketAddress hostAddress;
    // Called on an RTP worker: gathering is done, the state moved.
    std::function<void()> onGathered;
    std::function<void(ice::IceState)> onState;
};

class IceMediaTransport final : public MediaTransport,
                                private RtpSession::Interceptor,
                                private ice::IceNetwork,
                                private ice::IceListener {
public:
    // Takes over an open RTP session; null when it is not open.
    [[nodiscard]] static std::unique_ptr<IceMediaTransport> create(std::unique_ptr<RtpSession> rtp,
                                                                   IceTransportOptions options);
    ~IceMediaTransport() override;
    IceMediaTransport(const IceMediaTransport&) = delete;
    IceMediaTransport& operator=(const IceMediaTransport&) = delete;

    // The call side (event-loop thread).
    void gather();
    [[nodiscard]] bool gathered() const;
    [[nodiscard]] std::string localUfrag() const;
    [[nodiscard]] std::string localPwd() const;
    [[nodiscard]] std::vector<ice::Candidate> localCandidates() const;
    // The candidate our description names for `component`: server-reflexive,
    // else host, else relayed, so that a far end without ICE that answers
    // to it is reached from the RTP socket itself.
    [[nodiscard]] std::optional<ice::Candidate> defaultCandidate(int component) const;
    void setRemote(const std::string& ufrag, const std::string& pwd, std::vector<ice::Candidate> candidates);
    void restart();
    // Our address changed: a new agent (new credentials, so the far end
    // restarts too) gathers at `hostAddress` on the same sockets.
    void moveTo(const net::SocketAddress& hostAddress);
    [[nodiscard]] ice::IceState state() const;
    [[nodiscard]] std::optional<ice::CandidatePair> selectedPair(int component) const;
    [[nodiscard]] RtpSession& rtp() { return *rtp_; }
    // The far end does not do ICE: the agent ends (its relay released) and
    // the plain RTP session comes back.
    [[nodiscard]] std::unique_ptr<RtpSession> release();

    // MediaTransport.
    bool send(Channel channel, std::span<const uint8_t> bytes) override;
    void attach(Sink* sink) override;
    void detach() override;
    [[nodiscard]] bool hasRtcp() const override;
    void close(std::span<const uint8_t> finalRtcp) override;

private:
    IceMediaTransport(std::unique_ptr<RtpSession> rtp, IceTransportOptions options);

    // RtpSession::Interceptor, on the worker.
    bool onDatagram(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& from,
                    int64_t arrivalUs) override;
    void onTick(int64_t nowUs) override;
    // ice::IceNetwork.
    void send(int base, const net::SocketAddress& to, std::span<const uint8_t> bytes) override;
    // ice::IceListener, from inside the agent's calls.
    void onIceState(ice::IceState state) override;
    void onGatheringDone() override;
    void onSelectedPair(int component, const ice::Candidate& local, const ice::Candidate& remote) override;
    void onData(int component, std::span<const uint8_t> bytes) override;

    void makeAgent();  // a fresh agent with host bases at `options_.hostAddress`
    void endAgent();
    [[nodiscard]] static Channel channelOf(int component);

    std::unique_ptr<RtpSession> rtp_;
    IceTransportOptions options_;
    // Guards the agent and what follows. Recursive: media handed on from
    // inside the agent may be answered (RTCP) through `send` at once.
    mutable std::recursive_mutex mutex_;
    std::unique_ptr<ice::IceAgent> agent_;
    std::map<int, int> baseComponent_;  // base id -> component
    std::map<int, int> componentBase_;  // component -> base id
    std::map<int, net::SocketAddress> chosen_;  // component -> the selected pair's remote
    std::optional<net::SocketAddress> turnServer_;
    bool gathered_ = false;
    int64_t lastDataUs_ = 0;
};

}  // namespace kelsip
