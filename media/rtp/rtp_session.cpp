// The RTP session: binding, the worker's receive path (latching, statistics,
// the sink) and closing with a final RTCP packet.
#include "media/rtp/rtp_session.h"

#include <atomic>
#include <string>
#include <utility>

#include "media/rtp/rtcp_packet.h"
#include "media/rtp/rtp_packet.h"
#include "media/rtp/rtp_receive_batch.h"
#include "media/rtp/wire_bytes.h"
#include "sip/core/log.h"
#include "sip/core/system.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "Rtp";
constexpr size_t kRtcpHeaderSize = 8;  // the header and the sender's SSRC

uint64_t nextSessionKey() {
    static std::atomic<uint64_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

[[nodiscard]] bool isVersion2(std::span<const uint8_t> bytes, size_t minimum) {
    return bytes.size() >= minimum && (bytes[0] >> 6) == 2;
}

// The payload as RFC 3550 counts octets: after the fixed header, CSRCs and
// header extension, without padding. 0 when the fields do not fit.
[[nodiscard]] size_t payloadLength(std::span<const uint8_t> b) {
    size_t header = RtpPacket::kFixedHeaderSize + 4u * (b[0] & 0x0fu);
    if ((b[0] & 0x10u) != 0) {
        if (b.size() < header + 4) return 0;
        header += 4 + 4u * wire::get16(b, header + 2);
    }
    const size_t padding = (b[0] & 0x20u) != 0 ? b.back() : 0;
    return header + padding <= b.size() ? b.size() - header - padding : 0;
}

// RTCP on the port after RTP, unless RTP sits on the last port there is.
[[nodiscard]] std::optional<net::SocketAddress> nextPort(net::SocketAddress address) {
    if (address.port() == 0xffff) return std::nullopt;
    address.setPort(static_cast<uint16_t>(address.port() + 1));
    return address;
}

[[nodiscard]] std::optional<net::Socket> openUdp(const net::SocketAddress& address) {
    net::Socket s = net::Socket::open(address.family(), net::SocketType::Udp);
    if (!s.valid() || !s.bind(address) || !s.setNonBlocking(true)) return std::nullopt;
    return s;
}

}  // namespace

std::string_view toString(RtpSession::State state) {
    switch (state) {
        case RtpSession::State::Idle: return "idle";
        case RtpSession::State::Open: return "open";
        case RtpSession::State::Closing: return "closing";
        case RtpSession::State::Closed: return "closed";
    }
    return "unknown";
}

RtpSession::RtpSession(std::shared_ptr<RtpIoService> io, RtpSessionOptions options)
    : io_(std::move(io)), options_(std::move(options)), key_(nextSessionKey()), jitter_(options_.clockRate) {}

RtpSession::~RtpSession() { close({}); }

bool RtpSession::open(std::shared_ptr<RtpPortAllocator::Pool> pool) {
    if (!pool || state() != State::Idle) return false;
    auto pair = RtpPortAllocator::allocate(*pool, options_.local);
    if (!pair) return false;  // the allocator said what ran out
    if (!pair->rtp.setNonBlocking(true) || !pair->rtcp.setNonBlocking(true)) {
        log::error(kTag, "cannot bind RTP");
        RtpPortAllocator::release(*pool, pair->port);
        return false;
    }
    // With RTCP off nothing would read the odd port: its socket is let go
    // rather than left to fill with packets. The pool still counts the pair.
    net::Socket rtcp = options_.rtcp ? std::move(pair->rtcp) : net::Socket{};
    if (start(std::move(pair->rtp), std::move(rtcp), pair->port, pool)) return true;
    RtpPortAllocator::release(*pool, pair->port);
    return false;
}

bool RtpSession::bind(const net::SocketAddress& rtpAddress) {
    if (state() != State::Idle) return false;
    auto rtp = openUdp(rtpAddress);
    const auto bound = rtp ? rtp->localAddress() : std::nullopt;
    if (!bound) {
        log::error(kTag, "cannot bind RTP");
        return false;
    }
    net::Socket rtcp;
    if (options_.rtcp) {
        const auto rtcpAddress = nextPort(*bound);
        auto socket = rtcpAddress ? openUdp(*rtcpAddress) : std::nullopt;
        if (socket) {
            rtcp = std::move(*socket);
        } else {
            log::warn(kTag, "cannot bind RTCP " + (rtcpAddress ? rtcpAddress->toString() : bound->host()) +
                                ", RTCP disabled");
        }
    }
    return start(std::move(*rtp), std::move(rtcp), bound->port(), nullptr);
}

bool RtpSession::start(net::Socket rtp, net::Socket rtcp, uint16_t port,
                       std::shared_ptr<RtpPortAllocator::Pool> pool) {
    {
        const std::lock_guard lock(mutex_);
        if (state_ != State::Idle) return false;
        rtp_ = std::move(rtp);
        rtcp_ = std::move(rtcp);
        port_ = port;
        pool_ = std::move(pool);
        state_ = State::Open;
    }
    if (io_ && io_->add(key_, *this) == RtpIoService::AddResult::Added) return true;
    const std::lock_guard lock(mutex_);
    rtp_.close();
    rtcp_.close();
    port_ = 0;
    pool_.reset();
    state_ = State::Idle;
    return false;
}

