// A real Kamailio for the interop tests: registrar and proxy with digest
// authentication on 127.0.0.1 (UDP and TCP on one free port), its
// configuration and log in a temporary folder, stopped when the object goes.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "support/peer_process.h"

namespace kelsip::test {

// Its accounts: alice (password "secret") and bob ("bobsecret"); the digest
// realm is the request's domain.
struct KamailioOptions {
    // Names Kamailio takes as its own besides 127.0.0.1 (a domain found
    // through DNS, say).
    std::vector<std::string> domains;
    // The registrar's shortest expiry, in seconds: tests lower it to see refreshes.
    int minExpires = 60;
    // How long a nonce stays valid, in seconds: past it Kamailio answers
    // credentials with a new challenge marked stale.
    int nonceExpires = 300;
    // With a certificate and key (PEM), Kamailio also listens for TLS on a
    // port of its own (tlsPort()), presenting them.
    std::string tlsCertificate;
    std::string tlsKey;
    // Addresses it listens on too, on the same port (the root's end of a
    // test's network namespace, say).
    std::vector<std::string> listenAddresses;
};

class KamailioServer : public PeerProcess {
public:
    KamailioServer() : PeerProcess("kamailio") {}

    // Ready once it answers an OPTIONS on UDP and accepts a TCP connection;
    // on failure the reason is in `error` and Kamailio's output in log().
    [[nodiscard]] bool start(const KamailioOptions& options, std::string* error);
    // Where it takes TLS; 0 without a certificate.
    [[nodiscard]] uint16_t tlsPort() const { return tlsPort_; }

    // The final status to OPTIONS sip:user@domain (domain: hostPort() when
    // empty), 0 when none came within `timeout`: with a binding Kamailio
    // relays it to the user agent (200), without one it answers 404 itself.
    [[nodiscard]] int optionsTo(const std::string& user, const std::string& domain = "",
                                std::chrono::milliseconds timeout = std::chrono::seconds(3)) const;

    // Requests and saved REGISTERs, as the configuration logs them.
    [[nodiscard]] int requestsSeen(const std::string& method, const std::string& fromUser) const;
    [[nodiscard]] int bindingsSaved(const std::string& user) const;

private:
    [[nodiscard]] static std::string config(const KamailioOptions& options, uint16_t port, uint16_t tlsPort,
                                            const std::string& modules);
    [[nodiscard]] int count(const std::string& needle) const;

    uint16_t tlsPort_ = 0;
};

}  // namespace kelsip::test
