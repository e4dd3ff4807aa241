// Base fixture of the interop tests: starts the peers a test asks for, keeps
// them until it ends, and on failure prints every peer's log and the
// stack's own log lines.
#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "interop/support/kamailio_server.h"
#include "interop/support/sipp_runner.h"
#include "sip/ua/user_agent.h"
#include "support/dnsmasq_server.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/wait.h"

namespace kelsip::test {

class InteropTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Process::supported()) GTEST_SKIP() << "the peers of the interop tests run on Linux only";
    }

    void TearDown() override {
        if (!HasFailure()) return;
        for (const auto& k : kamailios_) {
            std::cerr << "---- Kamailio on " << k->hostPort() << " ----\n" << k->log() << "----\n";
        }
        for (const auto& s : sipps_) {
            std::cerr << "---- SIPp on " << s->hostPort() << " ----\n" << s->log() << "----\n";
        }
        for (const auto& d : dnsmasqs_) {
            std::cerr << "---- dnsmasq on " << d->address().toString() << " ----\n" << d->log() << "----\n";
        }
        std::cerr << "---- the stack's log ----\n";
        for (const std::string& line : logs_.lines()) std::cerr << line << '\n';
        std::cerr << "----\n";
    }

    // Each start records a failure and returns null when the peer did not
    // come up; the peer lives until the test ends.
    KamailioServer* startKamailio(const KamailioOptions& options = {}) {
        auto server = std::make_unique<KamailioServer>();
        std::string error;
        const bool started = server->start(options, &error);
        kamailios_.push_back(std::move(server));
        if (!started) {
            ADD_FAILURE() << error;
            return nullptr;
        }
        return kamailios_.back().get();
    }

    SippRunner* startSipp(const SippOptions& options) {
        auto sipp = std::make_unique<SippRunner>();
        std::string error;
        const bool started = sipp->start(options, &error);
        sipps_.push_back(std::move(sipp));
        if (!started) {
            ADD_FAILURE() << error;
            return nullptr;
        }
        return sipps_.back().get();
    }

    // A server scenario with the default limits.
    SippRunner* startSipp(const std::string& scenario) {
        SippOptions options;
        options.scenario = scenario;
        return startSipp(options);
    }

    DnsmasqServer* startDnsmasq(const std::vector<std::string>& config) {
        auto server = std::make_unique<DnsmasqServer>();
        std::string error;
        const bool started = server->start(config, &error);
        dnsmasqs_.push_back(std::move(server));
        if (!started) {
            ADD_FAILURE() << "dnsmasq: " << error;
            return nullptr;
        }
        return dnsmasqs_.back().get();
    }

    [[nodiscard]] LogCapture& logs() { return logs_; }

    // A user agent on loopback in real time: UDP, and TCP unless `tcp` is
    // false, on free ports. `t1Ms` shortens UDP time-outs (64 x T1).
    static UserAgentConfig loopbackConfig(bool tcp = true, int64_t t1Ms = 500) {
        UserAgentConfig config;
        config.bindAddress = "127.0.0.1";
        config.udpPort = 0;
        config.tcpPort = tcp ? 0 : -1;
        config.timers.t1Ms = t1Ms;
        return config;
    }
    // Started, with its listener set; null after a recorded failure.
    static std::unique_ptr<UserAgent> startLoopbackUserAgent(const UserAgentConfig& config,
                                                             std::shared_ptr<UserAgentListener> listener) {
        auto ua = std::make_unique<UserAgent>(config);
        std::string error;
        if (!ua->start(&error)) {
            ADD_FAILURE() << error;
            return nullptr;
        }
        ua->setListener(std::move(listener));
        return ua;
    }
    // Alice's line at `kamailio`, through it as outbound proxy, registered;
    // 0 after a recorded failure.
    static int registerAlice(UserAgent& ua, const KamailioServer& kamailio, TransportKind transport) {
        LineConfig line;
        line.user = "alice";
        line.password = "secret";
        line.domain = kamailio.hostPort();
        line.outboundProxy = "sip:" + kamailio.hostPort();
        line.transport = transport;
        line.reregisterOnFailure = false;
        const int id = ua.addLine(line);
        if (id < 1 || !ua.registerLine(id)) {
            ADD_FAILURE() << "alice's line was not added";
            return 0;
        }
        if (!waitFor([&] { return ua.registrationState(id) == RegistrationState::Registered; },
                     std::chrono::seconds(5))) {
            ADD_FAILURE() << "alice is " << toString(ua.registrationState(id));
            return 0;
        }
        return id;
    }

private:
    // Declared first so that it outlives everything that logs.
    LogCapture logs_;
    std::vector<std::unique_ptr<KamailioServer>> kamailios_;
    std::vector<std::unique_ptr<SippRunner>> sipps_;
    std::vector<std::unique_ptr<DnsmasqServer>> dnsmasqs_;
};

}  // namespace kelsip::test
