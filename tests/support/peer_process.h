// What every real peer the tests start has in common (Kamailio, SIPp,
// dnsmasq, baresip): a program found on the machine, a temporary folder for
// its configuration and log, a free port on 127.0.0.1, a wait until it is
// ready, and a stop however the test ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

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
        return net::SocketAddress::parse(host_, port_).value_or(net::SocketAddress::loopback(net::AddressFamily::V4, port_));
    }
    // Runs the program behind `enter` (a command that runs the rest of its
    // line elsewhere, such as `ip netns exec NAME`), where the test reaches
    // it at `host` instead of 127.0.0.1. Before start.
    void runThrough(std::vector<std::string> enter, std::string host) {
        enter_ = std::move(enter);
        host_ = std::move(host);
    }
    // "127.0.0.1:P", or the host given to runThrough.
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
    std::vector<std::string> enter_;
    std::string host_ = "127.0.0.1";
};

}  // namespace kelsip::test
