// Loopback helpers the RTP session and I/O service tests share.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <vector>

#include "media/rtp/media_transport.h"
#include "sip/net/socket.h"
#include "support/free_port.h"
#include "support/wait.h"

namespace kelsip::test {

using Bytes = std::vector<uint8_t>;

inline constexpr std::chrono::seconds kDeadline{5};

inline net::SocketAddress loopback(unsigned port = 0) {
    return net::SocketAddress::loopback(net::AddressFamily::V4, static_cast<uint16_t>(port));
}

inline net::Socket boundUdp(unsigned port = 0) {
    net::Socket s = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    return s.bind(loopback(port)) ? std::move(s) : net::Socket{};
}

// An even port starting `count` consecutive free ports; 0 when none was found.
inline uint16_t freePortRun(unsigned count) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        const unsigned first = freeLoopbackPort() & ~1u;
        std::vector<net::Socket> probe;
        for (unsigned i = 0; i < count && first > 0 && first + count <= 0x10000; ++i) {
            probe.push_back(boundUdp(first + i));
            if (!probe[i].valid()) break;
        }
        if (probe.size() == count && probe[count - 1].valid()) return static_cast<uint16_t>(first);
    }
    return 0;
}

// One datagram within the deadline, or nothing.
inline std::optional<Bytes> receive(net::Socket& socket) {
    net::PollEntry entry{socket.native(), true, false};
    Bytes buffer(2048);
    net::SocketAddress from;
    if (net::poll(std::span(&entry, 1), 5000) <= 0) return std::nullopt;
    const net::IoResult r = socket.receiveFrom(buffer.data(), buffer.size(), from);
    buffer.resize(r.bytes);
    return r.ok() ? std::optional(buffer) : std::nullopt;
}

// Version 2, sequence 0, no CSRCs, extension or padding.
inline Bytes rtpPacket(uint32_t timestamp, size_t payloadSize, uint32_t ssrc = 0x1234) {
    Bytes b = {0x80, 0x00, 0x00, 0x00};
    for (const uint32_t word : {timestamp, ssrc}) {
        for (int shift = 24; shift >= 0; shift -= 8) b.push_back(static_cast<uint8_t>(word >> shift));
    }
    b.resize(12 + payloadSize, 0xd5);
    return b;
}

inline void sendTo(net::Socket& socket, const Bytes& bytes, const net::SocketAddress& to) {
    EXPECT_TRUE(socket.sendTo(bytes.data(), bytes.size(), to).ok());
}

// Counts what a transport delivers and keeps the last RTCP packet; `late`
// counts callbacks after the test set `detached`.
struct RecordingSink : MediaTransport::Sink {
    void onPacket(MediaTransport::Channel channel, std::span<const uint8_t> bytes, int64_t) override {
        late += detached ? 1 : 0;
        if (channel == MediaTransport::Channel::Rtcp) {
            const std::lock_guard lock(mutex);
            lastRtcp.assign(bytes.begin(), bytes.end());
        }
        ++(channel == MediaTransport::Channel::Rtp ? rtp : rtcp);
    }
    void onTick(int64_t) override { late += detached ? 1 : 0; }
    bool waitFor(int rtpCount, int rtcpCount = 0) {
        return test::waitFor([&] { return rtp >= rtpCount && rtcp >= rtcpCount; }, kDeadline);
    }

    std::atomic<int> rtp{0}, rtcp{0}, late{0};
    std::atomic<bool> detached{false};
    std::mutex mutex;
    Bytes lastRtcp;
};

}  // namespace kelsip::test
