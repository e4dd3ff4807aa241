// How often an idle phone wakes. Two user agents on loopback, each with UDP
// and TCP open, sit idle; then Alice makes short calls to Bob (over UDP and
// TCP in turn), and both sit idle again. For each idle stretch the program
// prints the voluntary context switches and CPU ticks of every thread of the
// process but the measuring one, and the process's ticks.
// With --registrar host:port Alice's UDP line registers there first.
//
//   idle_wakeups [--seconds 10] [--calls 20] [--settle 3] [--registrar 127.0.0.1:5060]
//
// Linux only: it reads /proc/self. Exit status 0 when every call connected
// and ended (and the line registered when asked to).
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "sip/core/log.h"
#include "sip/ua/user_agent.h"
#include "tools/tool_phone.h"

using namespace std::chrono_literals;
using kelsip::CallInfo;
using kelsip::TransportKind;
using kelsip::UserAgent;

namespace {

class Events final : public kelsip::UserAgentListener {
public:
    void onIncomingCall(const CallInfo& call) override { incoming = call.id; }
    void onCallState(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        states_[call.id] = call.state;
    }
    void onRegistrationState(int, kelsip::RegistrationState state, int, const std::string&) override {
        registration = state;
    }
    [[nodiscard]] std::string state(int call) {
        const std::lock_guard lock(mutex_);
        const auto it = states_.find(call);
        return it == states_.end() ? std::string() : it->second;
    }
    std::atomic<int> incoming{0};
    std::atomic<kelsip::RegistrationState> registration{kelsip::RegistrationState::Unregistered};

private:
    std::mutex mutex_;
    std::map<int, std::string> states_;
};

using velmora_tools::waitUntil;

std::unique_ptr<UserAgent> startPhone() { return velmora_tools::startPhone(0); }

// One thread's counters, or the process's when read from /proc/self/stat.
struct ThreadFigures {
    uint64_t voluntary = 0;
    uint64_t ticks = 0;  // utime + stime
    std::string waitsIn;
};

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

uint64_t ticksOf(const std::filesystem::path& statFile) {
    // Fields after the command name, which is in parentheses and may hold spaces.
    const std::string stat = readFile(statFile);
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    uint64_t utime = 0;
    uint64_t stime = 0;
    for (int i = 3; fields >> field; ++i) {
        if (i == 14) utime = std::strtoull(field.c_str(), nullptr, 10);
        if (i == 15) {
            stime = std::strtoull(field.c_str(), nullptr, 10);
            break;
        }
    }
    return utime + stime;
}

struct Snapshot {
    std::map<long, ThreadFigures> threads;
    uint64_t processTicks = 0;
};

Snapshot snapshot() {
    Snapshot s;
    const long self = static_cast<long>(getpid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const long tid = std::strtol(task.path().filename().c_str(), nullptr, 10);
        if (tid == self) continue;  // the measuring thread
        ThreadFigures f;
        std::istringstream status(readFile(task.path() / "status"));
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("voluntary_ctxt_switches:")) f.voluntary = std::strtoull(line.c_str() + 24, nullptr, 10);
        }
        f.ticks = ticksOf(task.path() / "stat");
        f.waitsIn = readFile(task.path() / "wchan");
        s.threads.emplace(tid, f);
    }
    s.processTicks = ticksOf("/proc/self/stat");
    return s;
}

