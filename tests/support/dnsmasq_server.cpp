// dnsmasq on the process runner: options on the command line, records in a
// configuration file, ready once it answers a query.
#include "support/dnsmasq_server.h"

#include <chrono>

#include "sip/dns/dns_message.h"
#include "sip/net/socket.h"
#include "support/free_port.h"

namespace kelsip::test {

namespace {

// True once dnsmasq answers anything on its port; false when the process
// has exited or `timeout` passes first.
bool waitUntilAnswering(Process& process, const net::SocketAddress& server, std::chrono::milliseconds timeout) {
    net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    if (!socket.valid() || !socket.setNonBlocking(true) ||
        !socket.bind(net::SocketAddress::loopback(net::AddressFamily::V4))) {
        return false;
    }
    const auto query = dns::encodeQuery(0x5151, "probe.invalid", dns::RecordType::A);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (!process.isRunning()) return false;
        static_cast<void>(socket.sendTo(query->data(), query->size(), server));
        net::PollEntry entry;
        entry.socket = socket.native();
        entry.wantRead = true;
        if (net::poll(std::span<net::PollEntry>(&entry, 1), 50) > 0 && entry.readable) {
            uint8_t buffer[512];
            net::SocketAddress from;
            if (socket.receiveFrom(buffer, sizeof buffer, from).ok() && from == server) return true;
        }
    }
    return false;
}

}  // namespace

DnsmasqServer::DnsmasqServer() = default;
DnsmasqServer::~DnsmasqServer() { stop(); }

bool DnsmasqServer::supported() { return Process::supported(); }

std::string DnsmasqServer::findBinary() { return Process::findProgram("dnsmasq"); }

bool DnsmasqServer::start(const std::vector<std::string>& configLines, std::string* error) {
    if (findBinary().empty()) {
        *error = "dnsmasq not found: install dnsmasq-base (scripts/setup does)";
        return false;
    }
    if (!dir_.valid()) {
        *error = "cannot create a temporary folder";
        return false;
    }
    std::string config;
    for (const std::string& line : configLines) config += line + '\n';
    if (!writeTextFile(dir_.file("dnsmasq.conf"), config)) {
        *error = "cannot write dnsmasq.conf";
        return false;
    }

    for (int attempt = 0; attempt < 5; ++attempt) {
        stop();
        port_ = freeLoopbackPort();
        if (port_ == 0) continue;
        ProcessOptions options;
        options.program = "dnsmasq";
        options.arguments = {
            "--conf-file=" + dir_.file("dnsmasq.conf").string(),
            "-k",
            "--port=" + std::to_string(port_),
            "--no-resolv",
            "--no-hosts",
            "--listen-address=127.0.0.1",
            "--bind-interfaces",
            "--log-queries",
            "--log-facility=-",
            "--pid-file=" + dir_.file("dnsmasq.pid").string(),
        };
        options.workingDirectory = dir_.path();
        options.logFile = dir_.file("dnsmasq.log");
        options.stopGrace = std::chrono::milliseconds(500);
        if (!process_.start(options, error)) return false;
        if (waitUntilAnswering(process_, address(), std::chrono::seconds(10))) return true;
        // Lost the port to someone else: try another one; any other
        // reason to exit is the configuration's fault.
        if (log().find("Address already in use") == std::string::npos) break;
    }
    stop();
    *error = "dnsmasq did not start";
    return false;
}

void DnsmasqServer::stop() { process_.stop(); }

net::SocketAddress DnsmasqServer::address() const {
    return net::SocketAddress::loopback(net::AddressFamily::V4, port_);
}

std::string DnsmasqServer::log() const { return process_.log(); }

}  // namespace kelsip::test
