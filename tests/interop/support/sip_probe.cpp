// OPTIONS from a raw socket, matched to its answer by Call-ID.
#include "interop/support/sip_probe.h"

#include <atomic>

#include "sip/syntax/message.h"
#include "sip/net/socket.h"

namespace kelsip::test {

int sendOptions(const net::SocketAddress& to, const std::string& requestUri, std::chrono::milliseconds timeout) {
    net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    if (!socket.valid() || !socket.setNonBlocking(true) ||
        !socket.bind(net::SocketAddress::loopback(net::AddressFamily::V4))) {
        return 0;
    }
    const auto local = socket.localAddress();
    if (!local) return 0;
    static std::atomic<unsigned> counter{0};
    const std::string id = std::to_string(local->port()) + "x" + std::to_string(++counter);
    const std::string request = "OPTIONS " + requestUri + " SIP/2.0\r\n"
                                "Via: SIP/2.0/UDP " + local->toString() + ";rport;branch=z9hG4bKprobe" + id + "\r\n"
                                "Max-Forwards: 70\r\n"
                                "From: <sip:probe@" + local->toString() + ">;tag=probe" + id + "\r\n"
                                "To: <" + requestUri + ">\r\n"
                                "Call-ID: probe-" + id + "\r\n"
                                "CSeq: 1 OPTIONS\r\n"
                                "Content-Length: 0\r\n\r\n";
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    auto nextSend = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::chrono::steady_clock::now() >= nextSend) {
            static_cast<void>(socket.sendTo(request.data(), request.size(), to));
            nextSend += std::chrono::milliseconds(250);
        }
        net::PollEntry entry;
        entry.socket = socket.native();
        entry.wantRead = true;
        if (net::poll(std::span<net::PollEntry>(&entry, 1), 20) <= 0 || !entry.readable) continue;
        char buffer[65536];
        net::SocketAddress from;
        const auto r = socket.receiveFrom(buffer, sizeof buffer, from);
        if (!r.ok()) continue;
        const auto answer = SipMessage::parse(std::string_view(buffer, r.bytes));
        if (!answer || answer->isRequest || answer->statusCode < 200) continue;
        if (answer->header("Call-ID") != "probe-" + id) continue;
        return answer->statusCode;
    }
    return 0;
}

}  // namespace kelsip::test