RtpSession::State RtpSession::state() const {
    const std::lock_guard lock(mutex_);
    return state_;
}

uint16_t RtpSession::localPort() const {
    const std::lock_guard lock(mutex_);
    return port_;
}

void RtpSession::setRemote(const net::SocketAddress& rtp, std::optional<net::SocketAddress> rtcp) {
    const std::lock_guard lock(mutex_);
    // A refreshed offer naming the same address keeps what latching learned;
    // a new address is a new media path, whose first source may latch. The
    // old path's sources are strangers from then on.
    if (rtpPath_.signalled == rtp && !rtpPath_.latchOpen) return;
    rtpPath_ = Path{rtp, std::nullopt, rtp, true};
    const auto rtcpAddress = rtcp ? rtcp : nextPort(rtp);
    rtcpPath_ = Path{rtcpAddress, std::nullopt, rtcpAddress, true};
}

std::optional<net::SocketAddress> RtpSession::remote() const {
    const std::lock_guard lock(mutex_);
    return rtpPath_.remote;
}

std::optional<net::SocketAddress> RtpSession::remoteRtcp() const {
    const std::lock_guard lock(mutex_);
    return rtcpPath_.remote;
}

RtpSessionStats RtpSession::stats() const {
    const std::lock_guard lock(mutex_);
    RtpSessionStats s = stats_;
    s.jitter = jitter_.value();
    return s;
}

bool RtpSession::send(Channel channel, std::span<const uint8_t> bytes) {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Open) return false;
    net::Socket& socket = channel == Channel::Rtp ? rtp_ : rtcp_;
    const auto& to = (channel == Channel::Rtp ? rtpPath_ : rtcpPath_).remote;
    if (!socket.valid() || !to) return false;
    return socket.sendTo(bytes.data(), bytes.size(), *to).ok();
}

void RtpSession::setInterceptor(Interceptor* interceptor) {
    const std::lock_guard lock(sinkMutex_);
    interceptor_ = interceptor;
}

bool RtpSession::sendFrom(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& to) {
    const std::lock_guard lock(mutex_);
    if (state_ != State::Open) return false;
    net::Socket& socket = channel == Channel::Rtp ? rtp_ : rtcp_;
    return socket.valid() && socket.sendTo(bytes.data(), bytes.size(), to).ok();
}

void RtpSession::deliver(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& from,
                         int64_t arrivalUs) {
    const std::lock_guard lock(sinkMutex_);
    const bool authentic = sink_ == nullptr || sink_->authentic(channel, bytes);
    if (!account(channel, bytes, from, arrivalUs, authentic)) return;
    if (sink_ != nullptr) sink_->onPacket(channel, bytes, arrivalUs);
}

void RtpSession::setChosenRemote(Channel channel, const net::SocketAddress& address) {
    const std::lock_guard lock(mutex_);
    Path& path = channel == Channel::Rtp ? rtpPath_ : rtcpPath_;
    if (path.remote != address) log::info(kTag, "media path chosen: " + address.toString());
    path = Path{address, address, address, false};
}

void RtpSession::attach(Sink* sink) {
    const std::lock_guard lock(sinkMutex_);
    sink_ = sink;
}

void RtpSession::detach() {
    // Waits for a callback running on the worker; returns at once inside one.
    const std::lock_guard lock(sinkMutex_);
    sink_ = nullptr;
}

bool RtpSession::hasRtcp() const {
    const std::lock_guard lock(mutex_);
    return rtcp_.valid();
}

void RtpSession::close(std::span<const uint8_t> finalRtcp) {
    detach();
    {
        const std::lock_guard lock(mutex_);
        if (state_ != State::Open) return;
        state_ = State::Closing;
    }
    // Not under mutex_: the worker's receive path takes it, and removal waits
    // for that path to finish.
    io_->remove(key_);

    const std::lock_guard lock(mutex_);
    if (rtcp_.valid() && rtcpPath_.remote) {
        std::vector<uint8_t> bye;
        if (finalRtcp.empty()) {
            bye = byeCompound();
            finalRtcp = bye;
        }
        if (!finalRtcp.empty()) (void)rtcp_.sendTo(finalRtcp.data(), finalRtcp.size(), *rtcpPath_.remote);
    }
    rtp_.close();
    rtcp_.close();
    if (pool_) RtpPortAllocator::release(*pool_, port_);
    pool_.reset();
    state_ = State::Closed;
}

std::vector<uint8_t> RtpSession::byeCompound() const {
    // The media session, which knows the real SSRC, normally builds the BYE;
    // this one only tells the far end the stream ended. Without a random SSRC
    // nothing is sent rather than one that might collide with a live source.
    uint32_t ssrc = 0;
    if (!platform::secureRandom(&ssrc, sizeof ssrc)) return {};
    RtcpCompound compound;
    compound.packets.emplace_back(RtcpReceiverReport{ssrc, {}});
    compound.packets.emplace_back(RtcpBye{{ssrc}, {}});
    std::vector<uint8_t> out;
    if (!compound.writeTo(out)) return {};
    return out;
}

