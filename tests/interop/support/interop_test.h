// Base fixture of the interop tests: the peers a test starts, kept until it
// ends and their logs printed on failure; what the user agent reported; SIPp's trace.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "interop/support/kamailio_server.h"
#include "interop/support/sipp_runner.h"
#include "sip/ua/user_agent.h"
#include "support/dnsmasq_server.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace kelsip {

inline void PrintTo(TransportKind kind, std::ostream* out) { *out << transportName(kind); }

namespace test {

inline const auto kBothTransports = ::testing::Values(TransportKind::Udp, TransportKind::Tcp);

using namespace std::chrono_literals;

// What the user agent reported so far.
struct Seen {
    std::vector<std::string> registrations;  // "Registered 200"
    std::vector<CallInfo> incoming;
    std::map<int, std::vector<std::string>> callStates;
    std::map<int, CallInfo> lastCall;
    std::map<int, std::vector<CallInfo>> callInfos;  // hold changes
    std::map<int, std::vector<CallMediaEvent>> media;
    std::map<DtmfMethod, std::string> digits;
    std::vector<int> transfer;  // NOTIFY statuses of a REFER we sent
    std::map<int, std::vector<std::string>> subscriptionStates;
    std::map<int, SubscriptionInfo> lastSubscription;
    std::map<int, std::vector<std::string>> notifyStates;
    struct Body {
        int subscription;
        std::string event, body;
    };
    std::vector<Body> bodies;
    std::vector<WatcherRequest> watchers;
    struct Message {
        int line;
        std::string from, contentType, body;
    };
    std::vector<Message> messages;
    std::map<int, std::vector<std::pair<int, std::string>>> results;  // by message: status, reason

    [[nodiscard]] std::string callState(int call) const {
        const auto it = callStates.find(call);
        return it == callStates.end() || it->second.empty() ? "" : it->second.back();
    }
};

class Recorder final : public UserAgentListener {
public:
    [[nodiscard]] Seen now() const {
        const std::lock_guard lock(mutex_);
        return seen_;
    }
    // Watchers whose address holds this text are refused.
    void refuse(const std::string& text) { record([&](Seen&) { refused_ = text; }); }

    void onRegistrationState(int, RegistrationState state, int code, const std::string&) override {
        record([&](Seen& s) { s.registrations.push_back(std::string(toString(state)) + " " + std::to_string(code)); });
    }
    void onIncomingCall(const CallInfo& call) override { record([&](Seen& s) { s.incoming.push_back(call); }); }
    void onCallState(const CallInfo& call) override {
        record([&](Seen& s) {
            s.callStates[call.id].push_back(call.state);
            s.lastCall[call.id] = call;
        });
    }
    void onCallInfo(const CallInfo& call) override { record([&](Seen& s) { s.callInfos[call.id].push_back(call); }); }
    void onCallMedia(int call, CallMediaEvent event, const std::string&) override {
        record([&](Seen& s) { s.media[call].push_back(event); });
    }
    void onDtmf(int, char digit, DtmfMethod method) override { record([&](Seen& s) { s.digits[method] += digit; }); }
    void onTransferProgress(int, int code, const std::string&) override {
        record([&](Seen& s) { s.transfer.push_back(code); });
    }
    void onSubscriptionState(const SubscriptionInfo& info) override {
        record([&](Seen& s) {
            s.subscriptionStates[info.id].push_back(info.state);
            s.lastSubscription[info.id] = info;
        });
    }
    void onNotifyState(int id, const std::string& state) override {
        record([&](Seen& s) { s.notifyStates[id].push_back(state); });
    }
    void onSubscriptionBody(int id, const std::string& event, const std::string& body) override {
        record([&](Seen& s) { s.bodies.push_back({id, event, body}); });
    }
    void onWatcherRequest(WatcherRequest& request) override {
        record([&](Seen& s) {
            request.accept = request.watcher.find(refused_) == std::string::npos;
            s.watchers.push_back(request);
        });
    }
    void onMessage(int line, const std::string& from, const std::string& type, const std::string& body) override {
        record([&](Seen& s) { s.messages.push_back({line, from, type, body}); });
    }
    void onMessageResult(int id, int code, const std::string& reason) override {
        record([&](Seen& s) { s.results[id].emplace_back(code, reason); });
    }

private:
    template <typename F>
    void record(F&& change) {
        const std::lock_guard lock(mutex_);
        change(seen_);
    }
    mutable std::mutex mutex_;
    Seen seen_;
    std::string refused_ = "\n";  // no address holds a line break
};

// One message of SIPp's trace (-trace_msg): when, which way, its text.
struct Traced {
    std::chrono::microseconds at{};
    bool received = false;
    std::string text;

