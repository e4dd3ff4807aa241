// RTP packets per second one I/O worker reads and hands to its sessions'
// sinks: N sessions on loopback, one sender blasting 172-byte packets.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "media/rtp/rtp_session.h"
#include "sip/core/log.h"

namespace {

using kelsip::MediaTransport;
using kelsip::net::SocketAddress;

class CountingSink : public MediaTransport::Sink {
public:
    void onPacket(MediaTransport::Channel, std::span<const uint8_t>, int64_t) override {
        received.fetch_add(1, std::memory_order_relaxed);
    }
    std::atomic<int64_t> received{0};
};

// A G.711 packet of 20 ms: the 12-byte header and 160 samples.
std::vector<uint8_t> packet() {
    std::vector<uint8_t> p(172, 0xd5);
    p[0] = 0x80;
    return p;
}

void BM_RtpWorkerPackets(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);  // one latching line per session is noise here
    const auto loopback = SocketAddress::loopback(kelsip::net::AddressFamily::V4);
    CountingSink sink;
    auto io = std::make_shared<kelsip::RtpIoService>();  // up to 16 sessions: one worker
    std::vector<std::unique_ptr<kelsip::RtpSession>> sessions;
    std::vector<SocketAddress> targets;
    for (int64_t i = 0; i < state.range(0); ++i) {
        auto s = std::make_unique<kelsip::RtpSession>(io, kelsip::RtpSessionOptions{loopback, false, true, 8000});
        if (!s->bind(loopback)) {
            state.SkipWithError("cannot bind an RTP session");
            return;
        }
        s->attach(&sink);
        targets.push_back(SocketAddress::loopback(kelsip::net::AddressFamily::V4, s->localPort()));
        sessions.push_back(std::move(s));
    }
    auto sender = kelsip::net::Socket::open(kelsip::net::AddressFamily::V4, kelsip::net::SocketType::Udp);
    (void)sender.bind(loopback);
    const auto bytes = packet();
    const int64_t burst = 64;  // small enough that no socket buffer overflows
    int64_t sent = 0;
    size_t next = 0;
    for (auto _ : state) {
        for (int64_t i = 0; i < burst; ++i) {
            (void)sender.sendTo(bytes.data(), bytes.size(), targets[next]);
            next = (next + 1) % targets.size();
        }
        sent += burst;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (sink.received.load(std::memory_order_relaxed) < sent) {
            if (std::chrono::steady_clock::now() > deadline) {
                state.SkipWithError("packets were lost on loopback");
                break;
            }
            std::this_thread::yield();  // two cores: the worker needs one
        }
    }
    state.SetItemsProcessed(sink.received.load());
    state.SetBytesProcessed(sink.received.load() * static_cast<int64_t>(bytes.size()));
    state.counters["workers"] = static_cast<double>(io->workerCount());
    for (auto& s : sessions) s->close({});
}
BENCHMARK(BM_RtpWorkerPackets)->Arg(1)->Arg(4)->Arg(16)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
