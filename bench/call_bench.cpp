// Calls on loopback: how long a call takes to set up (makeCall to Connected,
// against a user agent that answers at once, with 100rel and the media
// sessions started on both sides), and the memory a call takes.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "sip/log.h"
#include "sip/user_agent.h"

namespace {

using kelsip::CallInfo;
using kelsip::UserAgent;

// Answers every call the moment it rings (on the loop thread, where the
// user agent runs the answer directly) and counts the calls that connect.
class AutoAnswer final : public kelsip::UserAgentListener {
public:
    UserAgent* ua = nullptr;
    void onIncomingCall(const CallInfo& call) override { (void)ua->answerCall(call.id); }
};

class Watch final : public kelsip::UserAgentListener {
public:
    void onCallState(const CallInfo& call) override {
        const std::lock_guard lock(mutex);
        if (call.state == "Connected") ++connected;
        if (call.state == "Terminated") ++terminated;
        changed.notify_all();
    }
    template <typename F>
    bool waitFor(F condition) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5), condition);
    }
    std::mutex mutex;
    std::condition_variable changed;
    int connected = 0;
    int terminated = 0;
};

std::unique_ptr<UserAgent> phone(const char* user, int& line) {
    kelsip::UserAgentConfig config;
    config.bindAddress = "127.0.0.1";
    config.udpPort = 0;
    config.tcpPort = -1;
    auto ua = std::make_unique<UserAgent>(config);
    (void)ua->start();
    kelsip::LineConfig l;
    l.user = user;
    line = ua->addLine(l);
    return ua;
}

void BM_CallSetup(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    int aliceLine = 0;
    int bobLine = 0;
    auto alice = phone("alice", aliceLine);
    auto bob = phone("bob", bobLine);
    auto answer = std::make_shared<AutoAnswer>();
    answer->ua = bob.get();
    bob->setListener(answer);
    auto watch = std::make_shared<Watch>();
    alice->setListener(watch);
    const std::string target = "sip:bob@" + bob->localAddress(kelsip::TransportKind::Udp).toString();
    for (auto _ : state) {
        const int before = watch->connected;
        const int call = alice->makeCall(aliceLine, target);
        if (!watch->waitFor([&] { return watch->connected > before; })) {
            state.SkipWithError("call did not connect");
            break;
        }
        state.PauseTiming();
        const int ended = watch->terminated;
        (void)alice->hangupCall(call);
        (void)watch->waitFor([&] { return watch->terminated > ended; });
        state.ResumeTiming();
    }
    kelsip::log::setLevel(kelsip::LogLevel::Info);
}
BENCHMARK(BM_CallSetup)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Memory: heap in use with N calls up, per call, both sides counted.
void BM_MemoryPerCall(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    const int calls = static_cast<int>(state.range(0));
    for (auto _ : state) {
        int aliceLine = 0;
        int bobLine = 0;
        auto alice = phone("alice", aliceLine);
        auto bob = phone("bob", bobLine);
        auto answer = std::make_shared<AutoAnswer>();
        answer->ua = bob.get();
        bob->setListener(answer);
        auto watch = std::make_shared<Watch>();
        alice->setListener(watch);
        const std::string target = "sip:bob@" + bob->localAddress(kelsip::TransportKind::Udp).toString();
        // One call first, so that worker threads and pools exist before measuring.
        (void)alice->makeCall(aliceLine, target);
        (void)watch->waitFor([&] { return watch->connected >= 1; });
        const size_t before = mallinfo2().uordblks;
        for (int i = 0; i < calls; ++i) (void)alice->makeCall(aliceLine, target);
        (void)watch->waitFor([&] { return watch->connected >= calls + 1; });
        const size_t after = mallinfo2().uordblks;
        state.counters["bytes_per_call"] = static_cast<double>(after - before) / calls;
    }
    kelsip::log::setLevel(kelsip::LogLevel::Info);
}
BENCHMARK(BM_MemoryPerCall)->Arg(3)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
