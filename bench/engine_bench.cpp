// The engine with two phones on virtual sound devices, peer to peer on
// loopback: the delay from one engine's capture callback to the other's
// playout callback (the counters delay_ms and delay_max_ms; device buffers
// excluded, there are none), the CPU one engine spends on a call
// (cpu_percent_per_engine, of one core) and the heap one engine with one
// call holds (bytes_per_engine).
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

#include "engine/softphone_engine.h"
#include "sip/core/log.h"

namespace {

using Clock = std::chrono::steady_clock;
using kelsoftphone::EngineCallState;
using kelsoftphone::SoftphoneConfig;
using kelsoftphone::SoftphoneEngine;

struct Watch final : kelsoftphone::SoftphoneListener {
    void onIncomingCall(int line, const std::string&, const std::string&) override { incoming = line; }
    void onCallState(int, EngineCallState state, int, int, const std::string&, const std::string&) override {
        if (state == EngineCallState::Connected) connected = true;
        if (state == EngineCallState::Terminated) connected = false;
    }
    std::atomic<int> incoming{0};
    std::atomic<bool> connected{false};
};

template <typename F>
bool waitUntil(F&& condition, std::chrono::seconds limit = std::chrono::seconds(10)) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

SoftphoneConfig loopback() {
    SoftphoneConfig config;
    config.bindAddress = "127.0.0.1";
    config.sipPort = 0;
    return config;
}

// Alice talks to Bob; both run until the pair is destroyed.
struct Pair {
    Pair(kelsoftphone::SampleSource mouth, kelsoftphone::SampleSink ear)
        : alice(loopback(), aliceWatch, std::move(mouth), {}), bob(loopback(), bobWatch, {}, std::move(ear)) {}
    bool connect() {
        if (!alice.start({"alice", "", "", "", "", "", "", {}}) || !bob.start({"bob", "", "", "", "", "", "", {}}))
            return false;
        if (alice.call(bob.localAddress()) <= 0) return false;
        if (!waitUntil([&] { return bobWatch->incoming > 0; }) || !bob.answer(bobWatch->incoming)) return false;
        return waitUntil([&] { return aliceWatch->connected && bobWatch->connected; });
    }
    std::shared_ptr<Watch> aliceWatch = std::make_shared<Watch>();
    std::shared_ptr<Watch> bobWatch = std::make_shared<Watch>();
    SoftphoneEngine alice;
    SoftphoneEngine bob;
};

// A 10 ms burst of 1 kHz every half second; the time each burst leaves
// Alice's capture and reaches Bob's playout.
void BM_CaptureToPlayout(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    constexpr int kBursts = 40;
    for (auto _ : state) {
        std::mutex mutex;
        std::vector<Clock::time_point> sent, heard;
        uint64_t spoken = 0;
        bool loud = false;
        Pair pair(
            [&](int16_t* buffer, size_t count) {
                // Every 50th block of the capture thread's own count is the burst.
                const bool burst = spoken++ % 50 == 49;
                for (size_t i = 0; i < count; ++i) {
                    buffer[i] = burst ? static_cast<int16_t>(12000 * std::sin(2 * 3.14159265 * 1000 * static_cast<double>(i) / 8000)) : 0;
                }
                if (burst) {
                    const std::lock_guard lock(mutex);
                    sent.push_back(Clock::now());
                }
            },
            [&](const int16_t* samples, size_t count) {
                const bool now = std::any_of(samples, samples + count, [](int16_t s) { return std::abs(s) > 3000; });
                if (now && !loud) {
                    const std::lock_guard lock(mutex);
                    heard.push_back(Clock::now());
                }
                loud = now;
            });
        if (!pair.connect()) {
            state.SkipWithError("the call did not connect");
            return;
        }
        // Bursts that leave once the call is up count; the earlier ones are lost to ringing.
        size_t first = 0;
        {
            const std::lock_guard lock(mutex);
            first = sent.size();
        }
        waitUntil([&] {
            const std::lock_guard lock(mutex);
            return sent.size() >= first + kBursts + 1;
        }, std::chrono::seconds(60));
        const std::lock_guard lock(mutex);
        double total = 0, worst = 0;
        int matched = 0;
        for (size_t i = first; i < first + kBursts && i < sent.size(); ++i) {
            const auto reached = std::find_if(heard.begin(), heard.end(), [&](const auto& t) { return t >= sent[i]; });
            if (reached == heard.end()) continue;
            const double ms = std::chrono::duration<double, std::milli>(*reached - sent[i]).count();
            total += ms;
            worst = std::max(worst, ms);
            ++matched;
        }
        state.counters["delay_ms"] = matched > 0 ? total / matched : -1;
        state.counters["delay_max_ms"] = worst;
        state.counters["bursts"] = matched;
    }
}
BENCHMARK(BM_CaptureToPlayout)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// Ten seconds of a call, both engines in this process: CPU per engine.
void BM_CpuPerCall(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    for (auto _ : state) {
        uint64_t n = 0;
        Pair pair([&](int16_t* buffer, size_t count) {
            for (size_t i = 0; i < count; ++i, ++n) buffer[i] = static_cast<int16_t>(8000 * std::sin(0.3 * static_cast<double>(n)));
        }, {});
        if (!pair.connect()) {
            state.SkipWithError("the call did not connect");
            return;
        }
        const std::clock_t cpuBefore = std::clock();
        const auto wallBefore = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(10));
        const double cpu = static_cast<double>(std::clock() - cpuBefore) / CLOCKS_PER_SEC;
        const double wall = std::chrono::duration<double>(Clock::now() - wallBefore).count();
        state.counters["cpu_percent_per_engine"] = 100.0 * cpu / wall / 2;
    }
}
BENCHMARK(BM_CpuPerCall)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// Heap in use for two engines with one call between them, halved.
void BM_MemoryWithOneCall(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    for (auto _ : state) {
        const size_t before = mallinfo2().uordblks;
        Pair pair({}, {});
        if (!pair.connect()) {
            state.SkipWithError("the call did not connect");
            return;
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));  // the playout buffers fill
        state.counters["bytes_per_engine"] = static_cast<double>(mallinfo2().uordblks - before) / 2;
    }
}
BENCHMARK(BM_MemoryWithOneCall)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