void measure(const char* what, std::chrono::seconds window) {
    const Snapshot before = snapshot();
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(window);
    const Snapshot after = snapshot();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    uint64_t wakes = 0;
    uint64_t ticks = 0;
    std::printf("%s, %.1f s:\n", what, seconds);
    for (const auto& [tid, f] : after.threads) {
        const auto was = before.threads.find(tid);
        const uint64_t v = f.voluntary - (was == before.threads.end() ? 0 : was->second.voluntary);
        const uint64_t t = f.ticks - (was == before.threads.end() ? 0 : was->second.ticks);
        wakes += v;
        ticks += t;
        std::printf("  thread %-7ld %8.1f wake-ups/s %4llu ticks   waits in %s\n", tid, static_cast<double>(v) / seconds,
                    static_cast<unsigned long long>(t), f.waitsIn.empty() ? "?" : f.waitsIn.c_str());
    }
    std::printf("  all %zu threads: %llu wake-ups (%.1f a second), %llu CPU ticks (%ld a second) in %.1f s; "
                "with the measuring thread %llu ticks\n",
                after.threads.size(), static_cast<unsigned long long>(wakes), static_cast<double>(wakes) / seconds,
                static_cast<unsigned long long>(ticks),
                sysconf(_SC_CLK_TCK), seconds, static_cast<unsigned long long>(after.processTicks - before.processTicks));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 10;
    int calls = 20;
    int settle = 3;
    std::string registrar;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--seconds") seconds = std::atoi(argv[i + 1]);
        else if (option == "--calls") calls = std::atoi(argv[i + 1]);
        else if (option == "--settle") settle = std::atoi(argv[i + 1]);
        else if (option == "--registrar") registrar = argv[i + 1];
        else {
            std::fprintf(stderr, "usage: idle_wakeups [--seconds N] [--calls N] [--settle N] [--registrar host:port]\n");
            return 2;
        }
    }
    kelsip::log::setLevel(kelsip::LogLevel::Warn);

    auto alice = startPhone();
    auto bob = startPhone();
    if (!alice || !bob) return 1;
    auto aliceEvents = std::make_shared<Events>();
    auto bobEvents = std::make_shared<Events>();
    alice->setListener(aliceEvents);
    bob->setListener(bobEvents);
    kelsip::LineConfig line;
    line.user = "alice";
    line.domain = registrar;
    const int aliceUdp = alice->addLine(line);
    line.domain.clear();
    line.transport = TransportKind::Tcp;
    const int aliceTcp = alice->addLine(line);
    line.user = "bob";
    line.transport = TransportKind::Udp;
    (void)bob->addLine(line);
    if (!registrar.empty()) {
        if (!alice->registerLine(aliceUdp) ||
            !waitUntil([&] { return aliceEvents->registration == kelsip::RegistrationState::Registered; }, 5s)) {
            std::printf("the line did not register at %s\n", registrar.c_str());
            return 1;
        }
        std::printf("Alice's line registered at %s\n", registrar.c_str());
    }
    const std::string bobUdp = "sip:bob@" + bob->localAddress(TransportKind::Udp).toString();
    const std::string bobTcp = "sip:bob@" + bob->localAddress(TransportKind::Tcp).toString() + ";transport=tcp";
    std::printf("Alice %s, Bob %s and %s, peer to peer\n",
                alice->localAddress(TransportKind::Udp).toString().c_str(), bobUdp.c_str(), bobTcp.c_str());

    std::this_thread::sleep_for(std::chrono::seconds(settle));
    measure("Idle before any call", std::chrono::seconds(seconds));

    int ended = 0;
    for (int i = 0; i < calls; ++i) {
        const bool tcp = i % 2 == 1;
        bobEvents->incoming = 0;
        const int a = alice->makeCall(tcp ? aliceTcp : aliceUdp, tcp ? bobTcp : bobUdp);
        if (a < 1 || !waitUntil([&] { return bobEvents->incoming > 0; }, 5s)) break;
        const int b = bobEvents->incoming;
        if (!bob->answerCall(b) || !waitUntil([&] { return aliceEvents->state(a) == "Connected"; }, 5s)) break;
        std::this_thread::sleep_for(200ms);
        (void)alice->hangupCall(a);
        if (!waitUntil([&] { return aliceEvents->state(a) == "Terminated" && bobEvents->state(b) == "Terminated"; },
                       5s)) {
            break;
        }
        ++ended;
    }
    std::printf("%d of %d calls (every second one over TCP) connected and ended\n", ended, calls);

    std::this_thread::sleep_for(std::chrono::seconds(settle));
    measure("Idle after the calls", std::chrono::seconds(seconds));
    for (const auto& [who, ua] : {std::pair{"Alice", alice.get()}, std::pair{"Bob", bob.get()}}) {
        const auto due = ua->eventLoop().nextDueNs();
        std::printf("  %s's event loop: %zu timers pending%s\n", who, ua->eventLoop().pendingTimers(),
                    due ? (", the next in " +
                           std::to_string((*due - ua->eventLoop().nowNs()) / 1'000'000'000) + " s").c_str()
                        : "");
    }
    return ended == calls ? 0 : 1;
}
