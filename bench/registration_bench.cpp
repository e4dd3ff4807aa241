// Registration throughput: REGISTER transactions one user agent completes
// against a loopback registrar that grants every binding at once, the CPU
// each costs, and the memory a line takes.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <ctime>
#include <thread>

#include "sip/syntax/message.h"
#include "sip/net/socket.h"
#include "sip/ua/user_agent.h"
#include "sip/core/log.h"

namespace {

using kelsip::net::AddressFamily;
using kelsip::net::SocketAddress;

// A registrar on its own thread: answers every REGISTER with 200 at once.
class InstantRegistrar {
public:
    InstantRegistrar() {
        socket_ = kelsip::net::Socket::open(AddressFamily::V4, kelsip::net::SocketType::Udp);
        (void)socket_.bind(SocketAddress::loopback(AddressFamily::V4));
        (void)socket_.setBufferSizes(4 << 20);
        (void)socket_.setNonBlocking(true);
        address_ = *socket_.localAddress();
        thread_ = std::thread([this] { run(); });
    }
    ~InstantRegistrar() {
        stop_ = true;
        thread_.join();
    }
    [[nodiscard]] std::string hostPort() const { return address_.toString(); }

private:
    void run() {
        char buf[65536];
        while (!stop_) {
            kelsip::net::PollEntry e{socket_.native(), true, false};
            if (kelsip::net::poll({&e, 1}, 50) <= 0) continue;
            SocketAddress from;
            for (;;) {
                const auto r = socket_.receiveFrom(buf, sizeof buf, from);
                if (!r.ok()) break;
                auto m = kelsip::SipMessage::parse(std::string_view(buf, r.bytes));
                if (!m || !m->isRequest) continue;
                kelsip::SipMessage ok = kelsip::makeResponse(*m, 200, "", "reg");
                ok.addHeader("Expires", "3600");
                const std::string text = ok.toString();
                (void)socket_.sendTo(text.data(), text.size(), from);
            }
        }
    }
    kelsip::net::Socket socket_;
    SocketAddress address_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class CountingListener : public kelsip::UserAgentListener {
public:
    void onRegistrationState(int, kelsip::RegistrationState state, int, const std::string&) override {
        if (state == kelsip::RegistrationState::Registered) ++registered;
    }
    std::atomic<int64_t> registered{0};
};

kelsip::UserAgentConfig benchConfig() {
    kelsip::UserAgentConfig config;
    config.bindAddress = "127.0.0.1";
    config.udpPort = 0;
    config.tcpPort = -1;
    return config;
}

// Registers `lines` lines at once and waits for every one to be Registered.
void BM_RegisterManyLines(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    InstantRegistrar registrar;
    const int64_t lines = state.range(0);
    int64_t transactions = 0;
    double cpuSeconds = 0;
    for (auto _ : state) {
        state.PauseTiming();
        kelsip::UserAgent ua(benchConfig());
        auto listener = std::make_shared<CountingListener>();
        if (!ua.start()) {
            state.SkipWithError("cannot start the user agent");
            return;
        }
        ua.setListener(listener);
        std::vector<int> ids;
        for (int64_t i = 0; i < lines; ++i) {
            kelsip::LineConfig c;
            c.user = "user" + std::to_string(i);
            c.domain = registrar.hostPort();
            ids.push_back(ua.addLine(c));
        }
        const std::clock_t cpuStart = std::clock();
        state.ResumeTiming();
        for (const int id : ids) (void)ua.registerLine(id);
        while (listener->registered.load() < lines) std::this_thread::yield();
        state.PauseTiming();
        cpuSeconds += static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
        transactions += lines;
        ua.shutdown(std::chrono::milliseconds(0));
        state.ResumeTiming();
    }
    state.SetItemsProcessed(transactions);
    state.counters["cpu_us_per_register"] = cpuSeconds * 1e6 / static_cast<double>(transactions);
}
BENCHMARK(BM_RegisterManyLines)->Arg(100)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

// Heap bytes a line takes in the user agent (added, not registered).
void BM_MemoryPerLine(benchmark::State& state) {
    kelsip::log::setLevel(kelsip::LogLevel::Warn);
    const int64_t lines = state.range(0);
    double perLine = 0;
    for (auto _ : state) {
        kelsip::UserAgent ua(benchConfig());
        if (!ua.start()) {
            state.SkipWithError("cannot start the user agent");
            return;
        }
        const size_t before = mallinfo2().uordblks;
        for (int64_t i = 0; i < lines; ++i) {
            kelsip::LineConfig c;
            c.user = "user" + std::to_string(i);
            c.password = "a-password-of-ordinary-length";
            c.domain = "sip.example.com";
            (void)ua.addLine(c);
        }
        const size_t after = mallinfo2().uordblks;
        perLine = static_cast<double>(after - before) / static_cast<double>(lines);
        ua.shutdown(std::chrono::milliseconds(0));
    }
    state.counters["bytes_per_line"] = perLine;
}
BENCHMARK(BM_MemoryPerLine)->Arg(10000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
