// What every real peer the tests start has in common (Kamailio, SIPp,
// dnsmasq, baresip): a program found on the machine, a temporary folder for
// its configuration and log, a free port on 127.0.0.1, a wait until it is
// ready, and a stop however the test ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "sip/net/socket.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace kelsip::test {

class PeerProcess {
public:
    explicit PeerProcess(const std::string& name) : dir_("velmora-" + name) {}
    virtual ~PeerProcess() { process_.stop(); }
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    // False where programs cannot be started (Windows, and so Wine).
    [[nodiscard]] static bool supported() { return Process::supported(); }
    // Whether `program` is installed.
    [[nodiscard]] static bool installed(const std::string& program) { return !Process::findProgram(program).empty(); }
    [[nodiscard]] uint16_t port() const { return port_; }
    [[nodiscard]] net::SocketAddress address() const {
        return net::SocketAddress::loopback(net::AddressFamily::V4, port_);
    }
    // "127.0.0.1:P".
    [[nodiscard]] std::string hostPort() const { return address().toString(); }
    // What the program has written so far.
    [[nodiscard]] virtual std::string log() const { return process_.log(); }

protected:
    struct Launch {
        std::string program;
        std::string package;  // what installs it, for the error text
        // The command line for a fresh port (port_ is set); false: a file
        // could not be written, with the reason in the error.
        std::function<bool(ProcessOptions&, std::string*)> prepare;
        // Ready to serve; asked while the program runs, until 10 s pass.
        std::function<bool()> ready;
        // After a failed start: whether another program took the port, so
        // that a fresh one is worth a try.
        std::function<bool()> lostPort;
    };
    // Up to five fresh ports; the log of the last attempt stays readable.
    [[nodiscard]] bool launch(const Launch& launch, std::string* error);

    TempDir dir_;
    Process process_;
    uint16_t port_ = 0;
};

}  // namespace kelsip::test