    [[nodiscard]] std::string startLine() const { return text.substr(0, text.find('\n')); }
    // The first value of the header, empty when it is absent.
    [[nodiscard]] std::string header(std::string name) const {
        std::string lower = text.substr(0, text.find("\n\n"));
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        const size_t found = lower.find("\n" + name + ":");
        if (found == std::string::npos) return "";
        const size_t start = text.find_first_not_of(' ', found + name.size() + 2);
        return text.substr(start, text.find('\n', start) - start);
    }
    [[nodiscard]] std::string body() const {
        const auto end = text.find("\n\n");
        return end == std::string::npos ? "" : text.substr(end + 2);
    }
    [[nodiscard]] int status() const { return text.starts_with("SIP/2.0 ") ? std::atoi(text.c_str() + 8) : 0; }
    [[nodiscard]] std::string toTag() const { return param(header("To"), ";tag="); }
    [[nodiscard]] std::string branch() const { return param(header("Via"), ";branch="); }
    static std::string param(const std::string& value, const std::string& name) {
        const auto found = value.find(name);
        if (found == std::string::npos) return "";
        const auto start = found + name.size();
        return value.substr(start, value.find(';', start) - start);
    }
};
using Trace = std::vector<Traced>;

// Each message follows a line of dashes with the time and a line saying
// whether it was sent or received; blank lines follow it.
inline Trace readTrace(const std::string& log) {
    Trace out;
    std::istringstream lines(log);
    bool heading = false;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        int y, mo, d, h, mi, s, us;
        const auto stamp = line.find_first_not_of("- ");
        if (line.starts_with("-----") && stamp != std::string::npos &&
            std::sscanf(line.c_str() + stamp, "%d-%d-%d %d:%d:%d.%d", &y, &mo, &d, &h, &mi, &s, &us) == 7) {
            const std::chrono::sys_days day{std::chrono::year(y) / mo / d};
            out.push_back({day.time_since_epoch() + std::chrono::hours(h) + std::chrono::minutes(mi) +
                               std::chrono::seconds(s) + std::chrono::microseconds(us),
                           false, ""});
            heading = true;
        } else if (heading) {
            out.back().received = out.back().received || line.find("message received") != std::string::npos;
            heading = !line.empty();
        } else if (!out.empty()) {
            out.back().text += line + "\n";
        }
    }
    for (Traced& m : out) {
        while (m.text.ends_with("\n\n") && m.text.find("\n\n") != m.text.size() - 2) m.text.pop_back();
    }
    return out;
}
template <typename F>
Trace select(const Trace& trace, F wanted) {
    Trace out;
    for (const Traced& m : trace) {
        if (wanted(m)) out.push_back(m);
    }
    return out;
}
inline Trace requests(const Trace& trace, bool received, std::string_view method) {
    return select(trace, [&](const Traced& m) {
        return m.received == received && m.text.starts_with(std::string(method) + " ");
    });
}
// Responses with this status to a request with this CSeq ("1 INVITE").
inline Trace responses(const Trace& trace, bool received, int code, std::string_view cseq) {
    return select(trace, [&](const Traced& m) {
        return m.received == received && m.status() == code && m.header("CSeq") == cseq;
    });
}

class InteropTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Process::supported()) GTEST_SKIP() << "the peers of the interop tests run on Linux only";
    }
    void TearDown() override {
        if (!HasFailure()) return;
        for (const auto& p : peers_) std::cerr << "---- peer on " << p->hostPort() << " ----\n" << p->log() << "\n";
        std::cerr << "---- the stack's log ----\n";
        for (const std::string& line : logs_.lines()) std::cerr << line << '\n';
    }

    // Null, with a failure recorded, when the peer did not come up; it
    // lives until the test ends.
    template <typename Peer, typename Options>
    Peer* start(const Options& options) {
        auto peer = std::make_unique<Peer>();
        std::string error;
        const bool started = peer->start(options, &error);
        Peer* raw = peer.get();
        peers_.push_back(std::move(peer));
        if (started) return raw;
        ADD_FAILURE() << error;
        return nullptr;
    }
    KamailioServer* startKamailio(const KamailioOptions& options = {}) { return start<KamailioServer>(options); }
    // SIPp answering with `scenario` for `calls` calls.
    SippRunner* startSipp(const std::string& scenario, int calls = 1) {
        return start<SippRunner>(SippOptions{scenario, "", calls, 15s, {}});
    }
    // SIPp sending `scenario` to the user agent; `arguments` such as "-key", "name", "value".
    SippRunner* sippTo(UserAgent& ua, const std::string& scenario, std::vector<std::string> arguments = {}) {
        return start<SippRunner>(
            SippOptions{scenario, ua.localAddress(TransportKind::Udp).toString(), 1, 10s, std::move(arguments)});
    }
    // SRV records of `domain` for the ports in priority order, each at 127.0.0.1.
    DnsmasqServer* startSrv(const std::string& domain, const std::vector<uint16_t>& ports) {
        std::vector<std::string> config;
        for (size_t i = 0; i < ports.size(); ++i) {
            const std::string host = "t" + std::to_string(i) + "." + domain;
            config.push_back("srv-host=_sip._udp." + domain + "," + host + "," + std::to_string(ports[i]) + "," +
                             std::to_string(10 * (i + 1)) + ",0");
            config.push_back("host-record=" + host + ",127.0.0.1");
        }
        return start<DnsmasqServer>(config);
    }

    [[nodiscard]] LogCapture& logs() { return logs_; }

    // A user agent on loopback in real time: UDP, and TCP unless `tcp` is
    // false, on free ports, asking `dns`. `t1Ms` shortens UDP time-outs (64 x T1).
    static UserAgentConfig loopbackConfig(bool tcp = true, int64_t t1Ms = 500,
                                          std::vector<net::SocketAddress> dns = {}) {
        UserAgentConfig config;
        config.dnsServers = std::move(dns);
        config.bindAddress = "127.0.0.1";
        config.udpPort = 0;
        config.tcpPort = tcp ? 0 : -1;
        config.timers.t1Ms = t1Ms;
        return config;
    }
    // Started, reporting to `events`; null after a recorded failure.
    std::unique_ptr<UserAgent> startUserAgent(const UserAgentConfig& config) {
        auto ua = std::make_unique<UserAgent>(config);
        std::string error;
        if (!ua->start(&error)) {
            ADD_FAILURE() << error;
            return nullptr;
        }
        ua->setListener(events);
        return ua;
    }
    // Alice (password "secret") at `domain`, not registered.
    static LineConfig alice(const std::string& domain, TransportKind transport = TransportKind::Udp,
                            int expires = 3600, const std::string& password = "secret") {
        LineConfig line;
        line.user = "alice";
        line.password = password;
        line.domain = domain;
        line.transport = transport;
        line.expires = expires;
        line.reregisterOnFailure = false;
        return line;
    }
    static int addAlice(UserAgent& ua, const std::string& domain, TransportKind transport = TransportKind::Udp,
                        int expires = 3600, const std::string& password = "secret") {
        return ua.addLine(alice(domain, transport, expires, password));
    }
    // Alice's line at `kamailio`, through it as outbound proxy, registered;
    // 0 after a recorded failure.
    static int registerAlice(UserAgent& ua, const KamailioServer& kamailio, TransportKind transport,
                             SrtpPolicy srtp = SrtpPolicy::Off) {
        LineConfig line = alice(kamailio.hostPort(), transport);
        line.srtp = srtp;
        line.outboundProxy = "sip:" + kamailio.hostPort();
        const int id = ua.addLine(line);
        if (id > 0 && ua.registerLine(id) &&
            waitFor([&] { return ua.registrationState(id) == RegistrationState::Registered; }, 5s)) {
            return id;
        }
        ADD_FAILURE() << "alice is " << toString(ua.registrationState(id));
        return 0;
    }

    std::shared_ptr<Recorder> events = std::make_shared<Recorder>();

private:
    // Declared first so that it outlives everything that logs.
    LogCapture logs_;
    std::vector<std::unique_ptr<PeerProcess>> peers_;
};

}  // namespace test
}  // namespace kelsip
