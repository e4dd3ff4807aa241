// Helpers of the DNS tests: wire messages, a client in virtual time, a silent server.
#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include "sip/core/event_loop.h"
#include "sip/dns/dns_client.h"
#include "sip/net/socket.h"

namespace kelsip::test {

// A DNS message written field by field; anything malformed by hand with raw().
class Wire {
public:
    Wire& u8(unsigned v) {
        bytes_.push_back(static_cast<uint8_t>(v));
        return *this;
    }
    Wire& u16(unsigned v) { return u8((v >> 8) & 0xFF).u8(v & 0xFF); }
    Wire& u32(uint32_t v) { return u16(v >> 16).u16(v & 0xFFFF); }
    Wire& raw(std::initializer_list<unsigned> values) {
        for (const unsigned v : values) u8(v);
        return *this;
    }
    Wire& text(std::string_view s) {
        for (const char c : s) u8(static_cast<unsigned char>(c));
        return *this;
    }
    // "a.bc" -> 1 'a' 2 'b' 'c' 0
    Wire& name(std::string_view dotted) {
        while (!dotted.empty()) {
            const size_t dot = dotted.find('.');
            const std::string_view label = dotted.substr(0, dot);
            u8(static_cast<unsigned>(label.size())).text(label);
            dotted.remove_prefix(dot == std::string_view::npos ? dotted.size() : dot + 1);
        }
        return u8(0);
    }
    Wire& pointer(size_t offset) { return u8(0xC0 | ((offset >> 8) & 0x3F)).u8(offset & 0xFF); }
    Wire& string(std::string_view s) { return u8(static_cast<unsigned>(s.size())).text(s); }
    // Type, class IN, TTL and the data length of a record whose name was just written.
    Wire& record(unsigned type, uint32_t ttl, unsigned dataLength) { return u16(type).u16(1).u32(ttl).u16(dataLength); }
    [[nodiscard]] size_t size() const { return bytes_.size(); }
    [[nodiscard]] const std::vector<uint8_t>& bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
};

// The 12-byte header: a response (QR) with the given flags and counts.
inline Wire responseHeader(unsigned id, unsigned flags, unsigned qd, unsigned an, unsigned ns = 0, unsigned ar = 0) {
    Wire w;
    w.u16(id).u16(0x8000 | flags).u16(qd).u16(an).u16(ns).u16(ar);
    return w;
}

// Runs the loop's due work until `condition` holds; false when `timeout` passes first.
template <typename F>
bool runUntil(EventLoop& loop, F&& condition, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        loop.runDue();
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::yield();
    }
}

struct VirtualClient {
    explicit VirtualClient(dns::DnsClientOptions options)
        : clock(std::make_shared<ManualClock>()), loop(clock), client(loop, std::move(options)) {}
    // Starts a lookup whose answer lands in the returned slot.
    std::shared_ptr<std::optional<dns::DnsAnswer>> query(std::string_view name, dns::RecordType type) {
        auto slot = std::make_shared<std::optional<dns::DnsAnswer>>();
        client.query(name, type, [slot](const dns::DnsAnswer& a) { *slot = a; });
        return slot;
    }
    bool waitSent(uint64_t n) {
        return runUntil(loop, [&] { return client.stats().udpQueriesSent >= n; });
    }
    bool waitAnswer(const std::shared_ptr<std::optional<dns::DnsAnswer>>& slot) {
        return runUntil(loop, [&] { return slot->has_value(); });
    }
    void advance(std::chrono::milliseconds d) { advanceVirtualTime(loop, *clock, d); }
    std::shared_ptr<ManualClock> clock;
    EventLoop loop;
    dns::DnsClient client;
};

// A UDP socket on 127.0.0.1 that never answers: a name server gone silent.
struct SilentServer {
    SilentServer() {
        socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
        if (socket.valid() && socket.bind(net::SocketAddress::loopback(net::AddressFamily::V4))) {
            if (auto local = socket.localAddress()) address = *local;
        }
    }
    size_t drain() {
        if (!socket.setNonBlocking(true)) return 0;
        size_t count = 0;
        uint8_t buffer[1500];
        net::SocketAddress from;
        while (socket.receiveFrom(buffer, sizeof buffer, from).ok()) ++count;
        return count;
    }
    net::Socket socket;
    net::SocketAddress address;
};

}  // namespace kelsip::test