void RtpSession::appendSockets(std::vector<net::PollEntry>& entries) const {
    entries.push_back({rtp_.native(), true, false});
    if (rtcp_.valid()) entries.push_back({rtcp_.native(), true, false});
}

void RtpSession::onPoll(std::span<const net::PollEntry> found, int64_t nowUs) {
    const auto ready = [&](size_t i) { return i < found.size() && (found[i].readable || found[i].error); };
    if (ready(0)) readAll(Channel::Rtp, rtp_);
    if (ready(1)) readAll(Channel::Rtcp, rtcp_);
    const std::lock_guard lock(sinkMutex_);
    if (interceptor_ != nullptr) interceptor_->onTick(nowUs);
    if (sink_ != nullptr) sink_->onTick(nowUs);
}

void RtpSession::readAll(Channel channel, net::Socket& socket) {
    // One per worker thread, shared by the sessions it serves in turn; it
    // goes with the thread.
    thread_local RtpReceiveBatch batch;
    // The poll found the socket ready. A batch that comes back short emptied
    // it: the next poll tells when more arrives, and no read is spent to
    // find the socket empty. The socket turns invalid when the sink closed
    // the session from its callback, on this thread.
    for (size_t taken = 0; taken < kMaxReadsPerPoll && socket.valid();) {
        const size_t read = batch.receive(socket);
        const int64_t arrivalUs = RtpIoService::steadyNowUs();
        for (const RtpReceiveBatch::Datagram& d : batch.datagrams()) {
            if (!socket.valid()) break;
            {
                const std::lock_guard lock(sinkMutex_);
                if (interceptor_ != nullptr && interceptor_->onDatagram(channel, d.bytes, d.from, arrivalUs)) continue;
            }
            deliver(channel, d.bytes, d.from, arrivalUs);
        }
        taken += read;
        if (read < RtpReceiveBatch::capacity() || RtpReceiveBatch::capacity() == 1) break;
    }
}

bool RtpSession::account(Channel channel, std::span<const uint8_t> bytes, const net::SocketAddress& from,
                         int64_t arrivalUs, bool authentic) {
    // Only what looks like our protocol may latch or count: a stray datagram
    // (a STUN probe, a scan) must not redirect the call's media. With SRTP
    // this is where the packet is authenticated, so that nothing but an
    // authenticated packet moves the source.
    const bool genuine = authentic && (channel == Channel::Rtp ? isVersion2(bytes, RtpPacket::kFixedHeaderSize)
                                                               : isVersion2(bytes, kRtcpHeaderSize));
    const std::lock_guard lock(mutex_);
    if (!admit(channel, genuine, from)) return false;
    if (channel == Channel::Rtcp || !genuine) return true;
    ++stats_.packets;
    stats_.bytes += payloadLength(bytes);
    // Timestamps of two sources share no base: the estimate starts again.
    const uint32_t ssrc = wire::get32(bytes, 8);
    if (lastSsrc_ != ssrc) {
        jitter_.reset();
        lastSsrc_ = ssrc;
    }
    jitter_.update(wire::get32(bytes, 4), arrivalUs);
    return true;
}

bool RtpSession::admit(Channel channel, bool genuine, const net::SocketAddress& from) {
    Path& path = channel == Channel::Rtp ? rtpPath_ : rtcpPath_;
    const std::string_view what = channel == Channel::Rtp ? "RTP" : "RTCP";
    if (from == path.signalled || from == path.latched) {
        if (!genuine) return true;
        path.latchOpen = false;
        // The signalled address is never a stranger's to claim: media that
        // comes from it (a new media server after a re-offer, where the old
        // one's last packets latched) takes our sending back to it.
        if (options_.symmetricRtp && from == path.signalled && path.remote != from) {
            log::info(kTag, "symmetric " + std::string(what) + ": sending to the signalled " + from.toString() +
                                " again");
            path.remote = from;
        }
        return true;
    }
    if (genuine && path.latchOpen) {
        // The first source decides, also when it is the signalled address:
        // once media flows, no later source can take the call over.
        path.latchOpen = false;
        path.latched = from;
        if (!options_.symmetricRtp) return true;
        log::info(kTag, "symmetric " + std::string(what) + ": latching remote to " + from.toString());
        path.remote = from;
        // RTCP follows to the same host, on the port after the latched one,
        // until RTCP arrives itself and says where it comes from. Behind a
        // NAT the signalled RTCP address is as unreachable as the RTP one.
        if (channel == Channel::Rtp && rtcpPath_.latchOpen) rtcpPath_.remote = nextPort(from);
        return true;
    }
    ++stats_.packetsFromStrangers;
    if (!strangerLogged_) {
        strangerLogged_ = true;
        log::warn(kTag, "dropping " + std::string(what) + " from " + from.toString() +
                            ", not the call's media source (logged once per call)");
    }
    return false;
}

}  // namespace kelsip
