// RTP port pairs: a round-robin search from where the last one ended, so a
// port just given back is not reused at once (late packets of the old call
// would land in the new one).
#include "media/rtp/rtp_port_allocator.h"

#include <string>

#include "sip/core/log.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "Rtp";

std::optional<net::Socket> boundUdp(const net::SocketAddress& address, net::SocketFailure& failure) {
    net::Socket s = net::Socket::open(address.family(), net::SocketType::Udp, &failure);
    if (!s.valid() || !s.bind(address)) return std::nullopt;
    return s;
}

}  // namespace

RtpPortAllocator::RtpPortAllocator(uint16_t minPort, uint16_t maxPort) : pool_(std::make_shared<Pool>()) {
    pool_->minPort = minPort;
    pool_->maxPort = maxPort;
    pool_->nextPort = minPort;
}

std::optional<RtpPortAllocator::PortPair> RtpPortAllocator::allocate(Pool& pool, const net::SocketAddress& local) {
    const std::lock_guard lock(pool.mutex);
    if (pool.maxPort <= pool.minPort) return std::nullopt;
    const unsigned attempts = (unsigned{pool.maxPort} - pool.minPort) / 2 + 1;
    unsigned failed = 0;
    // Both an occupied pair and one that will not bind use up an attempt, so
    // the search ends even when other programs hold every port.
    while (failed < attempts) {
        const unsigned candidate = pool.nextPort;
        const unsigned next = candidate + 2;
        pool.nextPort = (next + 1 > pool.maxPort || next < pool.minPort) ? pool.minPort : static_cast<uint16_t>(next);

        if (pool.inUse.contains(static_cast<uint16_t>(candidate))) {
            ++failed;
            continue;
        }
        // The RTCP port must exist: a pair cannot straddle 65535.
        if (candidate + 1 > 0xffff) return std::nullopt;
        net::SocketAddress rtpAddress = local;
        rtpAddress.setPort(static_cast<uint16_t>(candidate));
        net::SocketAddress rtcpAddress = local;
        rtcpAddress.setPort(static_cast<uint16_t>(candidate + 1));

        net::SocketFailure failure = net::SocketFailure::None;
        auto rtp = boundUdp(rtpAddress, failure);
        auto rtcp = rtp ? boundUdp(rtcpAddress, failure) : std::nullopt;
        // No other port would do better: the ports are not what ran out.
        if (net::isExhaustion(failure)) {
            log::error(kTag, "cannot open RTP sockets: " + std::string(net::failureText(failure)));
            return std::nullopt;
        }
        if (!rtp || !rtcp) {
            ++failed;  // the sockets close as they go out of scope
            continue;
        }
        pool.inUse.insert(static_cast<uint16_t>(candidate));
        return PortPair{std::move(*rtp), std::move(*rtcp), static_cast<uint16_t>(candidate)};
    }
    log::error(kTag, "RTP port range exhausted");
    return std::nullopt;
}

void RtpPortAllocator::release(Pool& pool, uint16_t port) {
    const std::lock_guard lock(pool.mutex);
    pool.inUse.erase(port);
}

}  // namespace kelsip
