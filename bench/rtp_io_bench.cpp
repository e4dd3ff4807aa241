// RTP packets per second one I/O worker reads and hands to its sessions'
// sinks: N sessions on loopback, one sender blasting 172-byte packets. And
// the same sessions fed at a call's pace, 50 packets a second each with the
// calls out of phase, to count the worker's system calls per packet under
// strace; and how long closing or abandoning 1,000 sessions takes.
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

// `state.range(0)` sessions on loopback feeding `sink`, and where to send to each.
bool openSessions(benchmark::State& state, const std::shared_ptr<kelsip::RtpIoService>& io, CountingSink& sink,
                  std::vector<std::unique_ptr<kelsip::RtpSession>>& sessions, std::vector<SocketAddress>& targets) {
    const auto loopback = SocketAddress::loopback(kelsip::net::AddressFamily::V4);
    for (int64_t i = 0; i < state.range(0); ++i) {
        auto s = std::make_unique<kelsip::RtpSession>(io, kelsip::RtpSessionOptions{loopback, false, true, 8000});
        if (!s->bind(loopback)) {
            state.SkipWithError("cannot bind an RTP session");
            return false;
        }
        s->attach(&sink);
        targets.push_back(SocketAddress::loopback(kelsip::net::AddressFamily::V4, s->localPort()));
        sessions.push_back(std::move(s));
    }
    return true;
}

void BM_RtpWorkerPackets(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);  // one latching line per session is noise here
    const auto loopback = SocketAddress::loopback(kelsip::net::AddressFamily::V4);
    CountingSink sink;
    auto io = std::make_shared<kelsip::RtpIoService>();  // up to 16 sessions: one worker
    std::vector<std::unique_ptr<kelsip::RtpSession>> sessions;
    std::vector<SocketAddress> targets;
    if (!openSessions(state, io, sink, sessions, targets)) return;
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

// One iteration is one 20 ms packet time: each session gets one packet, the
// sends spread evenly over it as independent calls' packets are.
void BM_RtpWorkerPaced(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    const auto loopback = SocketAddress::loopback(kelsip::net::AddressFamily::V4);
    CountingSink sink;
    auto io = std::make_shared<kelsip::RtpIoService>();
    std::vector<std::unique_ptr<kelsip::RtpSession>> sessions;
    std::vector<SocketAddress> targets;
    if (!openSessions(state, io, sink, sessions, targets)) return;
    auto sender = kelsip::net::Socket::open(kelsip::net::AddressFamily::V4, kelsip::net::SocketType::Udp);
    (void)sender.bind(loopback);
    const auto bytes = packet();
    const auto step = std::chrono::microseconds(20000) / targets.size();
    auto next = std::chrono::steady_clock::now();
    for (auto _ : state) {
        for (const SocketAddress& to : targets) {
            std::this_thread::sleep_until(next);
            (void)sender.sendTo(bytes.data(), bytes.size(), to);
            next += step;
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    const int64_t sent = state.iterations() * static_cast<int64_t>(targets.size());
    while (sink.received.load() < sent && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    state.counters["packets"] = static_cast<double>(sink.received.load());
    for (auto& s : sessions) s->close({});
}
BENCHMARK(BM_RtpWorkerPaced)->Arg(16)->Iterations(250)->UseRealTime();

// 1,000 sessions spread over workers of 16, then closed one by one (Arg 1),
// or destroyed with the last reference to the service, whose workers are
// joined then (Arg 0): the time either takes.
void BM_RtpServiceTeardown(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    const auto loopback = SocketAddress::loopback(kelsip::net::AddressFamily::V4);
    const bool closeEach = state.range(0) != 0;
    double seconds = 0;
    for (auto _ : state) {
        auto io = std::make_shared<kelsip::RtpIoService>();
        std::vector<std::unique_ptr<kelsip::RtpSession>> sessions;
        for (int i = 0; i < 1000; ++i) {
            sessions.push_back(
                std::make_unique<kelsip::RtpSession>(io, kelsip::RtpSessionOptions{loopback, false, true, 8000}));
            if (!sessions.back()->bind(loopback)) {
                state.SkipWithError("cannot bind an RTP session");
                return;
            }
        }
        state.counters["workers"] = static_cast<double>(io->workerCount());
        const auto start = std::chrono::steady_clock::now();
        if (closeEach) {
            for (auto& s : sessions) s->close({});
        } else {
            io.reset();  // the sessions still hold it: the last of them ends it below
            sessions.clear();
        }
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    state.counters["ms"] = seconds * 1000 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_RtpServiceTeardown)->Arg(1)->Arg(0)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
