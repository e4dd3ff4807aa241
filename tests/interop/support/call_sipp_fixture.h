// What the SIPp call tests share: a listener that keeps every call's states,
// and a fixture with one user agent on loopback and SIPp started against it
// as caller or as callee.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "interop/support/interop_test.h"
#include "interop/support/sipp_trace.h"
#include "sip/ua/user_agent.h"
#include "support/wait.h"

namespace kelsip::test {

class CallRecorder final : public UserAgentListener {
public:
    void onIncomingCall(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        incoming_.push_back(call.id);
    }
    void onCallState(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        states_[call.id].push_back(call.state);
        last_[call.id] = call;
    }
    void onCallInfo(const CallInfo& call) override {
        const std::lock_guard lock(mutex_);
        infos_[call.id].push_back(call);
    }
    [[nodiscard]] std::vector<int> incoming() {
        const std::lock_guard lock(mutex_);
        return incoming_;
    }
    [[nodiscard]] std::vector<std::string> states(int call) {
        const std::lock_guard lock(mutex_);
        return states_[call];
    }
    [[nodiscard]] std::string state(int call) {
        const std::lock_guard lock(mutex_);
        return states_[call].empty() ? "" : states_[call].back();
    }
    [[nodiscard]] CallInfo last(int call) {
        const std::lock_guard lock(mutex_);
        return last_[call];
    }
    // Every hold change the call reported, in order.
    [[nodiscard]] std::vector<CallInfo> infos(int call) {
        const std::lock_guard lock(mutex_);
        return infos_[call];
    }
    // Every call that reported a state, by number.
    [[nodiscard]] std::vector<int> calls() {
        const std::lock_guard lock(mutex_);
        std::vector<int> ids;
        for (const auto& [id, states] : states_) ids.push_back(id);
        return ids;
    }

private:
    std::mutex mutex_;
    std::vector<int> incoming_;
    std::map<int, std::vector<std::string>> states_;
    std::map<int, CallInfo> last_;
    std::map<int, std::vector<CallInfo>> infos_;
};

using Trace = std::vector<Traced>;

inline Trace requests(const Trace& trace, bool received, std::string_view method) {
    return select(trace, [&](const Traced& m) { return m.received == received && m.isRequest(method); });
}
inline Trace responses(const Trace& trace, bool received, int code, std::string_view cseq) {
    return select(trace, [&](const Traced& m) { return m.received == received && m.isResponse(code, cseq); });
}
// The tag parameter of a From or To value.
inline std::string tagOf(const std::string& value) {
    const auto at = value.find(";tag=");
    return at == std::string::npos ? "" : value.substr(at + 5, value.find(';', at + 5) - (at + 5));
}
// A sipfrag body as the trace keeps it, without the blank lines after it.
inline std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

class CallSippFixture : public InteropTest {
protected:
    // Alice on UDP, with `adjust` applied to her configuration.
    void startAlice(const std::function<void(UserAgentConfig&)>& adjust) {
        UserAgentConfig config = loopbackConfig(false);
        if (adjust) adjust(config);
        ua = startLoopbackUserAgent(config, events);
        ASSERT_TRUE(ua);
        LineConfig line;
        line.user = "alice";
        lineId = ua->addLine(line);
        ASSERT_GT(lineId, 0);
    }

    // SIPp calling us with a scenario; `arguments` such as "-key", "name", "value".
    SippRunner* callUs(const std::string& scenario, std::vector<std::string> arguments = {}) {
        SippOptions options;
        options.scenario = scenario;
        options.remote = ua->localAddress(TransportKind::Udp).toString();
        options.timeout = std::chrono::seconds(10);
        options.arguments = std::move(arguments);
        return startSipp(options);
    }

    // SIPp answering with a scenario.
    SippRunner* startCallee(const std::string& scenario) {
        SippOptions options;
        options.scenario = scenario;
        options.timeout = std::chrono::seconds(10);
        return startSipp(options);
    }

    int callSipp(const SippRunner& sipp) { return ua->makeCall(lineId, "sip:bob@" + sipp.hostPort()); }

    // The call SIPp placed, once it rang here.
    int incomingCall() {
        if (!waitFor([&] { return !events->incoming().empty(); }, std::chrono::seconds(5))) return 0;
        return events->incoming().front();
    }

    bool ends(int call) {
        return waitFor([&] { return events->state(call) == "Terminated"; }, std::chrono::seconds(10));
    }

    std::shared_ptr<CallRecorder> events = std::make_shared<CallRecorder>();
    std::unique_ptr<UserAgent> ua;
    int lineId = 0;
};

}  // namespace kelsip::test
