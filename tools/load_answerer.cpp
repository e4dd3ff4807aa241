// A user agent that answers every call at once, for load runs with SIPp as
// the caller (scripts/load). Once a second it prints what it holds and what
// it costs: calls, server transactions, RTP workers, threads, resident
// memory, CPU time, and the calls completed and refused so far. SIGTERM or
// SIGINT shuts it down; it prints how long that took.
//
//   load_answerer [--port 5060] [--max-in-progress 400] [--max-transactions 100000] [--seconds 0]
//
// Linux only: it reads /proc/self. --seconds 0 runs until signalled.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "sip/core/log.h"
#include "sip/ua/user_agent.h"

using namespace std::chrono_literals;

namespace {

std::atomic<bool> stopRequested{false};

class Answerer final : public kelsip::UserAgentListener {
public:
    explicit Answerer(kelsip::UserAgent& ua) : ua_(ua) {}
    void onIncomingCall(const kelsip::CallInfo& call) override {
        ua_.eventLoop().post([this, id = call.id] { (void)ua_.answerCall(id); });
    }
    void onCallState(const kelsip::CallInfo& call) override {
        if (call.state == "Terminated") completed += call.reason == "Remote hangup";
    }
    std::atomic<long> completed{0};

private:
    kelsip::UserAgent& ua_;
};

long statusField(const char* name) {
    std::ifstream status("/proc/self/status");
    const size_t length = std::strlen(name);
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, length, name) == 0 && line.size() > length && line[length] == ':') {
            return std::atol(line.c_str() + length + 1);
        }
    }
    return -1;
}

// User plus system CPU time of the process in milliseconds.
long cpuMs() {
    std::ifstream stat("/proc/self/stat");
    std::string text;
    std::getline(stat, text);
    const auto close = text.rfind(')');
    if (close == std::string::npos) return -1;
    // Fields after the name: state is the 3rd field; utime and stime the 14th and 15th.
    const char* p = text.c_str() + close + 2;
    long utime = 0;
    long stime = 0;
    for (int field = 3; field <= 15 && *p != '\0'; ++field) {
        if (field == 14) utime = std::atol(p);
        if (field == 15) stime = std::atol(p);
        p = std::strchr(p, ' ');
        if (p == nullptr) break;
        ++p;
    }
    return (utime + stime) * 1000 / sysconf(_SC_CLK_TCK);
}

int argInt(int argc, char** argv, const char* name, int fallback) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) return std::atoi(argv[i + 1]);
    }
    return fallback;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            std::printf("load_answerer [--port 5060] [--max-in-progress 400] [--max-transactions 100000] [--seconds 0]\n");
            return 0;
        }
    }
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    kelsip::UserAgentConfig config;
    config.bindAddress = "127.0.0.1";
    config.udpPort = argInt(argc, argv, "--port", 5060);
    config.tcpPort = -1;
    config.maxCalls = 1'000'000;  // the overload limit is the one that counts here
    config.maxCallsInProgress = argInt(argc, argv, "--max-in-progress", 400);
    config.maxServerTransactions = static_cast<size_t>(argInt(argc, argv, "--max-transactions", 100000));
    const int seconds = argInt(argc, argv, "--seconds", 0);
    kelsip::UserAgent ua(config);
    std::string error;
    if (!ua.start(&error)) {
        std::fprintf(stderr, "cannot start: %s\n", error.c_str());
        return 1;
    }
    kelsip::LineConfig line;
    line.user = "alice";
    (void)ua.addLine(line);
    auto answerer = std::make_shared<Answerer>(ua);
    ua.setListener(answerer);
    std::signal(SIGTERM, [](int) { stopRequested = true; });
    std::signal(SIGINT, [](int) { stopRequested = true; });
    std::printf("listening on %s\n", ua.localAddress(kelsip::TransportKind::Udp).toString().c_str());
    std::printf("%6s %7s %8s %7s %7s %8s %8s %9s\n", "second", "calls", "srv-tx", "rtp-thr", "threads", "rss-kB",
                "cpu-ms", "completed");
    std::fflush(stdout);
    const auto start = std::chrono::steady_clock::now();
    for (int second = 0; !stopRequested && (seconds == 0 || second < seconds); ++second) {
        const kelsip::UserAgentLoad load = ua.load();
        std::printf("%6d %7zu %8zu %7zu %7ld %8ld %8ld %9ld\n", second, load.calls, load.serverTransactions,
                    load.rtpWorkers, statusField("Threads"), statusField("VmRSS"), cpuMs(), answerer->completed.load());
        std::fflush(stdout);
        const auto next = start + std::chrono::seconds(second + 1);
        while (!stopRequested && std::chrono::steady_clock::now() < next) std::this_thread::sleep_for(10ms);
    }
    const auto stopping = std::chrono::steady_clock::now();
    const size_t live = ua.load().calls;
    ua.shutdown();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - stopping);
    std::printf("shutdown with %zu calls took %lld ms\n", live, static_cast<long long>(took.count()));
    return 0;
}
