// Media costs and delays: G.711 per sample, the CPU one full-duplex 20 ms
// session takes (and so how many one core carries), and the delay that
// packetising plus the playout buffer add on a clean network and with 30 ms
// of jitter, measured on the simulated network.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "media/codec/g711.h"
#include "media/session/media_session.h"
#include "sip/core/log.h"
#include "support/network_sim.h"

namespace {

using kelsip::MediaSession;
using kelsip::MediaSessionConfig;
using kelsip::test::CallSimulation;
using kelsip::test::SimNetwork;

std::vector<int16_t> speechLikeFrame(size_t n) {
    std::vector<int16_t> s(n);
    for (size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / 8000.0;
        s[i] = static_cast<int16_t>(6000 * std::sin(2 * M_PI * 220 * t) + 2000 * std::sin(2 * M_PI * 1330 * t));
    }
    return s;
}

// Samples per second and ns per sample of a 160-sample frame loop.
void reportPerSample(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * 160);
    state.counters["ns_per_sample"] = benchmark::Counter(static_cast<double>(state.iterations()) * 160,
                                                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert,
                                                         benchmark::Counter::kIs1000);
    state.SetLabel(state.range(0) ? "PCMU" : "PCMA");
}

void BM_G711Encode(benchmark::State& state) {
    kelsip::G711Codec codec(state.range(0) != 0);
    const auto frame = speechLikeFrame(160);
    std::vector<uint8_t> out;
    out.reserve(160);
    for (auto _ : state) {
        out.clear();
        benchmark::DoNotOptimize(codec.encode(frame.data(), frame.size(), out));
        benchmark::ClobberMemory();
    }
    reportPerSample(state);
}
BENCHMARK(BM_G711Encode)->Arg(1)->Arg(0);

void BM_G711Decode(benchmark::State& state) {
    kelsip::G711Codec codec(state.range(0) != 0);
    const auto frame = speechLikeFrame(160);
    std::vector<uint8_t> coded;
    (void)codec.encode(frame.data(), frame.size(), coded);
    std::vector<int16_t> out;
    out.reserve(160);
    for (auto _ : state) {
        out.clear();
        benchmark::DoNotOptimize(codec.decode(coded.data(), coded.size(), out));
        benchmark::ClobberMemory();
    }
    reportPerSample(state);
}
BENCHMARK(BM_G711Decode)->Arg(1)->Arg(0);

MediaSessionConfig config(SimNetwork& network, uint32_t ssrc) {
    MediaSessionConfig c;
    c.codec.name = "PCMU";
    c.codec.payloadType = 0;
    c.codec.clockRate = 8000;
    c.codec.ptime = 20;
    c.codec.telephoneEventPayloadType = 101;
    c.clock = &network.clock();
    c.ssrc = ssrc;
    c.randomSeed = ssrc;
    return c;
}

// One iteration is 20 ms of a call: both ends capture and play 160 samples
// and the network carries their packets (and RTCP when due), so it costs
// what two sessions do in 20 ms of real time.
void BM_SessionPacketCycle(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    SimNetwork network;
    auto a = MediaSession::create(config(network, 1), network.transport(0));
    auto b = MediaSession::create(config(network, 2), network.transport(1));
    const auto frame = speechLikeFrame(160);
    std::vector<int16_t> out(160);
    int64_t now = 0;
    for (auto _ : state) {
        a->pushCapture(frame);
        b->pushCapture(frame);
        now += 20000;
        network.run(now);
        a->pullPlayout(out);
        b->pullPlayout(out);
        benchmark::DoNotOptimize(out.data());
    }
    // Two sessions per iteration, each with 20 ms of real time to spend.
    state.counters["sessions_per_core"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * 2 * 0.020, benchmark::Counter::kIsRate);
    kelsip::log::setLevel(kelsip::LogLevel::Info);
}
BENCHMARK(BM_SessionPacketCycle);

int16_t noise(uint64_t index) {
    uint64_t x = index * 0x9e3779b97f4a7c15ULL;
    x ^= x >> 29;
    x *= 0xbf58476d1ce4e5b9ULL;
    x ^= x >> 32;
    return static_cast<int16_t>(static_cast<int32_t>(x % 16001) - 8000);
}

// Mouth-to-ear delay of each 20 ms window, found where the played audio
// equals the signal through G.711; windows that match nowhere are skipped.
double averageDelayMs(const std::vector<int16_t>& played, size_t from) {
    double sum = 0;
    int found = 0;
    int64_t lag = 0;
    for (size_t w = from; w + 160 <= played.size(); w += 160) {
        const auto matches = [&](int64_t l) {
            if (l < 0 || l > static_cast<int64_t>(w)) return false;
            for (size_t i = w; i < w + 160; ++i) {
                const auto ref = kelsip::ulawToLinear(kelsip::linearToUlaw(noise(i - static_cast<uint64_t>(l))));
                if (played[i] != ref) return false;
            }
            return true;
        };
        for (int64_t d = 0; d <= 2000; ++d) {
            if (matches(lag + d)) { lag += d; break; }
            if (matches(lag - d)) { lag -= d; break; }
        }
        if (matches(lag)) {
            sum += static_cast<double>(lag) / 8.0;
            ++found;
        }
    }
    return found ? sum / found : -1;
}

// The delay on the simulated network: 20 ms one way, plus a uniform
// 0..jitter ms per packet. Reports the mouth-to-ear delay and what
// packetising and the playout buffer add to the network's mean transit.
void BM_PlayoutDelay(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    const int64_t jitterUs = state.range(0) * 1000;
    double total = 0;
    double concealed = 0;
    for (auto _ : state) {
        SimNetwork network(11);
        network.setConditions(0, {20000, jitterUs, 0, 0, 0, 0, 0});
        auto a = MediaSession::create(config(network, 1), network.transport(0));
        auto b = MediaSession::create(config(network, 2), network.transport(1));
        CallSimulation sim(network, *a, *b, noise);
        sim.run(30 * 1000000);
        total = averageDelayMs(sim.played, 5 * 8000);
        const auto st = b->statistics().playout;
        concealed = static_cast<double>(st.samplesConcealed) / static_cast<double>(st.samplesPlayed);
    }
    const double meanTransitMs = 20.0 + static_cast<double>(state.range(0)) / 2.0;
    state.counters["mouth_to_ear_ms"] = total;
    state.counters["added_ms"] = total - meanTransitMs;
    state.counters["concealed_pct"] = concealed * 100;
    kelsip::log::setLevel(kelsip::LogLevel::Info);
}
BENCHMARK(BM_PlayoutDelay)->Arg(0)->Arg(30)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
