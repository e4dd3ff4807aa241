// Tests against a real dnsmasq: skipped where it cannot run (Windows/Wine),
// failed where it should but is missing, its log shown when a test fails.
#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dns_test_support.h"
#include "support/dnsmasq_server.h"

namespace kelsip::test {

class DnsmasqTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!DnsmasqServer::supported()) {
            GTEST_SKIP() << "dnsmasq does not run on Windows or under Wine; these tests run natively";
        }
        ASSERT_TRUE(DnsmasqServer::installed("dnsmasq"))
            << "dnsmasq not found: install dnsmasq-base (scripts/setup does)";
    }
    void TearDown() override {
        if (!HasFailure()) return;
        for (const auto& server : servers_) {
            std::cerr << "---- dnsmasq on " << server->address().toString() << " ----\n" << server->log() << "----\n";
        }
    }
    // Kept until the test ends; null, with a failure recorded, when it did not start.
    DnsmasqServer* startDnsmasq(const std::vector<std::string>& config) {
        auto server = std::make_unique<DnsmasqServer>();
        std::string error;
        const bool started = server->start(config, &error);
        servers_.push_back(std::move(server));
        if (!started) {
            ADD_FAILURE() << "dnsmasq: " << error;
            return nullptr;
        }
        return servers_.back().get();
    }
    // A client in virtual time asking one dnsmasq; null when it did not start.
    VirtualClient* startClient(const std::vector<std::string>& config) {
        DnsmasqServer* server = startDnsmasq(config);
        if (server == nullptr) return nullptr;
        dns::DnsClientOptions options;
        options.servers = {server->address()};
        return &client_.emplace(options);
    }

private:
    std::vector<std::unique_ptr<DnsmasqServer>> servers_;
    std::optional<VirtualClient> client_;
};

}  // namespace kelsip::test
