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

#include <filesystem>
#include <fstream>
#include <sstream>

#include "sip/core/log.h"
#include "sip/ua/user_agent.h"
#include "support/free_port.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/turn_server.h"

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

// ICE for the set-up figures: none, host candidates only, or host, server
// reflexive and relayed candidates from a coturn on loopback.
enum IceMode { kNoIce = 0, kIceHost = 1, kIceServers = 2 };

std::unique_ptr<UserAgent> phone(const char* user, int& line, IceMode ice = kNoIce, const std::string& server = "") {
    kelsip::UserAgentConfig config;
    config.bindAddress = "127.0.0.1";
    config.udpPort = 0;
    config.tcpPort = -1;
    auto ua = std::make_unique<UserAgent>(config);
    (void)ua->start();
    kelsip::LineConfig l;
    l.user = user;
    l.ice = ice != kNoIce;
    if (ice == kIceServers) {
        l.stunServer = l.turnServer = server;
        l.turnUser = "alice";
        l.turnPassword = "secret";
    }
    line = ua->addLine(l);
    return ua;
}

// Alice, who watches her calls, and Bob, who answers every one.
struct PhonePair {
    explicit PhonePair(IceMode ice = kNoIce, const std::string& server = "")
        : alice(phone("alice", aliceLine, ice, server)), bob(phone("bob", bobLine, ice, server)) {
        answer->ua = bob.get();
        bob->setListener(answer);
        alice->setListener(watch);
        target = "sip:bob@" + bob->localAddress(kelsip::TransportKind::Udp).toString();
    }
    int aliceLine = 0;
    int bobLine = 0;
    std::unique_ptr<UserAgent> alice;
    std::unique_ptr<UserAgent> bob;
    std::shared_ptr<AutoAnswer> answer = std::make_shared<AutoAnswer>();
    std::shared_ptr<Watch> watch = std::make_shared<Watch>();
    std::string target;
};

