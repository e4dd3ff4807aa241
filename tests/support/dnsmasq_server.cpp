// dnsmasq on the process runner: options on the command line, records in a
// configuration file, ready once it answers a query.
#include "support/dnsmasq_server.h"

#include <chrono>

#include "sip/dns/dns_message.h"
#include "sip/net/socket.h"

namespace kelsip::test {

namespace {

// True when dnsmasq answers a query on its port within 50 ms.
bool answers(const net::SocketAddress& server) {
    net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    if (!socket.valid() || !socket.setNonBlocking(true) ||
        !socket.bind(net::SocketAddress::loopback(net::AddressFamily::V4))) {
        return false;
    }
    const auto query = dns::encodeQuery(0x5151, "probe.invalid", dns::RecordType::A);
    static_cast<void>(socket.sendTo(query->data(), query->size(), server));
    net::PollEntry entry;
    entry.socket = socket.native();
    entry.wantRead = true;
    if (net::poll(std::span<net::PollEntry>(&entry, 1), 50) <= 0 || !entry.readable) return false;
    uint8_t buffer[512];
    net::SocketAddress from;
    return socket.receiveFrom(buffer, sizeof buffer, from).ok() && from == server;
}

}  // namespace

bool DnsmasqServer::start(const std::vector<std::string>& configLines, std::string* error) {
    Launch dnsmasq;
    dnsmasq.program = "dnsmasq";
    dnsmasq.package = "dnsmasq-base";
    dnsmasq.prepare = [&](ProcessOptions& run, std::string* failure) {
        std::string config;
        for (const std::string& line : configLines) config += line + '\n';
        if (!writeTextFile(dir_.file("dnsmasq.conf"), config)) {
            *failure = "cannot write dnsmasq.conf";
            return false;
        }
        run.arguments = {"--conf-file=" + dir_.file("dnsmasq.conf").string(), "-k", "--port=" + std::to_string(port_),
                         "--no-resolv", "--no-hosts", "--listen-address=127.0.0.1", "--bind-interfaces",
                         "--log-queries", "--log-facility=-", "--pid-file=" + dir_.file("dnsmasq.pid").string()};
        run.stopGrace = std::chrono::milliseconds(500);
        return true;
    };
    dnsmasq.ready = [&] { return answers(address()); };
    // Lost the port to someone else: try another one; any other reason to
    // exit is the configuration's fault.
    dnsmasq.lostPort = [&] { return log().find("Address already in use") != std::string::npos; };
    return launch(dnsmasq, error);
}

}  // namespace kelsip::test
