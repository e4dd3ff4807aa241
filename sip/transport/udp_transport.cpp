// SIP over UDP: the receive thread polls its socket and a waker; sends go
// out directly under the transport's lock.
#include "sip/transport/udp_transport.h"

#include <vector>

#include "sip/core/log.h"
#include "sip/net/stun_message.h"

namespace kelsip {

UdpTransport::UdpTransport(EventLoop& loop, UdpTransportConfig config) : loop_(loop), config_(std::move(config)) {}

UdpTransport::~UdpTransport() { close(); }

bool UdpTransport::open(std::string* error) {
    auto fail = [&](const char* text) {
        log::error(kTransportLogTag, text);
        if (error != nullptr) *error = text;
        socket_.close();
        return false;
    };
    socket_ = net::Socket::open(config_.bindAddress.family(), net::SocketType::Udp);
    if (!socket_.valid()) return fail("cannot open UDP socket");
    (void)socket_.setBufferSizes(config_.socketBufferBytes);
    if (!socket_.bind(config_.bindAddress)) return fail("cannot bind UDP");
    if (!socket_.setNonBlocking(true)) return fail("cannot bind UDP");
    local_ = socket_.localAddress().value_or(config_.bindAddress);
    log::info(kTransportLogTag, "UDP transport listening on " + local_.toString());
    stopping_ = false;
    thread_ = std::thread([this] { receiveLoop(); });
    return true;
}

void UdpTransport::close() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    waker_.wake();
    thread_.join();
    std::lock_guard lock(sendMutex_);
    socket_.close();
}

net::SocketAddress UdpTransport::localAddress() const { return local_; }

bool UdpTransport::send(std::string_view data, const SipTarget& target) {
    std::lock_guard lock(sendMutex_);
    if (!socket_.valid()) return false;
    const net::IoResult r = socket_.sendTo(data.data(), data.size(), target.address);
    if (!r.ok()) {
        log::warn(kTransportLogTag, "send to " + target.address.toString() + " failed");
        return false;
    }
    if (log::enabled(LogLevel::Debug)) {
        log::debug(kTransportLogTag, "SEND UDP " + std::to_string(data.size()) + " bytes to " +
                                         target.address.toString() + "\n" + std::string(data));
    }
    return true;
}

void UdpTransport::receiveLoop() {
    std::vector<char> buffer(kReceiveBufferBytes + 1);
    net::PollEntry entries[2] = {{socket_.native(), true, false}, {waker_.native(), true, false}};
    while (!stopping_) {
        // Sleeps until a datagram or a wake-up comes. Only without a waker does
        // it look again now and then, to notice a stop.
        if (net::poll(entries, waker_.valid() ? -1 : 200) <= 0) continue;
        if (entries[1].readable) waker_.drain();
        if (!entries[0].readable && !entries[0].error) continue;
        for (;;) {
            net::SocketAddress from;
            const net::IoResult r = socket_.receiveFrom(buffer.data(), kReceiveBufferBytes, from);
            if (!r.ok()) break;
            buffer[r.bytes] = '\0';
            // Line breaks alone are a keep-alive, not a message.
            const std::string_view bytes(buffer.data(), r.bytes);
            if (bytes.find_first_not_of("\r\n") == std::string_view::npos) continue;
            // STUN shares the socket (RFC 5626 keep-alives, the binding that
            // tells our public address); SIP never starts with a byte below 4.
            const auto* raw = reinterpret_cast<const uint8_t*>(buffer.data());
            if (stun::looksLikeStun({raw, r.bytes})) {
                if (stunHandler_) {
                    loop_.post([handler = stunHandler_, datagram = std::vector<uint8_t>(raw, raw + r.bytes), from] {
                        handler(datagram, from);
                    });
                }
                continue;
            }
            deliver(loop_, bytes, SipTarget{TransportKind::Udp, from, 0},
                    "dropping malformed message from ");
        }
    }
}

}  // namespace kelsip
