// A real Kamailio for the interop tests: registrar and proxy with digest
// authentication on 127.0.0.1 (UDP and TCP on one free port), its
// configuration and log in a temporary folder, stopped when the object goes.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "support/peer_process.h"

namespace kelsip::test {

struct KamailioOptions {
    // Accounts and their passwords; the digest realm is the request's domain.
    std::vector<std::pair<std::string, std::string>> users = {{"alice", "secret"}, {"bob", "bobsecret"}};
    // Names Kamailio takes as its own besides 127.0.0.1 (a domain found
    // through DNS, say).
    std::vector<std::string> domains;
    // The registrar's limits, in seconds: tests lower them to see refreshes.
    int minExpires = 60;
    int maxExpires = 3600;
    int defaultExpires = 3600;
    // How long a nonce stays valid, in seconds: past it Kamailio answers
    // credentials with a new challenge marked stale.
    int nonceExpires = 300;
};

class KamailioServer : public PeerProcess {
public:
    KamailioServer() : PeerProcess("kamailio") {}
    // Where Debian keeps its modules, or empty when they are not there.
    [[nodiscard]] static std::string findModules();

    // Writes kamailio.cfg, starts Kamailio in the foreground and waits until
    // it answers an OPTIONS on UDP and accepts a TCP connection. On failure
    // the reason is in `error` and Kamailio's output in log().
    [[nodiscard]] bool start(const KamailioOptions& options, std::string* error);

    // Sends OPTIONS for sip:user@domain (domain: hostPort() when empty)
    // from a fresh UDP socket and returns the final status code, 0 when none
    // came within `timeout`. With a binding Kamailio relays it to the user
    // agent (which answers 200); without one it answers 404 itself.
    [[nodiscard]] int optionsTo(const std::string& user, const std::string& domain = "",
                                std::chrono::milliseconds timeout = std::chrono::seconds(3)) const;

    // The configuration logs one line per request ("request REGISTER from
    // alice ...") and per saved REGISTER ("saved binding of alice, Expires
    // N"); these count them.
    [[nodiscard]] int requestsSeen(const std::string& method, const std::string& fromUser) const;
    [[nodiscard]] int bindingsSaved(const std::string& user) const;

private:
    [[nodiscard]] static std::string config(const KamailioOptions& options, uint16_t port, const std::string& modules);
    [[nodiscard]] int count(const std::string& needle) const;
};

}  // namespace kelsip::test
