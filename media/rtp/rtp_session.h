// A call's RTP session: the RTP and RTCP sockets, the remote they send to,
// symmetric RTP latching and receive statistics.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "media/rtp/media_transport.h"
#include "media/rtp/rtp_io_service.h"
#include "media/rtp/rtp_port_allocator.h"
#include "media/rtp/rtp_statistics.h"
#include "sip/net/socket.h"
#include "sip/net/socket_address.h"

namespace kelsip {

struct RtpSessionOptions {
    // Where `open` binds; its port is ignored there (the pool chooses).
    net::SocketAddress local = net::SocketAddress::any(net::AddressFamily::V4);
    bool rtcp = true;
    // Send to wherever the first RTP packet came from: a remote behind a NAT
    // signals an address it cannot be reached on.
    bool symmetricRtp = true;
    uint32_t clockRate = 8000;  // for the jitter estimate
};

struct RtpSessionStats {
    uint64_t packets = 0;
    uint64_t bytes = 0;   // payload bytes: without header and padding
    uint32_t jitter = 0;  // RFC 3550 interarrival jitter, timestamp units
    // RTP and RTCP datagrams dropped for coming from neither the signalled
    // address nor the one the session latched to.
    uint64_t packetsFromStrangers = 0;
};

// Where media is accepted from: the signalled address, and the source the
// session latched to. The latch is open until the first genuine packet (the
// signalled address's, or a NAT's translation of it) and again after a new
// address is signalled; a datagram from any other source is dropped, so a
// stranger cannot take over a call's audio.
class RtpSession final : public MediaTransport, private RtpIoService::Handler {
public:
    // Idle until bound, Closing while it leaves its worker; a closed session
    // is not opened again.
    enum class State : uint8_t { Idle, Open, Closing, Closed };

    RtpSession(std::shared_ptr<RtpIoService> io, RtpSessionOptions options);
    // Closes if still open, with a minimal RTCP BYE. Not from the session's
    // own sink callback: the worker is still running this session's code.
    ~RtpSession() override;
    RtpSession(const RtpSession&) = delete;
    RtpSession& operator=(const RtpSession&) = delete;

    // Takes a port pair from the pool. Only from Idle.
    [[nodiscard]] bool open(std::shared_ptr<RtpPortAllocator::Pool> pool);
    // Binds RTP on `rtpAddress` and RTCP on the next port. Only from Idle.
    [[nodiscard]] bool bind(const net::SocketAddress& rtpAddress);

    [[nodiscard]] State state() const;
    [[nodiscard]] uint16_t localPort() const;
    // The signalled remote. Without `rtcp`, RTCP goes to the RTP port + 1.
    // A new RTP address opens the latch again; the same one again (a
    // refreshed offer) keeps what latching learned.
    void setRemote(const net::SocketAddress& rtp, std::optional<net::SocketAddress> rtcp = std::nullopt);
    // Where RTP goes now: signalled or latched; nothing before either.
    [[nodiscard]] std::optional<net::SocketAddress> remote() const;
    [[nodiscard]] std::optional<net::SocketAddress> remoteRtcp() const;
    [[nodiscard]] RtpSessionStats stats() const;

    // What sees every datagram on the session's sockets before RTP does: ICE
    // answers its connectivity checks here and unwraps media a TURN server
    // relayed. Called on the worker's thread, like the sink.
    class Interceptor {
    public:
        // True when the datagram was taken (a STUN message, relayed media
        // already handed on with `deliver`); false lets it go on as media.
        virtual bool onDatagram(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& from,
                                int64_t arrivalUs) = 0;
        // Every worker iteration, before the sink's tick: check pacing and
        // retransmissions hang on it.
        virtual void onTick(int64_t nowUs) { (void)nowUs; }

    protected:
        ~Interceptor() = default;
    };
    // Null removes it; like `detach`, returns once no call into the old one runs.
    void setInterceptor(Interceptor* interceptor);
    // Sends from one of the session's sockets to any address (checks, TURN
    // requests, wrapped media); false when that socket is not open.
    bool sendFrom(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& to);
    // Media an interceptor unwrapped, handed on as if it had come from `from`.
    void deliver(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& from, int64_t arrivalUs);
    // Where ICE found the far end: media goes there and comes only from there;
    // latching has nothing left to learn.
    void setChosenRemote(Channel channel, const net::SocketAddress& address);

    // MediaTransport.
    bool send(Channel channel, std::span<const uint8_t> bytes) override;
    void attach(Sink* sink) override;
    void detach() override;
    [[nodiscard]] bool hasRtcp() const override;
    void close(std::span<const uint8_t> finalRtcp) override;

    // Per socket and worker iteration, so one flooded session cannot starve
    // the others on its worker.
    static constexpr size_t kMaxReadsPerPoll = 32;

private:
    // RtpIoService::Handler, on the worker's thread.
    void appendSockets(std::vector<net::PollEntry>& entries) const override;
    void onPoll(std::span<const net::PollEntry> found, int64_t nowUs) override;

    // Registers with the I/O service; a failure leaves the session Idle and
    // the caller gives the port back.
    [[nodiscard]] bool start(net::Socket rtp, net::Socket rtcp, uint16_t port,
                             std::shared_ptr<RtpPortAllocator::Pool> pool);
    void readAll(Channel channel, net::Socket& socket);
    // Admission, latching and statistics; false: the datagram is dropped.
    // Only an `authentic` datagram (the sink's word) may latch.
    [[nodiscard]] bool account(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& from,
                               int64_t arrivalUs, bool authentic);
    // One channel's addresses. Under mutex_.
    struct Path {
        std::optional<net::SocketAddress> signalled;
        std::optional<net::SocketAddress> latched;  // the source the latch took
        std::optional<net::SocketAddress> remote;   // where we send
        bool latchOpen = true;
    };
    [[nodiscard]] bool admit(Channel channel, bool genuine, const net::SocketAddress& from);
    [[nodiscard]] std::vector<uint8_t> byeCompound() const;

    const std::shared_ptr<RtpIoService> io_;
    const RtpSessionOptions options_;
    const uint64_t key_;  // this session's key in the I/O service

    // Guards everything below except the sink (sinkMutex_). The sockets change only while the session is
    // not registered with a worker, so the worker reads them without it.
    mutable std::mutex mutex_;
    State state_ = State::Idle;
    net::Socket rtp_;
    net::Socket rtcp_;  // invalid when RTCP is off or could not be bound
    uint16_t port_ = 0;
    std::shared_ptr<RtpPortAllocator::Pool> pool_;  // null for an explicit bind
    Path rtpPath_;
    Path rtcpPath_;
    bool strangerLogged_ = false;
    RtpSessionStats stats_;
    InterarrivalJitter jitter_;
    std::optional<uint32_t> lastSsrc_;

    // Held while the sink is called, so `detach` waits for a running call;
    // recursive so the sink may detach or close from inside its callback.
    std::recursive_mutex sinkMutex_;
    Sink* sink_ = nullptr;
    Interceptor* interceptor_ = nullptr;  // under sinkMutex_
};

[[nodiscard]] std::string_view toString(RtpSession::State state);

}  // namespace kelsip
