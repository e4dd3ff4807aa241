// UDP messages per second received, parsed and handed to the event loop,
// sent from another socket on loopback.
#include <benchmark/benchmark.h>

#include <atomic>
#include <string>
#include <thread>

#include "sip/transport/udp_transport.h"

namespace {

const std::string kOptions =
    "OPTIONS sip:bob@127.0.0.1 SIP/2.0\r\n"
    "Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK74bf9a1e2c;rport\r\n"
    "Max-Forwards: 70\r\n"
    "From: \"Alice\" <sip:alice@example.com>;tag=9fxced76sl\r\n"
    "To: <sip:bob@example.com>\r\n"
    "Call-ID: 3848276298220188511@example.com\r\n"
    "CSeq: 1 OPTIONS\r\n"
    "Contact: <sip:alice@127.0.0.1:5070>\r\n"
    "Accept: application/sdp\r\n"
    "Content-Length: 0\r\n\r\n";

void BM_UdpReceiveParseToLoop(benchmark::State& state) {
    kelsip::EventLoop loop;
    loop.start();
    std::atomic<int64_t> received{0};
    kelsip::UdpTransport udp(loop, {kelsip::net::SocketAddress::loopback(kelsip::net::AddressFamily::V4), 4 << 20});
    udp.setReceiveHandler([&](kelsip::SipMessage, const kelsip::SipTarget&) { ++received; });
    if (!udp.open(nullptr)) {
        state.SkipWithError("cannot open the UDP transport");
        return;
    }
    auto sender = kelsip::net::Socket::open(kelsip::net::AddressFamily::V4, kelsip::net::SocketType::Udp);
    (void)sender.bind(kelsip::net::SocketAddress::loopback(kelsip::net::AddressFamily::V4));
    const auto to = udp.localAddress();
    const int64_t burst = 64;  // small enough that the socket buffer never drops
    int64_t sent = 0;
    for (auto _ : state) {
        for (int64_t i = 0; i < burst; ++i) (void)sender.sendTo(kOptions.data(), kOptions.size(), to);
        sent += burst;
        // Yield rather than spin: on two cores the receive and loop threads need them.
        while (received.load() < sent) std::this_thread::yield();
    }
    state.SetItemsProcessed(sent);
    state.SetBytesProcessed(sent * static_cast<int64_t>(kOptions.size()));
    udp.close();
    loop.stop();
}
BENCHMARK(BM_UdpReceiveParseToLoop)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