// Set-up time, dial to Connected, with the ICE mode in the argument. With
// ICE the caller's "ICE connected" line (its checks done, the media path
// chosen) is counted too, as ice_connected_us from the dial.
void BM_CallSetup(benchmark::State& state) {
    const auto ice = static_cast<IceMode>(state.range(0));
    kelsip::test::TurnServer turn;
    std::string error;
    if (ice == kIceServers && !turn.start({}, &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    std::atomic<int> iceConnected{0};
    kelsip::log::setLevel(ice == kNoIce ? kelsip::LogLevel::Warn : kelsip::LogLevel::Info);
    kelsip::log::setStream(nullptr);
    kelsip::log::setSink([&](kelsip::LogLevel, std::string_view tag, std::string_view text) {
        if (tag == "ice" && text.find("ICE connected") != std::string_view::npos) ++iceConnected;
    });
    PhonePair pair(ice, turn.hostPort());
    const auto& watch = pair.watch;
    double iceUs = 0;
    for (auto _ : state) {
        const int before = watch->connected;
        const int iceBefore = iceConnected;
        const auto dialled = std::chrono::steady_clock::now();
        const int call = pair.alice->makeCall(pair.aliceLine, pair.target);
        if (!watch->waitFor([&] { return watch->connected > before; })) {
            state.SkipWithError("call did not connect");
            break;
        }
        state.PauseTiming();
        if (ice != kNoIce) {
            // Both sides log it; the first is the one that matters here.
            const auto deadline = dialled + std::chrono::seconds(5);
            while (iceConnected == iceBefore && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
            iceUs += std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - dialled).count();
        }
        const int ended = watch->terminated;
        (void)pair.alice->hangupCall(call);
        (void)watch->waitFor([&] { return watch->terminated > ended; });
        state.ResumeTiming();
    }
    if (ice != kNoIce) state.counters["ice_connected_us"] = benchmark::Counter(iceUs, benchmark::Counter::kAvgIterations);
    kelsip::log::setSink(nullptr);
    kelsip::log::setLevel(kelsip::LogLevel::Info);
}
// A fixed count: each call leaves its transactions for 32 s, and a free-running
// count reaches the server's transaction limit.
BENCHMARK(BM_CallSetup)
    ->Arg(kNoIce)
    ->Arg(kIceHost)
    ->Arg(kIceServers)
    ->Iterations(200)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// Memory: heap in use with N calls up, per call, both sides counted.
void BM_MemoryPerCall(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    const int calls = static_cast<int>(state.range(0));
    for (auto _ : state) {
        PhonePair pair;
        const auto& watch = pair.watch;
        // One call first, so that worker threads and pools exist before measuring.
        (void)pair.alice->makeCall(pair.aliceLine, pair.target);
        (void)watch->waitFor([&] { return watch->connected >= 1; });
        const size_t before = mallinfo2().uordblks;
        for (int i = 0; i < calls; ++i) (void)pair.alice->makeCall(pair.aliceLine, pair.target);
        (void)watch->waitFor([&] { return watch->connected >= calls + 1; });
        const size_t after = mallinfo2().uordblks;
        state.counters["bytes_per_call"] = static_cast<double>(after - before) / calls;
    }
    kelsip::log::setLevel(kelsip::LogLevel::Info);
}
BENCHMARK(BM_MemoryPerCall)->Arg(3)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// The called side against SIPp as caller: SIPp's own "uac" scenario
// (INVITE, 100/180/200, ACK, BYE at once) at a given rate for four
// seconds, our user agent answering every call with its media. Reports the
// calls that completed per second and those that failed; the rate where
// failures start is where we stop keeping up.
void BM_CalledSideAgainstSipp(benchmark::State& state) {
    const std::string sipp = kelsip::test::Process::findProgram("sipp");
    if (sipp.empty()) {
        state.SkipWithError("sipp not installed (package sip-tester)");
        return;
    }
    kelsip::log::setLevel(kelsip::LogLevel::Error);
    const int rate = static_cast<int>(state.range(0));
    for (auto _ : state) {
        kelsip::UserAgentConfig config;
        config.bindAddress = "127.0.0.1";
        config.udpPort = 0;
        config.tcpPort = -1;
        config.maxCalls = 100000;  // the limit under test is throughput, not a policy
        UserAgent ua(config);
        (void)ua.start();
        kelsip::LineConfig line;
        line.user = "bob";
        (void)ua.addLine(line);
        auto answer = std::make_shared<AutoAnswer>();
        answer->ua = &ua;
        ua.setListener(answer);

        kelsip::test::TempDir dir;
        kelsip::test::ProcessOptions options;
        options.program = sipp;
        options.arguments = {"-sn", "uac", "-r", std::to_string(rate), "-m", std::to_string(rate * 4), "-d", "0",
                             "-i", "127.0.0.1", "-p", std::to_string(kelsip::test::freeLoopbackPort()), "-nostdin",
                             "-timeout", "30s", "-timeout_error",
                             ua.localAddress(kelsip::TransportKind::Udp).toString()};
        options.workingDirectory = dir.path();
        options.logFile = dir.path() / "sipp.log";
        kelsip::test::Process process;
        std::string error;
        const auto start = std::chrono::steady_clock::now();
        if (!process.start(options, &error)) {
            state.SkipWithError(error.c_str());
            break;
        }
        while (!process.exitCode()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        // The final screen's counters: "Successful call | 0 | N".
        std::ifstream log(options.logFile);
        std::stringstream read;
        read << log.rdbuf();
        const std::string text = read.str();
        const auto count = [&](const std::string& label) {
            const auto at = text.rfind(label);
            if (at == std::string::npos) return 0.0;
            const auto bar = text.rfind('|', text.find('\n', at));
            return std::stod(text.substr(bar + 1));
        };
        state.counters["completed_per_s"] = count("Successful call") / seconds;
        state.counters["failed"] = count("Failed call");
        state.counters["offered_per_s"] = rate;
    }
    kelsip::log::setLevel(kelsip::LogLevel::Info);
}
BENCHMARK(BM_CalledSideAgainstSipp)->Arg(1000)->Arg(2000)->Arg(3000)->Arg(4000)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
